#include "app/CookieSites.h"

#include <map>
#include <set>

#include "app/HostError.h"
#include "app/Session.h"
#include "app/Text.h"
#include "browserdb/BrowserDbScan.h"
#include "core/Names.h"
#include "policy/Policies.h"

namespace host {

namespace {

const wchar_t* const kPolicyOrigin = L"the KeepCookieSites policy of your organisation";

// Whether one of the policy's entries is not a site.
bool PolicyIsFaulty() {
  std::wstring site, why;
  for (const std::wstring& entry : CPolicies::Current().List(EPolicy::keepCookieSites))
    if (!CCookieKeepList::ParseSite(entry, site, why)) return true;
  return false;
}

std::wstring Unusable(const CSession& session) {
  const std::wstring fix = PolicyIsFaulty() ? L"ask your administrator to correct the policy"
                                            : L"correct that line or delete the file, then run the command again";
  return L"the cookie keep list " + Quoted(session.CookieKeepFile()) + L" cannot be used: " +
         session.CookieKeep().DescribeProblem() + L"; no cookie was deleted: " + fix;
}

// "Google Chrome" of "Browsers/Google Chrome/Cookies".
std::wstring BrowserOf(const std::wstring& itemPath) {
  size_t end = itemPath.rfind(L'/');
  if (end == std::wstring::npos) return itemPath;
  size_t start = itemPath.rfind(L'/', end - 1);
  return itemPath.substr(start == std::wstring::npos ? 0 : start + 1, end - (start == std::wstring::npos ? 0 : start + 1));
}

}  // namespace

bool ReadCookieKeep(const std::wstring& file, CCookieKeepList& list) {
  if (!list.Load(file.c_str())) return false;
  for (const std::wstring& site : CPolicies::Current().List(EPolicy::keepCookieSites))
    if (!list.AddEnforced(site.c_str(), kPolicyOrigin)) return false;
  return true;
}

std::vector<CBrowserDbScan*> CookieOperations(const std::vector<SItem>& items) {
  std::vector<CBrowserDbScan*> found;
  std::set<CBrowserDbScan*> seen;
  for (const SItem& item : items) {
    CRefPtr<TIteratorIface<CRefPtr<IScanOperation>>> ops;
    item.group->GetScanOps(ops);
    for (; ops && !ops->AtEnd(); ops->Next()) {
      auto* scan = dynamic_cast<CBrowserDbScan*>(static_cast<IScanOperation*>(*ops->Current()));
      if (scan && scan->GetKind() == EBrowserDbKind::cookies && seen.insert(scan).second) found.push_back(scan);
    }
  }
  return found;
}

void CheckCookieKeep(const CSession& session, const std::vector<SItem>& items) {
  if (session.CookieKeep().IsUsable()) return;
  if (!CookieOperations(items).empty()) throw CHostError{exitUsage, Unusable(session)};
}

void RequireCookieKeep(const CSession& session) {
  if (!session.CookieKeep().IsUsable()) throw CHostError{exitUsage, Unusable(session)};
}

SCookieListing ListCookieSites(CSession& session) {
  RequireCookieKeep(session);
  SCookieListing listing;
  std::map<std::wstring, SCookieSiteRow> rows;
  std::set<std::wstring, broom::PathLess> databases;
  for (const SItem& item : session.AllItems()) {
    for (CBrowserDbScan* scan : CookieOperations({item})) {
      for (const SCookieDatabaseSites& db : scan->ListCookieSites(&session.WhiteList())) {
        if (!databases.insert(db.database).second) continue;  // two items may name one profile
        if (db.code) {
          listing.notes.push_back(db.database + L": " + BrowserDbResultText(db.code));
          continue;
        }
        ++listing.databases;
        for (const SCookieSite& site : db.sites) {
          SCookieSiteRow& row = rows[site.site];
          row.site = site.site;
          row.kept = site.kept;
          row.keptBy = site.keptBy;
          row.keptByPolicy = site.kept && session.CookieKeep().IsEnforced(site.keptBy.c_str());
          row.cookies += site.cookies;
          row.where.push_back({BrowserOf(item.path), broom::NameOf(db.profile), site.cookies});
        }
      }
    }
  }
  for (auto& entry : rows) listing.sites.push_back(std::move(entry.second));
  return listing;
}

}  // namespace host
