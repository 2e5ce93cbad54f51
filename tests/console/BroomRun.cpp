#include "console/BroomRun.h"

#include <gtest/gtest.h>

#include <thread>

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

void Drain(HANDLE pipe, std::string* into) {
  char buffer[4096];
  DWORD read = 0;
  while (::ReadFile(pipe, buffer, sizeof buffer, &read, nullptr) && read > 0) into->append(buffer, read);
}

}  // namespace

SBroomRun RunBroomExe(const std::vector<std::wstring>& args, const std::wstring& appData, const std::wstring& given) {
  SBroomRun result;
  const std::wstring exe = given.empty() ? ExeFolder() + L"\\broom.exe" : given;
  std::wstring command = Quote(exe);
  for (const std::wstring& a : args) command += L" " + Quote(a);

  SECURITY_ATTRIBUTES sa = {sizeof sa, nullptr, TRUE};
  HANDLE outRead = nullptr, outWrite = nullptr, errRead = nullptr, errWrite = nullptr;
  if (!CreatePipe(&outRead, &outWrite, &sa, 0) || !CreatePipe(&errRead, &errWrite, &sa, 0)) {
    ADD_FAILURE() << "CreatePipe failed";
    return result;
  }
  broom::unique_handle hOutRead(outRead), hOutWrite(outWrite), hErrRead(errRead), hErrWrite(errWrite);
  SetHandleInformation(outRead, HANDLE_FLAG_INHERIT, 0);
  SetHandleInformation(errRead, HANDLE_FLAG_INHERIT, 0);
  broom::unique_hfile input(CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, &sa, OPEN_EXISTING,
                                        0, nullptr));

  STARTUPINFOW si = {};
  si.cb = sizeof si;
  si.dwFlags = STARTF_USESTDHANDLES;
  si.hStdInput = input.get();
  si.hStdOutput = outWrite;
  si.hStdError = errWrite;
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
  hOutWrite.reset();
  hErrWrite.reset();
  input.reset();
  std::thread outReader(Drain, outRead, &result.out);
  std::thread errReader(Drain, errRead, &result.err);
  if (WaitForSingleObject(process.get(), 120000) != WAIT_OBJECT_0) {
    TerminateProcess(process.get(), 99);
    ADD_FAILURE() << "broom.exe did not end within two minutes";
  }
  outReader.join();
  errReader.join();
  GetExitCodeProcess(process.get(), &result.code);
  return result;
}

}  // namespace broomtest
