#include "threads/Marshal.h"

#include "atl/CAtlException.h"
#include "core/Handles.h"

AutoMarshal_base::AutoMarshal_base() { InitializeCriticalSection(&m_lock); }

AutoMarshal_base::~AutoMarshal_base() {
  if (m_stream) {
    CoReleaseMarshalData(m_stream);
    m_stream->Release();
  }
  DeleteCriticalSection(&m_lock);
}

void AutoMarshal_base::Set(IUnknown* pointer, const IID& iid) {
  broom::critical_section_lock lock(&m_lock);
  if (m_stream) {
    IUnknown* previous = nullptr;
    IStream* stream = m_stream;
    m_stream = nullptr;
    if (FAILED(CoGetInterfaceAndReleaseStream(stream, iid, reinterpret_cast<void**>(&previous))))
      AtlThrow(E_FAIL);
    if (previous) previous->Release();
  }
  if (pointer && FAILED(CoMarshalInterThreadInterfaceInStream(iid, pointer, &m_stream))) {
    m_stream = nullptr;
    AtlThrow(E_FAIL);
  }
}

IStream* AutoMarshal_base::TakeStream() {
  broom::critical_section_lock lock(&m_lock);
  IStream* stream = m_stream;
  m_stream = nullptr;
  return stream;
}

bool AutoMarshal_base::HasStream() {
  broom::critical_section_lock lock(&m_lock);
  return m_stream != nullptr;
}

LRESULT MarshalDestination::Marshal(IUnknown* source, void** result, const IID& iid) {
  AutoMarshal_base holder;
  holder.Set(source, iid);
  return Deliver(&holder, result, iid, false);
}

LRESULT CMarshalDestOnMsgRouter::Deliver(AutoMarshal_base* holder, void** result, const IID& iid, bool retained) {
  MarshalRetained keep(holder, result);
  MarshalNotRetained once(holder, result);
  CNamedMsgRouter::IMsgReceiver* receiver = retained ? static_cast<CNamedMsgRouter::IMsgReceiver*>(&keep) : &once;
  return CNamedMsgRouter::SendDelivery(m_router->GetHwnd(), L"", reinterpret_cast<LPARAM>(&iid), receiver);
}

LRESULT CMarshalDestOnMsgRouter::MarshalNotRetained::Receive(const wchar_t*, LPARAM iidParam) {
  const IID& iid = *reinterpret_cast<const IID*>(iidParam);
  *m_result = nullptr;
  IStream* stream = m_holder->TakeStream();
  if (!stream) return 0;
  if (FAILED(CoGetInterfaceAndReleaseStream(stream, iid, m_result))) AtlThrow(E_FAIL);
  return 0;
}

LRESULT CMarshalDestOnMsgRouter::MarshalRetained::Receive(const wchar_t* name, LPARAM iidParam) {
  MarshalNotRetained::Receive(name, iidParam);
  if (*m_result) m_holder->Set(static_cast<IUnknown*>(*m_result), *reinterpret_cast<const IID*>(iidParam));
  return 0;
}
