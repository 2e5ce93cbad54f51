#pragma once
// The manifest of a quarantine folder, broom-quarantine.json (JSON): what
// each stored file or export is and where it came from, so that a restore
// can put everything back.
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
// "database" for a browser database cleaned inside, whose stored file is
// the copy made before its clean (with stored-wal and stored-journal beside
// it when the database had them) and which carries "checksum", the
// "sha256:…" of the database's files as the clean left them;
// "item", the item path that found the hit; "source", an object with the
// definition "file", its "line", the rule's "kind" and "text". Where they
// are present they must have these types.
#include <windows.h>

#include <string>
#include <vector>

#include "scandefs/ConfigStore.h"

namespace host {

struct SQuarantineEntry {
  std::wstring original;  // full path the file came from, or the registry path
  std::wstring stored;    // name inside the quarantine folder
  unsigned __int64 size = 0;
  bool registry = false;  // original is a registry key or value, stored its export
  bool database = false;  // original is a browser database cleaned inside, stored its copy from before
  std::wstring checksum;  // a database's files as the clean left them ("sha256:…")
  std::wstring item;      // the item that found it; empty when not recorded
  bool hasSource = false;
  SOperationSource source;  // the rule that found it, when hasSource
};

// 0 when something is at path, else the error that says it is not.
DWORD Probe(const std::wstring& path);
bool IsMissing(DWORD probe);
bool PathExists(const std::wstring& path);

// CON, NUL, COM1 and the like open a device whatever folder they stand in,
// also with an extension or trailing spaces.
bool IsDeviceName(const std::wstring& name);

struct SListed {
  std::wstring name;
  std::wstring shortName;
};
// The folder's entries without "." and ".."; false when it cannot be listed.
bool ListFolder(const std::wstring& folder, std::vector<SListed>& out);

class CQuarantineManifest {
 public:
  static constexpr const wchar_t* kName = L"broom-quarantine.json";
  // A copy from another drive, until it is whole.
  static constexpr const wchar_t* kIncomingName = L"broom-incoming.tmp";

  // folder: the quarantine folder, an absolute path.
  explicit CQuarantineManifest(std::wstring folder) : m_folder(std::move(folder)) {}

  const std::wstring& Folder() const { return m_folder; }
  std::wstring Path() const { return Child(kName); }
  std::wstring Child(const std::wstring& name) const;
  std::vector<SQuarantineEntry>& Entries() { return m_entries; }
  const std::vector<SQuarantineEntry>& Entries() const { return m_entries; }

  // Reads the manifest and checks it whole, with what is in the folder:
  // false when there is none; throws CHostError(exitUsage) naming what is
  // wrong when it cannot be read or is damaged, and then reads nothing.
  bool Load();
  // Replaces the manifest in one step (written beside it, then moved over
  // it); false with the reason when it cannot be.
  bool TrySave(std::wstring& error) const;
  // Appends the entry and saves; on failure the entry is dropped again.
  bool Record(const SQuarantineEntry& entry, std::wstring& error);

  // Why a path cannot be an entry's original (a restore could not write
  // it back): a file path that is not an absolute local one or lies in the
  // folder, or a registry path that is not written as broom writes it;
  // empty when it can.
  std::wstring WhyNotOriginal(const std::wstring& path, bool registry) const;
  // Whether the entry's stored file can be reached; false with the reason
  // otherwise (what names it in that reason: "its export").
  bool StoredReachable(const SQuarantineEntry& entry, const wchar_t* what, std::wstring& reason) const;
  // Whether a name is the manifest's own, its .tmp or a copy being made.
  static bool IsOwnName(const std::wstring& name);

 private:
  // Fills m_entries from the manifest's bytes, or throws for a damaged one.
  void Validate(const std::string& bytes);
  [[noreturn]] void Damaged(const std::wstring& what, const std::wstring& fix = std::wstring()) const;

  std::wstring m_folder;
  std::vector<SQuarantineEntry> m_entries;
};

}  // namespace host
