#pragma once
// The process's single-threaded-apartment thread: it owns the message
// router on which shell operations and marshalled interfaces are served.
#include <windows.h>

#include <string>

#include "core/Export.h"
#include "core/RefCounting.h"
#include "threads/BaseThread.h"
#include "threads/Marshal.h"
#include "threads/NamedMsgRouter.h"

class BROOM_API CMsgThreadSTA : public CBaseThread, public MarshalDestination {
 public:
  CMsgThreadSTA();
  ~CMsgThreadSTA() override;

  unsigned long ThreadProc() override;
  // Returns the same pointer with one more reference when called on this
  // thread; otherwise marshals through the router.
  LRESULT Marshal(IUnknown* source, void** result, const IID& iid) override;
  LRESULT Deliver(AutoMarshal_base* holder, void** result, const IID& iid, bool retained) override;

  CNamedMsgRouter* GetRouter() const { return m_router; }
  // The router's window, kept apart from the router so that a caller racing
  // the thread's end reads a handle that is merely stale, never freed memory.
  HWND GetRouterWindow() const { return m_routerWindow; }
  HANDLE GetReadyEvent() const { return m_readyEvent.get(); }
  // Why the router could not be built; empty while all is well.
  const std::wstring& GetFailure() const { return m_failure; }

 protected:
  CNamedMsgRouter* m_router = nullptr;
  HWND volatile m_routerWindow = nullptr;
  broom::unique_event m_readyEvent;
  std::wstring m_failure;
};

class BROOM_API CXmlConfigGlobal {
 public:
  // The process's STA thread, started and ready, created on first use; the
  // pointer stays valid until Shutdown. When the thread cannot build its
  // router, throws Exception with the reason instead of waiting for ever.
  static CMsgThreadSTA* GetSTAMsgThread();
  // The same thread with a reference of the caller's own, so that it stays
  // valid while a Shutdown on another thread lets it go.
  static CRefPtr<CMsgThreadSTA> AcquireSTAMsgThread();

  // Ends the STA thread and waits for it. Hosts call it before they exit or
  // unload the library; the next GetSTAMsgThread starts a new thread. Never
  // call it from DllMain: the wait would deadlock under the loader lock.
  // Until it is called the library keeps itself loaded (a running STA
  // thread holds a reference on its module), so unloading never pulls the
  // code from under the thread.
  static void Shutdown();
  static bool IsRunning();
};
