// How responsive broomw.exe stays while it scans the benchmark tree
// (100,000 files in 5,000 folders): it is started with a definition that
// takes the whole tree, Scan is pressed, and every 50 ms a message is sent
// to its window; the wait for each answer is measured until the scan ends.
// Needs a display: run it through scripts/bench-window.sh.
//   bench_window_responsive.exe [TREE_ROOT]
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "bench/BenchTree.h"
#include "window/Resource.h"

namespace {

std::wstring BinFolder() {
  wchar_t buffer[MAX_PATH + 1];
  DWORD n = GetModuleFileNameW(nullptr, buffer, MAX_PATH + 1);
  std::wstring path(buffer, n);
  return path.substr(0, path.find_last_of(L'\\'));
}

std::wstring Status(HWND main) {
  wchar_t text[512] = {};
  SendMessageTimeoutW(GetDlgItem(main, IDC_STATUS), WM_GETTEXT, 512, reinterpret_cast<LPARAM>(text), SMTO_NORMAL,
                      10000, nullptr);
  return text;
}

struct SFind {
  DWORD pid;
  HWND found;
};

BOOL CALLBACK FindProc(HWND w, LPARAM l) {
  auto* f = reinterpret_cast<SFind*>(l);
  DWORD owner = 0;
  wchar_t cls[64] = {};
  GetWindowThreadProcessId(w, &owner);
  GetClassNameW(w, cls, 64);
  if (owner != f->pid || wcscmp(cls, L"BroomMainWindow") != 0 || !IsWindowVisible(w)) return TRUE;
  f->found = w;
  return FALSE;
}

HWND FindMain(DWORD pid) {
  SFind find{pid, nullptr};
  EnumWindows(FindProc, reinterpret_cast<LPARAM>(&find));
  return find.found;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  std::wstring root = argc > 1 ? argv[1] : benchtree::DefaultRoot();
  benchtree::Generate(root);
  std::wstring work = root + L"-window";
  std::wstring defs = work + L"\\defs";
  CreateDirectoryW(work.c_str(), nullptr);
  CreateDirectoryW(defs.c_str(), nullptr);
  std::string xml = "<ConfigItems><group name=\"Bench\" scan=\"yes\"><item name=\"Tree\"><clean kind=\"file\">";
  for (wchar_t c : root) xml += static_cast<char>(c);  // the default root is ASCII
  xml += "\\*</clean></item></group></ConfigItems>\n";
  HANDLE file = CreateFileW((defs + L"\\bench.xml").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  DWORD written = 0;
  WriteFile(file, xml.data(), static_cast<DWORD>(xml.size()), &written, nullptr);
  CloseHandle(file);
  SetEnvironmentVariableW(L"LOCALAPPDATA", work.c_str());

  std::wstring command = L"\"" + BinFolder() + L"\\broomw.exe\" --no-log --defs \"" + defs + L"\"";
  STARTUPINFOW si = {};
  si.cb = sizeof si;
  PROCESS_INFORMATION pi = {};
  if (!CreateProcessW(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi)) {
    std::printf("cannot start broomw.exe (error %lu)\n", GetLastError());
    return 1;
  }
  HWND main = nullptr;
  for (int i = 0; i < 600 && !(main = FindMain(pi.dwProcessId)); ++i) Sleep(50);
  if (!main) {
    std::printf("broomw.exe showed no window\n");
    TerminateProcess(pi.hProcess, 1);
    return 1;
  }

  std::vector<double> waits;
  std::vector<std::pair<double, double>> when;  // wait, seconds since Scan
  auto begin = std::chrono::steady_clock::now();
  PostMessageW(GetDlgItem(main, IDC_SCAN), BM_CLICK, 0, 0);
  for (;;) {
    Sleep(50);
    auto sent = std::chrono::steady_clock::now();
    DWORD_PTR answer = 0;
    SendMessageTimeoutW(main, WM_NULL, 0, 0, SMTO_NORMAL, 30000, &answer);
    waits.push_back(benchtree::Seconds(sent) * 1000.0);
    when.emplace_back(waits.back(), benchtree::Seconds(begin));
    std::wstring status = Status(main);
    if (status.rfind(L"Found", 0) == 0 || status.rfind(L"Stopped", 0) == 0) {
      std::printf("%ls\n", status.c_str());
      break;
    }
  }
  double scan = benchtree::Seconds(begin);
  std::sort(waits.begin(), waits.end());
  std::printf("scan in the window: %.1f s; %zu messages sent every 50 ms; wait for the answer: median %.2f ms, "
              "longest %.2f ms\n",
              scan, waits.size(), waits[waits.size() / 2], waits.back());
  std::sort(when.rbegin(), when.rend());
  std::printf("longest waits:");
  for (size_t i = 0; i < when.size() && i < 5; ++i) std::printf(" %.1f ms at %.1f s;", when[i].first, when[i].second);
  std::printf("\n");
  PostMessageW(main, WM_CLOSE, 0, 0);
  if (WaitForSingleObject(pi.hProcess, 30000) != WAIT_OBJECT_0) TerminateProcess(pi.hProcess, 1);
  CloseHandle(pi.hThread);
  CloseHandle(pi.hProcess);
  return 0;
}
