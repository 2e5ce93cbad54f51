#pragma once
// A quarantine folder: hits moved there instead of being deleted, and a
// manifest (JSON) that says where each one came from, so that restore can
// put every file back.
//
// A manifest is trusted only whole. It must be an object with "format"
// "broom-quarantine", "version" 1 and a list "entries" of objects, each
// with a string "original" (an absolute local path: a drive letter, a colon
// and a backslash, then names without wildcards, devices, "." or ".." and
// at most 260 characters, outside the quarantine folder), a string "stored"
// (a plain file name in the folder, not the manifest's own name or its
// .tmp) and a whole number "size"; no two entries share a stored name or an
// original. Every file and folder in the quarantine folder, apart from the
// manifest and its .tmp, must be some entry's stored file. A "checksum"
// (SHA-256 of the entries, written by broom) must match when it is there;
// one removed by hand after a deliberate edit leaves the other checks. A
// stored file that is missing is no damage: restore reports it and goes on.
//
// Optional fields of an entry: "kind" "registry" for a registry key or
// value, whose "original" is its registry path (HKCU\Software\Vendor, a
// value as Key|Name) and whose stored file is its export (a .reg file);
// "item", the item path that found the hit; "source", an object with the
// definition "file", its "line", the rule's "kind" and "text". Where they
// are present they must have these types.
#include <string>
#include <vector>

#include "app/Session.h"

namespace host {

struct SQuarantineEntry {
  std::wstring original;  // full path the file came from, or the registry path
  std::wstring stored;    // name inside the quarantine folder
  unsigned __int64 size = 0;
  bool registry = false;  // original is a registry key or value, stored its export
  std::wstring item;      // the item that found it; empty when not recorded
  bool hasSource = false;
  SOperationSource source;  // the rule that found it, when hasSource
};

class CQuarantine {
 public:
  static constexpr const wchar_t* kManifestName = L"broom-quarantine.json";

  // folder: absolute path. With create the folder is made when missing, and
  // one without a manifest must be empty. The whole manifest is checked
  // before anything moves: throws CHostError(exitUsage) naming what is
  // wrong when it is damaged or unreadable, or missing when create is false.
  CQuarantine(const std::wstring& folder, bool create);

  const std::wstring& Folder() const { return m_folder; }
  std::wstring ManifestPath() const { return Child(kManifestName); }
  const std::vector<SQuarantineEntry>& Entries() const { return m_entries; }

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
  // export checked, then the hit deleted. Taken names get a free variant.
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
  // entries are imported, never over a value that holds other data now.
  SRestoreResult RestoreAll();

  // Deletes every stored file and folder (never following links), the
  // manifest and the folder itself; false with the reason when something
  // stays.
  bool DeleteAll(std::wstring& reason);

 private:
  std::wstring Child(const std::wstring& name) const;
  // Fills m_entries from the manifest's bytes, or throws for a damaged one.
  void Validate(const std::string& bytes);
  [[noreturn]] void Damaged(const std::wstring& what, const std::wstring& fix = std::wstring()) const;
  bool TrySave(std::wstring& error) const;  // replaces the manifest in one step
  void Save() const;                        // the same; throws CHostError
  bool MoveBack(const SQuarantineEntry& entry, std::wstring& reason) const;
  bool ImportBack(const SQuarantineEntry& entry, std::wstring& reason) const;
  DWORD AddFile(const SHit& hit, SQuarantineEntry& entry);
  DWORD AddRegistry(const SHit& hit, SQuarantineEntry& entry);
  DWORD CopyAcross(const std::wstring& source, std::wstring& destination, SQuarantineEntry& entry);
  // Appends the entry and saves; on failure the entry is dropped again.
  bool Record(const SQuarantineEntry& entry, std::wstring& error);

  std::wstring m_folder;
  std::vector<SQuarantineEntry> m_entries;
  bool m_created = false;  // the folder was made by this object
};

}  // namespace host
