#pragma once
// The URLs a Chromium profile has bookmarked, from its Bookmarks and
// AccountBookmarks files (JSON). Internal to the engine.
#include <windows.h>

#include <string>
#include <unordered_set>

namespace broom {
namespace browserdb {

// Adds every "url" of a node of type "url", at any depth, of the profile's
// bookmark files. A missing file adds nothing; one that cannot be read or
// parsed gives false with the file and why, so no history goes on a guess.
bool ReadBookmarkedUrls(const std::wstring& profile, std::unordered_set<std::string>& urls, std::wstring& why);

}  // namespace browserdb
}  // namespace broom
