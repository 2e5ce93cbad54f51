// Run reports: the JSON line byte for byte, what reaches the report file and
// its rotation, and the event a run leaves (its text from broomcore.dll's
// message table; Wine's ReportEvent keeps nothing, so the event itself
// cannot be read back here).
#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "common/TestFiles.h"
#include "core/Handles.h"
#include "report/RunEventLog.h"
#include "report/RunReport.h"

namespace {

using broomtest::Exists;
using broomtest::Narrow;
using broomtest::ReadFile;
using broomtest::TempDir;

SRunReport Sample() {
  SRunReport report;
  report.started = {2026, 11, 1, 23, 14, 5, 9, 0};
  report.computer = L"PC-7";
  report.user = L"OFFICE\\ann";
  report.version = L"0.1.0";
  report.command = L"clean";
  report.scheduled = true;
  report.items = {L"System/Temporary files", L"Browsers/Chrome"};
  report.filesFound = 12;
  report.bytesFound = 4096;
  report.filesCleaned = 9;
  report.bytesCleaned = 3000;
  report.refused = 1;
  report.skippedRunning = 1;
  report.failures = {{L"C:\\Temp\\a.log", 0x80000000}, {L"HKCU\\Software\\X", 0x80520005},
                     {L"C:\\Temp\\b.log", 0x80000000}};
  report.quarantine = L"2026-11-23 14.05.09";
  report.durationMs = 1532;
  report.exitCode = 1;
  return report;
}

size_t Count(const std::string& text, const std::string& part) {
  size_t n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

TEST(RunReport, IsOneJsonLineWithEveryFieldOfTheRun) {
  EXPECT_EQ(
      "{\"time\":\"2026-11-23T14:05:09Z\",\"computer\":\"PC-7\",\"user\":\"OFFICE\\\\ann\",\"version\":\"0.1.0\","
      "\"command\":\"clean\",\"scheduled\":true,\"items\":[\"System/Temporary files\",\"Browsers/Chrome\"],"
      "\"files_found\":12,\"bytes_found\":4096,\"files_cleaned\":9,\"bytes_cleaned\":3000,\"refused\":1,"
      "\"skipped_running\":1,\"failed\":3,\"failed_codes\":{\"0x80000000\":2,\"0x80520005\":1},"
      "\"failures\":[{\"path\":\"C:\\\\Temp\\\\a.log\",\"code\":\"0x80000000\"},"
      "{\"path\":\"HKCU\\\\Software\\\\X\",\"code\":\"0x80520005\"},{\"path\":\"C:\\\\Temp\\\\b.log\",\"code\":\"0x80000000\"}],"
      "\"failures_left_out\":0,\"quarantine\":\"2026-11-23 14.05.09\",\"duration_ms\":1532,\"exit_code\":1}",
      CRunReportFile::ToJsonLine(Sample()));
}

TEST(RunReport, NamesWithQuotesLineBreaksAndBrokenTextStayOnOneLine) {
  SRunReport report = Sample();
  report.items = {L"Odd \"item\"\r\nnext", std::wstring(L"r\u00e9sum\u00e9 \xD800 x")};
  report.quarantine.clear();
  report.failures.assign(250, {L"C:\\f", 0x80000000});
  const std::string line = CRunReportFile::ToJsonLine(report);
  EXPECT_EQ(std::string::npos, line.find_first_of("\r\n"));
  EXPECT_NE(std::string::npos, line.find("\"Odd \\\"item\\\"\\r\\nnext\""));
  EXPECT_NE(std::string::npos, line.find("r\xC3\xA9sum\xC3\xA9 \xEF\xBF\xBD x"));  // the lone surrogate replaced
  EXPECT_NE(std::string::npos, line.find("\"quarantine\":null"));
  EXPECT_NE(std::string::npos, line.find("\"failed\":250,\"failed_codes\":{\"0x80000000\":250}"));
  EXPECT_EQ(static_cast<size_t>(CRunReportFile::kListedFailures), Count(line, "{\"path\":\"C:\\\\f\""));
  EXPECT_NE(std::string::npos, line.find("\"failures_left_out\":150"));
}

TEST(RunReport, CompletesTheComputerTheUserAndTheTime) {
  SRunReport report = CRunReportFile::Completed(SRunReport());
  wchar_t computer[MAX_COMPUTERNAME_LENGTH + 1];
  DWORD size = MAX_COMPUTERNAME_LENGTH + 1;
  ASSERT_TRUE(GetComputerNameW(computer, &size));
  EXPECT_EQ(computer, report.computer);
  EXPECT_NE(std::wstring::npos, report.user.find(L'\\')) << Narrow(report.user);
  EXPECT_GE(report.started.wYear, 2024);
  // Given ones stay.
  EXPECT_EQ(L"all-users", CRunReportFile::Completed([] { SRunReport r; r.user = L"all-users"; return r; }()).user);
}

TEST(RunReportFile, AppendsALinePerRunMakingTheFolderAndRotatesKeepingTheLastFive) {
  TempDir dir;
  const std::wstring data = dir.Path() + L"\\Broom";
  CRunReportFile file(CRunReportFile::DefaultPath(data + L"\\"));
  EXPECT_EQ(data + L"\\Logs\\runs.jsonl", file.Path());
  EXPECT_EQ(data + L"\\Logs\\runs.3.jsonl", file.RotatedPath(3));

  ASSERT_EQ(ERROR_SUCCESS, file.Append(Sample()));
  ASSERT_EQ(ERROR_SUCCESS, file.Append(Sample()));
  const std::string line = CRunReportFile::ToJsonLine(Sample()) + "\r\n";
  EXPECT_EQ(line + line, ReadFile(file.Path()));

  // At 1 MB the file moves aside, and only five files are ever kept.
  const size_t big = static_cast<size_t>(CRunReportFile::kRotateBytes) - 4;  // with its line end
  for (int round = 0; round < 6; ++round) {
    ASSERT_EQ(ERROR_SUCCESS, file.AppendLine(std::string(big - 2, static_cast<char>('a' + round))));
    ASSERT_EQ(big, ReadFile(file.Path()).size()) << round;
  }
  ASSERT_EQ(ERROR_SUCCESS, file.AppendLine("last"));
  EXPECT_EQ("last\r\n", ReadFile(file.Path()));
  for (unsigned i = 1; i <= 4; ++i) EXPECT_EQ(static_cast<char>('a' + 6 - i), ReadFile(file.RotatedPath(i))[0]) << i;
  EXPECT_FALSE(Exists(file.RotatedPath(5)));
}

TEST(RunReportFile, ALineStillLandsWhenAnOldFileCannotMoveAndAFolderInTheWayIsAnError) {
  TempDir dir;
  CRunReportFile file(dir.Path() + L"\\runs", 100, 3);
  EXPECT_EQ(dir.Path() + L"\\runs.2", file.RotatedPath(2));
  ASSERT_EQ(ERROR_SUCCESS, file.AppendLine(std::string(90, 'x')));
  {
    // A collector reading the file without letting it be renamed.
    broom::unique_hfile reader(CreateFileW(file.Path().c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                           nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(reader);
    ASSERT_EQ(ERROR_SUCCESS, file.AppendLine("held"));
  }
  EXPECT_EQ(std::string(90, 'x') + "\r\nheld\r\n", ReadFile(file.Path()));
  ASSERT_EQ(ERROR_SUCCESS, file.AppendLine("moved"));
  EXPECT_EQ("moved\r\n", ReadFile(file.Path()));
  EXPECT_EQ(std::string(90, 'x') + "\r\nheld\r\n", ReadFile(file.RotatedPath(1)));

  broomtest::WriteFile(dir.Path() + L"\\file", "x");
  EXPECT_NE(static_cast<DWORD>(ERROR_SUCCESS), CRunReportFile(dir.Path() + L"\\file\\Logs\\runs.jsonl").Append(Sample()));
}

TEST(RunEventLog, TheEventTextComesFromTheMessageTableWithTheRunsSummary) {
  SRunReport report = Sample();
  EXPECT_EQ(0x80000002u, CRunEventLog::EventId(report));  // a warning: something failed
  const std::wstring text = CRunEventLog::MessageText(report);
  EXPECT_EQ(0u, text.find(L"Broom clean 0.1.0 for OFFICE\\ann on PC-7 did not clean everything. Items run: 2. "
                          L"Found: 12 files, 4096 bytes. Cleaned: 9 files, 3000 bytes. Refused: 1. Skipped while "
                          L"their programs ran: 1. Failed: 3 (0x80000000 x2, 0x80520005 x1). Quarantine: "
                          L"2026-11-23 14.05.09. Duration: 1532 ms. Exit code: 1.\r\n\r\nReport: {\"time\""))
      << Narrow(text);

  report.failures.clear();
  report.exitCode = 0;
  EXPECT_EQ(0x40000001u, CRunEventLog::EventId(report));
  EXPECT_EQ(0u, CRunEventLog::MessageText(report).find(L"Broom clean 0.1.0 for OFFICE\\ann on PC-7. Items run: 2."));
  // Wine's ReportEvent succeeds and stores nothing; on Windows the event is in the Application log.
  EXPECT_EQ(static_cast<DWORD>(ERROR_SUCCESS), CRunEventLog::Write(report));
}

TEST(RunEventLog, TheSourceIsRegisteredWithBroomcoreAsItsMessageFile) {
  const bool before = CRunEventLog::IsSourceRegistered();
  ASSERT_EQ(static_cast<DWORD>(ERROR_SUCCESS), CRunEventLog::RegisterSource());
  EXPECT_TRUE(CRunEventLog::IsSourceRegistered());
  wchar_t file[MAX_PATH];
  DWORD size = sizeof file;
  ASSERT_EQ(ERROR_SUCCESS, RegGetValueW(HKEY_LOCAL_MACHINE, CRunEventLog::kSourceKey, L"EventMessageFile",
                                        RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND, nullptr, file, &size));
  EXPECT_EQ(broomtest::ExeFolder() + L"\\broomcore.dll", file);
  EXPECT_EQ(static_cast<DWORD>(ERROR_SUCCESS), CRunEventLog::UnregisterSource());
  EXPECT_FALSE(CRunEventLog::IsSourceRegistered());
  if (before) CRunEventLog::RegisterSource();
}

}  // namespace
