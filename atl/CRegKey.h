#pragma once
// ATL's registry key holder: owns one HKEY, closes it on reassignment and
// destruction. Copying hands the key over, as ATL's CRegKey does.
#include <windows.h>

#include "core/Export.h"

namespace ATL {

class BROOM_API CRegKey {
 public:
  CRegKey() noexcept = default;
  explicit CRegKey(HKEY key) noexcept : m_hKey(key) {}
  CRegKey(CRegKey& other) noexcept : m_hKey(other.Detach()) {}
  CRegKey(CRegKey&& other) noexcept : m_hKey(other.Detach()) {}
  CRegKey& operator=(CRegKey& other) noexcept;
  CRegKey& operator=(CRegKey&& other) noexcept { return *this = other; }
  ~CRegKey() { Close(); }

  operator HKEY() const noexcept { return m_hKey; }

  LONG Create(HKEY parent, const wchar_t* name, wchar_t* className = REG_NONE,
              DWORD options = REG_OPTION_NON_VOLATILE, REGSAM sam = KEY_READ | KEY_WRITE,
              SECURITY_ATTRIBUTES* security = nullptr, DWORD* disposition = nullptr) noexcept;
  // The held key is replaced only when the open succeeds.
  LONG Open(HKEY parent, const wchar_t* name, REGSAM sam = KEY_READ | KEY_WRITE) noexcept;
  LONG Close() noexcept;
  void Attach(HKEY key) noexcept;
  HKEY Detach() noexcept;

  LONG QueryValue(const wchar_t* name, DWORD* type, void* data, ULONG* bytes) const noexcept;
  LONG QueryDWORDValue(const wchar_t* name, DWORD& value) const noexcept;
  LONG QueryQWORDValue(const wchar_t* name, ULONGLONG& value) const noexcept;
  LONG QueryBinaryValue(const wchar_t* name, void* data, ULONG* bytes) const noexcept;
  // chars: in, the buffer's size in characters; out, the characters read
  // including the terminator.
  LONG QueryStringValue(const wchar_t* name, wchar_t* value, ULONG* chars) const noexcept;
  LONG QueryMultiStringValue(const wchar_t* name, wchar_t* value, ULONG* chars) const noexcept;

  LONG SetValue(const wchar_t* name, DWORD type, const void* data, ULONG bytes) noexcept;
  LONG SetDWORDValue(const wchar_t* name, DWORD value) noexcept;
  LONG SetQWORDValue(const wchar_t* name, ULONGLONG value) noexcept;
  LONG SetBinaryValue(const wchar_t* name, const void* data, ULONG bytes) noexcept;
  LONG SetStringValue(const wchar_t* name, const wchar_t* value, DWORD type = REG_SZ) noexcept;
  LONG SetMultiStringValue(const wchar_t* name, const wchar_t* value) noexcept;

  LONG DeleteValue(const wchar_t* name) noexcept;
  LONG DeleteSubKey(const wchar_t* name) noexcept;
  LONG RecurseDeleteKey(const wchar_t* name) noexcept;
  LONG EnumKey(DWORD index, wchar_t* name, DWORD* chars, FILETIME* lastWrite = nullptr) noexcept;

  HKEY m_hKey = nullptr;
};

}  // namespace ATL

using ATL::CRegKey;
