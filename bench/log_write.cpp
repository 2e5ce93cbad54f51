// Logs 100,000 lines of 100 characters through one scan log and compares it
// with writing the same lines straight to a file with WriteFile, the floor:
// the ratio of the caller's cost per line to it, per round and the median.
//   caller per line : what a scanning thread pays for each WriteEntry
//   file complete   : from the first entry until the file holds every line
//   stopped         : until the last release has stopped the log thread
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "core/Handles.h"
#include "log/ScanLogThread.h"

namespace {

constexpr int kLines = 100000;
constexpr int kLineChars = 100;  // CR LF come on top
constexpr int kRounds = 5;

double Now() {
  static LARGE_INTEGER frequency = [] {
    LARGE_INTEGER f;
    QueryPerformanceFrequency(&f);
    return f;
  }();
  LARGE_INTEGER t;
  QueryPerformanceCounter(&t);
  return static_cast<double>(t.QuadPart) / static_cast<double>(frequency.QuadPart);
}

ULONGLONG FileSize(const std::wstring& path) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data)) return 0;
  return (static_cast<ULONGLONG>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

std::vector<CString> MakeLines() {
  std::vector<CString> lines;
  lines.reserve(kLines);
  for (int i = 0; i < kLines; ++i) {
    wchar_t prefix[32];
    int n = swprintf(prefix, 32, L"%08d C:\\Users\\bench\\AppData\\Local\\Temp\\", i);
    std::wstring text(prefix, static_cast<size_t>(n));
    while (text.size() < static_cast<size_t>(kLineChars)) text.push_back(static_cast<wchar_t>(L'a' + text.size() % 26));
    lines.emplace_back(text.c_str(), kLineChars);
  }
  return lines;
}

struct Result {
  double callerSeconds;
  double completeSeconds;
  double stoppedSeconds;
};

Result ThroughScanLog(const std::wstring& path, const std::vector<CString>& lines, ULONGLONG expected) {
  DeleteFileW(path.c_str());
  double start = Now();
  CRefPtr<ILogWriter> log = CScanLogThread::GetLog(CPathString(path.c_str()));
  if (log.Get() == static_cast<ILogWriter*>(&CScanLogThread::m_bogusLog)) {
    std::fprintf(stderr, "could not open the log\n");
    ExitProcess(1);
  }
  for (const CString& line : lines) log->WriteEntry(line, true);
  double written = Now();
  while (FileSize(path) < expected) Sleep(1);
  double complete = Now();
  log = nullptr;
  double stopped = Now();
  return {written - start, complete - start, stopped - start};
}

Result ThroughWriteFile(const std::wstring& path, const std::vector<CString>& lines) {
  DeleteFileW(path.c_str());
  double start = Now();
  broom::unique_hfile file(CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS,
                                       FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) {
    std::fprintf(stderr, "could not open the file\n");
    ExitProcess(1);
  }
  wchar_t buffer[kLineChars + 2];
  for (const CString& line : lines) {
    wmemcpy(buffer, line.GetString(), kLineChars);
    buffer[kLineChars] = L'\r';
    buffer[kLineChars + 1] = L'\n';
    DWORD done = 0;
    WriteFile(file.get(), buffer, sizeof(buffer), &done, nullptr);
  }
  double written = Now();
  file.reset();
  double closed = Now();
  return {written - start, written - start, closed - start};
}

// The platform's share: the same number of bare thread-message posts to a
// thread that only takes them off its queue.
DWORD WINAPI DrainQueue(void* ready) {
  MSG msg;
  PeekMessageW(&msg, nullptr, WM_USER, WM_USER, PM_NOREMOVE);
  SetEvent(static_cast<HANDLE>(ready));
  while (GetMessageW(&msg, nullptr, 0, 0) > 0) {
  }
  return 0;
}

Result BarePosts(int& failedPosts) {
  broom::unique_event ready(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  DWORD id = 0;
  broom::unique_thread thread(CreateThread(nullptr, 0, DrainQueue, ready.get(), 0, &id));
  WaitForSingleObject(ready.get(), INFINITE);
  failedPosts = 0;
  double start = Now();
  for (int i = 0; i < kLines; ++i)
    while (!PostThreadMessageW(id, WM_APP, static_cast<WPARAM>(i), 0)) {
      ++failedPosts;
      Sleep(1);
    }
  double posted = Now();
  PostThreadMessageW(id, WM_QUIT, 0, 0);
  WaitForSingleObject(thread.get(), INFINITE);
  double drained = Now();
  return {posted - start, drained - start, drained - start};
}

void Print(const char* name, const Result& r) {
  std::printf("%-14s caller %7.3f us/line   file complete %8.1f ms   stopped/closed %8.1f ms\n", name,
              r.callerSeconds * 1e6 / kLines, r.completeSeconds * 1e3, r.stoppedSeconds * 1e3);
}

}  // namespace

int main() {
  wchar_t temp[MAX_PATH];
  GetTempPathW(MAX_PATH, temp);
  std::wstring dir = std::wstring(temp) + L"broom_bench_log_" + std::to_wstring(GetCurrentProcessId());
  CreateDirectoryW(dir.c_str(), nullptr);
  std::wstring logPath = dir + L"\\scan1.log";
  std::wstring directPath = dir + L"\\direct.log";

  std::vector<CString> lines = MakeLines();
  const ULONGLONG expected = static_cast<ULONGLONG>(kLines) * (kLineChars + 2) * sizeof(wchar_t);
  std::printf("%d lines of %d characters (+CR LF), %llu bytes per file\n", kLines, kLineChars,
              static_cast<unsigned long long>(expected));

  std::vector<double> ratios;
  for (int round = 1; round <= kRounds; ++round) {
    std::printf("round %d\n", round);
    Result log = ThroughScanLog(logPath, lines, expected);
    Result direct = ThroughWriteFile(directPath, lines);
    Print("scan log", log);
    Print("WriteFile", direct);
    ratios.push_back(log.callerSeconds / direct.callerSeconds);
    std::printf("               caller ratio scan log / WriteFile: %.2f\n", ratios.back());
    int failedPosts = 0;
    Print("bare posts", BarePosts(failedPosts));
    if (failedPosts) std::printf("               (%d posts refused: queue full)\n", failedPosts);
    if (FileSize(logPath) != expected || FileSize(directPath) != expected) {
      std::fprintf(stderr, "size mismatch: log %llu, direct %llu\n",
                   static_cast<unsigned long long>(FileSize(logPath)),
                   static_cast<unsigned long long>(FileSize(directPath)));
      return 1;
    }
  }
  std::sort(ratios.begin(), ratios.end());
  std::printf("median caller ratio scan log / WriteFile: %.2f (goal <= 3)\n", ratios[ratios.size() / 2]);
  DeleteFileW(logPath.c_str());
  DeleteFileW(directPath.c_str());
  RemoveDirectoryW(dir.c_str());
  return 0;
}
