#include "recyclebin/RecycleBinRecord.h"

#include <cstring>
#include <vector>

#include "clean/FileSystemOps.h"
#include "core/Handles.h"

namespace {

unsigned __int64 Read64(const unsigned char* at) {
  unsigned __int64 value = 0;
  for (int i = 7; i >= 0; --i) value = (value << 8) | at[i];
  return value;
}

unsigned long Read32(const unsigned char* at) {
  return static_cast<unsigned long>(at[0]) | static_cast<unsigned long>(at[1]) << 8 |
         static_cast<unsigned long>(at[2]) << 16 | static_cast<unsigned long>(at[3]) << 24;
}

bool IsAbsolute(const std::wstring& path) {
  bool drive = path.size() >= 3 && ((path[0] >= L'A' && path[0] <= L'Z') || (path[0] >= L'a' && path[0] <= L'z')) &&
               path[1] == L':' && path[2] == L'\\';
  bool unc = path.size() >= 5 && path[0] == L'\\' && path[1] == L'\\' && path[2] != L'\\';
  return drive || unc;
}

}  // namespace

bool CRecycleBinRecord::Parse(const unsigned char* bytes, size_t size, SRecycleBinRecord& out, std::wstring& why) {
  if (!bytes || size < 24) {
    why = L"it is " + std::to_wstring(size) + L" bytes long, too short for a Recycle Bin record";
    return false;
  }
  unsigned __int64 version = Read64(bytes);
  size_t offset = 0, characters = 0;
  if (version == 1) {
    if (size != 544) {
      why = L"a version 1 record is 544 bytes long, this one " + std::to_wstring(size);
      return false;
    }
    offset = 24;
    characters = 260;
  } else if (version == 2) {
    characters = size >= 28 ? Read32(bytes + 24) : 0;
    if (size < 28 || characters > 32768 || size != 28 + 2 * characters) {
      why = L"its length (" + std::to_wstring(size) + L" bytes) does not match the path length it gives";
      return false;
    }
    offset = 28;
  } else {
    why = L"it is of version " + std::to_wstring(version) + L", not 1 or 2";
    return false;
  }
  std::wstring path(characters, L'\0');
  for (size_t i = 0; i < characters; ++i)
    path[i] = static_cast<wchar_t>(bytes[offset + 2 * i] | (bytes[offset + 2 * i + 1] << 8));
  size_t end = path.find(L'\0');
  // version 2 ends the path with its only NUL; version 1 pads with NULs
  if (end == std::wstring::npos || (version == 2 && end + 1 != characters)) {
    why = L"its original path does not end where the record says";
    return false;
  }
  path.resize(end);
  for (wchar_t c : path)
    if (c < 0x20) {
      why = L"its original path holds a control character";
      return false;
    }
  if (!IsAbsolute(path)) {
    why = path.empty() ? L"its original path is empty" : L"its original path '" + path + L"' is not a full path";
    return false;
  }
  unsigned __int64 deleted = Read64(bytes + 16);
  if (deleted == 0) {
    why = L"its deletion time is 0";
    return false;
  }
  out.version = static_cast<int>(version);
  out.originalSize = Read64(bytes + 8);
  out.deleted.dwLowDateTime = static_cast<DWORD>(deleted);
  out.deleted.dwHighDateTime = static_cast<DWORD>(deleted >> 32);
  out.originalPath = path;
  return true;
}

bool CRecycleBinRecord::Read(const wchar_t* path, SRecycleBinRecord& out, std::wstring& why) {
  broom::unique_hfile file(CreateFileW(CFileSystemOps::ExtendedPath(path).c_str(), GENERIC_READ,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                       FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  if (!file) {
    why = L"it cannot be read (error " + std::to_wstring(GetLastError()) + L")";
    return false;
  }
  LARGE_INTEGER size = {};
  if (!GetFileSizeEx(file.get(), &size) || size.QuadPart > static_cast<LONGLONG>(kMaxBytes)) {
    why = L"it is larger than any Recycle Bin record";
    return false;
  }
  std::vector<unsigned char> bytes(static_cast<size_t>(size.QuadPart) + 1);
  DWORD read = 0;
  // one byte more than the size: a file that grew meanwhile does not parse
  if (!ReadFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr)) {
    why = L"it cannot be read (error " + std::to_wstring(GetLastError()) + L")";
    return false;
  }
  return Parse(bytes.data(), read, out, why);
}
