#include "settings/RegSettings.h"

#include <shlwapi.h>

#include <cstring>

#include "core/Handles.h"
#include "settings/SecretRegString.h"
#include "settings/TempBuffer.h"

namespace {

constexpr REGSAM kReadWrite = KEY_READ | KEY_WRITE;  // 0x2001F

HKEY Hive(bool system) {
  return system ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER;
}

// The application key exists but cannot be used: the host gets this.
[[noreturn]] void ThrowKeyFailure() {
  throw 0;
}

}  // namespace

CRegSettings::CRegSettings(const wchar_t* first, const wchar_t* second) {
  m_registryPath = L"SOFTWARE\\";
  m_registryPath += first;
  m_registryPath += L'\\';
  m_registryPath += second;
}

CRegSettings::CRegSettings(const CRegSettings& other) = default;
CRegSettings& CRegSettings::operator=(const CRegSettings& other) = default;
CRegSettings::~CRegSettings() = default;

const wchar_t* CRegSettings::GetRegistryPath() const {
  return m_registryPath.GetString();
}

// ---- key access ----

bool CRegSettings::OpenKey(CRegKey& key, const wchar_t* subKey, bool create, bool system) const {
  const wchar_t* path = m_registryPath.GetString();
  wchar_t joined[MAX_PATH];
  if (subKey) {
    if (m_registryPath.GetLength() >= MAX_PATH) ThrowKeyFailure();
    wcscpy(joined, path);
    if (!PathAppendW(joined, subKey)) ThrowKeyFailure();
    path = joined;
  }

  HKEY opened = nullptr;
  if (create) {
    LONG rc = RegCreateKeyExW(Hive(system), path, 0, nullptr, 0, kReadWrite, nullptr, &opened, nullptr);
    if (rc != ERROR_SUCCESS) ThrowKeyFailure();
    key.Attach(opened);
    return true;
  }
  LONG rc = RegOpenKeyExW(Hive(system), path, 0, KEY_READ, &opened);
  if (rc == ERROR_FILE_NOT_FOUND) return false;
  if (rc != ERROR_SUCCESS) ThrowKeyFailure();
  key.Attach(opened);
  return true;
}

long CRegSettings::ReadData(bool system, const wchar_t* name, void* buffer, unsigned long& size,
                            unsigned long expectedType) {
  CRegKey key;
  if (!OpenKey(key, nullptr, false, system)) return ERROR_FILE_NOT_FOUND;
  DWORD type = REG_NONE;
  DWORD bytes = size;
  LONG rc = RegQueryValueExW(key, name, nullptr, &type, static_cast<BYTE*>(buffer), &bytes);
  size = bytes;
  if (rc == ERROR_SUCCESS && type != expectedType) rc = ERROR_INVALID_PARAMETER;
  return rc;
}

long CRegSettings::WriteData(bool system, const wchar_t* name, const void* data, unsigned long size,
                             unsigned long type) {
  CRegKey key;
  OpenKey(key, nullptr, true, system);
  return RegSetValueExW(key, name, 0, type, static_cast<const BYTE*>(data), size);
}

bool CRegSettings::OpenKeyAllAccess(bool system, CRegKey& key) {
  HKEY opened = nullptr;
  LONG rc = RegOpenKeyExW(Hive(system), m_registryPath, 0, KEY_ALL_ACCESS, &opened);
  if (rc == ERROR_SUCCESS) {
    key.Attach(opened);
    return true;
  }
  if (rc != ERROR_FILE_NOT_FOUND) return false;
  broom::unique_hkey created;
  if (RegCreateKeyExW(Hive(system), m_registryPath, 0, nullptr, 0, kReadWrite, nullptr, created.addressof(),
                      nullptr) != ERROR_SUCCESS)
    return false;
  created.reset();
  if (RegOpenKeyExW(Hive(system), m_registryPath, 0, KEY_ALL_ACCESS, &opened) != ERROR_SUCCESS) return false;
  key.Attach(opened);
  return true;
}

bool CRegSettings::OpenUserKeyAllAccess(CRegKey& key) {
  return OpenKeyAllAccess(false, key);
}

bool CRegSettings::OpenSystemKeyAllAccess(CRegKey& key) {
  return OpenKeyAllAccess(true, key);
}

// ---- DWORD, bool and raw values ----

bool CRegSettings::GetDwordValue(bool system, const wchar_t* name, unsigned long& value,
                                 unsigned long defaultValue) {
  unsigned long size = sizeof(DWORD);
  if (ReadData(system, name, &value, size, REG_DWORD) != ERROR_SUCCESS) {
    value = defaultValue;
    return false;
  }
  return true;
}

bool CRegSettings::GetBoolValue(bool system, const wchar_t* name, bool& value, bool defaultValue) {
  unsigned long stored = 0;
  unsigned long size = sizeof(DWORD);
  if (ReadData(system, name, &stored, size, REG_DWORD) != ERROR_SUCCESS) {
    value = defaultValue;
    return false;
  }
  value = stored != 0;
  return true;
}

long CRegSettings::GetRawValue(bool system, const wchar_t* name, void* buffer, unsigned long& size,
                               void* defaultData) {
  long rc = ReadData(system, name, buffer, size, REG_BINARY);
  if (defaultData && rc != ERROR_SUCCESS && rc != ERROR_MORE_DATA) memcpy(buffer, defaultData, size);
  return rc;
}

bool CRegSettings::GetUserValue(const wchar_t* name, unsigned long& value, unsigned long defaultValue) {
  return GetDwordValue(false, name, value, defaultValue);
}
bool CRegSettings::GetSystemValue(const wchar_t* name, unsigned long& value, unsigned long defaultValue) {
  return GetDwordValue(true, name, value, defaultValue);
}
bool CRegSettings::GetUserOrSystemValue(const wchar_t* name, unsigned long& value, unsigned long defaultValue) {
  return GetDwordValue(false, name, value, defaultValue) || GetDwordValue(true, name, value, defaultValue);
}

bool CRegSettings::GetUserValue(const wchar_t* name, bool& value, bool defaultValue) {
  return GetBoolValue(false, name, value, defaultValue);
}
bool CRegSettings::GetSystemValue(const wchar_t* name, bool& value, bool defaultValue) {
  return GetBoolValue(true, name, value, defaultValue);
}
bool CRegSettings::GetUserOrSystemValue(const wchar_t* name, bool& value, bool defaultValue) {
  return GetBoolValue(false, name, value, defaultValue) || GetBoolValue(true, name, value, defaultValue);
}

long CRegSettings::GetUserValue(const wchar_t* name, void* buffer, unsigned long& size, void* defaultData) {
  return GetRawValue(false, name, buffer, size, defaultData);
}
long CRegSettings::GetSystemValue(const wchar_t* name, void* buffer, unsigned long& size, void* defaultData) {
  return GetRawValue(true, name, buffer, size, defaultData);
}
long CRegSettings::GetUserOrSystemValue(const wchar_t* name, void* buffer, unsigned long& size,
                                        void* defaultData) {
  long rc = GetRawValue(false, name, buffer, size, defaultData);
  if (rc == ERROR_SUCCESS || rc == ERROR_MORE_DATA) return rc;
  return GetRawValue(true, name, buffer, size, defaultData);
}

bool CRegSettings::SetUserValue(const wchar_t* name, const unsigned long& value) {
  return WriteData(false, name, &value, sizeof(DWORD), REG_DWORD) == ERROR_SUCCESS;
}
bool CRegSettings::SetSystemValue(const wchar_t* name, const unsigned long& value) {
  return WriteData(true, name, &value, sizeof(DWORD), REG_DWORD) == ERROR_SUCCESS;
}
bool CRegSettings::SetUserValue(const wchar_t* name, const bool& value) {
  DWORD stored = value ? 1 : 0;
  return WriteData(false, name, &stored, sizeof(DWORD), REG_DWORD) == ERROR_SUCCESS;
}
bool CRegSettings::SetSystemValue(const wchar_t* name, const bool& value) {
  DWORD stored = value ? 1 : 0;
  return WriteData(true, name, &stored, sizeof(DWORD), REG_DWORD) == ERROR_SUCCESS;
}
bool CRegSettings::SetUserValue(const wchar_t* name, void* data, unsigned long size) {
  return WriteData(false, name, data, size, REG_BINARY) == ERROR_SUCCESS;
}
bool CRegSettings::SetSystemValue(const wchar_t* name, void* data, unsigned long size) {
  return WriteData(true, name, data, size, REG_BINARY) == ERROR_SUCCESS;
}

// ---- string and secret values ----

bool CRegSettings::GetStringValue(bool system, const wchar_t* name, CString& value, const wchar_t* defaultValue) {
  CRegKey key;
  if (OpenKey(key, nullptr, false, system)) {
    CSecretRegString codec;
    if (codec.Read(key, name) == ERROR_SUCCESS) {
      // The type is not checked: REG_EXPAND_SZ comes back unexpanded.
      value = codec.GetString();
      return true;
    }
  }
  value = defaultValue ? defaultValue : L"";
  return false;
}

bool CRegSettings::SetStringValue(bool system, const wchar_t* name, const CString& value) {
  CRegKey key;
  OpenKey(key, nullptr, true, system);
  CSecretRegString codec;
  // A missing value leaves an empty REG_SZ without tail; an existing one
  // brings its type and its tail, which the write carries over.
  codec.Read(key, name);
  codec.SetString(value);
  return codec.Write(key, name) == ERROR_SUCCESS;
}

long CRegSettings::GetSecretValue(bool system, const wchar_t* name, void* buffer, unsigned long& size) {
  CRegKey key;
  if (!OpenKey(key, nullptr, false, system)) return ERROR_FILE_NOT_FOUND;
  CSecretRegString codec;
  long rc = codec.Read(key, name);
  unsigned long tailSize = codec.GetTailSize();
  if (tailSize == 0) {
    size = 0;
    return rc;
  }
  if (tailSize > size) {
    memcpy(buffer, codec.GetTail(), size);
    return ERROR_MORE_DATA;
  }
  size = tailSize;
  memcpy(buffer, codec.GetTail(), tailSize);
  return rc;
}

bool CRegSettings::SetSecretValue(bool system, const wchar_t* name, const void* data, unsigned long size) {
  CRegKey key;
  if (!OpenKeyAllAccess(system, key)) return false;
  CSecretRegString codec;
  long rc = codec.Read(key, name);
  if (rc != ERROR_SUCCESS && rc != ERROR_FILE_NOT_FOUND) return false;
  if (!codec.SetTail(data, size)) return false;
  return codec.Write(key, name) == ERROR_SUCCESS;
}

bool CRegSettings::GetUserValue(const wchar_t* name, CString& value, const wchar_t* defaultValue) {
  return GetStringValue(false, name, value, defaultValue);
}
bool CRegSettings::GetSystemValue(const wchar_t* name, CString& value, const wchar_t* defaultValue) {
  return GetStringValue(true, name, value, defaultValue);
}
bool CRegSettings::GetUserOrSystemValue(const wchar_t* name, CString& value, const wchar_t* defaultValue) {
  return GetStringValue(false, name, value, defaultValue) || GetStringValue(true, name, value, defaultValue);
}
bool CRegSettings::SetUserValue(const wchar_t* name, const CString& value) {
  return SetStringValue(false, name, value);
}
bool CRegSettings::SetSystemValue(const wchar_t* name, const CString& value) {
  return SetStringValue(true, name, value);
}

long CRegSettings::GetUserSecretValue(const wchar_t* name, void* buffer, unsigned long& size, void*) {
  return GetSecretValue(false, name, buffer, size);
}
long CRegSettings::GetSystemSecretValue(const wchar_t* name, void* buffer, unsigned long& size, void*) {
  return GetSecretValue(true, name, buffer, size);
}
long CRegSettings::GetUserOrSystemSecretValue(const wchar_t* name, void* buffer, unsigned long& size, void*) {
  // A user read that finds nothing sets size to 0; the machine copy is
  // asked with the caller's own capacity.
  unsigned long capacity = size;
  long rc = GetSecretValue(false, name, buffer, size);
  if (rc == ERROR_SUCCESS || rc == ERROR_MORE_DATA) return rc;
  size = capacity;
  return GetSecretValue(true, name, buffer, size);
}
bool CRegSettings::SetUserSecretValue(const wchar_t* name, void* data, unsigned long size) {
  return SetSecretValue(false, name, data, size);
}
bool CRegSettings::SetSystemSecretValue(const wchar_t* name, void* data, unsigned long size) {
  return SetSecretValue(true, name, data, size);
}

// ---- string lists ----

namespace {

using CStringArrayImpl = IUnknownNoQIImp<CConstTArray<CString>>;

}  // namespace

CRefPtr<IConstTArray<CString>> CRegSettings::GetMultiStringValue(const wchar_t* name, bool system,
                                                                 const wchar_t*) {
  CRefPtr<IConstTArray<CString>> result;
  CRegKey key;
  if (!OpenKey(key, nullptr, false, system)) return result;

  DWORD type = REG_NONE;
  DWORD size = 0;
  if (RegQueryValueExW(key, name, nullptr, &type, nullptr, &size) != ERROR_SUCCESS) return result;
  if (size <= 4 || type != REG_MULTI_SZ) return result;

  TTempBuffer<4096> temp;
  BYTE* buffer = temp.Allocate(size);
  if (!buffer) return result;
  DWORD read = size;
  if (RegQueryValueExW(key, name, nullptr, &type, buffer, &read) != ERROR_SUCCESS) return result;

  CRefPtr<CStringArrayImpl> list(new CStringArrayImpl());
  std::vector<CString>& items = list->Items();
  // Strings never run past the data, even when its last NUL is missing.
  const wchar_t* chars = reinterpret_cast<const wchar_t*>(buffer);
  const unsigned long total = size / 2;
  unsigned long count = 0;
  while (count < total && chars[count] != L'\0') {
    unsigned long length = 0;
    while (count + length < total && chars[count + length] != L'\0') ++length;
    items.emplace_back(chars + count, static_cast<int>(length));
    count += length + 1;
  }
  result = list.Get();
  return result;
}

void CRegSettings::SetMultiStringValue(const wchar_t* name, bool system, const std::vector<CString>& list,
                                       const wchar_t*) {
  CRegKey key;
  OpenKey(key, nullptr, true, system);

  size_t chars = 0;
  for (const CString& item : list)
    if (item.GetLength() > 0) chars += static_cast<size_t>(item.GetLength()) + 1;
  chars += 1;
  size_t bufferChars = chars < 2 ? 2 : chars;

  TTempBuffer<4096> temp;
  wchar_t* data = reinterpret_cast<wchar_t*>(temp.Allocate(bufferChars * sizeof(wchar_t)));
  LONG rc = ERROR_INVALID_DATA;
  if (data) {
    memset(data, 0, bufferChars * sizeof(wchar_t));
    wchar_t* cursor = data;
    for (const CString& item : list) {
      if (item.GetLength() == 0) continue;
      memcpy(cursor, item.GetString(), static_cast<size_t>(item.GetLength()) * sizeof(wchar_t));
      cursor += item.GetLength() + 1;  // the NUL is already there
    }
    rc = RegSetValueExW(key, name, 0, REG_MULTI_SZ, reinterpret_cast<const BYTE*>(data),
                        static_cast<DWORD>(chars * sizeof(wchar_t)));
  }
  if (rc != ERROR_SUCCESS) ThrowKeyFailure();
}
