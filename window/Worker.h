#pragma once
// The window's worker thread: it runs a scan or a clean of the session
// while the window's thread keeps drawing and answering. Progress reaches
// the window as a snapshot it reads when told, at most every 50 ms; the
// end as one message, after which the results belong to the window again.
#include <windows.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "app/CleanRun.h"
#include "app/ProgramsInUse.h"
#include "app/Session.h"

namespace broomw {

// Posted to the window: wParam is the job (jobScan, jobClean).
constexpr UINT WM_WORKER_PROGRESS = WM_APP + 1;
constexpr UINT WM_WORKER_DONE = WM_APP + 2;

enum EJob { jobNone, jobScan, jobClean };

struct SProgress {
  std::wstring item;
  std::vector<std::wstring> inHand;  // the items scanned side by side now, when several
  size_t index = 0, count = 0;
  int position = 0, total = 0;
  std::wstring folder;  // or, while cleaning, the file in hand
  std::wstring waiting;  // while a clean waits for programs to close: which
  unsigned __int64 files = 0, bytes = 0;
};

// What a clean did, for the window to show: the totals and, per hit in the
// order of the scan results, what became of it.
struct SCleanOutcome {
  host::SCleanReport report;
  bool quarantine = false;
  std::wstring quarantineFolder;
  std::wstring error;  // the clean could not start at all
  std::vector<std::vector<std::wstring>> outcome;  // [item][hit]: "" untouched, else what happened
  std::vector<std::wstring> notClosed;  // programs asked to close that did not: "firefox.exe did not close ..."
  size_t skipped = 0;                   // items left whole (their program ran, or the bin under a quarantine)
};

class CWorker : private host::IScanObserver, private host::ICleanObserver, private CProgramCloser::IProgress {
 public:
  explicit CWorker(HWND window) : m_window(window) {}
  ~CWorker();
  CWorker(const CWorker&) = delete;
  CWorker& operator=(const CWorker&) = delete;

  EJob Job() const { return m_job; }
  // The results of an earlier scan, when given, are released on the worker:
  // 100,000 hits take long enough to stall the window.
  void StartScan(host::CSession& session, std::vector<host::SItem> items,
                 std::unique_ptr<host::SScanResults> earlier = nullptr);
  // Cleans the hits of results, which must stay untouched until the end.
  // With closeFirst, asks those programs (image names) to close, waits at
  // most closeTimeoutMs, and leaves the items of the ones still running;
  // items already skipped stay so. overwrite: contents are overwritten first.
  void StartClean(host::CSession& session, host::SScanResults& results, bool quarantine, bool overwrite = false,
                  std::vector<std::wstring> closeFirst = {}, DWORD closeTimeoutMs = CProgramCloser::kDefaultTimeoutMs);
  void Stop() {
    m_cancel = true;
    if (m_closer) m_closer->Cancel();
  }
  bool Stopping() const { return m_cancel; }

  // On WM_WORKER_PROGRESS: the latest state; lets the next one be posted.
  SProgress Snapshot();
  // On WM_WORKER_DONE: waits for the thread (it has finished its work).
  void Join();
  // The scan's results with the blast-radius guard's verdict on every hit.
  host::SScanResults TakeScanResults() { return std::move(m_scan); }
  host::SGuardSummary TakeGuardSummary() { return std::move(m_guard); }
  SCleanOutcome TakeCleanOutcome() { return std::move(m_clean); }

 private:
  void OnItem(const std::wstring& itemPath, size_t index, size_t count) override;
  void OnProgress(int position, int total) override;
  void OnFolder(const std::wstring& folder) override;
  void OnHits(unsigned __int64 files, unsigned __int64 bytes) override;
  void OnItemsInProgress(const std::vector<std::wstring>& itemPaths) override;
  bool IsCancelled() override { return m_cancel; }  // of both the scan and the clean
  void OnProgress(unsigned __int64 index, unsigned __int64 total, const std::wstring& path) override;
  void OnFailure(const std::wstring& path, const std::wstring& reason) override;
  void Post(bool force);
  void Begin(EJob job);
  void RunClean(host::CSession& session, host::SScanResults& results, bool quarantine, bool overwrite,
                const std::vector<std::wstring>& closeFirst, DWORD closeTimeoutMs);
  void Waiting(const std::vector<std::wstring>& images) override;

  HWND m_window;
  EJob m_job = jobNone;
  std::thread m_thread;
  std::atomic<bool> m_cancel{false};
  std::atomic<bool> m_posted{false};
  std::atomic<DWORD> m_lastPost{0};
  std::mutex m_lock;
  SProgress m_progress;  // under m_lock
  host::SScanResults m_scan;
  host::SGuardSummary m_guard;
  SCleanOutcome m_clean;
  unsigned __int64 m_reached = 0;                 // hits the clean has come to
  std::vector<std::pair<std::wstring, std::wstring>> m_failures;  // path, reason
  std::unique_ptr<CProgramCloser> m_closer;  // made by StartClean on the window's thread, so Stop may cancel it
};

}  // namespace broomw
