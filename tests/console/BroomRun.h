#pragma once
// broom.exe run as a user runs it: pipes for its standard handles and a
// LOCALAPPDATA of the test's own.
#include <windows.h>

#include <string>
#include <vector>

namespace broomtest {

struct SBroomRun {
  DWORD code = 0xFFFFFFFF;
  std::string out;
  std::string err;
};

// broom.exe beside the test program with args; input goes to its stdin.
SBroomRun RunBroomExe(const std::vector<std::wstring>& args, const std::wstring& appData,
                      const std::string& input = "");

}  // namespace broomtest
