#include "browserdb/BrowserProfiles.h"

#include <windows.h>

#include <list>
#include <set>

#include "clean/FileSystemOps.h"
#include "whitelist/WhiteListTree.h"
#include "core/NameMask.h"

namespace {

bool IsFolder(const std::wstring& path) {
  DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

bool IsFile(const std::wstring& path) {
  DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
}

std::wstring Upper(std::wstring text) {
  broom::UpperName(text);
  return text;
}

// The folders directly in folder, links left out.
std::vector<std::wstring> Subfolders(const std::wstring& folder) {
  std::list<WIN32_FIND_DATAW> found;
  CFileSystemOps::ListDirectory(found, nullptr, (folder + L"\\*").c_str(), false);
  std::vector<std::wstring> out;
  for (const WIN32_FIND_DATAW& entry : found) out.push_back(folder + L"\\" + entry.cFileName);
  return out;
}

bool Protected(const std::wstring& path, CWhiteListTree* whiteList) {
  if (!whiteList) return false;
  try {
    return (whiteList->CheckProtection(path.c_str()) & 0x1) != 0;
  } catch (...) {
    return true;  // a path the whitelist cannot read is left alone
  }
}

}  // namespace

std::vector<std::wstring> CBrowserProfiles::MatchFolders(const wchar_t* pattern) {
  std::vector<std::wstring> parts = broom::SplitPath(pattern ? pattern : L"", pattern ? wcslen(pattern) : 0);
  if (parts.empty()) return {};
  std::vector<std::wstring> current{parts[0]};
  for (size_t i = 1; i < parts.size() && !current.empty(); ++i) {
    std::vector<std::wstring> next;
    if (!broom::HasWildcard(parts[i])) {
      for (const std::wstring& folder : current) next.push_back(folder + L"\\" + parts[i]);
    } else {
      std::wstring mask = Upper(parts[i]);
      for (const std::wstring& folder : current) {
        std::list<WIN32_FIND_DATAW> found;
        CFileSystemOps::ListDirectory(found, nullptr, (folder + L"\\*").c_str(), false);
        for (const WIN32_FIND_DATAW& entry : found)
          if (broom::MatchUpper(mask, Upper(entry.cFileName))) next.push_back(folder + L"\\" + entry.cFileName);
      }
    }
    current.swap(next);
  }
  std::vector<std::wstring> folders;
  std::set<std::wstring> seen;
  for (const std::wstring& folder : current)
    if (IsFolder(folder) && seen.insert(Upper(folder)).second) folders.push_back(folder);
  return folders;
}

bool CBrowserProfiles::IsProfile(const std::wstring& folder, EBrowserFamily family) {
  static const wchar_t* const kChromium[] = {L"Preferences", L"History", L"Cookies", L"Network\\Cookies",
                                             L"Bookmarks"};
  static const wchar_t* const kFirefox[] = {L"prefs.js", L"times.json", L"cookies.sqlite", L"places.sqlite"};
  if (family == EBrowserFamily::chromium) {
    for (const wchar_t* name : kChromium)
      if (IsFile(folder + L"\\" + name)) return true;
  } else {
    for (const wchar_t* name : kFirefox)
      if (IsFile(folder + L"\\" + name)) return true;
  }
  return false;
}

std::vector<std::wstring> CBrowserProfiles::Find(const wchar_t* pattern, EBrowserFamily family,
                                                 CWhiteListTree* whiteList) {
  std::vector<std::wstring> profiles;
  std::set<std::wstring> seen;
  auto add = [&](const std::wstring& folder) {
    if (!Protected(folder, whiteList) && IsProfile(folder, family) && seen.insert(Upper(folder)).second)
      profiles.push_back(folder);
  };
  for (const std::wstring& folder : MatchFolders(pattern)) {
    if (Protected(folder, whiteList)) continue;
    if (IsProfile(folder, family)) {
      add(folder);
    } else {
      for (const std::wstring& sub : Subfolders(folder)) add(sub);
    }
    // Opera keeps its further profiles below the first one
    if (family == EBrowserFamily::chromium && IsFolder(folder + L"\\_side_profiles"))
      for (const std::wstring& side : Subfolders(folder + L"\\_side_profiles")) add(side);
  }
  return profiles;
}

std::vector<std::wstring> CBrowserProfiles::Databases(const std::wstring& profile, EBrowserFamily family,
                                                      EBrowserDbKind kind) {
  std::vector<const wchar_t*> names;
  if (family == EBrowserFamily::chromium)
    names = kind == EBrowserDbKind::cookies ? std::vector<const wchar_t*>{L"Network\\Cookies", L"Cookies"}
                                            : std::vector<const wchar_t*>{L"History"};
  else
    names = {kind == EBrowserDbKind::cookies ? L"cookies.sqlite" : L"places.sqlite"};
  std::vector<std::wstring> databases;
  for (const wchar_t* name : names)
    if (IsFile(profile + L"\\" + name)) databases.push_back(profile + L"\\" + name);
  return databases;
}
