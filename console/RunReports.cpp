// The run report of broom scan and clean: one JSON line per run in the file
// of --report, or in Logs\runs.jsonl for a scheduled run, and the same
// summary as one event in the Application log.
#include "console/Commands.h"

#include "app/Text.h"
#include "console/Console.h"
#include "report/RunEventLog.h"
#include "report/RunReport.h"

#ifndef BROOM_VERSION
#define BROOM_VERSION "0.0.0"
#endif

namespace host {

namespace {

struct SRunState {
  bool active = false;
  ULONGLONG startTick = 0;
  SRunReport report;
};

SRunState& Run() {
  static SRunState state;
  return state;
}

}  // namespace

void BeginRunReport(const SOptions& options, const wchar_t* command) {
  SRunState& run = Run();
  run = SRunState();
  run.active = options.scheduled || !options.report.empty();
  run.startTick = GetTickCount64();
  GetSystemTime(&run.report.started);
  run.report.command = command;
  run.report.scheduled = options.scheduled;
  run.report.version = Wide(BROOM_VERSION);
  // the items asked for, until the scan says which ran
  for (const std::string& item : options.items) run.report.items.push_back(Wide(item));
}

void RecordScanResults(const SScanResults& results) {
  SRunReport& report = Run().report;
  report.items.clear();
  for (const SItemResult& r : results.items) report.items.push_back(r.item.path);
  report.filesFound = results.files;
  report.bytesFound = results.size;
}

void RecordGuard(const SGuardSummary& guard) { Run().report.refused = guard.refusedFiles; }

void RecordClean(const SCleanReport& clean, const std::wstring& quarantine) {
  SRunReport& report = Run().report;
  report.filesCleaned = clean.done;
  report.bytesCleaned = clean.freed;
  report.failures.clear();
  for (const auto& failure : clean.failures) report.failures.push_back({failure.first, failure.second});
  if (clean.done) report.quarantine = quarantine;
}

void FinishRunReport(CSession& session, const SOptions& options, int exitCode) {
  SRunState& run = Run();
  if (!run.active) return;
  run.active = false;
  run.report.exitCode = exitCode;
  run.report.durationMs = GetTickCount64() - run.startTick;
  std::wstring file = options.report.empty() ? CRunReportFile::DefaultPath(session.UserDataFolder())
                                             : FullPath(Wide(options.report));
  DWORD error = CRunReportFile(file).Append(run.report);
  if (error != ERROR_SUCCESS)
    CConsole::Err(L"broom: the run report could not be written to " + Quoted(file) + L" (" + SystemMessage(error) +
                  L")\n");
  // Where the source is not registered (a portable copy) the event log
  // still takes the event, showing its inserts without the message text.
  CRunEventLog::Write(run.report);
}

}  // namespace host
