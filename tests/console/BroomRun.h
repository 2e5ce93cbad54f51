#pragma once
// broom.exe run as a user would, with pipes for its standard handles and a
// LOCALAPPDATA of the test's own, for the tests of command families kept
// outside BroomExeTests.cpp.
#include <windows.h>

#include <string>
#include <vector>

namespace broomtest {

struct SBroomRun {
  DWORD code = 0xFFFFFFFF;
  std::string out;
  std::string err;
};

// exe: a broom.exe (default: the one beside the test program).
SBroomRun RunBroomExe(const std::vector<std::wstring>& args, const std::wstring& appData,
                      const std::wstring& exe = L"");

}  // namespace broomtest
