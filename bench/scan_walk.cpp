// Scans a generated tree of 100,000 files in 5,000 folders (100 of them
// protected by the whitelist, one pattern filter) and compares the time with
// a bare recursive FindFirstFileW walk of the same tree in the same process.
#include <windows.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "bench/BenchTree.h"
#include "log/ScanLogThread.h"
#include "scan/BaseFileScan.h"
#include "settings/AppInfo.h"
#include "tests/common/ScanNotifiers.h"

namespace {

using broomtest::NullProgress;
using broomtest::NullStatus;

using benchtree::FolderPath;
using benchtree::kFolders;

constexpr int kProtected = 100;

class CountingScan : public CBaseFileScan {
 public:
  void OnFile(const CPathString&, const WIN32_FIND_DATAW&) override { ++hits; }
  void ProcessHit(const CPathString&, const WIN32_FIND_DATAW&, unsigned int) override {}
  long long hits = 0;
};

}  // namespace

int main() {
  wchar_t temp[MAX_PATH];
  GetTempPathW(MAX_PATH, temp);
  std::wstring root = benchtree::DefaultRoot();
  benchtree::Generate(root);
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
  benchtree::BareWalk(root);  // warm the file system caches
  for (int round = 0; round < 5; ++round) {
    auto t0 = std::chrono::steady_clock::now();
    bareFiles = benchtree::BareWalk(root);
    bestBare = std::min(bestBare, benchtree::Seconds(t0));

    CountingScan scan;
    scan.AddPath(CPathString((root + L"\\*").c_str()));
    scan.AddFilter(filter);
    scan.Initialize(&progress, &status, &whiteList);
    auto t1 = std::chrono::steady_clock::now();
    scan.StartScan();
    bestScan = std::min(bestScan, benchtree::Seconds(t1));
    hits = scan.hits;
  }
  printf("bare FindFirstFileW walk: %lld files in %.3f s\n", bareFiles, bestBare);
  printf("engine scan:              %lld hits  in %.3f s (%d folders protected, filter *.tmp)\n", hits, bestScan,
         kProtected);
  printf("ratio engine/bare: %.2f (goal <= 1.25)\n", bestScan / bestBare);
  return 0;
}
