// Deleting and moving through the shell, carried out on the STA thread.
#include <shlobj.h>
#include <shlwapi.h>

#include <cwchar>
#include <memory>

#include "clean/FileSystemOps.h"

namespace {

// A path followed by the two NULs the shell wants.
struct DoubleNulPath {
  explicit DoubleNulPath(const CPathString& path) {
    wmemcpy(text, path.c_str(), path.GetLength());
    text[path.GetLength()] = 0;
    text[path.GetLength() + 1] = 0;
  }
  wchar_t text[MAX_PATH + 2];
};

constexpr FILEOP_FLAGS kDeleteFlags = FOF_SILENT | FOF_NOCONFIRMATION | FOF_NOERRORUI;
constexpr FILEOP_FLAGS kMoveFlags = FOF_SILENT | FOF_NOCONFIRMATION | FOF_NOERRORUI | FOF_NOCOPYSECURITYATTRIBS;

template <class Handler>
int Run(CMsgThreadSTA* thread, SHFILEOPSTRUCTW* request) {
  Handler handler;
  if (!thread) {
    handler.Receive(L"", reinterpret_cast<LPARAM>(request));
    return handler.m_result;
  }
  bool delivered = false;
  CNamedMsgRouter::SendDelivery(thread->GetRouterWindow(), L"", reinterpret_cast<LPARAM>(request), &handler,
                                &delivered);
  // The handler's result starts at 0, which reads as done: a request that
  // never ran (the router is gone, as during Shutdown) must say it failed.
  if (!delivered) return ERROR_INVALID_WINDOW_HANDLE;
  return handler.m_result;
}

}  // namespace

LRESULT CFileSystemOps::SHFileOperationHandler::Receive(const wchar_t*, LPARAM request) {
  m_result = SHFileOperationW(reinterpret_cast<SHFILEOPSTRUCTW*>(request));
  return m_result;
}

LRESULT CFileSystemOps::SHFileOperationHandler_XP::Receive(const wchar_t* name, LPARAM request) {
  auto* op = reinterpret_cast<SHFILEOPSTRUCTW*>(request);
  for (const wchar_t* to = op->pTo; to && *to; to += wcslen(to) + 1)
    SHPathPrepareForWriteW(nullptr, nullptr, to, SHPPFW_DIRCREATE | SHPPFW_IGNOREFILENAME);
  return SHFileOperationHandler::Receive(name, request);
}

int CFileSystemOps::RunShellOperation(CMsgThreadSTA* thread, SHFILEOPSTRUCTW* request) {
  if (!thread) return SHFileOperationW(request);
  return Run<SHFileOperationHandler>(thread, request);
}

int CFileSystemOps::RunShellOperationXP(CMsgThreadSTA* thread, SHFILEOPSTRUCTW* request) {
  return Run<SHFileOperationHandler_XP>(thread, request);
}

int CFileSystemOps::ShellDelete(CMsgThreadSTA* thread, const CPathString& path) {
  DoubleNulPath from(path);
  // Read-only, hidden and system entries are made normal so that the shell
  // deletes them. Reading the attributes is cheap; setting them opens the
  // file, so that is done only when one of those bits is set.
  DWORD attributes = GetFileAttributesW(path.c_str());
  if (attributes != INVALID_FILE_ATTRIBUTES &&
      (attributes & (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM)))
    SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
  SHFILEOPSTRUCTW request = {};
  request.wFunc = FO_DELETE;
  request.pFrom = from.text;
  request.fFlags = kDeleteFlags;
  return RunShellOperation(thread, &request);
}

int CFileSystemOps::ShellMove(CMsgThreadSTA* thread, const CPathString& source, CPathString destination,
                              bool overwrite, CPathString* freeName) {
  DoubleNulPath from(source), to(destination);
  if (!overwrite && PathFileExistsW(destination.c_str())) {
    if (freeName) {
      *freeName = destination;
      MakeFreeName(*freeName);
    }
    return ERROR_DUP_NAME;
  }
  SHFILEOPSTRUCTW request = {};
  request.wFunc = FO_MOVE;
  request.pFrom = from.text;
  request.pTo = to.text;
  request.fFlags = kMoveFlags;
  const OSVERSIONINFOEXW* version = GetOSVersionInfo();
  if (version && version->dwPlatformId == VER_PLATFORM_WIN32_NT && version->dwMajorVersion >= 6)
    return RunShellOperation(thread, &request);
  return RunShellOperationXP(thread, &request);
}

void CFileSystemOps::MakeFreeName(CPathString& path) {
  wchar_t folder[MAX_PATH + 1], stem[MAX_PATH + 1], extension[MAX_PATH + 1];
  wcscpy(folder, path.c_str());
  wcscpy(extension, PathFindExtensionW(path.c_str()));
  wcscpy(stem, PathFindFileNameW(path.c_str()));
  PathRemoveExtensionW(stem);
  PathRemoveFileSpecW(folder);
  for (int n = 1; PathFileExistsW(path.c_str()); ++n) {
    wchar_t candidate[2 * MAX_PATH + 32];
    int length = _snwprintf(candidate, sizeof candidate / sizeof candidate[0], L"%s\\%s (%d)%s", folder, stem, n,
                            extension);
    if (length < 0 || length > MAX_PATH) throw BufferOverflowException();
    path = CPathString(candidate);
  }
}

const OSVERSIONINFOEXW* CFileSystemOps::GetOSVersionInfo() {
  static const OSVERSIONINFOEXW* cached = nullptr;
  if (cached) return cached;
  auto info = std::make_unique<OSVERSIONINFOEXW>();
  *info = {};
  info->dwOSVersionInfoSize = sizeof(OSVERSIONINFOEXW);
  if (!GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(info.get()))) return nullptr;
  cached = info.release();  // kept for the life of the process
  return cached;
}
