#pragma once
// File-system services of the engine: listing folders without following
// links, the size entries take on disk, and (see ShellOperationsDecl.inc)
// deleting and moving through the shell.
#include <windows.h>
#include <shellapi.h>

#include <list>
#include <vector>

#include "core/Export.h"
#include "core/PathString.h"
#include "threads/MsgThreadSTA.h"

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

#include "clean/ShellOperationsDecl.inc"
};
