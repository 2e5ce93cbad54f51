#pragma once
#include <windows.h>

namespace broomtest {

// CreateProcessW, tried again a few times when it fails with
// ERROR_INTERNAL_ERROR. Wine answers that when the new process ended before it
// ran any of its own code: its Unix side failed to start, which happens now and
// then on a loaded machine and says nothing about the program started.
BOOL StartProcess(const wchar_t* application, wchar_t* commandLine, BOOL inheritHandles, DWORD flags,
                  void* environment, const wchar_t* folder, STARTUPINFOW* startup, PROCESS_INFORMATION* info);

}  // namespace broomtest
