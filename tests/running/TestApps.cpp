#include "TestApps.h"

#include "common/TestProcess.h"

#include <stdexcept>
#include <string>

namespace broomtest {

TestApp::TestApp(const TempDir& dir, const std::wstring& image, AppMode mode) {
  std::wstring path = dir / image;
  if (!Exists(path) && !CopyFileW((ExeFolder() + L"\\broom_testapp.exe").c_str(), path.c_str(), TRUE))
    throw std::runtime_error("cannot copy the test program to " + Narrow(path));
  static LONG counter = 0;
  std::wstring readyName = L"broomtest-ready-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                           std::to_wstring(InterlockedIncrement(&counter));
  broom::unique_event ready(CreateEventW(nullptr, TRUE, FALSE, readyName.c_str()));
  if (!ready) throw std::runtime_error("cannot create the event the test program sets");
  std::wstring commandLine = L"\"" + path + L"\" --ready " + readyName;
  if (mode == AppMode::ignoreClose) commandLine += L" --ignore-close";
  if (mode == AppMode::hidden) commandLine += L" --hidden";
  STARTUPINFOW startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION started = {};
  if (!broomtest::StartProcess(path.c_str(), &commandLine[0], FALSE, 0, nullptr, dir.Path().c_str(), &startup,
                      &started))
    throw std::runtime_error("cannot start " + Narrow(path));
  CloseHandle(started.hThread);
  m_process.reset(started.hProcess);
  m_id = started.dwProcessId;
  HANDLE waits[] = {ready.get(), m_process.get()};
  if (WaitForMultipleObjects(2, waits, FALSE, 60000) != WAIT_OBJECT_0) {
    TerminateProcess(m_process.get(), 1);
    WaitForSingleObject(m_process.get(), 60000);
    throw std::runtime_error("the test program " + Narrow(image) + " did not make its window");
  }
}

TestApp::~TestApp() {
  if (Running()) TerminateProcess(m_process.get(), 1);
  WaitForSingleObject(m_process.get(), 60000);
}

bool TestApp::Running() const { return WaitForSingleObject(m_process.get(), 0) == WAIT_TIMEOUT; }

DWORD TestApp::ExitCode() const {
  DWORD code = STILL_ACTIVE;
  GetExitCodeProcess(m_process.get(), &code);
  return code;
}

bool TestApp::WaitEnded(DWORD ms) const { return WaitForSingleObject(m_process.get(), ms) == WAIT_OBJECT_0; }

}  // namespace broomtest
