// broom cookies list, keep and unkeep: the sites the browsers' cookie
// databases hold, and the keep list of the data folder.
#include "console/Commands.h"

#include <nlohmann/json.hpp>

#include <algorithm>

#include "app/CookieSites.h"
#include "app/PolicyRules.h"
#include "app/Text.h"
#include "console/Console.h"

namespace host {

namespace {

// The keep list read afresh for an edit; throws when it is unusable.
CCookieKeepList LoadForEdit(const CSession& session) {
  RequireCookieKeep(session);
  CCookieKeepList list;
  if (!ReadCookieKeep(session.CookieKeepFile(), list))
    throw CHostError{exitUsage, L"the cookie keep list " + Quoted(session.CookieKeepFile()) +
                                    L" cannot be used: " + list.DescribeProblem() +
                                    L"; nothing was changed: correct that line or delete the file"};
  return list;
}

void Save(const CSession& session, const CCookieKeepList& list) {
  DWORD error = list.Save(session.CookieKeepFile().c_str());
  if (error)
    throw CHostError{exitUsage, L"the cookie keep list " + Quoted(session.CookieKeepFile()) + L" cannot be written (" +
                                    SystemMessage(error) + L"); nothing was changed"};
}

}  // namespace

int CmdCookiesList(CSession& session, const SOptions& options) {
  LoadDefinitions(session, options);
  session.LoadWhiteList();
  SCookieListing listing = ListCookieSites(session);
  for (const std::wstring& note : listing.notes) CConsole::Err(L"broom: left out " + note + L"\n");
  unsigned kept = 0;
  for (const SCookieSiteRow& row : listing.sites) kept += row.kept;
  if (options.json) {
    nlohmann::json sites = nlohmann::json::array();
    for (const SCookieSiteRow& row : listing.sites) {
      nlohmann::json where = nlohmann::json::array();
      for (const SCookieSiteWhere& w : row.where)
        where.push_back({{"browser", Utf8(w.browser)}, {"profile", Utf8(w.profile)}, {"cookies", w.cookies}});
      sites.push_back({{"site", Utf8(row.site)},
                       {"kept", row.kept},
                       {"kept_by", row.kept ? nlohmann::json(Utf8(row.keptBy)) : nlohmann::json()},
                       {"policy", row.keptByPolicy ? nlohmann::json("KeepCookieSites") : nlohmann::json()},
                       {"cookies", row.cookies},
                       {"where", where}});
    }
    nlohmann::json notes = nlohmann::json::array();
    for (const std::wstring& note : listing.notes) notes.push_back(Utf8(note));
    nlohmann::json doc = {{"keep_file", Utf8(session.CookieKeepFile())},
                          {"databases", listing.databases},
                          {"sites", sites},
                          {"kept", kept},
                          {"left_out", notes}};
    CConsole::OutBytes(doc.dump(2) + "\n");
    return exitOk;
  }
  size_t width = 20;
  for (const SCookieSiteRow& row : listing.sites) width = std::max(width, row.site.size() + 2);
  bool byPolicy = false;
  std::wstring out = Pad(L"Site", width, false) + L"      " + Pad(L"Cookies", 8, true) + L"  Where\n";
  for (const SCookieSiteRow& row : listing.sites) {
    std::wstring where;
    for (const SCookieSiteWhere& w : row.where)
      where += (where.empty() ? L"" : L", ") + w.browser + L" (" + w.profile + L") " + FormatCount(w.cookies);
    out += Pad(row.site, width, false) + (row.keptByPolicy ? L"kept* " : row.kept ? L"kept  " : L"      ") +
           Pad(FormatCount(row.cookies), 8, true) + L"  " + where + L"\n";
    byPolicy = byPolicy || row.keptByPolicy;
  }
  if (byPolicy) out += L"* " + std::wstring(kSetByOrganisation) + L" (KeepCookieSites).\n";
  out += Plural(listing.sites.size(), L"site", L"sites") + L" in " +
         Plural(listing.databases, L"cookie database", L"cookie databases") + L"; " + FormatCount(kept) +
         L" kept by " + session.CookieKeepFile() + L".\n";
  CConsole::Out(out);
  return exitOk;
}

namespace {

// What an edit of the keep list did to a site; empty for an edit that
// stops the command (an invalid site, an unusable list).
std::wstring EditText(CCookieKeepList::EEdit edit, const std::wstring& site, const std::wstring& detail) {
  switch (edit) {
    case CCookieKeepList::editAdded: return L"Keeping the cookies of " + Quoted(site) + L" and its subdomains.\n";
    case CCookieKeepList::editAlready: return Quoted(site) + L" is kept already (by " + Quoted(detail) + L").\n";
    case CCookieKeepList::editRemoved:
      return Quoted(site) + L" is no longer kept: a clean of cookies deletes its cookies.\n";
    case CCookieKeepList::editNotListed: return Quoted(site) + L" is not on the keep list.\n";
    case CCookieKeepList::editByPolicy:
      return Quoted(site) + L" is kept already, by your organisation (KeepCookieSites, " + Quoted(detail) + L").\n";
    case CCookieKeepList::editByParent:
      return Quoted(site) + L" stays kept: " + Quoted(detail) + L" is on the list and keeps its subdomains.\n";
    default: return std::wstring();
  }
}

// Applies edit to every site named, then saves the list once; any site
// that cannot be edited stops the command with nothing saved.
template <class Edit>
int EditSites(CSession& session, const SOptions& options, bool adding, Edit edit) {
  CCookieKeepList list = LoadForEdit(session);
  std::wstring out;
  bool changed = false;
  for (const std::wstring& site : WideList(options.sites)) {
    std::wstring detail;
    const CCookieKeepList::EEdit done = edit(list, site.c_str(), &detail);
    if (done == CCookieKeepList::editInvalid)
      throw CHostError{exitUsage, Quoted(site) + L" is not a site: " + detail + L"; nothing was changed"};
    if (done == CCookieKeepList::editByPolicy && !adding)
      throw CHostError{exitUsage, Quoted(site) + L" is kept by your organisation (the KeepCookieSites policy names " +
                                      Quoted(detail) + L") and cannot be removed; nothing was changed"};
    const std::wstring text = EditText(done, site, detail);
    if (text.empty())
      throw CHostError{exitUsage, L"the cookie keep list " + Quoted(session.CookieKeepFile()) +
                                      L" cannot be edited; nothing was changed"};
    out += text;
    changed = changed || done == CCookieKeepList::editAdded || done == CCookieKeepList::editRemoved;
  }
  if (changed) Save(session, list);
  CConsole::Out(out);
  return exitOk;
}

}  // namespace

int CmdCookiesKeep(CSession& session, const SOptions& options) {
  return EditSites(session, options, true, [](CCookieKeepList& list, const wchar_t* site, std::wstring* detail) {
    return list.Keep(site, detail);
  });
}

int CmdCookiesUnkeep(CSession& session, const SOptions& options) {
  return EditSites(session, options, false, [](CCookieKeepList& list, const wchar_t* site, std::wstring* detail) {
    return list.Unkeep(site, detail);
  });
}

}  // namespace host
