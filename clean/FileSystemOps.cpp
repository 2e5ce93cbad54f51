#include "clean/FileSystemOps.h"

#include <cwchar>

#include "core/Handles.h"

namespace {

template <class Entries>
bool ListInto(Entries& folders, Entries* files, const wchar_t* pattern, bool includeSystem) {
  WIN32_FIND_DATAW data;
  broom::unique_hfind find(FindFirstFileW(pattern, &data));
  if (!find) return GetLastError() == ERROR_FILE_NOT_FOUND;
  do {
    if (data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) continue;
    if ((data.dwFileAttributes & FILE_ATTRIBUTE_SYSTEM) && !includeSystem) continue;
    if (wcscmp(data.cFileName, L".") == 0 || wcscmp(data.cFileName, L"..") == 0) continue;
    if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
      folders.push_back(data);
    else if (files)
      files->push_back(data);
  } while (FindNextFileW(find.get(), &data));
  return GetLastError() == ERROR_NO_MORE_FILES;
}

}  // namespace

void CFileSystemOps::ListDirectory(std::list<WIN32_FIND_DATAW>& folders, std::list<WIN32_FIND_DATAW>* files,
                                   const wchar_t* pattern, bool includeSystem) {
  ListInto(folders, files, pattern, includeSystem);
}

bool CFileSystemOps::ListDirectory(std::vector<WIN32_FIND_DATAW>& folders, std::vector<WIN32_FIND_DATAW>* files,
                                   const wchar_t* pattern, bool includeSystem) {
  return ListInto(folders, files, pattern, includeSystem);
}

unsigned __int64 CFileSystemOps::GetSizeOnDisk(const CPathString& folder, const WIN32_FIND_DATAW& entry) {
  // A plain file's size is the listing's: its path is only measured, not
  // built (a scan asks for every hit), and one too long is refused all the same.
  const bool file = !(entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY);
  const size_t name = wcsnlen(entry.cFileName, MAX_PATH);
  const bool separator = folder.GetLength() > 0 && folder.c_str()[folder.GetLength() - 1] != L'\\';
  if (folder.GetLength() + (separator ? 1u : 0u) + name > MAX_PATH) throw BufferOverflowException();
  unsigned __int64 nominal = (static_cast<unsigned __int64>(entry.nFileSizeHigh) << 32) | entry.nFileSizeLow;
  if (file && !(entry.dwFileAttributes & (FILE_ATTRIBUTE_COMPRESSED | FILE_ATTRIBUTE_SPARSE_FILE))) return nominal;
  CPathString path(folder);
  path.AppendPath(entry.cFileName, static_cast<unsigned short>(name));
  if (file) {
    DWORD high = 0;
    DWORD low = GetCompressedFileSizeW(path.c_str(), &high);
    if (low == INVALID_FILE_SIZE && GetLastError() != NO_ERROR) return nominal;
    return (static_cast<unsigned __int64>(high) << 32) | low;
  }
  CPathString pattern(path);
  pattern.AppendPath(L"*", 1);
  std::list<WIN32_FIND_DATAW> entries;
  ListDirectory(entries, &entries, pattern.c_str(), false);
  unsigned __int64 total = 0;
  for (const auto& child : entries) total += GetSizeOnDisk(path, child);
  return total;
}
