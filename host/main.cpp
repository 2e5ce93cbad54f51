// broom.exe: the console host of the cleaning engine.
#include <windows.h>
#include <objbase.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "core/Handles.h"
#include "host/Console.h"
#include "host/Quarantine.h"
#include "host/Session.h"
#include "threads/MsgThreadSTA.h"

#ifndef BROOM_VERSION
#define BROOM_VERSION "0.0.0"
#endif

using namespace host;

namespace {

struct SOptions {
  std::vector<std::string> defs;
  bool noLog = false;
  std::vector<std::string> items;
  bool files = false;
  bool json = false;
  bool yes = false;
  std::string quarantine;
  std::string folder;  // restore
  std::string path;    // protect, unprotect
  unsigned long cancelAfterFiles = 0;  // hidden: simulates Ctrl+C after that many files
};

std::wstring Pad(const std::wstring& text, size_t width, bool right) {
  if (text.size() >= width) return text;
  std::wstring fill(width - text.size(), L' ');
  return right ? fill + text : text + fill;
}

std::wstring Plural(unsigned __int64 n, const wchar_t* one, const wchar_t* many) {
  return FormatCount(n) + L" " + (n == 1 ? one : many);
}

std::vector<std::wstring> WideList(const std::vector<std::string>& list) {
  std::vector<std::wstring> out;
  for (const std::string& s : list) out.push_back(Wide(s));
  return out;
}

void LoadDefinitions(CSession& session, const SOptions& options) {
  std::vector<std::wstring> folders;
  for (const std::wstring& folder : WideList(options.defs)) folders.push_back(FullPath(folder));
  if (folders.empty()) folders.push_back(ExeFolder() + L"\\defs");
  session.LoadDefinitions(folders);
}

// ---- list ----

std::wstring StateText(const CScanGroup* group) {
  std::vector<std::wstring> parts;
  if (!IsEnabled(group)) parts.push_back(L"off: not on this PC");
  parts.push_back(IsOn(group->IsDefaultScan()) ? L"scan" : L"not scanned");
  parts.push_back(IsOn(group->IsDefaultClean()) ? L"clean" : L"not cleaned");
  if (IsOn(group->IsSafe())) parts.push_back(L"safe");
  if (IsOn(group->GetQScan())) parts.push_back(L"quick scan");
  int ops = group->GetScanOpCount();
  parts.push_back(Plural(static_cast<unsigned>(ops), L"operation", L"operations"));
  std::wstring text;
  for (const std::wstring& p : parts) text += (text.empty() ? L"" : L", ") + p;
  return L"[" + text + L"]";
}

void ListGroup(const CScanGroup* group, int depth, std::wstring& out, unsigned& items) {
  std::wstring indent(static_cast<size_t>(depth) * 2, L' ');
  std::wstring line = indent + group->GetName();
  if (group->HasScanOps()) {
    ++items;
    line += L"  " + StateText(group);
  }
  out += line + L"\n";
  const wchar_t* desc = group->GetDescription();
  if (desc && *desc) out += indent + L"    " + desc + L"\n";
  CRefPtr<TIteratorIface<CScanGroup>> it;
  group->GetChildren(it);
  for (; it && !it->AtEnd(); it->Next()) ListGroup(it->Current(), depth + 1, out, items);
}

int CmdList(CSession& session, const SOptions& options) {
  LoadDefinitions(session, options);
  std::wstring out;
  unsigned items = 0, groups = 0;
  CRefPtr<TIteratorIface<CScanGroup>> it;
  session.Config()->GetGroups(it);
  for (; it && !it->AtEnd(); it->Next()) {
    ListGroup(it->Current(), 0, out, items);
    ++groups;
  }
  std::vector<std::wstring> notes;
  size_t byDefault = session.Select({}, false, notes).size();
  out += L"\n" + Plural(items, L"item", L"items") + L" in " + Plural(groups, L"group", L"groups") + L"; " +
         FormatCount(byDefault) + L" scanned by default.\n";
  CConsole::Out(out);
  return exitOk;
}

// ---- scan ----

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
    out += Pad(r.item.path, width, false) + L"  " + Pad(FormatCount(r.hits.size()), 9, true) + L"  " +
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
                           {"files", r.hits.size()},
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
  SScanResults results = session.Scan(items, options.cancelAfterFiles);
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

// ---- clean ----

bool Confirm(const std::wstring& question) {
  CConsole::Err(question + L" [y/N] ");
  std::wstring answer;
  bool got = CConsole::ReadLine(answer);
  if (!got) CConsole::Err(L"\n");
  return got && (answer == L"y" || answer == L"Y" || answer == L"yes" || answer == L"YES" || answer == L"Yes");
}

int CmdClean(CSession& session, const SOptions& options) {
  LoadDefinitions(session, options);
  session.LoadWhiteList();
  std::unique_ptr<CQuarantine> quarantine;
  if (!options.quarantine.empty()) {
    std::wstring folder = FullPath(Wide(options.quarantine));
    quarantine.reset(new CQuarantine(folder, true));
    // Never scan what has already been put aside.
    session.WhiteList().SafeGuardPath(folder.c_str(), 0x1);
  }

  std::vector<std::wstring> notes;
  std::vector<SItem> items = session.Select(WideList(options.items), true, notes);
  PrintNotes(notes);
  if (items.empty()) {
    CConsole::Out(L"Nothing to clean: no item is selected.\n");
    return exitOk;
  }
  session.BeginScanLog(L"clean");
  SScanResults results = session.Scan(items, options.cancelAfterFiles);
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
  for (SItemResult& r : results.items) {
    for (SHit& hit : r.hits) {
      if (IsCancelRequested()) break;
      ++index;
      if (draw)
        CConsole::Progress((quarantine ? L"Moving " : L"Cleaning ") + FormatCount(index) + L"/" + FormatCount(total) +
                           L"  " + hit.path);
      DWORD result = quarantine ? quarantine->Add(hit) : hit.item->Clean(nullptr, nullptr);
      if (result == kCleanDone || result == kCleanAlternateRemoved) {
        ++done;
        freed += hit.size;
      } else {
        ++failed;
        CConsole::Err(L"broom: failed: " + hit.path + L": " + ExplainResult(result) + L"\n");
      }
    }
  }
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

int CmdRestore(const SOptions& options) {
  CQuarantine quarantine(FullPath(Wide(options.folder)), false);
  if (quarantine.Entries().empty()) {
    CConsole::Out(L"Nothing to restore in '" + quarantine.Folder() + L"'.\n");
    return exitOk;
  }
  unsigned __int64 files = 0, bytes = 0;
  auto failures = quarantine.RestoreAll(files, bytes);
  for (const auto& f : failures)
    CConsole::Err(L"broom: not restored: " + f.entry.original + L": " + f.reason + L"\n");
  CConsole::Out(L"Restored " + Plural(files, L"file", L"files") + L" (" + FormatSize(bytes) + L").\n");
  if (IsCancelRequested()) {
    CConsole::Err(L"broom: cancelled; the rest stays in quarantine\n");
    return exitCancelled;
  }
  if (!failures.empty()) {
    CConsole::Err(L"broom: " + Plural(failures.size(), L"file stays", L"files stay") + L" in '" +
                  quarantine.Folder() + L"'; clear the original places and run 'broom restore' again\n");
    return exitCleanFailures;
  }
  return exitOk;
}

// ---- whitelist ----

bool IsListed(CSession& session, const std::wstring& path) {
  std::wstring upper = path;
  CWhiteListTree::UpperCase(&upper[0], static_cast<int>(upper.size()));
  CRefPtr<IConstTArray<CString>> list = session.WhiteList().SaveToArray(0x1);
  if (!list) return false;
  for (const CString& listed : list->GetArray())
    if (upper == listed.GetString()) return true;
  return false;
}

int CmdProtect(CSession& session, const SOptions& options) {
  session.LoadWhiteList();
  std::wstring path = FullPath(Wide(options.path));
  if (IsListed(session, path)) {
    CConsole::Out(L"'" + path + L"' is already protected.\n");
    return exitOk;
  }
  session.WhiteList().SafeGuardPath(path.c_str(), 0x1);
  session.SaveWhiteList();
  CConsole::Out(L"Protected '" + path + L"': scans and cleans leave it and everything below it alone.\n");
  return exitOk;
}

int CmdUnprotect(CSession& session, const SOptions& options) {
  session.LoadWhiteList();
  std::wstring path = FullPath(Wide(options.path));
  if (!IsListed(session, path))
    throw CHostError{exitUsage, L"'" + path + L"' is not on the protected list; run 'broom protected' to see it"};
  session.WhiteList().RemovePath(path.c_str(), 0x1);
  session.SaveWhiteList();
  std::wstring out = L"'" + path + L"' is no longer protected.\n";
  if (session.WhiteList().CheckProtection(path.c_str()) & 0x1)
    out += L"It stays protected through a protected folder above it.\n";
  CConsole::Out(out);
  return exitOk;
}

int CmdProtected(CSession& session) {
  session.LoadWhiteList();
  CRefPtr<IConstTArray<CString>> list = session.WhiteList().SaveToArray(0x1);
  if (!list || list->GetArray().empty()) {
    CConsole::Out(L"No path is protected.\n");
    return exitOk;
  }
  std::wstring out;
  for (const CString& listed : list->GetArray()) out += std::wstring(listed.GetString()) + L"\n";
  CConsole::Out(out);
  return exitOk;
}

bool IsCommand(const CLI::App& app, const std::string& name) {
  for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; }))
    if (sub->check_name(name)) return true;
  return false;
}

int Run(int argc, wchar_t** argv) {
  CLI::App app{"broom: finds and removes the leftovers of Windows and its programs", "broom"};
  SOptions options;
  app.set_version_flag("--version", "broom " BROOM_VERSION);
  app.require_subcommand(1);
  app.fallthrough();
  app.add_option("--defs", options.defs, "Folder of definition files (repeatable; default: defs beside broom.exe)")
      ->type_name("DIR")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_flag("--no-log", options.noLog, "Do not write scan logs");

  CLI::App* list = app.add_subcommand("list", "Show the groups and items of the definitions with their states");
  CLI::App* scan = app.add_subcommand("scan", "Scan items (default: those on by default) and show what was found");
  scan->add_option("items", options.items, "Item or group paths, e.g. \"System/Temporary files\"");
  scan->add_flag("--files", options.files, "List every file found");
  scan->add_flag("--json", options.json, "Print the results as JSON");
  scan->add_option("--cancel-after-files", options.cancelAfterFiles)->group("");

  CLI::App* clean = app.add_subcommand("clean", "Scan, confirm, then delete what was found (or move it aside)");
  clean->add_option("items", options.items, "Item or group paths (default: those on by default for cleaning)");
  clean->add_flag("--files", options.files, "List every file found before asking");
  clean->add_flag("-y,--yes", options.yes, "Do not ask for confirmation");
  clean->add_option("--quarantine", options.quarantine, "Move the files into DIR instead of deleting them")
      ->type_name("DIR");
  clean->add_option("--cancel-after-files", options.cancelAfterFiles)->group("");

  CLI::App* restore = app.add_subcommand("restore", "Move the files of a quarantine folder back where they were");
  restore->add_option("DIR", options.folder, "The folder given to clean --quarantine")->required();
  CLI::App* protect = app.add_subcommand("protect", "Protect a file or folder from every scan and clean");
  protect->add_option("PATH", options.path, "File or folder")->required();
  CLI::App* unprotect = app.add_subcommand("unprotect", "Remove a path from the protected list");
  unprotect->add_option("PATH", options.path, "A path listed by 'broom protected'")->required();
  CLI::App* listProtected = app.add_subcommand("protected", "Show the protected paths");

  // CLI11 takes UTF-8 arguments in reverse order.
  std::vector<std::string> args;
  for (int i = argc - 1; i >= 1; --i) args.push_back(Utf8(std::wstring(argv[i])));
  const std::string first = args.empty() ? std::string() : args.back();
  try {
    app.parse(args);
  } catch (const CLI::CallForHelp&) {
    CConsole::OutBytes(app.help());
    return exitOk;
  } catch (const CLI::CallForAllHelp&) {
    CConsole::OutBytes(app.help("", CLI::AppFormatMode::All));
    return exitOk;
  } catch (const CLI::CallForVersion& e) {
    CConsole::OutBytes(std::string(e.what()) + "\n");
    return exitOk;
  } catch (const CLI::ParseError& e) {
    std::string what = e.what();
    // A first word that is neither an option nor a command reads better as such.
    if (!first.empty() && first[0] != '-' && !IsCommand(app, first)) what = "unknown command '" + first + "'";
    std::replace(what.begin(), what.end(), '\n', ' ');
    CConsole::Err(L"broom: " + Wide(what) + L"; run 'broom --help' for usage\n");
    return exitUsage;
  }

  CSession session;
  session.Start(options.noLog);
  if (list->parsed()) return CmdList(session, options);
  if (scan->parsed()) return CmdScan(session, options);
  if (clean->parsed()) return CmdClean(session, options);
  if (restore->parsed()) return CmdRestore(options);
  if (protect->parsed()) return CmdProtect(session, options);
  if (unprotect->parsed()) return CmdUnprotect(session, options);
  if (listProtected->parsed()) return CmdProtected(session);
  return exitUsage;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  CConsole::Init();
  InstallCancelHandler();
  // Cleaning falls back to a COM server on this thread.
  HRESULT hr = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  int code = exitUsage;
  {
    broom::unique_couninitialize com(SUCCEEDED(hr));
    try {
      code = Run(argc, argv);
    } catch (const CHostError& e) {
      CConsole::Err(L"broom: " + e.message + L"\n");
      code = e.code;
    } catch (const std::exception& e) {
      CConsole::Err(L"broom: " + Wide(e.what()) + L"\n");
      code = exitUsage;
    }
    if (CXmlConfigGlobal::IsRunning()) CXmlConfigGlobal::Shutdown();
  }
  return code;
}
