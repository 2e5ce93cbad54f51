#pragma once
// A quarantine folder: hits moved there instead of being deleted, and a
// manifest (JSON) that says where each one came from, so that restore can
// put every file back.
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

  // folder: absolute path. Open creates the folder when create is true and
  // reads an existing manifest; throws CHostError(exitUsage) on a damaged
  // manifest, or on a missing one when create is false.
  CQuarantine(const std::wstring& folder, bool create);

  const std::wstring& Folder() const { return m_folder; }
  std::wstring ManifestPath() const { return m_folder + L"\\" + kManifestName; }
  const std::vector<SQuarantineEntry>& Entries() const { return m_entries; }

  // Moves one hit in with the engine's Move, taking the engine's free-name
  // proposal when the name is taken. Returns the engine's result code; the
  // manifest is rewritten after every successful move.
  DWORD Add(const SHit& hit);

  struct SRestoreFailure {
    SQuarantineEntry entry;
    std::wstring reason;
  };
  // Moves every entry back; what could not be restored stays listed.
  std::vector<SRestoreFailure> RestoreAll(unsigned __int64& restoredFiles, unsigned __int64& restoredBytes);

 private:
  void Save() const;  // replaces the manifest in one step; throws CHostError

  std::wstring m_folder;
  std::vector<SQuarantineEntry> m_entries;
};

// What a result code of Clean or Move means, in words.
std::wstring ExplainResult(DWORD code);

}  // namespace host
