#pragma once
// The commands of broom.exe, one family per file, and what they share: the
// parsed options and the small text helpers of their output.
#include <memory>
#include <string>
#include <vector>

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
  std::string url;                     // winapp2 update
  std::vector<std::string> sites;      // cookies keep, unkeep
  unsigned long timeoutSeconds = 60;   // winapp2 update: each wait of the download
};

SScanOptions ScanOptions(const SOptions& options, EKeep keep);
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

}  // namespace host
