#include "window/Worker.h"

#include <objbase.h>

#include <memory>

#include "clean/CleanItems.h"
#include "core/Handles.h"
#include "host/Console.h"
#include "host/Quarantine.h"

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

void CWorker::StartScan(host::CSession& session, std::vector<host::SItem> items) {
  Begin(jobScan);
  m_scan = host::SScanResults();
  m_thread = std::thread([this, &session, items = std::move(items)] {
    HRESULT hr = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    broom::unique_couninitialize com(SUCCEEDED(hr));
    host::SScanOptions options;
    options.keep = host::keepItems;
    options.observer = this;
    try {
      session.BeginScanLog(L"scan (window)");
      m_scan = session.Scan(items, options);
    } catch (...) {
      m_scan = host::SScanResults();
      m_scan.cancelled = true;
      host::SItemResult failed;
      failed.errors.push_back(ErrorText());
      m_scan.items.push_back(failed);
    }
    PostMessageW(m_window, WM_WORKER_DONE, jobScan, 0);
  });
}

void CWorker::StartClean(host::CSession& session, host::SScanResults& results, bool quarantine) {
  Begin(jobClean);
  m_clean = SCleanReport();
  m_thread = std::thread([this, &session, &results, quarantine] {
    // A failed shell delete falls back to a COM server on this thread.
    HRESULT hr = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    broom::unique_couninitialize com(SUCCEEDED(hr));
    try {
      RunClean(session, results, quarantine);
    } catch (...) {
      m_clean.error = ErrorText();
    }
    PostMessageW(m_window, WM_WORKER_DONE, jobClean, 0);
  });
}

void CWorker::RunClean(host::CSession& session, host::SScanResults& results, bool quarantine) {
  SCleanReport& report = m_clean;
  report.quarantine = quarantine;
  for (const host::SItemResult& r : results.items) report.outcome.emplace_back(r.hits.size());
  std::unique_ptr<host::CQuarantine> box;
  if (quarantine) {
    SYSTEMTIME now;
    GetLocalTime(&now);
    wchar_t name[32];
    swprintf(name, 32, L"%04u-%02u-%02u %02u%02u%02u", now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute,
             now.wSecond);
    report.quarantineFolder = session.UserDataFolder() + L"\\Quarantine\\" + name;
    box.reset(new host::CQuarantine(report.quarantineFolder, true));
    session.WhiteList().SafeGuardPath(report.quarantineFolder.c_str(), 0x1);
  }

  size_t total = 0, index = 0;
  for (const host::SItemResult& r : results.items) total += r.hits.size();
  auto account = [&](size_t item, size_t hit, DWORD code) {
    const host::SHit& h = results.items[item].hits[hit];
    if (code == 0 || code == 0xC0000000) {
      ++report.done;
      report.freed += h.size;
      report.outcome[item][hit] = quarantine ? L"moved to quarantine" : L"cleaned";
    } else {
      ++report.failed;
      report.outcome[item][hit] = host::ExplainResult(code);
    }
  };
  // Deletions go to the engine in runs; a stop is honoured between runs.
  std::vector<std::pair<size_t, size_t>> run;
  std::vector<ICleanableItem*> items;
  std::vector<DWORD> codes;
  auto flush = [&] {
    if (run.empty()) return;
    codes.assign(run.size(), 0);
    CleanItems(items.data(), items.size(), codes.data());
    for (size_t i = 0; i < run.size(); ++i) account(run[i].first, run[i].second, codes[i]);
    run.clear();
    items.clear();
  };
  for (size_t i = 0; i < results.items.size() && !m_cancel; ++i) {
    OnItem(results.items[i].item.path, i, results.items.size());
    for (size_t j = 0; j < results.items[i].hits.size() && !m_cancel; ++j) {
      host::SHit& hit = results.items[i].hits[j];
      ++index;
      {
        std::lock_guard<std::mutex> hold(m_lock);
        m_progress.position = static_cast<int>(index);
        m_progress.total = static_cast<int>(total);
        m_progress.folder = hit.path;
        m_progress.files = report.done;
        m_progress.bytes = report.freed;
      }
      Post(false);
      if (box) {
        std::wstring refused = box->CannotHold(hit.path);
        if (refused.empty()) {
          account(i, j, box->Add(hit));
        } else {
          ++report.failed;
          report.outcome[i][j] = refused;
        }
        continue;
      }
      run.emplace_back(i, j);
      items.push_back(hit.item.Get());
      if (run.size() == kCleanRun) flush();
    }
    flush();
  }
  flush();
  report.cancelled = m_cancel;
  report.untouched = total - report.done - report.failed;
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
