#include "console/Console.h"

#include "app/Session.h"
#include "app/Text.h"

namespace host {

namespace {

bool IsConsole(HANDLE h) {
  DWORD mode = 0;
  return h != nullptr && h != INVALID_HANDLE_VALUE && GetConsoleMode(h, &mode) != 0;
}

bool g_progressShown = false;

BOOL WINAPI OnConsoleControl(DWORD type) {
  if (type == CTRL_C_EVENT || type == CTRL_BREAK_EVENT) {
    RequestCancel();
    return TRUE;  // the scan stops itself; the process must not be killed half-way
  }
  return FALSE;
}

}  // namespace

void CConsole::Init() {
  // For programs that read the console's code page; the text itself goes
  // through WriteConsoleW or as UTF-8 bytes either way.
  SetConsoleOutputCP(CP_UTF8);
}

void CConsole::InstallCancelHandler() { SetConsoleCtrlHandler(OnConsoleControl, TRUE); }

void CConsole::Write(DWORD which, const std::wstring& text) {
  HANDLE h = GetStdHandle(which);
  if (h == nullptr || h == INVALID_HANDLE_VALUE || text.empty()) return;
  if (IsConsole(h)) {
    DWORD written = 0;
    WriteConsoleW(h, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    return;
  }
  std::string bytes = Utf8(text);
  DWORD written = 0;
  WriteFile(h, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
}

void CConsole::Out(const std::wstring& text) {
  ClearProgress();
  Write(STD_OUTPUT_HANDLE, text);
}

void CConsole::Err(const std::wstring& text) {
  ClearProgress();
  Write(STD_ERROR_HANDLE, text);
}

void CConsole::OutBytes(const std::string& utf8) {
  ClearProgress();
  HANDLE h = GetStdHandle(STD_OUTPUT_HANDLE);
  if (IsConsole(h)) {
    Write(STD_OUTPUT_HANDLE, Wide(utf8));
    return;
  }
  DWORD written = 0;
  if (h != nullptr && h != INVALID_HANDLE_VALUE && !utf8.empty())
    WriteFile(h, utf8.data(), static_cast<DWORD>(utf8.size()), &written, nullptr);
}

bool CConsole::ErrIsConsole() { return IsConsole(GetStdHandle(STD_ERROR_HANDLE)); }

void CConsole::Progress(const std::wstring& line) {
  HANDLE h = GetStdHandle(STD_ERROR_HANDLE);
  if (!IsConsole(h)) return;
  CONSOLE_SCREEN_BUFFER_INFO info = {};
  size_t width = 80;
  if (GetConsoleScreenBufferInfo(h, &info) && info.dwSize.X > 1) width = static_cast<size_t>(info.dwSize.X);
  // One column short of the width, so the cursor never wraps to a new line.
  std::wstring text = line.substr(0, width - 1);
  text.resize(width - 1, L' ');
  text = L"\r" + text + L"\r";
  DWORD written = 0;
  WriteConsoleW(h, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
  g_progressShown = true;
}

void CConsole::ClearProgress() {
  if (!g_progressShown) return;
  g_progressShown = false;
  HANDLE h = GetStdHandle(STD_ERROR_HANDLE);
  CONSOLE_SCREEN_BUFFER_INFO info = {};
  size_t width = 80;
  if (GetConsoleScreenBufferInfo(h, &info) && info.dwSize.X > 1) width = static_cast<size_t>(info.dwSize.X);
  std::wstring text = L"\r" + std::wstring(width - 1, L' ') + L"\r";
  DWORD written = 0;
  WriteConsoleW(h, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

bool CConsole::ReadLine(std::wstring& line) {
  line.clear();
  HANDLE h = GetStdHandle(STD_INPUT_HANDLE);
  if (h == nullptr || h == INVALID_HANDLE_VALUE) return false;
  if (IsConsole(h)) {
    wchar_t buffer[256];
    DWORD read = 0;
    if (!ReadConsoleW(h, buffer, 255, &read, nullptr) || read == 0) return false;
    line.assign(buffer, read);
  } else {
    // A pipe or a file: bytes up to the first line feed, one at a time so
    // nothing after the line is consumed.
    std::string bytes;
    char c = 0;
    DWORD read = 0;
    bool any = false;
    while (ReadFile(h, &c, 1, &read, nullptr) && read == 1) {
      any = true;
      if (c == '\n') break;
      bytes += c;
    }
    if (!any) return false;
    line = Wide(bytes);
  }
  while (!line.empty() && (line.back() == L'\n' || line.back() == L'\r')) line.pop_back();
  return true;
}

}  // namespace host
