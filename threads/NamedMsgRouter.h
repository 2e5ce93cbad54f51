#pragma once
// A message-only window with receivers registered by name. Work reaches the
// thread that owns the window as messages; each runs there, one at a time,
// and an exception inside a receiver never leaves the window procedure.
#include <windows.h>

#include <cwchar>
#include <map>
#include <set>

#include "core/Export.h"
#include "core/RefCounting.h"
#include "threads/MessageWnd.h"

class BROOM_API CNamedMsgRouter {
 public:
  struct IMsgReceiver {
    virtual LRESULT Receive(const wchar_t* name, LPARAM param) = 0;

   protected:
    ~IMsgReceiver() = default;
  };

  // lParam of msgDeliver (owned by the sender) and msgDeliverOwned (from
  // AllocDelivery, freed by the router).
  struct SDelivery {
    LPARAM param;
    IMsgReceiver* receiver;
  };

  // wParam of every message: a name from AllocName, or null; the router frees it.
  enum : UINT {
    msgAddReceiver = WM_USER + 0,
    msgRemoveReceiver = WM_USER + 1,
    msgBroadcast = WM_USER + 2,
    msgRemoveAll = WM_USER + 3,
    msgDeliver = WM_USER + 4,
    msgDeliverOwned = WM_USER + 5,
  };

  static constexpr const wchar_t* kClassName = L"_QX_NAMED_MSG_";

  // Creates the window on the calling thread; throws what window creation throws.
  CNamedMsgRouter();
  virtual ~CNamedMsgRouter();
  CNamedMsgRouter(const CNamedMsgRouter&) = delete;
  CNamedMsgRouter& operator=(const CNamedMsgRouter&) = delete;

  virtual LRESULT AddReceiver(const wchar_t* name, IMsgReceiver* receiver);
  virtual LRESULT RemoveReceiver(const wchar_t* name, IMsgReceiver* receiver);
  virtual LRESULT Broadcast(const wchar_t* name, LPARAM param);
  virtual LRESULT RemoveAll();
  virtual LRESULT WindowProc(UINT msg, WPARAM wParam, LPARAM lParam);

  HWND GetHwnd() const { return m_window.GetHwnd(); }
  size_t NameCount() const { return m_receivers.size(); }

  // A copy of name from the library's allocator, for a message's wParam.
  static wchar_t* AllocName(const wchar_t* name);
  static SDelivery* AllocDelivery(LPARAM param, IMsgReceiver* receiver);
  // Runs receiver->Receive(name, param) on the router's thread and waits.
  // delivered, when given, tells whether the router took the message (a
  // window that is gone, or a call that fails, never runs the receiver).
  static LRESULT SendDelivery(HWND router, const wchar_t* name, LPARAM param, IMsgReceiver* receiver,
                              bool* delivered = nullptr);

 private:
  class MsgWndBase : public CMessageWnd {
   public:
    LRESULT WindowProc(UINT msg, WPARAM wParam, LPARAM lParam) override {
      return m_router ? m_router->WindowProc(msg, wParam, lParam) : CMessageWnd::WindowProc(msg, wParam, lParam);
    }
    CNamedMsgRouter* m_router = nullptr;
  };
  using MsgWnd = CFakeBaseIUnknown<MsgWndBase>;

  struct NameLess {
    bool operator()(const wchar_t* a, const wchar_t* b) const { return wcscmp(a, b) < 0; }
  };

  MsgWnd m_window;
  std::map<wchar_t*, std::set<IMsgReceiver*>, NameLess> m_receivers;
};
