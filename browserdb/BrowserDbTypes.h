#pragma once
// What the browser-database cleaning shares: the browser families, the kinds
// of database, what a database holds that a clean would remove, and the
// result codes with their words.
#include <windows.h>

#include <string>

#include "core/Export.h"

enum class EBrowserFamily { chromium, firefox };  // Chrome, Edge, Brave, Vivaldi, Opera, Chromium; Firefox
enum class EBrowserDbKind { cookies, history };

// Result codes of a database's clean, restore or look: 0 is done.
enum : DWORD {
  // OR-ed with SQLite's (extended) result code: 0x806A0005 busy, 0x806A000B
  // damaged, 0x806A001A not a database.
  kBrowserDbSqliteFailed = 0x806A0000,
  // Another program holds the database locked (its browser is running).
  kBrowserDbBusy = kBrowserDbSqliteFailed | 5,
  // OR-ed with a Win32 error reaching the database's files: 0x806B0020 the
  // file is open in another program without sharing, 0x806B0002 it is gone.
  kBrowserDbFileFailed = 0x806B0000,
  kBrowserDbInUse = kBrowserDbFileFailed | ERROR_SHARING_VIOLATION,
  // The layout (tables and columns) is not one Broom knows: left untouched.
  kBrowserDbUnknownLayout = 0x806C0001,
  // SQLite's quick check found the database damaged before anything changed.
  kBrowserDbDamaged = 0x806C0002,
  // The integrity check after the clean did not answer "ok".
  kBrowserDbIntegrityFailed = 0x806C0003,
  // The keep list could not be read whole: no cookie is deleted.
  kBrowserDbKeepListUnusable = 0x806C0004,
  // A Bookmarks file of the profile could not be read: no history is deleted.
  kBrowserDbBookmarksUnreadable = 0x806C0005,
  // Restore: the database is no longer as the clean left it; the copy stays.
  kBrowserDbChangedSinceClean = 0x806C0006,
};

inline DWORD BrowserDbSqliteResult(int sqliteCode) {
  return sqliteCode == 0 ? 0 : kBrowserDbSqliteFailed | (static_cast<DWORD>(sqliteCode) & 0xFFFF);
}
inline DWORD BrowserDbFileResult(DWORD error) {
  return error == ERROR_SUCCESS ? 0 : kBrowserDbFileFailed | (error & 0xFFFF);
}

// The code in words with its hexadecimal form ("the database is locked by
// another program, ... (0x806A0005)"); empty for a code not of this family.
BROOM_API std::wstring BrowserDbResultText(DWORD code);

// What a clean of one database removes, counted before it runs.
struct SBrowserDbSummary {
  EBrowserDbKind kind = EBrowserDbKind::cookies;
  unsigned __int64 cookies = 0;      // cookies that go
  unsigned __int64 sites = 0;        // sites whose cookies go
  unsigned __int64 keptSites = 0;    // sites kept by the keep list
  unsigned __int64 keptCookies = 0;  // their cookies
  unsigned __int64 visits = 0;       // visits that go
  unsigned __int64 pages = 0;        // pages (URLs) that go
  unsigned __int64 keptPages = 0;    // bookmarked pages kept, their visits forgotten
  unsigned __int64 rows = 0;         // every row deleted or reset
  unsigned __int64 bytesNow = 0;     // the database with its -wal and -journal
  unsigned __int64 freeable = 0;     // what the clean is expected to free

  // "1,234 cookies of 87 sites; 12 sites kept", "9,876 visits of 2,345
  // pages; 120 bookmarked pages kept".
  BROOM_API std::wstring Describe() const;
};
