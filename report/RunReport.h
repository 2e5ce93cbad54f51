#pragma once
// What one scan or clean did, as a single JSON line that log collectors take
// as it is, appended to a report file; and the file's rotation. The default
// file, Logs\runs.jsonl in the user data folder, moves to runs.1.jsonl when
// the next line would take it past 1 MB, the older ones moving up one number,
// so that it and runs.1.jsonl … runs.4.jsonl hold the last five files.
#include <windows.h>

#include <string>
#include <vector>

#include "core/Export.h"

struct SRunFailure {
  std::wstring path;   // the file, folder or registry path
  unsigned long code;  // the engine's result code (0x80000000, 0x8052xxxx, …)
};

struct SRunReport {
  SYSTEMTIME started{};    // UTC; zero: now
  std::wstring computer;   // empty: this computer's name
  std::wstring user;       // DOMAIN\name, or "all-users"; empty: the user this process runs as
  std::wstring version;    // Broom's version
  std::wstring command;    // "clean", "scan"
  bool scheduled = false;  // started by the scheduled task
  std::vector<std::wstring> items;  // the item paths run
  unsigned __int64 filesFound = 0;
  unsigned __int64 bytesFound = 0;
  unsigned __int64 filesCleaned = 0;
  unsigned __int64 bytesCleaned = 0;
  unsigned __int64 refused = 0;         // by the guard, the whitelist's registry rules and the like
  unsigned __int64 skippedRunning = 0;  // left because their programs were running
  std::vector<SRunFailure> failures;
  std::wstring quarantine;  // the quarantine's name; empty when nothing moved
  unsigned __int64 durationMs = 0;
  int exitCode = 0;
};

class BROOM_API CRunReportFile {
 public:
  // Enumerators, not constants: a host may take them by reference without
  // needing an import of its own for each.
  enum : unsigned __int64 { kRotateBytes = 1u << 20 };
  enum : unsigned { kKeep = 5 };  // the file and four older ones
  // A report line lists at most this many failures; failed_codes counts them all.
  enum : size_t { kListedFailures = 100 };

  // The default file: <dataFolder>\Logs\runs.jsonl.
  static std::wstring DefaultPath(const std::wstring& dataFolder);

  explicit CRunReportFile(std::wstring path, unsigned __int64 rotateBytes = kRotateBytes, unsigned keep = kKeep);

  // Fills computer, user and time where the report leaves them empty.
  static SRunReport Completed(SRunReport report);
  // The report as one line of UTF-8 JSON, without its line end:
  // {"time":"2026-11-23T14:05:09Z","computer":…,"user":…,"version":…,
  //  "command":…,"scheduled":…,"items":[…],"files_found":…,"bytes_found":…,
  //  "files_cleaned":…,"bytes_cleaned":…,"refused":…,"skipped_running":…,
  //  "failed":…,"failed_codes":{"0x80000000":2},"failures":[{"path":…,"code":"0x80000000"}],
  //  "failures_left_out":…,"quarantine":…|null,"duration_ms":…,"exit_code":…}
  static std::string ToJsonLine(const SRunReport& report);

  // Appends the line (with CRLF) in one write, creating the file and its
  // folder when missing, after rotating when the line would take the file
  // past the limit. Returns ERROR_SUCCESS or the Win32 error; a rotation
  // that fails (a collector holding an old file) leaves the files as they
  // are and the line is still appended.
  DWORD Append(const SRunReport& report) const;
  DWORD AppendLine(const std::string& line) const;

  const std::wstring& Path() const { return m_path; }
  // runs.jsonl for 0, runs.1.jsonl … for the older ones.
  std::wstring RotatedPath(unsigned index) const;

 private:
  std::wstring m_path;
  unsigned __int64 m_rotateBytes;
  unsigned m_keep;
};
