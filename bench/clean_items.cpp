// Cleans 10,000 found files through CCleanableFile::Clean (shell delete on
// the STA thread) and compares with DeleteFileW from the calling thread.
#include <windows.h>
#include <objbase.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "clean/CleanableFile.h"
#include "threads/MsgThreadSTA.h"

namespace {

constexpr int kFiles = 10000;

std::wstring MakeFiles(const std::wstring& folder) {
  CreateDirectoryW(folder.c_str(), nullptr);
  char data[100] = {};
  for (int i = 0; i < kFiles; ++i) {
    std::wstring path = folder + L"\\f" + std::to_wstring(i) + L".tmp";
    HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    DWORD written;
    WriteFile(h, data, sizeof data, &written, nullptr);
    CloseHandle(h);
  }
  return folder;
}

double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

}  // namespace

int main() {
  CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  wchar_t temp[MAX_PATH];
  GetTempPathW(MAX_PATH, temp);
  std::wstring root = std::wstring(temp) + L"broom-bench-clean";

  // items as a scan makes them: found by listing, initialised with their size
  std::wstring folder = MakeFiles(root + L"-items");
  std::vector<CRefPtr<CCleanableFile>> items;
  WIN32_FIND_DATAW data;
  HANDLE find = FindFirstFileW((folder + L"\\*.tmp").c_str(), &data);
  do {
    CRefPtr<CCleanableFile> item(new IUnknownNoQIImp<CCleanableFile>());
    item->Init(CPathString(folder.c_str()), data);
    items.push_back(item);
  } while (FindNextFileW(find, &data));
  FindClose(find);
  CXmlConfigGlobal::GetSTAMsgThread();  // started outside the timing

  auto t0 = std::chrono::steady_clock::now();
  int failures = 0;
  for (auto& item : items) failures += item->Clean(nullptr, nullptr) != 0;
  double engine = Seconds(t0);

  std::wstring plain = MakeFiles(root + L"-plain");
  std::vector<std::wstring> paths;
  for (int i = 0; i < kFiles; ++i) paths.push_back(plain + L"\\f" + std::to_wstring(i) + L".tmp");
  auto t1 = std::chrono::steady_clock::now();
  for (const auto& p : paths) failures += !DeleteFileW(p.c_str());
  double floor = Seconds(t1);

  RemoveDirectoryW(folder.c_str());
  RemoveDirectoryW(plain.c_str());
  printf("CCleanableFile::Clean: %zu items in %.2f s, %.0f items/s (%d failures)\n", items.size(), engine,
         items.size() / engine, failures);
  printf("DeleteFileW:           %d files in %.2f s, %.0f files/s\n", kFiles, floor, kFiles / floor);
  printf("ratio engine/floor time: %.1f\n", engine / floor);
  items.clear();
  CXmlConfigGlobal::Shutdown();
  CoUninitialize();
  return 0;
}
