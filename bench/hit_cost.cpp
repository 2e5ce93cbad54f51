// Where a hit's time goes: the items tree (20 folders of 5,000 files, every
// file a hit) scanned in one process by ever more of what broom scan does
// per hit, each step's time beside the bare walk of the
// same folders, and the cost per hit of each step over the one before
// (the quickest of seven rounds of each):
//   walk      the engine's walk with a scan that only counts (no item)
//   items     CStdFileScan: a CCleanableFile per hit, to a collector that
//             drops it, no scan log
//   log       the same with the scan log on
//   host      a collector that keeps what broom scan's does per hit: the
//             whitelist's verdict on the path and the set of paths seen
// All on the scanning thread alone (ScanThreads 1), then the last step
// again with folders listed ahead.
//   bench_hit_cost.exe [ITEMS_ROOT]
#include <windows.h>
#include <shellapi.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>
#include <unordered_set>
#include <vector>

#include "bench/BenchTree.h"
#include "clean/CleanableFile.h"
#include "clean/FileSystemOps.h"
#include "log/ScanLogThread.h"
#include "scan/ListAhead.h"
#include "scan/StdFileScan.h"
#include "settings/AppInfo.h"
#include "tests/common/ScanNotifiers.h"

namespace {

constexpr int kRounds = 7;

class CountingScan : public CBaseFileScan {
 public:
  void Estimate() { CalcProgressVals(200); }
  void OnFile(const CPathString&, const WIN32_FIND_DATAW&) override { ++hits; }
  void ProcessHit(const CPathString&, const WIN32_FIND_DATAW&, unsigned int) override {}
  long long hits = 0;
};

class Dropping : public IResultsCollector {
 public:
  void AddItem(ICleanableItem*) override { ++hits; }
  long long hits = 0;
};

// What broom's collector does with a file hit when it keeps totals only.
class HostLike : public IResultsCollector {
 public:
  explicit HostLike(CWhiteListTree& whiteList) : m_whiteList(whiteList) {}
  void AddItem(ICleanableItem* item) override {
    auto* file = dynamic_cast<CCleanableFile*>(item);
    if (!file || (m_whiteList.CheckProtection(file->GetPath().c_str()) & 1)) return;
    wchar_t upper[MAX_PATH + 1];
    size_t length = file->GetPath().GetLength();
    wmemcpy(upper, file->GetPath().c_str(), length);
    CharUpperBuffW(upper, static_cast<DWORD>(length));
    unsigned long long hash = 14695981039346656037ull;
    for (size_t i = 0; i < length; ++i) hash = (hash ^ upper[i]) * 1099511628211ull;
    if (!m_seen.insert(hash).second) return;
    ++hits;
    size += item->GetSize();
  }
  long long hits = 0;
  unsigned long long size = 0;

 private:
  CWhiteListTree& m_whiteList;
  std::unordered_set<unsigned long long> m_seen;
};

template <class C>
using Stack = CUnknownFoundation<C, CRefCount<0>, CIUnknownOnly, CDontDelete>;

// The quickest round: on a shared machine the others only add what other
// programs took.
double Best(std::vector<double> v) { return *std::min_element(v.begin(), v.end()); }

}  // namespace

int main() {
  int argc = 0;
  wchar_t** argv = CommandLineToArgvW(GetCommandLineW(), &argc);
  std::wstring root = argc > 1 ? argv[1] : benchtree::DefaultRoot() + L"-items";
  LocalFree(argv);
  benchtree::GenerateItems(root);
  wchar_t temp[MAX_PATH];
  GetTempPathW(MAX_PATH, temp);
  std::wstring data = std::wstring(temp) + L"broom-bench-hits";
  CreateDirectoryW(data.c_str(), nullptr);
  CreateDirectoryW((data + L"\\Logs").c_str(), nullptr);
  CAppInfo::Init(nullptr, data.c_str());
  CWhiteListTree whiteList;
  whiteList.SafeGuardPath(data.c_str(), 1);
  broomtest::NullProgress progress;
  broomtest::NullStatus status;

  // one scan per item, as a host runs the items
  auto item = [&](int i) { return CPathString((root + L"\\item" + std::to_wstring(i)).c_str()); };
  long long hits = 0;
  struct Step {
    const char* name;
    std::function<void()> run;
    std::vector<double> times;
  };
  auto scanItems = [&](IResultsCollector* collector, bool log) {
    if (log)
      CAppInfo::ClearManualStateBits(0x20000);
    else
      CAppInfo::SetManualStateBits(0x20000);
    // the scan log is held across the scans, as a host holds it for a run
    CRefPtr<ILogWriter> hold = CScanLogThread::GetCurrentScanLog(true);
    for (int i = 0; i < benchtree::kItems; ++i) {
      CRefPtr<CStdFileScan> scan(new IUnknownNoQIImp<CStdFileScan>());
      scan->AddPath(item(i));
      scan->PerformScan(collector, &progress, &status, &whiteList);
    }
  };
  std::vector<Step> steps = {
      {"bare walk", [&] { hits = benchtree::BareWalk(root) - 1; }, {}},
      {"vector walk", [&] {
         std::function<long long(const std::wstring&)> walk = [&](const std::wstring& folder) {
           std::vector<WIN32_FIND_DATAW> folders, files;
           CFileSystemOps::ListDirectory(folders, &files, (folder + L"\\*").c_str(), false);
           long long n = static_cast<long long>(files.size());
           for (const auto& f : folders) n += walk(folder + L"\\" + f.cFileName);
           return n;
         };
         hits = 0;
         for (int i = 0; i < benchtree::kItems; ++i) hits += walk(root + L"\\item" + std::to_wstring(i));
       }, {}},
      {"estimate", [&] {
         for (int i = 0; i < benchtree::kItems; ++i) {
           CountingScan scan;
           scan.AddPath(item(i));
           scan.Initialize(&progress, &status, &whiteList);
           scan.Estimate();
         }
       }, {}},
      {"walk", [&] {
         CAppInfo::SetManualStateBits(0x20000);  // no scan log
         hits = 0;
         for (int i = 0; i < benchtree::kItems; ++i) {
           CountingScan scan;
           scan.AddPath(item(i));
           scan.Initialize(&progress, &status, &whiteList);
           scan.StartScan();
           hits += scan.hits;
         }
       }, {}},
      {"items", [&] {
         Stack<Dropping> drop;
         scanItems(&drop, false);
       }, {}},
      {"log", [&] {
         Stack<Dropping> drop;
         scanItems(&drop, true);
       }, {}},
      {"host", [&] {
         Stack<HostLike> host(whiteList);
         scanItems(&host, true);
       }, {}},
  };
  CListAhead::SetThreads(1);
  benchtree::BareWalk(root);  // warm the caches
  std::vector<double> ahead;
  for (int round = 0; round < kRounds; ++round) {
    for (Step& step : steps) {
      auto t0 = std::chrono::steady_clock::now();
      step.run();
      step.times.push_back(benchtree::Seconds(t0));
    }
    CListAhead::SetThreads(0);
    auto t0 = std::chrono::steady_clock::now();
    steps.back().run();
    ahead.push_back(benchtree::Seconds(t0));
    CListAhead::SetThreads(1);
  }
  std::printf("%lld hits; the quickest of %d rounds, on the scanning thread alone:\n", hits, kRounds);
  double previous = 0;
  for (const Step& step : steps) {
    double t = Best(step.times);
    std::printf("  %-10s %7.3f s  %5.2f x bare", step.name, t, t / Best(steps[0].times));
    if (previous > 0) std::printf("  %+6.2f us per hit", (t - previous) * 1e6 / static_cast<double>(hits));
    std::printf("\n");
    previous = t;
  }
  // pieces of a hit, each alone, 100,000 times on one path
  std::wstring sample = root + L"\\item7\\f33\\file42.tmp";
  auto piece = [&](const char* name, const std::function<void()>& f) {
    auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < 100000; ++i) f();
    std::printf("  %-34s %6.2f us\n", name, benchtree::Seconds(t0) * 10);
  };
  CPathString folder((root + L"\\item7\\f33\\").c_str());
  WIN32_FIND_DATAW entry = {};
  wcscpy(entry.cFileName, L"file42.tmp");
  entry.nFileSizeLow = 64;
  std::printf("pieces of a hit, each on its own:\n");
  piece("CCleanableFile new, Init, Release", [&] {
    CRefPtr<CCleanableFile> item(new IUnknownNoQIImp<CCleanableFile>());
    item->Init(folder, entry);
  });
  CRefPtr<CCleanableFile> one(new IUnknownNoQIImp<CCleanableFile>());
  one->Init(folder, entry);
  piece("GetLogEntry", [&] { one->GetLogEntry(); });
  piece("whitelist CheckProtection", [&] { whiteList.CheckProtection(sample.c_str()); });
  piece("CharUpperBuffW of the path", [&] {
    wchar_t upper[MAX_PATH + 1];
    wmemcpy(upper, sample.c_str(), sample.size());
    CharUpperBuffW(upper, static_cast<DWORD>(sample.size()));
  });
  std::unordered_set<unsigned long long> seen;
  unsigned long long n = 0;
  piece("unordered_set insert", [&] { seen.insert(++n * 11400714819323198485ull); });
  double a = Best(ahead);
  std::printf("  host, listed ahead on %u threads: %.3f s  %5.2f x bare\n", CListAhead::DefaultThreads(), a,
              a / Best(steps[0].times));
  return 0;
}
