#include "registry/RegistryPath.h"

#include <vector>

#include "core/Handles.h"
#include "core/Names.h"

namespace {

struct SHiveName {
  HKEY hive;
  const wchar_t* shortName;
  const wchar_t* longName;
};

const SHiveName kHives[] = {
    {HKEY_CURRENT_USER, L"HKCU", L"HKEY_CURRENT_USER"},
    {HKEY_LOCAL_MACHINE, L"HKLM", L"HKEY_LOCAL_MACHINE"},
    {HKEY_USERS, L"HKU", L"HKEY_USERS"},
    {HKEY_CLASSES_ROOT, L"HKCR", L"HKEY_CLASSES_ROOT"},
};

const SHiveName* FindHive(HKEY hive) {
  for (const auto& h : kHives)
    if (h.hive == hive) return &h;
  return nullptr;
}

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

HKEY CRegistryPath::HiveFromName(const wchar_t* name, size_t length) {
  for (const auto& h : kHives)
    if (broom::EqualNoCase(name, length, h.shortName, wcslen(h.shortName)) ||
        broom::EqualNoCase(name, length, h.longName, wcslen(h.longName)))
      return h.hive;
  return nullptr;
}

const wchar_t* CRegistryPath::HiveShortName(HKEY hive) {
  const SHiveName* h = FindHive(hive);
  return h ? h->shortName : nullptr;
}

const wchar_t* CRegistryPath::HiveLongName(HKEY hive) {
  const SHiveName* h = FindHive(hive);
  return h ? h->longName : nullptr;
}

bool CRegistryPath::SplitKey(const wchar_t* path, size_t length, HKEY& hive, std::wstring& subkey) {
  size_t slash = 0;
  while (slash < length && path[slash] != L'\\') ++slash;
  HKEY found = HiveFromName(path, slash);
  if (!found) return false;
  hive = found;
  subkey.clear();
  const std::wstring_view rest = std::wstring_view(path, length).substr(slash < length ? slash + 1 : length);
  for (const std::wstring& part : broom::Split(rest, L'\\')) {
    if (!subkey.empty()) subkey += L'\\';
    subkey += part;
  }
  return true;
}

bool CRegistryPath::Parse(const wchar_t* text, size_t length) {
  std::wstring_view whole = broom::Trim(std::wstring_view(text, length), broom::IsBlankOrControl);
  std::wstring_view key = whole.substr(0, whole.find(L'|'));
  HKEY hive = nullptr;
  std::wstring subkey;
  if (!SplitKey(key.data(), key.size(), hive, subkey)) return false;
  m_hive = hive;
  m_subkey = std::move(subkey);
  m_hasValue = key.size() < whole.size();
  m_valueName = m_hasValue ? std::wstring(whole.substr(key.size() + 1)) : std::wstring();
  return true;
}

bool CRegistryPath::StartsWithHive(const wchar_t* text) {
  size_t n = 0;
  while (text[n] && text[n] != L'\\' && text[n] != L'|') ++n;
  return HiveFromName(text, n) != nullptr;
}

std::wstring CRegistryPath::KeyText() const {
  const wchar_t* hive = HiveShortName(m_hive);
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

std::vector<std::wstring> CRegistryPath::Components(const std::wstring& subkey) { return broom::Split(subkey, L'\\'); }

bool CRegistryPath::SameKey(const CRegistryPath& other) const {
  return m_hive == other.m_hive && broom::EqualNoCase(m_subkey, other.m_subkey);
}

bool CRegistryPath::IsAtOrBelow(const CRegistryPath& outer) const {
  return SameKey(outer) || IsBelow(outer);
}

bool CRegistryPath::IsBelow(const CRegistryPath& outer, std::wstring* rest) const {
  const std::wstring& a = outer.m_subkey;
  const std::wstring& b = m_subkey;
  if (m_hive != outer.m_hive || b.size() <= a.size()) return false;
  if (!a.empty() && (b[a.size()] != L'\\' || !broom::EqualNoCase(a.c_str(), a.size(), b.c_str(), a.size())))
    return false;
  if (rest) *rest = b.substr(a.empty() ? 0 : a.size() + 1);
  return true;
}
