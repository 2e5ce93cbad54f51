// broom.exe: the console host of the cleaning engine.
#include <windows.h>
#include <objbase.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <string>
#include <vector>

#include "app/Text.h"
#include "console/Commands.h"
#include "console/Console.h"
#include "core/Handles.h"
#include "threads/MsgThreadSTA.h"

#ifndef BROOM_VERSION
#define BROOM_VERSION "0.0.0"
#endif

using namespace host;

namespace {

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
  // item names may start with '/' (a winapp2 entry does); options are --name only
  app.allow_windows_style_options(false);
  app.add_option("--defs", options.defs, "Folder of definition files (repeatable; default: defs beside broom.exe)")
      ->type_name("DIR")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option("--winapp2", options.winapp2,
                 "A winapp2.ini file whose entries join the definitions (repeatable; off by default, opt in by name)")
      ->type_name("FILE")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_flag("--no-log", options.noLog, "Do not write scan logs");

  CLI::App* list = app.add_subcommand("list", "Show the groups and items of the definitions with their states");
  list->add_flag("--json", options.json, "Print the whole tree as JSON, with every operation's source");
  CLI::App* scan = app.add_subcommand("scan", "Scan items (default: those on by default) and show what was found");
  scan->add_option("items", options.items, "Item or group paths, e.g. \"System/Temporary files\"");
  scan->add_flag("--files", options.files, "List every file found");
  scan->add_flag("--json", options.json, "Print the results as JSON");
  scan->add_option("--older-than", options.olderThan, "Only files last changed at least DAYS days ago")
      ->type_name("DAYS")
      ->check(CLI::Range(1ul, 36500ul));
  scan->add_option("--cancel-after-files", options.cancelAfterFiles)->group("");

  CLI::App* clean = app.add_subcommand("clean", "Scan, confirm, then delete what was found (or move it aside)");
  clean->add_option("items", options.items, "Item or group paths (default: those on by default for cleaning)");
  clean->add_flag("--files", options.files, "List every file found before asking");
  clean->add_flag("-y,--yes", options.yes, "Do not ask for confirmation");
  CLI::Option* quarantine =
      clean
          ->add_option("--quarantine", options.quarantine,
                       "Move the hits aside instead of deleting them: into a new managed quarantine, or into DIR "
                       "(a path with a backslash: C:\\q, .\\q)")
          ->type_name("[DIR]")
          ->expected(0, 1);
  clean->add_option("--older-than", options.olderThan, "Only files last changed at least DAYS days ago")
      ->type_name("DAYS")
      ->check(CLI::Range(1ul, 36500ul));
  clean->add_flag("--force", options.force,
                  "Clean items that found more than 100,000 files or 20 GB (other refusals stay)");
  clean->add_option("--cancel-after-files", options.cancelAfterFiles)->group("");
  clean->add_option("--runaway-files", options.runawayFiles)->group("");

  CLI::App* explain = app.add_subcommand(
      "explain", "Show which items and rules would take a file, or why none would (protected, too new, no match)");
  explain->add_option("PATH", options.path, "A file or folder")->required();
  explain->add_option("--older-than", options.olderThan, "As for scan and clean")
      ->type_name("DAYS")
      ->check(CLI::Range(1ul, 36500ul));

  CLI::App* restore = app.add_subcommand("restore", "Put the hits of a quarantine back where they were");
  restore
      ->add_option("QUARANTINE", options.folder,
                   "latest, a name from 'broom quarantine list', or a folder given to clean --quarantine (a path "
                   "with a backslash: C:\\q, .\\q)")
      ->required();
  CLI::App* quarantines = app.add_subcommand("quarantine", "Work with the managed quarantines");
  quarantines->require_subcommand(1);
  CLI::App* quarantineList =
      quarantines->add_subcommand("list", "Show each managed quarantine, newest first: name, date, items and size");
  quarantineList->add_flag("--json", options.json, "Print the list as JSON");
  CLI::App* quarantinePurge =
      quarantines->add_subcommand("purge", "Delete the managed quarantines older than DAYS for good");
  quarantinePurge->add_option("--older-than", options.olderThan, "Age in days (by the date in the name)")
      ->type_name("DAYS")
      ->required();
  quarantinePurge->add_flag("-y,--yes", options.yes, "Do not ask for confirmation");
  CLI::App* protect = app.add_subcommand(
      "protect", "Protect a file, folder or registry key (HKCU\\Software\\Vendor) from every scan and clean");
  protect->add_option("PATH", options.path, "File, folder or registry key")->required();
  CLI::App* unprotect = app.add_subcommand("unprotect", "Remove a path from the protected list");
  unprotect->add_option("PATH", options.path, "A path listed by 'broom protected'")->required();
  CLI::App* listProtected = app.add_subcommand("protected", "Show the protected paths");
  CLI::App* winapp2 = app.add_subcommand("winapp2", "Work with winapp2.ini files");
  winapp2->require_subcommand(1);
  CLI::App* winapp2Check = winapp2->add_subcommand(
      "check", "Read a winapp2.ini file: its counts and every line that cannot be used (exit code 1 when any)");
  winapp2Check->add_option("FILE", options.file, "The winapp2.ini file")->required();
  winapp2Check->add_flag("--json", options.json, "Print the report as JSON");

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
    CConsole::Err(L"broom: " + Printable(Wide(what)) + L"; run 'broom --help' for usage\n");
    return exitUsage;
  }

  options.quarantineGiven = quarantine->count() > 0;

  CSession session;
  session.Start(options.noLog);
  if (list->parsed()) return CmdList(session, options);
  if (scan->parsed()) return CmdScan(session, options);
  if (clean->parsed()) return CmdClean(session, options);
  if (restore->parsed()) return CmdRestore(session, options);
  if (quarantineList->parsed()) return CmdQuarantineList(session, options);
  if (quarantinePurge->parsed()) return CmdQuarantinePurge(session, options);
  if (protect->parsed()) return CmdProtect(session, options);
  if (unprotect->parsed()) return CmdUnprotect(session, options);
  if (listProtected->parsed()) return CmdProtected(session);
  if (winapp2Check->parsed()) return CmdWinapp2Check(options);
  if (explain->parsed()) return CmdExplain(session, options);
  return exitUsage;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  CConsole::Init();
  CConsole::InstallCancelHandler();
  // Cleaning falls back to a COM server on this thread.
  HRESULT hr = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  int code = exitUsage;
  {
    broom::unique_couninitialize com(SUCCEEDED(hr));
    try {
      code = Run(argc, argv);
    } catch (const CHostError& e) {
      // Messages quote arguments and file contents: control characters in
      // them are shown, never written.
      CConsole::Err(L"broom: " + Printable(e.message) + L"\n");
      code = e.code;
    } catch (const std::exception& e) {
      CConsole::Err(L"broom: " + Printable(Wide(e.what())) + L"\n");
      code = exitUsage;
    }
    if (CXmlConfigGlobal::IsRunning()) CXmlConfigGlobal::Shutdown();
  }
  return code;
}
