#include "clean/FileOverwrite.h"

#include <ntsecapi.h>

#include <cstring>
#include <string>
#include <vector>

#include "clean/FileSystemOps.h"
#include "core/Handles.h"

namespace {

constexpr DWORD kChunk = 1u << 20;
// Never written; not const, so it takes zero pages at load rather than a
// megabyte of the DLL file.
char g_zeros[kChunk];

DWORD Code(DWORD family, DWORD error) { return family | (error & 0xFFFF); }

// Opens the file itself (a link as the link), for writing and deleting,
// shared with nobody; a read-only file is refused even where the system
// would open it (as an administrator under some file systems).
DWORD OpenForOverwrite(const std::wstring& path, DWORD access, broom::unique_hfile& file, bool& isLink) {
  file.reset(CreateFileW(path.c_str(), access | FILE_READ_ATTRIBUTES, 0, nullptr, OPEN_EXISTING,
                         FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  if (!file) return GetLastError();
  FILE_ATTRIBUTE_TAG_INFO tag = {};
  if (!GetFileInformationByHandleEx(file.get(), FileAttributeTagInfo, &tag, sizeof tag)) return GetLastError();
  if (tag.FileAttributes & FILE_ATTRIBUTE_DIRECTORY) return ERROR_ACCESS_DENIED;
  if (tag.FileAttributes & FILE_ATTRIBUTE_READONLY) return ERROR_ACCESS_DENIED;
  isLink = (tag.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
  return ERROR_SUCCESS;
}

// A name of length characters from [a-z0-9].
std::wstring RandomName(size_t length) {
  std::vector<unsigned char> bytes(length ? length : 1);
  if (!RtlGenRandom(bytes.data(), static_cast<ULONG>(bytes.size())))
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(GetTickCount() * 31 + i * 17);
  static const wchar_t kLetters[] = L"abcdefghijklmnopqrstuvwxyz0123456789";
  std::wstring name(length, L'a');
  for (size_t i = 0; i < length; ++i) name[i] = kLetters[bytes[i] % 36];
  return name;
}

// Renames the open file to a free random name of the same length in its
// folder; false when no attempt succeeded.
bool RenameToRandom(HANDLE file, const std::wstring& path) {
  size_t slash = path.find_last_of(L'\\');
  if (slash == std::wstring::npos || slash + 1 >= path.size()) return false;
  std::wstring folder = path.substr(0, slash + 1);
  size_t length = path.size() - slash - 1;
  for (int attempt = 0; attempt < 8; ++attempt) {
    std::wstring target = folder + RandomName(length);
    // the full path: a bare name would be taken relative to the current folder by some systems
    std::vector<BYTE> buffer(sizeof(FILE_RENAME_INFO) + target.size() * sizeof(wchar_t));
    auto* info = reinterpret_cast<FILE_RENAME_INFO*>(buffer.data());
    info->ReplaceIfExists = FALSE;
    info->RootDirectory = nullptr;
    info->FileNameLength = static_cast<DWORD>(target.size() * sizeof(wchar_t));
    memcpy(info->FileName, target.c_str(), target.size() * sizeof(wchar_t));
    if (SetFileInformationByHandle(file, FileRenameInfo, info, static_cast<DWORD>(buffer.size()))) return true;
    DWORD error = GetLastError();
    if (error != ERROR_ALREADY_EXISTS && error != ERROR_FILE_EXISTS && error != ERROR_ACCESS_DENIED) return false;
  }
  return false;
}

}  // namespace

DWORD CFileOverwrite::Overwrite(HANDLE file) {
  FILE_STANDARD_INFO info = {};
  if (!GetFileInformationByHandleEx(file, FileStandardInfo, &info, sizeof info)) return GetLastError();
  // compressed and sparse files allocate less than their length
  unsigned __int64 remaining = static_cast<unsigned __int64>(
      info.AllocationSize.QuadPart > info.EndOfFile.QuadPart ? info.AllocationSize.QuadPart : info.EndOfFile.QuadPart);
  LARGE_INTEGER start = {};
  if (!SetFilePointerEx(file, start, nullptr, FILE_BEGIN)) return GetLastError();
  while (remaining > 0) {
    DWORD chunk = remaining < kChunk ? static_cast<DWORD>(remaining) : kChunk;
    DWORD written = 0;
    if (!WriteFile(file, g_zeros, chunk, &written, nullptr)) return GetLastError();
    if (written != chunk) return ERROR_WRITE_FAULT;
    remaining -= chunk;
  }
  return FlushFileBuffers(file) ? ERROR_SUCCESS : GetLastError();
}

DWORD CFileOverwrite::OverwriteAndDelete(const wchar_t* path) {
  try {
    std::wstring full = CFileSystemOps::ExtendedPath(path);
    broom::unique_hfile file;
    bool isLink = false;
    DWORD error = OpenForOverwrite(full, GENERIC_WRITE | DELETE, file, isLink);
    if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) return 0;  // already gone
    if (error != ERROR_SUCCESS) return Code(kOverwriteOpenFailed, error);
    // a link holds no contents of its own; what it points to is not this item's
    if (!isLink) {
      error = Overwrite(file.get());
      if (error != ERROR_SUCCESS) return Code(kOverwriteFailed, error);
      RenameToRandom(file.get(), full);
    }
    FILE_DISPOSITION_INFO disposition = {TRUE};
    if (!SetFileInformationByHandle(file.get(), FileDispositionInfo, &disposition, sizeof disposition))
      return Code(kOverwriteFailed, GetLastError());
    file.reset();
    return 0;
  } catch (...) {
    return Code(kOverwriteFailed, ERROR_NOT_ENOUGH_MEMORY);
  }
}

DWORD CFileOverwrite::OverwriteAndTruncate(const wchar_t* path) {
  try {
    broom::unique_hfile file;
    bool isLink = false;
    DWORD error = OpenForOverwrite(CFileSystemOps::ExtendedPath(path), GENERIC_WRITE, file, isLink);
    if (error != ERROR_SUCCESS) return Code(kOverwriteOpenFailed, error);
    if (isLink) return Code(kOverwriteOpenFailed, ERROR_ACCESS_DENIED);  // emptying it would empty its target
    error = Overwrite(file.get());
    LARGE_INTEGER start = {};
    if (error == ERROR_SUCCESS && !(SetFilePointerEx(file.get(), start, nullptr, FILE_BEGIN) &&
                                    SetEndOfFile(file.get()) && FlushFileBuffers(file.get())))
      error = GetLastError();
    return error == ERROR_SUCCESS ? 0 : Code(kOverwriteFailed, error);
  } catch (...) {
    return Code(kOverwriteFailed, ERROR_NOT_ENOUGH_MEMORY);
  }
}
