#pragma once
// The commands of broom.exe, one family per file, and what they share: the
// parsed options and the small text helpers of their output.
#include <memory>
#include <string>
#include <vector>

#include "app/CleanRun.h"
#include "app/ProgramsInUse.h"
#include "app/Session.h"

namespace host {

struct SOptions {
  std::vector<std::string> defs;
  std::vector<std::string> winapp2;  // winapp2.ini files loaded beside the definitions
  bool noWinapp2 = false;            // leave the bundled winapp2.ini out
  bool noLog = false;
  std::vector<std::string> items;
  bool files = false;
  bool json = false;
  bool yes = false;
  std::string quarantine;        // empty with quarantineGiven: a new managed quarantine
  bool quarantineGiven = false;  // --quarantine, with or without a folder
  std::string folder;            // restore: latest, a managed quarantine's name or a path
  std::string path;    // protect, unprotect
  std::string file;    // winapp2 check
  unsigned long cancelAfterFiles = 0;  // hidden: simulates Ctrl+C after that many files
  unsigned long olderThan = 0;         // days; 0: no age limit
  bool force = false;                  // clean items past the runaway limits
  unsigned long long runawayFiles = 0; // hidden: a test's own runaway file limit
  std::vector<std::string> include;    // sign-in, saved: what a named group brings along
  unsigned long cancelAfterCleaned = 0;  // hidden: simulates Ctrl+C after a clean took that many hits
  bool overwrite = false;              // clean: overwrite file contents before deleting
  bool closeApps = false;              // clean: ask the programs that hold items to close first
  unsigned long closeTimeout = 15;     // clean: seconds --close-apps waits for them
  bool scheduled = false;              // clean --scheduled: the scheduled task's run
  std::string report;                  // --report FILE: a JSON line per run
  std::vector<std::string> schedule;   // schedule: daily|weekly|monthly|off and items
  std::string at;                      // schedule --at HH:MM
  std::string url;                     // winapp2 update
  std::vector<std::string> sites;      // cookies keep, unkeep
  unsigned long timeoutSeconds = 60;   // winapp2 update: each wait of the download
  bool allUsers = false;               // scan, clean: every person's profile, one broom.exe each
  std::string asProfile;               // hidden: the SID of the profile this run takes on
};

// scan or clean --all-users: one broom.exe per person's profile, each with
// the same arguments and --as-profile, their output one after the other
// (with --json, one document of them all); the highest exit code counts. A
// clean asks once for every profile, unless --yes or --scheduled.
int RunForEveryProfile(int argc, wchar_t** argv, const SOptions& options, bool clean);

SScanOptions ScanOptions(const SOptions& options, EKeep keep);
// The --include words as the selection takes them.
SCostChoice CostChoice(const SOptions& options);
// Runs the scan with the progress line on the console, removed at the end.
SScanResults ScanWithProgress(CSession& session, const std::vector<SItem>& items, SScanOptions scan);
// Asks on the console; y, Y, yes, Yes or YES is a yes, anything else or the end of input a no.
bool Confirm(const std::wstring& question);

std::wstring Pad(const std::wstring& text, size_t width, bool right);
std::vector<std::wstring> WideList(const std::vector<std::string>& list);
// Loads the --defs folders (made absolute), or the defs folder beside broom.exe,
// the bundled winapp2.ini (unless --no-winapp2 or the setting), then the
// --winapp2 files.
void LoadDefinitions(CSession& session, const SOptions& options);

int CmdList(CSession& session, const SOptions& options);
int CmdScan(CSession& session, const SOptions& options);
int CmdClean(CSession& session, const SOptions& options);
int CmdRestore(CSession& session, const SOptions& options);
int CmdQuarantineList(CSession& session, const SOptions& options);
int CmdQuarantinePurge(CSession& session, const SOptions& options);
class CQuarantine;
// The quarantine a clean moves into: none without --quarantine, a new
// managed one without a folder, else the folder (a path); it is never scanned.
std::unique_ptr<CQuarantine> OpenCleanQuarantine(CSession& session, const SOptions& options);
int CmdProtect(CSession& session, const SOptions& options);
int CmdUnprotect(CSession& session, const SOptions& options);
int CmdProtected(CSession& session, const SOptions& options);
int CmdWinapp2Check(CSession& session, const SOptions& options);
int CmdWinapp2Update(CSession& session, const SOptions& options);
int CmdCookiesList(CSession& session, const SOptions& options);
int CmdCookiesKeep(CSession& session, const SOptions& options);
int CmdCookiesUnkeep(CSession& session, const SOptions& options);
int CmdExplain(CSession& session, const SOptions& options);
int CmdPolicy(CSession& session, const SOptions& options);
int CmdSchedule(CSession& session, const SOptions& options);

// The run report of scan and clean (--report, --scheduled): what the
// command did, gathered as it goes and written once it has ended.
void BeginRunReport(const SOptions& options, const wchar_t* command);
void RecordScanResults(const SScanResults& results);
void RecordGuard(const SGuardSummary& guard);
void RecordClean(const SCleanReport& report, const std::wstring& quarantine);
// Writes the line (and the event) when the command asked for one.
void FinishRunReport(CSession& session, const SOptions& options, int exitCode);
// The managed quarantines past the QuarantineKeepDays policy go before a clean.
void PurgeByPolicy(CSession& session);

// Running programs (RunningOutput.cpp): after scan's table, which programs
// run and hold items; for clean, the skipped items and the closing.
void PrintRunning(const std::vector<SHolder>& holders, DWORD snapshotError);
// Skips the items of running programs, each said on standard error with
// what to do; afterClose says they were asked to close already.
size_t SkipRunningItems(SScanResults& results, SGuardSummary& guard, bool afterClose);
// Asks the holders' programs to close, waits at most timeoutSeconds and
// says what became of each.
void CloseHolders(const std::vector<SHolder>& holders, unsigned long timeoutSeconds);
// With a quarantine, Recycle Bin items stay as they are, each said.
size_t SkipRecycleBinItems(SScanResults& results, SGuardSummary& guard);

}  // namespace host
