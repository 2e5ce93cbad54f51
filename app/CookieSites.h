#pragma once
// The host's side of cookies: the keep list a session reads at start, the
// check that stops a command whose cookie operations would run with an
// unusable list, and the sites the cookie databases hold, per browser and
// profile.
#include <string>
#include <vector>

#include "app/ItemSelection.h"
#include "browserdb/CookieKeepList.h"

class CBrowserDbScan;

namespace host {

class CSession;

// Reads the keep list file and adds the sites of the organisation's
// KeepCookieSites policy, which keep whatever the file says and are never
// written to it; false when the list is unusable (the file, or a policy
// entry that is not a site: then no cookie may go).
bool ReadCookieKeep(const std::wstring& file, CCookieKeepList& list);

// The cookie operations of the items, each once.
std::vector<CBrowserDbScan*> CookieOperations(const std::vector<SItem>& items);

// Throws CHostError(exitUsage), naming the file and the line, when the keep
// list is unusable and an item holds a cookie operation: then no cookie may go.
void CheckCookieKeep(const CSession& session, const std::vector<SItem>& items);
// Throws the same whenever the keep list is unusable.
void RequireCookieKeep(const CSession& session);

struct SCookieSiteWhere {
  std::wstring browser;  // the item's group: "Google Chrome"
  std::wstring profile;  // the profile folder's name: "Default"
  unsigned long long cookies = 0;
};
struct SCookieSiteRow {
  std::wstring site;
  bool kept = false;
  std::wstring keptBy;
  bool keptByPolicy = false;  // keptBy is a site of the KeepCookieSites policy
  unsigned long long cookies = 0;
  std::vector<SCookieSiteWhere> where;
};
struct SCookieListing {
  std::vector<SCookieSiteRow> sites;  // by name
  unsigned databases = 0;             // read
  std::vector<std::wstring> notes;    // databases that could not be read, and why
};

// Every site of every cookie database the loaded definitions name (switched-
// off items too), protected databases left out.
SCookieListing ListCookieSites(CSession& session);

}  // namespace host
