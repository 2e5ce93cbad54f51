#pragma once
// What cleaning a browser database does, as statements made for the layout
// the database has: each needed table and column is looked up first, and a
// layout that lacks one makes no plan at all. Internal to the engine.
#include <cstdint>
#include <string>
#include <vector>

#include "browserdb/BrowserDbTypes.h"
#include "browserdb/SqliteDb.h"

namespace broom {
namespace browserdb {

// The SQL functions the statements call; the clean registers them.
constexpr const char kKeptFunction[] = "broom_kept";            // broom_kept(host): 1 when the keep list keeps it
constexpr const char kBookmarkedFunction[] = "broom_bookmarked";  // broom_bookmarked(url): 1 when bookmarked

enum class ERole { other, cookies, visits, pages };

struct SAction {
  std::string table;  // whose rows change
  std::string count;  // SELECT count(*) of the rows it changes
  std::string sql;    // the DELETE or UPDATE
  bool deletes = true;
  ERole role = ERole::other;
};

struct SPlan {
  std::vector<SAction> actions;
  std::string keptPages;    // history: SELECT count(*) of the pages that stay
  std::string cookieHosts;  // cookies: SELECT host, count(*) ... GROUP BY host
};

// SQLITE_OK with the plan, or with known false and why naming the missing
// table or column; another code when the schema could not be read.
int MakePlan(CSqliteDb& db, EBrowserFamily family, EBrowserDbKind kind, SPlan& plan, bool& known, std::string& why);

// The bytes the database would take once the plan ran and VACUUM compacted
// it, from SQLite's page accounting (dbstat): each table and index keeps the
// share of its pages its remaining rows hold, at least one page.
int EstimateBytesAfter(CSqliteDb& db, const SPlan& plan, const std::vector<int64_t>& changes, uint64_t& bytes);

}  // namespace browserdb
}  // namespace broom
