#pragma once
// A quarantine folder: hits moved there instead of being deleted, with a
// manifest (QuarantineManifest.h) that says where each one came from, so
// that restore can put every file back.
#include <string>
#include <vector>

#include "app/QuarantineManifest.h"
#include "app/ScanRun.h"

namespace host {

class CQuarantine {
 public:
  static constexpr const wchar_t* kManifestName = CQuarantineManifest::kName;

  // folder: absolute path. With create the folder is made when missing, and
  // one without a manifest must be empty. The whole manifest is checked
  // before anything moves: throws CHostError(exitUsage) naming what is
  // wrong when it is damaged or unreadable, or missing when create is false.
  CQuarantine(const std::wstring& folder, bool create);

  const std::wstring& Folder() const { return m_manifest.Folder(); }
  std::wstring ManifestPath() const { return m_manifest.Path(); }
  const std::vector<SQuarantineEntry>& Entries() const { return m_manifest.Entries(); }

  // The folder was made by this object and nothing was put in it: it goes
  // when the object does.
  ~CQuarantine();
  void RemoveWhenUnused() { m_created = true; }  // for a folder the caller made
  CQuarantine(const CQuarantine&) = delete;
  CQuarantine& operator=(const CQuarantine&) = delete;

  // Why a hit cannot go into quarantine (its path could not be restored);
  // empty when it can. A path that starts with a hive name is a registry path.
  std::wstring CannotHold(const std::wstring& path) const;

  // Moves one hit in and records it with the item path and the rule that
  // found it (source may be null). A file or folder is renamed into the
  // folder; on another drive a file is copied under a temporary name,
  // compared, renamed and only then deleted at its place, and any failure
  // removes the copy and leaves the file; a folder that is not empty is not
  // moved across drives. A registry hit is exported to a .reg file, the
  // export checked, then the hit deleted. A browser database is copied into
  // the folder, then cleaned inside (QuarantineDatabase.h). Taken names get
  // a free variant.
  // Returns 0 or a result code (clean/ResultCodes.h); the manifest is rewritten
  // after every hit that moved.
  DWORD Add(const SHit& hit, const std::wstring& itemPath, const SOperationSource* source);

  struct SRestoreFailure {
    SQuarantineEntry entry;
    std::wstring reason;
  };
  struct SRestoreResult {
    unsigned __int64 files = 0;
    unsigned __int64 bytes = 0;
    std::vector<SRestoreFailure> failures;  // entries that stay, with the reason
    std::wstring stopped;                   // why the restore ended early, when it did
  };
  // Moves every entry back, never over an existing file, rewriting the
  // manifest after each move; what is not restored stays listed. Registry
  // entries are imported, never over a value that holds other data now; a
  // database's copy goes back only while the database is as the clean left it.
  SRestoreResult RestoreAll();

  // Deletes every stored file and folder (never following links), the
  // manifest and the folder itself; false with the reason when something
  // stays.
  bool DeleteAll(std::wstring& reason);
  // The same for the quarantine in folder, whose manifest is read and
  // checked again first: only a sound manifest of broom's says what may go.
  static bool DeleteFolder(const std::wstring& folder, std::wstring& reason);

 private:
  CQuarantineManifest m_manifest;
  bool m_created = false;  // the folder was made by this object
};

}  // namespace host
