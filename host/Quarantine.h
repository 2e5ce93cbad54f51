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
#include <string>
#include <vector>

#include "host/Session.h"

namespace host {

struct SQuarantineEntry {
  std::wstring original;  // full path the file came from
  std::wstring stored;    // name inside the quarantine folder
  unsigned __int64 size = 0;
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

  // Why a hit cannot go into quarantine (its path could not be restored);
  // empty when it can.
  std::wstring CannotHold(const std::wstring& path) const;

  // Moves one hit in with the engine's Move, taking the engine's free-name
  // proposal when the name is taken. Returns the engine's result code; the
  // manifest is rewritten after every successful move.
  DWORD Add(const SHit& hit);

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
  // manifest after each move; what is not restored stays listed.
  SRestoreResult RestoreAll();

 private:
  std::wstring Child(const std::wstring& name) const;
  // Fills m_entries from the manifest's bytes, or throws for a damaged one.
  void Validate(const std::string& bytes);
  [[noreturn]] void Damaged(const std::wstring& what, const std::wstring& fix = std::wstring()) const;
  bool TrySave(std::wstring& error) const;  // replaces the manifest in one step
  void Save() const;                        // the same; throws CHostError
  bool MoveBack(const SQuarantineEntry& entry, std::wstring& reason) const;

  std::wstring m_folder;
  std::vector<SQuarantineEntry> m_entries;
};

// What a result code of Clean or Move means, in words.
std::wstring ExplainResult(DWORD code);

}  // namespace host
