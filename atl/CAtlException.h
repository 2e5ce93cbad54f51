#pragma once
#include <windows.h>

#include "core/Export.h"

namespace ATL {

// ATL's HRESULT-carrying exception, thrown by value.
class BROOM_API CAtlException {
 public:
  CAtlException() noexcept : m_hr(E_FAIL) {}
  CAtlException(HRESULT hr) noexcept : m_hr(hr) {}  // NOLINT: ATL converts implicitly
  operator HRESULT() const noexcept { return m_hr; }

  HRESULT m_hr;
};

[[noreturn]] BROOM_API void AtlThrow(HRESULT hr);

}  // namespace ATL

using ATL::AtlThrow;
using ATL::CAtlException;
