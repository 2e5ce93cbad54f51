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
// Roaming, Local and LocalLow, Favorites, Contacts, Links, Saved Games,
// Searches) or the ones all users share (Public's Desktop, Documents,
// Downloads, Music, Pictures, Videos), or any folder that holds one of them; a hit
// directly in a drive root or in a profile folder; anything in Broom's own
// data folder; a program file (.exe, .dll, .sys) unless the pattern that
// found it names that extension, and a program file of any kind below the
// Windows folder whatever the pattern names; and an item whose hits pass
// the runaway limits. An entry of the Recycle Bin is allowed when it lies
// directly in a real Recycle Bin folder, whatever its name. Hits inside the
// user's own Desktop, Documents,
// Downloads, Pictures, Music or Videos are allowed, and marked so that a
// host can show them before asking.
//
// Folders are compared by what they are, not by how a path spells them:
// every path is taken in the form the system resolves (trailing dots and
// spaces dropped, short names made long, '/' and "\\?\" forms, any case),
// and where it exists also in the form its handle resolves to, through
// links, so a link or an alias spelling meets the same rules.
#include <windows.h>

#include <memory>
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
  // symbols, the environment, the profile list of the registry and the
  // user data folder the host gave CAppInfo.
  CBlastGuard();
  ~CBlastGuard();
  CBlastGuard(CBlastGuard&&) noexcept;
  CBlastGuard& operator=(CBlastGuard&&) noexcept;

  // About one item of an operation whose root pattern (or rule text) is
  // pattern; null when unknown. Items that are not files or folders (a
  // registry item, say) are the business of their own safety rules.
  SVerdict Check(ICleanableItem* item, const wchar_t* pattern) const;
  SVerdict CheckPath(const wchar_t* path, bool isFolder, const wchar_t* pattern) const;

  // About a rule before it runs. folder: the full path of the rule's folder,
  // whose components may hold '*' and '?'. A rule whose folder is (or may
  // match) a protected folder or one that holds a protected folder may not
  // walk its subfolders, remove itself or take every name; nor may any rule
  // start in Broom's own data folder.
  SVerdict CheckRule(const wchar_t* folder, bool recurse, bool everyName) const;

  // About the hits of one item as a whole.
  SVerdict CheckTotals(unsigned __int64 files, unsigned __int64 bytes) const;
  void SetRunawayLimits(unsigned __int64 files, unsigned __int64 bytes);
  static constexpr unsigned __int64 kDefaultRunawayFiles = 100000;
  static constexpr unsigned __int64 kDefaultRunawayBytes = 20ull << 30;

  // What it resolved, for hosts that want to show it; the user folders as
  // name and path.
  struct SFolder {
    std::wstring name;   // as shown to a user: "Documents", "the Windows folder"
    std::wstring shown;  // the path as the system spells it
    std::wstring path;   // upper-cased, no trailing separator ("C:" for a drive root)
    std::wstring real;   // the same through its links, as a handle on it resolves; empty when it does not exist
    std::vector<std::wstring> pathParts, realParts;  // path and real cut into components, for rule checks
  };
  const std::vector<SFolder>& ProtectedFolders() const { return m_protected; }
  const std::vector<SFolder>& UserFolders() const { return m_userFolders; }
  const std::vector<SFolder>& ProfileRoots() const { return m_profiles; }

  // The form the guard compares a path in: upper-cased, '\\?\' and '/'
  // forms made plain, '.' and '..' resolved, trailing dots and spaces of
  // every component dropped, short names made long where they exist, no
  // trailing separator ("C:" for a drive root).
  static std::wstring Normalize(const wchar_t* path);

 private:
  void Add(std::vector<SFolder>& list, const wchar_t* name, const wchar_t* path);
  // The folder as a handle on it resolves, cached; empty when it cannot be opened.
  std::wstring Resolve(const std::wstring& folder) const;

  std::vector<SFolder> m_protected;    // never removed as a folder, nor anything that holds them
  std::vector<SFolder> m_profiles;     // nothing directly inside is cleaned
  std::vector<SFolder> m_userFolders;  // hits inside are marked
  std::vector<SFolder> m_windows;      // no program file below it is cleaned
  std::vector<SFolder> m_ownData;      // Broom's data folder: nothing in it is cleaned
  unsigned __int64 m_runawayFiles = kDefaultRunawayFiles;
  unsigned __int64 m_runawayBytes = kDefaultRunawayBytes;
  struct SCache;
  std::unique_ptr<SCache> m_cache;
};
