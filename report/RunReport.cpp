#include "report/RunReport.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <cwctype>
#include <map>

#include "core/Handles.h"
#include "profiles/UserProfiles.h"
#include "textconv/TextConv.h"

namespace {

using Json = nlohmann::ordered_json;

std::string Utf8(const std::wstring& text) { return textconv::ToMultiByte(text, CP_UTF8); }

std::string HexCode(unsigned long code) {
  char text[16];
  snprintf(text, sizeof text, "0x%08lX", code);
  return text;
}

// Creates the folder and the folders above it that are missing.
DWORD MakeFolders(const std::wstring& folder) {
  if (folder.empty() || GetFileAttributesW(folder.c_str()) != INVALID_FILE_ATTRIBUTES) return ERROR_SUCCESS;
  size_t slash = folder.find_last_of(L'\\');
  if (slash != std::wstring::npos && slash > 2) {
    DWORD rc = MakeFolders(folder.substr(0, slash));
    if (rc != ERROR_SUCCESS) return rc;
  }
  if (CreateDirectoryW(folder.c_str(), nullptr) || GetLastError() == ERROR_ALREADY_EXISTS) return ERROR_SUCCESS;
  return GetLastError();
}

// One name per report file for the lock that keeps two runs from rotating
// it at once (FNV-1a of the upper-cased full path, the same in every build).
std::wstring LockName(const std::wstring& path) {
  wchar_t full[MAX_PATH * 2];
  DWORD n = GetFullPathNameW(path.c_str(), MAX_PATH * 2, full, nullptr);
  std::wstring name = n && n < MAX_PATH * 2 ? std::wstring(full, n) : path;
  unsigned long long hash = 1469598103934665603ull;
  for (wchar_t c : name) {
    hash ^= static_cast<unsigned long long>(towupper(c));
    hash *= 1099511628211ull;
  }
  wchar_t text[64];
  swprintf(text, 64, L"Local\\Broom-report-%016llx", hash);
  return text;
}

}  // namespace

std::wstring CRunReportFile::DefaultPath(const std::wstring& dataFolder) {
  std::wstring folder = dataFolder;
  while (!folder.empty() && folder.back() == L'\\') folder.pop_back();
  return folder + L"\\Logs\\runs.jsonl";
}

CRunReportFile::CRunReportFile(std::wstring path, unsigned __int64 rotateBytes, unsigned keep)
    : m_path(std::move(path)), m_rotateBytes(rotateBytes), m_keep(keep ? keep : 1) {}

std::wstring CRunReportFile::RotatedPath(unsigned index) const {
  if (index == 0) return m_path;
  size_t slash = m_path.find_last_of(L'\\');
  size_t dot = m_path.find_last_of(L'.');
  if (dot == std::wstring::npos || (slash != std::wstring::npos && dot < slash)) dot = m_path.size();
  return m_path.substr(0, dot) + L"." + std::to_wstring(index) + m_path.substr(dot);
}

SRunReport CRunReportFile::Completed(SRunReport report) {
  if (report.started.wYear == 0) GetSystemTime(&report.started);
  if (report.computer.empty()) {
    wchar_t name[MAX_COMPUTERNAME_LENGTH + 1];
    DWORD size = MAX_COMPUTERNAME_LENGTH + 1;
    if (GetComputerNameW(name, &size)) report.computer.assign(name, size);
  }
  if (report.user.empty()) report.user = CUserProfiles::CurrentUserName();
  return report;
}

std::string CRunReportFile::ToJsonLine(const SRunReport& report) {
  const SYSTEMTIME& t = report.started;
  char time[32];
  snprintf(time, sizeof time, "%04u-%02u-%02uT%02u:%02u:%02uZ", t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute,
           t.wSecond);
  Json line;
  line["time"] = time;
  line["computer"] = Utf8(report.computer);
  line["user"] = Utf8(report.user);
  line["version"] = Utf8(report.version);
  line["command"] = Utf8(report.command);
  line["scheduled"] = report.scheduled;
  line["items"] = Json::array();
  for (const std::wstring& item : report.items) line["items"].push_back(Utf8(item));
  line["files_found"] = report.filesFound;
  line["bytes_found"] = report.bytesFound;
  line["files_cleaned"] = report.filesCleaned;
  line["bytes_cleaned"] = report.bytesCleaned;
  line["refused"] = report.refused;
  line["skipped_running"] = report.skippedRunning;
  line["failed"] = report.failures.size();
  std::map<unsigned long, unsigned long long> codes;
  for (const SRunFailure& failure : report.failures) ++codes[failure.code];
  line["failed_codes"] = Json::object();
  for (const auto& code : codes) line["failed_codes"][HexCode(code.first)] = code.second;
  line["failures"] = Json::array();
  for (size_t i = 0; i < report.failures.size() && i < kListedFailures; ++i)
    line["failures"].push_back({{"path", Utf8(report.failures[i].path)}, {"code", HexCode(report.failures[i].code)}});
  line["failures_left_out"] = report.failures.size() > kListedFailures ? report.failures.size() - kListedFailures : 0;
  line["quarantine"] = report.quarantine.empty() ? Json() : Json(Utf8(report.quarantine));
  line["duration_ms"] = report.durationMs;
  line["exit_code"] = report.exitCode;
  // Never a line break inside: control characters are escaped, bad UTF-16 replaced.
  return line.dump(-1, ' ', false, Json::error_handler_t::replace);
}

DWORD CRunReportFile::Append(const SRunReport& report) const { return AppendLine(ToJsonLine(Completed(report))); }

DWORD CRunReportFile::AppendLine(const std::string& line) const {
  size_t slash = m_path.find_last_of(L'\\');
  if (slash != std::wstring::npos) {
    DWORD rc = MakeFolders(m_path.substr(0, slash));
    if (rc != ERROR_SUCCESS) return rc;
  }
  broom::unique_handle lock(CreateMutexW(nullptr, FALSE, LockName(m_path).c_str()));
  DWORD waited = lock ? WaitForSingleObject(lock.get(), 10000) : WAIT_FAILED;
  auto unlock = broom::scope_exit([&] {
    if (waited == WAIT_OBJECT_0 || waited == WAIT_ABANDONED) ReleaseMutex(lock.get());
  });

  const std::string text = line + "\r\n";
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (GetFileAttributesExW(m_path.c_str(), GetFileExInfoStandard, &data)) {
    unsigned __int64 size = (static_cast<unsigned __int64>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
    if (size > 0 && size + text.size() > m_rotateBytes) {
      // The oldest goes; each other moves up one number; a step that fails
      // leaves its file where it is.
      DeleteFileW(RotatedPath(m_keep - 1).c_str());
      for (unsigned i = m_keep - 1; i >= 1; --i)
        MoveFileExW(RotatedPath(i - 1).c_str(), RotatedPath(i).c_str(), MOVEFILE_REPLACE_EXISTING);
    }
  }
  broom::unique_hfile file(CreateFileW(m_path.c_str(), FILE_APPEND_DATA | SYNCHRONIZE,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                                       FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) return GetLastError();
  DWORD written = 0;
  if (!WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr)) return GetLastError();
  return written == text.size() ? ERROR_SUCCESS : ERROR_WRITE_FAULT;
}
