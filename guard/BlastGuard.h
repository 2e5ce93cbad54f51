#pragma once
// The blast-radius guard: a host asks it about each cleanable item before it
// calls Clean or Move, and gets "allowed" or "refused" with the reason in
// words. It never changes what cleaning does; it keeps a rule that went
// wrong (a link into the Windows folder, a mask that matched programs, a
// folder removed with everything a user keeps in it) from doing harm.
//
// Refused: removing, as a folder, a drive root, the Windows, System32 or
// SysWOW64 folder, a Program Files folder, ProgramData, the folder of the
// user profiles, any profile folder or the user's own known folders
// (Desktop, Documents, Downloads, Pictures, Music, Videos, AppData's
// Roaming, Local and LocalLow), or any folder that holds one of them; a hit
// directly in a drive root or in a profile folder; a program file (.exe,
// .dll, .sys) unless the pattern that found it names that extension; and an
// item whose hits pass the runaway limits. Hits inside the user's own
// Desktop, Documents, Downloads, Pictures, Music or Videos are allowed, and
// marked so that a host can show them before asking.
#include <windows.h>

#include <string>
#include <vector>

#include "atl/CString.h"
#include "clean/CleanableFile.h"
#include "core/Export.h"

class BROOM_API CBlastGuard {
 public:
  struct SVerdict {
    bool allowed = true;
    // Allowed, but inside one of the user's own folders: its name ("Documents").
    CString userFolder;
    // Why it was refused, in words; empty when allowed.
    CString reason;
  };

  // Resolves the folders it protects now, from the engine's shell-folder
  // symbols, the environment and the profile list of the registry.
  CBlastGuard();

  // About one item of an operation whose root pattern (or rule text) is
  // pattern; null when unknown. Items that are not files or folders (a
  // registry item, say) are the business of their own safety rules.
  SVerdict Check(ICleanableItem* item, const wchar_t* pattern) const;
  SVerdict CheckPath(const wchar_t* path, bool isFolder, const wchar_t* pattern) const;

  // About the hits of one item as a whole.
  SVerdict CheckTotals(unsigned __int64 files, unsigned __int64 bytes) const;
  void SetRunawayLimits(unsigned __int64 files, unsigned __int64 bytes);
  static constexpr unsigned __int64 kDefaultRunawayFiles = 100000;
  static constexpr unsigned __int64 kDefaultRunawayBytes = 20ull << 30;

  // What it resolved, upper-cased and without trailing separator, for hosts
  // that want to show it; the user folders as name and path.
  struct SFolder {
    std::wstring name;   // as shown to a user: "Documents", "the Windows folder"
    std::wstring shown;  // the path as the system spells it
    std::wstring path;   // upper-cased, no trailing separator ("C:" for a drive root)
  };
  const std::vector<SFolder>& ProtectedFolders() const { return m_protected; }
  const std::vector<SFolder>& UserFolders() const { return m_userFolders; }
  const std::vector<SFolder>& ProfileRoots() const { return m_profiles; }

 private:
  void Add(std::vector<SFolder>& list, const wchar_t* name, const wchar_t* path);

  std::vector<SFolder> m_protected;    // never removed as a folder, nor anything that holds them
  std::vector<SFolder> m_profiles;     // nothing directly inside is cleaned
  std::vector<SFolder> m_userFolders;  // hits inside are marked
  unsigned __int64 m_runawayFiles = kDefaultRunawayFiles;
  unsigned __int64 m_runawayBytes = kDefaultRunawayBytes;
};
