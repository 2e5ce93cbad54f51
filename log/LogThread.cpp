#include "log/LogThread.h"

#include <cwchar>

namespace {

constexpr DWORD kStopTimeoutMs = 10000;
constexpr DWORD kKilledExitCode = 0xFFFFFFFF;

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
  size_t count = textLength + (appendNewLine ? 2 : 0);
  wchar_t* block = m_alloc.Alloc(count + 1);
  wmemcpy(block, text, textLength);
  if (appendNewLine) {
    block[textLength] = L'\r';
    block[textLength + 1] = L'\n';
  }
  block[count] = 0;
  try {
    PostToThread(MSG_LOG_STRING, static_cast<WPARAM>(count), reinterpret_cast<LPARAM>(block));
  } catch (...) {
    m_alloc.Free(block);  // never reached the thread
    throw;
  }
}

void CLogThread::ResetLog() { PostToThread(MSG_LOG_RESET, 0, 0); }

unsigned long CLogThread::ThreadProc() {
  // The file goes with the thread, however the loop ends.
  auto closeFile = broom::scope_exit([this] { m_hFile.reset(); });
  unsigned long exitCode = CSimpleThreadMessageMap::ThreadProc();
  // Texts queued behind WM_QUIT are dropped, but their blocks go back to the pool.
  MSG msg;
  while (PeekMessageW(&msg, reinterpret_cast<HWND>(-1), 0, 0, PM_REMOVE))
    if (msg.message == MSG_LOG_STRING) m_alloc.Free(reinterpret_cast<wchar_t*>(msg.lParam));
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
  auto* text = reinterpret_cast<wchar_t*>(block);
  DWORD written = 0;
  // A text that cannot be written is lost; its block goes back all the same.
  WriteFile(m_hFile.get(), text, static_cast<DWORD>(count * sizeof(wchar_t)), &written, nullptr);
  m_alloc.Free(text);
  return true;
}

bool CLogThread::OnLogReset(WPARAM, LPARAM) {
  LARGE_INTEGER zero = {};
  if (SetFilePointerEx(m_hFile.get(), zero, nullptr, FILE_BEGIN)) SetEndOfFile(m_hFile.get());
  return true;
}
