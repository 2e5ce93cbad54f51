#include "registry/RegKeyReader.h"

#include "core/Handles.h"

namespace broom {
namespace reg {

namespace {

// Largest value name and data of the key, with room for a terminator.
LONG KeyLimits(HKEY key, DWORD& subkeys, DWORD& subkeyName, DWORD& values, DWORD& valueName, DWORD& valueData) {
  return RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &subkeys, &subkeyName, nullptr, &values, &valueName,
                          &valueData, nullptr, nullptr);
}

}  // namespace

LONG ReadValues(HKEY key, bool withData, std::vector<SValue>& out) {
  out.clear();
  for (int attempt = 0; attempt < 8; ++attempt) {
    DWORD subkeys = 0, subkeyName = 0, values = 0, nameMax = 0, dataMax = 0;
    LONG rc = KeyLimits(key, subkeys, subkeyName, values, nameMax, dataMax);
    if (rc != ERROR_SUCCESS) return rc;
    std::vector<wchar_t> name(nameMax + 2);
    std::vector<BYTE> data(withData ? dataMax + 2 : 0);
    out.clear();
    for (DWORD i = 0;; ++i) {
      DWORD nameLength = static_cast<DWORD>(name.size());
      DWORD size = static_cast<DWORD>(data.size());
      DWORD type = REG_NONE;
      rc = RegEnumValueW(key, i, name.data(), &nameLength, nullptr, &type, withData ? data.data() : nullptr,
                         &size);
      if (rc == ERROR_NO_MORE_ITEMS) return ERROR_SUCCESS;
      if (rc == ERROR_MORE_DATA) break;  // a value was added or grew meanwhile: ask the sizes again
      if (rc != ERROR_SUCCESS) return rc;
      SValue value;
      value.name.assign(name.data(), nameLength);
      value.type = type;
      value.size = size;
      if (withData) value.data.assign(data.begin(), data.begin() + size);
      out.push_back(std::move(value));
    }
  }
  return ERROR_MORE_DATA;
}

LONG ReadSubkeyNames(HKEY key, std::vector<std::wstring>& out) {
  out.clear();
  DWORD subkeys = 0, nameMax = 0, values = 0, valueName = 0, valueData = 0;
  LONG rc = KeyLimits(key, subkeys, nameMax, values, valueName, valueData);
  if (rc != ERROR_SUCCESS) return rc;
  std::vector<wchar_t> name(nameMax > 255 ? nameMax + 2 : 258);
  for (DWORD i = 0;; ++i) {
    DWORD length = static_cast<DWORD>(name.size());
    rc = RegEnumKeyExW(key, i, name.data(), &length, nullptr, nullptr, nullptr, nullptr);
    if (rc == ERROR_NO_MORE_ITEMS) return ERROR_SUCCESS;
    if (rc != ERROR_SUCCESS) return rc;
    out.emplace_back(name.data(), length);
  }
}

LONG ReadValue(HKEY key, const std::wstring& name, SValue& out) {
  for (int attempt = 0; attempt < 8; ++attempt) {
    DWORD type = REG_NONE, size = 0;
    LONG rc = RegQueryValueExW(key, name.c_str(), nullptr, &type, nullptr, &size);
    if (rc != ERROR_SUCCESS) return rc;
    out.data.resize(size + 2);
    DWORD got = static_cast<DWORD>(out.data.size());
    rc = RegQueryValueExW(key, name.c_str(), nullptr, &type, out.data.data(), &got);
    if (rc == ERROR_MORE_DATA) continue;
    if (rc != ERROR_SUCCESS) return rc;
    out.data.resize(got);
    out.name = name;
    out.type = type;
    out.size = got;
    return ERROR_SUCCESS;
  }
  return ERROR_MORE_DATA;
}

unsigned __int64 TreeDataSize(HKEY key, REGSAM view) {
  unsigned __int64 total = 0;
  std::vector<SValue> values;
  if (ReadValues(key, false, values) == ERROR_SUCCESS)
    for (const SValue& value : values) total += value.size;
  std::vector<std::wstring> names;
  if (ReadSubkeyNames(key, names) != ERROR_SUCCESS) return total;
  for (const std::wstring& name : names) {
    unique_hkey child;
    if (RegOpenKeyExW(key, name.c_str(), 0, KEY_READ | view, child.addressof()) == ERROR_SUCCESS)
      total += TreeDataSize(child.get(), view);
  }
  return total;
}

LONG WriteValue(HKEY key, const std::wstring& name, DWORD type, const std::vector<BYTE>& data) {
  std::vector<BYTE> guarded(data);
  guarded.push_back(0xFF);
  guarded.push_back(0xFF);
  return RegSetValueExW(key, name.c_str(), 0, type, guarded.data(), static_cast<DWORD>(data.size()));
}

}  // namespace reg
}  // namespace broom
