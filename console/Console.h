#pragma once
// Console output for broom.exe: UTF-16 text written as wide console writes
// when the handle is a console and as UTF-8 bytes when it is a file or a
// pipe, so non-ASCII paths survive both. A progress line on standard error
// is redrawn in place and only drawn when standard error is a console.
#include <windows.h>

#include <string>

namespace host {

class CConsole {
 public:
  static void Init();
  // Ctrl+C and Ctrl+Break raise the cancel flag (RequestCancel) instead of
  // ending the process half-way.
  static void InstallCancelHandler();
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
