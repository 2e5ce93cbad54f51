#pragma once
// One browser database (a Cookies, History, cookies.sqlite or places.sqlite
// file): what a clean of it would remove, the clean itself, and what a host
// needs to undo it.
//
// Cookies: every cookie whose site the keep list does not keep goes
// (Chromium: table cookies, column host_key; Firefox: moz_cookies, host).
// History, Chromium: the urls rows whose URL no Bookmarks (or
// AccountBookmarks) file of the profile names go, the rest forget their
// visit counts and times, and every row of the visit, search-term, download,
// segment and annotation tables goes. History, Firefox: the moz_places rows
// no bookmark (or keyword) references go, the rest forget their visit counts
// and dates, and moz_historyvisits, moz_inputhistory, the page metadata and
// the annotations and origins left without a page go.
//
// Every statement first checks that its table and columns exist; a database
// whose layout is not known (a needed table or column missing) is left
// untouched (kBrowserDbUnknownLayout).
#include <windows.h>

#include <string>
#include <vector>

#include "browserdb/BrowserDbTypes.h"
#include "browserdb/CookieKeepList.h"
#include "core/Export.h"

// The cookies of one site in one database.
struct SCookieSite {
  std::wstring site;  // the cookie host without its leading dot, lower case
  unsigned __int64 cookies = 0;
  bool kept = false;
  std::wstring keptBy;  // the listed site that keeps it
};

// What a clean did.
struct SBrowserDbCleanResult {
  DWORD code = 0;                       // 0 or a kBrowserDb… code
  bool changed = false;                 // rows were deleted (the copy, if one was made, is needed to undo)
  SBrowserDbSummary removed;            // what went, counted as it went
  unsigned __int64 bytesBefore = 0;     // the database with its -wal and -journal
  unsigned __int64 bytesAfter = 0;
  std::wstring checksum;                // of the files after the clean (see Checksum), once changed
  std::vector<std::wstring> copies;     // the copies made before the change, when asked for
};

class BROOM_API CBrowserDatabase {
 public:
  // Counts what a clean would remove without changing anything (the file is
  // opened for reading only, and a database in WAL mode without a -wal file
  // as immutable, so no file is made or changed). Returns 0 or a code; a
  // database with nothing to remove is 0 with summary.rows 0.
  static DWORD Inspect(const wchar_t* database, EBrowserFamily family, EBrowserDbKind kind,
                       const CCookieKeepList& keep, SBrowserDbSummary& summary);

  // Every site with cookies in a cookie database, with its count and
  // whether the keep list keeps it, by site name.
  static DWORD ListCookieSites(const wchar_t* database, EBrowserFamily family, const CCookieKeepList& keep,
                               std::vector<SCookieSite>& sites);

  // Cleans the database: opened only when no other program holds it (a
  // locked or busy database is left byte-identical, kBrowserDbBusy or
  // kBrowserDbInUse), locked for the whole clean, checked (SQLite's quick
  // check), then one transaction deletes the rows, VACUUM compacts it, a WAL
  // checkpoint empties its -wal, and PRAGMA integrity_check must answer ok.
  // With copyTo, the database's files (DatabaseFiles) are first copied to
  // copyTo, copyTo-wal and copyTo-journal while the lock is held, read back
  // and compared; none may exist yet, and a failed copy changes nothing.
  // Copies of a clean that changed nothing are removed again.
  static SBrowserDbCleanResult Clean(const wchar_t* database, EBrowserFamily family, EBrowserDbKind kind,
                                     const CCookieKeepList& keep, const wchar_t* copyTo = nullptr);

  // The files that make up the database now: the database, and its -wal and
  // -journal when they exist. These are what a host copies to undo a clean.
  static std::vector<std::wstring> DatabaseFiles(const wchar_t* database);
  // "sha256:…" over the database, its -wal and its -journal (their presence,
  // sizes and bytes); empty when the database cannot be read.
  static std::wstring Checksum(const wchar_t* database);

  // Puts copies made by Clean back: only while Checksum(database) is still
  // expected (else kBrowserDbChangedSinceClean and nothing changes) and no
  // program holds the database. The copy (copy, copy-wal, copy-journal) is
  // moved over the database; its -wal, -journal and -shm of now go first.
  static DWORD Restore(const wchar_t* copy, const wchar_t* database, const std::wstring& expected);
};
