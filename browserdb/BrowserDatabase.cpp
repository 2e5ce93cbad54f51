#include "browserdb/BrowserDatabase.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <unordered_set>
#include <utility>

#include "browserdb/ChromiumBookmarks.h"
#include "browserdb/DbFiles.h"
#include "browserdb/DbLayout.h"
#include "browserdb/SqliteDb.h"
#include "core/Handles.h"

using namespace broom::browserdb;

namespace {

// The site a cookie host belongs to, as lists show it: lower case, no leading dot.
std::string SiteOf(const std::string& host) {
  size_t first = host.find_first_not_of('.');
  std::string site = first == std::string::npos ? std::string() : host.substr(first);
  for (char& c : site)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return site;
}

std::wstring FolderOf(const std::wstring& path) {
  size_t slash = path.find_last_of(L"\\/");
  return slash == std::wstring::npos ? std::wstring() : path.substr(0, slash);
}

void KeptFunction(sqlite3_context* context, int, sqlite3_value** values) {
  auto* keep = static_cast<const CCookieKeepList*>(sqlite3_user_data(context));
  const unsigned char* text = sqlite3_value_text(values[0]);
  size_t length = text ? static_cast<size_t>(sqlite3_value_bytes(values[0])) : 0;
  sqlite3_result_int(context, keep->KeepsUtf8(text ? reinterpret_cast<const char*>(text) : "", length) ? 1 : 0);
}

void BookmarkedFunction(sqlite3_context* context, int, sqlite3_value** values) {
  auto* urls = static_cast<const std::unordered_set<std::string>*>(sqlite3_user_data(context));
  const unsigned char* text = sqlite3_value_text(values[0]);
  bool found = text && urls->count(std::string(reinterpret_cast<const char*>(text),
                                               static_cast<size_t>(sqlite3_value_bytes(values[0]))));
  sqlite3_result_int(context, found ? 1 : 0);
}

// What the statements of a plan consult: the keep list and the bookmarked URLs.
struct SInputs {
  const CCookieKeepList* keep = nullptr;
  std::unordered_set<std::string> bookmarked;
};

// 0, or the code that stops any work on the database: an unusable keep
// list, bookmarks that cannot be read.
DWORD GatherInputs(const std::wstring& database, EBrowserFamily family, EBrowserDbKind kind,
                   const CCookieKeepList& keep, SInputs& inputs) {
  inputs.keep = &keep;
  if (kind == EBrowserDbKind::cookies && !keep.IsUsable()) return kBrowserDbKeepListUnusable;
  if (kind == EBrowserDbKind::history && family == EBrowserFamily::chromium) {
    std::wstring why;
    if (!ReadBookmarkedUrls(FolderOf(database), inputs.bookmarked, why)) return kBrowserDbBookmarksUnreadable;
  }
  return 0;
}

int RegisterFunctions(CSqliteDb& db, SInputs& inputs) {
  const int flags = SQLITE_UTF8 | SQLITE_DETERMINISTIC;
  int rc = sqlite3_create_function_v2(db.get(), kKeptFunction, 1, flags, const_cast<CCookieKeepList*>(inputs.keep),
                                      KeptFunction, nullptr, nullptr, nullptr);
  if (rc != SQLITE_OK) return rc;
  return sqlite3_create_function_v2(db.get(), kBookmarkedFunction, 1, flags, &inputs.bookmarked, BookmarkedFunction,
                                    nullptr, nullptr, nullptr);
}

// Reads the database's header through a handle that shares as SQLite does:
// 0, a sharing violation when another program holds it, or another error.
// wal tells whether the file is in WAL mode.
DWORD CheckHeader(const std::wstring& database, bool forWriting, bool& wal) {
  wal = false;
  DWORD access = GENERIC_READ | (forWriting ? GENERIC_WRITE : 0);
  broom::unique_hfile file(CreateFileW(database.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                       OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) return BrowserDbFileResult(GetLastError());
  unsigned char header[100] = {};
  DWORD read = 0;
  if (!ReadFile(file.get(), header, sizeof header, &read, nullptr)) return BrowserDbFileResult(GetLastError());
  if (read < sizeof header || memcmp(header, "SQLite format 3", 16) != 0) return BrowserDbSqliteResult(SQLITE_NOTADB);
  wal = header[18] == 2 && header[19] == 2;
  return 0;
}

// Opens the database for reading without changing any of its files.
DWORD OpenForReading(const std::wstring& database, CSqliteDb& db) {
  bool wal = false;
  if (DWORD code = CheckHeader(database, false, wal)) return code;
  // a WAL database without a -wal would get one (and a -shm) from a reader
  bool immutable = wal && FileBytes(database + L"-wal") == 0;
  return BrowserDbSqliteResult(db.Open(database, true, immutable));
}

// Every site of a cookie database with its cookies.
int CountSites(CSqliteDb& db, const SPlan& plan, std::map<std::string, uint64_t>& sites) {
  CStatement hosts;
  int rc = hosts.Prepare(db.get(), plan.cookieHosts.c_str());
  if (rc != SQLITE_OK) return rc;
  while ((rc = hosts.Step()) == SQLITE_ROW) sites[SiteOf(hosts.Text(0))] += static_cast<uint64_t>(hosts.Int(1));
  return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

void AddRole(SBrowserDbSummary& summary, ERole role, uint64_t rows) {
  summary.rows += rows;
  if (role == ERole::cookies) summary.cookies += rows;
  if (role == ERole::visits) summary.visits += rows;
  if (role == ERole::pages) summary.pages += rows;
}

// Fills the summary's site counts of a cookie database.
int SummariseSites(CSqliteDb& db, const SPlan& plan, const CCookieKeepList& keep, SBrowserDbSummary& summary) {
  std::map<std::string, uint64_t> sites;
  int rc = CountSites(db, plan, sites);
  if (rc != SQLITE_OK) return rc;
  for (const auto& site : sites) {
    if (keep.KeepsUtf8(site.first.data(), site.first.size())) {
      ++summary.keptSites;
      summary.keptCookies += site.second;
    } else {
      ++summary.sites;
    }
  }
  return SQLITE_OK;
}

}  // namespace

DWORD CBrowserDatabase::Inspect(const wchar_t* database, EBrowserFamily family, EBrowserDbKind kind,
                                const CCookieKeepList& keep, SBrowserDbSummary& summary) {
  summary = SBrowserDbSummary();
  summary.kind = kind;
  const std::wstring path(database ? database : L"");
  try {
    SInputs inputs;
    if (DWORD code = GatherInputs(path, family, kind, keep, inputs)) return code;
    CSqliteDb db;
    if (DWORD code = OpenForReading(path, db)) return code;
    int rc = RegisterFunctions(db, inputs);
    // one snapshot for every count
    if (rc == SQLITE_OK) rc = db.Exec("BEGIN");
    SPlan plan;
    bool known = false;
    std::string why;
    if (rc == SQLITE_OK) rc = MakePlan(db, family, kind, plan, known, why);
    if (rc != SQLITE_OK) return BrowserDbSqliteResult(rc);
    if (!known) return kBrowserDbUnknownLayout;
    std::vector<int64_t> changes;
    for (const SAction& action : plan.actions) {
      int64_t rows = 0;
      rc = db.QueryInt(action.count.c_str(), rows);
      if (rc != SQLITE_OK) return BrowserDbSqliteResult(rc);
      changes.push_back(rows);
      AddRole(summary, action.role, static_cast<uint64_t>(rows));
    }
    if (kind == EBrowserDbKind::cookies) {
      rc = SummariseSites(db, plan, keep, summary);
    } else {
      int64_t kept = 0;
      rc = db.QueryInt(plan.keptPages.c_str(), kept);
      summary.keptPages = static_cast<uint64_t>(kept);
    }
    if (rc != SQLITE_OK) return BrowserDbSqliteResult(rc);
    summary.bytesNow = DatabaseBytes(path);
    if (summary.rows) {
      uint64_t after = 0;
      rc = EstimateBytesAfter(db, plan, changes, after);
      if (rc != SQLITE_OK) return BrowserDbSqliteResult(rc);
      summary.freeable = summary.bytesNow > after ? summary.bytesNow - after : 0;
    }
    db.Exec("COMMIT");
    return 0;
  } catch (...) {
    return BrowserDbSqliteResult(SQLITE_NOMEM);
  }
}

DWORD CBrowserDatabase::ListCookieSites(const wchar_t* database, EBrowserFamily family, const CCookieKeepList& keep,
                                        std::vector<SCookieSite>& sites) {
  sites.clear();
  const std::wstring path(database ? database : L"");
  try {
    CSqliteDb db;
    if (DWORD code = OpenForReading(path, db)) return code;
    SPlan plan;
    bool known = false;
    std::string why;
    int rc = MakePlan(db, family, EBrowserDbKind::cookies, plan, known, why);
    if (rc != SQLITE_OK) return BrowserDbSqliteResult(rc);
    if (!known) return kBrowserDbUnknownLayout;
    std::map<std::string, uint64_t> counted;
    rc = CountSites(db, plan, counted);
    if (rc != SQLITE_OK) return BrowserDbSqliteResult(rc);
    for (const auto& site : counted) {
      SCookieSite entry;
      entry.site = WideFromUtf8(site.first.data(), site.first.size());
      entry.cookies = site.second;
      entry.kept = keep.KeepsUtf8(site.first.data(), site.first.size());
      if (entry.kept && keep.IsUsable()) entry.keptBy = keep.KeptBy(entry.site.c_str());
      sites.push_back(entry);
    }
    return 0;
  } catch (...) {
    sites.clear();
    return BrowserDbSqliteResult(SQLITE_NOMEM);
  }
}

namespace {

// A rollback journal left behind once the database is closed: empty, or with
// a zeroed header, so no program would replay it. It still holds the pages the
// clean removed, so it goes; a journal a program is writing is open without
// delete sharing and stays.
void RemoveSpentJournal(const std::wstring& journal) {
  broom::unique_hfile file(CreateFileW(journal.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                       OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) return;
  unsigned char header[28] = {};
  DWORD read = 0;
  if (!ReadFile(file.get(), header, sizeof header, &read, nullptr)) return;
  bool spent = std::all_of(header, header + read, [](unsigned char b) { return b == 0; });
  file.reset();
  if (spent) DeleteFileW(journal.c_str());
}

}  // namespace

SBrowserDbCleanResult CBrowserDatabase::Clean(const wchar_t* database, EBrowserFamily family, EBrowserDbKind kind,
                                              const CCookieKeepList& keep, const wchar_t* copyTo) {
  SBrowserDbCleanResult result;
  result.removed.kind = kind;
  const std::wstring path(database ? database : L"");
  result.bytesBefore = DatabaseBytes(path);
  auto removeCopies = [&result] {
    for (const std::wstring& copy : result.copies) DeleteFileW(copy.c_str());
    result.copies.clear();
  };
  try {
    SInputs inputs;
    if ((result.code = GatherInputs(path, family, kind, keep, inputs))) return result;
    bool wal = false;
    if ((result.code = CheckHeader(path, true, wal))) return result;
    CSqliteDb db;
    bool closed = false;
    auto close = [&] {
      if (std::exchange(closed, true)) return;
      db.Close();
      RemoveSpentJournal(path + L"-journal");
    };
    auto closeOnExit = broom::scope_exit(close);
    int rc = db.Open(path, false, false);
    if (rc == SQLITE_OK) rc = RegisterFunctions(db, inputs);
    // the lock is taken at the first read and held until the close, so no
    // browser starts on the database half-way through
    if (rc == SQLITE_OK) rc = db.Exec("PRAGMA locking_mode=EXCLUSIVE");
    if (rc == SQLITE_OK) rc = db.Exec("BEGIN EXCLUSIVE");
    std::string check;
    if (rc == SQLITE_OK) rc = db.QueryText("PRAGMA quick_check", check);
    if (rc != SQLITE_OK) {
      result.code = BrowserDbSqliteResult(rc);
      return result;
    }
    if (check != "ok") {
      result.code = kBrowserDbDamaged;
      return result;
    }
    SPlan plan;
    bool known = false;
    std::string why;
    rc = MakePlan(db, family, kind, plan, known, why);
    if (rc == SQLITE_OK && known && kind == EBrowserDbKind::cookies) rc = SummariseSites(db, plan, keep, result.removed);
    if (rc == SQLITE_OK && known && kind == EBrowserDbKind::history) {
      int64_t kept = 0;
      rc = db.QueryInt(plan.keptPages.c_str(), kept);
      result.removed.keptPages = static_cast<uint64_t>(kept);
    }
    if (rc != SQLITE_OK || !known) {
      result.code = rc != SQLITE_OK ? BrowserDbSqliteResult(rc) : kBrowserDbUnknownLayout;
      return result;
    }
    if (copyTo) {
      for (const wchar_t* suffix : kDatabaseSuffixes) {
        if (!FileExists(path + suffix)) continue;
        const std::wstring copy = std::wstring(copyTo) + suffix;
        DWORD error = CopyVerified(path + suffix, copy);
        if (error != ERROR_SUCCESS) {
          removeCopies();
          result.code = BrowserDbFileResult(error);
          return result;
        }
        result.copies.push_back(copy);
      }
    }
    for (const SAction& action : plan.actions) {
      rc = db.Exec(action.sql.c_str());
      if (rc != SQLITE_OK) break;
      AddRole(result.removed, action.role, static_cast<uint64_t>(db.Changes()));
    }
    if (rc == SQLITE_OK) rc = db.Exec("COMMIT");
    if (rc != SQLITE_OK) {
      db.Exec("ROLLBACK");
      removeCopies();
      result.removed = SBrowserDbSummary();
      result.removed.kind = kind;
      result.code = BrowserDbSqliteResult(rc);
      return result;
    }
    if (result.removed.rows == 0) {
      removeCopies();
      close();
      result.bytesAfter = DatabaseBytes(path);
      return result;
    }
    result.changed = true;
    // from here on the rows are gone: what follows only tidies up and checks
    rc = db.Exec("VACUUM");
    std::string mode;
    if (db.QueryText("PRAGMA journal_mode", mode) == SQLITE_OK && mode == "wal") {
      int checkpoint = db.Exec("PRAGMA wal_checkpoint(TRUNCATE)");
      if (rc == SQLITE_OK) rc = checkpoint;
    }
    std::string integrity;
    int checked = db.QueryText("PRAGMA integrity_check", integrity);
    if (rc != SQLITE_OK)
      result.code = BrowserDbSqliteResult(rc);
    else if (checked != SQLITE_OK || integrity != "ok")
      result.code = kBrowserDbIntegrityFailed;
    close();
    result.bytesAfter = DatabaseBytes(path);
    result.checksum = ChecksumFiles(path);
    return result;
  } catch (...) {
    if (!result.changed) removeCopies();
    if (!result.code) result.code = BrowserDbSqliteResult(SQLITE_NOMEM);
    return result;
  }
}

std::vector<std::wstring> CBrowserDatabase::DatabaseFiles(const wchar_t* database) {
  std::vector<std::wstring> files;
  const std::wstring path(database ? database : L"");
  for (const wchar_t* suffix : kDatabaseSuffixes)
    if (FileExists(path + suffix)) files.push_back(path + suffix);
  return files;
}

std::wstring CBrowserDatabase::Checksum(const wchar_t* database) {
  try {
    return ChecksumFiles(database ? database : L"");
  } catch (...) {
    return std::wstring();
  }
}

DWORD CBrowserDatabase::Restore(const wchar_t* copy, const wchar_t* database, const std::wstring& expected) {
  try {
    const std::wstring stored(copy ? copy : L"");
    const std::wstring path(database ? database : L"");
    if (expected.empty() || ChecksumFiles(path) != expected) return kBrowserDbChangedSinceClean;
    if (!FileExists(stored)) return BrowserDbFileResult(ERROR_FILE_NOT_FOUND);
    {
      // nobody may hold the database while it is replaced
      broom::unique_hfile probe(CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                            FILE_ATTRIBUTE_NORMAL, nullptr));
      if (!probe) return BrowserDbFileResult(GetLastError());
    }
    // the files of now that would not fit the copy: a -shm indexes another -wal
    for (const wchar_t* suffix : {L"-shm", L"-wal", L"-journal"}) {
      const std::wstring file = path + suffix;
      if (FileExists(file) && !DeleteFileW(file.c_str())) return BrowserDbFileResult(GetLastError());
    }
    const DWORD flags = MOVEFILE_REPLACE_EXISTING | MOVEFILE_COPY_ALLOWED | MOVEFILE_WRITE_THROUGH;
    if (!MoveFileExW(stored.c_str(), path.c_str(), flags)) return BrowserDbFileResult(GetLastError());
    // the database first: a -wal beside a database it does not belong to would be replayed into it
    for (const wchar_t* suffix : {L"-wal", L"-journal"}) {
      const std::wstring file = stored + suffix;
      if (FileExists(file) && !MoveFileExW(file.c_str(), (path + suffix).c_str(), flags))
        return BrowserDbFileResult(GetLastError());
    }
    return 0;
  } catch (...) {
    return BrowserDbFileResult(ERROR_NOT_ENOUGH_MEMORY);
  }
}
