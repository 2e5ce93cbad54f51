// Cleans 10,000 found files through CCleanableFile::Clean (a shell delete on
// the STA thread each), then 10,000 more through CleanItems (the same
// deletes, a run of them per trip to the STA thread), and compares both with
// DeleteFileW on the calling thread, the floor: rates and the ratio of each
// to the floor's rate, per round and the median of the rounds.
#include <windows.h>
#include <objbase.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "clean/CleanItems.h"
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

// Items as a scan makes them: found by listing, initialised with their size.
std::vector<CRefPtr<CCleanableFile>> FoundItems(const std::wstring& folder) {
  std::vector<CRefPtr<CCleanableFile>> items;
  WIN32_FIND_DATAW data;
  HANDLE find = FindFirstFileW((folder + L"\\*.tmp").c_str(), &data);
  do {
    CRefPtr<CCleanableFile> item(new IUnknownNoQIImp<CCleanableFile>());
    item->Init(CPathString(folder.c_str()), data);
    items.push_back(item);
  } while (FindNextFileW(find, &data));
  FindClose(find);
  return items;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main() {
  CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  wchar_t temp[MAX_PATH];
  GetTempPathW(MAX_PATH, temp);
  std::wstring root = std::wstring(temp) + L"broom-bench-clean";
  CXmlConfigGlobal::GetSTAMsgThread();  // started outside the timing
  constexpr int kRounds = 3;
  std::vector<double> perItem, batched;
  int failures = 0;
  for (int round = 1; round <= kRounds; ++round) {
    std::wstring folder = MakeFiles(root + L"-items");
    std::vector<CRefPtr<CCleanableFile>> items = FoundItems(folder);
    auto t0 = std::chrono::steady_clock::now();
    for (auto& item : items) failures += item->Clean(nullptr, nullptr) != 0;
    double engine = Seconds(t0);

    std::wstring runs = MakeFiles(root + L"-runs");
    std::vector<CRefPtr<CCleanableFile>> runItems = FoundItems(runs);
    std::vector<ICleanableItem*> raw;
    for (auto& item : runItems) raw.push_back(item.Get());
    std::vector<DWORD> results(raw.size());
    auto t1 = std::chrono::steady_clock::now();
    CleanItems(raw.data(), raw.size(), results.data());
    double run = Seconds(t1);
    for (DWORD r : results) failures += r != 0;

    std::wstring plain = MakeFiles(root + L"-plain");
    std::vector<std::wstring> paths;
    for (int i = 0; i < kFiles; ++i) paths.push_back(plain + L"\\f" + std::to_wstring(i) + L".tmp");
    auto t2 = std::chrono::steady_clock::now();
    for (const auto& p : paths) failures += !DeleteFileW(p.c_str());
    double floor = Seconds(t2);
    RemoveDirectoryW(folder.c_str());
    RemoveDirectoryW(runs.c_str());
    RemoveDirectoryW(plain.c_str());

    printf("round %d\n", round);
    printf("  Clean, one by one: %.1f us/item, %.0f items/s\n", engine * 1e6 / kFiles, kFiles / engine);
    printf("  CleanItems (runs): %.1f us/item, %.0f items/s\n", run * 1e6 / kFiles, kFiles / run);
    printf("  DeleteFileW:       %.1f us/file, %.0f files/s\n", floor * 1e6 / kFiles, kFiles / floor);
    perItem.push_back(floor / engine);
    batched.push_back(floor / run);
    printf("  rate ratio to DeleteFileW: Clean %.2f, CleanItems %.2f\n", perItem.back(), batched.back());
  }
  printf("median rate ratio to DeleteFileW: Clean %.2f, CleanItems %.2f (goal >= 0.33); %d failures\n",
         Median(perItem), Median(batched), failures);
  CXmlConfigGlobal::Shutdown();
  CoUninitialize();
  return failures ? 1 : 0;
}
