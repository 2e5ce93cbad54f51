// broom scan and broom clean: running items, the results table and JSON, and cleaning.
#include "console/Commands.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <memory>

#include "app/CleanRun.h"
#include "app/Quarantine.h"
#include "app/Text.h"
#include "console/Console.h"

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

std::wstring Mark(const SHit& hit) {
  if (!hit.refusal.IsEmpty()) return std::wstring(L"  [refused: ") + hit.refusal.GetString() + L"]";
  if (!hit.userFolder.IsEmpty()) return std::wstring(L"  [in your ") + hit.userFolder.GetString() + L"]";
  return std::wstring();
}

void PrintTable(const CSession& session, const SScanResults& results, bool files) {
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
  out += Pad(L"Item", width, false) + L"  " + Pad(L"Files", 9, true) + L"  " + Pad(L"Size", 10, true) + L"\n";
  for (const SItemResult& r : results.items) {
    unsigned __int64 marked = 0;
    for (const SHit& hit : r.hits) marked += !hit.userFolder.IsEmpty();
    out += Pad(r.item.path, width, false) + L"  " + Pad(FormatCount(r.files), 9, true) + L"  " +
           Pad(FormatSize(r.size), 10, true);
    if (!r.refusal.empty()) out += L"  [refused: " + r.refusal + L"]";
    if (marked) out += L"  [" + Plural(marked, L"file", L"files") + L" in your own folders]";
    out += L"\n";
  }
  out += Pad(L"Total", width, false) + L"  " + Pad(FormatCount(results.files), 9, true) + L"  " +
         Pad(FormatSize(results.size), 10, true) +
         (results.size >= 1024 ? L"  (" + Plural(results.size, L"byte", L"bytes") + L")" : std::wstring()) + L"\n";
  CConsole::Out(out);
}

void PrintJson(const CSession& session, const SScanResults& results, bool files) {
  nlohmann::json items = nlohmann::json::array();
  for (const SItemResult& r : results.items) {
    nlohmann::json item = {{"path", Utf8(r.item.path)},
                           {"name", Utf8(std::wstring(r.item.group->GetName()))},
                           {"files", r.files},
                           {"size", r.size}};
    if (!r.refusal.empty()) item["refused"] = Utf8(r.refusal);
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
  explicit CConsoleClean(bool moving) : m_moving(moving) {}
  void OnProgress(unsigned __int64 index, unsigned __int64 total, const std::wstring& path) override {
    if (m_draw)
      CConsole::Progress((m_moving ? L"Moving " : L"Cleaning ") + FormatCount(index) + L"/" + FormatCount(total) +
                         L"  " + path);
  }
  void OnFailure(const std::wstring& path, const std::wstring& reason) override {
    CConsole::Err(L"broom: failed: " + Printable(path) + L": " + reason + L"\n");
  }

 private:
  bool m_moving;
  bool m_draw = CConsole::ErrIsConsole();
};

// What an item warns about (its tip: a winapp2 Warning=), before anything is cleaned.
void PrintWarnings(const SScanResults& results) {
  for (const SItemResult& r : results.items) {
    const wchar_t* tip = r.item.group->GetTip();
    if (r.files && tip && *tip) CConsole::Out(L"Warning for '" + r.item.path + L"': " + tip + L"\n");
  }
}

}  // namespace

int CmdScan(CSession& session, const SOptions& options) {
  BeginRunReport(options, L"scan");
  LoadDefinitions(session, options);
  session.LoadWhiteList();
  std::vector<std::wstring> notes;
  std::vector<SItem> items = session.Select(WideList(options.items), false, notes);
  PrintNotes(notes);
  if (items.empty() && !options.json) {
    CConsole::Out(L"Nothing to scan: no item is selected.\n");
    return exitOk;
  }
  session.BeginScanLog(L"scan");
  SScanResults results = ScanWithProgress(session, items, ScanOptions(options, options.files ? keepPaths : keepTotals));
  RecordScanResults(results);
  PrintScanErrors(results);
  // The guard's marks need the hits; a scan of totals keeps none.
  if (options.files) ApplyGuard(session, MakeGuard(options), results, false);
  if (options.json)
    PrintJson(session, results, options.files);
  else
    PrintTable(session, results, options.files);
  if (results.cancelled) {
    CConsole::Err(L"broom: cancelled; the results above are partial\n");
    return exitCancelled;
  }
  return exitOk;
}

int CmdClean(CSession& session, const SOptions& options) {
  BeginRunReport(options, L"clean");
  LoadDefinitions(session, options);
  session.LoadWhiteList();
  PurgeByPolicy(session);
  std::unique_ptr<CQuarantine> quarantine = OpenCleanQuarantine(session, options);

  std::vector<std::wstring> notes;
  std::vector<SItem> items = session.Select(WideList(options.items), true, notes);
  PrintNotes(notes);
  if (items.empty()) {
    CConsole::Out(L"Nothing to clean: no item is selected.\n");
    return exitOk;
  }
  session.BeginScanLog(L"clean");
  SScanResults results = ScanWithProgress(session, items, ScanOptions(options, keepItems));
  RecordScanResults(results);
  PrintScanErrors(results);
  if (results.cancelled) {
    CConsole::Err(L"broom: cancelled during the scan; nothing was cleaned\n");
    return exitCancelled;
  }
  SGuardSummary guard = ApplyGuard(session, MakeGuard(options), results, options.force);
  RecordGuard(guard);
  PrintTable(session, results, options.files);
  PrintRefusals(guard);
  if (guard.markedFiles)
    CConsole::Out(Plural(guard.markedFiles, L"file lies", L"files lie") +
                  L" in your own folders (Desktop, Documents, Downloads, Pictures, Music, Videos); run with --files "
                  L"to see them.\n");
  const int refusedExit = guard.refusals.empty() ? exitOk : exitCleanFailures;
  if (guard.allowedFiles == 0) {
    CConsole::Out(guard.refusals.empty() ? L"Nothing to clean.\n" : L"Nothing was cleaned: every file was refused.\n");
    return refusedExit;
  }
  PrintWarnings(results);

  std::wstring what = Plural(guard.allowedFiles, L"file", L"files") + L" (" + FormatSize(guard.allowedBytes) + L")";
  if (!options.yes && !options.scheduled) {
    std::wstring question = quarantine ? L"Move " + what + L" to '" + quarantine->Folder() + L"'?"
                                       : L"Delete " + what + L" for good?";
    if (!Confirm(question)) {
      CConsole::Out(L"Nothing was cleaned.\n");
      return exitOk;
    }
  }

  CConsoleClean observer(quarantine != nullptr);
  SCleanReport report = CleanHits(session, results, quarantine.get(), observer);
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
  CConsole::Out(done);
  if (report.cancelled) {
    CConsole::Err(L"broom: cancelled; " + Plural(report.untouched, L"file was", L"files were") +
                  L" left untouched\n");
    return exitCancelled;
  }
  if (report.failed) {
    CConsole::Err(L"broom: " + Plural(report.failed, L"file", L"files") +
                  L" could not be cleaned; close the programs using them and run the command again\n");
    return exitCleanFailures;
  }
  if (!guard.refusals.empty())
    CConsole::Err(L"broom: " + Plural(guard.refusals.size(), L"refusal", L"refusals") +
                  L" above: those files stay; --force cleans items past the size limits, nothing cleans the rest\n");
  return refusedExit;
}

}  // namespace host
