// broom scan and broom clean: running items, the results table and JSON, and cleaning.
#include "console/Commands.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <memory>

#include "app/CleanRun.h"
#include "app/Quarantine.h"
#include "app/Text.h"
#include "clean/ResultCodes.h"
#include "console/Console.h"
#include "core/Names.h"

namespace host {

namespace {

void PrintNotes(const std::vector<std::wstring>& notes) {
  for (const std::wstring& note : notes) CConsole::Err(L"broom: " + note + L"\n");
}

void PrintScanErrors(const SScanResults& results) {
  for (const SItemResult& r : results.items) {
    for (const std::wstring& e : r.errors)
      CConsole::Err(L"broom: warning: an operation of '" + r.item.path + L"' failed: " + e + L"\n");
    for (const std::wstring& n : r.notes) CConsole::Err(L"broom: note: '" + r.item.path + L"': " + n + L"\n");
  }
}

// "defs\system.xml:12: file C:\Windows\Temp\*.tmp", or empty when unknown.
std::wstring SourceText(const CSession& session, const SHit& hit) {
  SOperationSource source;
  if (!session.SourceOf(hit, source)) return std::wstring();
  return std::wstring(source.file.GetString()) + L":" + std::to_wstring(source.line) + L": " +
         source.kind.GetString() + L" " + source.text.GetString();
}

// Why a clean leaves an item whole: "chrome.exe is running".
std::wstring SkippedText(const SItemResult& r) {
  if (r.skipped != L"running") return L"the Recycle Bin is never quarantined";
  std::wstring images;
  for (const std::wstring& image : r.running) images += (images.empty() ? L"" : L", ") + image;
  return images + (r.running.size() == 1 ? L" is running" : L" are running");
}

std::wstring Mark(const SHit& hit) {
  if (!hit.refusal.IsEmpty()) return std::wstring(L"  [refused: ") + hit.refusal.GetString() + L"]";
  if (!hit.userFolder.IsEmpty()) return std::wstring(L"  [in your ") + hit.userFolder.GetString() + L"]";
  return std::wstring();
}

// "left out: saved (Deletes your saved data ...); name it or add --include saved"
std::wstring LeftOutText(const SLeftOut& left) {
  return std::wstring(L"left out: ") + CostName(left.cost) + L"; " + left.how;
}

void PrintTable(const CSession& session, const SScanResults& results, bool files,
                const std::vector<SLeftOut>& leftOut = {}) {
  std::wstring out;
  if (files) {
    for (const SItemResult& r : results.items) {
      if (r.hits.empty()) continue;
      out += r.item.path + L"\n";
      const IScanOperation* op = nullptr;
      for (const SHit& hit : r.hits) {
        // Each run of hits of one rule is headed by where the rule was written.
        if (hit.op != op || &hit == &r.hits.front()) {
          op = hit.op;
          std::wstring source = SourceText(session, hit);
          if (!source.empty()) out += L"  from " + Printable(source) + L"\n";
        }
        out += L"  " + Pad(FormatSize(hit.size), 10, true) + L"  " + Printable(hit.path) + Mark(hit) + L"\n";
      }
    }
    if (!out.empty()) out += L"\n";
  }
  size_t width = 5;
  for (const SItemResult& r : results.items) width = std::max(width, r.item.path.size());
  for (const SLeftOut& left : leftOut) width = std::max(width, left.item.path.size());
  out += Pad(L"Item", width, false) + L"  " + Pad(L"Files", 9, true) + L"  " + Pad(L"Size", 10, true) + L"\n";
  for (const SItemResult& r : results.items) {
    unsigned __int64 marked = 0;
    for (const SHit& hit : r.hits) marked += !hit.userFolder.IsEmpty();
    out += Pad(r.item.path, width, false) + L"  " + Pad(FormatCount(r.files), 9, true) + L"  " +
           Pad(FormatSize(r.size), 10, true);
    if (!r.refusal.empty()) out += L"  [refused: " + r.refusal + L"]";
    if (!r.skipped.empty()) out += L"  [skipped: " + SkippedText(r) + L"]";
    if (marked) out += L"  [" + Plural(marked, L"file", L"files") + L" in your own folders]";
    out += L"\n";
  }
  for (const SLeftOut& left : leftOut)
    out += Pad(left.item.path, width, false) + L"  " + Pad(L"-", 9, true) + L"  " + Pad(L"-", 10, true) + L"  [" +
           LeftOutText(left) + L"]\n";
  out += Pad(L"Total", width, false) + L"  " + Pad(FormatCount(results.files), 9, true) + L"  " +
         Pad(FormatSize(results.size), 10, true) +
         (results.size >= 1024 ? L"  (" + Plural(results.size, L"byte", L"bytes") + L")" : std::wstring()) + L"\n";
  CConsole::Out(out);
}

// What a clean made of a hit, for clean --json.
nlohmann::json Outcome(const SItemResult& r, const SHit& hit, bool moving) {
  if (!hit.refusal.IsEmpty() || !r.refusal.empty())
    return {{"outcome", "refused"}, {"result", nullptr},
            {"reason", Utf8(hit.refusal.IsEmpty() ? r.refusal : std::wstring(hit.refusal.GetString()))}};
  if (!hit.tried) return {{"outcome", "untouched"}, {"result", nullptr}};
  if (hit.failure.empty()) return {{"outcome", moving ? "moved" : "cleaned"}, {"result", hit.result}};
  return {{"outcome", "failed"}, {"result", hit.result}, {"reason", Utf8(hit.failure)}};
}

// The results of a clean's scan without what the guard keeps: what the table
// and the question count.
SScanResults Cleanable(const SScanResults& results) {
  SScanResults view = results;
  view.files = view.size = 0;
  for (SItemResult& r : view.items) {
    std::vector<SHit> kept;
    r.files = r.size = 0;
    if (r.refusal.empty())
      for (const SHit& hit : r.hits)
        if (hit.refusal.IsEmpty()) {
          ++r.files;
          r.size += hit.size;
          kept.push_back(hit);
        }
    r.hits.swap(kept);
    view.files += r.files;
    view.size += r.size;
  }
  return view;
}

void PrintJson(const CSession& session, const SScanResults& results, bool files,
               const std::vector<SLeftOut>& leftOut = {}, const SCleanReport* clean = nullptr, bool moving = false) {
  nlohmann::json items = nlohmann::json::array();
  for (const SItemResult& r : results.items) {
    nlohmann::json item = {{"path", Utf8(r.item.path)},
                           {"name", Utf8(std::wstring(r.item.group->GetName()))},
                           {"files", r.files},
                           {"size", r.size}};
    if (!r.refusal.empty()) item["refused"] = Utf8(r.refusal);
    nlohmann::json running = nlohmann::json::array();
    for (const std::wstring& image : r.running) running.push_back(Utf8(image));
    item["running"] = running;
    if (!r.skipped.empty()) item["skipped"] = Utf8(r.skipped);
    if (files) {
      nlohmann::json hits = nlohmann::json::array();
      for (const SHit& hit : r.hits) {
        nlohmann::json h = {{"path", Utf8(hit.path)}, {"size", hit.size}};
        SOperationSource source;
        if (session.SourceOf(hit, source))
          h["source"] = {{"file", Utf8(source.file)}, {"line", source.line}, {"kind", Utf8(source.kind)},
                         {"text", Utf8(source.text)}};
        if (!hit.refusal.IsEmpty()) h["refused"] = Utf8(hit.refusal);
        if (!hit.userFolder.IsEmpty()) h["user_folder"] = Utf8(hit.userFolder);
        if (clean) h.update(Outcome(r, hit, moving));
        hits.push_back(std::move(h));
      }
      item["hits"] = hits;
    }
    nlohmann::json errors = nlohmann::json::array();
    for (const std::wstring& e : r.errors) errors.push_back(Utf8(e));
    item["errors"] = errors;
    nlohmann::json notes = nlohmann::json::array();
    for (const std::wstring& n : r.notes) notes.push_back(Utf8(n));
    item["notes"] = notes;
    items.push_back(item);
  }
  nlohmann::json doc = {{"items", items},
                        {"total", {{"files", results.files}, {"size", results.size}}},
                        {"protected_skipped", results.protectedSkipped},
                        {"cancelled", results.cancelled}};
  nlohmann::json left = nlohmann::json::array();
  for (const SLeftOut& l : leftOut)
    left.push_back({{"path", Utf8(l.item.path)}, {"cost", Utf8(std::wstring(CostName(l.cost)))}, {"how", Utf8(l.how)}});
  doc["left_out"] = left;
  if (clean) {
    doc["cancelled"] = clean->cancelled;
    doc["cleaned"] = {{"files", clean->done}, {"size", clean->freed}};
    doc["failed"] = clean->failed;
    unsigned __int64 refused = 0;
    for (const SItemResult& r : results.items)
      for (const SHit& hit : r.hits) refused += !hit.refusal.IsEmpty() || !r.refusal.empty();
    doc["refused"] = refused;
    doc["untouched"] = clean->untouched;
  }
  CConsole::OutBytes(doc.dump(2) + "\n");
}

void PrintRefusals(const SGuardSummary& guard) {
  for (const SRefusal& refusal : guard.refusals)
    CConsole::Err(L"broom: refused: " +
                  (refusal.path.empty() ? L"the item '" + refusal.item + L"'" : Printable(refusal.path)) + L": " +
                  Printable(refusal.reason) + L"\n");
}

CBlastGuard MakeGuard(const SOptions& options) {
  CBlastGuard guard;
  if (options.runawayFiles)
    guard.SetRunawayLimits(options.runawayFiles, CBlastGuard::kDefaultRunawayBytes);
  return guard;
}

// Progress line and failure messages of broom clean.
class CConsoleClean : public ICleanObserver {
 public:
  CConsoleClean(bool moving, unsigned long cancelAfter) : m_moving(moving), m_cancelAfter(cancelAfter) {}
  bool IsCancelled() override {
    // a test's Ctrl+C after so many hits were taken
    if (m_cancelAfter && m_taken >= m_cancelAfter) RequestCancel();
    return IsCancelRequested();
  }
  void OnProgress(unsigned __int64 index, unsigned __int64 total, const std::wstring& path) override {
    ++m_taken;
    if (m_draw)
      CConsole::Progress((m_moving ? L"Moving " : L"Cleaning ") + FormatCount(index) + L"/" + FormatCount(total) +
                         L"  " + path);
  }
  void OnFailure(const std::wstring& path, const std::wstring& reason) override {
    CConsole::Err(L"broom: failed: " + Printable(path) + L": " + reason + L"\n");
  }

 private:
  bool m_moving;
  unsigned long m_cancelAfter;
  unsigned long m_taken = 0;
  bool m_draw = CConsole::ErrIsConsole();
};

// What an item warns about (its tip: a winapp2 Warning=), before anything is cleaned.
void PrintWarnings(const SScanResults& results) {
  for (const SItemResult& r : results.items) {
    const wchar_t* tip = r.item.group->GetTip();
    if (r.files && tip && *tip) CConsole::Out(L"Warning for '" + r.item.path + L"': " + tip + L"\n");
  }
}

// Left-out items when nothing else was selected, so the user learns how to take them.
void PrintLeftOut(const std::vector<SLeftOut>& leftOut) {
  for (const SLeftOut& left : leftOut) CConsole::Out(L"'" + left.item.path + L"': " + LeftOutText(left) + L"\n");
}

// With --yes a saved item is cleaned only when named one by one.
void KeepSavedNotNamed(const CSession& session, SSelection& selection) {
  std::vector<SItem> kept;
  for (const SItem& item : selection.items) {
    if (CostOf(session.Config(), item.group) == costSaved && !selection.Named(item.group))
      selection.leftOut.push_back(SLeftOut{item, costSaved, L"with --yes, name it one by one"});
    else
      kept.push_back(item);
  }
  selection.items = std::move(kept);
}

// Asks again, apart, for the items that delete saved data; a no keeps them.
void ConfirmSaved(const CSession& session, SScanResults& results) {
  std::wstring list;
  for (const SItemResult& r : results.items)
    if (r.files && r.refusal.empty() && CostOf(session.Config(), r.item.group) == costSaved)
      list += L"  " + r.item.path + L"\n";
  if (list.empty()) return;
  CConsole::Out(std::wstring(L"These items delete your saved data, which nothing brings back:\n") + list);
  if (Confirm(L"Delete the saved data of these items too?")) return;
  for (SItemResult& r : results.items)
    if (r.refusal.empty() && CostOf(session.Config(), r.item.group) == costSaved)
      r.refusal = L"kept: you chose not to delete its saved data";
  CConsole::Out(L"Those items are kept.\n");
}

// Once, when the scan log cannot be written (the Logs folder is not a
// folder or not writable); the command goes on without it.
void PrintLogFault(const CSession& session) {
  if (!session.LogFault().empty()) CConsole::Err(L"broom: warning: " + session.LogFault() + L"\n");
}

// What a cancelled clean left: the item it stopped in and what it never reached.
std::wstring CancelledText(const SCleanReport& report) {
  std::wstring text = L"cancelled";
  if (!report.partItem.empty())
    text += L"; '" + report.partItem + L"' was cleaned in part (" + FormatCount(report.partDone) + L" of " +
            Plural(report.partTotal, L"file", L"files") + L")";
  text += L"; " + Plural(report.untouched, L"file was", L"files were") + L" left untouched";
  if (report.untouchedItems)
    text += L", " + Plural(report.untouchedItems, L"item", L"items") + L" not begun";
  return text;
}

// The last line of a clean with failures: advice that fits what failed.
std::wstring FailedText(const CSession& session, const SScanResults& results, const SCleanReport& report) {
  unsigned __int64 own = 0, inUse = 0;
  for (const SItemResult& r : results.items)
    for (const SHit& hit : r.hits) {
      if (!hit.tried || hit.failure.empty()) continue;
      if (broom::IsAtOrBelow(hit.path, session.UserDataFolder()))
        ++own;
      else if ((hit.result & 0xFFFF) == ERROR_SHARING_VIOLATION || (hit.result & 0xFFFF) == ERROR_LOCK_VIOLATION ||
               hit.result == kTruncateOpenFailed || hit.result == kCleanFailed)
        ++inUse;
    }
  std::wstring text = Plural(report.failed, L"file", L"files") + L" could not be cleaned";
  if (own == report.failed) return text + L"; Broom itself holds them (its own log or data), so they stay";
  if (inUse) return text + L"; close the programs using them and run the command again";
  return text + L"; the reasons are above";
}

}  // namespace

int CmdScan(CSession& session, const SOptions& options) {
  BeginRunReport(options, L"scan");
  LoadDefinitions(session, options);
  session.LoadWhiteList();
  std::vector<std::wstring> notes;
  SSelection selection = session.SelectByCost(WideList(options.items), false, CostChoice(options), notes);
  const std::vector<SItem>& items = selection.items;
  PrintNotes(notes);
  if (items.empty() && !options.json) {
    PrintLeftOut(selection.leftOut);
    CConsole::Out(L"Nothing to scan: no item is selected.\n");
    return exitOk;
  }
  session.BeginScanLog(L"scan");
  PrintLogFault(session);
  SScanResults results = ScanWithProgress(session, items, ScanOptions(options, options.files ? keepPaths : keepTotals));
  RecordScanResults(results);
  PrintScanErrors(results);
  // The guard's marks need the hits; a scan of totals keeps none.
  if (options.files) ApplyGuard(session, MakeGuard(options), results, false);
  std::vector<SHolder> holders;
  const DWORD snapshot = FindRunning(session, results, holders);
  if (options.json)
    PrintJson(session, results, options.files, selection.leftOut);
  else
    PrintTable(session, results, options.files, selection.leftOut);
  PrintRunning(holders, snapshot);
  if (results.cancelled) {
    CConsole::Err(L"broom: cancelled; the results above are partial\n");
    return exitCancelled;
  }
  return exitOk;
}

int CmdClean(CSession& session, const SOptions& options) {
  BeginRunReport(options, L"clean");
  // what the organisation forbids is refused before anything is scanned
  if (options.overwrite && session.Policies().IsOn(EPolicy::disableOverwrite))
    throw CHostError{exitUsage, L"your organisation does not allow overwriting files (DisableOverwrite); nothing was "
                                L"cleaned: run without --overwrite"};
  if (options.closeApps && session.Policies().IsOn(EPolicy::disableCloseApps))
    throw CHostError{exitUsage, L"your organisation does not allow closing programs (DisableCloseApps); nothing was "
                                L"cleaned: run without --close-apps (the items of running programs are then skipped)"};
  LoadDefinitions(session, options);
  session.LoadWhiteList();
  PurgeByPolicy(session);
  std::unique_ptr<CQuarantine> quarantine = OpenCleanQuarantine(session, options);

  std::vector<std::wstring> notes;
  SSelection selection = session.SelectByCost(WideList(options.items), true, CostChoice(options), notes);
  if (options.yes) KeepSavedNotNamed(session, selection);
  const std::vector<SItem>& items = selection.items;
  PrintNotes(notes);
  if (items.empty()) {
    if (options.json) {
      const SCleanReport none;
      PrintJson(session, SScanResults(), true, selection.leftOut, &none);
    } else {
      PrintLeftOut(selection.leftOut);
      CConsole::Out(L"Nothing to clean: no item is selected.\n");
    }
    return exitOk;
  }
  session.BeginScanLog(L"clean");
  PrintLogFault(session);
  SScanResults results = ScanWithProgress(session, items, ScanOptions(options, keepItems));
  RecordScanResults(results);
  PrintScanErrors(results);
  if (results.cancelled) {
    CConsole::Err(L"broom: cancelled during the scan; nothing was cleaned\n");
    return exitCancelled;
  }
  SGuardSummary guard = ApplyGuard(session, MakeGuard(options), results, options.force);
  // One snapshot of the programs before the table; with --close-apps their
  // items wait until the programs were asked to close.
  std::vector<SHolder> holders;
  const DWORD snapshot = FindRunning(session, results, holders);
  if (snapshot != ERROR_SUCCESS) PrintRunning({}, snapshot);
  size_t skipped = quarantine ? SkipRecycleBinItems(results, guard) : 0;
  const bool closing = options.closeApps && !holders.empty();
  if (!closing) skipped += SkipRunningItems(results, guard, false);
  RecordGuard(guard);
  const SCleanReport noClean;
  // The table counts what will be cleaned; what the guard keeps is named apart.
  if (!options.json) PrintTable(session, Cleanable(results), options.files, selection.leftOut);
  if (guard.refusedFiles && !options.json)
    CConsole::Out(L"Not counted: " + Plural(guard.refusedFiles, L"file", L"files") + L" (" +
                  FormatSize(guard.refusedBytes) + L") the safety rules keep, each named below.\n");
  PrintRefusals(guard);
  if (guard.markedFiles && !options.json)
    CConsole::Out(Plural(guard.markedFiles, L"file lies", L"files lie") +
                  L" in your own folders (Desktop, Documents, Downloads, Pictures, Music, Videos); run with --files "
                  L"to see them.\n");
  // a running program's item left whole is a failure to clean; refusals alone have their own code
  const int refusedExit = skipped ? exitCleanFailures : guard.refusals.empty() ? exitOk : exitRefused;
  if (guard.allowedFiles == 0) {
    if (options.json)
      PrintJson(session, results, true, selection.leftOut, &noClean, quarantine != nullptr);
    else
      CConsole::Out(guard.refusals.empty() && !skipped ? L"Nothing to clean.\n"
                    : guard.refusals.empty()           ? L"Nothing was cleaned: every item found was skipped.\n"
                                                       : L"Nothing was cleaned: every file was refused.\n");
    return refusedExit;
  }
  if (!options.json) PrintWarnings(results);
  if (options.overwrite && !options.json)
    CConsole::Out(L"Overwriting: on SSDs, and on copy-on-write or compressed volumes, the drive may keep copies of "
                  L"the data that no overwrite reaches; whole-disk encryption (BitLocker) is the real protection "
                  L"there.\n");
  if (closing && !options.json) {
    std::wstring names;
    for (const SHolder& h : holders) names += (names.empty() ? L"" : L", ") + HolderTitle(h);
    CConsole::Out(L"Running now, asked to close before cleaning: " + names + L".\n");
  }

  std::wstring what = Plural(guard.allowedFiles, L"file", L"files") + L" (" + FormatSize(guard.allowedBytes) + L")";
  if (!options.yes && !options.scheduled) {
    std::wstring question = quarantine          ? L"Move " + what + L" to '" + quarantine->Folder() + L"'?"
                            : options.overwrite ? L"Overwrite and delete " + what + L" for good?"
                                                : L"Delete " + what + L" for good?";
    if (!Confirm(question)) {
      if (options.json)
        PrintJson(session, results, true, selection.leftOut, &noClean, quarantine != nullptr);
      else
        CConsole::Out(L"Nothing was cleaned.\n");
      return exitOk;
    }
    ConfirmSaved(session, results);
  }

  if (closing) {
    CloseHolders(holders, options.closeTimeout);
    // A new snapshot says which programs ended; the items of the others stay.
    const DWORD again = FindRunning(session, results, holders);
    if (again != ERROR_SUCCESS) PrintRunning({}, again);
    skipped += SkipRunningItems(results, guard, true);
  }

  CConsoleClean observer(quarantine != nullptr, options.cancelAfterCleaned);
  SCleanReport report = CleanHits(session, results, quarantine.get(), observer, options.overwrite);
  RecordClean(report, quarantine ? quarantine->Folder() : std::wstring());
  CConsole::ClearProgress();

  std::wstring done = quarantine ? L"Moved " + Plural(report.done, L"file", L"files") + L" (" +
                                       FormatSize(report.freed) + L") to '" + quarantine->Folder() +
                                       L"'; '" +
                                       (options.quarantine.empty() ? std::wstring(L"broom restore latest")
                                                                   : L"broom restore " + quarantine->Folder()) +
                                       L"' puts them back.\n"
                                 : L"Cleaned " + Plural(report.done, L"file", L"files") + L", freed " +
                                       FormatSize(report.freed) +
                                       (report.freed >= 1024 ? L" (" + Plural(report.freed, L"byte", L"bytes") + L")"
                                                             : std::wstring()) +
                                       L".\n";
  if (options.json)
    PrintJson(session, results, true, selection.leftOut, &report, quarantine != nullptr);
  else
    CConsole::Out(done);
  if (report.cancelled) {
    CConsole::Err(L"broom: " + CancelledText(report) + L"\n");
    return exitCancelled;
  }
  if (report.failed) {
    CConsole::Err(L"broom: " + FailedText(session, results, report) + L"\n");
    return exitCleanFailures;
  }
  if (!guard.refusals.empty())
    CConsole::Err(L"broom: " + Plural(guard.refusals.size(), L"refusal", L"refusals") +
                  L" above: those files stay; --force cleans items past the size limits, nothing cleans the rest\n");
  if (skipped) {
    CConsole::Err(L"broom: " + Plural(skipped, L"item was", L"items were") + L" skipped, as said above\n");
    return exitCleanFailures;
  }
  return refusedExit;
}

}  // namespace host
