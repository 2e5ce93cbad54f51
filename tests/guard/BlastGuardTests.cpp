// The guard against the real folders of the test prefix: its profile, known
// folders and system folders exist, so what it resolves is what a user's
// machine would give.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "clean/CleanableFile.h"
#include "common/TestFiles.h"
#include "guard/BlastGuard.h"
#include "scandefs/ConfigValues.h"

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
