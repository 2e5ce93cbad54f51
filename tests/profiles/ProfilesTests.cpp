// Profiles of the test prefix: the real profile list with the prefix's own
// user, and a second profile made for a test (its profile-list entry in a
// throw-away key, its folder and a hive file saved with RegSaveKey from a
// throw-away key), loaded for a run and unloaded whatever happens.
#include <windows.h>
#include <shlobj.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "common/TestFiles.h"
#include "common/TestRegistry.h"
#include "core/Exceptions.h"
#include "core/Handles.h"
#include "profiles/UserHive.h"
#include "profiles/UserProfiles.h"

namespace {

using broomtest::Narrow;
using broomtest::TempDir;
using broomtest::TestRegKey;

const wchar_t* const kShellFolders = L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\User Shell Folders";

void SetString(HKEY root, const std::wstring& path, const wchar_t* name, const std::wstring& value, DWORD type = REG_EXPAND_SZ) {
  broom::unique_hkey key;
  ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(root, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, key.addressof(), nullptr));
  ASSERT_EQ(ERROR_SUCCESS, RegSetValueExW(key.get(), name, 0, type, reinterpret_cast<const BYTE*>(value.c_str()),
                                          static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t))));
}

bool HiveLoaded(const std::wstring& name) {
  broom::unique_hkey key;
  return RegOpenKeyExW(HKEY_USERS, name.c_str(), 0, KEY_READ, key.addressof()) == ERROR_SUCCESS;
}

bool EnableBackupPrivilege() {
  broom::unique_handle token;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, token.addressof())) return false;
  TOKEN_PRIVILEGES privileges{1, {}};
  privileges.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
  return LookupPrivilegeValueW(nullptr, SE_BACKUP_NAME, &privileges.Privileges[0].Luid) &&
         AdjustTokenPrivileges(token.get(), FALSE, &privileges, 0, nullptr, nullptr) && GetLastError() == ERROR_SUCCESS;
}

// A second person's profile: a folder with a hive of that user's own shell
// folders and environment, and an entry in a profile list of its own.
class SecondProfile : public testing::Test {
 protected:
  void SetUp() override {
    m_sid = L"S-1-5-21-1-2-" + std::to_wstring(GetCurrentProcessId()) + L"-1001";
    m_folder = m_root.Path() + L"\\second";
    broomtest::MakeDirs(m_folder);
    {
      TestRegKey hive(HKEY_CURRENT_USER, L"Software\\BroomTest");
      const std::wstring path = hive.Subkey();
      SetString(HKEY_CURRENT_USER, path + L"\\" + kShellFolders, L"Desktop", L"%USERPROFILE%\\Desktop");
      SetString(HKEY_CURRENT_USER, path + L"\\" + kShellFolders, L"AppData", L"%USERPROFILE%\\AppData\\Roaming");
      SetString(HKEY_CURRENT_USER, path + L"\\" + kShellFolders, L"Local AppData", L"%USERPROFILE%\\AppData\\Local\\");
      SetString(HKEY_CURRENT_USER, path + L"\\" + kShellFolders, L"Personal", L"D:\\Documents of second", REG_SZ);
      SetString(HKEY_CURRENT_USER, path + L"\\" + kShellFolders, L"Start Menu", L"%APPDATA%\\Microsoft\\Start Menu");
      SetString(HKEY_CURRENT_USER, path + L"\\" + kShellFolders, L"Fonts", L"%SystemRoot%\\Fonts");
      SetString(HKEY_CURRENT_USER, path + L"\\" + kShellFolders, L"Odd", L"%NOSUCHVARIABLE%\\Odd");
      SetString(HKEY_CURRENT_USER, path + L"\\" + kShellFolders, L"Relative", L"AppData\\Odd");
      SetString(HKEY_CURRENT_USER, path + L"\\Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\Shell Folders",
                L"Cookies", m_folder + L"\\Cookies", REG_SZ);
      SetString(HKEY_CURRENT_USER, path + L"\\Environment", L"TEMP", L"%LOCALAPPDATA%\\Temp");
      SetString(HKEY_CURRENT_USER, path + L"\\Environment", L"LOOP", L"%LOOP%\\x");
      ASSERT_TRUE(EnableBackupPrivilege());
      ASSERT_EQ(ERROR_SUCCESS, RegSaveKeyW(hive.Key(), (m_folder + L"\\NTUSER.DAT").c_str(), nullptr));
    }
    SetString(m_list.Key(), m_sid, L"ProfileImagePath", m_folder);
  }

  SUserProfile Profile() {
    std::vector<SUserProfile> all = CUserProfiles::List(nullptr, m_list.Root(), m_list.Subkey().c_str());
    EXPECT_EQ(1u, all.size());
    return all.empty() ? SUserProfile() : all[0];
  }
  std::wstring Mount() const { return CUserHive::kMountPrefix + m_sid; }

  TempDir m_root;
  TestRegKey m_list{HKEY_LOCAL_MACHINE, L"SOFTWARE\\BroomTest"};
  std::wstring m_sid, m_folder;
};

TEST_F(SecondProfile, ItsHiveIsLoadedForTheRunWithThatUsersOwnFoldersAndUnloadedAfter) {
  SUserProfile profile = Profile();
  EXPECT_EQ(m_sid, profile.sid);
  EXPECT_EQ(m_folder, profile.folder);
  EXPECT_FALSE(profile.current);
  ASSERT_FALSE(HiveLoaded(Mount()));
  {
    CUserHive hive(profile);
    EXPECT_TRUE(hive.LoadedHere());
    EXPECT_EQ(Mount(), hive.Name());
    EXPECT_EQ(L"HKU\\" + Mount(), hive.RegistryPath());
    EXPECT_TRUE(HiveLoaded(Mount()));

    std::vector<std::wstring> notes;
    SUserFolders folders = hive.Folders(&notes);
    const std::pair<const wchar_t*, std::wstring> expected[] = {
        {L"Desktop", m_folder + L"\\Desktop"},
        {L"AppData", m_folder + L"\\AppData\\Roaming"},
        {L"Local AppData", m_folder + L"\\AppData\\Local"},
        {L"Personal", L"D:\\Documents of second"},
        // the user's own AppData, not the one of the user running the test
        {L"Start Menu", m_folder + L"\\AppData\\Roaming\\Microsoft\\Start Menu"},
        {L"Cookies", m_folder + L"\\Cookies"},
        {L"Odd", L""},
        {L"Relative", L""}};
    for (const auto& e : expected) EXPECT_EQ(e.second, folders.Folder(e.first)) << Narrow(e.first);
    wchar_t windows[MAX_PATH];
    GetWindowsDirectoryW(windows, MAX_PATH);
    EXPECT_EQ(std::wstring(windows) + L"\\Fonts", folders.Folder(L"fonts"));
    EXPECT_EQ(m_folder + L"\\AppData\\Local\\Temp", folders.Variable(L"TEMP"));
    EXPECT_EQ(L"", folders.Variable(L"LOOP"));
    std::wstring all;
    for (const std::wstring& note : notes) all += note + L"\n";
    EXPECT_EQ(3u, notes.size()) << Narrow(all);
    for (const wchar_t* part : {L"'Odd' of", L"%NOSUCHVARIABLE%", L"'Relative' of", L"not a full path", L"variable LOOP"})
      EXPECT_NE(std::wstring::npos, all.find(part)) << Narrow(all);
  }
  EXPECT_FALSE(HiveLoaded(Mount()));
}

TEST_F(SecondProfile, ItsHiveIsUnloadedWhenTheRunFailsAndASecondHolderIsRefused) {
  SUserProfile profile = Profile();
  try {
    CUserHive hive(profile);
    ASSERT_TRUE(HiveLoaded(Mount()));
    try {
      CUserHive again(profile);
      ADD_FAILURE() << "a second holder of the same hive";
    } catch (CWin32Exception& e) {
      EXPECT_EQ(static_cast<DWORD>(ERROR_BUSY), e.GetError());
    }
    EXPECT_TRUE(HiveLoaded(Mount()));
    throw std::runtime_error("the run failed");
  } catch (const std::runtime_error&) {
  }
  EXPECT_FALSE(HiveLoaded(Mount()));

  // Unloaded on request, once.
  CUserHive hive(profile);
  EXPECT_EQ(ERROR_SUCCESS, hive.Unload());
  EXPECT_FALSE(HiveLoaded(Mount()));
  EXPECT_FALSE(hive.LoadedHere());
  EXPECT_EQ(nullptr, hive.Key());
  EXPECT_EQ(ERROR_SUCCESS, hive.Unload());
}

TEST_F(SecondProfile, AHiveFileThatIsDamagedOrMissingLoadsNothing) {
  SUserProfile profile = Profile();
  const std::wstring file = m_folder + L"\\NTUSER.DAT";
  struct Case {
    const char* what;
    const char* content;  // null: no file
    DWORD error;
  };
  // Each case also finds the hive unclaimed, so a failure gives its claim back.
  const Case cases[] = {{"damaged", "not a hive\r\n", ERROR_NOT_REGISTRY_FILE},
                        {"empty", "", ERROR_NOT_REGISTRY_FILE},
                        {"missing", nullptr, ERROR_FILE_NOT_FOUND}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_TRUE(DeleteFileW(file.c_str()) || GetLastError() == ERROR_FILE_NOT_FOUND);
    if (c.content) broomtest::WriteFile(file, c.content);
    try {
      CUserHive hive(profile);
      ADD_FAILURE() << "loaded";
    } catch (CWin32Exception& e) {
      EXPECT_EQ(c.error, e.GetError());
      EXPECT_NE(std::string::npos, Narrow(e.GetAppMessage().GetString()).find("NTUSER.DAT"));
    }
    EXPECT_FALSE(HiveLoaded(Mount()));
  }
}

TEST(ProfileList, KeepsPeopleAndLeavesOutServiceProfilesAndBrokenEntries) {
  TempDir root;
  TestRegKey list(HKEY_LOCAL_MACHINE, L"SOFTWARE\\BroomTest");
  wchar_t system[MAX_PATH];
  GetSystemDirectoryW(system, MAX_PATH);
  const std::wstring pid = std::to_wstring(GetCurrentProcessId());
  struct Entry {
    std::wstring sid;
    std::wstring folder;
    bool kept;
    bool noted;
  };
  const Entry entries[] = {
      {L"S-1-5-18", std::wstring(system) + L"\\config\\systemprofile", false, false},
      {L"S-1-5-19", L"%SystemRoot%\\ServiceProfiles\\LocalService", false, false},
      {L"S-1-5-20", L"%SystemRoot%\\ServiceProfiles\\NetworkService", false, false},
      {L"S-1-5-80-1-2-3-4-5", root.Path(), false, false},
      {L"S-1-5-21-7-7-" + pid + L"-1001", root.Path() + L"\\b", true, false},
      {L"S-1-5-21-7-7-" + pid + L"-1001.bak", root.Path() + L"\\b", false, true},
      {L"S-1-5-21-7-7-" + pid + L"-1002", root.Path() + L"\\gone", false, true},
      {L"S-1-12-1-7-7-" + pid + L"-1003", root.Path() + L"\\a", true, false},
  };
  for (const Entry& e : entries) {
    SetString(list.Key(), e.sid, L"ProfileImagePath", e.folder);
    if (e.kept) broomtest::MakeDirs(e.folder);
  }
  std::vector<std::wstring> notes;
  std::vector<SUserProfile> profiles = CUserProfiles::List(&notes, list.Root(), list.Subkey().c_str());
  ASSERT_EQ(2u, profiles.size());
  EXPECT_EQ(entries[7].sid, profiles[0].sid);  // sorted by folder: a before b
  EXPECT_EQ(entries[4].sid, profiles[1].sid);
  EXPECT_EQ(L"b", profiles[1].userName);      // no such account: the folder's name
  EXPECT_FALSE(profiles[1].accountKnown);
  EXPECT_EQ(2u, notes.size());
}

TEST(ProfileList, TheSystemsListHoldsThisUserWhoseLoadedHiveIsUsedAsItIs) {
  std::vector<std::wstring> notes;
  std::vector<SUserProfile> profiles = CUserProfiles::List(&notes);
  const SUserProfile* me = nullptr;
  for (const SUserProfile& profile : profiles) {
    EXPECT_TRUE(CUserProfiles::IsPersonSid(profile.sid.c_str())) << Narrow(profile.sid);
    if (profile.current) me = &profile;
  }
  ASSERT_NE(nullptr, me);
  EXPECT_EQ(CUserProfiles::CurrentUserSid(), me->sid);
  EXPECT_TRUE(me->accountKnown);

  CUserHive hive(*me);
  EXPECT_FALSE(hive.LoadedHere());
  EXPECT_EQ(me->sid, hive.Name());
  wchar_t documents[MAX_PATH];
  ASSERT_EQ(S_OK, SHGetFolderPathW(nullptr, CSIDL_PERSONAL, nullptr, SHGFP_TYPE_CURRENT, documents));
  EXPECT_EQ(documents, hive.Folders().Folder(L"Personal"));
  EXPECT_EQ(ERROR_SUCCESS, hive.Unload());
  EXPECT_TRUE(HiveLoaded(me->sid));  // the system's, left alone
  EXPECT_TRUE(CUserProfiles::IsAdministrator());  // the prefix's user is one
}

}  // namespace
