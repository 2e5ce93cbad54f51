// Loads the community's winapp2.ini (the file given, or
// $BROOM_SOURCE_DIR/../shared/winapp2/Winapp2.ini) into a store with
// detection on this machine, and times broom.exe listing it end to end.
// Goals: the load with detection takes at most 120 ms under Wine, and
// broom --winapp2 FILE list at most 1.25 times broom list in the same run.
//
// The same text without its detection keys is loaded too; the difference
// is what detection costs, given per detection key.
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "winapp2/Winapp2Loader.h"

namespace {

constexpr int kRounds = 15;
constexpr int kProcessRounds = 5;

double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

std::wstring Locate(int argc, char** argv) {
  if (argc > 1) {
    wchar_t given[MAX_PATH] = {};
    MultiByteToWideChar(CP_ACP, 0, argv[1], -1, given, MAX_PATH);
    return given;
  }
  wchar_t source[MAX_PATH] = {};
  if (!GetEnvironmentVariableW(L"BROOM_SOURCE_DIR", source, MAX_PATH)) return L"";
  std::wstring path = source;
  if (!path.empty() && path[0] == L'/') path = L"Z:" + path;  // a Unix path, as scripts pass it
  std::replace(path.begin(), path.end(), L'/', L'\\');
  // beside the source tree; a git worktree of it sits one folder deeper
  path += L"\\..\\shared\\winapp2\\Winapp2.ini";
  if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) path.insert(path.find(L"\\..\\") + 3, L"\\..");
  return path;
}

bool ReadAll(const std::wstring& path, std::string& bytes) {
  HANDLE h = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  LARGE_INTEGER size;
  GetFileSizeEx(h, &size);
  bytes.resize(static_cast<size_t>(size.QuadPart));
  DWORD read = 0;
  BOOL ok = ReadFile(h, &bytes[0], static_cast<DWORD>(bytes.size()), &read, nullptr);
  CloseHandle(h);
  return ok && read == bytes.size();
}

// The text without Detect, DetectFile, SpecialDetect and DetectOS lines.
std::string WithoutDetection(const std::string& text) {
  std::string out;
  for (size_t at = 0; at < text.size();) {
    size_t end = text.find('\n', at);
    end = end == std::string::npos ? text.size() : end + 1;
    if (text.compare(at, 6, "Detect") != 0 && text.compare(at, 13, "SpecialDetect") != 0) out.append(text, at, end - at);
    at = end;
  }
  return out;
}

double RunBroom(const std::wstring& arguments) {
  wchar_t exe[MAX_PATH];
  DWORD n = GetModuleFileNameW(nullptr, exe, MAX_PATH);
  std::wstring path(exe, n);
  path = path.substr(0, path.find_last_of(L'\\')) + L"\\broom.exe";
  std::wstring command = L"\"" + path + L"\" --no-log " + arguments;
  SECURITY_ATTRIBUTES sa = {sizeof sa, nullptr, TRUE};
  HANDLE sink = CreateFileW(L"NUL", GENERIC_WRITE, FILE_SHARE_WRITE, &sa, OPEN_EXISTING, 0, nullptr);
  STARTUPINFOW si = {};
  si.cb = sizeof si;
  si.dwFlags = STARTF_USESTDHANDLES;
  si.hStdOutput = si.hStdError = sink;
  PROCESS_INFORMATION pi = {};
  std::vector<wchar_t> line(command.begin(), command.end());
  line.push_back(0);
  auto t0 = std::chrono::steady_clock::now();
  if (!CreateProcessW(path.c_str(), line.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr, nullptr, &si, &pi)) {
    CloseHandle(sink);
    return -1;
  }
  WaitForSingleObject(pi.hProcess, INFINITE);
  double seconds = Seconds(t0);
  CloseHandle(pi.hProcess);
  CloseHandle(pi.hThread);
  CloseHandle(sink);
  return seconds;
}

}  // namespace

int main(int argc, char** argv) {
  std::wstring path = Locate(argc, argv);
  std::string bytes;
  if (path.empty() || !ReadAll(path, bytes)) {
    printf("cannot read the winapp2.ini file; pass its path or set BROOM_SOURCE_DIR\n");
    return 1;
  }
  const std::string stripped = WithoutDetection(bytes);

  std::vector<double> first, full, bare;
  SWinapp2Report report, bareReport;
  for (int round = 0; round <= kRounds; ++round) {
    CRefPtr<IConfig> config = IConfig::NewConfig();
    auto t0 = std::chrono::steady_clock::now();
    report = CWinapp2Loader(*CConfigStore::Of(config)).Load(path.c_str());
    (round == 0 ? first : full).push_back(Seconds(t0));  // the first builds the process-wide symbols

    CRefPtr<IConfig> other = IConfig::NewConfig();
    t0 = std::chrono::steady_clock::now();
    bareReport = CWinapp2Loader(*CConfigStore::Of(other)).LoadText(stripped.data(), stripped.size(), path.c_str());
    if (round > 0) bare.push_back(Seconds(t0));
  }
  double load = Median(full), withoutDetection = Median(bare);
  printf("%ls\n", path.c_str());
  printf("entries %u, items %u, applicable %u, file rules %u, registry rules %u, excludes %u, detection keys %u, "
         "skipped lines %u\n",
         report.entries, report.items, report.applicable, report.fileRules, report.registryRules, report.excludes,
         report.detectionKeys, static_cast<unsigned>(report.skipped.size()));
  printf("detection calls: %u file-system, %u registry\n", report.fileCalls, report.registryCalls);
  printf("load with detection: median %.1f ms of %d rounds (min %.1f ms; first round %.1f ms); goal <= 120 ms\n",
         load * 1000, kRounds, *std::min_element(full.begin(), full.end()) * 1000, first[0] * 1000);
  printf("  per entry %.1f us\n", load * 1e6 / report.entries);
  printf("load without detection keys: median %.1f ms; detection %.1f ms, %.1f us per detection key\n",
         withoutDetection * 1000, (load - withoutDetection) * 1000,
         (load - withoutDetection) * 1e6 / report.detectionKeys);

  std::vector<double> withFile, defsOnly, ratios;
  for (int round = 0; round < kProcessRounds; ++round) {
    withFile.push_back(RunBroom(L"--winapp2 \"" + path + L"\" list"));
    defsOnly.push_back(RunBroom(L"list"));
    ratios.push_back(withFile.back() / defsOnly.back());
  }
  printf("broom --winapp2 FILE list: median %.0f ms of %d runs; broom list (bundled definitions only): %.0f ms; "
         "ratio %.2f (median of the rounds' ratios; goal <= 1.25)\n",
         Median(withFile) * 1000, kProcessRounds, Median(defsOnly) * 1000, Median(ratios));
  return 0;
}
