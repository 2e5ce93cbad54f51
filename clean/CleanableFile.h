#pragma once
// Items a scan reports: a found file or folder that cleans itself by
// deletion (or, for the _trunc kind, by emptying the file) or moves itself.
// Results are codes; cleaning and moving never throw.
#include <windows.h>
#include <unknwn.h>

#include "atl/CString.h"
#include "clean/ResultCodes.h"
#include "core/Export.h"
#include "core/PathString.h"
#include "scan/OperationNotify.h"

struct ICleanableItem : public IUnknown {
  virtual unsigned __int64 GetSize() const = 0;
  virtual DWORD Clean(IOperationProgressNotify* progress, IOperationStatusNotify* status) = 0;
  virtual CString GetLogEntry() const = 0;
  virtual CString GetName() const = 0;
  virtual CString GetDetails() const = 0;
  virtual DWORD Move(CString destination, IOperationProgressNotify* progress, IOperationStatusNotify* status,
                     bool overwrite, CPathString& newPath) = 0;
};

class BROOM_API CCleanableFile : public ICleanableItem {
 public:
  CCleanableFile() = default;
  CCleanableFile(const CCleanableFile&) = default;
  CCleanableFile& operator=(const CCleanableFile&) = default;
  virtual ~CCleanableFile() = default;

  // Full path, attributes and size on disk; throws BufferOverflowException
  // when the full path passes 260 characters.
  void Init(const CPathString& folder, const WIN32_FIND_DATAW& entry);
  const CPathString& GetPath() const { return m_path; }
  bool IsDirectory() const { return (m_attributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }
  bool Exists() const;
  DWORD GetAttributes() const { return m_attributes; }

  unsigned __int64 GetSize() const override { return m_size; }
  // CleanWith(GetOverwrite(), ...).
  DWORD Clean(IOperationProgressNotify* progress, IOperationStatusNotify* status) override;
  CString GetLogEntry() const override;
  CString GetName() const override;
  CString GetDetails() const override;
  DWORD Move(CString destination, IOperationProgressNotify* progress, IOperationStatusNotify* status,
             bool overwrite, CPathString& newPath) override;

  // The result code for a failure to create the fallback server.
  static DWORD ServerCreationCode(HRESULT hr) { return kCleanServerUnavailable | (static_cast<DWORD>(hr) & 0x17FFFFFF); }
  // What Clean returns once the shell delete gave shellResult: 0 when it
  // succeeded, otherwise the fallback server's outcome. Never throws.
  DWORD CleanAfterShell(int shellResult);

  // Whether Clean overwrites the contents before deleting (off until set).
  void SetOverwrite(bool overwrite) { m_overwrite = overwrite; }
  bool GetOverwrite() const { return m_overwrite; }
  // Cleans, overwriting first when overwrite is true, whatever the item's
  // own setting (CleanItems uses it for a whole run). Overwriting deletes
  // through CFileOverwrite instead of the shell, a folder with everything
  // in it (CFileSystemOps::RemoveTree); a file it cannot open for writing
  // stays (kOverwriteOpenFailed). Subclasses that clean differently
  // override this rather than Clean.
  virtual DWORD CleanWith(bool overwrite, IOperationProgressNotify* progress, IOperationStatusNotify* status);

 protected:
  unsigned __int64 m_size = 0;
  DWORD m_attributes = 0;
  CPathString m_path;
  bool m_overwrite = false;
};

// Empties the file instead; with overwrite it is overwritten, then emptied.
class BROOM_API CCleanableFile_trunc : public CCleanableFile {
 public:
  DWORD CleanWith(bool overwrite, IOperationProgressNotify* progress, IOperationStatusNotify* status) override;
};
