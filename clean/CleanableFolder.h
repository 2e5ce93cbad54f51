#pragma once
// A folder that a rule removes once it is empty (winapp2's REMOVESELF). A
// scan reports it after the files in it, deepest folders first; cleaning
// removes it only while it is empty (RemoveDirectoryW), never with what it
// holds, and a folder that is not empty stays and says so.
#include <windows.h>

#include "clean/CleanableFile.h"
#include "core/Export.h"

class BROOM_API CCleanableEmptyFolder : public CCleanableFile {
 public:
  // folder: the full path of the folder; attributes as its listing gave them.
  // The size is 0: the files in it are items of their own.
  void InitFolder(const CPathString& folder, DWORD attributes);

  // 0 when removed or already gone; kFolderNotEmpty when something is in
  // it. An empty folder has no contents to overwrite: overwrite changes nothing.
  DWORD CleanWith(bool overwrite, IOperationProgressNotify* progress, IOperationStatusNotify* status) override;
  // "Folder: C:\x\cache\t\tSize: 0\r\n"
  CString GetLogEntry() const override;
  // An empty folder has nothing to keep: the destination folder is created
  // and this one removed (kMoveDestinationExists with a free name when the
  // destination exists and overwrite is false; kFolderNotEmpty, and nothing
  // done, when this one is not empty).
  DWORD Move(CString destination, IOperationProgressNotify* progress, IOperationStatusNotify* status,
             bool overwrite, CPathString& newPath) override;

  // The folder exists and holds no entry at all.
  bool IsEmpty() const;
};
