#include "console/BroomRun.h"

#include <gtest/gtest.h>

#include "common/TestFiles.h"
#include "common/TestProcess.h"
#include "core/CommandLine.h"
#include "core/Handles.h"

namespace broomtest {

namespace {

// What the pipe holds now, without waiting: a program broom started (Wine's
// desktop) may hold the pipe's other end for good, so its end never comes.
void Take(HANDLE pipe, std::string& into) {
  DWORD available = 0;
  while (PeekNamedPipe(pipe, nullptr, 0, nullptr, &available, nullptr) && available > 0) {
    std::string chunk(available, '\0');
    DWORD read = 0;
    if (!::ReadFile(pipe, &chunk[0], available, &read, nullptr) || read == 0) return;
    into.append(chunk, 0, read);
  }
}

}  // namespace

SBroomRun RunBroomExe(const std::vector<std::wstring>& args, const std::wstring& appData, const std::string& input) {
  SBroomRun result;
  const std::wstring exe = ExeFolder() + L"\\broom.exe";
  std::wstring command = broom::QuoteArgument(exe);
  for (const std::wstring& a : args) command += L" " + broom::QuoteArgument(a);

  SECURITY_ATTRIBUTES sa = {sizeof sa, nullptr, TRUE};
  HANDLE pipes[6] = {};
  for (int i = 0; i < 6; i += 2)
    if (!CreatePipe(&pipes[i], &pipes[i + 1], &sa, 0)) {
      ADD_FAILURE() << "CreatePipe failed";
      for (HANDLE h : pipes)
        if (h) CloseHandle(h);
      return result;
    }
  broom::unique_handle outRead(pipes[0]), outWrite(pipes[1]), errRead(pipes[2]), errWrite(pipes[3]),
      inRead(pipes[4]), inWrite(pipes[5]);
  SetHandleInformation(outRead.get(), HANDLE_FLAG_INHERIT, 0);
  SetHandleInformation(errRead.get(), HANDLE_FLAG_INHERIT, 0);
  SetHandleInformation(inWrite.get(), HANDLE_FLAG_INHERIT, 0);

  STARTUPINFOW si = {};
  si.cb = sizeof si;
  si.dwFlags = STARTF_USESTDHANDLES;
  si.hStdInput = inRead.get();
  si.hStdOutput = outWrite.get();
  si.hStdError = errWrite.get();
  PROCESS_INFORMATION pi = {};
  std::vector<wchar_t> env = EnvironmentWith(L"LOCALAPPDATA", appData);
  std::vector<wchar_t> line(command.begin(), command.end());
  line.push_back(0);
  if (!broomtest::StartProcess(exe.c_str(), line.data(), TRUE, CREATE_UNICODE_ENVIRONMENT | CREATE_NO_WINDOW,
                      env.data(), nullptr, &si, &pi)) {
    ADD_FAILURE() << "cannot start " << Narrow(exe) << ": error " << GetLastError();
    return result;
  }
  broom::unique_handle process(pi.hProcess), thread(pi.hThread);
  // The child holds its own copies of these ends.
  outWrite.reset();
  errWrite.reset();
  inRead.reset();
  DWORD written = 0;
  if (!input.empty()) ::WriteFile(inWrite.get(), input.data(), static_cast<DWORD>(input.size()), &written, nullptr);
  inWrite.reset();
  // The output is taken as it comes, so that a full pipe never stops broom,
  // and once more after it ended.
  const DWORD start = GetTickCount();
  for (bool running = true; running;) {
    running = WaitForSingleObject(process.get(), 10) == WAIT_TIMEOUT;
    Take(outRead.get(), result.out);
    Take(errRead.get(), result.err);
    if (running && GetTickCount() - start > 120000) {
      TerminateProcess(process.get(), 99);
      ADD_FAILURE() << "broom.exe did not end within two minutes";
    }
  }
  GetExitCodeProcess(process.get(), &result.code);
  return result;
}

}  // namespace broomtest
