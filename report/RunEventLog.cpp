#include "report/RunEventLog.h"

#include <map>

#include "BroomEvents.h"
#include "core/Handles.h"
#include "textconv/TextConv.h"

namespace {

constexpr size_t kMaxInsert = 16000;

std::wstring Number(unsigned __int64 value) { return std::to_wstring(value); }

HMODULE ThisModule() {
  HMODULE module = nullptr;
  GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                     reinterpret_cast<LPCWSTR>(&ThisModule), &module);
  return module;
}

}  // namespace

DWORD CRunEventLog::EventId(const SRunReport& report) {
  return report.failures.empty() && report.exitCode == 0 ? BROOM_EVENT_RUN : BROOM_EVENT_RUN_FAILED;
}

std::vector<std::wstring> CRunEventLog::Inserts(const SRunReport& given) {
  SRunReport report = CRunReportFile::Completed(given);
  std::map<unsigned long, unsigned long> codes;
  for (const SRunFailure& failure : report.failures) ++codes[failure.code];
  std::wstring failed;
  for (const auto& code : codes) {
    wchar_t text[48];
    swprintf(text, 48, L"%ls0x%08lX x%lu", failed.empty() ? L"" : L", ", code.first, code.second);
    failed += text;
  }
  std::wstring json = textconv::ToWide(CRunReportFile::ToJsonLine(report), CP_UTF8);
  if (json.size() > kMaxInsert) json = json.substr(0, kMaxInsert) + L"...";
  return {report.command.empty() ? L"run" : report.command,
          report.version,
          report.user,
          report.computer,
          Number(report.items.size()),
          Number(report.filesFound),
          Number(report.bytesFound),
          Number(report.filesCleaned),
          Number(report.bytesCleaned),
          Number(report.refused),
          Number(report.skippedRunning),
          Number(report.failures.size()),
          report.quarantine.empty() ? L"none" : report.quarantine,
          Number(report.durationMs),
          std::to_wstring(report.exitCode),
          json,
          failed.empty() ? L"none" : failed};
}

std::wstring CRunEventLog::MessageText(const SRunReport& report) {
  std::vector<std::wstring> inserts = Inserts(report);
  std::vector<DWORD_PTR> arguments;
  for (const std::wstring& insert : inserts) arguments.push_back(reinterpret_cast<DWORD_PTR>(insert.c_str()));
  wchar_t* text = nullptr;
  DWORD n = FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_ARGUMENT_ARRAY,
                           ThisModule(), EventId(report), MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US),
                           reinterpret_cast<wchar_t*>(&text), 0, reinterpret_cast<va_list*>(arguments.data()));
  broom::unique_hlocal hold(text);
  return n ? std::wstring(text, n) : std::wstring();
}

DWORD CRunEventLog::Write(const SRunReport& report) {
  broom::unique_event_source source(RegisterEventSourceW(nullptr, kSource));
  if (!source) return GetLastError();
  std::vector<std::wstring> inserts = Inserts(report);
  std::vector<const wchar_t*> strings;
  for (const std::wstring& insert : inserts) strings.push_back(insert.c_str());
  DWORD id = EventId(report);
  WORD type = id == BROOM_EVENT_RUN ? EVENTLOG_INFORMATION_TYPE : EVENTLOG_WARNING_TYPE;
  if (!ReportEventW(source.get(), type, 0, id, nullptr, static_cast<WORD>(strings.size()), 0, strings.data(), nullptr))
    return GetLastError();
  return ERROR_SUCCESS;
}

std::wstring CRunEventLog::MessageFile() {
  wchar_t path[MAX_PATH * 2];
  DWORD n = GetModuleFileNameW(ThisModule(), path, MAX_PATH * 2);
  return n && n < MAX_PATH * 2 ? std::wstring(path, n) : std::wstring();
}

DWORD CRunEventLog::RegisterSource(const wchar_t* messageFile) {
  std::wstring file = messageFile ? messageFile : MessageFile();
  if (file.empty()) return ERROR_FILE_NOT_FOUND;
  broom::unique_hkey key;
  LONG rc = RegCreateKeyExW(HKEY_LOCAL_MACHINE, kSourceKey, 0, nullptr, 0, KEY_SET_VALUE | KEY_WOW64_64KEY, nullptr,
                            key.addressof(), nullptr);
  if (rc != ERROR_SUCCESS) return static_cast<DWORD>(rc);
  DWORD types = EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE;
  rc = RegSetValueExW(key.get(), L"EventMessageFile", 0, REG_EXPAND_SZ, reinterpret_cast<const BYTE*>(file.c_str()),
                      static_cast<DWORD>((file.size() + 1) * sizeof(wchar_t)));
  if (rc == ERROR_SUCCESS)
    rc = RegSetValueExW(key.get(), L"TypesSupported", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&types), sizeof types);
  return static_cast<DWORD>(rc);
}

DWORD CRunEventLog::UnregisterSource() {
  LONG rc = RegDeleteKeyExW(HKEY_LOCAL_MACHINE, kSourceKey, KEY_WOW64_64KEY, 0);
  return rc == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : static_cast<DWORD>(rc);
}

bool CRunEventLog::IsSourceRegistered() {
  broom::unique_hkey key;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kSourceKey, 0, KEY_QUERY_VALUE | KEY_WOW64_64KEY, key.addressof()) !=
      ERROR_SUCCESS)
    return false;
  return RegQueryValueExW(key.get(), L"EventMessageFile", nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
}
