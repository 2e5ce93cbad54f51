#pragma once
// Deleting so that the contents cannot be read back: one pass of zeros over
// the whole allocated length of a file, written and flushed through the
// handle that then renames the file to a random name of the same length in
// its folder and deletes it. One pass suffices on disks that write in
// place; SSDs and copy-on-write or compressed volumes may keep copies that
// no overwrite reaches.
//
// The file is opened for writing and nobody else may open it meanwhile: a
// file that is read-only, in use or otherwise not writable is left exactly
// as it was and not deleted either.
#include <windows.h>

#include "core/Export.h"

// Result codes, OR-ed with the Win32 error.
enum : DWORD {
  // The file could not be opened for writing (0x80680005 read-only or
  // access denied, 0x80680020 in use): untouched and not deleted.
  kOverwriteOpenFailed = 0x80680000,
  // Writing, flushing, truncating or deleting failed after the file was
  // opened: it stays, and may be partly overwritten.
  kOverwriteFailed = 0x80690000,
};

class BROOM_API CFileOverwrite {
 public:
  // Overwrites, renames and deletes one file; 0 when it is gone (or was
  // gone already). A link is deleted as a link: what it points to is never
  // written. A failed rename does not stop the deletion.
  static DWORD OverwriteAndDelete(const wchar_t* path);
  // Overwrites the file, then cuts it to zero length; the file stays.
  static DWORD OverwriteAndTruncate(const wchar_t* path);

  // The zeros written to one open file: its length or allocated length,
  // whichever is larger, then flushed. A Win32 error or 0.
  static DWORD Overwrite(HANDLE file);
};
