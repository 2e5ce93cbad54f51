#include "guard/BlastGuard.h"

#include <objbase.h>

#include <cwchar>
#include <cwctype>
#include <mutex>
#include <unordered_map>

#include "core/Handles.h"
#include "core/NameMask.h"
#include "core/Names.h"
#include "recyclebin/RecycleBinItem.h"
#include "scandefs/ConfigValues.h"
#include "settings/AppInfo.h"

namespace {

bool IsDriveRoot(const std::wstring& path) { return path.size() == 2 && path[1] == L':'; }

bool IsBelow(const std::wstring& inner, const std::wstring& outer) { return !outer.empty() && broom::IsBelow(inner, outer); }
bool AtOrBelow(const std::wstring& inner, const std::wstring& outer) {
  return !outer.empty() && broom::IsAtOrBelow(inner, outer);
}

// The folder a path lies in; empty for a drive root or a \\server alone.
std::wstring ParentOf(const std::wstring& path) {
  std::wstring parent = broom::ParentOf(path);
  return parent.size() < 2 ? std::wstring() : parent;
}

std::wstring Environment(const wchar_t* name) {
  wchar_t buffer[MAX_PATH + 1];
  DWORD n = GetEnvironmentVariableW(name, buffer, MAX_PATH + 1);
  return n > 0 && n <= MAX_PATH ? std::wstring(buffer, n) : std::wstring();
}

std::wstring Expand(const std::wstring& text) {
  wchar_t buffer[MAX_PATH + 1];
  DWORD n = ExpandEnvironmentStringsW(text.c_str(), buffer, MAX_PATH + 1);
  return n > 0 && n <= MAX_PATH + 1 ? std::wstring(buffer) : text;
}

std::wstring ReadString(HKEY key, const wchar_t* name) {
  wchar_t buffer[MAX_PATH + 1] = {};
  DWORD type = 0, bytes = sizeof buffer - sizeof(wchar_t);
  if (RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(buffer), &bytes) != ERROR_SUCCESS ||
      (type != REG_SZ && type != REG_EXPAND_SZ))
    return std::wstring();
  buffer[bytes / sizeof(wchar_t)] = 0;
  return type == REG_EXPAND_SZ ? Expand(buffer) : std::wstring(buffer);
}

bool StartsWith(const std::wstring& text, const wchar_t* prefix) {
  size_t length = wcslen(prefix);
  return text.size() >= length && _wcsnicmp(text.c_str(), prefix, length) == 0;
}

// "\\?\C:\x" and "\??\C:\x" name C:\x, "\\?\UNC\server\share" names
// \\server\share; '/' separates as '\' does.
std::wstring Plain(const wchar_t* path) {
  std::wstring text = path ? path : L"";
  for (wchar_t& c : text)
    if (c == L'/') c = L'\\';
  if (StartsWith(text, L"\\\\?\\UNC\\") || StartsWith(text, L"\\??\\UNC\\")) return L"\\" + text.substr(7);
  if (StartsWith(text, L"\\\\?\\") || StartsWith(text, L"\\??\\") || StartsWith(text, L"\\\\.\\")) return text.substr(4);
  return text;
}

// Every component without the trailing dots and spaces the system drops
// when it opens a path, empty and "." components left out.
std::wstring TrimComponents(const std::wstring& path) {
  std::wstring out;
  size_t at = 0;
  if (path.size() >= 2 && path[0] == L'\\' && path[1] == L'\\') {
    out = L"\\\\";
    at = 2;
  }
  while (at < path.size()) {
    size_t end = path.find(L'\\', at);
    if (end == std::wstring::npos) end = path.size();
    size_t last = end;
    while (last > at && (path[last - 1] == L'.' || path[last - 1] == L' ')) --last;
    if (last > at) {
      if (!out.empty() && out.back() != L'\\') out += L'\\';
      out.append(path, at, last - at);
    }
    at = end + 1;
  }
  return out;
}

// Whether GetFullPathNameW would give the path back as it is: a drive
// letter, a colon and a backslash, then names none of which is empty, "."
// or "..", or ends in a dot or a space, the last not one a device could
// have (CON, NUL, COM1, CONIN$: a base name of 3 to 7 characters goes the
// long way). Rules name thousands of such folders; the call costs more.
bool AlreadyFull(const std::wstring& text) {
  if (text.size() < 4 || text[1] != L':' || text[2] != L'\\') return false;
  if (!((text[0] >= L'A' && text[0] <= L'Z') || (text[0] >= L'a' && text[0] <= L'z'))) return false;
  for (size_t start = 3;;) {
    size_t end = text.find(L'\\', start);
    if (end == std::wstring::npos) end = text.size();
    if (end == start || text[end - 1] == L'.' || text[end - 1] == L' ') return false;
    if (end == text.size()) {
      const size_t dot = text.find(L'.', start);
      const size_t base = (dot == std::wstring::npos ? end : dot) - start;
      return base < 3 || base > 7;
    }
    start = end + 1;
  }
}

// Short components made long, through the longest part of the path that exists.
std::wstring LongForm(const std::wstring& path) {
  std::wstring prefix = path, rest;
  wchar_t buffer[2 * MAX_PATH];
  while (prefix.find(L'~') != std::wstring::npos) {
    DWORD n = GetLongPathNameW(prefix.c_str(), buffer, 2 * MAX_PATH);
    if (n > 0 && n < 2 * MAX_PATH) return TrimComponents(std::wstring(buffer, n)) + rest;
    size_t slash = prefix.find_last_of(L'\\');
    if (slash == std::wstring::npos || slash < 3) break;
    rest = prefix.substr(slash) + rest;
    prefix.resize(slash);
  }
  return path;
}

// Whether the extension of the path's last component, upper-cased with its dot, is one of the list's.
template <size_t N>
const wchar_t* ExtensionIn(const std::wstring& path, const wchar_t* const (&list)[N]) {
  size_t dot = path.find_last_of(L".\\");
  if (dot == std::wstring::npos || path[dot] != L'.') return nullptr;
  for (const wchar_t* extension : list)
    if (path.compare(dot, std::wstring::npos, extension) == 0) return extension;
  return nullptr;
}

// Whether the pattern names the extension (".EXE", upper case) itself: as a
// whole extension, not as the start of a longer one.
bool NamesExtension(const wchar_t* pattern, const wchar_t* extension) {
  if (!pattern) return false;
  std::wstring upper = pattern;
  broom::UpperName(upper);
  size_t length = wcslen(extension);
  for (size_t at = upper.find(extension); at != std::wstring::npos; at = upper.find(extension, at + 1)) {
    size_t after = at + length;
    if (after >= upper.size() || !iswalnum(upper[after])) return true;
  }
  return false;
}

std::wstring Lower(std::wstring text) {
  for (wchar_t& c : text) c = static_cast<wchar_t>(towlower(c));
  return text;
}

std::wstring Thousands(unsigned __int64 value) {
  std::wstring digits = std::to_wstring(value), out;
  for (size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) out += L',';
    out += digits[i];
  }
  return out;
}

std::wstring Gigabytes(unsigned __int64 bytes) {
  wchar_t text[32];
  swprintf(text, 32, L"%.1f GB", static_cast<double>(bytes) / (1024.0 * 1024.0 * 1024.0));
  return text;
}

CBlastGuard::SVerdict Refuse(const std::wstring& reason) {
  CBlastGuard::SVerdict verdict;
  verdict.allowed = false;
  verdict.reason = reason.c_str();
  return verdict;
}

// Known folders without a shell-folder symbol.
const std::pair<const wchar_t*, GUID> kKnownFolders[] = {
    {L"Contacts", {0x56784854, 0xC6CB, 0x462B, {0x81, 0x69, 0x88, 0xE3, 0x50, 0xAC, 0xB8, 0x82}}},
    {L"Links", {0xBFB9D5E0, 0xC6A9, 0x404C, {0xB2, 0xB2, 0xAE, 0x6D, 0xB6, 0xAF, 0x49, 0x68}}},
    {L"Saved Games", {0x4C5C32FF, 0xBB9D, 0x43B0, {0xB5, 0xB4, 0x2D, 0x72, 0xE5, 0x4E, 0xAA, 0xA4}}},
    {L"Searches", {0x7D1D3A04, 0xDEBB, 0x4115, {0x95, 0xCF, 0x2F, 0x29, 0xDA, 0x29, 0x20, 0xDA}}},
    {L"Public Downloads", {0x3D644C9B, 0x1FB8, 0x4F30, {0x9B, 0x45, 0xF6, 0x70, 0x23, 0x5F, 0x79, 0xC0}}}};

std::wstring KnownFolder(const GUID& id) {
  using KnownFolderFn = HRESULT(WINAPI*)(REFGUID, DWORD, HANDLE, PWSTR*);
  auto known = reinterpret_cast<KnownFolderFn>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"Shell32.dll"), "SHGetKnownFolderPath")));
  PWSTR path = nullptr;
  std::wstring out;
  if (known && SUCCEEDED(known(id, 0, nullptr, &path)) && path) out = path;
  CoTaskMemFree(path);
  return out;
}

std::wstring Named(const CBlastGuard::SFolder& folder) { return folder.name + L" (" + folder.shown + L")"; }

// Both forms of a protected folder: as spelled, and through its links.
template <class Test>
bool AnyForm(const CBlastGuard::SFolder& folder, Test test) {
  return test(folder.path) || (!folder.real.empty() && folder.real != folder.path && test(folder.real));
}

const wchar_t* const kPrograms[] = {L".EXE", L".DLL", L".SYS"};
// Below the Windows folder these are never cleaned, whatever a rule names.
const wchar_t* const kSystemPrograms[] = {L".EXE", L".DLL", L".SYS", L".DRV", L".OCX",
                                          L".CPL", L".SCR", L".MSI", L".MSP"};

// One form of a hit (as spelled, or through the links of its folder).
CBlastGuard::SVerdict CheckForm(const std::wstring& form, bool isFolder, const wchar_t* pattern,
                                const std::vector<CBlastGuard::SFolder>& ownData,
                                const std::vector<CBlastGuard::SFolder>& protectedFolders,
                                const std::vector<CBlastGuard::SFolder>& profiles,
                                const std::vector<CBlastGuard::SFolder>& windows) {
  if (IsDriveRoot(form)) return Refuse(L"it is the drive root " + form + L"\\");
  for (const auto& data : ownData) {
    if (AnyForm(data, [&](const std::wstring& p) { return AtOrBelow(form, p); }))
      return Refuse(L"it is in Broom's own data folder (" + data.shown + L"), which no rule cleans");
    if (isFolder && AnyForm(data, [&](const std::wstring& p) { return IsBelow(p, form); }))
      return Refuse(L"removing it would remove Broom's own data folder (" + data.shown + L")");
  }
  if (isFolder) {
    for (const auto& folder : protectedFolders)
      if (AnyForm(folder, [&](const std::wstring& p) { return p == form; }))
        return Refuse(L"it is " + Named(folder) + L", which is never removed");
    for (const auto& folder : protectedFolders)
      if (AnyForm(folder, [&](const std::wstring& p) { return IsBelow(p, form); }))
        return Refuse(L"removing it would remove " + Named(folder));
  }
  std::wstring parent = ParentOf(form);
  if (IsDriveRoot(parent)) return Refuse(L"it lies directly in the drive root " + parent + L"\\");
  for (const auto& profile : profiles)
    if (AnyForm(profile, [&](const std::wstring& p) { return p == parent; }))
      return Refuse(L"it lies directly in " + Named(profile));
  if (isFolder) return CBlastGuard::SVerdict();
  if (const wchar_t* extension = ExtensionIn(form, kSystemPrograms)) {
    for (const auto& folder : windows)
      if (AnyForm(folder, [&](const std::wstring& p) { return IsBelow(form, p); }))
        return Refuse(L"it is a program file (" + Lower(extension) + L") in " + Named(folder) +
                      L", which no rule may delete");
  }
  if (const wchar_t* extension = ExtensionIn(form, kPrograms)) {
    if (!NamesExtension(pattern, extension)) {
      std::wstring lower = Lower(extension);
      return Refuse(L"it is a program file (" + lower + L") and the rule that found it does not name " + lower);
    }
  }
  return CBlastGuard::SVerdict();
}

}  // namespace

struct CBlastGuard::SCache {
  std::mutex lock;
  std::unordered_map<std::wstring, std::wstring> real;  // normal form of a folder: its resolved form
};

std::wstring CBlastGuard::Normalize(const wchar_t* path) {
  std::wstring text = Plain(path);
  if (text.empty()) return text;
  if (text.size() == 2 && text[1] == L':') text += L'\\';  // "C:" alone would be that drive's current folder
  if (!AlreadyFull(text)) {
    wchar_t buffer[2 * MAX_PATH];
    DWORD n = GetFullPathNameW(text.c_str(), 2 * MAX_PATH, buffer, nullptr);
    if (n > 0 && n < 2 * MAX_PATH) text.assign(buffer, n);
    text = TrimComponents(text);
  }
  if (text.find(L'~') != std::wstring::npos) text = LongForm(text);
  broom::UpperName(text);
  return text;
}

std::wstring CBlastGuard::Resolve(const std::wstring& folder) const {
  if (!m_cache || folder.empty()) return std::wstring();
  {
    std::lock_guard<std::mutex> hold(m_cache->lock);
    auto known = m_cache->real.find(folder);
    if (known != m_cache->real.end()) return known->second;
  }
  std::wstring real;
  const std::wstring open = IsDriveRoot(folder) ? folder + L"\\" : folder;
  broom::unique_hfile handle(CreateFileW(open.c_str(), FILE_READ_ATTRIBUTES,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                         OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  if (handle) {
    wchar_t buffer[2 * MAX_PATH];
    DWORD n = GetFinalPathNameByHandleW(handle.get(), buffer, 2 * MAX_PATH, FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
    if (n > 0 && n < 2 * MAX_PATH) real = Normalize(buffer);
  } else {
    // gone or not made yet: where its parent really is
    std::wstring parent = ParentOf(folder);
    std::wstring up = parent.empty() ? std::wstring() : Resolve(parent);
    if (!up.empty()) real = up + folder.substr(parent.size());
  }
  std::lock_guard<std::mutex> hold(m_cache->lock);
  if (m_cache->real.size() >= 4096) m_cache->real.clear();
  m_cache->real.emplace(folder, real);
  return real;
}

void CBlastGuard::Add(std::vector<SFolder>& list, const wchar_t* name, const wchar_t* path) {
  if (!path || !*path) return;
  SFolder folder{name, path, Normalize(path), std::wstring(), {}, {}};
  if (folder.path.empty()) return;
  folder.real = Resolve(folder.path);
  folder.pathParts = broom::SplitPath(folder.path.c_str(), folder.path.size());
  if (!folder.real.empty() && folder.real != folder.path)
    folder.realParts = broom::SplitPath(folder.real.c_str(), folder.real.size());
  while (folder.shown.size() > 3 && (folder.shown.back() == L'\\' || folder.shown.back() == L'/'))
    folder.shown.pop_back();
  for (const SFolder& known : list)
    if (known.path == folder.path) return;
  list.push_back(folder);
}

CBlastGuard::CBlastGuard() : m_cache(new SCache) {
  CScopedMap::ConfigValueMap* scope = CScopedMap::GetGlobalScope();
  auto symbol = [scope](const wchar_t* name) { return scope->Find(name, wcslen(name)); };

  const std::pair<const wchar_t*, const wchar_t*> system[] = {
      {L"the Windows folder", L"WINDOWS"},   {L"System32", L"SYSTEM"},
      {L"SysWOW64", L"SYSTEMX86"},           {L"Program Files", L"PROGRAM_FILES"},
      {L"Program Files (x86)", L"PROGRAM_FILESX86"}, {L"ProgramData", L"COMMON_APPDATA"}};
  for (const auto& folder : system) Add(m_protected, folder.first, symbol(folder.second));
  // a 32-bit engine sees the 32-bit folders through its symbols; the native
  // ones come from the environment
  const std::pair<const wchar_t*, const wchar_t*> native[] = {{L"Program Files", L"ProgramW6432"},
                                                             {L"Program Files (x86)", L"ProgramFiles(x86)"},
                                                             {L"Program Files", L"ProgramFiles"},
                                                             {L"the Windows folder", L"SystemRoot"}};
  for (const auto& folder : native) Add(m_protected, folder.first, Environment(folder.second).c_str());
  const std::wstring systemRoot = Environment(L"SystemRoot");
  if (!systemRoot.empty()) Add(m_protected, L"SysWOW64", (systemRoot + L"\\SysWOW64").c_str());
  Add(m_windows, L"the Windows folder", symbol(L"WINDOWS"));
  Add(m_windows, L"the Windows folder", systemRoot.c_str());
  Add(m_windows, L"System32", symbol(L"SYSTEM"));
  Add(m_windows, L"SysWOW64", symbol(L"SYSTEMX86"));

  // Every profile the system knows (the user's own first, for its name),
  // the folder that holds them, and Public.
  Add(m_protected, L"your profile folder", symbol(L"PROFILE"));
  Add(m_profiles, L"your profile folder", symbol(L"PROFILE"));
  broom::unique_hkey list;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList", 0,
                    KEY_READ, list.addressof()) == ERROR_SUCCESS) {
    Add(m_protected, L"the folder of the user profiles", ReadString(list.get(), L"ProfilesDirectory").c_str());
    Add(m_protected, L"the Public profile", ReadString(list.get(), L"Public").c_str());
    Add(m_profiles, L"the Public profile", ReadString(list.get(), L"Public").c_str());
    wchar_t name[256];
    for (DWORD i = 0;; ++i) {
      DWORD length = 256;
      if (RegEnumKeyExW(list.get(), i, name, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) break;
      broom::unique_hkey profile;
      if (RegOpenKeyExW(list.get(), name, 0, KEY_READ, profile.addressof()) != ERROR_SUCCESS) continue;
      std::wstring path = ReadString(profile.get(), L"ProfileImagePath");
      Add(m_protected, L"a user profile", path.c_str());
      Add(m_profiles, L"a user profile", path.c_str());
    }
  }

  const std::pair<const wchar_t*, const wchar_t*> own[] = {
      {L"Desktop", L"DESKTOPDIRECTORY"}, {L"Documents", L"PERSONAL"}, {L"Downloads", L"DOWNLOADS"},
      {L"Pictures", L"MYPICTURES"},      {L"Music", L"MYMUSIC"},      {L"Videos", L"MYVIDEO"}};
  for (const auto& folder : own) {
    Add(m_protected, folder.first, symbol(folder.second));
    Add(m_userFolders, folder.first, symbol(folder.second));
  }
  // The user's other known folders and the ones all users share: never
  // removed, and no rule walks or empties them.
  const std::pair<const wchar_t*, const wchar_t*> more[] = {
      {L"Favorites", L"FAVORITES"},           {L"Public Desktop", L"COMMON_DESKTOPDIRECTORY"},
      {L"Public Documents", L"COMMON_DOCUMENTS"}, {L"Public Music", L"COMMON_MUSIC"},
      {L"Public Pictures", L"COMMON_PICTURES"}, {L"Public Videos", L"COMMON_VIDEO"}};
  for (const auto& folder : more) Add(m_protected, folder.first, symbol(folder.second));
  for (const auto& folder : kKnownFolders) Add(m_protected, folder.first, KnownFolder(folder.second).c_str());
  const std::pair<const wchar_t*, const wchar_t*> appData[] = {
      {L"AppData\\Roaming", L"APPDATA"}, {L"AppData\\Local", L"LOCALAPPDATA"}, {L"AppData\\LocalLow", L"LOCALLOWAPPDATA"}};
  for (const auto& folder : appData) Add(m_protected, folder.first, symbol(folder.second));
  Add(m_ownData, L"Broom's data folder", CAppInfo::GetUserDataPath());
}

CBlastGuard::~CBlastGuard() = default;
CBlastGuard::CBlastGuard(CBlastGuard&&) noexcept = default;
CBlastGuard& CBlastGuard::operator=(CBlastGuard&&) noexcept = default;

CBlastGuard::SVerdict CBlastGuard::Check(ICleanableItem* item, const wchar_t* pattern) const {
  // An entry of the Recycle Bin keeps its original name (a deleted setup.exe
  // is $RAB12.exe): it is judged by where it lies, directly in a real bin folder.
  if (auto* entry = dynamic_cast<CRecycleBinItem*>(item)) {
    const std::wstring& bin = entry->GetBinFolder();
    auto directlyIn = [&](const std::wstring& path) {
      return path.empty() || (path.size() > bin.size() + 1 && _wcsnicmp(path.c_str(), bin.c_str(), bin.size()) == 0 &&
                              path[bin.size()] == L'\\' && path.find(L'\\', bin.size() + 1) == std::wstring::npos);
    };
    if (!CRecycleBinItem::IsBinFolder(bin) || !directlyIn(entry->GetDataPath()) || !directlyIn(entry->GetRecordPath()))
      return Refuse(L"it is not an entry directly in a Recycle Bin folder");
    return SVerdict();
  }
  auto* file = dynamic_cast<CCleanableFile*>(item);
  if (!file) return SVerdict();
  return CheckPath(file->GetPath().c_str(), file->IsDirectory(), pattern);
}

CBlastGuard::SVerdict CBlastGuard::CheckPath(const wchar_t* path, bool isFolder, const wchar_t* pattern) const {
  const std::wstring normal = Normalize(path);
  if (normal.empty()) return Refuse(L"it has no path");
  // The hit itself is taken as named (removing a link removes the link);
  // the folder it lies in, through its links.
  std::wstring real;
  const std::wstring parent = ParentOf(normal);
  if (!parent.empty()) {
    std::wstring up = Resolve(parent);
    if (!up.empty()) real = up + normal.substr(parent.size());
  }
  const std::wstring* forms[] = {&normal, &real};
  for (const std::wstring* form : forms) {
    if (form->empty() || (form == &real && real == normal)) continue;
    SVerdict verdict = CheckForm(*form, isFolder, pattern, m_ownData, m_protected, m_profiles, m_windows);
    if (!verdict.allowed) return verdict;
  }
  // The user folder the path names, before one its links lead into (under
  // Wine they all lead to the same Unix home).
  SVerdict verdict;
  for (const SFolder& folder : m_userFolders)
    if (IsBelow(normal, folder.path)) return verdict.userFolder = folder.name.c_str(), verdict;
  for (const SFolder& folder : m_userFolders)
    if (AnyForm(folder, [&](const std::wstring& p) { return IsBelow(normal, p) || IsBelow(real, p); }))
      return verdict.userFolder = folder.name.c_str(), verdict;
  return verdict;
}

CBlastGuard::SVerdict CBlastGuard::CheckRule(const wchar_t* folder, bool recurse, bool everyName) const {
  const std::wstring pattern = Normalize(folder);
  if (pattern.empty()) return Refuse(L"the rule has no folder");
  const std::vector<std::wstring> parts = broom::SplitPath(pattern.c_str(), pattern.size());
  // Whether a folder the pattern matches is the target or holds it (exactly
  // the target with same); each form of a folder is cut into components once.
  auto reaches = [&](const std::vector<std::wstring>& targetParts, bool same) {
    if (parts.size() > targetParts.size() || (same && parts.size() != targetParts.size())) return false;
    for (size_t i = 0; i < parts.size(); ++i)
      if (!broom::MatchUpper(parts[i], targetParts[i])) return false;
    return true;
  };
  auto anyForm = [&](const SFolder& target, bool same) {
    return reaches(target.pathParts, same) || (!target.realParts.empty() && reaches(target.realParts, same));
  };
  // A rule that starts in Broom's data folder is refused whole; one whose
  // wildcards may lead there finds nothing there, as scans never enter it.
  size_t fixed = 0;
  while (fixed < parts.size() && !broom::HasWildcard(parts[fixed])) ++fixed;
  const std::wstring literal = pattern.substr(0, fixed == parts.size() ? pattern.size() : pattern.find(parts[fixed]) - 1);
  for (const SFolder& data : m_ownData)
    if (AnyForm(data, [&](const std::wstring& p) { return fixed > 0 && AtOrBelow(literal, p); }))
      return Refuse(L"its folder lies in Broom's own data folder (" + data.shown + L"), which no rule cleans");
  if (!recurse && !everyName) return SVerdict();
  const std::wstring limits =
      L": a rule there may name files, but not take every name (*, *.*), walk its subfolders or remove itself";
  if (parts.size() == 1) return Refuse(L"its folder is the drive root " + parts[0] + L"\\" + limits);
  const bool wild = broom::HasWildcard(pattern);
  for (const SFolder& target : m_protected)
    if (anyForm(target, true))
      return Refuse(std::wstring(wild ? L"its folder may be " : L"its folder is ") + Named(target) + limits);
  for (const SFolder& target : m_protected)
    if (anyForm(target, false))
      return Refuse(std::wstring(wild ? L"its folder may hold " : L"its folder holds ") + Named(target) + limits);
  return SVerdict();
}

CBlastGuard::SVerdict CBlastGuard::CheckTotals(unsigned __int64 files, unsigned __int64 bytes) const {
  if (files > m_runawayFiles)
    return Refuse(L"it found " + Thousands(files) + L" files, more than the " + Thousands(m_runawayFiles) +
                  L" one item may clean");
  if (bytes > m_runawayBytes)
    return Refuse(L"it found " + Gigabytes(bytes) + L", more than the " + Gigabytes(m_runawayBytes) +
                  L" one item may clean");
  return SVerdict();
}

void CBlastGuard::SetRunawayLimits(unsigned __int64 files, unsigned __int64 bytes) {
  m_runawayFiles = files;
  m_runawayBytes = bytes;
}
