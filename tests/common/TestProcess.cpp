#include "common/TestProcess.h"

namespace broomtest {

BOOL StartProcess(const wchar_t* application, wchar_t* commandLine, BOOL inheritHandles, DWORD flags,
                  void* environment, const wchar_t* folder, STARTUPINFOW* startup, PROCESS_INFORMATION* info) {
  for (int attempt = 1;; ++attempt) {
    if (CreateProcessW(application, commandLine, nullptr, nullptr, inheritHandles, flags, environment, folder,
                       startup, info))
      return TRUE;
    if (GetLastError() != ERROR_INTERNAL_ERROR || attempt == 5) return FALSE;
    Sleep(200 * attempt);
  }
}

}  // namespace broomtest
