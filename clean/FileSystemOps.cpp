#include "clean/FileSystemOps.h"

#include <cwchar>
#include <vector>

#include "clean/FileOverwrite.h"
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

namespace {

DWORD RemoveCode(DWORD error) { return kRemoveFailed | (error & 0xFFFF); }

bool Gone(DWORD error) { return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND; }

unsigned __int64 FileSizeOnDisk(const std::wstring& path, const WIN32_FIND_DATAW& entry) {
  unsigned __int64 nominal = (static_cast<unsigned __int64>(entry.nFileSizeHigh) << 32) | entry.nFileSizeLow;
  if (!(entry.dwFileAttributes & (FILE_ATTRIBUTE_COMPRESSED | FILE_ATTRIBUTE_SPARSE_FILE))) return nominal;
  DWORD high = 0;
  DWORD low = GetCompressedFileSizeW(CFileSystemOps::ExtendedPath(path.c_str()).c_str(), &high);
  if (low == INVALID_FILE_SIZE && GetLastError() != NO_ERROR) return nominal;
  return (static_cast<unsigned __int64>(high) << 32) | low;
}

// Calls visit(path, entry) for every entry below folder, "." and ".."
// left out; false when the folder could not be listed (error then holds why).
template <class Visit>
bool ForEachEntry(const std::wstring& folder, Visit visit, DWORD& error) {
  WIN32_FIND_DATAW data;
  broom::unique_hfind find(FindFirstFileExW(CFileSystemOps::ExtendedPath((folder + L"\\*").c_str()).c_str(),
                                            FindExInfoBasic, &data, FindExSearchNameMatch, nullptr, 0));
  if (!find) {
    error = GetLastError();
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_NO_MORE_FILES;
  }
  do {
    if (wcscmp(data.cFileName, L".") == 0 || wcscmp(data.cFileName, L"..") == 0) continue;
    visit(folder + L"\\" + data.cFileName, data);
  } while (FindNextFileW(find.get(), &data));
  return true;
}

// Removes one entry that is not a folder to descend into: a file, or a link
// of either kind as the link.
DWORD RemoveEntry(const std::wstring& path, DWORD attributes, bool overwrite) {
  std::wstring full = CFileSystemOps::ExtendedPath(path.c_str());
  bool folder = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  if (overwrite && !folder) return CFileOverwrite::OverwriteAndDelete(path.c_str());
  if ((attributes & FILE_ATTRIBUTE_READONLY) && !(attributes & FILE_ATTRIBUTE_REPARSE_POINT))
    SetFileAttributesW(full.c_str(), attributes & ~FILE_ATTRIBUTE_READONLY);
  if (folder ? RemoveDirectoryW(full.c_str()) : DeleteFileW(full.c_str())) return 0;
  DWORD error = GetLastError();
  if (Gone(error)) return 0;
  if (attributes & FILE_ATTRIBUTE_READONLY) SetFileAttributesW(full.c_str(), attributes);
  return RemoveCode(error);
}

}  // namespace

std::wstring CFileSystemOps::ExtendedPath(const wchar_t* path) {
  std::wstring text = path ? path : L"";
  // 248 is the longest folder path the plain form takes
  if (text.size() < 248 || text.compare(0, 4, L"\\\\?\\") == 0) return text;
  if (text.size() > 2 && text[1] == L':' && text[2] == L'\\') return L"\\\\?\\" + text;
  if (text.compare(0, 2, L"\\\\") == 0) return L"\\\\?\\UNC\\" + text.substr(2);
  return text;
}

DWORD CFileSystemOps::RemoveTree(const wchar_t* path, bool overwrite) {
  try {
    std::wstring root = path ? path : L"";
    while (root.size() > 3 && root.back() == L'\\') root.pop_back();
    DWORD attributes = GetFileAttributesW(ExtendedPath(root.c_str()).c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) {
      DWORD error = GetLastError();
      return Gone(error) ? 0 : RemoveCode(error);
    }
    if (!(attributes & FILE_ATTRIBUTE_DIRECTORY) || (attributes & FILE_ATTRIBUTE_REPARSE_POINT))
      return RemoveEntry(root, attributes, overwrite);
    // depth first without recursion: a folder is removed once its frame
    // comes back to the top with everything below it handled
    struct SFrame {
      std::wstring path;
      DWORD attributes;
      bool listed;
    };
    std::vector<SFrame> stack{{root, attributes, false}};
    DWORD first = 0;
    while (!stack.empty()) {
      if (stack.back().listed) {
        DWORD result = RemoveEntry(stack.back().path, stack.back().attributes, false);
        if (result && !first) first = result;
        stack.pop_back();
        continue;
      }
      stack.back().listed = true;
      std::vector<SFrame> folders;
      DWORD error = 0;
      bool listed = ForEachEntry(
          stack.back().path,
          [&](const std::wstring& child, const WIN32_FIND_DATAW& entry) {
            if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) &&
                !(entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT)) {
              folders.push_back({child, entry.dwFileAttributes, false});
              return;
            }
            DWORD result = RemoveEntry(child, entry.dwFileAttributes, overwrite);
            if (result && !first) first = result;
          },
          error);
      if (!listed && !first) first = RemoveCode(error);
      for (SFrame& folder : folders) stack.push_back(std::move(folder));
    }
    return first;
  } catch (...) {
    return RemoveCode(ERROR_NOT_ENOUGH_MEMORY);
  }
}

unsigned __int64 CFileSystemOps::GetTreeSizeOnDisk(const wchar_t* path) {
  WIN32_FIND_DATAW top;
  {
    broom::unique_hfind find(FindFirstFileExW(ExtendedPath(path).c_str(), FindExInfoBasic, &top,
                                              FindExSearchNameMatch, nullptr, 0));
    if (!find) return 0;
  }
  if (!(top.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) return FileSizeOnDisk(path, top);
  if (top.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) return 0;
  unsigned __int64 total = 0;
  std::vector<std::wstring> pending{path};
  while (!pending.empty()) {
    std::wstring folder = std::move(pending.back());
    pending.pop_back();
    DWORD error = 0;
    ForEachEntry(
        folder,
        [&](const std::wstring& child, const WIN32_FIND_DATAW& entry) {
          if (entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) return;
          if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
            pending.push_back(child);
          else
            total += FileSizeOnDisk(child, entry);
        },
        error);
  }
  return total;
}
