#pragma once
// Handing COM interface pointers from a caller's apartment to the thread of
// a message router.
#include <windows.h>
#include <objbase.h>

#include "core/Export.h"
#include "threads/NamedMsgRouter.h"

// Holds one marshalled interface in a stream, under its own lock. COM
// failures throw CAtlException(E_FAIL).
class BROOM_API AutoMarshal_base {
 public:
  AutoMarshal_base();
  ~AutoMarshal_base();
  AutoMarshal_base(const AutoMarshal_base&) = delete;
  AutoMarshal_base& operator=(const AutoMarshal_base&) = delete;

  // Drops the interface marshalled before, then marshals pointer (if any).
  void Set(IUnknown* pointer, const IID& iid);
  // Takes the stream out (the holder is empty afterwards); the caller owns it.
  IStream* TakeStream();
  bool HasStream();

  IStream* m_stream = nullptr;
  CRITICAL_SECTION m_lock;
};

class BROOM_API MarshalDestination_base {
 public:
  virtual LRESULT Marshal(IUnknown* source, void** result, const IID& iid) = 0;
  virtual LRESULT Deliver(AutoMarshal_base* holder, void** result, const IID& iid, bool retained) = 0;

 protected:
  ~MarshalDestination_base() = default;
};

class BROOM_API MarshalDestination : public MarshalDestination_base {
 public:
  // Marshals source through a holder and delivers it once.
  LRESULT Marshal(IUnknown* source, void** result, const IID& iid) override;

 protected:
  ~MarshalDestination() = default;
};

class BROOM_API CMarshalDestOnMsgRouter : public MarshalDestination {
 public:
  explicit CMarshalDestOnMsgRouter(CNamedMsgRouter* router) : m_router(router) {}
  virtual ~CMarshalDestOnMsgRouter() = default;

  // On the router's thread: unmarshals the holder's interface into result.
  // A retained holder is marshalled again so it can be delivered once more.
  LRESULT Deliver(AutoMarshal_base* holder, void** result, const IID& iid, bool retained) override;

  class MarshalNotRetained : public CNamedMsgRouter::IMsgReceiver {
   public:
    MarshalNotRetained(AutoMarshal_base* holder, void** result) : m_holder(holder), m_result(result) {}
    LRESULT Receive(const wchar_t* name, LPARAM iid) override;

   protected:
    AutoMarshal_base* m_holder;
    void** m_result;
  };

  class MarshalRetained : public MarshalNotRetained {
   public:
    using MarshalNotRetained::MarshalNotRetained;
    LRESULT Receive(const wchar_t* name, LPARAM iid) override;
  };

 private:
  CNamedMsgRouter* m_router;
};
