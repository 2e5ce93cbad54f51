#include <gtest/gtest.h>

#include <pugixml.hpp>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "BrowserSchemas.h"
#include "browserdb/BrowserDbScan.h"
#include "browserdb/BrowserDbScanFactory.h"
#include "browserdb/CleanableBrowserDb.h"
#include "common/ScanNotifiers.h"
#include "common/TestFiles.h"
#include "whitelist/WhiteListTree.h"

using namespace browserschema;
using broomtest::TempDir;
using Strings = std::vector<std::string>;

namespace {

const char kBookmarks[] = R"({"checksum":"0","version":1,"roots":{
  "bookmark_bar":{"type":"folder","name":"Bar","children":[
    {"type":"folder","name":"Work","children":[{"type":"url","name":"Kept","url":"https://kept.example/"}]}]},
  "other":{"type":"folder","name":"Other","children":[]},
  "synced":{"type":"folder","name":"Mobile","children":[]}}})";
const char kAccountBookmarks[] =
    R"({"version":1,"roots":{"other":{"type":"folder","children":[{"type":"url","url":"https://account.example/"}]}}})";

// Every cookie host a test database holds: kept ones (example.com keeps the
// first three), a look-alike, a longer name ending elsewhere, and others.
const Strings kHosts = {"example.com", ".example.com", "mail.example.com", "badexample.com",
                        ".example.com.evil.net", "other.org", ".other.org"};

void MakeCookies(const std::wstring& path, const char* schema, const char* row) {
  broomtest::MakeDirs(path.substr(0, path.rfind(L'\\')));
  auto db = Open(path);
  Exec(db.get(), schema);
  std::vector<Strings> rows;
  for (const std::string& host : kHosts) rows.push_back({host, "id"});
  Insert(db.get(), row, rows);
}

Strings Query(const std::wstring& path, const std::string& sql) { return Rows(Open(path).get(), sql); }

// The files of a folder: name, size and a hash of the bytes (short in a failure message).
std::map<std::wstring, std::string> Snapshot(const std::wstring& folder) {
  std::map<std::wstring, std::string> files;
  WIN32_FIND_DATAW data;
  broom::unique_hfind find(FindFirstFileW((folder + L"\\*").c_str(), &data));
  if (!find) return files;
  do
    if (!(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) {
      std::string bytes = broomtest::ReadFile(folder + L"\\" + data.cFileName);
      files[data.cFileName] = std::to_string(bytes.size()) + " bytes, hash " + std::to_string(std::hash<std::string>()(bytes));
    }
  while (FindNextFileW(find.get(), &data));
  return files;
}

class BrowserDbTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(keep.Parse("example.com\n"));
    const std::wstring chrome = dir / L"Chrome\\User Data";
    broomtest::WriteFile(chrome + L"\\Local State", "{}");
    broomtest::WriteFile(chrome + L"\\Default\\Preferences", "{}");
    MakeCookies(chrome + L"\\Default\\Network\\Cookies", kChromiumCookies, kChromiumCookieRow);
    MakeCookies(chrome + L"\\Profile 1\\Cookies", kChromiumCookiesV10, kChromiumCookieRowV10);
    broomtest::MakeDirs(chrome + L"\\Crashpad\\reports");  // not a profile
    MakeCookies(dir / L"Opera\\Opera Stable\\Network\\Cookies", kChromiumCookies, kChromiumCookieRow);
    MakeCookies(dir / L"Opera\\Opera Stable\\_side_profiles\\4a1\\Network\\Cookies", kChromiumCookies,
                kChromiumCookieRow);
    MakeCookies(dir / L"Firefox\\Profiles\\ab12.default-release\\cookies.sqlite", kFirefoxCookies, kFirefoxCookieRow);
  }

  // Scans a definition's clean element, the items by database path.
  std::map<std::wstring, CRefPtr<CCleanableBrowserDb>> Scan(const wchar_t* kind, const wchar_t* browser,
                                                            const std::wstring& pattern, CCookieKeepList& list,
                                                            CRefPtr<IScanOperation>* kept = nullptr) {
    pugi::xml_document doc;
    pugi::xml_node clean = doc.append_child(L"clean");
    clean.append_attribute(L"kind") = kind;
    clean.append_attribute(L"browser") = browser;
    clean.text().set(pattern.c_str());
    CRefPtr<IScanOperation> op = CBrowserDbScanFactory::Create(list)->CreateOperation(kind, xml::NodePtr(clean));
    EXPECT_TRUE(op);
    broomtest::StackCollector collector;
    broomtest::NullProgress progress;
    broomtest::NullStatus status;
    if (op) op->PerformScan(&collector, &progress, &status, &whiteList);
    std::map<std::wstring, CRefPtr<CCleanableBrowserDb>> items;
    for (auto& item : collector.items) {
      auto* db = dynamic_cast<CCleanableBrowserDb*>(item.Get());
      EXPECT_TRUE(db);
      if (db) items[db->GetPath()] = db;
    }
    if (kept) *kept = op;
    return items;
  }

  TempDir dir;
  CCookieKeepList keep;
  CWhiteListTree whiteList;
};

}  // namespace

TEST_F(BrowserDbTest, CookiesOfKeptSitesAndTheirSubdomainsStayRowByRow) {
  struct { const wchar_t* browser; std::wstring pattern; std::vector<std::wstring> databases; const char* query; } cases[] = {
      {L"chromium", dir / L"Chrome\\User Data",
       {dir / L"Chrome\\User Data\\Default\\Network\\Cookies", dir / L"Chrome\\User Data\\Profile 1\\Cookies"},
       "SELECT host_key FROM cookies ORDER BY host_key"},
      {L"chromium", dir / L"Op*\\Opera St?ble",
       {dir / L"Opera\\Opera Stable\\Network\\Cookies", dir / L"Opera\\Opera Stable\\_side_profiles\\4a1\\Network\\Cookies"},
       "SELECT host_key FROM cookies ORDER BY host_key"},
      {L"firefox", dir / L"Firefox\\Profiles\\*",
       {dir / L"Firefox\\Profiles\\ab12.default-release\\cookies.sqlite"},
       "SELECT host FROM moz_cookies ORDER BY host"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(broomtest::Narrow(c.pattern));
    const std::wstring folder = c.databases[0].substr(0, c.databases[0].rfind(L'\\'));
    auto before = Snapshot(folder);
    auto items = Scan(L"cookies", c.browser, c.pattern, keep);
    ASSERT_EQ(c.databases.size(), items.size());
    EXPECT_EQ(before, Snapshot(folder));  // the scan changed and made no file
    for (const std::wstring& database : c.databases) {
      ASSERT_TRUE(items.count(database));
      CCleanableBrowserDb& item = *items[database];
      EXPECT_EQ(L"4 cookies of 3 sites; 2 sites kept", item.GetDescription());
      std::vector<SCookieSite> sites;
      ASSERT_EQ(0u, CBrowserDatabase::ListCookieSites(database.c_str(), item.GetFamily(), keep, sites));
      std::vector<std::wstring> listed;
      for (const SCookieSite& s : sites)
        listed.push_back(s.site + L" " + std::to_wstring(s.cookies) + (s.kept ? L" kept by " + s.keptBy : L""));
      EXPECT_EQ((std::vector<std::wstring>{L"badexample.com 1", L"example.com 2 kept by example.com",
                                           L"example.com.evil.net 1", L"mail.example.com 1 kept by example.com",
                                           L"other.org 2"}),
                listed);
      ASSERT_EQ(0u, item.Clean(nullptr, nullptr)) << BrowserDbResultText(item.GetLastClean().code).c_str();
      EXPECT_EQ(4u, item.GetLastClean().removed.cookies);
      EXPECT_EQ((Strings{".example.com", "example.com", "mail.example.com"}), Query(database, c.query));
      EXPECT_EQ((Strings{"ok"}), Query(database, "PRAGMA integrity_check"));
      EXPECT_FALSE(broomtest::Exists(database + L"-journal") || broomtest::Exists(database + L"-wal"));
      EXPECT_EQ(CBrowserDatabase::Checksum(database.c_str()), item.GetChecksumAfterClean());
    }
    EXPECT_TRUE(Scan(L"cookies", c.browser, c.pattern, keep).empty());  // nothing left to remove
  }
}

TEST_F(BrowserDbTest, ChromiumHistoryKeepsOnlyBookmarkedPagesWithoutTheirVisits) {
  const std::wstring profile = dir / L"Chrome\\User Data\\Default";
  const std::wstring history = profile + L"\\History";
  {
    auto db = Open(history);
    Exec(db.get(), kChromiumHistory);
    Exec(db.get(),
         "INSERT INTO urls(id,url,title,visit_count,typed_count,last_visit_time) VALUES"
         "(1,'https://kept.example/','K',3,1,13350000000000000),(2,'https://account.example/','A',1,0,1),"
         "(3,'https://gone.example/a','G',2,2,2),(4,'https://gone.example/b','H',1,0,3);"
         "INSERT INTO visits(id,url,visit_time) VALUES(1,1,1),(2,1,2),(3,2,3),(4,3,4),(5,4,5);"
         "INSERT INTO visit_source VALUES(4,1);"
         "INSERT INTO keyword_search_terms VALUES(2,3,'Secret','secret');"
         "INSERT INTO downloads VALUES(1,'g','C:\\x','C:\\x',1,1,1,1,0,0,x'',1,0,0,0,'','','','','','GET','','','','','',"
         "'text/plain','text/plain');"
         "INSERT INTO downloads_url_chains VALUES(1,0,'https://gone.example/file');"
         "INSERT INTO downloads_slices VALUES(1,0,1,1);"
         "INSERT INTO segments VALUES(1,'gone.example',3);"
         "INSERT INTO segment_usage VALUES(1,1,1,2);"
         "INSERT INTO content_annotations(visit_id,annotation_flags,search_terms,has_url_keyed_image) "
         "VALUES(4,0,'secret',0);");
  }
  broomtest::WriteFile(profile + L"\\Bookmarks", kBookmarks);
  broomtest::WriteFile(profile + L"\\AccountBookmarks", kAccountBookmarks);
  auto items = Scan(L"history", L"chromium", dir / L"Chrome\\User Data", keep);
  ASSERT_EQ(1u, items.size());
  CCleanableBrowserDb& item = *items[history];
  EXPECT_EQ(L"5 visits of 2 pages; 2 bookmarked pages kept", item.GetDescription());
  ASSERT_EQ(0u, item.Clean(nullptr, nullptr)) << BrowserDbResultText(item.GetLastClean().code).c_str();
  EXPECT_EQ((Strings{"1|https://kept.example/|K|0|0|0", "2|https://account.example/|A|0|0|0"}),
            Query(history, "SELECT id,url,title,visit_count,typed_count,last_visit_time FROM urls ORDER BY id"));
  for (const char* table : {"visits", "visit_source", "keyword_search_terms", "downloads", "downloads_url_chains",
                            "downloads_slices", "segments", "segment_usage", "content_annotations"})
    EXPECT_EQ((Strings{"0"}), Query(history, std::string("SELECT count(*) FROM ") + table)) << table;
  EXPECT_EQ((Strings{"2"}), Query(history, "SELECT count(*) FROM meta"));
  EXPECT_EQ((Strings{"ok"}), Query(history, "PRAGMA integrity_check"));
}

TEST_F(BrowserDbTest, FirefoxHistoryKeepsPagesABookmarkOrKeywordReferences) {
  const std::wstring profile = dir / L"Firefox\\Profiles\\ab12.default-release";
  const std::wstring places = profile + L"\\places.sqlite";
  {
    auto db = Open(places);
    Exec(db.get(), kFirefoxPlaces);
    Exec(db.get(),
         "INSERT INTO moz_origins(id,prefix,host,frecency) VALUES(1,'https://','kept.example',10),"
         "(2,'https://','gone.example',5),(3,'https://','word.example',1);"
         "INSERT INTO moz_places(id,url,title,visit_count,typed,last_visit_date,guid,origin_id,frecency) VALUES"
         "(1,'https://kept.example/','K',4,1,1700000000000000,'g1',1,100),"
         "(2,'https://word.example/?q=%s','W',1,0,1700000000000001,'g2',3,50),"
         "(3,'https://gone.example/a','G',2,0,1700000000000002,'g3',2,20),"
         "(4,'https://gone.example/b','H',1,0,1700000000000003,'g4',2,10);"
         "INSERT INTO moz_bookmarks(id,type,fk,parent,position,title,guid) VALUES(10,1,1,3,0,'Kept','bm1');"
         "INSERT INTO moz_keywords(keyword,place_id) VALUES('w',2);"
         "INSERT INTO moz_historyvisits(id,place_id,visit_date,visit_type) VALUES(1,1,1,1),(2,1,2,1),(3,2,3,2),"
         "(4,3,4,1),(5,3,5,1),(6,4,6,1);"
         "INSERT INTO moz_inputhistory VALUES(1,'ke',1),(3,'go',2);"
         "INSERT INTO moz_anno_attributes VALUES(1,'downloads/destinationFileURI');"
         "INSERT INTO moz_annos(id,place_id,anno_attribute_id,content) VALUES(1,1,1,'file:///kept'),"
         "(2,3,1,'file:///gone');"
         "INSERT INTO moz_places_metadata(id,place_id,total_view_time) VALUES(1,1,50),(2,3,70);");
  }
  auto items = Scan(L"history", L"firefox", dir / L"Firefox\\Profiles", keep);
  ASSERT_EQ(1u, items.size());
  CCleanableBrowserDb& item = *items[places];
  EXPECT_EQ(L"6 visits of 2 pages; 2 bookmarked pages kept", item.GetDescription());
  ASSERT_EQ(0u, item.Clean(nullptr, nullptr)) << BrowserDbResultText(item.GetLastClean().code).c_str();
  EXPECT_EQ((Strings{"1|https://kept.example/|0|0|NULL|1", "2|https://word.example/?q=%s|0|0|NULL|3"}),
            Query(places, "SELECT id,url,visit_count,typed,last_visit_date,origin_id FROM moz_places ORDER BY id"));
  EXPECT_EQ((Strings{"1", "3"}), Query(places, "SELECT id FROM moz_origins ORDER BY id"));
  EXPECT_EQ((Strings{"1|1"}), Query(places, "SELECT id,place_id FROM moz_annos"));
  for (const char* table : {"moz_historyvisits", "moz_inputhistory", "moz_places_metadata"})
    EXPECT_EQ((Strings{"0"}), Query(places, std::string("SELECT count(*) FROM ") + table)) << table;
  EXPECT_EQ((Strings{"4"}), Query(places, "SELECT count(*) FROM moz_bookmarks"));
  EXPECT_EQ((Strings{"ok"}), Query(places, "PRAGMA integrity_check"));
  EXPECT_EQ((Strings{"wal"}), Query(places, "PRAGMA journal_mode"));
}

TEST_F(BrowserDbTest, WhatCannotBeCleanedSafelyIsLeftByteIdentical) {
  const std::wstring cookies = dir / L"Chrome\\User Data\\Default\\Network\\Cookies";
  const std::wstring firefox = dir / L"Firefox\\Profiles\\ab12.default-release\\cookies.sqlite";
  const std::wstring history = dir / L"Chrome\\User Data\\Default\\History";
  CCookieKeepList damaged;
  ASSERT_FALSE(damaged.Parse("example.com\nhttps://bank.example/login\n"));
  {
    auto db = Open(history);
    Exec(db.get(), kChromiumHistory);
    Exec(db.get(), "INSERT INTO urls(url,last_visit_time) VALUES('https://a.example/',1)");
  }
  struct Case {
    const char* name;
    std::wstring database;
    EBrowserFamily family;
    EBrowserDbKind kind;
    std::function<std::function<void()>()> arrange;  // returns what ends the arrangement
    DWORD code;
    const CCookieKeepList* list;
  };
  auto nothing = [] { return std::function<void()>([] {}); };
  auto lockWith = [](const std::wstring& path, const char* sql) {
    return [path, sql] {
      auto holder = std::make_shared<broom::unique_sqlite>(Open(path));
      Exec(holder->get(), sql);
      return std::function<void()>([holder] { holder->reset(); });
    };
  };
  Case cases[] = {
      {"damaged keep list", cookies, EBrowserFamily::chromium, EBrowserDbKind::cookies, nothing,
       kBrowserDbKeepListUnusable, &damaged},
      {"locked by its browser", cookies, EBrowserFamily::chromium, EBrowserDbKind::cookies,
       lockWith(cookies, "PRAGMA locking_mode=EXCLUSIVE; BEGIN EXCLUSIVE; SELECT count(*) FROM cookies;"),
       kBrowserDbBusy, &keep},
      {"read by its browser", cookies, EBrowserFamily::chromium, EBrowserDbKind::cookies,
       lockWith(cookies, "BEGIN; SELECT count(*) FROM cookies;"), kBrowserDbBusy, &keep},
      {"WAL database in use", firefox, EBrowserFamily::firefox, EBrowserDbKind::cookies,
       lockWith(firefox, "BEGIN IMMEDIATE; SELECT count(*) FROM moz_cookies;"), kBrowserDbBusy, &keep},
      {"open without write sharing", cookies, EBrowserFamily::chromium, EBrowserDbKind::cookies,
       [&] {
         auto file = std::make_shared<broom::unique_hfile>(
             CreateFileW(cookies.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
         return std::function<void()>([file] { file->reset(); });
       },
       kBrowserDbInUse, &keep},
      {"unknown layout", cookies, EBrowserFamily::chromium, EBrowserDbKind::cookies,
       [&] {
         Exec(Open(cookies).get(), "ALTER TABLE cookies RENAME COLUMN host_key TO host");
         return std::function<void()>([] {});
       },
       kBrowserDbUnknownLayout, &keep},
      {"bookmarks unreadable", history, EBrowserFamily::chromium, EBrowserDbKind::history,
       [&] {
         broomtest::WriteFile(dir / L"Chrome\\User Data\\Default\\Bookmarks", "{\"roots\": {");
         return std::function<void()>([] {});
       },
       kBrowserDbBookmarksUnreadable, &keep},
      {"not a database", dir / L"Chrome\\User Data\\Profile 1\\History", EBrowserFamily::chromium,
       EBrowserDbKind::history,
       [&] {
         broomtest::WriteFile(dir / L"Chrome\\User Data\\Profile 1\\History", std::string(4096, 'x'));
         return std::function<void()>([] {});
       },
       kBrowserDbSqliteFailed | SQLITE_NOTADB, &keep},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::wstring folder = c.database.substr(0, c.database.rfind(L'\\'));
    std::function<void()> release = c.arrange();
    auto before = Snapshot(folder);
    SBrowserDbSummary summary;
    if (c.code != kBrowserDbBusy && c.code != kBrowserDbInUse) {  // a reader may look at a database in use
      EXPECT_EQ(c.code, CBrowserDatabase::Inspect(c.database.c_str(), c.family, c.kind, *c.list, summary));
    }
    SBrowserDbCleanResult result = CBrowserDatabase::Clean(c.database.c_str(), c.family, c.kind, *c.list);
    EXPECT_EQ(c.code, result.code) << BrowserDbResultText(result.code).c_str();
    EXPECT_FALSE(result.changed);
    EXPECT_FALSE(BrowserDbResultText(result.code).empty());
    EXPECT_EQ(before, Snapshot(folder));
    release();
  }
  // a cookie operation given an unusable list finds nothing
  EXPECT_THROW(Scan(L"cookies", L"chromium", dir / L"Chrome\\User Data", damaged), Exception);
}

TEST_F(BrowserDbTest, ProtectedDatabasesAndProfilesAreNeverReported) {
  whiteList.SafeGuardPath((dir / L"Chrome\\User Data\\Profile 1").c_str(), 0x1);
  whiteList.SafeGuardPath((dir / L"Opera\\Opera Stable\\Network\\Cookies").c_str(), 0x1);
  auto chrome = Scan(L"cookies", L"chromium", dir / L"Chrome\\User Data", keep);
  EXPECT_EQ(1u, chrome.size());
  EXPECT_EQ(1u, chrome.count(dir / L"Chrome\\User Data\\Default\\Network\\Cookies"));
  auto opera = Scan(L"cookies", L"chromium", dir / L"Opera\\Opera Stable", keep);
  EXPECT_EQ(1u, opera.size());
  EXPECT_EQ(1u, opera.count(dir / L"Opera\\Opera Stable\\_side_profiles\\4a1\\Network\\Cookies"));
}

TEST_F(BrowserDbTest, MovedDatabaseComesBackOnlyWhileItIsAsTheCleanLeftIt) {
  const std::wstring database = dir / L"Firefox\\Profiles\\ab12.default-release\\cookies.sqlite";
  {
    // a cookie still in the -wal, as a browser that ended abruptly leaves it
    auto db = Open(database);
    sqlite3_db_config(db.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    Insert(db.get(), kFirefoxCookieRow, {{"late.example", "id"}});
  }
  const std::string original = broomtest::ReadFile(database), originalWal = broomtest::ReadFile(database + L"-wal");
  ASSERT_FALSE(originalWal.empty());
  auto items = Scan(L"cookies", L"firefox", dir / L"Firefox\\Profiles\\*", keep);
  ASSERT_EQ(1u, items.size());
  CCleanableBrowserDb& item = *items[database];
  EXPECT_EQ(L"5 cookies of 4 sites; 2 sites kept", item.GetDescription());
  EXPECT_EQ((std::vector<std::wstring>{database, database + L"-wal"}), item.GetDatabaseFiles());
  broomtest::MakeDirs(dir / L"q");
  broomtest::WriteFile(dir / L"q\\cookies.sqlite", "taken");
  CPathString proposal;
  EXPECT_EQ(kMoveDestinationExists, item.Move(CString((dir / L"q\\cookies.sqlite").c_str()), nullptr, nullptr, false, proposal));
  EXPECT_EQ(L"cookies (1).sqlite", std::wstring(proposal.c_str()).substr(dir.Path().size() + 3));
  ASSERT_EQ(0u, item.Move(CString(proposal.c_str()), nullptr, nullptr, false, proposal));
  const std::wstring copy = proposal.c_str();
  EXPECT_EQ(original, broomtest::ReadFile(copy));
  EXPECT_EQ(originalWal, broomtest::ReadFile(copy + L"-wal"));
  EXPECT_FALSE(broomtest::Exists(database + L"-wal"));
  EXPECT_EQ((Strings{"3"}), Query(database, "SELECT count(*) FROM moz_cookies"));
  const std::wstring checksum = item.GetChecksumAfterClean();
  ASSERT_FALSE(checksum.empty());

  // used again since: the copy stays where it is
  const std::string cleaned = broomtest::ReadFile(database);
  Exec(Open(database).get(), "INSERT INTO moz_cookies(name,host,path) VALUES('n','new.example','/')");
  EXPECT_EQ(kBrowserDbChangedSinceClean, CBrowserDatabase::Restore(copy.c_str(), database.c_str(), checksum));
  EXPECT_TRUE(broomtest::Exists(copy));
  Exec(Open(database).get(), "DELETE FROM moz_cookies WHERE host='new.example'; VACUUM");
  broomtest::RemoveTree(database + L"-wal");
  broomtest::RemoveTree(database);
  broomtest::WriteFile(database, cleaned);
  ASSERT_EQ(checksum, CBrowserDatabase::Checksum(database.c_str()));

  ASSERT_EQ(0u, CBrowserDatabase::Restore(copy.c_str(), database.c_str(), checksum));
  EXPECT_EQ(original, broomtest::ReadFile(database));
  EXPECT_EQ(originalWal, broomtest::ReadFile(database + L"-wal"));
  EXPECT_FALSE(broomtest::Exists(copy) || broomtest::Exists(copy + L"-wal"));
  EXPECT_EQ((Strings{"8"}), Query(database, "SELECT count(*) FROM moz_cookies"));
}

TEST_F(BrowserDbTest, TheSizeIsWhatTheCleanFrees) {
  const std::wstring database = dir / L"Big\\Default\\Network\\Cookies";
  {
    broomtest::MakeDirs(dir / L"Big\\Default\\Network");
    auto db = Open(database);
    Exec(db.get(), kChromiumCookies);
    std::vector<Strings> rows;
    for (int i = 0; i < 3000; ++i) rows.push_back({"site" + std::to_string(i % 300) + ".example", "c" + std::to_string(i)});
    Exec(db.get(), "BEGIN");
    Insert(db.get(), kChromiumCookieRow, rows);
    Exec(db.get(), "COMMIT");
  }
  CCookieKeepList list;
  std::string text;
  for (int i = 0; i < 30; ++i) text += "site" + std::to_string(i * 10) + ".example\n";
  ASSERT_TRUE(list.Parse(text));
  auto items = Scan(L"cookies", L"chromium", dir / L"Big\\*", list);
  ASSERT_EQ(1u, items.size());
  CCleanableBrowserDb& item = *items.begin()->second;
  EXPECT_EQ(L"2,700 cookies of 270 sites; 30 sites kept", item.GetDescription());
  ASSERT_EQ(0u, item.Clean(nullptr, nullptr));
  const SBrowserDbCleanResult& done = item.GetLastClean();
  double freed = static_cast<double>(done.bytesBefore - done.bytesAfter);
  EXPECT_GT(freed, 0);
  EXPECT_NEAR(freed, static_cast<double>(item.GetSize()), freed * 0.15);
  EXPECT_EQ((Strings{"300"}), Query(database, "SELECT count(*) FROM cookies"));
}
