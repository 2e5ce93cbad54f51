#pragma once
// Every result code of cleaning and moving, in one place: what
// ICleanableItem::Clean and Move return for files, folders and registry
// keys, what registry exports and restores return, and the codes of a
// host's moves into quarantine; and what each means in words. 0 is done.
#include <windows.h>

#include <string>

#include "core/Export.h"

// Files: Clean and Move.
enum : DWORD {
  kCleanDone = 0,
  kCleanAlternateRemoved = 0xC0000000,  // the server's second way succeeded
  kCleanFailed = 0x80000000,            // both server ways failed, or an exception
  kCleanServerUnavailable = 0x88000000, // OR-ed with the creation HRESULT's facility and code
  kTruncateOpenFailed = 0x88004005,
  kMoveDestinationExists = 0x80640001,
  kMoveException = 0x80640000,
};

// A folder removal: kFolderFailed OR-ed with the Win32 error;
// kFolderNotEmpty when something is still in it.
enum : DWORD {
  kFolderFailed = 0x80650000,
  kFolderNotEmpty = kFolderFailed | ERROR_DIR_NOT_EMPTY,  // 0x80650091
};

// Registry items, exports and restores: 0 or this OR-ed with a Win32 error
// in the low 16 bits (0x80520005: access denied).
enum : DWORD {
  kRegistryFailed = 0x80520000,
  // restore: a value in the way holds other data and was left as it was
  kRegistryRestoreConflict = kRegistryFailed | ERROR_ALREADY_EXISTS,
  // export: the file exists and overwriting was not allowed
  kRegistryExportFileExists = kRegistryFailed | ERROR_FILE_EXISTS,
  // clean: the key is in the safety table (or a hive root holds the value)
  kRegistryRefused = kRegistryFailed | ERROR_INVALID_OPERATION,
  // restore: the file names a key or value outside the one it was exported
  // for; nothing was written
  kRegistryRestoreOutside = kRegistryFailed | ERROR_BAD_PATHNAME,
};

inline DWORD RegistryResult(LONG error) {
  return error == ERROR_SUCCESS ? 0 : kRegistryFailed | (static_cast<DWORD>(error) & 0xFFFF);
}

// Moves that a host's quarantine makes itself: this OR-ed with the Win32
// error; the hit stays where it was and no copy is kept.
enum : DWORD {
  kQuarantineMoveFailed = 0x80660000,
  // a folder that is not empty would be copied to another drive piece by piece
  kQuarantineFolderAcross = kQuarantineMoveFailed | ERROR_NOT_SAME_DEVICE,
  // the copy on the other drive did not read back as the file
  kQuarantineCopyMismatch = kQuarantineMoveFailed | ERROR_CRC,
};

// Recycle Bin entries (CRecycleBinItem), besides CFileSystemOps::RemoveTree's
// kRemoveFailed (0x8067xxxx) and the overwrite codes of clean/FileOverwrite.h
// (0x8068xxxx, 0x8069xxxx), which ExplainResult says in words too.
enum : DWORD {
  kRecycleBinNotMoved = 0x80670032,  // an entry is never moved (ERROR_NOT_SUPPORTED)
  kRecycleBinChanged = 0x8067139F,   // the record changed since the scan: left as it is
  kRecycleBinNotInBin = 0x806710DD,  // its paths are not in a Recycle Bin folder: never deleted
};

// What a result code means, in words, with the code: "could not be removed:
// it is in use, ... (0x80000000)"; "done" for 0.
BROOM_API std::wstring ExplainResult(DWORD code);
