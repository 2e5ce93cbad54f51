// The guard against the real folders of the test prefix: its profile, known
// folders and system folders exist, so what it resolves is what a user's
// machine would give.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "clean/CleanableFile.h"
#include "common/TestFiles.h"
#include "guard/BlastGuard.h"
#include "scandefs/ConfigValues.h"
#include "settings/AppInfo.h"

namespace {

std::wstring Symbol(const wchar_t* name) {
  const wchar_t* value = CScopedMap::GetGlobalScope()->Find(name, wcslen(name));
  return value ? value : L"";
}

struct Case {
  std::wstring path;
  bool folder;
  const wchar_t* pattern;
  bool allowed;
  const wchar_t* marked;  // the user folder named in the verdict, or empty
  const wchar_t* reason;  // a part of the refusal's text
};

TEST(BlastGuard, RefusesRootsProgramsAndWhatLiesDirectlyInThemAndMarksUserFolders) {
  CBlastGuard guard;
  const std::wstring profile = Symbol(L"PROFILE"), documents = Symbol(L"PERSONAL"), windows = Symbol(L"WINDOWS");
  const std::wstring local = Symbol(L"LOCALAPPDATA"), desktop = Symbol(L"DESKTOPDIRECTORY");
  ASSERT_FALSE(profile.empty());
  ASSERT_FALSE(documents.empty());
  const std::wstring drive = windows.substr(0, 2);
  const Case cases[] = {
      {drive + L"\\", true, nullptr, false, L"", L"drive root"},
      {drive + L"\\pagefile.tmp", false, L"*.tmp", false, L"", L"directly in the drive root"},
      {windows, true, nullptr, false, L"", L"the Windows folder"},
      {windows + L"\\Temp", true, nullptr, true, L"", L""},
      {Symbol(L"SYSTEM"), true, nullptr, false, L"", L"System32"},
      {Symbol(L"PROGRAM_FILES"), true, nullptr, false, L"", L"Program Files"},
      {Symbol(L"COMMON_APPDATA"), true, nullptr, false, L"", L"ProgramData"},
      {profile, true, nullptr, false, L"", L"profile"},
      {profile.substr(0, profile.find_last_of(L'\\')), true, nullptr, false, L"", L"profile"},
      {profile + L"\\notes.txt", false, L"*", false, L"", L"directly in your profile folder"},
      {documents, true, nullptr, false, L"", L"Documents"},
      {local, true, nullptr, false, L"", L"AppData\\Local"},
      {local.substr(0, local.find_last_of(L'\\')), true, nullptr, false, L"", L"would remove"},
      {local + L"\\Vendor\\Cache", true, nullptr, true, L"", L""},
      {local + L"\\Vendor\\cache.bin", false, L"*", true, L"", L""},
      // found in the user's own folders: allowed, and said so
      {documents + L"\\App\\cache\\x.tmp", false, L"*.tmp", true, L"Documents", L""},
      {desktop + L"\\Old shortcuts", true, nullptr, true, L"Desktop", L""},
      // programs only when the rule names their extension
      {local + L"\\Vendor\\update.exe", false, L"*", false, L"", L"program file (.exe)"},
      {local + L"\\Vendor\\update.EXE", false, L"%LOCALAPPDATA%\\Vendor\\*.exe", true, L"", L""},
      {local + L"\\Vendor\\hook.dll", false, L"*.dll2;*.tmp", false, L"", L"(.dll)"},
      {local + L"\\Vendor\\drv.sys", false, L"C:\\x|*.sys|RECURSE", true, L"", L""},
      {local + L"\\Vendor\\setup.exe.log", false, L"*", true, L"", L""},
  };
  for (const Case& c : cases) {
    CBlastGuard::SVerdict v = guard.CheckPath(c.path.c_str(), c.folder, c.pattern);
    SCOPED_TRACE(broomtest::Narrow(c.path));
    EXPECT_EQ(v.allowed, c.allowed) << broomtest::Narrow(v.reason.GetString());
    EXPECT_STREQ(v.userFolder.GetString(), c.marked);
    EXPECT_NE(std::wstring(v.reason.GetString()).find(c.reason), std::wstring::npos)
        << broomtest::Narrow(v.reason.GetString());
  }
}

TEST(BlastGuard, ItemsAreJudgedByTheirPathAndRunawayLimitsByTheirTotals) {
  broomtest::TempDir dir;
  broomtest::WriteFile(dir / L"tool.exe", 3);
  CRefPtr<CCleanableFile> item(new IUnknownNoQIImp<CCleanableFile>());
  WIN32_FIND_DATAW data = {};
  HANDLE find = FindFirstFileW((dir / L"tool.exe").c_str(), &data);
  ASSERT_NE(find, INVALID_HANDLE_VALUE);
  FindClose(find);
  item->Init(CPathString(dir.Path().c_str()), data);
  CBlastGuard guard;
  EXPECT_FALSE(guard.Check(item.Get(), (dir / L"*").c_str()).allowed);
  EXPECT_TRUE(guard.Check(item.Get(), (dir / L"*.exe").c_str()).allowed);

  guard.SetRunawayLimits(10, 1000);
  EXPECT_TRUE(guard.CheckTotals(10, 1000).allowed);
  EXPECT_STREQ(guard.CheckTotals(11, 0).reason.GetString(), L"it found 11 files, more than the 10 one item may clean");
  EXPECT_FALSE(guard.CheckTotals(1, 1001).allowed);
  CBlastGuard defaults;
  EXPECT_TRUE(defaults.CheckTotals(100000, 20ull << 30).allowed);
  EXPECT_FALSE(defaults.CheckTotals(100001, 0).allowed);
}

}  // namespace

namespace {

// The ways a path may spell the same folder: the system drops trailing dots
// and spaces, takes '/' for '\', short names and any case, and "\\?\" forms.
std::vector<std::wstring> Spellings(const std::wstring& path) {
  std::vector<std::wstring> out = {path + L".", path + L" ", path + L". .", L"\\\\?\\" + path, path + L"\\"};
  std::wstring slashes = path, lower = path;
  for (wchar_t& c : slashes)
    if (c == L'\\') c = L'/';
  CharLowerBuffW(&lower[0], static_cast<DWORD>(lower.size()));
  out.push_back(slashes);
  out.push_back(lower);
  size_t slash = path.find_last_of(L'\\');
  if (slash != std::wstring::npos && slash > 2) out.push_back(path.substr(0, slash) + L"." + path.substr(slash));
  wchar_t shortPath[MAX_PATH];
  DWORD n = GetShortPathNameW(path.c_str(), shortPath, MAX_PATH);
  if (n > 0 && n < MAX_PATH && std::wstring(shortPath) != path) out.push_back(shortPath);
  return out;
}

}  // namespace

TEST(BlastGuard, EverySpellingOfAProtectedFolderMeetsTheSameRule) {
  CBlastGuard guard;
  ASSERT_GE(guard.ProtectedFolders().size(), 10u);
  size_t shortNames = 0;
  for (const CBlastGuard::SFolder& folder : guard.ProtectedFolders()) {
    for (const std::wstring& spelling : Spellings(folder.shown)) {
      SCOPED_TRACE(broomtest::Narrow(spelling));
      CBlastGuard::SVerdict verdict = guard.CheckPath(spelling.c_str(), true, nullptr);
      EXPECT_FALSE(verdict.allowed);
      EXPECT_NE(std::wstring::npos, std::wstring(verdict.reason.GetString()).find(L"never removed"))
          << broomtest::Narrow(verdict.reason.GetString());
      shortNames += spelling.find(L'~') != std::wstring::npos;
    }
  }
  EXPECT_GT(shortNames, 0u);  // the prefix gives Program Files a short name
  const std::wstring profile = Symbol(L"PROFILE");
  for (const std::wstring& spelling : Spellings(profile)) {
    SCOPED_TRACE(broomtest::Narrow(spelling));
    EXPECT_FALSE(guard.CheckPath((spelling + L"\\notes.txt").c_str(), false, L"*").allowed);
    EXPECT_FALSE(guard.CheckPath((spelling + L"\\AppData").c_str(), true, nullptr).allowed);
  }
  const std::wstring drive = Symbol(L"WINDOWS").substr(0, 2);
  for (const std::wstring& root : {drive, drive + L"\\.", drive + L"/", L"\\\\?\\" + drive + L"\\"})
    EXPECT_FALSE(guard.CheckPath(root.c_str(), true, nullptr).allowed) << broomtest::Narrow(root);
}

TEST(BlastGuard, AFolderReachedThroughALinkIsJudgedWhereItReallyIs) {
  broomtest::TempDir dir;
  const std::wstring profile = Symbol(L"PROFILE");
  ASSERT_TRUE(broomtest::MakeUnixSymlink(profile, dir / L"alias"));
  CBlastGuard guard;
  EXPECT_FALSE(guard.CheckPath((dir / L"alias\\notes.txt").c_str(), false, L"*").allowed);
  EXPECT_FALSE(guard.CheckPath((dir / L"alias\\AppData").c_str(), true, nullptr).allowed);
  EXPECT_TRUE(guard.CheckPath((dir / L"alias\\AppData\\Local\\Vendor\\x.tmp").c_str(), false, L"*").allowed);
  // the link itself: removing it removes a name, not what it leads to
  EXPECT_TRUE(guard.CheckPath((dir / L"alias").c_str(), true, nullptr).allowed);
}

TEST(BlastGuard, NothingInBroomsOwnDataFolderIsCleaned) {
  broomtest::TempDir dir;
  const std::wstring data = dir / L"Broom";
  broomtest::MakeDirs(data + L"\\Logs");
  CAppInfo::Init(nullptr, data.c_str());
  CBlastGuard guard;
  CAppInfo::Init(nullptr, L"");
  const struct {
    std::wstring path;
    bool folder, allowed;
  } cases[] = {
      {data + L"\\whitelist.txt", false, false}, {data + L".\\Logs\\scan1.log", false, false},
      {data + L"\\Logs", true, false},           {data, true, false},
      {dir.Path(), true, false},                 {dir / L"Broom2\\x.txt", false, true},
  };
  for (const auto& c : cases)
    EXPECT_EQ(c.allowed, guard.CheckPath(c.path.c_str(), c.folder, L"*").allowed) << broomtest::Narrow(c.path);
  EXPECT_FALSE(guard.CheckRule(data.c_str(), false, false).allowed);
  EXPECT_FALSE(guard.CheckRule((data + L"\\L*").c_str(), false, false).allowed);
  EXPECT_TRUE(guard.CheckRule((dir / L"Other").c_str(), true, true).allowed);
}

TEST(BlastGuard, ProgramFilesBelowTheWindowsFolderAreRefusedWhateverTheRuleNames) {
  CBlastGuard guard;
  const std::wstring windows = Symbol(L"WINDOWS"), system = Symbol(L"SYSTEM"), local = Symbol(L"LOCALAPPDATA");
  const struct {
    std::wstring path;
    const wchar_t* pattern;
    bool allowed;
  } cases[] = {
      {system + L"\\x.dll", L"%WinDir%\\System32|*.dll", false},
      {system + L"\\drivers\\x.sys", L"*.sys", false},
      {windows + L"\\Fonts\\x.drv", L"*.drv", false},
      {windows + L"\\Installer\\x.msi", L"*.msi", false},
      {windows + L"\\Installer\\x.MSP", L"*", false},
      {windows + L"\\x.scr", L"*.scr", false},
      {windows + L"\\system32.\\x.cpl", L"*.cpl", false},
      {windows + L"\\Temp\\x.ocx", L"*.ocx", false},
      {windows + L"\\Temp\\x.log", L"*", true},
      {local + L"\\Vendor\\setup.msi", L"*.msi", true},
      {local + L"\\Vendor\\x.ocx", L"*", true},
  };
  for (const auto& c : cases)
    EXPECT_EQ(c.allowed, guard.CheckPath(c.path.c_str(), false, c.pattern).allowed) << broomtest::Narrow(c.path);
}

TEST(BlastGuard, RulesRootedAtProtectedFoldersMayOnlyNameFiles) {
  CBlastGuard guard;
  const std::wstring windows = Symbol(L"WINDOWS"), profile = Symbol(L"PROFILE"), local = Symbol(L"LOCALAPPDATA");
  const std::wstring drive = windows.substr(0, 2);
  const struct {
    std::wstring folder;
    bool recurse, everyName, allowed;
    const wchar_t* reason;
  } cases[] = {
      {drive, true, false, false, L"drive root"},
      {drive + L"\\", false, true, false, L"drive root"},
      {drive, false, false, true, L""},  // %SystemDrive%|AdwCleaner*.txt
      {windows, false, false, true, L""},  // %WinDir%|EPMBatch.ept;OutLog.txt
      {windows, false, true, false, L"is the Windows folder"},
      {windows + L".", true, false, false, L"the Windows folder"},
      {windows + L"\\System32", false, false, true, L""},
      {windows + L"\\Temp", true, true, true, L""},
      {profile.substr(0, profile.find_last_of(L'\\')) + L"\\*", true, false, false, L"may be"},
      {profile, true, false, false, L"profile"},
      {profile + L"\\*\\Cache", true, true, true, L""},
      {Symbol(L"PERSONAL"), true, false, false, L"Documents"},
      {local, false, true, false, L"AppData\\Local"},
      {local + L"\\Vendor", true, true, true, L""},
      {drive + L"\\*\\System32", true, false, false, L"may be System32"},
      // the other known folders, the user's and those all users share
      {Symbol(L"FAVORITES"), true, false, false, L"Favorites"},
      {profile + L"\\Saved Games.", false, true, false, L"Saved Games"},
      {profile + L"\\Contacts", true, true, false, L"Contacts"},
      {profile + L"\\Links", false, true, false, L"Links"},
      {profile + L"\\Searches", false, false, true, L""},  // %UserProfile%\Searches|*.search-ms;*.searchconnector-ms
      {profile + L"\\Saved Games\\Vendor\\Logs", true, true, true, L""},
      {Symbol(L"COMMON_DOCUMENTS"), true, false, false, L"Public Documents"},
      {Symbol(L"COMMON_DESKTOPDIRECTORY") + L" ", false, true, false, L"Public Desktop"},
      {Symbol(L"COMMON_PICTURES"), true, true, false, L"Public Pictures"},
  };
  for (const auto& c : cases) {
    CBlastGuard::SVerdict verdict = guard.CheckRule(c.folder.c_str(), c.recurse, c.everyName);
    SCOPED_TRACE(broomtest::Narrow(c.folder));
    EXPECT_EQ(c.allowed, verdict.allowed) << broomtest::Narrow(verdict.reason.GetString());
    EXPECT_NE(std::wstring::npos, std::wstring(verdict.reason.GetString()).find(c.reason))
        << broomtest::Narrow(verdict.reason.GetString());
  }
}

// Paths already in full form skip the system's path resolution: each must
// come out as the same path spelled so that the system has to resolve it.
TEST(BlastGuard, APathInFullFormNormalizesAsTheSystemResolvesIt) {
  const wchar_t* const paths[] = {L"C:\\Users\\Public\\Documents", L"c:\\program files\\App\\*", L"C:\\a\\ab",
                                  L"C:\\a\\abcdefgh.txt", L"D:\\x\\y z\\w", L"C:\\a\\\u00e9t\u00e9\\b",
                                  L"C:\\a\\c*m?", L"z:\\tmp\\x.y.z"};
  for (const wchar_t* path : paths) {
    const std::wstring roundabout = std::wstring(path) + L"\\x\\..";
    EXPECT_EQ(CBlastGuard::Normalize(roundabout.c_str()), CBlastGuard::Normalize(path)) << broomtest::Narrow(path);
  }
  const struct {
    const wchar_t* path;
    const wchar_t* normal;
  } cases[] = {{L"c:\\Users\\Bob\\AppData", L"C:\\USERS\\BOB\\APPDATA"},
               {L"C:\\a\\b.\\c ", L"C:\\A\\B\\C"},
               {L"C:/a/b", L"C:\\A\\B"},
               {L"C:\\a\\\\b\\", L"C:\\A\\B"},
               {L"\\\\?\\C:\\a\\..\\b", L"C:\\B"},
               {L"C:\\a\\.\\b", L"C:\\A\\B"}};
  for (const auto& c : cases) EXPECT_EQ(c.normal, CBlastGuard::Normalize(c.path)) << broomtest::Narrow(c.path);
}
