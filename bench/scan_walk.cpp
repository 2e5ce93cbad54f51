// Scans a generated tree of 100,000 files in 5,000 folders (100 of them
// protected by the whitelist, one pattern filter) and compares the time with
// a bare recursive FindFirstFileW walk of the same tree in the same process.
#include <windows.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "log/ScanLogThread.h"
#include "scan/BaseFileScan.h"
#include "settings/AppInfo.h"
#include "tests/common/ScanNotifiers.h"

namespace {

using broomtest::NullProgress;
using broomtest::NullStatus;

constexpr int kFolders = 5000;
constexpr int kFilesPerFolder = 20;
constexpr int kProtected = 100;

std::wstring FolderPath(const std::wstring& root, int i) {
  // 50 top folders of 100 subfolders each
  return root + L"\\g" + std::to_wstring(i / 100) + L"\\f" + std::to_wstring(i % 100);
}

void Generate(const std::wstring& root) {
  std::wstring marker = root + L"\\complete";
  if (GetFileAttributesW(marker.c_str()) != INVALID_FILE_ATTRIBUTES) return;
  printf("generating %d files in %d folders...\n", kFolders * kFilesPerFolder, kFolders);
  CreateDirectoryW(root.c_str(), nullptr);
  for (int g = 0; g < kFolders / 100; ++g) CreateDirectoryW((root + L"\\g" + std::to_wstring(g)).c_str(), nullptr);
  char data[64] = "some cached bytes";
  for (int i = 0; i < kFolders; ++i) {
    std::wstring folder = FolderPath(root, i);
    CreateDirectoryW(folder.c_str(), nullptr);
    for (int f = 0; f < kFilesPerFolder; ++f) {
      std::wstring file = folder + L"\\file" + std::to_wstring(f) + (f % 2 ? L".tmp" : L".dat");
      HANDLE h = CreateFileW(file.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
      DWORD written;
      WriteFile(h, data, sizeof data, &written, nullptr);
      CloseHandle(h);
    }
  }
  HANDLE h = CreateFileW(marker.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  CloseHandle(h);
}

long long BareWalk(const std::wstring& folder) {
  long long files = 0;
  WIN32_FIND_DATAW data;
  HANDLE find = FindFirstFileW((folder + L"\\*").c_str(), &data);
  if (find == INVALID_HANDLE_VALUE) return 0;
  do {
    if (data.cFileName[0] == L'.' && (!data.cFileName[1] || (data.cFileName[1] == L'.' && !data.cFileName[2])))
      continue;
    if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
      files += BareWalk(folder + L"\\" + data.cFileName);
    else
      ++files;
  } while (FindNextFileW(find, &data));
  FindClose(find);
  return files;
}

class CountingScan : public CBaseFileScan {
 public:
  void OnFile(const CPathString&, const WIN32_FIND_DATAW&) override { ++hits; }
  void ProcessHit(const CPathString&, const WIN32_FIND_DATAW&, unsigned int) override {}
  long long hits = 0;
};

double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

}  // namespace

int main() {
  wchar_t temp[MAX_PATH];
  GetTempPathW(MAX_PATH, temp);
  std::wstring root = std::wstring(temp) + L"broom-bench-tree";
  Generate(root);
  CAppInfo::Init(nullptr, temp);
  CAppInfo::SetManualStateBits(0x20000);  // no scan log: measure the walk

  CWhiteListTree whiteList;
  for (int i = 0; i < kProtected; ++i) whiteList.SafeGuardPath(FolderPath(root, i * (kFolders / kProtected)).c_str(), 1);
  auto* filter = new IUnknownNoQIImp<CBaseFileScan::_FilterAcceptDOSPattern_Impl>();
  CRefPtr<CBaseFileScan::IFilter> holdFilter(filter);
  filter->SetPattern(L"*.tmp");
  NullProgress progress;
  NullStatus status;

  double bestBare = 1e9, bestScan = 1e9;
  long long bareFiles = 0, hits = 0;
  BareWalk(root);  // warm the file system caches
  for (int round = 0; round < 5; ++round) {
    auto t0 = std::chrono::steady_clock::now();
    bareFiles = BareWalk(root);
    bestBare = std::min(bestBare, Seconds(t0));

    CountingScan scan;
    scan.AddPath(CPathString((root + L"\\*").c_str()));
    scan.AddFilter(filter);
    scan.Initialize(&progress, &status, &whiteList);
    auto t1 = std::chrono::steady_clock::now();
    scan.StartScan();
    bestScan = std::min(bestScan, Seconds(t1));
    hits = scan.hits;
  }
  printf("bare FindFirstFileW walk: %lld files in %.3f s\n", bareFiles, bestBare);
  printf("engine scan:              %lld hits  in %.3f s (%d folders protected, filter *.tmp)\n", hits, bestScan,
         kProtected);
  printf("ratio engine/bare: %.2f (goal <= 1.25)\n", bestScan / bestBare);
  return 0;
}
