#include "log/LogThread.h"

#include <cwchar>

namespace {

constexpr DWORD kStopTimeoutMs = 10000;
constexpr DWORD kKilledExitCode = 0xFFFFFFFF;
// How long the thread lets texts gather after a write before it takes them.
// A wake-up reaches the Wine server (tens of microseconds) while a pause
// does not, and a scan logs a line per hit.
constexpr DWORD kGatherMs = 10;

}  // namespace

TCharArrayAlloc<wchar_t> CLogThread::m_alloc;

bool CLogThread::StartLogging(const wchar_t* path, bool writeThrough) {
  if (IsLogRunning()) return true;
  DWORD flags = FILE_ATTRIBUTE_NORMAL | (writeThrough ? FILE_FLAG_WRITE_THROUGH : 0);
  broom::unique_hfile file(
      CreateFileW(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS, flags, nullptr));
  if (!file || file.get() == nullptr) return false;
  LARGE_INTEGER zero = {};
  SetFilePointerEx(file.get(), zero, nullptr, FILE_END);
  m_hFile = std::move(file);
  {
    broom::critical_section_lock lock(m_waitingLock);
    m_waiting.clear();
    m_resets.clear();
    m_wakePosted = m_quitPosted = false;
  }
  try {
    Start();
  } catch (...) {
    m_hFile.reset();  // no thread owns the file: close it again
    throw;
  }
  return true;
}

bool CLogThread::IsLogRunning() const {
  HANDLE file = m_hFile.get();
  return file != nullptr && file != INVALID_HANDLE_VALUE;
}

void CLogThread::LogString(const wchar_t* text, bool appendNewLine, unsigned long length) {
  size_t textLength = length ? length : wcslen(text);
  if (GetState() == tsRunning) {
    Queue(text, textLength, appendNewLine, false);
    return;
  }
  // Never started, or ended: a post in a block of its own, which fails as
  // the poster says (and is dropped behind a quit all the same).
  size_t count = textLength + (appendNewLine ? 2 : 0);
  wchar_t* block = m_alloc.Alloc(count + 1);
  wmemcpy(block, text, textLength);
  if (appendNewLine) {
    block[textLength] = L'\r';
    block[textLength + 1] = L'\n';
  }
  block[count] = 0;
  try {
    CSimpleThreadMessageMap::PostToThread(MSG_LOG_STRING, static_cast<WPARAM>(count), reinterpret_cast<LPARAM>(block));
  } catch (...) {
    m_alloc.Free(block);  // never reached the thread
    throw;
  }
}

void CLogThread::ResetLog() {
  if (GetState() == tsRunning)
    Queue(nullptr, 0, false, true);
  else
    CSimpleThreadMessageMap::PostToThread(MSG_LOG_RESET, 0, 0);
}

void CLogThread::Queue(const wchar_t* text, size_t length, bool appendNewLine, bool reset) {
  broom::critical_section_lock lock(m_waitingLock);
  if (m_quitPosted) return;
  size_t before = m_waiting.size();
  if (reset) {
    m_resets.push_back(before);
  } else {
    m_waiting.insert(m_waiting.end(), text, text + length);
    if (appendNewLine) {
      m_waiting.push_back(L'\r');
      m_waiting.push_back(L'\n');
    }
  }
  if (m_wakePosted) return;
  // Posted under the lock, so that no quit message can come between the
  // text and its wake-up.
  try {
    CSimpleThreadMessageMap::PostToThread(MSG_LOG_STRING, 0, 0);
  } catch (...) {
    m_waiting.resize(before);
    if (reset) m_resets.pop_back();
    throw;
  }
  m_wakePosted = true;
}

void CLogThread::PostToThread(UINT message, WPARAM wParam, LPARAM lParam) {
  if (message != WM_QUIT) {
    CSimpleThreadMessageMap::PostToThread(message, wParam, lParam);
    return;
  }
  broom::critical_section_lock lock(m_waitingLock);
  CSimpleThreadMessageMap::PostToThread(message, wParam, lParam);
  m_quitPosted = true;
}

unsigned long CLogThread::ThreadProc() {
  // The file goes with the thread, however the loop ends.
  auto closeFile = broom::scope_exit([this] { m_hFile.reset(); });
  unsigned long exitCode = CSimpleThreadMessageMap::ThreadProc();
  // Texts queued behind WM_QUIT are dropped, but their blocks go back to the pool.
  MSG msg;
  while (PeekMessageW(&msg, reinterpret_cast<HWND>(-1), 0, 0, PM_REMOVE))
    if (msg.message == MSG_LOG_STRING && msg.lParam) m_alloc.Free(reinterpret_cast<wchar_t*>(msg.lParam));
  return exitCode;
}

void CLogThread::CleanUp() {
  DWORD state = GetState();
  if (state == tsFinished) return;
  // Taken before posting: the thread's last release may destroy this object
  // (and close m_hThread) while we wait.
  broom::unique_thread thread(DuplicateThreadHandle());
  if (state == tsRunning) PostToThread(WM_QUIT, 0, 0);
  if (!thread) return;
  if (WaitForSingleObject(thread.get(), kStopTimeoutMs) != WAIT_TIMEOUT) return;

  // Still running, so its own reference keeps the object alive. Suspend it
  // first so that it cannot slip into its final release while being killed.
  if (SuspendThread(thread.get()) == static_cast<DWORD>(-1)) return;
  if (WaitForSingleObject(thread.get(), 0) == WAIT_OBJECT_0) return;
  TerminateThread(thread.get(), kKilledExitCode);
  WaitForSingleObject(thread.get(), INFINITE);
  // The dead thread can no longer close the file it owned: close it here,
  // so that the next log on this path can open it again.
  m_hFile.reset();
  SetState(tsTerminated);
  OnTerminated();
}

void CLogThread::ProcessThreadMessage(UINT message, WPARAM wParam, LPARAM lParam) {
  switch (message) {
    case MSG_LOG_STRING:
      OnLogString(wParam, lParam);
      break;
    case MSG_LOG_RESET:
      OnLogReset(wParam, lParam);
      break;
    default:
      CSimpleThreadMessageMap::ProcessThreadMessage(message, wParam, lParam);
      break;
  }
}

bool CLogThread::OnLogString(WPARAM count, LPARAM block) {
  if (block) {
    auto* text = reinterpret_cast<wchar_t*>(block);
    WriteText(text, count);
    m_alloc.Free(text);
    return true;
  }
  // The wake-up stays pending while the thread drains: texts queued meanwhile
  // are gathered for a moment and written together, so a busy writer posts
  // once per burst rather than once per handful of lines.
  for (;;) {
    std::vector<size_t> resets;
    bool quitting;
    {
      broom::critical_section_lock lock(m_waitingLock);
      if (m_waiting.empty() && m_resets.empty()) {
        m_wakePosted = false;
        return true;
      }
      m_writing.swap(m_waiting);
      resets.swap(m_resets);
      quitting = m_quitPosted;
    }
    size_t from = 0;
    for (size_t at : resets) {
      WriteText(m_writing.data() + from, at - from);
      TruncateFile();
      from = at;
    }
    WriteText(m_writing.data() + from, m_writing.size() - from);
    m_writing.clear();
    if (!quitting) Sleep(kGatherMs);
  }
}

bool CLogThread::OnLogReset(WPARAM, LPARAM) {
  TruncateFile();
  return true;
}

void CLogThread::WriteText(const wchar_t* text, size_t length) {
  // A text that cannot be written is lost; the rest still goes out.
  constexpr size_t kChunk = 16u << 20;  // characters per WriteFile
  while (length > 0) {
    size_t n = length < kChunk ? length : kChunk;
    DWORD written = 0;
    WriteFile(m_hFile.get(), text, static_cast<DWORD>(n * sizeof(wchar_t)), &written, nullptr);
    text += n;
    length -= n;
  }
}

void CLogThread::TruncateFile() {
  LARGE_INTEGER zero = {};
  if (SetFilePointerEx(m_hFile.get(), zero, nullptr, FILE_BEGIN)) SetEndOfFile(m_hFile.get());
}
