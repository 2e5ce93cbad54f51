#pragma once
// A registry hit: a whole key with everything below it, or one value of a
// key. Cleaning deletes it; moving exports it to a file (see RegFile.h) and
// deletes it only when the export was written. Neither throws; results are
// 0 or kRegistryFailed OR-ed with the Win32 error, and a key or value that
// is already gone counts as done.
#include <windows.h>

#include "clean/CleanableFile.h"
#include "core/Export.h"
#include "registry/RegFile.h"
#include "registry/RegistryPath.h"

class BROOM_API CCleanableRegistry : public ICleanableItem {
 public:
  CCleanableRegistry() = default;
  CCleanableRegistry(const CCleanableRegistry&) = default;
  CCleanableRegistry& operator=(const CCleanableRegistry&) = default;
  virtual ~CCleanableRegistry() = default;

  // path names the key (or, with a value part, the value); it is opened with
  // view (0, KEY_WOW64_64KEY or KEY_WOW64_32KEY). size: the bytes of the
  // value's data, or of every value at and below the key.
  void Init(const CRegistryPath& path, REGSAM view, unsigned __int64 size);
  const CRegistryPath& GetPath() const { return m_path; }
  REGSAM GetView() const { return m_view; }
  bool IsValue() const { return m_path.HasValue(); }
  bool Exists() const;
  // Writes the item as it is now to a registry file (RegFile.h).
  DWORD Export(const wchar_t* file, bool overwrite) const { return CRegFile::Export(m_path, m_view, file, overwrite); }

  unsigned __int64 GetSize() const override { return m_size; }
  // A key: every key of the tree is first opened with the rights its
  // deletion needs, so a key that may not be deleted leaves the whole tree
  // as it was; then RegDeleteTreeW and RegDeleteKeyExW. A value: RegDeleteValueW.
  // A key of the safety table is never deleted (kRegistryRefused).
  DWORD Clean(IOperationProgressNotify* progress, IOperationStatusNotify* status) override;
  // "Registry: HKCU\Software\Vendor\App\t\tSize: 123\r\n"; a value as Key|Name.
  CString GetLogEntry() const override;
  // The key's own name, or the value's name ("(Default)" for the unnamed one).
  CString GetName() const override;
  // The key that holds the item: the parent key of a key, the key of a value.
  CString GetDetails() const override;
  // Exports the item to the file destination, then cleans it. An existing
  // file without overwrite gives kMoveDestinationExists with a free name in
  // newPath and changes nothing; a failed export deletes nothing; a failed
  // deletion removes the export again. Returns Clean's result otherwise.
  DWORD Move(CString destination, IOperationProgressNotify* progress, IOperationStatusNotify* status,
             bool overwrite, CPathString& newPath) override;

 protected:
  CRegistryPath m_path;
  REGSAM m_view = 0;
  unsigned __int64 m_size = 0;
};
