#include "clean/CleanableFolder.h"

#include <cwchar>

#include "clean/FileSystemOps.h"
#include "core/Handles.h"

namespace {

DWORD FolderCode(DWORD error) { return kFolderFailed | (error & 0xFFFF); }

// Removes an empty folder; a read-only one loses that attribute first and
// gets it back when the removal fails.
DWORD RemoveEmpty(const wchar_t* path) {
  if (RemoveDirectoryW(path)) return kCleanDone;
  DWORD error = GetLastError();
  if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) return kCleanDone;
  DWORD attributes = GetFileAttributesW(path);
  if (error == ERROR_ACCESS_DENIED && attributes != INVALID_FILE_ATTRIBUTES &&
      (attributes & FILE_ATTRIBUTE_READONLY) && SetFileAttributesW(path, attributes & ~FILE_ATTRIBUTE_READONLY)) {
    if (RemoveDirectoryW(path)) return kCleanDone;
    error = GetLastError();
    SetFileAttributesW(path, attributes);
  }
  return FolderCode(error);
}

}  // namespace

void CCleanableEmptyFolder::InitFolder(const CPathString& folder, DWORD attributes) {
  m_path = folder;
  // "C:\x\" and "C:\x" name the same folder; a drive root keeps its separator
  while (m_path.GetLength() > 3 && m_path.c_str()[m_path.GetLength() - 1] == L'\\')
    m_path.Assign(m_path.c_str(), static_cast<unsigned short>(m_path.GetLength() - 1));
  m_attributes = attributes | FILE_ATTRIBUTE_DIRECTORY;
  m_size = 0;
}

bool CCleanableEmptyFolder::IsEmpty() const {
  CPathString pattern(m_path);
  pattern.AppendPath(L"*", 1);
  WIN32_FIND_DATAW data;
  broom::unique_hfind find(
      FindFirstFileExW(pattern.c_str(), FindExInfoBasic, &data, FindExSearchNameMatch, nullptr, 0));
  if (!find) return false;
  do {
    if (wcscmp(data.cFileName, L".") != 0 && wcscmp(data.cFileName, L"..") != 0) return false;
  } while (FindNextFileW(find.get(), &data));
  return true;
}

DWORD CCleanableEmptyFolder::CleanWith(bool, IOperationProgressNotify* progress, IOperationStatusNotify*) {
  if (progress) progress->SetTotal(1);
  DWORD result = kCleanFailed;
  try {
    result = RemoveEmpty(m_path.c_str());
  } catch (...) {
  }
  if (progress) progress->Finish();
  return result;
}

CString CCleanableEmptyFolder::GetLogEntry() const {
  CString entry;
  entry.Format(L"Folder: %s\t\tSize: %I64u\r\n", m_path.c_str(), m_size);
  return entry;
}

DWORD CCleanableEmptyFolder::Move(CString destination, IOperationProgressNotify* progress, IOperationStatusNotify*,
                                  bool overwrite, CPathString& newPath) {
  if (progress) progress->SetTotal(1);
  DWORD result = kMoveException;
  try {
    CPathString target(destination);
    DWORD existing = GetFileAttributesW(target.c_str());
    bool taken = existing != INVALID_FILE_ATTRIBUTES;
    if (GetFileAttributesW(m_path.c_str()) == INVALID_FILE_ATTRIBUTES) {
      result = kCleanDone;  // already gone
    } else if (!IsEmpty()) {
      result = kFolderNotEmpty;
    } else if (taken && !overwrite) {
      newPath = target;
      CFileSystemOps::MakeFreeName(newPath);
      result = kMoveDestinationExists;
    } else if (taken && !(existing & FILE_ATTRIBUTE_DIRECTORY)) {
      result = FolderCode(ERROR_ALREADY_EXISTS);  // a file in the way is never replaced by a folder
    } else if (!taken && !CreateDirectoryW(target.c_str(), nullptr)) {
      result = FolderCode(GetLastError());
    } else {
      result = RemoveEmpty(m_path.c_str());
      if (result != kCleanDone && !taken) RemoveDirectoryW(target.c_str());
    }
  } catch (...) {
    result = kMoveException;
  }
  if (progress) progress->Finish();
  return result;
}
