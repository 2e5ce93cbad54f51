#include "threads/BaseThread.h"

#include "textconv/TextConv.h"

namespace {

constexpr DWORD kReadyTimeoutMs = 5000;
constexpr int kPostTries = 21;
constexpr DWORD kPostRetryDelayMs = 250;

}  // namespace

// ---- CThreadWrapper ----

CThreadWrapper::CThreadWrapper() : m_threadId(0), m_state(0) {}

void CThreadWrapper::OnBeforeStart() {}

void CThreadWrapper::OnTerminated() {}

CThreadWrapper::~CThreadWrapper() = default;

void CThreadWrapper::SetState(DWORD state) {
  LONG old = m_state;
  for (;;) {
    LONG wanted = static_cast<LONG>((static_cast<DWORD>(old) & ~0xFu) | (state & 0xFu));
    LONG seen = InterlockedCompareExchange(&m_state, wanted, old);
    if (seen == old) return;
    old = seen;
  }
}

HANDLE CThreadWrapper::DuplicateThreadHandle() const {
  HANDLE copy = nullptr;
  if (!m_hThread.valid() || m_hThread.get() == INVALID_HANDLE_VALUE) return nullptr;
  if (!DuplicateHandle(GetCurrentProcess(), m_hThread.get(), GetCurrentProcess(), &copy, 0, FALSE,
                       DUPLICATE_SAME_ACCESS))
    return nullptr;
  return copy;
}

// ---- CBaseThread ----

void CBaseThread::CleanUp() {
  if (GetState() != tsRunning) return;
  broom::unique_thread thread(DuplicateThreadHandle());
  if (thread) WaitForSingleObject(thread.get(), INFINITE);
}

void CBaseThread::Create() {
  DWORD id = 0;
  HANDLE handle = CreateThread(nullptr, 0, &CBaseThread::StartRoutine, this, CREATE_SUSPENDED, &id);
  m_hThread.reset(handle);
  m_threadId = id;
  if (!handle) throw new CTmpExcep();
  OnBeforeStart();
  SetState(tsCreated);
}

void CBaseThread::Start() {
  Create();
  AddRef();  // the running thread's reference, released by StartRoutine
  if (GetState() != tsCreated) return;
  SetState(tsRunning);
  if (ResumeThread(m_hThread.get()) == static_cast<DWORD>(-1)) {
    // The thread never ran: remove it so that no suspended thread is left
    // behind. Its reference stays counted; the owner destroys the object.
    TerminateThread(m_hThread.get(), 0);
    WaitForSingleObject(m_hThread.get(), INFINITE);
    SetState(tsCreated);
    throw new CTmpExcep();
  }
}

DWORD WINAPI CBaseThread::StartRoutine(void* param) {
  auto* self = static_cast<CBaseThread*>(param);
  unsigned long exitCode = 0;
  try {
    self->OnBeforeStart();
    exitCode = self->ThreadProc();
  } catch (CTmpExcep* e) {
    delete e;
    exitCode = 0;
  } catch (textconv::exception* e) {
    delete e;
    exitCode = 0;
  } catch (...) {
    exitCode = 0;
  }
  self->SetState(tsFinished);
  self->Release();  // may destroy the object: nothing of it is touched after this
  return exitCode;
}

// ---- CSimpleThreadMessageMap ----

CSimpleThreadMessageMap::CSimpleThreadMessageMap()
    : m_refCount(0), m_hReady(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
  if (!m_hReady) throw new CTmpExcep();
}

CSimpleThreadMessageMap::~CSimpleThreadMessageMap() = default;

void CSimpleThreadMessageMap::OnBeforeStart() { ResetEvent(m_hReady.get()); }

unsigned long CSimpleThreadMessageMap::ThreadProc() {
  MSG msg;
  // Peeking makes the system create this thread's message queue; posts
  // made before it exists would fail.
  PeekMessageW(&msg, nullptr, WM_USER, WM_USER, PM_NOREMOVE);
  SetEvent(m_hReady.get());
  for (;;) {
    WaitMessage();
    while (PeekMessageW(&msg, reinterpret_cast<HWND>(-1), 0, 0, PM_REMOVE)) {
      if (msg.message == WM_QUIT) return static_cast<unsigned long>(msg.wParam);
      ProcessThreadMessage(msg.message, msg.wParam, msg.lParam);
    }
  }
}

void CSimpleThreadMessageMap::CleanUp() {
  if (GetState() != tsRunning) return;
  // Taken before posting: once WM_QUIT is handled the thread's last release
  // may destroy this object, and with it m_hThread.
  broom::unique_thread thread(DuplicateThreadHandle());
  PostToThread(WM_QUIT, 0, 0);
  if (thread) WaitForSingleObject(thread.get(), INFINITE);
}

void CSimpleThreadMessageMap::ProcessThreadMessage(UINT message, WPARAM wParam, LPARAM lParam) {
  if (message != MSG_SYNC_CALL) return;
  HANDLE done = *reinterpret_cast<const HANDLE*>(lParam);
  auto signal = broom::scope_exit([done] { SetEvent(done); });
  const MSG* inner = reinterpret_cast<const MSG*>(wParam);
  ProcessThreadMessage(inner->message, inner->wParam, inner->lParam);
}

void CSimpleThreadMessageMap::PostToThread(UINT message, WPARAM wParam, LPARAM lParam) {
  if (WaitForSingleObject(m_hReady.get(), kReadyTimeoutMs) == WAIT_TIMEOUT)
    throw new textconv::exception("message map thread never reached ready state");
  for (int attempt = 0; attempt < kPostTries; ++attempt) {
    if (attempt > 0) Sleep(kPostRetryDelayMs);
    if (PostThreadMessageW(m_threadId, message, wParam, lParam)) return;
  }
  throw new textconv::exception("PostThreadMessage failed repeatedly");
}

bool CSimpleThreadMessageMap::SendToThread(UINT message, WPARAM wParam, LPARAM lParam) {
  if (GetCurrentThreadId() == m_threadId) {
    ProcessThreadMessage(message, wParam, lParam);
    return true;
  }
  broom::unique_event done(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  if (!done) throw new CTmpExcep();
  broom::unique_thread thread(DuplicateThreadHandle());
  MSG record = {};
  record.message = message;
  record.wParam = wParam;
  record.lParam = lParam;
  HANDLE doneHandle = done.get();
  PostToThread(MSG_SYNC_CALL, reinterpret_cast<WPARAM>(&record), reinterpret_cast<LPARAM>(&doneHandle));
  if (!thread) return WaitForSingleObject(done.get(), INFINITE) == WAIT_OBJECT_0;
  HANDLE waits[2] = {done.get(), thread.get()};
  // The event comes first: when both are set, the message was handled.
  return WaitForMultipleObjects(2, waits, FALSE, INFINITE) == WAIT_OBJECT_0;
}
