#include "scandefs/ConfigValues.h"

#include <shlobj.h>

#include <memory>
#include <mutex>
#include <vector>

#include "core/Handles.h"
#include "registry/RegistryPath.h"

namespace {

struct ShellSymbol {
  const wchar_t* name;
  int csidl;
};

const ShellSymbol kShellSymbols[] = {
    {L"DESKTOP", 0x00}, {L"INTERNET", 0x01}, {L"PROGRAMS", 0x02}, {L"CONTROLS", 0x03}, {L"PRINTERS", 0x04},
    {L"PERSONAL", 0x05}, {L"FAVORITES", 0x06}, {L"STARTUP", 0x07}, {L"RECENT", 0x08}, {L"SENDTO", 0x09},
    {L"BITBUCKET", 0x0A}, {L"STARTMENU", 0x0B}, {L"MYDOCUMENTS", 0x05}, {L"MYMUSIC", 0x0D}, {L"MYVIDEO", 0x0E},
    {L"DESKTOPDIRECTORY", 0x10}, {L"DRIVES", 0x11}, {L"NETWORK", 0x12}, {L"NETHOOD", 0x13}, {L"FONTS", 0x14},
    {L"TEMPLATES", 0x15}, {L"COMMON_STARTMENU", 0x16}, {L"COMMON_PROGRAMS", 0x17}, {L"COMMON_STARTUP", 0x18},
    {L"COMMON_DESKTOPDIRECTORY", 0x19}, {L"PRINTHOOD", 0x1B}, {L"LOCALAPPDATA", 0x1C}, {L"INTERNET_CACHE", 0x20},
    {L"COOKIES", 0x21}, {L"HISTORY", 0x22}, {L"COMMON_APPDATA", 0x23}, {L"WINDOWS", 0x24}, {L"SYSTEM", 0x25},
    {L"PROGRAM_FILES", 0x26}, {L"MYPICTURES", 0x27}, {L"PROFILE", 0x28}, {L"SYSTEMX86", 0x29},
    {L"PROGRAM_FILESX86", 0x2A}, {L"PROGRAM_FILES_COMMON", 0x2B}, {L"PROGRAM_FILES_COMMONX86", 0x2C},
    {L"COMMON_TEMPLATES", 0x2D}, {L"COMMON_DOCUMENTS", 0x2E}, {L"COMMON_ADMINTOOLS", 0x2F}, {L"ADMINTOOLS", 0x30},
    {L"CONNECTIONS", 0x31}, {L"COMMON_MUSIC", 0x35}, {L"COMMON_PICTURES", 0x36}, {L"COMMON_VIDEO", 0x37},
    {L"RESOURCES", 0x38}, {L"RESOURCES_LOCALIZED", 0x39}, {L"COMMON_OEM_LINKS", 0x3A}, {L"CDBURN_AREA", 0x3B},
    {L"COMPUTERSNEARME", 0x3D},
};

constexpr GUID kFolderDownloads = {0x374DE290, 0x123F, 0x4565, {0x91, 0x64, 0x39, 0xC4, 0x92, 0x5E, 0x46, 0x7B}};
constexpr GUID kFolderLocalAppDataLow = {0xA520A1A4, 0x1780, 0x4FF6, {0xBD, 0x18, 0x16, 0x73, 0x43, 0xC5, 0xAF, 0x16}};

using GlobalScope = CFakeBaseIUnknown<CScopedMap::ConfigValueMap>;
using ChildScope = IUnknownNoQIImp<CScopedMap::ConfigValueMap>;

void FillGlobalScope(CScopedMap::ConfigValueMap& scope) {
  if (wchar_t* block = GetEnvironmentStringsW()) {
    for (const wchar_t* entry = block; *entry; entry += wcslen(entry) + 1) {
      const wchar_t* equals = wcschr(entry, L'=');
      if (!equals || equals == entry) continue;  // hidden "=C:" entries and entries without '='
      scope.Set(std::wstring(entry, equals - entry), equals + 1);
    }
    FreeEnvironmentStringsW(block);
  }
  for (const auto& symbol : kShellSymbols) {
    wchar_t buffer[MAX_PATH] = {};
    if (SUCCEEDED(SHGetFolderPathW(nullptr, symbol.csidl, nullptr, 0, buffer)) && buffer[0])
      scope.Set(symbol.name, buffer);
  }
  using KnownFolderFn = HRESULT(WINAPI*)(REFGUID, DWORD, HANDLE, PWSTR*);
  auto known = reinterpret_cast<KnownFolderFn>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"Shell32.dll"), "SHGetKnownFolderPath")));
  if (!known) return;
  const std::pair<const wchar_t*, const GUID*> folders[] = {{L"DOWNLOADS", &kFolderDownloads},
                                                          {L"LOCALLOWAPPDATA", &kFolderLocalAppDataLow}};
  for (const auto& folder : folders) {
    PWSTR path = nullptr;
    HRESULT hr = known(*folder.second, 0, nullptr, &path);
    broom::unique_cotaskmem hold(path);
    if (SUCCEEDED(hr) && path) scope.Set(folder.first, path);
  }
}

}  // namespace

CScopedMap::ConfigValueMap::~ConfigValueMap() {
  for (auto& entry : *this) delete[] entry.second;
}

bool CScopedMap::ConfigValueMap::Lookup(const std::wstring& name, std::wstring& out) const {
  const wchar_t* text = Find(name.data(), name.size());
  if (!text) return false;
  out = text;
  return true;
}

const wchar_t* CScopedMap::ConfigValueMap::Find(const wchar_t* name, size_t length) const {
  // the nearest scope that knows the name answers, a null entry included
  for (const ConfigValueMap* scope = this; scope; scope = scope->m_parentScope.Get()) {
    auto found = scope->find(CaseInsensitiveStringLess::Name(name, length));
    if (found != scope->end()) return found->second;
  }
  return nullptr;
}

void CScopedMap::ConfigValueMap::Set(const std::wstring& name, const wchar_t* text) {
  Remove(name);
  wchar_t* copy = nullptr;
  if (text) {
    size_t length = wcslen(text);
    copy = new wchar_t[length + 1];
    wmemcpy(copy, text, length + 1);
  }
  try {
    emplace(name, copy);
  } catch (...) {
    delete[] copy;
    throw;
  }
}

void CScopedMap::ConfigValueMap::Remove(const std::wstring& name) {
  auto found = find(name);
  if (found == end()) return;
  delete[] found->second;
  erase(found);
}

CRefPtr<CScopedMap::ConfigValueMap> CScopedMap::ConfigValueMap::CreateChildScope() {
  CRefPtr<ConfigValueMap> child(new ChildScope());
  child->m_parentScope = this;
  return child;
}

namespace {

struct SOverrides {
  std::mutex lock;
  bool built = false;
  std::vector<std::pair<std::wstring, std::unique_ptr<std::wstring>>> values;  // null: unknown
};
SOverrides& Overrides() {
  static SOverrides overrides;
  return overrides;
}

}  // namespace

bool CScopedMap::OverrideGlobal(const wchar_t* name, const wchar_t* value) {
  if (!name || !*name) return false;
  SOverrides& overrides = Overrides();
  std::lock_guard<std::mutex> hold(overrides.lock);
  if (overrides.built) return false;
  overrides.values.emplace_back(name, value ? std::make_unique<std::wstring>(value) : nullptr);
  return true;
}

CScopedMap::ConfigValueMap* CScopedMap::GetGlobalScope() {
  // filled once, by whichever thread comes first; read-only from then on
  static GlobalScope scope;
  static const bool built = [] {
    FillGlobalScope(scope);
    SOverrides& overrides = Overrides();
    std::lock_guard<std::mutex> hold(overrides.lock);
    for (const auto& entry : overrides.values) scope.Set(entry.first, entry.second ? entry.second->c_str() : nullptr);
    overrides.built = true;
    return true;
  }();
  (void)built;
  return &scope;
}

namespace {

// Splits a registry path into its hive, subkey and (optional) value name.
bool SplitRegistryPath(const std::wstring& path, HKEY& hive, std::wstring& subkey, std::wstring& valueName) {
  std::wstring text = path.substr(0, 260);
  size_t slash = text.find(L'\\');
  if (slash == std::wstring::npos) return false;
  hive = CRegistryPath::HiveFromName(text.c_str(), slash);
  if (!hive) return false;
  std::wstring rest = text.substr(slash + 1);
  size_t bracket = rest.find(L'[');
  valueName.clear();
  if (bracket == std::wstring::npos || bracket == 0) {
    subkey = rest;
    if (bracket == std::wstring::npos) return true;
  } else {
    subkey = rest.substr(0, bracket);
  }
  size_t start = bracket + 1;
  while (start < rest.size() && rest[start] <= 32) ++start;
  size_t close = rest.find(L']', start);
  valueName = rest.substr(start, close == std::wstring::npos ? std::wstring::npos : close - start);
  return true;
}

}  // namespace

bool OpenRegistryPath(const std::wstring& path, HKEY& key) {
  HKEY hive;
  std::wstring subkey, valueName;
  if (!SplitRegistryPath(path, hive, subkey, valueName)) return false;
  return RegOpenKeyExW(hive, subkey.c_str(), 0, KEY_READ, &key) == ERROR_SUCCESS;
}

bool ReadRegistryString(const std::wstring& path, std::wstring& out) {
  HKEY hive;
  std::wstring subkey, valueName;
  if (!SplitRegistryPath(path, hive, subkey, valueName)) return false;
  broom::unique_hkey key;
  if (RegOpenKeyExW(hive, subkey.c_str(), 0, KEY_READ, key.addressof()) != ERROR_SUCCESS) return false;
  wchar_t buffer[MAX_PATH];
  DWORD type = 0, bytes = sizeof buffer;
  if (RegQueryValueExW(key.get(), valueName.empty() ? nullptr : valueName.c_str(), nullptr, &type,
                       reinterpret_cast<BYTE*>(buffer), &bytes) != ERROR_SUCCESS)
    return false;
  if (type != REG_SZ && type != REG_EXPAND_SZ) return false;
  if (bytes == 0) {
    out.clear();
    return true;
  }
  if (bytes % sizeof(wchar_t) != 0 || buffer[bytes / sizeof(wchar_t) - 1] != 0) return false;
  out.assign(buffer, bytes / sizeof(wchar_t) - 1);
  return true;
}
