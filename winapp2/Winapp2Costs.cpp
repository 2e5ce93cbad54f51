#include "winapp2/Winapp2Costs.h"

#include <cwctype>

#include "core/Names.h"

namespace broom {
namespace winapp2 {

namespace {

struct SPhrase {
  std::wstring_view text;  // its length known when compiled: thousands of entries ask
  ECost cost;
};

// Words of entry names, the first that occurs deciding: "Bookmark Favicons"
// are icons fetched again, though bookmarks are the user's own.
const SPhrase kNames[] = {
    {L"Favicons", costCache},
    {L"Password", costSaved},        {L"Passwords", costSaved},     {L"Usernames", costSaved},
    {L"Autofill", costSaved},        {L"Autocomplete", costSaved},  {L"Form Data", costSaved},
    {L"Form History", costSaved},    {L"Bookmark", costSaved},      {L"Bookmarks", costSaved},
    {L"Saved Games", costSaved},     {L"Recycle Bin", costSaved},   {L"Offline", costSaved},
    {L"Cookie", costSignIn},         {L"Cookies", costSignIn},      {L"Web Storage", costSignIn},
    {L"Local Storage", costSignIn},  {L"Session Storage", costSignIn}, {L"IndexedDB", costSignIn},
    {L"Session", costSignIn},        {L"Sessions", costSignIn},     {L"Sync Data", costSignIn},
    {L"Synced Tabs", costSignIn},    {L"Pinned Tabs", costSignIn},  {L"Permissions", costSignIn},
    {L"History", costHistory},       {L"MRU", costHistory},         {L"Recent", costHistory},
    {L"Typed", costHistory},         {L"Jump List", costHistory},   {L"Jump Lists", costHistory},
};

// What rules name: the browsers' own files and folders, and the keys of
// the system's history lists. Every one that occurs counts.
const SPhrase kTargets[] = {
    {L"Login Data", costSaved},           {L"logins.json", costSaved},       {L"signons.sqlite", costSaved},
    {L"key4.db", costSaved},              {L"key3.db", costSaved},           {L"Web Data", costSaved},
    {L"formhistory.sqlite", costSaved},   {L"formhistory", costSaved},       {L"autofill-profiles.json", costSaved},
    {L"Bookmarks", costSaved},            {L"bookmarkbackups", costSaved},
    {L"Cookies", costSignIn},             {L"cookies.sqlite", costSignIn},   {L"Extension Cookies", costSignIn},
    {L"Local Storage", costSignIn},       {L"Session Storage", costSignIn},  {L"IndexedDB", costSignIn},
    {L"Sessions", costSignIn},            {L"sessionstore", costSignIn},     {L"sessionstore-backups", costSignIn},
    {L"Current Session", costSignIn},     {L"Current Tabs", costSignIn},     {L"Last Session", costSignIn},
    {L"Last Tabs", costSignIn},           {L"permissions.sqlite", costSignIn}, {L"content-prefs.sqlite", costSignIn},
    {L"webappsstore.sqlite", costSignIn}, {L"storage.sqlite", costSignIn},   {L"Sync Data", costSignIn},
    {L"synced-tabs.db", costSignIn},
    {L"History", costHistory},            {L"places.sqlite", costHistory},   {L"Visited Links", costHistory},
    {L"Top Sites", costHistory},          {L"Shortcuts", costHistory},       {L"Network Action Predictor", costHistory},
    {L"TypedURLs", costHistory},          {L"TypedPaths", costHistory},      {L"RecentDocs", costHistory},
    {L"DownloadMetadata", costHistory},
};

bool IsWordCharacter(wchar_t c) { return iswalnum(c) || c == L'_'; }

// Whether the phrase occurs in an entry's name as whole words (any case).
bool Occurs(Text text, std::wstring_view phrase) {
  const size_t length = phrase.size();
  // the comparison first: it fails at the first letter almost everywhere
  for (size_t at = 0; at + length <= text.size(); ++at) {
    if (!broom::EqualNoCase(text.data() + at, length, phrase.data(), length)) continue;
    if (at > 0 && IsWordCharacter(text[at - 1])) continue;
    if (at + length < text.size() && IsWordCharacter(text[at + length])) continue;
    return true;
  }
  return false;
}

// Whether a mask, folder or key name is the phrase: whole, with wildcards
// around it ("*Web Data", "cookies*") or an extension after it
// ("Bookmarks.bak", "places.sqlite-wal"), never as a part of another name
// ("sessionstore-logs" is no session).
// The target comes without the wildcards around it.
bool Names(Text target, std::wstring_view phrase) {
  const size_t length = phrase.size();
  if (target.size() < length || !broom::EqualNoCase(target.data(), length, phrase.data(), length)) return false;
  return target.size() == length || target[length] == L'.' ||
         (phrase.find(L'.') != std::wstring_view::npos && !IsWordCharacter(target[length]));
}

// The system's most-recently-used lists: RunMRU, OpenSavePidlMRU, ...
bool IsMruList(Text target) {
  return target.size() >= 3 && broom::EqualNoCase(target.data() + target.size() - 3, 3, L"MRU", 3);
}

}  // namespace

ECost CostOf(Text entryName, const std::vector<Text>& targets) {
  ECost cost = costCache;
  for (const SPhrase& phrase : kNames)
    if (Occurs(entryName, phrase.text)) {
      cost = phrase.cost;
      break;
    }
  for (Text target : targets) {
    while (!target.empty() && (target.front() == L'*' || target.front() == L'?')) target.remove_prefix(1);
    while (!target.empty() && (target.back() == L'*' || target.back() == L'?')) target.remove_suffix(1);
    if (target.empty()) continue;
    // most targets share no first letter with any phrase: 4,000 entries ask
    const wchar_t first = broom::FoldCase(target.front());
    for (const SPhrase& phrase : kTargets)
      if (phrase.cost > cost && broom::FoldCase(phrase.text[0]) == first && Names(target, phrase.text))
        cost = phrase.cost;
    if (cost < costHistory && IsMruList(target)) cost = costHistory;
  }
  return cost;
}

}  // namespace winapp2
}  // namespace broom
