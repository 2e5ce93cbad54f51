#pragma once
// One user's registry hive, held for a run over that user's profile: the
// system's own HKU\<SID> when the user is logged on, otherwise the profile's
// NTUSER.DAT loaded with RegLoadKey under HKU\Broom-<SID> (a name of its
// own, so that the profile service never takes it for the user's logon
// hive) and unloaded when the holder goes, whatever happened meanwhile.
// Loading and unloading enable the backup and restore privileges for just
// that call, so only an administrator can do either.
//
// From the hive come that user's own shell folders (Explorer's User Shell
// Folders, with Shell Folders for names it lacks), expanded for that user:
// never by putting another user name into the current user's paths.
#include <windows.h>

#include <string>
#include <utility>
#include <vector>

#include "core/Export.h"
#include "profiles/UserProfiles.h"

struct BROOM_API SUserFolders {
  // Value name as the system stores it ("Desktop", "Personal", "AppData",
  // "Local AppData", "{374DE290-123F-4565-9164-39C4925E467B}") and path.
  std::vector<std::pair<std::wstring, std::wstring>> folders;
  // The variables of the user's Environment key, expanded (TEMP, TMP, …).
  std::vector<std::pair<std::wstring, std::wstring>> environment;

  // The path of a folder or variable by name (any case); empty when absent.
  std::wstring Folder(const wchar_t* name) const;
  std::wstring Variable(const wchar_t* name) const;
};

class BROOM_API CUserHive {
 public:
  static constexpr const wchar_t* kMountPrefix = L"Broom-";

  // Opens the hive (Key() is open for reading; registry rules reach it by
  // RegistryPath()). Throws CWin32Exception naming the profile and the step
  // when the hive is neither loaded nor loadable, or another Broom run holds
  // it; nothing stays loaded then. A hive that a Broom run which was ended
  // left loaded under the same name is taken over, and unloaded in its turn.
  explicit CUserHive(const SUserProfile& profile);
  ~CUserHive();
  CUserHive(const CUserHive&) = delete;
  CUserHive& operator=(const CUserHive&) = delete;

  HKEY Key() const { return m_key; }
  // Its key's name below HKEY_USERS, and the path registry rules use for it.
  const std::wstring& Name() const { return m_name; }
  std::wstring RegistryPath() const { return L"HKU\\" + m_name; }
  // True while it holds a hive it loaded itself.
  bool LoadedHere() const { return m_loaded; }
  const SUserProfile& Profile() const { return m_profile; }

  // The user's shell folders and environment; a folder whose path names a
  // variable that cannot be known for this user is left out with a note.
  SUserFolders Folders(std::vector<std::wstring>* notes = nullptr) const;

  // Closes the key and unloads a hive it loaded; ERROR_SUCCESS, or the
  // error (the hive then stays loaded, and the destructor tries again).
  LONG Unload();

 private:
  SUserProfile m_profile;
  std::wstring m_name;
  HKEY m_key = nullptr;
  bool m_loaded = false;
  HANDLE m_claim = nullptr;  // a named semaphore: one holder per user's hive
};
