#include "log/ScanLogThread.h"

#include <algorithm>
#include <atomic>
#include <cwchar>
#include <new>

#include "settings/AppInfo.h"

namespace {

constexpr unsigned long kLoggingOffBit = 0x20000;
constexpr int kHighestScanLog = 5;
// How long GetLog and GetCurrentScanLog wait, under the logs' lock, for a
// stopping log to close its file. Its stopper gives the thread 10 s before it
// kills it (which ends this wait too), so longer would only stall every other
// scan's start; after that the log is set aside all the same.
constexpr DWORD kStoppingWaitMs = 10000;

CPathString g_logsPath;
std::atomic<bool> g_logsPathReady{false};

// Threads whose scans write elsewhere (SetThreadScanLog), under m_cs
std::map<DWORD, ILogWriter*> g_threadScanLogs;

bool LoggingOff() { return (CAppInfo::m_appState & kLoggingOffBit) != 0; }

}  // namespace

broom::critical_section CScanLogThread::m_cs;
CScanLogThread::LogMap CScanLogThread::m_logs;
CFakeSimpleIUnknownWithRef<CScanLogThread::CBogusLog, ILogWriter> CScanLogThread::m_bogusLog;

CScanLogThread::CScanLogThread() : m_hStopped(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
  if (!m_hStopped) throw new CTmpExcep();
}

CScanLogThread::~CScanLogThread() = default;

CRefPtr<ILogWriter> CScanLogThread::GetLog(const CPathString& path) {
  broom::critical_section_lock lock(m_cs);
  CRefPtr<ILogWriter> result(&m_bogusLog);
  if (LoggingOff()) return result;

  auto found = m_logs.find(path);
  if (found != m_logs.end()) {
    if (found->second->TakeWriterRef()) {
      result.Attach(static_cast<ILogWriter*>(found->second));
      return result;
    }
    // Its last user let it go: its thread still holds the file, so wait for
    // that and open the log anew rather than hand out a log that is ending.
    RetireStoppingLog(found);
  }

  Object* created = nullptr;
  try {
    created = new Object();
    created->m_path = path;
    if (!created->StartLogging(created->m_path.c_str(), false)) {
      delete created;
      return result;
    }
  } catch (CTmpExcep* e) {
    delete e;
    delete created;  // a thread that could not start never touched it
    return result;
  } catch (const std::bad_alloc&) {
    delete created;
    return result;
  }
  // The thread holds the first reference; this is the caller's.
  result = static_cast<ILogWriter*>(created);
  m_logs[created->m_path] = created;
  return result;
}

void CScanLogThread::SetThreadScanLog(ILogWriter* writer) {
  broom::critical_section_lock lock(m_cs);
  if (writer)
    g_threadScanLogs[GetCurrentThreadId()] = writer;
  else
    g_threadScanLogs.erase(GetCurrentThreadId());
}

CRefPtr<ILogWriter> CScanLogThread::GetCurrentScanLog(bool rotate) {
  broom::critical_section_lock lock(m_cs);
  if (!g_threadScanLogs.empty()) {
    auto it = g_threadScanLogs.find(GetCurrentThreadId());
    if (it != g_threadScanLogs.end()) return CRefPtr<ILogWriter>(it->second);
  }
  for (auto it = m_logs.begin(); it != m_logs.end();) {
    CScanLogThread* log = it->second;
    const wchar_t* name = log->m_path.c_str() + log->m_path.GetFileNameStart();
    if (wcsncmp(name, L"scan", 4) != 0) {
      ++it;
      continue;
    }
    if (log->TakeWriterRef()) {
      CRefPtr<ILogWriter> result;
      result.Attach(static_cast<ILogWriter*>(log));
      return result;
    }
    // A scan log that is ending is not the current one; once its file is
    // closed it is rotated like the others.
    it = RetireStoppingLog(it);
  }
  if (rotate && !LoggingOff()) RotateLogs();
  CPathString path;
  GetNumberedLogPath(L'1', path);
  return GetLog(path);
}

void CScanLogThread::GetLogsPath(CPathString& out) {
  if (!g_logsPathReady.load()) {
    CPathString path(CAppInfo::GetUserDataPath());
    path.AppendPath(L"Logs", 4);
    g_logsPath = path;
    g_logsPathReady.store(true);
  }
  out = g_logsPath;
}

bool CScanLogThread::HasRunningLog(const CPathString& path) {
  broom::critical_section_lock lock(m_cs);
  return m_logs.find(path) != m_logs.end();
}

void CScanLogThread::GetNumberedLogPath(wchar_t digit, CPathString& out) {
  GetLogsPath(out);
  const wchar_t name[] = {L's', L'c', L'a', L'n', digit, L'.', L'l', L'o', L'g'};
  out.AppendPath(name, static_cast<unsigned short>(sizeof(name) / sizeof(name[0])));
}

void CScanLogThread::RotateLogs() {
  CPathString pattern;
  GetLogsPath(pattern);
  pattern.AppendPath(L"scan?.log", 9);
  WIN32_FIND_DATAW data;
  broom::unique_hfind search(FindFirstFileW(pattern.c_str(), &data));
  int highest = -1;
  if (search) {
    do {
      if (wcslen(data.cFileName) >= 5) highest = std::max(highest, static_cast<int>(data.cFileName[4]) - L'0');
    } while (FindNextFileW(search.get(), &data));
  }
  // From the top down, so that every file moves into a place already emptied.
  for (int n = highest; n >= 1; --n) {
    CPathString from;
    GetNumberedLogPath(static_cast<wchar_t>(L'0' + n), from);
    if (n + 1 <= kHighestScanLog) {
      CPathString to;
      GetNumberedLogPath(static_cast<wchar_t>(L'0' + n + 1), to);
      MoveFileW(from.c_str(), to.c_str());
    } else {
      DeleteFileW(from.c_str());
    }
  }
}

CScanLogThread::LogMap::iterator CScanLogThread::RetireStoppingLog(LogMap::iterator it) {
  // Safe under m_cs: the log cannot be destroyed before _FinalRelease gets the lock.
  CScanLogThread* log = it->second;
  HANDLE waits[2] = {log->m_hStopped.get(), log->m_hThread.get()};
  WaitForMultipleObjects(waits[1] ? 2 : 1, waits, FALSE, kStoppingWaitMs);
  // From now on its _FinalRelease finds no entry of its own to remove.
  return m_logs.erase(it);
}

bool CScanLogThread::TakeWriterRef() {
  if (GetState() != tsRunning) return false;
  // Counts of 1 and below mean that only the thread holds the log and it is
  // being stopped; such a count must never go up again.
  LONG count = m_refCount;
  while (count >= 2) {
    LONG seen = InterlockedCompareExchange(&m_refCount, count + 1, count);
    if (seen == count) return true;
    count = seen;
  }
  return false;
}

void CScanLogThread::WriteEntry(const CString& text, bool newLine) {
  LogString(text.GetString(), newLine, static_cast<unsigned long>(text.GetLength()));
}

void CScanLogThread::OnCustomRelease(LONG count) {
  if (count == 1)
    CleanUp();
  else if (count == 0)
    _FinalRelease();
}

unsigned long CScanLogThread::ThreadProc() {
  // Runs after the base has closed the file.
  auto stopped = broom::scope_exit([this] { SetEvent(m_hStopped.get()); });
  return CLogThread::ThreadProc();
}

void CScanLogThread::_FinalRelease() {
  broom::critical_section_lock lock(m_cs);
  auto it = m_logs.find(m_path);
  if (it != m_logs.end() && it->second == this) m_logs.erase(it);
  delete this;
}
