#pragma once
// What every broom command shares: start-up of the engine, the loaded
// definitions, the whitelist kept in the user data folder, choosing items
// and running their scans.
#include <windows.h>

#include <string>
#include <vector>

#include "app/HostError.h"
#include "app/ItemSelection.h"
#include "app/ScanRun.h"
#include "browserdb/CookieKeepList.h"
#include "core/RefCounting.h"
#include "log/LogWriter.h"
#include "policy/Policies.h"
#include "scandefs/ConfigStore.h"
#include "scandefs/ScanGroup.h"
#include "whitelist/WhiteListTree.h"
#include "winapp2/Winapp2Loader.h"

namespace host {

// Loads a winapp2.ini file (a full path) into the store; throws
// CHostError(exitUsage) when it cannot be read.
SWinapp2Report LoadWinapp2(CConfigStore& store, const std::wstring& file);

// The full, absolute form of a path given on the command line, without a
// trailing separator (drive roots keep theirs).
std::wstring FullPath(const std::wstring& path);
std::wstring ExeFolder();

class CSession {
 public:
  CSession();
  ~CSession();
  CSession(const CSession&) = delete;
  CSession& operator=(const CSession&) = delete;

  // Registry settings, application state and the user data folder with its
  // Logs folder; --no-log switches the scan logs off.
  void Start(bool noLog);
  const std::wstring& UserDataFolder() const { return m_userData; }
  // Why the scan logs cannot be written (the data folder or its Logs folder
  // is a file, or cannot be made or written); empty when they can, or when
  // logging is off. Commands that need no data folder run all the same.
  const std::wstring& LogFault() const { return m_logFault; }
  // Where the managed quarantines live; scans never enter it.
  std::wstring QuarantineRoot() const { return m_userData + L"\\Quarantine"; }

  // Loads every folder (absolute paths); throws CHostError(exitUsage) for a
  // missing folder, one without definition files, or definitions that break.
  // Every file left out is noted, with the reason, also when it throws.
  void LoadDefinitions(const std::vector<std::wstring>& folders);
  IConfig* Config() const { return m_config; }
  // Loads winapp2.ini files (made absolute) beside the definitions; throws
  // CHostError(exitUsage) for one that cannot be read. A file with skipped
  // lines gets one note saying how many.
  void LoadWinapp2Files(const std::vector<std::wstring>& files);
  // The organisation's policies, read once per process.
  const CPolicies& Policies() const { return CPolicies::Current(); }
  // Applies the policies to the loaded tree (app/PolicyRules.h), after the
  // definitions and winapp2 files; what they ignore becomes load notes.
  void ApplyPolicies();
  // What the loads left out ("skipped FILE: REASON"), once, for the host to
  // show: the console on standard error, the window in a message.
  void NoteLoad(std::wstring note) { m_loadNotes.push_back(std::move(note)); }
  std::vector<std::wstring> TakeLoadNotes() { return std::move(m_loadNotes); }

  std::wstring WhiteListFile() const;
  // Loads the whitelist whole or not at all: a file that the engine's
  // loader would take only in part, or that cannot be read, throws
  // CHostError(exitUsage) naming the line and what to do.
  void LoadWhiteList();
  // Replaces the file in one step. Throws CHostError, and writes nothing,
  // when an entry cannot be stored (named, with its line when it came from
  // the file) or the file cannot be written.
  void SaveWhiteList();
  CWhiteListTree& WhiteList() { return m_whiteList; }

  // The sites whose cookies a clean keeps, read at Start from
  // DATA\cookies-keep.txt; the cookie operations of the definitions use it.
  // An unusable list stops the scans that hold a cookie operation.
  std::wstring CookieKeepFile() const { return m_userData + L"\\cookies-keep.txt"; }
  const CCookieKeepList& CookieKeep() const { return m_cookieKeep; }

  // Items below the top-level groups, in the store's order.
  std::vector<SItem> AllItems() const;
  // Named items (paths or group names) or, with no names, the items that are
  // enabled and on by default for scanning (and for cleaning when forClean).
  // Notes for standard error go to notes.
  std::vector<SItem> Select(const std::vector<std::wstring>& names, bool forClean,
                            std::vector<std::wstring>& notes) const;
  // The same, with the costly items a group may bring along (--include).
  SSelection SelectByCost(const std::vector<std::wstring>& names, bool forClean, const SCostChoice& include,
                          std::vector<std::wstring>& notes) const;

  // Starts this command's scan log: the older logs move up one number and a
  // new scan1.log, headed with the command and the time, is held until the
  // session ends, so the five scan logs keep the last five runs.
  void BeginScanLog(const wchar_t* command);

  // Runs every operation of every item. Hits under protected paths are
  // dropped; a file found twice counts once, for the first item.
  // With olderThanDays, every file operation also keeps only files changed
  // that many days ago or earlier, for this run only. The policies' age
  // floor, protected paths and registry switch apply whatever the options say.
  SScanResults Scan(const std::vector<SItem>& items, const SScanOptions& options);

  // Where the operation that found a hit came from; false when unknown.
  bool SourceOf(const SHit& hit, SOperationSource& out) const;

 private:
  CRefPtr<IConfig> m_config;
  CRefPtr<IScanOperationFactory> m_recycleBin;  // its notes join the load notes
  CRefPtr<ILogWriter> m_scanLog;
  CWhiteListTree m_whiteList;
  struct SUnstorableLine {
    std::wstring stored;
    int line;
  };
  std::vector<SUnstorableLine> m_unstorable;  // loaded lines whose stored form the file cannot hold
  std::vector<std::wstring> m_loadNotes;
  CCookieKeepList m_cookieKeep;
  std::wstring m_userData;
  std::wstring m_logFault;
  bool m_started = false;
};

}  // namespace host
