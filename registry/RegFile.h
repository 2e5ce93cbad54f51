#pragma once
// Registry keys and values written to a file and read back exactly, in the
// text format of the Windows registry editor ("Windows Registry Editor
// Version 5.00", UTF-16LE with BOM), so a user can read and merge it.
//
// A REG_SZ that ends in its one NUL and holds no other NUL and no line break
// is written as a quoted string, a 4-byte REG_DWORD as dword:; every other
// value as hex(type): with its bytes, so types, lengths, embedded NULs and
// missing terminators come back unchanged. The unnamed value is "@". Key
// sections name the key where it really lives (a 32-bit view key under its
// WOW6432Node path, a classes key under HKLM or HKCU), so a restore reaches
// the same key from either view.
#include <windows.h>

#include "clean/ResultCodes.h"
#include "core/Export.h"
#include "registry/RegistryPath.h"

struct SRegRestoreStats {
  unsigned long keys = 0;       // key sections met (created or already there)
  unsigned long written = 0;    // values written
  unsigned long unchanged = 0;  // values already there with the same type and bytes
  unsigned long conflicts = 0;  // values there with other data, left alone (without overwrite)
};

class BROOM_API CRegFile {
 public:
  // Writes what path names as it is now: a key with every value and subkey
  // below it, or one value (with its key's section). The key is opened with
  // view (0, KEY_WOW64_64KEY or KEY_WOW64_32KEY). The text is built first and
  // the file written and flushed only when the whole tree was read: any
  // failure leaves no file. A key or value that is not there is
  // ERROR_FILE_NOT_FOUND; a name with a line break cannot be written
  // (ERROR_INVALID_NAME). Returns 0 or a kRegistryFailed code.
  static DWORD Export(const CRegistryPath& path, REGSAM view, const wchar_t* file, bool overwrite);

  // Writes back every key and value of an export (missing keys are
  // created). A value that exists with the same type and bytes counts as
  // restored; one with other data is left alone and counted as a conflict,
  // unless overwrite is true. A file that does not parse writes nothing
  // (ERROR_INVALID_DATA). Goes on after a failure and returns the first one,
  // else kRegistryRestoreConflict when a value was left alone, else 0.
  // With within (the path the file was exported for), a file that names any
  // key or value other than that one and what lies below it (where the key
  // may really live: under WOW6432Node, a classes key under HKCU or HKLM)
  // writes nothing (kRegistryRestoreOutside): a changed file cannot reach a
  // Run key.
  static DWORD Restore(const wchar_t* file, bool overwrite, SRegRestoreStats* stats,
                       const CRegistryPath* within = nullptr);
};
