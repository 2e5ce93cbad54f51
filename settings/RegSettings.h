#pragma once
// Typed access to the application's registry key, in the current user's copy
// (HKEY_CURRENT_USER) and the machine-wide copy (HKEY_LOCAL_MACHINE). Nothing
// is cached: every call opens the key, reads or writes once and closes it.
//
// Getters report by bool or Win32 status. Opening the key throws an int 0
// when the key exists but cannot be opened for reading, or cannot be created
// or opened for writing; that int is meant to reach the host.
#include <windows.h>

#include <vector>

#include "atl/CRegKey.h"
#include "atl/CString.h"
#include "core/Export.h"
#include "core/RefCounting.h"

class CAppInfo;

class BROOM_API CRegSettings {
 public:
  // The key is SOFTWARE\<first>\<second>; nothing is opened here.
  CRegSettings(const wchar_t* first, const wchar_t* second);
  CRegSettings(const CRegSettings& other);
  CRegSettings& operator=(const CRegSettings& other);
  ~CRegSettings();

  const wchar_t* GetRegistryPath() const;

  // DWORD values (REG_DWORD). False, with the default stored, when no DWORD was read.
  bool GetUserValue(const wchar_t* name, unsigned long& value, unsigned long defaultValue);
  bool GetSystemValue(const wchar_t* name, unsigned long& value, unsigned long defaultValue);
  bool GetUserOrSystemValue(const wchar_t* name, unsigned long& value, unsigned long defaultValue);

  // bool values, stored as the DWORD 0 or 1; any non-zero DWORD reads as true.
  bool GetUserValue(const wchar_t* name, bool& value, bool defaultValue);
  bool GetSystemValue(const wchar_t* name, bool& value, bool defaultValue);
  bool GetUserOrSystemValue(const wchar_t* name, bool& value, bool defaultValue);

  // Raw bytes (REG_BINARY). size: capacity in, stored size out. On a failure
  // other than ERROR_MORE_DATA, size bytes of defaultData (when given) are
  // copied into the buffer. Returns the Win32 status.
  long GetUserValue(const wchar_t* name, void* buffer, unsigned long& size, void* defaultData);
  long GetSystemValue(const wchar_t* name, void* buffer, unsigned long& size, void* defaultData);
  long GetUserOrSystemValue(const wchar_t* name, void* buffer, unsigned long& size, void* defaultData);

  // Visible string of a string value; a hidden tail behind its NUL is ignored.
  bool GetUserValue(const wchar_t* name, CString& value, const wchar_t* defaultValue);
  bool GetSystemValue(const wchar_t* name, CString& value, const wchar_t* defaultValue);
  bool GetUserOrSystemValue(const wchar_t* name, CString& value, const wchar_t* defaultValue);

  bool SetUserValue(const wchar_t* name, const unsigned long& value);
  bool SetSystemValue(const wchar_t* name, const unsigned long& value);
  bool SetUserValue(const wchar_t* name, const bool& value);
  bool SetSystemValue(const wchar_t* name, const bool& value);
  bool SetUserValue(const wchar_t* name, void* data, unsigned long size);
  bool SetSystemValue(const wchar_t* name, void* data, unsigned long size);
  // Replaces the visible string and keeps the value's type and hidden tail.
  bool SetUserValue(const wchar_t* name, const CString& value);
  bool SetSystemValue(const wchar_t* name, const CString& value);
  // A string literal would otherwise pick the bool overload (pointer to bool
  // is a standard conversion and beats the CString constructor).
  bool SetUserValue(const wchar_t* name, const wchar_t* value) { return SetUserValue(name, CString(value)); }
  bool SetSystemValue(const wchar_t* name, const wchar_t* value) { return SetSystemValue(name, CString(value)); }

  // The hidden tail behind a string value's NUL. size: capacity in, bytes
  // delivered out; a short buffer gets the first size bytes and status 234.
  long GetUserSecretValue(const wchar_t* name, void* buffer, unsigned long& size, void* fourth);
  long GetSystemSecretValue(const wchar_t* name, void* buffer, unsigned long& size, void* fourth);
  long GetUserOrSystemSecretValue(const wchar_t* name, void* buffer, unsigned long& size, void* fourth);
  // Replaces the tail and keeps the visible string and its type; null data
  // or a size of 0 removes the tail. Never throws.
  bool SetUserSecretValue(const wchar_t* name, void* data, unsigned long size);
  bool SetSystemSecretValue(const wchar_t* name, void* data, unsigned long size);

  // REG_MULTI_SZ lists. The getter gives a null reference for a missing key or
  // value, another type, or data of 4 bytes or fewer. The last argument of
  // both is accepted and not used.
  CRefPtr<IConstTArray<CString>> GetMultiStringValue(const wchar_t* name, bool system, const wchar_t* third);
  // Empty strings of the list are left out so they cannot end the list early.
  void SetMultiStringValue(const wchar_t* name, bool system, const std::vector<CString>& list,
                           const wchar_t* fourth);

 private:
  friend class CAppInfo;

  bool OpenKey(CRegKey& key, const wchar_t* subKey, bool create, bool system) const;
  long ReadData(bool system, const wchar_t* name, void* buffer, unsigned long& size, unsigned long expectedType);
  long WriteData(bool system, const wchar_t* name, const void* data, unsigned long size, unsigned long type);
  bool OpenUserKeyAllAccess(CRegKey& key);
  bool OpenSystemKeyAllAccess(CRegKey& key);

  bool GetDwordValue(bool system, const wchar_t* name, unsigned long& value, unsigned long defaultValue);
  bool GetBoolValue(bool system, const wchar_t* name, bool& value, bool defaultValue);
  long GetRawValue(bool system, const wchar_t* name, void* buffer, unsigned long& size, void* defaultData);
  bool GetStringValue(bool system, const wchar_t* name, CString& value, const wchar_t* defaultValue);
  bool SetStringValue(bool system, const wchar_t* name, const CString& value);
  long GetSecretValue(bool system, const wchar_t* name, void* buffer, unsigned long& size);
  bool SetSecretValue(bool system, const wchar_t* name, const void* data, unsigned long size);
  bool OpenKeyAllAccess(bool system, CRegKey& key);

  CString m_registryPath;
};
