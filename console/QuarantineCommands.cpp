// broom restore and broom quarantine: putting the files of a quarantine
// back, listing and purging the managed quarantines; the quarantine of a clean.
#include "console/Commands.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <memory>

#include "app/Quarantine.h"
#include "app/QuarantineStore.h"
#include "app/Text.h"
#include "console/Console.h"

namespace host {

namespace {

std::wstring DateText(const SManagedQuarantine& q) {
  if (!q.dated) return L"-";
  wchar_t text[32];
  swprintf(text, 32, L"%04u-%02u-%02u %02u:%02u", q.date.wYear, q.date.wMonth, q.date.wDay, q.date.wHour,
           q.date.wMinute);
  return text;
}

}  // namespace

std::unique_ptr<CQuarantine> OpenCleanQuarantine(CSession& session, const SOptions& options) {
  const bool forced = session.Policies().IsOn(EPolicy::alwaysQuarantine);
  if (!options.quarantineGiven && !forced) return nullptr;
  if (forced && !options.quarantine.empty())
    CConsole::Err(L"broom: note: your organisation moves every clean into a managed quarantine (AlwaysQuarantine); " +
                  Quoted(Wide(options.quarantine)) + L" is not used\n");
  std::wstring folder;
  std::unique_ptr<CQuarantine> quarantine;
  if (options.quarantine.empty() || forced) {
    folder = CQuarantineStore(session.QuarantineRoot()).Create();
    quarantine.reset(new CQuarantine(folder, true));
    quarantine->RemoveWhenUnused();
  } else {
    const std::wstring given = Wide(options.quarantine);
    // "clean --quarantine System" would otherwise take an item for a folder
    if (!CQuarantineStore::IsPath(given))
      throw CHostError{exitUsage, Quoted(given) + L" after --quarantine is not a folder path: write a folder with a "
                                                  L"backslash (.\\" + given + L", C:\\q), or put item names before "
                                                  L"--quarantine"};
    folder = FullPath(given);
    quarantine.reset(new CQuarantine(folder, true));
  }
  // Never scan what has already been put aside.
  session.WhiteList().SafeGuardPath(folder.c_str(), 0x1);
  return quarantine;
}

int CmdRestore(CSession& session, const SOptions& options) {
  const std::wstring what = Wide(options.folder);
  std::wstring folder;
  if (CQuarantineStore::IsPath(what)) {
    folder = FullPath(what);
  } else {
    SManagedQuarantine found = CQuarantineStore(session.QuarantineRoot()).Find(what);
    if (!found.damaged.empty()) throw CHostError{exitUsage, found.damaged};
    folder = found.folder;
    CConsole::Out(L"Restoring the quarantine " + Quoted(found.name) + L".\n");
  }
  CQuarantine quarantine(folder, false);
  const size_t total = quarantine.Entries().size();
  if (total == 0) {
    CConsole::Out(L"Nothing to restore in " + Quoted(quarantine.Folder()) + L".\n");
    return exitOk;
  }
  CQuarantine::SRestoreResult result = quarantine.RestoreAll();
  for (const auto& f : result.failures)
    CConsole::Err(L"broom: not restored: " + Printable(f.entry.original) + L": " + Printable(f.reason) + L"\n");
  CConsole::Out(L"Restored " + Plural(result.files, L"file", L"files") + L" (" + FormatSize(result.bytes) + L").\n");
  const unsigned __int64 stay = total - result.files;
  if (!result.stopped.empty()) CConsole::Err(L"broom: " + Printable(result.stopped) + L"\n");
  if (IsCancelRequested()) {
    CConsole::Err(L"broom: cancelled; " + Plural(stay, L"file stays", L"files stay") + L" in quarantine\n");
    return exitCancelled;
  }
  if (stay > 0) {
    CConsole::Err(L"broom: " + Plural(stay, L"file stays", L"files stay") + L" in " + Quoted(quarantine.Folder()) +
                  L"; deal with the reasons above and run 'broom restore' again\n");
    return exitCleanFailures;
  }
  return exitOk;
}

int CmdQuarantineList(CSession& session, const SOptions& options) {
  CQuarantineStore store(session.QuarantineRoot());
  const std::vector<SManagedQuarantine> all = store.List();
  if (options.json) {
    nlohmann::json list = nlohmann::json::array();
    for (const SManagedQuarantine& q : all) {
      nlohmann::json entry = {{"name", Utf8(q.name)},     {"path", Utf8(q.folder)}, {"date", nullptr},
                              {"items", q.entries},       {"size", q.size},
                              {"damaged", q.damaged.empty() ? nlohmann::json() : nlohmann::json(Utf8(q.damaged))}};
      if (q.dated) {
        char date[32];
        snprintf(date, sizeof date, "%04u-%02u-%02uT%02u:%02u:%02u", q.date.wYear, q.date.wMonth, q.date.wDay,
                 q.date.wHour, q.date.wMinute, q.date.wSecond);
        entry["date"] = date;
      }
      list.push_back(entry);
    }
    CConsole::OutBytes(nlohmann::json{{"folder", Utf8(store.Root())}, {"quarantines", list}}.dump(2) + "\n");
    return exitOk;
  }
  if (all.empty()) {
    CConsole::Out(L"No quarantine in " + Quoted(store.Root()) + L".\n");
    return exitOk;
  }
  size_t width = 4;
  for (const SManagedQuarantine& q : all) width = std::max(width, q.name.size());
  std::wstring out = Pad(L"Name", width, false) + L"  " + Pad(L"Date", 16, false) + L"  " + Pad(L"Items", 7, true) +
                     L"  " + Pad(L"Size", 10, true) + L"\n";
  for (const SManagedQuarantine& q : all) {
    out += Pad(q.name, width, false) + L"  " + Pad(DateText(q), 16, false) + L"  ";
    out += q.damaged.empty() ? Pad(FormatCount(q.entries), 7, true) + L"  " + Pad(FormatSize(q.size), 10, true)
                             : L"damaged: " + Printable(q.damaged);
    out += L"\n";
  }
  CConsole::Out(out + L"In " + Quoted(store.Root()) + L"; 'broom restore latest' or 'broom restore NAME' puts one back.\n");
  return exitOk;
}

int CmdQuarantinePurge(CSession& session, const SOptions& options) {
  CQuarantineStore store(session.QuarantineRoot());
  std::vector<SManagedQuarantine> old;
  unsigned __int64 bytes = 0;
  for (const SManagedQuarantine& q : store.List()) {
    if (!q.dated || CQuarantineStore::AgeInDays(q.date) <= options.olderThan) continue;
    if (!q.damaged.empty()) {
      CConsole::Err(L"broom: kept " + Quoted(q.name) + L": its manifest is damaged, so what it holds is unknown\n");
      continue;
    }
    old.push_back(q);
    bytes += q.size;
  }
  if (old.empty()) {
    CConsole::Out(L"No quarantine is older than " + Plural(options.olderThan, L"day", L"days") + L".\n");
    return exitOk;
  }
  for (const SManagedQuarantine& q : old)
    CConsole::Out(L"  " + q.name + L"  " + Plural(q.entries, L"item", L"items") + L", " + FormatSize(q.size) + L"\n");
  const std::wstring what = Plural(old.size(), L"quarantine", L"quarantines") + L" (" + FormatSize(bytes) + L")";
  if (!options.yes && !Confirm(L"Delete " + what + L" for good?")) {
    CConsole::Out(L"Nothing was deleted.\n");
    return exitOk;
  }
  size_t deleted = 0;
  for (const SManagedQuarantine& q : old) {
    std::wstring reason;
    if (CQuarantine::DeleteFolder(q.folder, reason)) {
      ++deleted;
      continue;
    }
    CConsole::Err(L"broom: not deleted: " + Quoted(q.name) + L": " + Printable(reason) + L"\n");
  }
  CConsole::Out(L"Deleted " + Plural(deleted, L"quarantine", L"quarantines") + L".\n");
  return deleted == old.size() ? exitOk : exitCleanFailures;
}

}  // namespace host
