#include "app/ScanRun.h"

#include <atomic>
#include <unordered_set>

#include "app/HostError.h"
#include "core/Handles.h"
#include "recyclebin/RecycleBinScan.h"
#include "registry/CleanableRegistry.h"
#include "registry/RegistryScan.h"
#include "scan/BaseFileScan.h"
#include "scan/OperationNotes.h"
#include "scan/OperationNotify.h"
#include "scan/ScanOperation.h"

namespace host {

namespace {

std::atomic<bool> g_cancel{false};

class CScanNotify : public IOperationProgressNotify, public IOperationStatusNotify {
 public:
  explicit CScanNotify(const SScanOptions& options)
      : m_cancelAfter(options.cancelAfterFiles), m_observer(options.observer) {}

  void Begin(const std::wstring& item, size_t index, size_t count) {
    m_total = 0;
    if (m_observer) m_observer->OnItem(item, index, count);
  }

  void SetTotal(int total) override {
    m_total = total;
    if (m_observer) m_observer->OnProgress(0, total);
  }
  void SetPosition(int position) override {
    if (m_observer) m_observer->OnProgress(position, m_total);
  }
  void Finish() override {
    if (m_observer) m_observer->OnProgress(m_total, m_total);
  }

  void SetCurrentFolder(const CString& folder) override {
    if (m_observer) m_observer->OnFolder(std::wstring(folder.GetString(), static_cast<size_t>(folder.GetLength())));
  }
  bool IsCancelled() override {
    if (m_observer && m_observer->IsCancelled()) RequestCancel();
    return IsCancelRequested();
  }
  void OnItem(const wchar_t*, int kind) override {
    if (kind == itemFile && m_cancelAfter != 0 && ++m_filesSeen >= m_cancelAfter) RequestCancel();
  }

 private:
  unsigned long m_cancelAfter;
  unsigned long m_filesSeen = 0;
  IScanObserver* m_observer;
  int m_total = 0;
};

// Adds an age filter to every file operation of a run, or takes the age
// filters out for the run, and puts the filters back as they were
// afterwards, so the tree is as loaded for the next run.
class CRunAgeFilters {
 public:
  CRunAgeFilters(unsigned long days, bool withoutAges) : m_days(days), m_withoutAges(withoutAges) {}
  ~CRunAgeFilters() {
    for (auto& added : m_binAdded) added.first->RemoveFilter(added.second);
    for (auto& removed : m_binRemoved) removed.first->AddFilter(removed.second);
    for (auto& added : m_added) added.first->RemoveFilter(added.second);
    for (auto& removed : m_removed) removed.first->AddFilter(removed.second);
  }
  CRunAgeFilters(const CRunAgeFilters&) = delete;
  CRunAgeFilters& operator=(const CRunAgeFilters&) = delete;

  void Apply(IScanOperation* op) {
    if (auto* bin = dynamic_cast<CRecycleBinScan*>(op)) return ApplyToBin(bin);
    auto* files = dynamic_cast<CBaseFileScan*>(op);
    if (!files) return;
    if (m_withoutAges) {
      std::vector<CBaseFileScan::IFilter*> ages;
      for (const auto& filter : files->GetFilters())
        if (dynamic_cast<CBaseFileScan::_FilterRejectRecentFiles_Impl*>(filter.Get())) ages.push_back(filter.Get());
      for (CBaseFileScan::IFilter* age : ages) {
        m_removed.emplace_back(files, age);  // holds it while it is out of the list
        files->RemoveFilter(age);
      }
      return;
    }
    if (m_days == 0) return;
    auto* age = new IUnknownNoQIImp<CBaseFileScan::_FilterRejectRecentFiles_Impl>();
    CRefPtr<CBaseFileScan::IFilter> hold(age);
    age->SetAge(m_days, false);
    files->AddFilter(age);
    m_added.emplace_back(files, age);
  }

  // A Recycle Bin entry's age is its deletion time; its filters are the file scan's.
  void ApplyToBin(CRecycleBinScan* bin) {
    if (m_withoutAges) {
      std::vector<CBaseFileScan::IFilter*> ages;
      for (const auto& filter : bin->GetFilters())
        if (dynamic_cast<CBaseFileScan::_FilterRejectRecentFiles_Impl*>(filter.Get())) ages.push_back(filter.Get());
      for (CBaseFileScan::IFilter* age : ages) {
        m_binRemoved.emplace_back(bin, age);
        bin->RemoveFilter(age);
      }
      return;
    }
    if (m_days == 0) return;
    auto* age = new IUnknownNoQIImp<CBaseFileScan::_FilterRejectRecentFiles_Impl>();
    CRefPtr<CBaseFileScan::IFilter> hold(age);
    age->SetAge(m_days, false);
    bin->AddFilter(age);
    m_binAdded.emplace_back(bin, age);
  }

 private:
  unsigned long m_days;
  bool m_withoutAges;
  std::vector<std::pair<CRecycleBinScan*, CBaseFileScan::IFilter*>> m_binAdded;
  std::vector<std::pair<CRecycleBinScan*, CRefPtr<CBaseFileScan::IFilter>>> m_binRemoved;
  std::vector<std::pair<CBaseFileScan*, CBaseFileScan::IFilter*>> m_added;
  std::vector<std::pair<CBaseFileScan*, CRefPtr<CBaseFileScan::IFilter>>> m_removed;
};

// Which files were already counted, by their upper-cased full path. A scan
// that keeps only totals remembers a 64-bit hash of each path instead of the
// path itself, so 100,000 hits cost a few megabytes rather than a hundred.
class CSeenPaths {
 public:
  explicit CSeenPaths(bool exact) : m_exact(exact) {}

  // False when the path was seen before.
  bool Insert(const wchar_t* path, size_t length) {
    // registry paths may be longer than file paths
    wchar_t local[MAX_PATH + 1];
    std::wstring longer;
    wchar_t* upper = local;
    if (length > MAX_PATH) {
      longer.assign(path, length);
      upper = &longer[0];
    } else {
      wmemcpy(local, path, length);
    }
    CharUpperBuffW(upper, static_cast<DWORD>(length));
    if (m_exact) return m_paths.emplace(upper, length).second;
    unsigned long long hash = 14695981039346656037ull;
    for (size_t i = 0; i < length; ++i) hash = (hash ^ upper[i]) * 1099511628211ull;
    return m_hashes.insert(hash).second;
  }

 private:
  bool m_exact;
  std::unordered_set<std::wstring> m_paths;
  std::unordered_set<unsigned long long> m_hashes;
};

class CHitCollector : public IResultsCollector {
 public:
  CHitCollector(CWhiteListTree& whiteList, EKeep keep, SScanResults& results)
      : m_whiteList(whiteList), m_keep(keep), m_seen(keep != keepTotals), m_results(results) {}

  void SetTarget(SItemResult* target) { m_target = target; }
  void SetOperation(const IScanOperation* op) { m_op = op; }
  void SetObserver(IScanObserver* observer) { m_observer = observer; }
  void SetEveryItem(bool everyItem) { m_everyItem = everyItem; }

  void AddItem(ICleanableItem* item) override {
    if (!item || !m_target) return;
    // File items know their path; registry items their key (and value);
    // others are asked for folder and name.
    std::wstring built;
    const wchar_t* path = nullptr;
    size_t length = 0;
    auto* file = dynamic_cast<CCleanableFile*>(item);
    if (file) {
      path = file->GetPath().c_str();
      length = file->GetPath().GetLength();
    } else {
      if (auto* key = dynamic_cast<CCleanableRegistry*>(item))
        built = key->GetPath().Text();
      else
        built = std::wstring(item->GetDetails().GetString()) + L"\\" + item->GetName().GetString();
      path = built.c_str();
      length = built.size();
    }
    // Protection covers folders during the walk; a protected file (or a
    // folder protected after its parent was listed) is dropped here.
    // Registry scans check every key and value they report themselves.
    if (file && (m_whiteList.CheckProtection(path) & 0x1)) {
      ++m_results.protectedSkipped;
      return;
    }
    if (!m_everyItem && !m_seen.Insert(path, length)) return;
    unsigned __int64 size = item->GetSize();
    m_target->size += size;
    ++m_target->files;
    ++m_results.files;
    m_results.size += size;
    if (m_observer) m_observer->OnHits(m_results.files, m_results.size);
    if (m_keep == keepTotals) return;
    SHit hit;
    if (m_keep == keepItems) hit.item = item;
    hit.path.assign(path, length);
    hit.size = size;
    hit.op = m_op;
    m_target->hits.push_back(std::move(hit));
  }

 private:
  CWhiteListTree& m_whiteList;
  EKeep m_keep;
  CSeenPaths m_seen;
  SScanResults& m_results;
  SItemResult* m_target = nullptr;
  const IScanOperation* m_op = nullptr;
  IScanObserver* m_observer = nullptr;
  bool m_everyItem = false;
};

}  // namespace

void RequestCancel() { g_cancel = true; }
bool IsCancelRequested() { return g_cancel; }
void ResetCancel() { g_cancel = false; }

SScanResults RunScan(const std::vector<SItem>& items, const SScanOptions& options, CWhiteListTree& whiteList,
                     const std::wstring& neverScanned) {
  SScanResults results;
  results.items.reserve(items.size());
  CScanNotify notify(options);
  CFakeBaseIUnknown<CHitCollector> collector(whiteList, options.keep, results);
  collector.SetObserver(options.observer);
  collector.SetEveryItem(options.everyItem);
  CRunAgeFilters ages(options.olderThanDays, options.withoutAgeFilters);
  // The guard lasts for this scan only, so it is never saved or listed with
  // the protected paths.
  const bool guard = !(whiteList.CheckProtection(neverScanned.c_str()) & 0x1);
  if (guard) whiteList.SafeGuardPath(neverScanned.c_str(), 0x1);
  auto unguard = broom::scope_exit([&] {
    if (guard) whiteList.RemovePath(neverScanned.c_str(), 0x1);
  });

  for (size_t i = 0; i < items.size(); ++i) {
    if (notify.IsCancelled()) break;
    results.items.emplace_back();
    SItemResult& current = results.items.back();
    current.item = items[i];
    collector.SetTarget(&current);
    notify.Begin(items[i].path, i, items.size());

    CRefPtr<TIteratorIface<CRefPtr<IScanOperation>>> ops;
    items[i].group->GetScanOps(ops);
    for (; ops && !ops->AtEnd(); ops->Next()) {
      if (notify.IsCancelled()) break;
      IScanOperation* op = *ops->Current();
      if (!op) continue;
      if (options.withoutRegistry && dynamic_cast<CRegistryScan*>(op)) {
        const wchar_t* note = L"its registry rules are switched off by your organisation (DisableRegistryCleaning)";
        if (current.notes.empty() || current.notes.back() != note) current.notes.emplace_back(note);
        continue;
      }
      collector.SetOperation(op);
      try {
        ages.Apply(op);
        op->PerformScan(&collector, &notify, &notify, &whiteList);
      } catch (...) {
        current.errors.push_back(ExceptionText());
      }
      if (auto* notes = dynamic_cast<IOperationNotes*>(op))
        for (const CString& note : notes->TakeScanNotes()) current.notes.emplace_back(note.GetString());
      if (auto* bin = dynamic_cast<CRecycleBinScan*>(op))
        for (const CRecycleBinScan::SNote& note : bin->GetNotes()) current.notes.push_back(note.path + L": " + note.reason);
    }
  }
  collector.SetTarget(nullptr);
  results.cancelled = IsCancelRequested();
  return results;
}

}  // namespace host
