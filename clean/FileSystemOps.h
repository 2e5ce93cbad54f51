#pragma once
// File-system services of the engine: listing folders without following
// links, the size entries take on disk, and (see ShellOperationsDecl.inc)
// deleting and moving through the shell.
#include <windows.h>
#include <shellapi.h>

#include <list>
#include <string>
#include <vector>

#include "core/Export.h"
#include "core/PathString.h"
#include "threads/MsgThreadSTA.h"

// Result code of RemoveTree: OR-ed with the Win32 error of the first entry
// that could not be removed.
enum : DWORD { kRemoveFailed = 0x80670000 };

class BROOM_API CFileSystemOps {
 public:
  // Appends what pattern matches: folders to folders, files to files (dropped
  // when files is null). Reparse points, "." and ".." are never returned;
  // system entries only with includeSystem.
  static void ListDirectory(std::list<WIN32_FIND_DATAW>& folders, std::list<WIN32_FIND_DATAW>* files,
                            const wchar_t* pattern, bool includeSystem);
  // The same into vectors. True when the listing ran to its end: the folder
  // was opened (a pattern that matches nothing in it lists nothing) and no
  // error broke the listing off.
  static bool ListDirectory(std::vector<WIN32_FIND_DATAW>& folders, std::vector<WIN32_FIND_DATAW>* files,
                            const wchar_t* pattern, bool includeSystem);
  // Bytes the entry takes: the compressed size of compressed or sparse
  // files, the sum over a folder's tree (no system entries, no links).
  static unsigned __int64 GetSizeOnDisk(const CPathString& folder, const WIN32_FIND_DATAW& entry);

  // Removes a file, or a folder with everything in it (hidden and system
  // entries too), deepest first. A link (reparse point) is removed as a link
  // and never followed. Without overwrite read-only entries lose that bit
  // first; with it every file goes through CFileOverwrite::OverwriteAndDelete
  // and read-only ones stay. A failure does not stop the rest; the result is
  // 0 when nothing is left (or nothing was there), otherwise the first
  // failure's code (kRemoveFailed or an overwrite code).
  static DWORD RemoveTree(const wchar_t* path, bool overwrite);
  // What the same tree takes on disk: every file below counts (system files
  // too), links are not followed.
  static unsigned __int64 GetTreeSizeOnDisk(const wchar_t* path);
  // path with the \\?\ prefix when it is too long for the plain form.
  static std::wstring ExtendedPath(const wchar_t* path);

#include "clean/ShellOperationsDecl.inc"
};
