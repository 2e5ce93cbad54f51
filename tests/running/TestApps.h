#pragma once
// Copies of the test window program (app/TestApp.cpp), started under the
// image names the definitions use.
#include <windows.h>

#include <string>

#include "common/TestFiles.h"
#include "core/Handles.h"

namespace broomtest {

enum class AppMode {
  polite,       // ends on WM_CLOSE
  ignoreClose,  // ignores WM_CLOSE
  hidden,       // has no visible window
};

// One running copy. The engine never ends a process, so the test does: the
// holder terminates the process (when it still runs) and waits for its end.
class TestApp {
 public:
  // Copies the program into dir as image (once) and starts it there; returns
  // once it waits for input, its window made. Throws when it cannot start.
  TestApp(const TempDir& dir, const std::wstring& image, AppMode mode);
  ~TestApp();
  TestApp(const TestApp&) = delete;
  TestApp& operator=(const TestApp&) = delete;

  DWORD Id() const { return m_id; }
  bool Running() const;
  // Its exit code once it has ended; STILL_ACTIVE while it runs.
  DWORD ExitCode() const;
  // Waits for its end; false when it still runs after ms.
  bool WaitEnded(DWORD ms) const;

 private:
  broom::unique_handle m_process;
  DWORD m_id = 0;
};

}  // namespace broomtest
