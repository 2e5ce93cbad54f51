#pragma once
// The $I record the shell writes for each file or folder it moves into the
// Recycle Bin, beside the $R data of the same suffix. All numbers are
// little-endian:
//
//   version 1 (Windows Vista to 8.1), 544 bytes:
//     0  int64    1
//     8  int64    the original size in bytes
//     16 FILETIME the deletion time (UTC)
//     24 wchar[260] the original path, NUL-terminated
//   version 2 (Windows 10 and later), 28 + 2n bytes:
//     0  int64    2
//     8  int64    the original size
//     16 FILETIME the deletion time
//     24 uint32   n, the path's length in characters with its NUL
//     28 wchar[n] the original path
#include <windows.h>

#include <string>

#include "core/Export.h"

struct SRecycleBinRecord {
  int version = 0;
  unsigned __int64 originalSize = 0;
  FILETIME deleted = {};
  std::wstring originalPath;
};

class BROOM_API CRecycleBinRecord {
 public:
  // The largest record a path of 32767 characters gives.
  static constexpr size_t kMaxBytes = 28 + 2 * 32768;

  // Reads a record from its bytes; false, with the reason in words in why,
  // when they are not one: another version, a size that does not match the
  // version, a path without its NUL, empty or holding a NUL or control
  // character, a path that is not absolute (X:\... or \\server\share\...),
  // or a deletion time of 0.
  static bool Parse(const unsigned char* bytes, size_t size, SRecycleBinRecord& out, std::wstring& why);
  // Reads the file whole and parses it; a file that cannot be read or is
  // larger than kMaxBytes is no record either.
  static bool Read(const wchar_t* path, SRecycleBinRecord& out, std::wstring& why);
};
