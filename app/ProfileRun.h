#pragma once
// A run of broom over another person's profile (one process per profile of
// `--all-users`): before anything reads the user's folders or HKCU, the
// process takes on that profile. Its hive is held (loaded for the run when
// the user is not logged on), HKCU is mapped to it, and the engine's names
// for the user's folders, with the environment a process of that user would
// have (USERPROFILE, APPDATA, LOCALAPPDATA, TEMP, ...), are that user's own,
// read from the hive; a folder the hive does not name is unknown, so that
// no rule falls back to the folders of the user running broom. Broom's own
// data (whitelist.txt, cookies-keep.txt, the logs) is that user's as well.
#include <windows.h>

#include <memory>
#include <string>
#include <vector>

#include "core/Handles.h"
#include "profiles/UserHive.h"
#include "profiles/UserProfiles.h"

namespace host {

class CProfileRun {
 public:
  // sid: a person's profile of the system's profile list. The user this
  // process runs as takes nothing on. Throws CHostError(exitUsage) when the
  // profile is not listed, its hive cannot be held, or the engine's folders
  // were read already (it must come first).
  explicit CProfileRun(const std::wstring& sid);
  // HKCU is this process's own again, then the hive is let go (unloaded
  // when it was loaded for the run).
  ~CProfileRun();
  CProfileRun(const CProfileRun&) = delete;
  CProfileRun& operator=(const CProfileRun&) = delete;

  const SUserProfile& Profile() const { return m_profile; }
  // Folders of the hive that could not be used, with the reason.
  const std::vector<std::wstring>& Notes() const { return m_notes; }

 private:
  SUserProfile m_profile;
  std::unique_ptr<CUserHive> m_hive;
  broom::unique_hkey m_key;  // the hive, open for writing: what HKCU stands for
  std::vector<std::wstring> m_notes;
};

// "C:\Users\ann (PC\ann)": a profile as runs name it.
std::wstring DescribeProfile(const SUserProfile& profile);

}  // namespace host
