#include "registry/RegistryPath.h"

#include <vector>

#include "core/Handles.h"
#include "scandefs/ConfigValues.h"
#include "scandefs/NoCase.h"

namespace {

bool IsBlank(wchar_t c) { return c <= 32; }

// Whether name starts with prefix (any case) and goes on with a separator or ends.
bool HasKeyPrefix(const std::wstring& name, const std::wstring& prefix, std::wstring& rest) {
  if (prefix.empty() || name.size() < prefix.size() ||
      !broom::EqualNoCase(name.c_str(), prefix.size(), prefix.c_str(), prefix.size()))
    return false;
  if (name.size() == prefix.size()) {
    rest.clear();
    return true;
  }
  if (name[prefix.size()] != L'\\') return false;
  rest = name.substr(prefix.size() + 1);
  return true;
}

std::wstring Join(const wchar_t* head, const std::wstring& rest) {
  std::wstring out(head);
  if (!rest.empty()) {
    if (!out.empty()) out += L'\\';
    out += rest;
  }
  return out;
}

// The kernel name of the current user's hive, asked once. The hive's own
// handle is a pseudo handle the kernel cannot name, so its Software key is
// asked instead.
const std::wstring& CurrentUserKernelName() {
  static const std::wstring name = [] {
    broom::unique_hkey key;
    if (RegOpenKeyExW(HKEY_CURRENT_USER, L"Software", 0, KEY_QUERY_VALUE, key.addressof()) != ERROR_SUCCESS)
      return std::wstring();
    std::wstring software = CRegistryPath::KernelName(key.get());
    const size_t tail = 9;  // "\Software"
    if (software.size() <= tail || !broom::EqualNoCase(software.c_str() + software.size() - tail, tail,
                                                      L"\\Software", tail))
      return std::wstring();
    return software.substr(0, software.size() - tail);
  }();
  return name;
}

}  // namespace

bool CRegistryPath::Parse(const wchar_t* text, size_t length) {
  size_t begin = 0, end = length;
  while (begin < end && IsBlank(text[begin])) ++begin;
  while (end > begin && IsBlank(text[end - 1])) --end;
  size_t bar = begin;
  while (bar < end && text[bar] != L'|') ++bar;
  HKEY hive = nullptr;
  std::wstring subkey;
  if (!SplitRegistryKeyPath(text + begin, bar - begin, hive, subkey)) return false;
  m_hive = hive;
  m_subkey = std::move(subkey);
  m_hasValue = bar < end;
  m_valueName = m_hasValue ? std::wstring(text + bar + 1, end - bar - 1) : std::wstring();
  return true;
}

bool CRegistryPath::StartsWithHive(const wchar_t* text) {
  size_t n = 0;
  while (text[n] && text[n] != L'\\' && text[n] != L'|') ++n;
  return RegistryHiveFromName(text, n) != nullptr;
}

std::wstring CRegistryPath::KeyText() const {
  const wchar_t* hive = RegistryHiveShortName(m_hive);
  return Join(hive ? hive : L"", m_subkey);
}

std::wstring CRegistryPath::Text() const {
  std::wstring text = KeyText();
  if (m_hasValue) text += L'|' + m_valueName;
  return text;
}

std::wstring CRegistryPath::WhiteListText() const {
  std::wstring text = KeyText();
  if (m_hasValue && !m_valueName.empty()) text += L'\\' + m_valueName;
  return text;
}

std::wstring CRegistryPath::KernelName(HKEY key) {
  // KEY_INFORMATION_CLASS KeyNameInformation: a byte count, then the name
  using NtQueryKeyFn = LONG(WINAPI*)(HANDLE, int, void*, ULONG, ULONG*);
  static const auto query = reinterpret_cast<NtQueryKeyFn>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQueryKey")));
  if (!query) return std::wstring();
  std::vector<ULONG> buffer(256);
  for (int attempt = 0; attempt < 4; ++attempt) {
    ULONG needed = 0;
    ULONG bytes = static_cast<ULONG>(buffer.size() * sizeof(ULONG));
    LONG status = query(key, 3, buffer.data(), bytes, &needed);
    if (status >= 0) {
      ULONG nameBytes = buffer[0];
      if (nameBytes > bytes - sizeof(ULONG)) return std::wstring();
      return std::wstring(reinterpret_cast<const wchar_t*>(buffer.data() + 1), nameBytes / sizeof(wchar_t));
    }
    if (needed <= bytes) return std::wstring();
    buffer.resize(needed / sizeof(ULONG) + 1);
  }
  return std::wstring();
}

bool CRegistryPath::FromKernelName(const std::wstring& kernelName, CRegistryPath& out) {
  std::wstring rest;
  const std::wstring& user = CurrentUserKernelName();
  if (!user.empty() && HasKeyPrefix(kernelName, user + L"_Classes", rest)) {
    out = CRegistryPath(HKEY_CURRENT_USER, Join(L"Software\\Classes", rest));
  } else if (!user.empty() && HasKeyPrefix(kernelName, user, rest)) {
    out = CRegistryPath(HKEY_CURRENT_USER, rest);
  } else if (HasKeyPrefix(kernelName, L"\\REGISTRY\\MACHINE", rest)) {
    out = CRegistryPath(HKEY_LOCAL_MACHINE, rest);
  } else if (HasKeyPrefix(kernelName, L"\\REGISTRY\\USER", rest)) {
    out = CRegistryPath(HKEY_USERS, rest);
  } else {
    return false;
  }
  return true;
}

std::vector<std::wstring> CRegistryPath::Components(const std::wstring& subkey) {
  std::vector<std::wstring> parts;
  for (size_t start = 0; start < subkey.size();) {
    size_t end = subkey.find(L'\\', start);
    if (end == std::wstring::npos) end = subkey.size();
    if (end > start) parts.push_back(subkey.substr(start, end - start));
    start = end + 1;
  }
  return parts;
}
