#include "clean/CleanableFile.h"

#include <oleauto.h>
#include <shlwapi.h>

#include "clean/FileOpsServer.h"
#include "clean/FileOverwrite.h"
#include "clean/FileSystemOps.h"
#include "clean/ProgressScope.h"
#include "core/Handles.h"
#include "settings/AppInfo.h"
#include "threads/MsgThreadSTA.h"

namespace {

// A BSTR copy of text; throws CAtlException(E_OUTOFMEMORY) when none can be made.
broom::unique_bstr MakeBstr(const wchar_t* text) {
  broom::unique_bstr copy(SysAllocString(text));
  if (text && !copy) AtlThrow(E_OUTOFMEMORY);
  return copy;
}

// Creates the fallback server for the item's kind; hr tells why not.
HRESULT CreateServer(DWORD attributes, CRefPtr<IFileOpsServer>& server) {
  const CLSID& clsid = (attributes & FILE_ATTRIBUTE_DIRECTORY) ? CLSID_BroomFileOpsFolder : CLSID_BroomFileOpsFile;
  DWORD context = CLSCTX_LOCAL_SERVER | CLSCTX_REMOTE_SERVER;
  if (CAppInfo::Is64BitOperatingSystem()) context |= CLSCTX_ACTIVATE_64_BIT_SERVER;
  IFileOpsServer* raw = nullptr;
  HRESULT hr = CoCreateInstance(clsid, nullptr, context, IID_IFileOpsServer, reinterpret_cast<void**>(&raw));
  if (FAILED(hr)) return hr;
  server.Attach(raw);
  return S_OK;
}

}  // namespace

void CCleanableFile::Init(const CPathString& folder, const WIN32_FIND_DATAW& entry) {
  m_path = folder;
  m_attributes = entry.dwFileAttributes;
  m_size = CFileSystemOps::GetSizeOnDisk(folder, entry);
  m_path.AppendPath(entry.cFileName, static_cast<unsigned short>(wcsnlen(entry.cFileName, MAX_PATH)));
}

bool CCleanableFile::Exists() const { return m_path.GetLength() > 0 && PathFileExistsW(m_path.c_str()); }

CString CCleanableFile::GetLogEntry() const {
  // put together by hand: a scan asks this of every hit, and printf goes
  // over the format and the path twice (once to measure, once to write)
  wchar_t digits[24];
  wchar_t* end = digits + 24;
  wchar_t* at = end;
  unsigned __int64 size = m_size;
  do *--at = static_cast<wchar_t>(L'0' + size % 10); while (size /= 10);
  CString entry;
  entry.Preallocate(6 + m_path.GetLength() + 8 + static_cast<int>(end - at) + 2);
  entry.Append(L"File: ", 6);
  entry.Append(m_path.c_str(), m_path.GetLength());
  entry.Append(L"\t\tSize: ", 8);
  entry.Append(at, static_cast<int>(end - at));
  entry.Append(L"\r\n", 2);
  return entry;
}

CString CCleanableFile::GetName() const {
  CPathString name;
  m_path.GetFileName(name);
  return name.ToCString();
}

CString CCleanableFile::GetDetails() const {
  CPathString folder(m_path);
  folder.RemoveFileName(nullptr);
  return folder.ToCString();
}

DWORD CCleanableFile::Clean(IOperationProgressNotify* progress, IOperationStatusNotify* status) {
  return CleanWith(m_overwrite, progress, status);
}

DWORD CCleanableFile::CleanWith(bool overwrite, IOperationProgressNotify* progress, IOperationStatusNotify*) {
  CProgressScope scope(progress);
  if (overwrite)
    return IsDirectory() ? CFileSystemOps::RemoveTree(m_path.c_str(), true)
                         : CFileOverwrite::OverwriteAndDelete(m_path.c_str());
  try {
    // A reference of our own: a Shutdown on another thread cannot free the thread under the request.
    CRefPtr<CMsgThreadSTA> sta = CXmlConfigGlobal::AcquireSTAMsgThread();
    return CleanAfterShell(CFileSystemOps::ShellDelete(sta.Get(), m_path));
  } catch (...) {
    return kCleanFailed;
  }
}

DWORD CCleanableFile::CleanAfterShell(int shellResult) {
  try {
    if (shellResult == 0) return kCleanDone;
    CRefPtr<IFileOpsServer> server;
    HRESULT hr = CreateServer(m_attributes, server);
    if (FAILED(hr)) return ServerCreationCode(hr);
    broom::unique_bstr path = MakeBstr(m_path.c_str());
    if (FAILED(server->SetPath(path.get()))) AtlThrow(E_FAIL);
    if (SUCCEEDED(server->Remove())) return kCleanDone;
    return SUCCEEDED(server->RemoveAlternate()) ? kCleanAlternateRemoved : kCleanFailed;
  } catch (...) {
    return kCleanFailed;
  }
}

DWORD CCleanableFile::Move(CString destination, IOperationProgressNotify* progress, IOperationStatusNotify*,
                           bool overwrite, CPathString& newPath) {
  CProgressScope scope(progress);
  try {
    CRefPtr<CMsgThreadSTA> sta = CXmlConfigGlobal::AcquireSTAMsgThread();
    int r = CFileSystemOps::ShellMove(sta.Get(), m_path, CPathString(destination),
                                      overwrite, &newPath);
    if (r == ERROR_DUP_NAME && !overwrite) return kMoveDestinationExists;
    if (r == 0) return kCleanDone;
    CRefPtr<IFileOpsServer> server;
    HRESULT hr = CreateServer(m_attributes, server);
    if (FAILED(hr)) return ServerCreationCode(hr);
    broom::unique_bstr path = MakeBstr(m_path.c_str());
    broom::unique_bstr target = MakeBstr(destination.GetString());
    broom::unique_bstr suggested;
    long code = 0;
    server->SetPath(path.get());
    hr = server->MoveTo(&code, overwrite ? VARIANT_TRUE : VARIANT_FALSE, target.get(), suggested.addressof());
    if (code == 1) {
      // a proposal without a path is taken as an empty one
      newPath = CPathString(suggested.get() ? suggested.get() : L"");
      return kMoveDestinationExists;
    }
    return static_cast<DWORD>(hr);
  } catch (...) {
    return kMoveException;
  }
}

DWORD CCleanableFile_trunc::CleanWith(bool overwrite, IOperationProgressNotify* progress,
                                      IOperationStatusNotify*) {
  CProgressScope scope(progress);
  if (overwrite) return CFileOverwrite::OverwriteAndTruncate(m_path.c_str());
  try {
    CXmlConfigGlobal::GetSTAMsgThread();
    // Passing the file's own attributes lets a hidden or system file be
    // emptied; CREATE_ALWAYS cuts an existing file to zero length.
    broom::unique_hfile file(CreateFileW(m_path.c_str(), GENERIC_WRITE,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                         CREATE_ALWAYS, m_attributes, nullptr));
    return file ? kCleanDone : kTruncateOpenFailed;
  } catch (...) {
    return kCleanFailed;
  }
}
