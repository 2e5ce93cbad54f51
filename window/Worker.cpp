#include "window/Worker.h"

#include <objbase.h>

#include <memory>
#include <unordered_map>

#include "app/PolicyRules.h"
#include "app/Quarantine.h"
#include "app/QuarantineStore.h"
#include "app/Text.h"
#include "core/Handles.h"

namespace broomw {

namespace {

// How often the window is told about progress at most.
constexpr DWORD kProgressInterval = 50;

std::wstring ErrorText() {
  try {
    throw;
  } catch (const host::CHostError& e) {
    return e.message;
  } catch (const std::exception& e) {
    return host::Wide(e.what());
  } catch (...) {
    return L"an unexpected error";
  }
}

}  // namespace

CWorker::~CWorker() {
  m_cancel = true;
  if (m_thread.joinable()) m_thread.join();
}

void CWorker::Begin(EJob job) {
  if (m_thread.joinable()) m_thread.join();
  m_job = job;
  m_cancel = false;
  m_posted = false;
  host::ResetCancel();
  std::lock_guard<std::mutex> hold(m_lock);
  m_progress = SProgress();
}

void CWorker::StartScan(host::CSession& session, std::vector<host::SItem> items,
                        std::unique_ptr<host::SScanResults> earlier) {
  Begin(jobScan);
  m_scan = host::SScanResults();
  m_guard = host::SGuardSummary();
  m_thread = std::thread([this, &session, items = std::move(items), earlier = std::move(earlier)]() mutable {
    earlier.reset();
    HRESULT hr = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    broom::unique_couninitialize com(SUCCEEDED(hr));
    host::SScanOptions options;
    options.keep = host::keepItems;
    options.observer = this;
    try {
      session.BeginScanLog(L"scan (window)");
      m_scan = session.Scan(items, options);
      m_guard = host::ApplyGuard(session, CBlastGuard(), m_scan, false);
    } catch (...) {
      m_scan = host::SScanResults();
  m_guard = host::SGuardSummary();
      m_scan.cancelled = true;
      host::SItemResult failed;
      failed.errors.push_back(ErrorText());
      m_scan.items.push_back(failed);
    }
    PostMessageW(m_window, WM_WORKER_DONE, jobScan, 0);
  });
}

void CWorker::StartClean(host::CSession& session, host::SScanResults& results, bool quarantine, bool overwrite,
                         std::vector<std::wstring> closeFirst, DWORD closeTimeoutMs) {
  Begin(jobClean);
  m_clean = SCleanOutcome();
  m_closer.reset(new CProgramCloser());
  m_thread = std::thread([this, &session, &results, quarantine, overwrite, closeFirst = std::move(closeFirst),
                          closeTimeoutMs] {
    // A failed shell delete falls back to a COM server on this thread.
    HRESULT hr = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    broom::unique_couninitialize com(SUCCEEDED(hr));
    try {
      RunClean(session, results, quarantine, overwrite, closeFirst, closeTimeoutMs);
    } catch (...) {
      m_clean.error = ErrorText();
    }
    PostMessageW(m_window, WM_WORKER_DONE, jobClean, 0);
  });
}

void CWorker::RunClean(host::CSession& session, host::SScanResults& results, bool quarantine, bool overwrite,
                       const std::vector<std::wstring>& closeFirst, DWORD closeTimeoutMs) {
  SCleanOutcome& clean = m_clean;
  clean.quarantine = quarantine;
  m_reached = 0;
  m_failures.clear();
  host::SGuardSummary counted;  // the window keeps its own totals; these are not shown
  if (!closeFirst.empty() && session.Policies().IsOn(EPolicy::disableCloseApps)) {
    // nothing is closed: the items of the programs that run stay whole
    std::vector<host::SHolder> holders;
    host::FindRunning(session, results, holders);
    host::SkipRunning(results, counted);
  } else if (!closeFirst.empty()) {
    std::vector<CProgramCloser::SResult> closed;
    DWORD error = m_closer->Close(closeFirst, closed, closeTimeoutMs, this);
    {
      std::lock_guard<std::mutex> hold(m_lock);
      m_progress.waiting.clear();
    }
    if (error != ERROR_SUCCESS && error != ERROR_CANCELLED)
      clean.notClosed.push_back(L"the running programs cannot be listed (" + host::SystemMessage(error) + L")");
    for (const CProgramCloser::SResult& result : closed)
      if (result.outcome == CProgramCloser::stillRunning || result.outcome == CProgramCloser::noWindow)
        clean.notClosed.push_back(result.image + L" " + host::CloseOutcomeText(result, closeTimeoutMs));
    if (m_cancel) {  // stopped while waiting: nothing is cleaned
      clean.report.cancelled = true;
      for (const host::SItemResult& r : results.items) clean.outcome.emplace_back(r.hits.size());
      return;
    }
    // a new snapshot: the items of programs that still run stay whole
    std::vector<host::SHolder> holders;
    host::FindRunning(session, results, holders);
    host::SkipRunning(results, counted);
  }
  if (quarantine)
    for (host::SItemResult& r : results.items)
      if (r.files && host::IsRecycleBinItem(r.item)) host::SkipItem(r, L"quarantine", counted);
  for (const host::SItemResult& r : results.items) clean.skipped += !r.skipped.empty();
  std::unique_ptr<host::CQuarantine> box;
  // quarantines past the organisation's QuarantineKeepDays go before every clean
  if (unsigned long days = session.Policies().Number(EPolicy::quarantineKeepDays, 0)) {
    std::vector<std::wstring> kept;
    host::PurgeExpiredQuarantines(session.QuarantineRoot(), days, kept);
  }
  quarantine = quarantine || session.Policies().IsOn(EPolicy::alwaysQuarantine);
  overwrite = overwrite && !session.Policies().IsOn(EPolicy::disableOverwrite);
  clean.quarantine = quarantine;
  if (quarantine) {
    // a new managed quarantine, which the session's scans keep out of
    clean.quarantineFolder = host::CQuarantineStore(session.QuarantineRoot()).Create();
    box.reset(new host::CQuarantine(clean.quarantineFolder, true));
    box->RemoveWhenUnused();
  }
  clean.report = host::CleanHits(session, results, box.get(), *this, overwrite && !quarantine);

  // what became of each hit: CleanHits takes the allowed hits in order, so
  // the first m_reached of them were cleaned unless they failed
  std::unordered_map<std::wstring, std::wstring> failed(m_failures.begin(), m_failures.end());
  unsigned __int64 allowed = 0;
  for (const host::SItemResult& r : results.items) {
    clean.outcome.emplace_back();
    for (const host::SHit& hit : r.hits) {
      std::wstring what;
      if (!r.refusal.empty())
        what = L"refused: " + r.refusal;
      else if (!hit.refusal.IsEmpty())
        what = L"refused: " + std::wstring(hit.refusal.GetString());
      else if (r.skipped == L"running")
        what = L"skipped: " + host::ProgramNameOf(r) + L" was running";
      else if (!r.skipped.empty())
        what = L"skipped: the Recycle Bin is never moved into a quarantine";
      else if (hit.item && ++allowed <= m_reached) {
        auto f = failed.find(hit.path);
        what = f != failed.end() ? f->second : quarantine ? L"moved to quarantine" : L"cleaned";
      }
      clean.outcome.back().push_back(what);
    }
  }
}

void CWorker::OnProgress(unsigned __int64 index, unsigned __int64 total, const std::wstring& path) {
  m_reached = index;
  {
    std::lock_guard<std::mutex> hold(m_lock);
    m_progress.position = static_cast<int>(index);
    m_progress.total = static_cast<int>(total);
    m_progress.folder = path;
  }
  Post(false);
}

void CWorker::OnFailure(const std::wstring& path, const std::wstring& reason) { m_failures.emplace_back(path, reason); }

void CWorker::Waiting(const std::vector<std::wstring>& images) {
  std::wstring names;
  for (const std::wstring& image : images) names += (names.empty() ? L"" : L", ") + image;
  {
    std::lock_guard<std::mutex> hold(m_lock);
    m_progress.waiting = images.empty() ? std::wstring() : L"Waiting for " + names + L" to close...";
  }
  Post(true);
}

void CWorker::Join() {
  if (m_thread.joinable()) m_thread.join();
  m_job = jobNone;
}

SProgress CWorker::Snapshot() {
  m_posted = false;
  std::lock_guard<std::mutex> hold(m_lock);
  return m_progress;
}

void CWorker::Post(bool force) {
  DWORD now = GetTickCount();
  if (m_posted || (!force && now - m_lastPost < kProgressInterval)) return;
  m_posted = true;
  m_lastPost = now;
  PostMessageW(m_window, WM_WORKER_PROGRESS, m_job, 0);
}

void CWorker::OnItem(const std::wstring& itemPath, size_t index, size_t count) {
  {
    std::lock_guard<std::mutex> hold(m_lock);
    m_progress.item = itemPath;
    m_progress.index = index;
    m_progress.count = count;
    m_progress.position = 0;
    m_progress.total = 0;
  }
  Post(true);
}

void CWorker::OnItemsInProgress(const std::vector<std::wstring>& itemPaths) {
  {
    std::lock_guard<std::mutex> hold(m_lock);
    m_progress.inHand = itemPaths;
  }
  Post(true);
}

void CWorker::OnProgress(int position, int total) {
  {
    std::lock_guard<std::mutex> hold(m_lock);
    m_progress.position = position;
    m_progress.total = total;
  }
  Post(false);
}

void CWorker::OnFolder(const std::wstring& folder) {
  {
    std::lock_guard<std::mutex> hold(m_lock);
    m_progress.folder = folder;
  }
  Post(false);
}

void CWorker::OnHits(unsigned __int64 files, unsigned __int64 bytes) {
  {
    std::lock_guard<std::mutex> hold(m_lock);
    m_progress.files = files;
    m_progress.bytes = bytes;
  }
  Post(false);
}

}  // namespace broomw
