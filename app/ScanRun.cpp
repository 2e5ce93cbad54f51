#include "app/ScanRun.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <unordered_set>

#include "app/HostError.h"
#include "core/Handles.h"
#include "log/ScanLogThread.h"
#include "recyclebin/RecycleBinScan.h"
#include "registry/CleanableRegistry.h"
#include "registry/RegistryScan.h"
#include "scan/ListAhead.h"
#include "scan/BaseFileScan.h"
#include "scan/OperationNotes.h"
#include "scan/OperationNotify.h"
#include "scan/ScanOperation.h"

namespace host {

namespace {

std::atomic<bool> g_cancel{false};

class CScanNotify : public IOperationProgressNotify, public IOperationStatusNotify {
 public:
  // filesSeen: the count of files seen, when several notifiers share one
  CScanNotify(const SScanOptions& options, IScanObserver* observer, std::atomic<unsigned long>* filesSeen = nullptr)
      : m_cancelAfter(options.cancelAfterFiles), m_observer(observer), m_shared(filesSeen) {}

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
    if (kind != itemFile || m_cancelAfter == 0) return;
    if ((m_shared ? ++*m_shared : ++m_filesSeen) >= m_cancelAfter) RequestCancel();
  }

 private:
  unsigned long m_cancelAfter;
  unsigned long m_filesSeen = 0;
  IScanObserver* m_observer;
  std::atomic<unsigned long>* m_shared;
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

  // What tells one path from another: the upper-cased path when exact,
  // else its hash.
  struct SKey {
    std::wstring path;
    unsigned long long hash = 0;
  };
  void MakeKey(const wchar_t* path, size_t length, SKey& key) const {
    // registry paths may be longer than file paths
    wchar_t local[MAX_PATH + 1];
    std::wstring longer;
    wchar_t* upper = local;
    if (length > MAX_PATH) {
      longer.resize(length);
      upper = &longer[0];
    }
    // ASCII is folded here; the system folds the rest, only when there is any
    bool other = false;
    for (size_t i = 0; i < length; ++i) {
      const wchar_t c = path[i];
      other = other || c >= 0x80;
      upper[i] = (c >= L'a' && c <= L'z') ? static_cast<wchar_t>(c - (L'a' - L'A')) : c;
    }
    if (other) CharUpperBuffW(upper, static_cast<DWORD>(length));
    if (m_exact) {
      key.path.assign(upper, length);
      return;
    }
    unsigned long long hash = 14695981039346656037ull;
    for (size_t i = 0; i < length; ++i) hash = (hash ^ upper[i]) * 1099511628211ull;
    key.hash = hash;
  }
  // False when the path was seen before.
  bool Insert(const wchar_t* path, size_t length) {
    SKey key;
    MakeKey(path, length, key);
    return Insert(std::move(key));
  }
  bool Insert(SKey&& key) {
    return m_exact ? m_paths.insert(std::move(key.path)).second : m_hashes.insert(key.hash).second;
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
  // Items scanned side by side: every hit is kept with its key, in the order
  // found, and only merged into the totals (each path once) when the items
  // are put together in their order.
  struct SFound {
    CSeenPaths::SKey key;
    unsigned __int64 size = 0;
  };
  void SetDeferred(std::vector<SFound>* found) { m_found = found; }

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
    if (m_found) {
      m_found->emplace_back();
      m_found->back().size = item->GetSize();
      if (!m_everyItem) m_seen.MakeKey(path, length, m_found->back().key);
    } else if (!m_everyItem && !m_seen.Insert(path, length)) {
      return;
    }
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
  std::vector<SFound>* m_found = nullptr;
};

// One item's operations, in their order, on the calling thread.
void ScanItem(const std::vector<CRefPtr<IScanOperation>>& ops, CHitCollector& collector, CScanNotify& notify,
              CRunAgeFilters* ages, CWhiteListTree& whiteList, bool withoutRegistry, SItemResult& current) {
  for (const auto& op : ops) {
    if (notify.IsCancelled()) break;
    if (withoutRegistry && dynamic_cast<CRegistryScan*>(op.Get())) {
      const wchar_t* note = L"its registry rules are switched off by your organisation (DisableRegistryCleaning)";
      if (current.notes.empty() || current.notes.back() != note) current.notes.emplace_back(note);
      continue;
    }
    collector.SetOperation(op);
    try {
      if (ages) ages->Apply(op);
      op->PerformScan(&collector, &notify, &notify, &whiteList);
    } catch (...) {
      current.errors.push_back(ExceptionText());
    }
    if (auto* notes = dynamic_cast<IOperationNotes*>(op.Get()))
      for (const CString& note : notes->TakeScanNotes()) current.notes.emplace_back(note.GetString());
    if (auto* bin = dynamic_cast<CRecycleBinScan*>(op.Get()))
      for (const CRecycleBinScan::SNote& note : bin->GetNotes()) current.notes.push_back(note.path + L": " + note.reason);
  }
}

std::vector<CRefPtr<IScanOperation>> OpsOf(const SItem& item) {
  std::vector<CRefPtr<IScanOperation>> out;
  CRefPtr<TIteratorIface<CRefPtr<IScanOperation>>> ops;
  item.group->GetScanOps(ops);
  for (; ops && !ops->AtEnd(); ops->Next())
    if (IScanOperation* op = *ops->Current()) out.emplace_back(op);
  return out;
}

// An item scanned on a host thread: what its scan tells, kept for the
// calling thread, which alone talks to the host's observer.
class CItemState : public IScanObserver {
 public:
  void OnItem(const std::wstring&, size_t, size_t) override { begun = true; }
  void OnProgress(int p, int t) override {
    position = p;
    total = t;
  }
  void OnFolder(const std::wstring& f) override {
    std::lock_guard<std::mutex> lock(m_lock);
    m_folder = f;
    m_newFolder = true;
  }
  void OnHits(unsigned __int64 f, unsigned __int64 b) override {
    files = f;
    bytes = b;
  }
  bool IsCancelled() override { return IsCancelRequested(); }
  bool TakeFolder(std::wstring& out) {
    std::lock_guard<std::mutex> lock(m_lock);
    if (!m_newFolder) return false;
    out.swap(m_folder);
    m_newFolder = false;
    return true;
  }

  std::atomic<bool> begun{false}, done{false};
  std::atomic<int> position{0}, total{0};
  std::atomic<unsigned __int64> files{0}, bytes{0};

 private:
  std::mutex m_lock;
  std::wstring m_folder;
  bool m_newFolder = false;
};

// An item's scan log entries, held until every item before it is done;
// from then on they go straight to the log.
class CHeldLog : public ILogWriter {
 public:
  void WriteEntry(const CString& text, bool newLine) override {
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_log)
      m_log->WriteEntry(text, newLine);
    else
      m_held.emplace_back(text, newLine);
  }
  void Pass(ILogWriter* log) {
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_log) return;
    for (const auto& entry : m_held) log->WriteEntry(entry.first, entry.second);
    m_held.clear();
    m_held.shrink_to_fit();
    m_log = log;
  }

 private:
  std::mutex m_lock;
  std::vector<std::pair<CString, bool>> m_held;
  ILogWriter* m_log = nullptr;
};

// Host threads for a scan: as many as the engine's listing pool, at most 4,
// never more than the items; 1 scans the items one after the other.
unsigned ItemThreads(const SScanOptions& options, const std::vector<std::vector<CRefPtr<IScanOperation>>>& ops) {
  unsigned threads = options.itemThreads ? options.itemThreads : std::min(4u, CListAhead::GetThreads());
  threads = static_cast<unsigned>(std::min<size_t>(threads, ops.size()));
  // an operation shared by two items cannot run twice at once
  std::unordered_set<const IScanOperation*> all;
  for (const auto& item : ops)
    for (const auto& op : item)
      if (!all.insert(op.Get()).second) return 1;
  return std::max(threads, 1u);
}

// The items on several host threads, each taking the next item not begun;
// the calling thread tells the observer what they do and, once all are
// done, puts their hits together in the items' order, each path once.
void ScanSideBySide(const std::vector<SItem>& items, std::vector<std::vector<CRefPtr<IScanOperation>>>& ops,
                    const SScanOptions& options, CWhiteListTree& whiteList, unsigned threads,
                    SScanResults& results) {
  const size_t n = items.size();
  std::vector<SItemResult> scanned(n);
  std::vector<SScanResults> own(n);  // each item's own totals
  std::vector<std::vector<CHitCollector::SFound>> found(n);
  std::vector<CItemState> states(n);
  std::vector<CFakeBaseIUnknown<CHeldLog>> logs(n);
  std::atomic<size_t> next{0};
  std::atomic<unsigned long> filesSeen{0};
  std::mutex wakeLock;
  std::condition_variable wake;
  std::atomic<unsigned> running{threads};

  auto work = [&] {
    // no window of its own: a host thread has no message loop
    HRESULT com = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    for (size_t i; !IsCancelRequested() && (i = next++) < n;) {
      scanned[i].item = items[i];
      CScanNotify notify(options, &states[i], &filesSeen);
      CFakeBaseIUnknown<CHitCollector> collector(whiteList, options.keep, own[i]);
      collector.SetObserver(&states[i]);
      collector.SetEveryItem(options.everyItem);
      collector.SetTarget(&scanned[i]);
      collector.SetDeferred(&found[i]);
      CScanLogThread::SetThreadScanLog(&logs[i]);
      notify.Begin(items[i].path, i, n);
      ScanItem(ops[i], collector, notify, nullptr, whiteList, options.withoutRegistry, scanned[i]);
      CScanLogThread::SetThreadScanLog(nullptr);
      states[i].done = true;
      wake.notify_one();
    }
    if (SUCCEEDED(com)) CoUninitialize();
    --running;
    wake.notify_one();
  };
  std::vector<std::thread> pool;
  for (unsigned t = 0; t < threads; ++t) pool.emplace_back(work);

  IScanObserver* observer = options.observer;
  CRefPtr<ILogWriter> log = CScanLogThread::GetCurrentScanLog(true);
  size_t head = 0, told = 0;  // the first item not done; items told to the observer
  std::vector<size_t> shown;  // the items in hand, as the observer was last told
  int lastPosition = -1;
  std::wstring folder;
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(wakeLock);
      wake.wait_for(lock, std::chrono::milliseconds(50));
    }
    if (observer && observer->IsCancelled()) RequestCancel();
    for (; head < n && states[head].begun; ++head) {
      logs[head].Pass(log);
      if (!states[head].done) break;
    }
    if (observer) {
      for (; told < n && states[told].begun; ++told) observer->OnItem(items[told].path, told, n);
      if (head < n && states[head].begun) {
        const int position = states[head].position;
        if (position != lastPosition) observer->OnProgress(position, states[head].total);
        lastPosition = position;
      }
      for (size_t i = head; i < told; ++i)
        if (states[i].TakeFolder(folder)) observer->OnFolder(folder);
      std::vector<size_t> inHand;
      for (size_t i = head; i < told; ++i)
        if (!states[i].done) inHand.push_back(i);
      if (inHand != shown) {
        shown = inHand;
        std::vector<std::wstring> paths;
        for (size_t i : inHand) paths.push_back(items[i].path);
        observer->OnItemsInProgress(paths);
      }
      unsigned __int64 files = 0, bytes = 0;
      for (size_t i = 0; i < told; ++i) {
        files += states[i].files;
        bytes += states[i].bytes;
      }
      observer->OnHits(files, bytes);  // a file found by two items counts twice until the end
    }
    if (running == 0) break;
  }
  if (observer && !shown.empty()) observer->OnItemsInProgress({});
  for (auto& thread : pool) thread.join();
  for (size_t i = head; i < n && states[i].begun; ++i) logs[i].Pass(log);

  // What each found, in the items' order, each path for the first item that found it.
  CSeenPaths seen(options.keep != keepTotals);
  for (size_t i = 0; i < n && states[i].begun; ++i) {
    SItemResult& item = scanned[i];
    results.protectedSkipped += own[i].protectedSkipped;
    size_t kept = 0;
    item.files = 0;
    item.size = 0;
    for (size_t h = 0; h < found[i].size(); ++h) {
      auto& hit = found[i][h];
      if (!options.everyItem && !seen.Insert(std::move(hit.key))) continue;
      ++item.files;
      item.size += hit.size;
      if (options.keep != keepTotals && kept++ != h) item.hits[kept - 1] = std::move(item.hits[h]);
    }
    if (options.keep != keepTotals) item.hits.resize(kept);
    found[i] = {};
    results.files += item.files;
    results.size += item.size;
    results.items.push_back(std::move(item));
  }
  if (observer) {
    if (n) observer->OnProgress(states[n - 1].total, states[n - 1].total);
    observer->OnHits(results.files, results.size);
  }
}

}  // namespace

void RequestCancel() { g_cancel = true; }
bool IsCancelRequested() { return g_cancel; }
void ResetCancel() { g_cancel = false; }

SScanResults RunScan(const std::vector<SItem>& items, const SScanOptions& options, CWhiteListTree& whiteList,
                     const std::wstring& neverScanned) {
  SScanResults results;
  results.items.reserve(items.size());
  CRunAgeFilters ages(options.olderThanDays, options.withoutAgeFilters);
  // The guard lasts for this scan only, so it is never saved or listed with
  // the protected paths.
  const bool guard = !(whiteList.CheckProtection(neverScanned.c_str()) & 0x1);
  if (guard) whiteList.SafeGuardPath(neverScanned.c_str(), 0x1);
  auto unguard = broom::scope_exit([&] {
    if (guard) whiteList.RemovePath(neverScanned.c_str(), 0x1);
  });

  std::vector<std::vector<CRefPtr<IScanOperation>>> ops;
  for (const auto& item : items) ops.push_back(OpsOf(item));
  const unsigned threads = ItemThreads(options, ops);
  if (threads > 1) {
    std::vector<std::wstring> failed(items.size());
    for (size_t i = 0; i < items.size(); ++i)
      for (const auto& op : ops[i]) try {
          ages.Apply(op);
        } catch (...) {
          failed[i] = ExceptionText();
        }
    ScanSideBySide(items, ops, options, whiteList, threads, results);
    for (auto& item : results.items) {
      const size_t i = static_cast<size_t>(&item - &results.items[0]);
      if (!failed[i].empty()) item.errors.insert(item.errors.begin(), failed[i]);
    }
    results.cancelled = IsCancelRequested();
    return results;
  }

  CScanNotify notify(options, options.observer);
  CFakeBaseIUnknown<CHitCollector> collector(whiteList, options.keep, results);
  collector.SetObserver(options.observer);
  collector.SetEveryItem(options.everyItem);
  for (size_t i = 0; i < items.size(); ++i) {
    if (notify.IsCancelled()) break;
    results.items.emplace_back();
    SItemResult& current = results.items.back();
    current.item = items[i];
    collector.SetTarget(&current);
    notify.Begin(items[i].path, i, items.size());
    ScanItem(ops[i], collector, notify, &ages, whiteList, options.withoutRegistry, current);
  }
  collector.SetTarget(nullptr);
  results.cancelled = IsCancelRequested();
  return results;
}

}  // namespace host
