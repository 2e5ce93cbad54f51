// broom scan and broom clean: running items, the results table and JSON, and cleaning.
#include "host/Commands.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <memory>

#include "clean/CleanItems.h"
#include "host/Console.h"
#include "host/Quarantine.h"

namespace host {

namespace {

void PrintNotes(const std::vector<std::wstring>& notes) {
  for (const std::wstring& note : notes) CConsole::Err(L"broom: " + note + L"\n");
}

void PrintScanErrors(const SScanResults& results) {
  for (const SItemResult& r : results.items)
    for (const std::wstring& e : r.errors)
      CConsole::Err(L"broom: warning: an operation of '" + r.item.path + L"' failed: " + e + L"\n");
}

void PrintTable(const SScanResults& results, bool files) {
  std::wstring out;
  if (files) {
    for (const SItemResult& r : results.items) {
      if (r.hits.empty()) continue;
      out += r.item.path + L"\n";
      for (const SHit& hit : r.hits) out += L"  " + Pad(FormatSize(hit.size), 10, true) + L"  " + hit.path + L"\n";
    }
    if (!out.empty()) out += L"\n";
  }
  size_t width = 5;
  for (const SItemResult& r : results.items) width = std::max(width, r.item.path.size());
  out += Pad(L"Item", width, false) + L"  " + Pad(L"Files", 9, true) + L"  " + Pad(L"Size", 10, true) + L"\n";
  for (const SItemResult& r : results.items)
    out += Pad(r.item.path, width, false) + L"  " + Pad(FormatCount(r.files), 9, true) + L"  " +
           Pad(FormatSize(r.size), 10, true) + L"\n";
  out += Pad(L"Total", width, false) + L"  " + Pad(FormatCount(results.files), 9, true) + L"  " +
         Pad(FormatSize(results.size), 10, true) +
         (results.size >= 1024 ? L"  (" + Plural(results.size, L"byte", L"bytes") + L")" : std::wstring()) + L"\n";
  CConsole::Out(out);
}

void PrintJson(const SScanResults& results, bool files) {
  nlohmann::json items = nlohmann::json::array();
  for (const SItemResult& r : results.items) {
    nlohmann::json item = {{"path", Utf8(r.item.path)},
                           {"name", Utf8(std::wstring(r.item.group->GetName()))},
                           {"files", r.files},
                           {"size", r.size}};
    if (files) {
      nlohmann::json hits = nlohmann::json::array();
      for (const SHit& hit : r.hits) hits.push_back({{"path", Utf8(hit.path)}, {"size", hit.size}});
      item["hits"] = hits;
    }
    nlohmann::json errors = nlohmann::json::array();
    for (const std::wstring& e : r.errors) errors.push_back(Utf8(e));
    item["errors"] = errors;
    items.push_back(item);
  }
  nlohmann::json doc = {{"items", items},
                        {"total", {{"files", results.files}, {"size", results.size}}},
                        {"protected_skipped", results.protectedSkipped},
                        {"cancelled", results.cancelled}};
  CConsole::OutBytes(doc.dump(2) + "\n");
}

// What an item warns about (its tip: a winapp2 Warning=), before anything is cleaned.
void PrintWarnings(const SScanResults& results) {
  for (const SItemResult& r : results.items) {
    const wchar_t* tip = r.item.group->GetTip();
    if (r.files && tip && *tip) CConsole::Out(L"Warning for '" + r.item.path + L"': " + tip + L"\n");
  }
}

bool Confirm(const std::wstring& question) {
  CConsole::Err(question + L" [y/N] ");
  std::wstring answer;
  bool got = CConsole::ReadLine(answer);
  if (!got) CConsole::Err(L"\n");
  return got && (answer == L"y" || answer == L"Y" || answer == L"yes" || answer == L"YES" || answer == L"Yes");
}

}  // namespace

int CmdScan(CSession& session, const SOptions& options) {
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
  SScanResults results = session.Scan(items, ScanOptions(options, options.files ? keepPaths : keepTotals));
  PrintScanErrors(results);
  if (options.json)
    PrintJson(results, options.files);
  else
    PrintTable(results, options.files);
  if (results.cancelled) {
    CConsole::Err(L"broom: the scan was cancelled; the results above are incomplete\n");
    return exitCancelled;
  }
  return exitOk;
}

int CmdClean(CSession& session, const SOptions& options) {
  LoadDefinitions(session, options);
  session.LoadWhiteList();
  std::unique_ptr<CQuarantine> quarantine = OpenCleanQuarantine(session, options);

  std::vector<std::wstring> notes;
  std::vector<SItem> items = session.Select(WideList(options.items), true, notes);
  PrintNotes(notes);
  if (items.empty()) {
    CConsole::Out(L"Nothing to clean: no item is selected.\n");
    return exitOk;
  }
  session.BeginScanLog(L"clean");
  SScanResults results = session.Scan(items, ScanOptions(options, keepItems));
  PrintScanErrors(results);
  if (results.cancelled) {
    CConsole::Err(L"broom: cancelled during the scan; nothing was cleaned\n");
    return exitCancelled;
  }
  PrintTable(results, options.files);
  if (results.files == 0) {
    CConsole::Out(L"Nothing to clean.\n");
    return exitOk;
  }

  PrintWarnings(results);
  std::wstring what = Plural(results.files, L"file", L"files") + L" (" + FormatSize(results.size) + L")";
  if (!options.yes) {
    std::wstring question = quarantine ? L"Move " + what + L" to '" + quarantine->Folder() + L"'?"
                                       : L"Delete " + what + L" for good?";
    if (!Confirm(question)) {
      CConsole::Out(L"Nothing was cleaned.\n");
      return exitOk;
    }
  }

  unsigned __int64 done = 0, freed = 0, failed = 0, total = results.files, index = 0;
  bool draw = CConsole::ErrIsConsole();
  auto account = [&](const SHit& hit, DWORD result) {
    if (result == kCleanDone || result == kCleanAlternateRemoved) {
      ++done;
      freed += hit.size;
    } else {
      ++failed;
      CConsole::Err(L"broom: failed: " + Printable(hit.path) + L": " + ExplainResult(result) + L"\n");
    }
  };
  // Deletions go in runs (one trip to the engine's STA thread each);
  // cancellation is checked between runs.
  std::vector<const SHit*> run;
  std::vector<ICleanableItem*> runItems;
  std::vector<DWORD> runResults;
  auto flush = [&] {
    if (run.empty()) return;
    runResults.assign(run.size(), 0);
    CleanItems(runItems.data(), runItems.size(), runResults.data());
    for (size_t i = 0; i < run.size(); ++i) account(*run[i], runResults[i]);
    run.clear();
    runItems.clear();
  };
  for (SItemResult& r : results.items) {
    for (SHit& hit : r.hits) {
      if (IsCancelRequested()) break;
      ++index;
      if (draw)
        CConsole::Progress((quarantine ? L"Moving " : L"Cleaning ") + FormatCount(index) + L"/" + FormatCount(total) +
                           L"  " + hit.path);
      if (quarantine) {
        std::wstring refused = quarantine->CannotHold(hit.path);
        if (!refused.empty()) {
          ++failed;
          CConsole::Err(L"broom: failed: " + Printable(hit.path) + L": " + refused + L"\n");
        } else {
          SOperationSource source;
          account(hit, quarantine->Add(hit, r.item.path, session.SourceOf(hit, source) ? &source : nullptr));
        }
        continue;
      }
      run.push_back(&hit);
      runItems.push_back(hit.item.Get());
      if (run.size() == kCleanRun) flush();
    }
  }
  flush();
  CConsole::ClearProgress();

  std::wstring report = quarantine ? L"Moved " + Plural(done, L"file", L"files") + L" (" + FormatSize(freed) +
                                         L") to '" + quarantine->Folder() + L"'; 'broom restore' puts them back.\n"
                                   : L"Cleaned " + Plural(done, L"file", L"files") + L", freed " + FormatSize(freed) +
                                         (freed >= 1024 ? L" (" + Plural(freed, L"byte", L"bytes") + L")" : std::wstring()) +
                                         L".\n";
  CConsole::Out(report);
  if (IsCancelRequested()) {
    CConsole::Err(L"broom: cancelled; " + Plural(total - done - failed, L"file was", L"files were") +
                  L" left untouched\n");
    return exitCancelled;
  }
  if (failed) {
    CConsole::Err(L"broom: " + Plural(failed, L"file", L"files") +
                  L" could not be cleaned; close the programs using them and run the command again\n");
    return exitCleanFailures;
  }
  return exitOk;
}

}  // namespace host
