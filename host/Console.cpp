#include "host/Console.h"

#include <cstdio>

namespace host {

std::string Utf8(const wchar_t* text, size_t length) {
  if (length == 0) return std::string();
  int bytes = WideCharToMultiByte(CP_UTF8, 0, text, static_cast<int>(length), nullptr, 0, nullptr, nullptr);
  std::string out(static_cast<size_t>(bytes), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text, static_cast<int>(length), &out[0], bytes, nullptr, nullptr);
  return out;
}

std::string Utf8(const std::wstring& text) { return Utf8(text.data(), text.size()); }
std::string Utf8(const CString& text) { return Utf8(text.GetString(), static_cast<size_t>(text.GetLength())); }

std::wstring Wide(const std::string& utf8) {
  if (utf8.empty()) return std::wstring();
  int chars = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0);
  std::wstring out(static_cast<size_t>(chars), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), &out[0], chars);
  return out;
}

std::wstring Printable(const std::wstring& text) {
  std::wstring out;
  out.reserve(text.size());
  for (wchar_t c : text) {
    if (c < 0x20 || (c >= 0x7F && c <= 0x9F) || c == 0x2028 || c == 0x2029) {
      wchar_t escaped[16];
      swprintf(escaped, 16, L"<U+%04X>", static_cast<unsigned>(c));
      out += escaped;
    } else {
      out += c;
    }
  }
  return out;
}

std::wstring Quoted(const std::wstring& text, size_t max) {
  if (text.size() <= max) return L"'" + Printable(text) + L"'";
  return L"'" + Printable(text.substr(0, max)) + L"\u2026'";
}

std::wstring SystemMessage(DWORD error) {
  wchar_t* text = nullptr;
  DWORD n = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                           nullptr, error, 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
  std::wstring message = n && text ? std::wstring(text, n) : std::wstring(L"system error");
  if (text) LocalFree(text);
  while (!message.empty() && (message.back() == L'\n' || message.back() == L'\r' || message.back() == L' ' ||
                              message.back() == L'.'))
    message.pop_back();
  return message + L" (error " + std::to_wstring(error) + L")";
}

std::wstring FormatSize(unsigned __int64 bytes) {
  static const wchar_t* const units[] = {L"KB", L"MB", L"GB", L"TB"};
  if (bytes < 1024) return std::to_wstring(bytes) + (bytes == 1 ? L" byte" : L" bytes");
  double value = static_cast<double>(bytes) / 1024.0;
  int unit = 0;
  while (value >= 1024.0 && unit < 3) {
    value /= 1024.0;
    ++unit;
  }
  wchar_t text[32];
  swprintf(text, 32, L"%.1f %ls", value, units[unit]);
  return text;
}

std::wstring FormatCount(unsigned __int64 value) {
  std::wstring digits = std::to_wstring(value);
  std::wstring out;
  int n = static_cast<int>(digits.size());
  for (int i = 0; i < n; ++i) {
    if (i > 0 && (n - i) % 3 == 0) out += L',';
    out += digits[static_cast<size_t>(i)];
  }
  return out;
}

namespace {

bool IsConsole(HANDLE h) {
  DWORD mode = 0;
  return h != nullptr && h != INVALID_HANDLE_VALUE && GetConsoleMode(h, &mode) != 0;
}

bool g_progressShown = false;

}  // namespace

void CConsole::Init() {
  // For programs that read the console's code page; the text itself goes
  // through WriteConsoleW or as UTF-8 bytes either way.
  SetConsoleOutputCP(CP_UTF8);
}

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
