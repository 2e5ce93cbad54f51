// broom.exe: the console host of the cleaning engine.
#include <windows.h>
#include <objbase.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "app/PolicySchedule.h"
#include "app/ProfileRun.h"
#include "app/Text.h"
#include "app/Winapp2Update.h"
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

// The items to run and --files, which scan and clean take first.
void AddItems(CLI::App& command, SOptions& options, const char* items, const char* files) {
  command.add_option("items", options.items, items);
  command.add_flag("--files", options.files, files);
}

void AddOlderThan(CLI::App& command, SOptions& options, const char* help) {
  command.add_option("--older-than", options.olderThan, help)->type_name("DAYS")->check(CLI::Range(1ul, 36500ul));
}

// --include sign-in,saved: the costly items a named group brings along.
void AddInclude(CLI::App& command, SOptions& options) {
  command
      .add_option("--include", options.include,
                  "Also take a group's sign-in or saved items (repeatable or a comma list; they are taken "
                  "otherwise only when named one by one)")
      ->type_name("sign-in|saved")
      ->delimiter(',')
      ->allow_extra_args(false)
      ->check(CLI::IsMember({"sign-in", "saved"}));
}

// --all-users: every person's profile, each with its own folders and registry.
void AddAllUsers(CLI::App& command, SOptions& options) {
  command.add_flag("--all-users", options.allUsers,
                   "Run for every person's profile of the PC, each with that user's own folders, registry, "
                   "protected list and cookie keep list (administrators only)");
}

// One command of broom: the command it belongs to (null at the top), its
// name and help, the options it takes and what runs it. The order is the
// order of the help.
struct SCommand {
  const char* group;
  const char* name;
  const char* help;
  void (*options)(CLI::App& command, SOptions& options);
  int (*run)(CSession& session, const SOptions& options);
};

const std::pair<const char*, const char*> kGroups[] = {
    {"quarantine", "Work with the managed quarantines"},
    {"winapp2", "Work with winapp2.ini files"},
    {"cookies", "The sites that hold cookies, and the sites whose cookies a clean keeps"},
};

const SCommand kCommands[] = {
    {nullptr, "list", "Show the groups and items of the definitions with their states",
     [](CLI::App& c, SOptions& o) {
       c.add_flag("--json", o.json, "Print the whole tree as JSON, with every operation's source");
     },
     CmdList},
    {nullptr, "scan", "Scan items (default: those on by default) and show what was found",
     [](CLI::App& c, SOptions& o) {
       AddItems(c, o, "Item or group paths, e.g. \"System/Temporary files\"", "List every file found");
       c.add_flag("--json", o.json, "Print the results as JSON");
       AddOlderThan(c, o, "Only files last changed at least DAYS days ago");
       AddInclude(c, o);
       c.add_option("--cancel-after-files", o.cancelAfterFiles)->group("");
       c.add_option("--report", o.report, "Append a JSON line saying what the scan found to FILE")->type_name("FILE");
       AddAllUsers(c, o);
     },
     CmdScan},
    {nullptr, "clean", "Scan, confirm, then delete what was found (or move it aside)",
     [](CLI::App& c, SOptions& o) {
       AddItems(c, o, "Item or group paths (default: those on by default for cleaning)",
                "List every file found before asking");
       c.add_flag("-y,--yes", o.yes, "Do not ask for confirmation");
       c.add_option("--quarantine", o.quarantine,
                    "Move the hits aside instead of deleting them: into a new managed quarantine, or into DIR "
                    "(a path with a backslash: C:\\q, .\\q)")
           ->type_name("[DIR]")
           ->expected(0, 1);
       AddOlderThan(c, o, "Only files last changed at least DAYS days ago");
       c.add_flag("--force", o.force, "Clean items that found more than 100,000 files or 20 GB (other refusals stay)");
       AddInclude(c, o);
       c.add_option("--cancel-after-files", o.cancelAfterFiles)->group("");
       c.add_option("--runaway-files", o.runawayFiles)->group("");
       c.add_flag("--json", o.json, "Print the results as JSON, as scan --json does, with what became of each hit");
       c.add_option("--cancel-after-cleaned", o.cancelAfterCleaned)->group("");
       c.add_flag("--overwrite", o.overwrite,
                  "Overwrite each file's contents with zeros before deleting it (not with --quarantine)")
           ->excludes("--quarantine");
       c.add_flag("--close-apps", o.closeApps,
                  "Ask the running programs that hold items to close (as a user would), wait, then clean");
       c.add_option("--close-timeout", o.closeTimeout, "How long --close-apps waits for them (default 15)")
           ->type_name("SECONDS")
           ->check(CLI::Range(1ul, 3600ul));
       c.add_option("--report", o.report, "Append a JSON line saying what the clean did to FILE")->type_name("FILE");
       c.add_flag("--scheduled", o.scheduled,
                  "Run as the scheduled task does: never ask, and append the report line to Logs\\runs.jsonl in "
                  "the data folder (or --report FILE)");
       AddAllUsers(c, o);
     },
     CmdClean},
    {nullptr, "explain",
     "Show which items and rules would take a file, or why none would (protected, too new, no match)",
     [](CLI::App& c, SOptions& o) {
       c.add_option("PATH", o.path, "A file or folder")->required();
       AddOlderThan(c, o, "As for scan and clean");
     },
     CmdExplain},
    {nullptr, "restore", "Put the hits of a quarantine back where they were",
     [](CLI::App& c, SOptions& o) {
       c.add_option("QUARANTINE", o.folder,
                    "latest, a name from 'broom quarantine list', or a folder given to clean --quarantine (a path "
                    "with a backslash: C:\\q, .\\q)")
           ->required();
     },
     CmdRestore},
    {"quarantine", "list", "Show each managed quarantine, newest first: name, date, items and size",
     [](CLI::App& c, SOptions& o) { c.add_flag("--json", o.json, "Print the list as JSON"); }, CmdQuarantineList},
    {"quarantine", "purge", "Delete the managed quarantines older than DAYS for good",
     [](CLI::App& c, SOptions& o) {
       c.add_option("--older-than", o.olderThan, "Age in days (by the date in the name)")->type_name("DAYS")->required();
       c.add_flag("-y,--yes", o.yes, "Do not ask for confirmation");
     },
     CmdQuarantinePurge},
    {nullptr, "protect", "Protect a file, folder or registry key (HKCU\\Software\\Vendor) from every scan and clean",
     [](CLI::App& c, SOptions& o) { c.add_option("PATH", o.path, "File, folder or registry key")->required(); },
     CmdProtect},
    {nullptr, "unprotect", "Remove a path from the protected list",
     [](CLI::App& c, SOptions& o) { c.add_option("PATH", o.path, "A path listed by 'broom protected'")->required(); },
     CmdUnprotect},
    {nullptr, "protected", "Show the protected paths", [](CLI::App&, SOptions&) {}, CmdProtected},
    {"winapp2", "check",
     "Read a winapp2.ini file: its counts and every line that cannot be used (exit code 1 when any)",
     [](CLI::App& c, SOptions& o) {
       c.add_option("FILE", o.file, "The winapp2.ini file")->required();
       c.add_flag("--json", o.json, "Print the report as JSON");
     },
     CmdWinapp2Check},
    {nullptr, "policy", "Show the policies your organisation set for Broom and where each came from",
     [](CLI::App& c, SOptions& o) { c.add_flag("--json", o.json, "Print the policies as JSON"); }, CmdPolicy},
    {nullptr, "schedule",
     "Clean on a schedule: 'schedule daily|weekly|monthly [--at HH:MM] [ITEM...]' registers the task, "
     "'schedule off' removes it, 'schedule' alone shows it",
     [](CLI::App& c, SOptions& o) {
       c.add_option("WHEN", o.schedule,
                    "daily, weekly or monthly, then the items to clean (default: those on by default for cleaning); "
                    "off");
       c.add_option("--at", o.at, "The local time of day to clean at (default 12:00)")->type_name("HH:MM");
     },
     CmdSchedule},
    {"winapp2", "update",
     "Download the current winapp2.ini into the data folder, the copy before kept as Winapp2.ini.previous",
     [](CLI::App& c, SOptions& o) {
       c.add_option("URL", o.url, "Where to download it from (default: " + Utf8(std::wstring(kWinapp2Url)) + ")");
       c.add_option("--timeout", o.timeoutSeconds, "Seconds each wait may last")
           ->type_name("SECONDS")
           ->check(CLI::Range(1ul, 3600ul));
     },
     CmdWinapp2Update},
    {"cookies", "list", "Show every site that holds cookies, per browser and profile, the kept ones marked",
     [](CLI::App& c, SOptions& o) { c.add_flag("--json", o.json, "Print the sites as JSON"); }, CmdCookiesList},
    {"cookies", "keep", "Keep the cookies of these sites and their subdomains when cookies are cleaned",
     [](CLI::App& c, SOptions& o) { c.add_option("SITE", o.sites, "A host name: example.com")->required(); },
     CmdCookiesKeep},
    {"cookies", "unkeep", "Take sites off the keep list",
     [](CLI::App& c, SOptions& o) { c.add_option("SITE", o.sites, "A site on the keep list")->required(); },
     CmdCookiesUnkeep},
};

// The command a group stands for, made when its first command is.
CLI::App* Group(CLI::App& app, const std::string& name) {
  for (CLI::App* made : app.get_subcommands([&](CLI::App* sub) { return sub->get_name() == name; }))
    return made;
  for (const auto& group : kGroups) {
    if (name != group.first) continue;
    CLI::App* made = app.add_subcommand(group.first, group.second);
    made->require_subcommand(1);
    return made;
  }
  return &app;
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
  app.add_flag("--no-winapp2", options.noWinapp2,
               "Leave out the bundled winapp2.ini (the data folder's copy, else winapp2\\Winapp2.ini beside broom.exe)");
  app.add_flag("--no-log", options.noLog, "Do not write scan logs");
  app.add_option("--as-profile", options.asProfile)->group("");
  std::vector<CLI::App*> commands;
  for (const SCommand& command : kCommands) {
    CLI::App* parent = command.group ? Group(app, command.group) : &app;
    commands.push_back(parent->add_subcommand(command.name, command.help));
    command.options(*commands.back(), options);
  }

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

  // --quarantine without a folder: a new managed quarantine
  options.quarantineGiven = app.get_subcommand("clean")->get_option("--quarantine")->count() > 0;

  if (options.allUsers) {
    if (!options.asProfile.empty())
      throw CHostError{exitUsage, L"--all-users and --as-profile exclude each other"};
    return RunForEveryProfile(argc, argv, options, app.get_subcommand("clean")->parsed());
  }
  // A run over another person's profile takes it on before the session reads any folder.
  std::unique_ptr<CProfileRun> profile;
  if (!options.asProfile.empty()) {
    profile.reset(new CProfileRun(Wide(options.asProfile)));
    for (const std::wstring& note : profile->Notes())
      CConsole::Err(L"broom: note: " + Printable(note) + L"\n");
  }
  CSession session;
  session.Start(options.noLog);
  // An installed Broom keeps the scheduled clean a machine policy asks for (for
  // the user who runs it, never in a run over another profile).
  if (!options.scheduled && !profile && !app.get_subcommand("schedule")->parsed()) {
    std::wstring note = KeepPolicySchedule(session.Policies());
    if (!note.empty()) CConsole::Err(L"broom: note: " + Printable(note) + L"\n");
  }
  for (size_t i = 0; i < commands.size(); ++i) {
    if (!commands[i]->parsed()) continue;
    int code = exitUsage;
    try {
      code = kCommands[i].run(session, options);
    } catch (const CHostError& e) {
      FinishRunReport(session, options, e.code);
      throw;
    }
    FinishRunReport(session, options, code);
    return code;
  }
  return exitUsage;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  CConsole::Init();
  CConsole::InstallCancelHandler();
  // Cleaning falls back to a COM server on this thread. The multithreaded
  // apartment needs no window: a single-threaded one registers a window class,
  // which under Wine starts the desktop process and waits for it at every start.
  HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
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
