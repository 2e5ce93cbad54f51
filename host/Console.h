#pragma once
// Console output for broom.exe: UTF-16 text written as wide console writes
// when the handle is a console and as UTF-8 bytes when it is a file or a
// pipe, so non-ASCII paths survive both. A progress line on standard error
// is redrawn in place and only drawn when standard error is a console.
#include <windows.h>

#include <string>

#include "atl/CString.h"

namespace host {

std::string Utf8(const wchar_t* text, size_t length);
std::string Utf8(const std::wstring& text);
std::string Utf8(const CString& text);
std::wstring Wide(const std::string& utf8);

// The text with every control character (C0, DEL, C1, the line and
// paragraph separators) written as <U+000D>, so that a value echoed in a
// message cannot break or rewrite its line.
std::wstring Printable(const std::wstring& text);
// A value for a message: quoted, printable, and cut to about max characters.
std::wstring Quoted(const std::wstring& text, size_t max = 260);

// What a Win32 error code means, with its number: "Access is denied (error 5)".
std::wstring SystemMessage(DWORD error);

// "1.5 MB", "512 bytes", ... (binary units, one decimal).
std::wstring FormatSize(unsigned __int64 bytes);
// 1234567 -> "1,234,567".
std::wstring FormatCount(unsigned __int64 value);

class CConsole {
 public:
  static void Init();
  static void Out(const std::wstring& text);
  static void Err(const std::wstring& text);
  static void OutBytes(const std::string& utf8);

  static bool ErrIsConsole();
  // Replaces the progress line; cut to the console's width.
  static void Progress(const std::wstring& line);
  static void ClearProgress();

  // One line from standard input without its line end; false at end of input.
  static bool ReadLine(std::wstring& line);

 private:
  static void Write(DWORD which, const std::wstring& text);
};

}  // namespace host
