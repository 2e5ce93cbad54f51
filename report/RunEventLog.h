#pragma once
// One event per run in the Application event log, under the source "Broom":
// information when everything went, a warning when something failed. The
// message table (report/BroomEvents.mc, compiled by windmc) is a resource of
// broomcore.dll, which the source's registration names; registering needs
// administrator rights, so an installer does it once for the machine.
#include <windows.h>

#include <string>
#include <vector>

#include "core/Export.h"
#include "report/RunReport.h"

class BROOM_API CRunEventLog {
 public:
  static constexpr const wchar_t* kSource = L"Broom";
  static constexpr const wchar_t* kSourceKey = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\Broom";

  // The message identifier (with its severity bits) the run's event takes.
  static DWORD EventId(const SRunReport& report);
  // The event's insert strings, %1 to %17 of the message (the JSON report
  // line is %16, cut to 16,000 characters).
  static std::vector<std::wstring> Inserts(const SRunReport& report);
  // The event's text as the event viewer shows it, from the message table.
  static std::wstring MessageText(const SRunReport& report);

  // Writes the run's event; ERROR_SUCCESS or the error of
  // RegisterEventSource or ReportEvent. The report is completed as
  // CRunReportFile::Completed does.
  static DWORD Write(const SRunReport& report);

  // The source's registration under HKLM (administrators only):
  // EventMessageFile names messageFile (null: this broomcore.dll).
  static DWORD RegisterSource(const wchar_t* messageFile = nullptr);
  static DWORD UnregisterSource();
  static bool IsSourceRegistered();
  // The full path of the module that holds the message table.
  static std::wstring MessageFile();
};
