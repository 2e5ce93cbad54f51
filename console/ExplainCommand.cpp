// broom explain PATH: which enabled items would take a file, by which rule,
// and when none would, why not.
#include "console/Commands.h"
#include "core/Handles.h"

#include "app/PolicyRules.h"
#include "app/Text.h"
#include "browserdb/CleanableBrowserDb.h"
#include "console/Console.h"
#include "core/Names.h"
#include "guard/BlastGuard.h"
#include "scan/BaseFileScan.h"

namespace host {

namespace {

// The whitelist entry that protects path: path itself or a folder above it.
std::wstring ProtectingEntry(CSession& session, const std::wstring& path) {
  CRefPtr<IConstTArray<CString>> list = session.WhiteList().SaveToArray(0x1);
  if (!list) return std::wstring();
  std::wstring best;
  for (const CString& listed : list->GetArray()) {
    std::wstring entry = listed.GetString();
    if (broom::IsAtOrBelow(path, entry) && entry.size() > best.size()) best = entry;
  }
  return best;
}

// "its rule keeps files changed less than 30 days ago" when an age filter of
// the operation (or --older-than) rejects the file; empty otherwise.
std::wstring AgeReason(const IScanOperation* op, unsigned long olderThan, const CPathString& folder,
                       const WIN32_FIND_DATAW& data) {
  auto* files = dynamic_cast<const CBaseFileScan*>(op);
  if (!files) return std::wstring();
  std::vector<CRefPtr<CBaseFileScan::IFilter>> ages;
  for (const auto& filter : files->GetFilters())
    if (dynamic_cast<CBaseFileScan::_FilterRejectRecentFiles_Impl*>(filter.Get())) ages.push_back(filter);
  if (olderThan) {
    auto* extra = new IUnknownNoQIImp<CBaseFileScan::_FilterRejectRecentFiles_Impl>();
    ages.emplace_back(extra);
    extra->SetAge(olderThan, false);
  }
  for (const auto& filter : ages) {
    auto* age = static_cast<CBaseFileScan::_FilterRejectRecentFiles_Impl*>(filter.Get());
    if (!age->RejectFile(folder, data)) continue;
    return std::wstring(L"only files ") + (age->ByLastAccess() ? L"last opened " : L"last changed ") +
           (age->GetHours() % 24 ? std::to_wstring(age->GetHours()) + L" or more hours"
                                 : std::to_wstring(age->GetHours() / 24) + L" or more days") +
           L" ago are taken, and this one is newer";
  }
  return std::wstring();
}

// "  cost: saved (Deletes your saved data ...)"
std::wstring CostLine(const CSession& session, const CScanGroup* item) {
  const CConfigStore* store = CConfigStore::Of(session.Config());
  if (!store) return std::wstring();
  ECost cost = store->GetCost(item);
  return std::wstring(L"  cost: ") + CostName(cost) + L" (" + CostWords(cost) + L")\n";
}

}  // namespace

int CmdExplain(CSession& session, const SOptions& options) {
  std::wstring path = FullPath(Wide(options.path));
  WIN32_FIND_DATAW data = {};
  if (!broom::unique_hfind(FindFirstFileW(path.c_str(), &data)))
    throw CHostError{exitUsage, L"there is no file or folder " + Quoted(path) + L"; give the path of one"};
  LoadDefinitions(session, options);
  session.LoadWhiteList();

  std::wstring out;
  std::wstring entry = ProtectingEntry(session, path);
  if (!entry.empty() || (session.WhiteList().CheckProtection(path.c_str()) & 0x1)) {
    out = Quoted(path) + L" is protected" + (entry.empty() ? std::wstring() : L" by the entry " + Quoted(entry)) +
          L" of 'broom protected': no scan or clean takes it.\n";
    CConsole::Out(out);
    return exitCleanFailures;
  }
  for (const std::wstring& policyPath : PolicyProtectedPaths(session.Policies())) {
    if (!broom::IsAtOrBelow(path, policyPath)) continue;
    CConsole::Out(Quoted(path) + L" is protected by your organisation (ProtectedPaths: " + Quoted(policyPath) +
                  L"): no scan or clean takes it.\n");
    return exitCleanFailures;
  }

  // Every enabled item, whether it is on by default or not, with the age
  // filters out so that a file they keep still shows where it would go.
  std::vector<SItem> items;
  for (const SItem& item : session.AllItems())
    if (IsEnabled(item.group)) items.push_back(item);
  SScanOptions scan = ScanOptions(options, keepItems);
  scan.olderThanDays = 0;
  scan.withoutAgeFilters = true;
  scan.everyItem = true;
  SScanResults results = ScanWithProgress(session, items, scan);
  if (results.cancelled) {
    CConsole::Err(L"broom: cancelled\n");
    return exitCancelled;
  }

  CPathString folder(path.substr(0, path.rfind(L'\\') + 1).c_str());
  std::vector<SHolder> holders;
  FindRunning(session, results, holders);
  CBlastGuard guard;
  unsigned takers = 0, aged = 0;
  for (const SItemResult& r : results.items) {
    for (const SHit& hit : r.hits) {
      if (!broom::SamePath(hit.path, path)) continue;
      SOperationSource source;
      std::wstring rule = session.SourceOf(hit, source)
                              ? std::wstring(source.file.GetString()) + L":" + std::to_wstring(source.line) + L": " +
                                    source.kind.GetString() + L" " + source.text.GetString()
                              : std::wstring(L"a rule whose source is not known");
      std::wstring age = AgeReason(hit.op, std::max(options.olderThan, session.Policies().Number(EPolicy::minimumAgeDays, 0)), folder, data);
      CBlastGuard::SVerdict verdict = guard.Check(hit.item, source.text.GetString());
      out += L"'" + r.item.path + L"'" + (IsOn(r.item.group->IsDefaultClean()) ? L"" : L" (off by default)") +
             L"\n  rule: " + Printable(rule) + L"\n" + CostLine(session, r.item.group);
      if (auto* db = dynamic_cast<const CCleanableBrowserDb*>(hit.item.Get()))
        out += L"  cleans inside the database, row by row: " + db->GetDescription() + L"\n";
      if (!age.empty()) {
        ++aged;
        out += L"  not now: " + age + L"\n";
      } else if (!verdict.allowed) {
        out += L"  refused by the guard: " + std::wstring(verdict.reason.GetString()) + L"\n";
      } else {
        ++takers;
        if (!verdict.userFolder.IsEmpty())
          out += L"  it lies in your " + std::wstring(verdict.userFolder.GetString()) + L"\n";
      }
      for (const std::wstring& image : r.running)
        out += L"  " + image + L" is running now: clean skips this item until it closes (or use --close-apps)\n";
    }
  }
  if (out.empty())
    out = L"No enabled item takes " + Quoted(path) +
          L": no rule's path and mask match it (items switched off on this PC are not run).\n";
  else
    out = Quoted(path) + (takers ? L" is taken by:\n" : L" matches these items, but none takes it now:\n") + out;
  CConsole::Out(out);
  return takers ? exitOk : exitCleanFailures;
}

}  // namespace host
