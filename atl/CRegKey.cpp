#include "atl/CRegKey.h"

#include <cwchar>

namespace ATL {

CRegKey& CRegKey::operator=(CRegKey& other) noexcept {
  if (m_hKey != other.m_hKey) {
    Close();
    Attach(other.Detach());
  }
  return *this;
}

LONG CRegKey::Create(HKEY parent, const wchar_t* name, wchar_t* className, DWORD options, REGSAM sam,
                     SECURITY_ATTRIBUTES* security, DWORD* disposition) noexcept {
  DWORD dummy = 0;
  HKEY key = nullptr;
  LONG rc = RegCreateKeyExW(parent, name, 0, className, options, sam, security, &key,
                            disposition ? disposition : &dummy);
  if (rc == ERROR_SUCCESS) {
    rc = Close();
    m_hKey = key;
  }
  return rc;
}

LONG CRegKey::Open(HKEY parent, const wchar_t* name, REGSAM sam) noexcept {
  HKEY key = nullptr;
  LONG rc = RegOpenKeyExW(parent, name, 0, sam, &key);
  if (rc == ERROR_SUCCESS) {
    rc = Close();
    m_hKey = key;
  }
  return rc;
}

LONG CRegKey::Close() noexcept {
  LONG rc = ERROR_SUCCESS;
  if (m_hKey) {
    rc = RegCloseKey(m_hKey);
    m_hKey = nullptr;
  }
  return rc;
}

void CRegKey::Attach(HKEY key) noexcept {
  Close();
  m_hKey = key;
}

HKEY CRegKey::Detach() noexcept {
  HKEY key = m_hKey;
  m_hKey = nullptr;
  return key;
}

LONG CRegKey::QueryValue(const wchar_t* name, DWORD* type, void* data, ULONG* bytes) const noexcept {
  return RegQueryValueExW(m_hKey, name, nullptr, type, static_cast<BYTE*>(data), bytes);
}

LONG CRegKey::QueryDWORDValue(const wchar_t* name, DWORD& value) const noexcept {
  DWORD type = 0;
  ULONG bytes = sizeof(DWORD);
  LONG rc = QueryValue(name, &type, &value, &bytes);
  if (rc != ERROR_SUCCESS) return rc;
  return type == REG_DWORD ? ERROR_SUCCESS : ERROR_INVALID_DATA;
}

LONG CRegKey::QueryQWORDValue(const wchar_t* name, ULONGLONG& value) const noexcept {
  DWORD type = 0;
  ULONG bytes = sizeof(ULONGLONG);
  LONG rc = QueryValue(name, &type, &value, &bytes);
  if (rc != ERROR_SUCCESS) return rc;
  return type == REG_QWORD ? ERROR_SUCCESS : ERROR_INVALID_DATA;
}

LONG CRegKey::QueryBinaryValue(const wchar_t* name, void* data, ULONG* bytes) const noexcept {
  DWORD type = 0;
  LONG rc = QueryValue(name, &type, data, bytes);
  if (rc != ERROR_SUCCESS) return rc;
  return type == REG_BINARY ? ERROR_SUCCESS : ERROR_INVALID_DATA;
}

// As ATL: a value too large for the buffer gives ERROR_MORE_DATA with *chars 0,
// and a stored string without its terminator is invalid data.
LONG CRegKey::QueryStringValue(const wchar_t* name, wchar_t* value, ULONG* chars) const noexcept {
  ULONG bytes = *chars * sizeof(wchar_t);
  *chars = 0;
  DWORD type = 0;
  LONG rc = QueryValue(name, &type, value, &bytes);
  if (rc != ERROR_SUCCESS) return rc;
  if (type != REG_SZ && type != REG_EXPAND_SZ) return ERROR_INVALID_DATA;
  if (value) {
    if (bytes != 0) {
      if (bytes % sizeof(wchar_t) != 0 || value[bytes / sizeof(wchar_t) - 1] != 0) return ERROR_INVALID_DATA;
    } else {
      value[0] = 0;
    }
  }
  *chars = bytes / sizeof(wchar_t);
  return ERROR_SUCCESS;
}

LONG CRegKey::QueryMultiStringValue(const wchar_t* name, wchar_t* value, ULONG* chars) const noexcept {
  if (value && *chars < 2) return ERROR_INSUFFICIENT_BUFFER;
  ULONG bytes = *chars * sizeof(wchar_t);
  *chars = 0;
  DWORD type = 0;
  LONG rc = QueryValue(name, &type, value, &bytes);
  if (rc != ERROR_SUCCESS) return rc;
  if (type != REG_MULTI_SZ) return ERROR_INVALID_DATA;
  ULONG n = bytes / sizeof(wchar_t);
  if (value && (bytes % sizeof(wchar_t) != 0 || n < 1 || value[n - 1] != 0 || (n > 1 && value[n - 2] != 0)))
    return ERROR_INVALID_DATA;
  *chars = n;
  return ERROR_SUCCESS;
}

LONG CRegKey::SetValue(const wchar_t* name, DWORD type, const void* data, ULONG bytes) noexcept {
  return RegSetValueExW(m_hKey, name, 0, type, static_cast<const BYTE*>(data), bytes);
}

LONG CRegKey::SetDWORDValue(const wchar_t* name, DWORD value) noexcept {
  return SetValue(name, REG_DWORD, &value, sizeof value);
}

LONG CRegKey::SetQWORDValue(const wchar_t* name, ULONGLONG value) noexcept {
  return SetValue(name, REG_QWORD, &value, sizeof value);
}

LONG CRegKey::SetBinaryValue(const wchar_t* name, const void* data, ULONG bytes) noexcept {
  return SetValue(name, REG_BINARY, data, bytes);
}

LONG CRegKey::SetStringValue(const wchar_t* name, const wchar_t* value, DWORD type) noexcept {
  if (!value) return ERROR_INVALID_PARAMETER;
  return SetValue(name, type, value, static_cast<ULONG>((wcslen(value) + 1) * sizeof(wchar_t)));
}

LONG CRegKey::SetMultiStringValue(const wchar_t* name, const wchar_t* value) noexcept {
  if (!value) return ERROR_INVALID_PARAMETER;
  // the list ends at the first empty string; its two terminators are stored
  const wchar_t* p = value;
  while (*p) p += wcslen(p) + 1;
  ULONG chars = static_cast<ULONG>(p - value) + 1;
  return SetValue(name, REG_MULTI_SZ, value, chars * sizeof(wchar_t));
}

LONG CRegKey::DeleteValue(const wchar_t* name) noexcept { return RegDeleteValueW(m_hKey, name); }

LONG CRegKey::DeleteSubKey(const wchar_t* name) noexcept { return RegDeleteKeyW(m_hKey, name); }

LONG CRegKey::RecurseDeleteKey(const wchar_t* name) noexcept {
  CRegKey key;
  LONG rc = key.Open(m_hKey, name, KEY_READ | KEY_WRITE);
  if (rc != ERROR_SUCCESS) return rc;
  wchar_t child[256];
  DWORD chars = 256;
  while (RegEnumKeyExW(key.m_hKey, 0, child, &chars, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS) {
    rc = key.RecurseDeleteKey(child);
    if (rc != ERROR_SUCCESS) return rc;
    chars = 256;
  }
  key.Close();
  return DeleteSubKey(name);
}

LONG CRegKey::EnumKey(DWORD index, wchar_t* name, DWORD* chars, FILETIME* lastWrite) noexcept {
  FILETIME ignored;
  return RegEnumKeyExW(m_hKey, index, name, chars, nullptr, nullptr, nullptr, lastWrite ? lastWrite : &ignored);
}

}  // namespace ATL
