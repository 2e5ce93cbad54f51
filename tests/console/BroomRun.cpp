#include "console/BroomRun.h"

#include <gtest/gtest.h>

#include "common/TestFiles.h"
#include "core/Handles.h"

namespace broomtest {

namespace {

std::wstring Quote(const std::wstring& arg) {
  std::wstring out = L"\"";
  size_t slashes = 0;
  for (wchar_t c : arg) {
    if (c == L'\\') {
      ++slashes;
    } else {
      if (c == L'"') out.append(slashes + 1, L'\\');
      slashes = 0;
    }
    out += c;
  }
  out.append(slashes, L'\\');
  return out + L"\"";
}

}  // namespace

SBroomRun RunBroomExe(const std::vector<std::wstring>& args, const std::wstring& appData, const std::wstring& given) {
  SBroomRun result;
  const std::wstring exe = given.empty() ? ExeFolder() + L"\\broom.exe" : given;
  std::wstring command = Quote(exe);
  for (const std::wstring& a : args) command += L" " + Quote(a);

  // Output goes to files: a Wine system process started during the run
  // inherits the standard handles and would hold a pipe open after broom ends.
  TempDir outputs;
  const std::wstring outFile = outputs / L"out.txt", errFile = outputs / L"err.txt";
  SECURITY_ATTRIBUTES sa = {sizeof sa, nullptr, TRUE};
  auto create = [&](const std::wstring& path) {
    return broom::unique_hfile(CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE |
                                           FILE_SHARE_DELETE, &sa, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  };
  broom::unique_hfile out = create(outFile), err = create(errFile);
  broom::unique_hfile input(CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, &sa, OPEN_EXISTING,
                                        0, nullptr));
  if (!out || !err) {
    ADD_FAILURE() << "cannot create the output files in " << Narrow(outputs.Path());
    return result;
  }

  STARTUPINFOW si = {};
  si.cb = sizeof si;
  si.dwFlags = STARTF_USESTDHANDLES;
  si.hStdInput = input.get();
  si.hStdOutput = out.get();
  si.hStdError = err.get();
  PROCESS_INFORMATION pi = {};
  std::vector<wchar_t> env = EnvironmentWith(L"LOCALAPPDATA", appData);
  std::vector<wchar_t> line(command.begin(), command.end());
  line.push_back(0);
  if (!CreateProcessW(exe.c_str(), line.data(), nullptr, nullptr, TRUE, CREATE_UNICODE_ENVIRONMENT | CREATE_NO_WINDOW,
                      env.data(), nullptr, &si, &pi)) {
    ADD_FAILURE() << "cannot start " << Narrow(exe) << ": error " << GetLastError();
    return result;
  }
  broom::unique_handle process(pi.hProcess), thread(pi.hThread);
  out.reset();
  err.reset();
  input.reset();
  if (WaitForSingleObject(process.get(), 120000) != WAIT_OBJECT_0) {
    TerminateProcess(process.get(), 99);
    WaitForSingleObject(process.get(), 10000);
    ADD_FAILURE() << "broom.exe did not end within two minutes";
  }
  GetExitCodeProcess(process.get(), &result.code);
  result.out = ReadFile(outFile);
  result.err = ReadFile(errFile);
  return result;
}

}  // namespace broomtest
