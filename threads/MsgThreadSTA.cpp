#include "threads/MsgThreadSTA.h"

#include <objbase.h>

#include <utility>

#include "core/Exceptions.h"
#include "core/Handles.h"

namespace {

using STAThread = IUnknownNoQIImp<CMsgThreadSTA>;

CRefPtr<STAThread>& Instance() {
  static CRefPtr<STAThread> instance;
  return instance;
}

// Guards the static reference: hosts may clean on several threads while
// one of them shuts the thread down.
broom::critical_section& InstanceLock() {
  static broom::critical_section lock;
  return lock;
}

// The reference on our own module that a running STA thread holds.
HMODULE& PinnedModule() {
  static HMODULE module = nullptr;
  return module;
}

std::wstring Widen(const char* text) {
  std::wstring out;
  for (; text && *text; ++text) out += static_cast<wchar_t>(static_cast<unsigned char>(*text));
  return out;
}

}  // namespace

CMsgThreadSTA::CMsgThreadSTA() : m_readyEvent(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
  if (!m_readyEvent) throw Win32Exception(L"CreateEvent failed");
}

CMsgThreadSTA::~CMsgThreadSTA() = default;

unsigned long CMsgThreadSTA::ThreadProc() {
  HRESULT hrCom = CoInitialize(nullptr);
  broom::unique_couninitialize com(SUCCEEDED(hrCom));
  try {
    m_router = new CNamedMsgRouter();
  } catch (const Exception& e) {
    m_failure = e.m_message;
  } catch (const char* text) {
    m_failure = Widen(text);
  } catch (...) {
    m_failure = L"the message router could not be created";
  }
  if (!m_router) return 1;  // the ready event stays clear: GetSTAMsgThread sees the thread end
  m_routerWindow = m_router->GetHwnd();
  SetEvent(m_readyEvent.get());

  MSG msg;
  for (;;) {
    BOOL got = GetMessageW(&msg, m_router->GetHwnd(), 0, 0);
    if (got == 0 || got == -1) break;
    DispatchMessageW(&msg);
  }
  m_routerWindow = nullptr;
  delete m_router;
  m_router = nullptr;
  return 0;
}

LRESULT CMsgThreadSTA::Marshal(IUnknown* source, void** result, const IID& iid) {
  if (GetCurrentThreadId() == GetThreadId()) {
    if (source) source->AddRef();
    *result = source;
    return 0;
  }
  return MarshalDestination::Marshal(source, result, iid);
}

LRESULT CMsgThreadSTA::Deliver(AutoMarshal_base* holder, void** result, const IID& iid, bool retained) {
  CMarshalDestOnMsgRouter destination(m_router);
  return destination.Deliver(holder, result, iid, retained);
}

CMsgThreadSTA* CXmlConfigGlobal::GetSTAMsgThread() {
  // the static reference keeps the thread alive until Shutdown
  return AcquireSTAMsgThread().Get();
}

CRefPtr<CMsgThreadSTA> CXmlConfigGlobal::AcquireSTAMsgThread() {
  broom::critical_section_lock lock(InstanceLock());
  if (Instance()) return CRefPtr<CMsgThreadSTA>(Instance().Get());
  CRefPtr<STAThread> thread(new STAThread());
  if (!PinnedModule()) {
    HMODULE self = nullptr;
    if (GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCWSTR>(&Instance), &self))
      PinnedModule() = self;
  }
  thread->Start();
  // wait for the router, or for the thread to end without one
  HANDLE waits[2] = {thread->GetReadyEvent(), thread->GetThreadHandle()};
  DWORD which = WaitForMultipleObjects(2, waits, FALSE, INFINITE);
  if (which != WAIT_OBJECT_0) {
    std::wstring reason = thread->GetFailure();
    throw Exception(L"the STA message thread could not start: %s", reason.c_str());
  }
  Instance() = thread;
  return CRefPtr<CMsgThreadSTA>(thread.Get());
}

void CXmlConfigGlobal::Shutdown() {
  CRefPtr<STAThread> thread;
  {
    broom::critical_section_lock lock(InstanceLock());
    thread.Attach(Instance().Detach());  // takes over the reference Instance() held
  }
  bool ended = true;
  if (thread) {
    HANDLE handle = nullptr;
    DuplicateHandle(GetCurrentProcess(), thread->GetThreadHandle(), GetCurrentProcess(), &handle, SYNCHRONIZE,
                    FALSE, 0);
    broom::unique_handle wait(handle);
    HWND router = thread->GetRouterWindow();
    DWORD threadId = thread->GetThreadId();
    thread.Reset();
    // The loop only takes messages of the router window, so the quit message
    // is addressed to it (and to the thread, should the window be gone). It
    // is posted again while waiting, and the wait is bounded: a host that
    // exits must never hang here.
    ended = !wait;
    for (int i = 0; i < 100 && !ended; ++i) {
      if (router) PostMessageW(router, WM_QUIT, 0, 0);
      PostThreadMessageW(threadId, WM_QUIT, 0, 0);
      ended = WaitForSingleObject(wait.get(), 100) == WAIT_OBJECT_0;
    }
  }
  // a thread that did not end keeps the module loaded under it
  HMODULE module = nullptr;
  {
    broom::critical_section_lock lock(InstanceLock());
    if (ended && !Instance()) module = std::exchange(PinnedModule(), nullptr);
  }
  if (module) FreeLibrary(module);
}

bool CXmlConfigGlobal::IsRunning() {
  broom::critical_section_lock lock(InstanceLock());
  return static_cast<bool>(Instance());
}
