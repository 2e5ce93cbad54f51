#include "browserdb/DbLayout.h"

#include <cmath>
#include <initializer_list>
#include <map>
#include <set>

namespace broom {
namespace browserdb {

namespace {

// Looks tables up once each and keeps the first reason a layout is unknown.
class CLayoutCheck {
 public:
  explicit CLayoutCheck(CSqliteDb& db) : m_db(db) {}

  // Whether the table exists with every column named. A table that exists
  // without one of them, or a required table that does not exist, makes the
  // layout unknown.
  bool Has(const char* table, std::initializer_list<const char*> columns, bool required) {
    const std::set<std::string>* found = Columns(table);
    if (!found) {
      if (required) Unknown(std::string("it has no table ") + table);
      return false;
    }
    for (const char* column : columns)
      if (!found->count(column)) {
        Unknown(std::string("its table ") + table + " has no column " + column);
        return false;
      }
    return true;
  }
  bool HasColumn(const char* table, const char* column) {
    const std::set<std::string>* found = Columns(table);
    return found && found->count(column);
  }
  bool Failed() const { return m_rc != SQLITE_OK; }
  int Code() const { return m_rc; }
  bool Known() const { return m_why.empty(); }
  const std::string& Why() const { return m_why; }

 private:
  const std::set<std::string>* Columns(const char* table) {
    auto found = m_tables.find(table);
    if (found == m_tables.end()) {
      bool exists = false;
      std::set<std::string> columns;
      int rc = m_db.Columns(table, exists, columns);
      if (rc != SQLITE_OK && m_rc == SQLITE_OK) m_rc = rc;
      found = m_tables.emplace(table, SInfo{exists, std::move(columns)}).first;
    }
    return found->second.exists ? &found->second.columns : nullptr;
  }
  void Unknown(const std::string& why) {
    if (m_why.empty()) m_why = why;
  }

  struct SInfo {
    bool exists = false;
    std::set<std::string> columns;
  };
  CSqliteDb& m_db;
  std::map<std::string, SInfo> m_tables;
  int m_rc = SQLITE_OK;
  std::string m_why;
};

SAction Delete(const std::string& table, const std::string& where, ERole role) {
  SAction action;
  action.table = table;
  std::string filter = where.empty() ? std::string() : " WHERE " + where;
  action.count = "SELECT count(*) FROM " + table + filter;
  action.sql = "DELETE FROM " + table + filter;
  action.role = role;
  return action;
}

// Sets each present column of resets to its value where a row still differs.
void AddReset(CLayoutCheck& check, SPlan& plan, const char* table, const std::string& kept,
              std::initializer_list<std::pair<const char*, const char*>> resets, const char* also = nullptr) {
  std::string set, differs;
  for (const auto& reset : resets) {
    if (!check.HasColumn(table, reset.first)) continue;
    set += (set.empty() ? "" : ", ") + std::string(reset.first) + "=" + reset.second;
    std::string value = reset.second;
    differs += (differs.empty() ? "" : " OR ") + std::string(reset.first) +
               (value == "NULL" ? " IS NOT NULL" : " IS NOT " + value);
  }
  if (set.empty()) return;
  if (also && check.HasColumn(table, also)) set += ", " + std::string(also) + "=1";
  SAction action;
  action.table = table;
  std::string where = " WHERE " + kept + " AND (" + differs + ")";
  action.count = "SELECT count(*) FROM " + std::string(table) + where;
  action.sql = "UPDATE " + std::string(table) + " SET " + set + where;
  action.deletes = false;
  plan.actions.push_back(action);
}

void PlanCookies(CLayoutCheck& check, EBrowserFamily family, SPlan& plan) {
  const char* table = family == EBrowserFamily::chromium ? "cookies" : "moz_cookies";
  const char* host = family == EBrowserFamily::chromium ? "host_key" : "host";
  if (!check.Has(table, {host}, true)) return;
  plan.actions.push_back(Delete(table, std::string("NOT ") + kKeptFunction + "(" + host + ")", ERole::cookies));
  plan.cookieHosts = std::string("SELECT ") + host + ", count(*) FROM " + table + " GROUP BY " + host;
}

void PlanChromiumHistory(CLayoutCheck& check, SPlan& plan) {
  if (!check.Has("urls", {"id", "url"}, true)) return;
  const std::string bookmarked = std::string(kBookmarkedFunction) + "(url)";
  plan.actions.push_back(Delete("urls", "NOT " + bookmarked, ERole::pages));
  AddReset(check, plan, "urls", bookmarked, {{"visit_count", "0"}, {"typed_count", "0"}, {"last_visit_time", "0"}});
  plan.keptPages = "SELECT count(*) FROM urls WHERE " + bookmarked;
  // every row of these is history; each table is emptied where it exists
  static const char* const kCleared[] = {
      "visits", "visit_source", "keyword_search_terms", "downloads", "downloads_url_chains", "downloads_slices",
      "downloads_reroute_info", "segments", "segment_usage", "content_annotations", "context_annotations",
      "clusters", "clusters_and_visits", "cluster_keywords", "cluster_visit_duplicates", "visited_links"};
  for (const char* table : kCleared)
    if (check.Has(table, {}, false))
      plan.actions.push_back(Delete(table, std::string(), std::string(table) == "visits" ? ERole::visits : ERole::other));
}

void PlanFirefoxHistory(CLayoutCheck& check, SPlan& plan) {
  bool places = check.Has("moz_places", {"id", "url"}, true);
  bool bookmarks = check.Has("moz_bookmarks", {"fk"}, true);
  if (!places || !bookmarks) return;
  bool keywords = check.Has("moz_keywords", {"place_id"}, false);
  // a page stays when a bookmark or a keyword refers to it
  auto kept = [&](const std::string& alias) {
    std::string test = "(" + alias + "id IN (SELECT fk FROM moz_bookmarks WHERE fk IS NOT NULL)";
    if (keywords) test += " OR " + alias + "id IN (SELECT place_id FROM moz_keywords WHERE place_id IS NOT NULL)";
    return test + ")";
  };
  plan.actions.push_back(Delete("moz_places", "NOT " + kept(""), ERole::pages));
  AddReset(check, plan, "moz_places", kept(""), {{"visit_count", "0"}, {"last_visit_date", "NULL"}, {"typed", "0"}},
           "recalc_frecency");
  plan.keptPages = "SELECT count(*) FROM moz_places WHERE " + kept("");
  static const char* const kCleared[] = {"moz_historyvisits", "moz_historyvisits_extra", "moz_inputhistory",
                                         "moz_places_metadata", "moz_places_metadata_search_queries"};
  for (const char* table : kCleared)
    if (check.Has(table, {}, false))
      plan.actions.push_back(
          Delete(table, std::string(), std::string(table) == "moz_historyvisits" ? ERole::visits : ERole::other));
  // what hangs on a page goes with it
  const std::string keptIds = "SELECT p.id FROM moz_places p WHERE " + kept("p.");
  for (const char* table : {"moz_annos", "moz_places_extra"})
    if (check.Has(table, {"place_id"}, false))
      plan.actions.push_back(Delete(table, "place_id NOT IN (" + keptIds + ")", ERole::other));
  if (check.Has("moz_origins", {"id"}, false) && check.Has("moz_places", {"origin_id"}, true))
    plan.actions.push_back(Delete(
        "moz_origins",
        "id NOT IN (SELECT p.origin_id FROM moz_places p WHERE p.origin_id IS NOT NULL AND " + kept("p.") + ")",
        ERole::other));
}

}  // namespace

int MakePlan(CSqliteDb& db, EBrowserFamily family, EBrowserDbKind kind, SPlan& plan, bool& known, std::string& why) {
  plan = SPlan();
  CLayoutCheck check(db);
  if (kind == EBrowserDbKind::cookies)
    PlanCookies(check, family, plan);
  else if (family == EBrowserFamily::chromium)
    PlanChromiumHistory(check, plan);
  else
    PlanFirefoxHistory(check, plan);
  if (check.Failed()) return check.Code();
  known = check.Known();
  why = check.Why();
  if (!known) plan = SPlan();
  return SQLITE_OK;
}

int EstimateBytesAfter(CSqliteDb& db, const SPlan& plan, const std::vector<int64_t>& changes, uint64_t& bytes) {
  int64_t pageSize = 0;
  int rc = db.QueryInt("PRAGMA page_size", pageSize);
  if (rc != SQLITE_OK) return rc;
  // the share of each table's rows that stays
  std::map<std::string, double> remaining;
  for (size_t i = 0; i < plan.actions.size() && i < changes.size(); ++i) {
    const SAction& action = plan.actions[i];
    if (!action.deletes || changes[i] <= 0) continue;
    int64_t total = 0;
    rc = db.QueryInt(("SELECT count(*) FROM " + action.table).c_str(), total);
    if (rc != SQLITE_OK) return rc;
    double left = total > 0 ? 1.0 - static_cast<double>(changes[i]) / static_cast<double>(total) : 0.0;
    auto found = remaining.emplace(action.table, 1.0).first;
    found->second *= left < 0 ? 0 : left;
  }
  std::map<std::string, std::string> owner;  // btree name -> table
  {
    CStatement names;
    rc = names.Prepare(db.get(), "SELECT name, tbl_name FROM sqlite_schema WHERE type IN ('table','index')");
    if (rc != SQLITE_OK) return rc;
    while ((rc = names.Step()) == SQLITE_ROW) owner[names.Text(0)] = names.Text(1);
    if (rc != SQLITE_DONE) return rc;
  }
  CStatement stat;
  rc = stat.Prepare(db.get(), "SELECT name, pgsize FROM dbstat WHERE aggregate=TRUE");
  if (rc != SQLITE_OK) return rc;
  uint64_t total = 0;
  while ((rc = stat.Step()) == SQLITE_ROW) {
    double share = 1.0;
    auto table = owner.find(stat.Text(0));
    if (table != owner.end()) {
      auto left = remaining.find(table->second);
      if (left != remaining.end()) share = left->second;
    }
    double pages = std::ceil(static_cast<double>(stat.Int(1)) * share / static_cast<double>(pageSize));
    total += static_cast<uint64_t>(pages < 1 ? 1 : pages) * static_cast<uint64_t>(pageSize);
  }
  if (rc != SQLITE_DONE) return rc;
  bytes = total;
  return SQLITE_OK;
}

}  // namespace browserdb
}  // namespace broom
