#pragma once
// The people's profiles of this PC, as the system's profile list names them
// (HKLM\SOFTWARE\Microsoft\Windows NT\CurrentVersion\ProfileList), without
// the system's own service profiles, and whether this process may work on
// them (administrator rights).
#include <windows.h>

#include <string>
#include <vector>

#include "core/Export.h"

struct SUserProfile {
  std::wstring sid;       // "S-1-5-21-…"
  std::wstring folder;    // the profile folder, expanded, without a trailing separator
  std::wstring userName;  // DOMAIN\name; the folder's name when the account is unknown here
  bool accountKnown = false;
  bool current = false;   // the user this process runs as
};

class BROOM_API CUserProfiles {
 public:
  static constexpr const wchar_t* kProfileListKey = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList";

  // Every profile of a person: a local or domain account (S-1-5-21-…) or a
  // cloud one (S-1-12-1-…) whose profile folder exists, sorted by folder.
  // LocalSystem, LocalService, NetworkService and every other service SID
  // are left out silently; a person's entry that cannot be used (no folder,
  // a ".bak" copy, an unreadable value) is left out with a note. The root
  // and key are parameters for tests.
  static std::vector<SUserProfile> List(std::vector<std::wstring>* notes = nullptr, HKEY root = HKEY_LOCAL_MACHINE,
                                        const wchar_t* key = kProfileListKey);

  // True for the SID of a person's account, as List keeps them.
  static bool IsPersonSid(const wchar_t* sid);
  // The SID of the user this process runs as, and that user as DOMAIN\name;
  // empty when they cannot be read.
  static std::wstring CurrentUserSid();
  static std::wstring CurrentUserName();
  // Whether this process runs with the Administrators group in force (an
  // administrator's process that was not elevated has not).
  static bool IsAdministrator();
};
