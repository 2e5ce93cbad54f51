// Scans a generated tree of 100,000 files in 5,000 folders (100 of them
// protected by the whitelist, one pattern filter) and compares the time with
// a bare recursive FindFirstFileW walk of the same tree in the same process;
// then the same scan with an age filter and the blast-radius guard's verdict
// on every hit, as broom clean --older-than runs it. Medians of five rounds.
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <vector>
#include <cstdio>
#include <string>

#include "bench/BenchTree.h"
#include "guard/BlastGuard.h"
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

// Asks the guard about each hit, with its full path, as a host does.
class GuardedScan : public CountingScan {
 public:
  explicit GuardedScan(const CBlastGuard& guard) : m_guard(guard) {}
  void OnFile(const CPathString& folder, const WIN32_FIND_DATAW& entry) override {
    CPathString path(folder);
    path.Append(entry.cFileName, static_cast<unsigned short>(wcslen(entry.cFileName)));
    allowed += m_guard.CheckPath(path.c_str(), false, L"*.tmp").allowed;
    ++hits;
  }
  long long allowed = 0;

 private:
  const CBlastGuard& m_guard;
};

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

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

  auto* age = new IUnknownNoQIImp<CBaseFileScan::_FilterRejectRecentFiles_Impl>();
  CRefPtr<CBaseFileScan::IFilter> holdAge(age);
  age->SetAge(0, false);  // keeps every file: the cost of the test, not of fewer hits
  CBlastGuard guard;

  std::vector<double> bare, plain, guarded;
  long long bareFiles = 0, hits = 0, allowed = 0;
  benchtree::BareWalk(root);  // warm the file system caches
  for (int round = 0; round < 5; ++round) {
    auto t0 = std::chrono::steady_clock::now();
    bareFiles = benchtree::BareWalk(root);
    bare.push_back(benchtree::Seconds(t0));

    CountingScan scan;
    scan.AddPath(CPathString((root + L"\\*").c_str()));
    scan.AddFilter(filter);
    scan.Initialize(&progress, &status, &whiteList);
    auto t1 = std::chrono::steady_clock::now();
    scan.StartScan();
    plain.push_back(benchtree::Seconds(t1));
    hits = scan.hits;

    GuardedScan safe(guard);
    safe.AddPath(CPathString((root + L"\\*").c_str()));
    safe.AddFilter(filter);
    safe.AddFilter(age);
    safe.Initialize(&progress, &status, &whiteList);
    auto t2 = std::chrono::steady_clock::now();
    safe.StartScan();
    guarded.push_back(benchtree::Seconds(t2));
    allowed = safe.allowed;
  }
  printf("bare FindFirstFileW walk: %lld files in %.3f s\n", bareFiles, Median(bare));
  printf("engine scan:              %lld hits  in %.3f s (%d folders protected, filter *.tmp)\n", hits, Median(plain),
         kProtected);
  printf("with age filter + guard:  %lld hits  in %.3f s (%lld allowed)\n", allowed, Median(guarded), allowed);
  // The guard's own cost, without the walk: one verdict per hit of the scan.
  std::wstring sample = FolderPath(root, kFolders - 1) + L"\\file.tmp";
  auto t3 = std::chrono::steady_clock::now();
  long long kept = 0;
  for (long long i = 0; i < hits; ++i) kept += guard.CheckPath(sample.c_str(), false, L"*.tmp").allowed;
  double verdicts = benchtree::Seconds(t3);
  printf("guard verdicts alone:     %lld in %.3f s (%.2f us each)\n", kept, verdicts, verdicts * 1e6 / hits);
  printf("ratio engine/bare: %.2f (goal <= 1.25)\n", Median(plain) / Median(bare));
  printf("ratio guarded/engine: %.2f (goal: no measurable cost)\n", Median(guarded) / Median(plain));
  return 0;
}
