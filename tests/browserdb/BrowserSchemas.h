#pragma once
// Databases laid out as the browsers lay theirs out (tables, columns and
// indexes as Chromium's and Firefox's sources create them), for the tests and
// the benchmark; SQLite is linked into them as into the engine.
#include <windows.h>
#include <sqlite3.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "core/Handles.h"

namespace browserschema {

// Chromium's Network\Cookies (meta version 24).
constexpr const char kChromiumCookies[] =
    "CREATE TABLE meta(key LONGVARCHAR NOT NULL UNIQUE PRIMARY KEY, value LONGVARCHAR);"
    "INSERT INTO meta VALUES('version','24'),('last_compatible_version','24');"
    "CREATE TABLE cookies(creation_utc INTEGER NOT NULL,host_key TEXT NOT NULL,top_frame_site_key TEXT NOT NULL,"
    "name TEXT NOT NULL,value TEXT NOT NULL,encrypted_value BLOB NOT NULL,path TEXT NOT NULL,"
    "expires_utc INTEGER NOT NULL,is_secure INTEGER NOT NULL,is_httponly INTEGER NOT NULL,"
    "last_access_utc INTEGER NOT NULL,has_expires INTEGER NOT NULL,is_persistent INTEGER NOT NULL,"
    "priority INTEGER NOT NULL,samesite INTEGER NOT NULL,source_scheme INTEGER NOT NULL,"
    "source_port INTEGER NOT NULL,last_update_utc INTEGER NOT NULL,source_type INTEGER NOT NULL,"
    "has_cross_site_ancestor INTEGER NOT NULL);"
    "CREATE UNIQUE INDEX cookies_unique_index ON cookies(host_key, top_frame_site_key, has_cross_site_ancestor, "
    "name, path, source_scheme, source_port);";
// One cookie row; ?1 host_key, ?2 name.
constexpr const char kChromiumCookieRow[] =
    "INSERT INTO cookies VALUES(13350000000000000,?1,'',?2,'',randomblob(60),'/',13390000000000000,1,1,"
    "13350000000000000,1,1,1,0,2,443,13350000000000000,0,0)";

// The older Cookies in the profile folder (version 10, before Network\).
constexpr const char kChromiumCookiesV10[] =
    "CREATE TABLE meta(key LONGVARCHAR NOT NULL UNIQUE PRIMARY KEY, value LONGVARCHAR);"
    "INSERT INTO meta VALUES('version','10'),('last_compatible_version','10');"
    "CREATE TABLE cookies (creation_utc INTEGER NOT NULL,host_key TEXT NOT NULL,name TEXT NOT NULL,"
    "value TEXT NOT NULL,path TEXT NOT NULL,expires_utc INTEGER NOT NULL,is_secure INTEGER NOT NULL,"
    "is_httponly INTEGER NOT NULL,last_access_utc INTEGER NOT NULL, has_expires INTEGER NOT NULL DEFAULT 1, "
    "is_persistent INTEGER NOT NULL DEFAULT 1,priority INTEGER NOT NULL DEFAULT 1,encrypted_value BLOB DEFAULT '',"
    "firstpartyonly INTEGER NOT NULL DEFAULT 0,UNIQUE (host_key, name, path));";
constexpr const char kChromiumCookieRowV10[] =
    "INSERT INTO cookies(creation_utc,host_key,name,value,path,expires_utc,is_secure,is_httponly,last_access_utc) "
    "VALUES(13150000000000000,?1,?2,'v','/',13190000000000000,0,0,13150000000000000)";

// Chromium's History.
constexpr const char kChromiumHistory[] =
    "CREATE TABLE meta(key LONGVARCHAR NOT NULL UNIQUE PRIMARY KEY, value LONGVARCHAR);"
    "INSERT INTO meta VALUES('version','67'),('last_compatible_version','16');"
    "CREATE TABLE urls(id INTEGER PRIMARY KEY AUTOINCREMENT,url LONGVARCHAR,title LONGVARCHAR,"
    "visit_count INTEGER DEFAULT 0 NOT NULL,typed_count INTEGER DEFAULT 0 NOT NULL,"
    "last_visit_time INTEGER NOT NULL,hidden INTEGER DEFAULT 0 NOT NULL);"
    "CREATE INDEX urls_url_index ON urls (url);"
    "CREATE TABLE visits(id INTEGER PRIMARY KEY AUTOINCREMENT,url INTEGER NOT NULL,visit_time INTEGER NOT NULL,"
    "from_visit INTEGER,external_referrer_url TEXT,transition INTEGER DEFAULT 0 NOT NULL,segment_id INTEGER,"
    "visit_duration INTEGER DEFAULT 0 NOT NULL,incremented_omnibox_typed_score BOOLEAN DEFAULT FALSE NOT NULL,"
    "opener_visit INTEGER,originator_cache_guid TEXT,originator_visit_id INTEGER,originator_from_visit INTEGER,"
    "originator_opener_visit INTEGER,is_known_to_sync BOOLEAN DEFAULT FALSE NOT NULL,"
    "consider_for_ntp_most_visited BOOLEAN DEFAULT FALSE NOT NULL,visited_link_id INTEGER DEFAULT 0 NOT NULL,"
    "app_id TEXT);"
    "CREATE INDEX visits_url_index ON visits (url);"
    "CREATE INDEX visits_from_index ON visits (from_visit);"
    "CREATE INDEX visits_time_index ON visits (visit_time);"
    "CREATE TABLE visit_source(id INTEGER PRIMARY KEY,source INTEGER NOT NULL);"
    "CREATE TABLE keyword_search_terms (keyword_id INTEGER NOT NULL,url_id INTEGER NOT NULL,"
    "term LONGVARCHAR NOT NULL,normalized_term LONGVARCHAR NOT NULL);"
    "CREATE INDEX keyword_search_terms_index1 ON keyword_search_terms (keyword_id, normalized_term);"
    "CREATE INDEX keyword_search_terms_index2 ON keyword_search_terms (url_id);"
    "CREATE INDEX keyword_search_terms_index3 ON keyword_search_terms (term);"
    "CREATE TABLE downloads (id INTEGER PRIMARY KEY,guid VARCHAR NOT NULL,current_path LONGVARCHAR NOT NULL,"
    "target_path LONGVARCHAR NOT NULL,start_time INTEGER NOT NULL,received_bytes INTEGER NOT NULL,"
    "total_bytes INTEGER NOT NULL,state INTEGER NOT NULL,danger_type INTEGER NOT NULL,"
    "interrupt_reason INTEGER NOT NULL,hash BLOB NOT NULL,end_time INTEGER NOT NULL,opened INTEGER NOT NULL,"
    "last_access_time INTEGER NOT NULL,transient INTEGER NOT NULL,referrer VARCHAR NOT NULL,"
    "site_url VARCHAR NOT NULL,embedder_download_data VARCHAR NOT NULL,tab_url VARCHAR NOT NULL,"
    "tab_referrer_url VARCHAR NOT NULL,http_method VARCHAR NOT NULL,by_ext_id VARCHAR NOT NULL,"
    "by_ext_name VARCHAR NOT NULL,by_web_app_id VARCHAR NOT NULL,etag VARCHAR NOT NULL,"
    "last_modified VARCHAR NOT NULL,mime_type VARCHAR(255) NOT NULL,original_mime_type VARCHAR(255) NOT NULL);"
    "CREATE TABLE downloads_url_chains (id INTEGER NOT NULL,chain_index INTEGER NOT NULL,url LONGVARCHAR NOT NULL, "
    "PRIMARY KEY (id, chain_index) );"
    "CREATE TABLE downloads_slices (download_id INTEGER NOT NULL,offset INTEGER NOT NULL,"
    "received_bytes INTEGER NOT NULL,finished INTEGER NOT NULL DEFAULT 0,PRIMARY KEY (download_id, offset) );"
    "CREATE TABLE segments (id INTEGER PRIMARY KEY,name VARCHAR,url_id INTEGER NON NULL);"
    "CREATE INDEX segments_name ON segments(name);"
    "CREATE INDEX segments_url_id ON segments(url_id);"
    "CREATE TABLE segment_usage (id INTEGER PRIMARY KEY,segment_id INTEGER NOT NULL,time_slot INTEGER NOT NULL,"
    "visit_count INTEGER DEFAULT 0 NOT NULL);"
    "CREATE INDEX segment_usage_time_slot_segment_id ON segment_usage(time_slot, segment_id);"
    "CREATE INDEX segments_usage_seg_id ON segment_usage(segment_id);"
    "CREATE TABLE content_annotations(visit_id INTEGER PRIMARY KEY,visibility_score NUMERIC,"
    "floc_protected_score NUMERIC,categories VARCHAR,page_topics_model_version INTEGER,"
    "annotation_flags INTEGER NOT NULL,entities VARCHAR,related_searches VARCHAR,search_normalized_url VARCHAR,"
    "search_terms LONGVARCHAR,alternative_title VARCHAR,page_language VARCHAR,password_state INTEGER DEFAULT 0 "
    "NOT NULL,has_url_keyed_image BOOLEAN NOT NULL);";

// Firefox's cookies.sqlite (schema 12 and later).
constexpr const char kFirefoxCookies[] =
    "PRAGMA journal_mode=WAL;"
    "CREATE TABLE moz_cookies (id INTEGER PRIMARY KEY, originAttributes TEXT NOT NULL DEFAULT '', name TEXT, "
    "value TEXT, host TEXT, path TEXT, expiry INTEGER, lastAccessed INTEGER, creationTime INTEGER, "
    "isSecure INTEGER, isHttpOnly INTEGER, inBrowserElement INTEGER DEFAULT 0, sameSite INTEGER DEFAULT 0, "
    "rawSameSite INTEGER DEFAULT 0, schemeMap INTEGER DEFAULT 0, isPartitionedAttributeSet INTEGER DEFAULT 0, "
    "CONSTRAINT moz_uniqueid UNIQUE (name, host, path, originAttributes));"
    "PRAGMA user_version=15;";
constexpr const char kFirefoxCookieRow[] =
    "INSERT INTO moz_cookies(name,value,host,path,expiry,lastAccessed,creationTime,isSecure,isHttpOnly) "
    "VALUES(?2,'v',?1,'/',1900000000,1700000000000000,1700000000000000,1,0)";

// Firefox's places.sqlite.
constexpr const char kFirefoxPlaces[] =
    "PRAGMA journal_mode=WAL;"
    "CREATE TABLE moz_origins ( id INTEGER PRIMARY KEY, prefix TEXT NOT NULL, host TEXT NOT NULL, "
    "frecency INTEGER NOT NULL, recalc_frecency INTEGER NOT NULL DEFAULT 0, alt_frecency INTEGER, "
    "recalc_alt_frecency INTEGER NOT NULL DEFAULT 0, UNIQUE (prefix, host) );"
    "CREATE TABLE moz_places (   id INTEGER PRIMARY KEY, url LONGVARCHAR, title LONGVARCHAR, "
    "rev_host LONGVARCHAR, visit_count INTEGER DEFAULT 0, hidden INTEGER DEFAULT 0 NOT NULL, "
    "typed INTEGER DEFAULT 0 NOT NULL, frecency INTEGER DEFAULT -1 NOT NULL, last_visit_date INTEGER , "
    "guid TEXT, foreign_count INTEGER DEFAULT 0 NOT NULL, url_hash INTEGER DEFAULT 0 NOT NULL , "
    "description TEXT, preview_image_url TEXT, site_name TEXT, origin_id INTEGER REFERENCES moz_origins(id), "
    "recalc_frecency INTEGER NOT NULL DEFAULT 0, alt_frecency INTEGER, "
    "recalc_alt_frecency INTEGER NOT NULL DEFAULT 0);"
    "CREATE TABLE moz_historyvisits (  id INTEGER PRIMARY KEY, from_visit INTEGER, place_id INTEGER, "
    "visit_date INTEGER, visit_type INTEGER, session INTEGER, source INTEGER DEFAULT 0 NOT NULL, "
    "triggeringPlaceId INTEGER);"
    "CREATE TABLE moz_inputhistory (  place_id INTEGER NOT NULL, input LONGVARCHAR NOT NULL, "
    "use_count INTEGER, PRIMARY KEY (place_id, input));"
    "CREATE TABLE moz_bookmarks (  id INTEGER PRIMARY KEY, type INTEGER, fk INTEGER DEFAULT NULL, "
    "parent INTEGER, position INTEGER, title LONGVARCHAR, keyword_id INTEGER, folder_type TEXT, "
    "dateAdded INTEGER, lastModified INTEGER, guid TEXT, syncStatus INTEGER NOT NULL DEFAULT 0, "
    "syncChangeCounter INTEGER NOT NULL DEFAULT 1);"
    "CREATE TABLE moz_bookmarks_deleted (  guid TEXT PRIMARY KEY, dateRemoved INTEGER NOT NULL DEFAULT 0);"
    "CREATE TABLE moz_keywords (  id INTEGER PRIMARY KEY AUTOINCREMENT, keyword TEXT UNIQUE, place_id INTEGER, "
    "post_data TEXT);"
    "CREATE TABLE moz_anno_attributes (  id INTEGER PRIMARY KEY, name VARCHAR(32) UNIQUE NOT NULL);"
    "CREATE TABLE moz_annos (  id INTEGER PRIMARY KEY, place_id INTEGER NOT NULL, anno_attribute_id INTEGER, "
    "content LONGVARCHAR, flags INTEGER DEFAULT 0, expiration INTEGER DEFAULT 0, type INTEGER DEFAULT 0, "
    "dateAdded INTEGER DEFAULT 0, lastModified INTEGER DEFAULT 0);"
    "CREATE TABLE moz_items_annos (  id INTEGER PRIMARY KEY, item_id INTEGER NOT NULL, "
    "anno_attribute_id INTEGER, content LONGVARCHAR, flags INTEGER DEFAULT 0, expiration INTEGER DEFAULT 0, "
    "type INTEGER DEFAULT 0, dateAdded INTEGER DEFAULT 0, lastModified INTEGER DEFAULT 0);"
    "CREATE TABLE moz_meta (key TEXT PRIMARY KEY, value NOT NULL) WITHOUT ROWID ;"
    "CREATE TABLE moz_places_metadata (id INTEGER PRIMARY KEY, place_id INTEGER NOT NULL, "
    "referrer_place_id INTEGER, created_at INTEGER NOT NULL DEFAULT 0, updated_at INTEGER NOT NULL DEFAULT 0, "
    "total_view_time INTEGER NOT NULL DEFAULT 0, typing_time INTEGER NOT NULL DEFAULT 0, "
    "key_presses INTEGER NOT NULL DEFAULT 0, scrolling_time INTEGER NOT NULL DEFAULT 0, "
    "scrolling_distance INTEGER NOT NULL DEFAULT 0, document_type INTEGER NOT NULL DEFAULT 0, "
    "search_query_id INTEGER, FOREIGN KEY (place_id) REFERENCES moz_places(id) ON DELETE CASCADE, "
    "FOREIGN KEY (referrer_place_id) REFERENCES moz_places(id) ON DELETE CASCADE, "
    "CHECK(place_id != referrer_place_id) );"
    "CREATE INDEX moz_places_url_hashindex ON moz_places (url_hash);"
    "CREATE INDEX moz_places_hostindex ON moz_places (rev_host);"
    "CREATE INDEX moz_places_visitcount ON moz_places (visit_count);"
    "CREATE INDEX moz_places_frecencyindex ON moz_places (frecency);"
    "CREATE INDEX moz_places_lastvisitdateindex ON moz_places (last_visit_date);"
    "CREATE UNIQUE INDEX moz_places_guid_uniqueindex ON moz_places (guid);"
    "CREATE INDEX moz_places_originidindex ON moz_places (origin_id);"
    "CREATE INDEX moz_historyvisits_placedateindex ON moz_historyvisits (place_id, visit_date);"
    "CREATE INDEX moz_historyvisits_fromindex ON moz_historyvisits (from_visit);"
    "CREATE INDEX moz_historyvisits_dateindex ON moz_historyvisits (visit_date);"
    "CREATE INDEX moz_bookmarks_itemindex ON moz_bookmarks (fk, type);"
    "CREATE INDEX moz_bookmarks_parentindex ON moz_bookmarks (parent, position);"
    "CREATE INDEX moz_bookmarks_itemlastmodifiedindex ON moz_bookmarks (fk, lastModified);"
    "CREATE UNIQUE INDEX moz_bookmarks_guid_uniqueindex ON moz_bookmarks (guid);"
    "CREATE UNIQUE INDEX moz_keywords_placepostdata_uniqueindex ON moz_keywords (place_id, post_data);"
    "CREATE UNIQUE INDEX moz_annos_placeattributeindex ON moz_annos (place_id, anno_attribute_id);"
    "INSERT INTO moz_bookmarks(id,type,parent,position,title,guid) VALUES(1,2,0,0,'','root________'),"
    "(2,2,1,0,'menu','menu________'),(3,2,1,1,'toolbar','toolbar_____');"
    "PRAGMA user_version=77;";

inline std::string Utf8(const std::wstring& text) {
  if (text.empty()) return std::string();
  int n = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
  std::string out(static_cast<size_t>(n), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &out[0], n, nullptr, nullptr);
  return out;
}

// Opens (creating) a database; throws when SQLite refuses.
inline broom::unique_sqlite Open(const std::wstring& path) {
  broom::unique_sqlite db;
  int rc = sqlite3_open_v2(Utf8(path).c_str(), db.addressof(), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  if (rc != SQLITE_OK) throw std::runtime_error("cannot open " + Utf8(path) + ": " + sqlite3_errstr(rc));
  return db;
}

inline void Exec(sqlite3* db, const std::string& sql) {
  char* error = nullptr;
  if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
    std::string message = error ? error : "?";
    sqlite3_free(error);
    throw std::runtime_error(message + " in " + sql.substr(0, 80));
  }
}

// Runs a statement once per row of values (bound as ?1, ?2, … texts).
inline void Insert(sqlite3* db, const char* sql, const std::vector<std::vector<std::string>>& rows) {
  broom::unique_sqlite_stmt statement;
  if (sqlite3_prepare_v2(db, sql, -1, statement.addressof(), nullptr) != SQLITE_OK)
    throw std::runtime_error(sqlite3_errmsg(db));
  for (const auto& row : rows) {
    for (size_t i = 0; i < row.size(); ++i)
      sqlite3_bind_text(statement.get(), static_cast<int>(i + 1), row[i].c_str(), -1, SQLITE_TRANSIENT);
    if (sqlite3_step(statement.get()) != SQLITE_DONE) throw std::runtime_error(sqlite3_errmsg(db));
    sqlite3_reset(statement.get());
  }
}

// Every row of a query, its columns joined by '|'.
inline std::vector<std::string> Rows(sqlite3* db, const std::string& sql) {
  broom::unique_sqlite_stmt statement;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, statement.addressof(), nullptr) != SQLITE_OK)
    throw std::runtime_error(std::string(sqlite3_errmsg(db)) + " in " + sql);
  std::vector<std::string> rows;
  while (sqlite3_step(statement.get()) == SQLITE_ROW) {
    std::string row;
    for (int i = 0; i < sqlite3_column_count(statement.get()); ++i) {
      const unsigned char* text = sqlite3_column_text(statement.get(), i);
      row += (i ? "|" : "") + std::string(text ? reinterpret_cast<const char*>(text) : "NULL");
    }
    rows.push_back(row);
  }
  return rows;
}

}  // namespace browserschema
