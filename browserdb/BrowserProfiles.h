#pragma once
// Browser profiles found from a folder pattern, and their databases.
//
// The pattern is a full path whose components may hold '*' and '?', matched
// against long names only (as winapp2 masks are: never by an 8.3 name). Each
// matched folder that is a profile counts; any other matched folder stands
// for the profiles directly in it: "…\User Data" gives Default, Profile 1,
// Guest Profile and the rest, "…\Firefox\Profiles" every Firefox profile,
// and Opera's "Opera Stable" is a profile itself with more in its
// _side_profiles folder. Links are never followed below a matched folder.
#include <string>
#include <vector>

#include "browserdb/BrowserDbTypes.h"
#include "core/Export.h"

class CWhiteListTree;

class BROOM_API CBrowserProfiles {
 public:
  // The profile folders, each once, in the order found; a protected folder
  // (whitelist bit 0x1) is left out with everything in it.
  static std::vector<std::wstring> Find(const wchar_t* pattern, EBrowserFamily family, CWhiteListTree* whiteList);
  // The folders a pattern matches, each once.
  static std::vector<std::wstring> MatchFolders(const wchar_t* pattern);
  // Whether the folder holds a profile's files (Chromium: Preferences,
  // History, Cookies, Network\Cookies, Bookmarks; Firefox: prefs.js,
  // times.json, cookies.sqlite, places.sqlite).
  static bool IsProfile(const std::wstring& folder, EBrowserFamily family);
  // The profile's databases of a kind that exist. Chromium cookies:
  // Network\Cookies and the older Cookies; history: History. Firefox:
  // cookies.sqlite; places.sqlite.
  static std::vector<std::wstring> Databases(const std::wstring& profile, EBrowserFamily family, EBrowserDbKind kind);
};
