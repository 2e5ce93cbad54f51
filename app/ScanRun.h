#pragma once
// Running the scans of chosen items: what each finds, kept as the host
// asks, what is told to the host as it goes, and the cancel flag that
// scans and cleans poll.
#include <windows.h>

#include <string>
#include <vector>

#include "app/ItemSelection.h"
#include "atl/CString.h"
#include "clean/CleanableFile.h"
#include "core/RefCounting.h"
#include "whitelist/WhiteListTree.h"

namespace host {

// The cancel flag of the process: a host raises it (the console on Ctrl+C
// and Ctrl+Break); scans poll it through IsCancelled, the clean loop between
// items.
void RequestCancel();
bool IsCancelRequested();
void ResetCancel();  // before a new command of a host that runs many

struct SHit {
  CRefPtr<ICleanableItem> item;
  std::wstring path;
  unsigned __int64 size = 0;
  const IScanOperation* op = nullptr;  // the operation that found it, in the session's tree
  // The guard's verdict, once asked: why it may not be cleaned, or the
  // user's own folder it lies in ("Documents"); both empty otherwise.
  CString refusal;
  CString userFolder;
  // What a clean made of it: tried, its result code (0 done) and, when it
  // failed, the reason in words.
  bool tried = false;
  DWORD result = 0;
  std::wstring failure;
};

struct SItemResult {
  SItem item;
  std::vector<SHit> hits;  // kept as the scan was asked to (see EKeep)
  unsigned __int64 files = 0;
  unsigned __int64 size = 0;
  std::vector<std::wstring> errors;  // operations that failed to run
  std::wstring refusal;              // why none of its hits may be cleaned (past the runaway limits)
  std::vector<std::wstring> notes;   // what its operations left alone on purpose (a link on a rule's path)
  std::vector<std::wstring> running; // its programs that run now (FindRunning), image names
  std::wstring skipped;              // why a clean leaves it whole: "running", "quarantine"; empty: it cleans
};

// What a scan keeps of each hit: only the totals (a scan that reports
// counts and sizes holds no item), the paths and sizes to list them, or the
// items themselves to clean them.
enum EKeep { keepTotals, keepPaths, keepItems };

// What a scan tells its host as it goes, on the scanning thread: the
// console draws its progress line, the window feeds its controls.
class IScanObserver {
 public:
  virtual ~IScanObserver() = default;
  virtual void OnItem(const std::wstring& itemPath, size_t index, size_t count) = 0;
  // position of total, as the operation reports it (the total may be 0)
  virtual void OnProgress(int position, int total) = 0;
  virtual void OnFolder(const std::wstring& folder) = 0;
  // the running totals of the whole scan, after each hit
  virtual void OnHits(unsigned __int64 files, unsigned __int64 bytes) = 0;
  // While items are scanned side by side: the items in hand now, in their
  // order, each time that set changes (empty once none is); OnItem names
  // the first of them.
  virtual void OnItemsInProgress(const std::vector<std::wstring>& itemPaths) { (void)itemPaths; }
  virtual bool IsCancelled() { return IsCancelRequested(); }
};

struct SScanOptions {
  EKeep keep = keepTotals;
  unsigned long cancelAfterFiles = 0;  // a test's way to cancel after so many files
  unsigned long olderThanDays = 0;     // 0: no age limit beyond the definitions' own
  IScanObserver* observer = nullptr;   // null: nothing is told
  bool withoutAgeFilters = false;      // runs the rules as if none had an age (to explain a miss)
  bool everyItem = false;              // a file found by several items is kept for each, not the first only
  bool withoutRegistry = false;        // registry rules are left out (a policy), with a note on their items
  // Host threads that scan items side by side (0: as many as the engine's
  // listing pool, at most 4; 1: one item after the other). Either way the
  // results, their order and the scan log are the same; the observer is
  // told on the calling thread.
  unsigned itemThreads = 0;
};

struct SScanResults {
  std::vector<SItemResult> items;
  unsigned __int64 files = 0;
  unsigned __int64 size = 0;
  unsigned __int64 protectedSkipped = 0;
  bool cancelled = false;
};

// Runs every operation of every item. Hits under protected paths are
// dropped, and nothing below neverScanned is found (it is protected for
// this run only); a file found twice counts once, for the first item.
// With olderThanDays, every file operation also keeps only files changed
// that many days ago or earlier, for this run only.
SScanResults RunScan(const std::vector<SItem>& items, const SScanOptions& options, CWhiteListTree& whiteList,
                     const std::wstring& neverScanned);

}  // namespace host
