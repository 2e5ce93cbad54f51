#include "threads/NamedMsgRouter.h"

#include <shlwapi.h>

#include <vector>

CNamedMsgRouter::CNamedMsgRouter() {
  // the class belongs to the module that holds this library's class name
  CProcessModules modules;
  HMODULE self = modules.FindModule(kClassName);
  m_window.m_router = this;
  m_window.Create(kClassName, self);
}

CNamedMsgRouter::~CNamedMsgRouter() {
  if (GetHwnd()) {
    SendMessageW(GetHwnd(), msgRemoveAll, 0, 0);
    PostMessageW(GetHwnd(), WM_CLOSE, 0, 0);
  }
  RemoveAll();
  m_window.m_router = nullptr;
  m_window.Destroy();
}

wchar_t* CNamedMsgRouter::AllocName(const wchar_t* name) { return name ? StrDupW(name) : nullptr; }

CNamedMsgRouter::SDelivery* CNamedMsgRouter::AllocDelivery(LPARAM param, IMsgReceiver* receiver) {
  auto* block = static_cast<SDelivery*>(LocalAlloc(LMEM_FIXED, sizeof(SDelivery)));
  if (block) *block = SDelivery{param, receiver};
  return block;
}

namespace {

// Stands between the router and the sender's receiver to learn whether the
// router's window procedure ran: SendMessageW answers 0 both for a handled
// delivery and for a window that is gone.
class CReachedReceiver : public CNamedMsgRouter::IMsgReceiver {
 public:
  explicit CReachedReceiver(IMsgReceiver* inner) : m_inner(inner) {}
  LRESULT Receive(const wchar_t* name, LPARAM param) override {
    m_reached = true;
    return m_inner ? m_inner->Receive(name, param) : 0;
  }
  bool m_reached = false;

 private:
  IMsgReceiver* m_inner;
};

}  // namespace

LRESULT CNamedMsgRouter::SendDelivery(HWND router, const wchar_t* name, LPARAM param, IMsgReceiver* receiver,
                                      bool* delivered) {
  CReachedReceiver reached(receiver);
  SDelivery delivery{param, &reached};
  wchar_t* copy = AllocName(name);
  LRESULT result = SendMessageW(router, msgDeliver, reinterpret_cast<WPARAM>(copy), reinterpret_cast<LPARAM>(&delivery));
  // The router frees the name of every message it handles; one that never
  // reached it is the sender's to free.
  if (!reached.m_reached) LocalFree(copy);
  if (delivered) *delivered = reached.m_reached;
  return result;
}

LRESULT CNamedMsgRouter::AddReceiver(const wchar_t* name, IMsgReceiver* receiver) {
  if (!name) return 0;
  auto found = m_receivers.find(const_cast<wchar_t*>(name));
  if (found == m_receivers.end()) {
    wchar_t* copy = StrDupW(name);
    if (!copy) return 0;
    found = m_receivers.emplace(copy, std::set<IMsgReceiver*>()).first;
  }
  found->second.insert(receiver);
  return 1;
}

LRESULT CNamedMsgRouter::RemoveReceiver(const wchar_t* name, IMsgReceiver* receiver) {
  if (!name) return 0;
  auto found = m_receivers.find(const_cast<wchar_t*>(name));
  if (found == m_receivers.end()) return 0;
  found->second.erase(receiver);
  if (found->second.empty()) {
    wchar_t* copy = found->first;
    m_receivers.erase(found);
    LocalFree(copy);
  }
  return 1;
}

LRESULT CNamedMsgRouter::Broadcast(const wchar_t* name, LPARAM param) {
  if (!name) return 0;
  auto found = m_receivers.find(const_cast<wchar_t*>(name));
  if (found == m_receivers.end()) return 0;
  // a copy, so receivers may change registrations while they are called
  std::vector<IMsgReceiver*> receivers(found->second.begin(), found->second.end());
  for (IMsgReceiver* receiver : receivers) receiver->Receive(name, param);
  return static_cast<LRESULT>(receivers.size());
}

LRESULT CNamedMsgRouter::RemoveAll() {
  for (auto& entry : m_receivers) LocalFree(entry.first);
  m_receivers.clear();
  return 1;
}

LRESULT CNamedMsgRouter::WindowProc(UINT msg, WPARAM wParam, LPARAM lParam) {
  if (msg < msgAddReceiver || msg > msgDeliverOwned) return DefWindowProcW(GetHwnd(), msg, wParam, lParam);
  auto* name = reinterpret_cast<wchar_t*>(wParam);
  LRESULT result = 0;
  try {
    switch (msg) {
      case msgAddReceiver:
        result = AddReceiver(name, reinterpret_cast<IMsgReceiver*>(lParam));
        break;
      case msgRemoveReceiver:
        result = RemoveReceiver(name, reinterpret_cast<IMsgReceiver*>(lParam));
        break;
      case msgBroadcast:
        result = Broadcast(name, lParam);
        break;
      case msgRemoveAll:
        result = RemoveAll();
        break;
      case msgDeliver: {
        auto* delivery = reinterpret_cast<SDelivery*>(lParam);
        if (delivery && delivery->receiver) delivery->receiver->Receive(name ? name : L"", delivery->param);
        break;
      }
      case msgDeliverOwned: {
        auto* delivery = reinterpret_cast<SDelivery*>(lParam);
        try {
          if (delivery && delivery->receiver) delivery->receiver->Receive(name ? name : L"", delivery->param);
        } catch (...) {
          LocalFree(delivery);
          throw;
        }
        LocalFree(delivery);
        break;
      }
    }
  } catch (...) {
    result = 0;  // nothing crosses the window procedure
  }
  if (msg == msgDeliver || msg == msgDeliverOwned) result = 0;
  LocalFree(name);
  return result;
}
