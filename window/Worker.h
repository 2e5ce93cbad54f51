#pragma once
// The window's worker thread: it runs a scan or a clean of the session
// while the window's thread keeps drawing and answering. Progress reaches
// the window as a snapshot it reads when told, at most every 50 ms; the
// end as one message, after which the results belong to the window again.
#include <windows.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "host/Session.h"

namespace broomw {

// Posted to the window: wParam is the job (jobScan, jobClean).
constexpr UINT WM_WORKER_PROGRESS = WM_APP + 1;
constexpr UINT WM_WORKER_DONE = WM_APP + 2;

enum EJob { jobNone, jobScan, jobClean };

struct SProgress {
  std::wstring item;
  size_t index = 0, count = 0;
  int position = 0, total = 0;
  std::wstring folder;  // or, while cleaning, the file in hand
  unsigned __int64 files = 0, bytes = 0;
};

// What a clean did, for the window to show: per hit, in the order of the
// scan results, what became of it.
struct SCleanReport {
  unsigned __int64 done = 0, failed = 0, freed = 0, untouched = 0;
  bool cancelled = false;
  bool quarantine = false;
  std::wstring quarantineFolder;
  std::wstring error;  // the clean could not start at all
  std::vector<std::vector<std::wstring>> outcome;  // [item][hit]: "" not reached, else what happened
};

class CWorker : private host::IScanObserver {
 public:
  explicit CWorker(HWND window) : m_window(window) {}
  ~CWorker();
  CWorker(const CWorker&) = delete;
  CWorker& operator=(const CWorker&) = delete;

  EJob Job() const { return m_job; }
  void StartScan(host::CSession& session, std::vector<host::SItem> items);
  // Cleans the hits of results, which must stay untouched until the end.
  void StartClean(host::CSession& session, host::SScanResults& results, bool quarantine);
  void Stop() { m_cancel = true; }
  bool Stopping() const { return m_cancel; }

  // On WM_WORKER_PROGRESS: the latest state; lets the next one be posted.
  SProgress Snapshot();
  // On WM_WORKER_DONE: waits for the thread (it has finished its work).
  void Join();
  host::SScanResults TakeScanResults() { return std::move(m_scan); }
  SCleanReport TakeCleanReport() { return std::move(m_clean); }

 private:
  void OnItem(const std::wstring& itemPath, size_t index, size_t count) override;
  void OnProgress(int position, int total) override;
  void OnFolder(const std::wstring& folder) override;
  void OnHits(unsigned __int64 files, unsigned __int64 bytes) override;
  bool IsCancelled() override { return m_cancel; }
  void Post(bool force);
  void Begin(EJob job);
  void RunClean(host::CSession& session, host::SScanResults& results, bool quarantine);

  HWND m_window;
  EJob m_job = jobNone;
  std::thread m_thread;
  std::atomic<bool> m_cancel{false};
  std::atomic<bool> m_posted{false};
  std::atomic<DWORD> m_lastPost{0};
  std::mutex m_lock;
  SProgress m_progress;  // under m_lock
  host::SScanResults m_scan;
  SCleanReport m_clean;
};

}  // namespace broomw
