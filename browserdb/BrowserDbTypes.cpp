#include "browserdb/BrowserDbTypes.h"

#include <cwchar>

namespace {

std::wstring Hex(DWORD code) {
  wchar_t text[16];
  swprintf(text, 16, L"0x%08lX", static_cast<unsigned long>(code));
  return text;
}

std::wstring Count(unsigned __int64 n) {
  std::wstring digits = std::to_wstring(n);
  for (size_t i = digits.size(); i > 3; i -= 3) digits.insert(i - 3, 1, L',');
  return digits;
}

std::wstring Counted(unsigned __int64 n, const wchar_t* one, const wchar_t* many) {
  return Count(n) + L" " + (n == 1 ? one : many);
}

std::wstring SystemText(DWORD error) {
  wchar_t* buffer = nullptr;
  DWORD length = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                    FORMAT_MESSAGE_IGNORE_INSERTS,
                                nullptr, error, 0, reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
  std::wstring text = length ? std::wstring(buffer, length) : L"Windows error " + std::to_wstring(error);
  if (buffer) LocalFree(buffer);
  while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r' || text.back() == L' ' || text.back() == L'.'))
    text.pop_back();
  return text;
}

// SQLite's primary result codes that a clean meets, in words.
std::wstring SqliteText(int primary) {
  switch (primary) {
    case 5:   // SQLITE_BUSY
    case 6:   // SQLITE_LOCKED
      return L"the database is locked by another program, most likely its browser, which is running; it was left as "
             L"it was: close the browser and clean again";
    case 8:   // SQLITE_READONLY
      return L"the database may not be written (a read-only file or folder, or it needs its browser to recover it "
             L"first)";
    case 10:  // SQLITE_IOERR
      return L"reading or writing the database failed";
    case 11:  // SQLITE_CORRUPT
      return L"the database is damaged";
    case 13:  // SQLITE_FULL
      return L"the disk is full";
    case 14:  // SQLITE_CANTOPEN
      return L"the database could not be opened";
    case 26:  // SQLITE_NOTADB
      return L"the file is not a SQLite database";
    default:
      return L"SQLite reported error " + std::to_wstring(primary);
  }
}

}  // namespace

std::wstring BrowserDbResultText(DWORD code) {
  switch (code) {
    case kBrowserDbUnknownLayout:
      return L"the database's tables are not laid out as Broom knows them (a browser version it does not know); it "
             L"was left untouched (" + Hex(code) + L")";
    case kBrowserDbDamaged:
      return L"the database is damaged (SQLite's check failed before anything changed); it was left untouched: let its "
             L"browser repair it (" + Hex(code) + L")";
    case kBrowserDbIntegrityFailed:
      return L"the database did not pass SQLite's integrity check after the clean (" + Hex(code) + L")";
    case kBrowserDbKeepListUnusable:
      return L"the list of sites whose cookies are kept could not be read whole, so no cookie was deleted (" +
             Hex(code) + L")";
    case kBrowserDbBookmarksUnreadable:
      return L"the profile's bookmarks could not be read, so no history was deleted (" + Hex(code) + L")";
    case kBrowserDbChangedSinceClean:
      return L"the database has changed since it was cleaned (its browser has used it), so the copy was not put back "
             L"and is kept (" + Hex(code) + L")";
    default:
      break;
  }
  if ((code & 0xFFFF0000) == kBrowserDbSqliteFailed)
    return SqliteText(static_cast<int>(code & 0xFF)) + L" (" + Hex(code) + L")";
  if ((code & 0xFFFF0000) == kBrowserDbFileFailed) {
    DWORD error = code & 0xFFFF;
    if (error == ERROR_SHARING_VIOLATION || error == ERROR_LOCK_VIOLATION)
      return L"another program, most likely its browser, holds the database open; it was left as it was: close the "
             L"browser and clean again (" + Hex(code) + L")";
    return L"the database's files could not be used: " + SystemText(error) + L" (" + Hex(code) + L")";
  }
  return std::wstring();
}

std::wstring SBrowserDbSummary::Describe() const {
  if (kind == EBrowserDbKind::cookies)
    return Counted(cookies, L"cookie", L"cookies") + L" of " + Counted(sites, L"site", L"sites") + L"; " +
           Counted(keptSites, L"site", L"sites") + L" kept";
  return Counted(visits, L"visit", L"visits") + L" of " + Counted(pages, L"page", L"pages") + L"; " +
         Counted(keptPages, L"bookmarked page", L"bookmarked pages") + L" kept";
}
