#include "guard/BlastGuard.h"

#include <cwchar>
#include <cwctype>

#include "core/Handles.h"
#include "scandefs/ConfigValues.h"
#include "whitelist/WhiteListTree.h"

namespace {

// Upper-cased as the whitelist compares names, without a trailing
// separator: "C:\" becomes "C:".
std::wstring Normal(const wchar_t* path) {
  std::wstring out = path ? path : L"";
  while (out.size() > 2 && out.back() == L'\\') out.pop_back();
  if (out.size() == 3 && out[1] == L':' && out[2] == L'\\') out.pop_back();
  if (!out.empty()) CWhiteListTree::UpperCase(&out[0], static_cast<int>(out.size()));
  return out;
}

bool IsDriveRoot(const std::wstring& path) { return path.size() == 2 && path[1] == L':'; }

// True when inner lies below outer (not equal).
bool IsBelow(const std::wstring& inner, const std::wstring& outer) {
  return inner.size() > outer.size() + 1 && inner.compare(0, outer.size(), outer) == 0 && inner[outer.size()] == L'\\';
}

std::wstring ParentOf(const std::wstring& path) {
  size_t slash = path.find_last_of(L'\\');
  return slash == std::wstring::npos ? std::wstring() : path.substr(0, slash);
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

// Whether the pattern names the extension (".EXE", upper case) itself: as a
// whole extension, not as the start of a longer one.
bool NamesExtension(const wchar_t* pattern, const wchar_t* extension) {
  if (!pattern) return false;
  std::wstring upper = Normal(pattern);
  size_t length = wcslen(extension);
  for (size_t at = upper.find(extension); at != std::wstring::npos; at = upper.find(extension, at + 1)) {
    size_t after = at + length;
    if (after >= upper.size() || !iswalnum(upper[after])) return true;
  }
  return false;
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

}  // namespace

void CBlastGuard::Add(std::vector<SFolder>& list, const wchar_t* name, const wchar_t* path) {
  if (!path || !*path) return;
  SFolder folder{name, path, Normal(path)};
  while (folder.shown.size() > 3 && folder.shown.back() == L'\\') folder.shown.pop_back();
  for (const SFolder& known : list)
    if (known.path == folder.path) return;
  list.push_back(folder);
}

CBlastGuard::CBlastGuard() {
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
  if (!Environment(L"SystemRoot").empty())
    Add(m_protected, L"SysWOW64", (Environment(L"SystemRoot") + L"\\SysWOW64").c_str());

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
  const std::pair<const wchar_t*, const wchar_t*> appData[] = {
      {L"AppData\\Roaming", L"APPDATA"}, {L"AppData\\Local", L"LOCALAPPDATA"}, {L"AppData\\LocalLow", L"LOCALLOWAPPDATA"}};
  for (const auto& folder : appData) Add(m_protected, folder.first, symbol(folder.second));
}

CBlastGuard::SVerdict CBlastGuard::Check(ICleanableItem* item, const wchar_t* pattern) const {
  auto* file = dynamic_cast<CCleanableFile*>(item);
  if (!file) return SVerdict();
  return CheckPath(file->GetPath().c_str(), file->IsDirectory(), pattern);
}

CBlastGuard::SVerdict CBlastGuard::CheckPath(const wchar_t* path, bool isFolder, const wchar_t* pattern) const {
  std::wstring normal = Normal(path);
  if (normal.empty()) return Refuse(L"it has no path");
  if (IsDriveRoot(normal)) return Refuse(L"it is the drive root " + normal + L"\\");
  if (isFolder) {
    for (const SFolder& folder : m_protected) {
      if (folder.path == normal) return Refuse(L"it is " + folder.name + L" (" + folder.shown + L"), which is never removed");
      if (IsBelow(folder.path, normal))
        return Refuse(L"removing it would remove " + folder.name + L" (" + folder.shown + L")");
    }
  }
  std::wstring parent = ParentOf(normal);
  if (IsDriveRoot(parent)) return Refuse(L"it lies directly in the drive root " + parent + L"\\");
  for (const SFolder& profile : m_profiles)
    if (profile.path == parent) return Refuse(L"it lies directly in " + profile.name + L" (" + profile.shown + L")");
  if (!isFolder) {
    for (const wchar_t* extension : {L".EXE", L".DLL", L".SYS"}) {
      size_t length = wcslen(extension);
      if (normal.size() > length && normal.compare(normal.size() - length, length, extension) == 0 &&
          !NamesExtension(pattern, extension)) {
        std::wstring lower = extension;
        for (auto& c : lower) c = static_cast<wchar_t>(towlower(c));
        return Refuse(L"it is a program file (" + lower + L") and the rule that found it does not name " + lower);
      }
    }
  }
  SVerdict verdict;
  for (const SFolder& folder : m_userFolders)
    if (IsBelow(normal, folder.path)) verdict.userFolder = folder.name.c_str();
  return verdict;
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
