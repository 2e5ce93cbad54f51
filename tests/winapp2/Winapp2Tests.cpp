// winapp2.ini loading, detection and the FileKey scan, on folder trees and
// registry keys made per test, and the whole shared file.
#include <windows.h>
#include <psapi.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "clean/CleanItems.h"
#include "clean/CleanableFolder.h"
#include "common/HandleCount.h"
#include "common/ScanNotifiers.h"
#include "common/TestFiles.h"
#include "common/TestRegistry.h"
#include "registry/CleanableRegistry.h"
#include "scan/OperationNotes.h"
#include "scandefs/ItemTraits.h"
#include "settings/AppInfo.h"
#include "winapp2/Winapp2FileScan.h"
#include "winapp2/Winapp2Loader.h"

using broomtest::Exists;
using broomtest::MakeDirs;
using broomtest::Narrow;
using broomtest::WriteFile;

namespace {

using Paths = std::vector<std::wstring>;

struct Cancelled : broomtest::NullStatus {
  bool IsCancelled() override { return true; }
};

class Winapp2 : public testing::Test {
 protected:
  void SetUp() override {
    // scan logs go to one folder of the whole program, fixed at first use
    static broomtest::TempDir data;
    static bool ready = (MakeDirs(data / L"Logs"), CAppInfo::Init(nullptr, data.Path().c_str()), true);
    (void)ready;
  }

  SWinapp2Report Load(const std::wstring& ini) {
    std::wstring file = WriteFile(m_dir / L"winapp2.ini", "\xEF\xBB\xBF" + Narrow(ini));  // BOM and LF ends
    m_config = IConfig::NewConfig();
    return CWinapp2Loader(*Store()).Load(file.c_str());
  }
  CConfigStore* Store() { return CConfigStore::Of(m_config); }
  CScanGroup_imp* Item(const wchar_t* category, const wchar_t* name) {
    CScanGroup_imp* top = Store()->GetRoot().FindChild(L"winapp2");
    CScanGroup_imp* group = top ? top->FindChild(category) : nullptr;
    return group ? group->FindChild(name) : nullptr;
  }
  // The test folder as the rules name it.
  std::wstring Var() const { return L"%Temp%" + m_dir.Path().substr(m_dir.Path().find_last_of(L'\\')); }

  // What the item's operations report, in order: paths below the test
  // folder, folders with a trailing '\', registry items as written.
  Paths Scan(CScanGroup* item, IOperationStatusNotify* status = nullptr,
             std::vector<CRefPtr<ICleanableItem>>* items = nullptr) {
    broomtest::StackCollector collector;
    broomtest::NullProgress progress;
    broomtest::NullStatus quiet;
    CRefPtr<TIteratorIface<CRefPtr<IScanOperation>>> ops;
    item->GetScanOps(ops);
    for (; ops && !ops->AtEnd(); ops->Next())
      (*ops->Current())->PerformScan(&collector, &progress, status ? status : &quiet, &m_whiteList);
    Paths paths;
    for (const auto& hit : collector.items) {
      if (auto* key = dynamic_cast<CCleanableRegistry*>(hit.Get())) {
        std::wstring text = key->GetPath().Text();
        CharUpperBuffW(&text[0], static_cast<DWORD>(text.size()));  // as the system spells the keys
        paths.push_back(text);
      } else {
        auto* file = static_cast<CCleanableFile*>(hit.Get());
        std::wstring path = file->GetPath().c_str();
        paths.push_back(path.substr(m_dir.Path().size() + 1) + (file->IsDirectory() ? L"\\" : L""));
      }
      if (items) items->push_back(hit);
    }
    return paths;
  }

  broomtest::TempDir m_dir;
  CRefPtr<IConfig> m_config;
  CWhiteListTree m_whiteList;
};

}  // namespace

TEST_F(Winapp2, MalformedKeysAreSkippedWithTheirLinesAndTheRestOfTheEntryLoads) {
  const std::wstring v = Var();
  const std::pair<std::wstring, const char*> lines[] = {
      {L"; comment", nullptr},
      {L"Orphan=1", "before the first [entry]"},
      {L"[Entry *]", nullptr},
      {L"LangSecRef=3021", nullptr},
      {L"FileKey1=" + v + L"\\x|*.log;*.tmp#x", nullptr},  // never cut at ';' or '#'
      {L"FileKey2=" + v + L"\\x", "no '|'"},
      {L"FileKey3=%Nope%\\x|*", "unknown variable %Nope%"},
      {L"FileKey4=%Temp\\x|*", "without its closing '%'"},
      {L"FileKey5=|*", "empty path"},
      {L"FileKey6=" + v + L"\\x|*|RECURSIVE", "unknown flag 'RECURSIVE'"},
      {L"FileKey7=" + v + L"\\" + std::wstring(250, L'a') + L"|*", "more than 260"},
      {L"FileKey8=x\\y|*", "not a full path"},
      {L"FileKey9=" + v + L"\\..\\x|*", "'..'"},
      {L"FileKey10=" + v + L"\\x|", "no file mask"},
      {L"FILEKEY11 = " + v + L"\\x|LOG|removeself", nullptr},
      {L"RegKey1=HKXX\\Software\\x", "not a registry path"},
      {L"RegKey2=HKCU\\Software\\BroomTest\\Nope", nullptr},
      {L"Detect=Software\\x", "not a registry key"},
      {L"DetectOS=abc", "min|max"},
      {L"SpecialDetect=DET_NOPE", "unknown SpecialDetect"},
      {L"Bogus=1", "unknown key 'Bogus'"},
      {L"no equals here", "not a Key=Value"},
      {L"[Broken", "closing ']'"},
      {L"FileKey1=" + v + L"\\x|*", "cannot be read"},
      {L"[Poisoned *]", nullptr},
      {L"ExcludeKey1=FILE|%Nope%\\|a.txt", "unknown variable"},
      {L"FileKey1=" + v + L"\\x|*", "ExcludeKey line 26"},
      {L"RegKey1=HKCU\\Software\\BroomTest\\Nope", nullptr},
  };
  std::wstring ini;
  std::vector<std::pair<int, std::string>> expected;
  for (size_t i = 0; i < std::size(lines); ++i) {
    ini += lines[i].first + L"\n";
    if (lines[i].second) expected.emplace_back(static_cast<int>(i + 1), lines[i].second);
  }
  SWinapp2Report report = Load(ini);
  ASSERT_EQ(expected.size(), report.skipped.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(expected[i].first, report.skipped[i].line);
    EXPECT_NE(std::string::npos, Narrow(report.skipped[i].reason.str()).find(expected[i].second))
        << "line " << expected[i].first << ": " << Narrow(report.skipped[i].reason.str());
  }
  EXPECT_EQ(expected.size(), Store()->GetLoadNotes().size());
  EXPECT_EQ(2u, report.entries);

  CScanGroup_imp* entry = Item(L"Applications", L"Entry");
  ASSERT_TRUE(entry);
  ASSERT_EQ(3, entry->GetScanOpCount());  // FileKey1, FILEKEY11, RegKey2
  EXPECT_EQ(abFalse, entry->IsEnabled());  // its only detection keys cannot be read
  auto* first = dynamic_cast<CWinapp2FileScan*>(entry->m_scanOps.front().Get());
  ASSERT_TRUE(first);
  EXPECT_EQ(Paths({L"*.LOG", L"*.TMP#X"}), first->GetMasks());
  SOperationSource source;
  ASSERT_TRUE(Store()->GetOperationSource(first, source));
  EXPECT_EQ(5, source.line);
  EXPECT_EQ(std::wstring(L"FileKey1"), source.kind.GetString());
  EXPECT_EQ(v + L"\\x|*.log;*.tmp#x", source.text.GetString());
  ASSERT_TRUE(Item(L"Other", L"Poisoned"));
  EXPECT_EQ(1, Item(L"Other", L"Poisoned")->GetScanOpCount());
}

TEST_F(Winapp2, EntriesGoToTheirCategoryOffByDefaultAndApplyWhenAnyDetectionHolds) {
  broomtest::TestRegKey user;
  // a key of the 32-bit view only: HKLM\Software\BroomTest\... as 32-bit programs see it
  broomtest::TestRegKey only32(HKEY_LOCAL_MACHINE, L"Software\\WOW6432Node\\BroomTest");
  std::wstring only32Path = L"HKLM\\Software\\BroomTest" + only32.Subkey().substr(only32.Subkey().rfind(L'\\'));
  broomtest::TestRegKey userClass(HKEY_CURRENT_USER, L"Software\\Classes\\BroomTest");  // seen through HKCR
  MakeDirs(m_dir / L"present");
  const std::wstring v = Var(), rule = L"FileKey1=" + v + L"\\x|*\n", key = L"HKCU\\" + user.Subkey();
  SWinapp2Report report = Load(
      L"[A *]\nLangSecRef=3021\n" + rule +
      L"[B/C *]\nSection=My Stuff\nWarning=Careful\nDetectFile=" + v + L"\\missing\nDetectFile2=" + v +
      L"\\pre*nt\n" + rule +
      L"[D *]\nLangSecRef=9999\nDetect=" + key + L"\\Nope\nDetect2=" + key + L"\n" + rule +
      L"[E *]\nLangSecRef=3025\nDetect=" + key + L"\\Nope\nDetectFile=" + v + L"\\nope\n" + rule +
      L"[F *]\nLangSecRef=3022\nDetectOS=|5.0\n" + rule +
      L"[G *]\nLangSecRef=3023\nDetectOS=5.1|\n" + rule +
      L"[H *]\nLangSecRef=3024\nDetect=" + only32Path + L"\n" + rule +
      L"[I *]\nDetect=NotAKey\n" + rule +
      L"[J *]\nDetect=HKCR\\" + userClass.Subkey().substr(sizeof "Software\\Classes") + L"\n" + rule);
  struct {
    const wchar_t *category, *name;
    bool applies;
  } expected[] = {{L"Applications", L"A", true}, {L"My Stuff", L"B/C", true}, {L"Other", L"D", true},
                  {L"Windows", L"E", false},     {L"Internet", L"F", false},  {L"Multimedia", L"G", true},
                  {L"Utilities", L"H", true},    {L"Other", L"I", false},     {L"Other", L"J", true}};
  for (const auto& e : expected) {
    CScanGroup_imp* item = Item(e.category, e.name);
    ASSERT_TRUE(item) << Narrow(e.name);
    EXPECT_EQ(e.applies, item->IsEnabled() != abFalse) << Narrow(e.name);
    EXPECT_EQ(abFalse, item->IsDefaultScan());
    EXPECT_EQ(abFalse, item->IsDefaultClean());
    EXPECT_FALSE(item->HasChildren());
    EXPECT_NE(L"", std::wstring(item->GetDescription()));
  }
  EXPECT_EQ(1, Store()->GetRoot().FindChild(L"winapp2")->FindChild(L"My Stuff")->GetChildCount());
  EXPECT_EQ(L"Careful", std::wstring(Item(L"My Stuff", L"B/C")->GetTip()));
  EXPECT_EQ(9u, report.items);
  EXPECT_EQ(6u, report.applicable);
  ASSERT_EQ(1u, report.skipped.size());
  EXPECT_EQ(L"Detect=NotAKey", report.skipped[0].text.str());
}

TEST_F(Winapp2, FileRulesMatchWholeLongNamesWithTheirFlagsAndTheirOwnEntrysExcludes) {
  for (const wchar_t* file : {L"r\\LOG", L"r\\app.log", L"r\\a.tmp", L"r\\keep.tmp", L"r\\x.dat", L"r\\x.dat2",
                              L"r\\sub\\b.tmp", L"r\\sub\\deep\\c.tmp", L"r\\other\\d.tmp"})
    WriteFile(m_dir / file, 3);
  const std::wstring v = Var() + L"\\r";
  struct {
    std::wstring rule, excludes;
    Paths hits;
  } cases[] = {
      {L"|LOG", L"", {L"r\\LOG"}},
      {L"|*.dat", L"", {L"r\\x.dat"}},  // never x.dat2 through its 8.3 name
      {L"|*.TMP;log", L"", {L"r\\a.tmp", L"r\\keep.tmp", L"r\\LOG"}},
      {L"|*.tmp|RECURSE", L"",
       {L"r\\a.tmp", L"r\\keep.tmp", L"r\\other\\d.tmp", L"r\\sub\\b.tmp", L"r\\sub\\deep\\c.tmp"}},
      {L"|*.tmp|recurse", L"ExcludeKey1=FILE|" + v + L"\\|KEEP.tmp\n",
       {L"r\\a.tmp", L"r\\other\\d.tmp", L"r\\sub\\b.tmp", L"r\\sub\\deep\\c.tmp"}},
      {L"|*.tmp|RECURSE", L"ExcludeKey1=PATH|" + v + L"\\s*\\|*\nExcludeKey2=FILE|" + v + L"\\*\\|d.tmp\n",
       {L"r\\a.tmp", L"r\\keep.tmp"}},
      {L"\\*\\deep|*", L"", {L"r\\sub\\deep\\c.tmp"}},
      {L"\\s?b|*.tmp|RECURSE", L"", {L"r\\sub\\b.tmp", L"r\\sub\\deep\\c.tmp"}},
  };
  std::wstring ini;
  for (size_t i = 0; i < std::size(cases); ++i)
    ini += L"[Case " + std::to_wstring(i) + L" *]\nFileKey1=" + v + cases[i].rule + L"\n" + cases[i].excludes;
  ASSERT_TRUE(Load(ini).skipped.empty());
  for (size_t i = 0; i < std::size(cases); ++i) {
    Paths hits = Scan(Item(L"Other", (L"Case " + std::to_wstring(i)).c_str()));
    std::sort(hits.begin(), hits.end());
    std::sort(cases[i].hits.begin(), cases[i].hits.end());
    EXPECT_EQ(cases[i].hits, hits) << "case " << i;
  }
  // the whitelist keeps folders and files out; cancellation stops before the first file
  m_whiteList.SafeGuardPath((m_dir / L"r\\other").c_str(), 0x1);
  m_whiteList.SafeGuardPath((m_dir / L"r\\a.tmp").c_str(), 0x1);
  Paths hits = Scan(Item(L"Other", L"Case 3"));
  std::sort(hits.begin(), hits.end());
  EXPECT_EQ(Paths({L"r\\keep.tmp", L"r\\sub\\b.tmp", L"r\\sub\\deep\\c.tmp"}), hits);
  Cancelled cancelled;
  EXPECT_TRUE(Scan(Item(L"Other", L"Case 3"), &cancelled).empty());
}

TEST_F(Winapp2, RemoveSelfRemovesOnlyTheFoldersItEmptiesDeepestFirst) {
  broomtest::AllowHandleGrowth();  // cleaning starts the STA thread
  for (const wchar_t* file : {L"t\\a.tmp", L"t\\e1\\e2\\b.tmp", L"t\\full\\c.tmp", L"t\\full\\keep.txt"})
    WriteFile(m_dir / file, 3);
  MakeDirs(m_dir / L"t\\empty");
  const std::wstring v = Var();
  ASSERT_TRUE(Load(L"[Tmp *]\nFileKey1=" + v + L"\\t|*.tmp|REMOVESELF\n[All *]\nFileKey1=" + v + L"\\t|*|REMOVESELF\n")
                  .skipped.empty());
  std::vector<CRefPtr<ICleanableItem>> items;
  Paths hits = Scan(Item(L"Other", L"Tmp"), nullptr, &items);
  Paths sorted = hits;
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(Paths({L"t\\a.tmp", L"t\\e1\\", L"t\\e1\\e2\\", L"t\\e1\\e2\\b.tmp", L"t\\empty\\", L"t\\full\\c.tmp"}),
            sorted);
  auto at = [&](const wchar_t* path) { return std::find(hits.begin(), hits.end(), path) - hits.begin(); };
  EXPECT_LT(at(L"t\\e1\\e2\\b.tmp"), at(L"t\\e1\\e2\\"));
  EXPECT_LT(at(L"t\\e1\\e2\\"), at(L"t\\e1\\"));

  std::vector<ICleanableItem*> raw;
  for (auto& item : items) raw.push_back(item.Get());
  std::vector<DWORD> results(raw.size(), 1);
  CleanItems(raw.data(), raw.size(), results.data());
  EXPECT_EQ(std::vector<DWORD>(raw.size(), 0), results);
  EXPECT_FALSE(Exists(m_dir / L"t\\e1"));
  EXPECT_FALSE(Exists(m_dir / L"t\\empty"));
  EXPECT_TRUE(Exists(m_dir / L"t\\full\\keep.txt"));

  // a folder that is not empty stays, and says so
  CRefPtr<CCleanableEmptyFolder> full(new IUnknownNoQIImp<CCleanableEmptyFolder>());
  full->InitFolder(CPathString((m_dir / L"t\\full").c_str()), FILE_ATTRIBUTE_DIRECTORY);
  EXPECT_EQ(kFolderNotEmpty, full->Clean(nullptr, nullptr));
  EXPECT_TRUE(Exists(m_dir / L"t\\full\\keep.txt"));

  items.clear();
  EXPECT_EQ(Paths({L"t\\full\\keep.txt", L"t\\full\\", L"t\\"}), Scan(Item(L"Other", L"All"), nullptr, &items));
  for (auto& item : items) EXPECT_EQ(0u, item->Clean(nullptr, nullptr));
  EXPECT_FALSE(Exists(m_dir / L"t"));
}

TEST_F(Winapp2, RegistryRulesKeepWhatTheirEntrysRegExcludesName) {
  broomtest::TestRegKey key;
  for (const wchar_t* sub : {L"App\\Keep\\Deep", L"App\\Drop"}) {
    HKEY created = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(key.Key(), sub, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &created, nullptr));
    RegCloseKey(created);
  }
  DWORD one = 1;
  HKEY app = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyExW(key.Key(), L"App", 0, KEY_ALL_ACCESS, &app));
  RegSetValueExW(app, L"v", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&one), sizeof one);
  RegCloseKey(app);
  std::wstring base = L"HKCU\\" + key.Subkey() + L"\\App";
  SWinapp2Report report = Load(L"[Reg *]\nRegKey1=" + base + L"\nRegKey2=" + base + L"\\Keep\\Deep\nExcludeKey1=REG|" +
                               base + L"\\Keep\n");
  EXPECT_EQ(1u, report.registryRules);  // the rule inside the kept key finds nothing to take
  Paths hits = Scan(Item(L"Other", L"Reg"));
  std::sort(hits.begin(), hits.end());
  CharUpperBuffW(&base[0], static_cast<DWORD>(base.size()));
  EXPECT_EQ(Paths({base + L"\\DROP", base + L"|V"}), hits);
}

namespace {

// The community's file beside the source tree; empty when it is not there.
std::wstring SharedFile() {
  wchar_t source[MAX_PATH] = {};
  if (!GetEnvironmentVariableW(L"BROOM_SOURCE_DIR", source, MAX_PATH)) return std::wstring();
  std::wstring path = source;
  if (path[0] == L'/') path = L"Z:" + path;  // a Unix path from ctest
  std::replace(path.begin(), path.end(), L'/', L'\\');
  // beside the source tree; a git worktree of it sits one folder deeper
  path += L"\\..\\shared\\winapp2\\Winapp2.ini";
  if (!Exists(path)) path.insert(path.find(L"\\..\\") + 3, L"\\..");
  return Exists(path) ? path : std::wstring();
}

}  // namespace

TEST(Winapp2File, TheWholeSharedFileLoadsWithExactlyItsUnreadableLinesSkipped) {
  const std::wstring path = SharedFile();
  // Broom does not ship the file; a checkout without it beside it skips this.
  if (path.empty()) GTEST_SKIP() << "no shared Winapp2.ini beside the source tree";

  CRefPtr<IConfig> config = IConfig::NewConfig();
  SWinapp2Report report = CWinapp2Loader(*CConfigStore::Of(config)).Load(path.c_str());
  ASSERT_TRUE(report.read) << Narrow(report.error.str());
  EXPECT_EQ(4067u, report.entries);
  // three rules walk the subfolders of a user's own folders, which the guard refuses
  EXPECT_EQ(4064u, report.items);
  EXPECT_EQ(14108u, report.fileRules);
  EXPECT_EQ(3677u, report.registryRules);
  EXPECT_EQ(86u, report.excludes);
  EXPECT_EQ(4763u, report.detectionKeys);
  const std::pair<int, const char*> golden[] = {
      {7700, "[Canon Zoom Browser *]"},
      {7706, "FileKey1=%UserProfile%\\Pictures|ZbThumbnail.info|RECURSE"},
      {11029, "FileKey5=%Package\\LocalCache|*.log"},
      {11252, "FileKey7=%LocalAppData%\\Dropbox\\"},
      {14560, "FileKey1=%UserProfile%\\*|*.gnucash.*.gnucash;*.gnucash.*.log;translog.*.log|RECURSE"},
      {20018, "FileKey65=%UserProfile%\\Documents|~*.doc*;~*.ppt*|RECURSE"},
      {21515, "[Moonlighter *]"},
      {21517, "DetectFile=%UserProfile%\\AppData%\\LocalLow\\11BitStudios\\Moonlighter"},
      {21518, "FileKey1=%UserProfile%\\AppData%\\LocalLow\\11BitStudios\\Moonlighter|*.log"},
      {21519, "FileKey2=%UserProfile%\\AppData%\\LocalLow\\11BitStudios\\Moonlighter\\Unity|*|REMOVESELF"},
      {27107, "FileKey5=%Package\\LiveWallpaperData\\Log|*"},
      {27108, "FileKey6=%Package\\LiveWallpaperData\\Temporary|*"},
      {27149, "[Samsung Odyssey 3D Hub *]"},
      {27152, "FileKey1=%UserProfile%\\AppData%\\LocalLow\\Samsung\\Odyssey3DHubUI|*.log"},
      {33663, "DetectFile=%WinDir%|SIGVERIF.TXT"},
  };
  ASSERT_EQ(std::size(golden), report.skipped.size());
  for (size_t i = 0; i < std::size(golden); ++i) {
    EXPECT_EQ(golden[i].first, report.skipped[i].line);
    EXPECT_EQ(golden[i].second, Narrow(report.skipped[i].text.str()));
  }
  CScanGroup_imp* windows = CConfigStore::Of(config)->GetRoot().FindChild(L"winapp2")->FindChild(L"Windows");
  ASSERT_TRUE(windows);
  CScanGroup_imp* shell = windows->FindChild(L"Windows Shell - Folder/Dialog Box View Settings");
  ASSERT_TRUE(shell);
  EXPECT_EQ(14, shell->GetScanOpCount());
}

TEST_F(Winapp2, ARuleNeverReachesAnythingThroughALinkAndSaysSo) {
  broomtest::AllowHandleGrowth();  // cleaning starts the STA thread
  for (const wchar_t* file : {L"precious\\a.txt", L"precious\\sub\\b.txt", L"real\\c.tmp"}) WriteFile(m_dir / file, 3);
  MakeDirs(m_dir / L"links");
  ASSERT_TRUE(broomtest::MakeUnixSymlink(m_dir / L"precious", m_dir / L"links\\to_docs"));
  ASSERT_TRUE(broomtest::MakeUnixSymlink(m_dir.Path(), m_dir / L"links\\to_top"));
  const std::wstring v = Var();
  const std::wstring rules[] = {
      L"\\links\\to_docs|*|REMOVESELF",        // the rule's folder is a link
      L"\\links\\to_docs\\sub|*.*|RECURSE",    // a link on its path
      L"\\links\\to_top\\real|*.tmp",          // a link on its path to a real folder
      L"\\links\\to_*|*.*|RECURSE",            // a wildcard matching links
      L"\\links\\*\\precious|*|REMOVESELF",    // wildcard then a link on the path
  };
  std::wstring ini;
  for (size_t i = 0; i < std::size(rules); ++i)
    ini += L"[Link " + std::to_wstring(i) + L" *]\nFileKey1=" + v + rules[i] + L"\n";
  ASSERT_TRUE(Load(ini).skipped.empty());
  for (size_t i = 0; i < std::size(rules); ++i) {
    CScanGroup_imp* item = Item(L"Other", (L"Link " + std::to_wstring(i)).c_str());
    ASSERT_TRUE(item);
    EXPECT_EQ(Paths(), Scan(item)) << "rule " << i;
    auto* op = dynamic_cast<IOperationNotes*>(item->m_scanOps.front().Get());
    ASSERT_TRUE(op);
    std::vector<CString> notes = op->TakeScanNotes();
    if (i >= 3) continue;  // links a wildcard's listing meets are passed over as before
    ASSERT_EQ(1u, notes.size()) << "rule " << i;
    EXPECT_NE(std::wstring::npos, notes[0].str().find(L" is a link")) << Narrow(notes[0].str());
  }
  for (const wchar_t* file : {L"precious\\a.txt", L"precious\\sub\\b.txt", L"real\\c.tmp"})
    EXPECT_TRUE(Exists(m_dir / file)) << Narrow(file);
  EXPECT_TRUE(Exists(m_dir / L"links\\to_docs"));
}

TEST_F(Winapp2, ExcludesWithSeveralMasksKeepEachOfThem) {
  for (const wchar_t* file : {L"d\\a.bak", L"d\\b.log", L"d\\c.tmp", L"d\\sub\\d.bak", L"d\\sub\\e.tmp"})
    WriteFile(m_dir / file, 3);
  const std::wstring v = Var() + L"\\d";
  SWinapp2Report report =
      Load(L"[Path *]\nFileKey1=" + v + L"|*.*|RECURSE\nExcludeKey1=PATH|" + v + L"|*.bak; *.log\n" +
           L"[File *]\nFileKey1=" + v + L"|*.*|RECURSE\nExcludeKey1=FILE|" + v + L"\\|a.bak;b.log\n" +
           L"[Broken *]\nFileKey1=" + v + L"|*.*\nExcludeKey1=PATH|" + v + L"|*.bak;x\\y\n");
  ASSERT_EQ(2u, report.skipped.size()) << "the broken exclude and the rule it takes with it";
  Paths path = Scan(Item(L"Other", L"Path")), file = Scan(Item(L"Other", L"File"));
  std::sort(path.begin(), path.end());
  std::sort(file.begin(), file.end());
  EXPECT_EQ(Paths({L"d\\c.tmp", L"d\\sub\\e.tmp"}), path);
  EXPECT_EQ(Paths({L"d\\c.tmp", L"d\\sub\\d.bak", L"d\\sub\\e.tmp"}), file);
  EXPECT_EQ(nullptr, Item(L"Other", L"Broken"));
}

TEST_F(Winapp2, TheWhitelistAndExcludesMeetARulesFolderHoweverItIsSpelled) {
  for (const wchar_t* file : {L"kept long folder\\k.tmp", L"kept long folder\\sub\\l.tmp", L"excluded files\\a.bak",
                              L"excluded files\\b.log", L"excluded files\\c.tmp", L"excluded files\\sub\\d.bak",
                              L"excluded files\\sub\\e.tmp"})
    WriteFile(m_dir / file, 3);
  const std::wstring kept = m_dir / L"kept long folder", excl = m_dir / L"excluded files";
  m_whiteList.SafeGuardPath(kept.c_str(), 0x1);
  auto shortName = [](const std::wstring& path) {
    wchar_t buffer[MAX_PATH];
    DWORD n = GetShortPathNameW(path.c_str(), buffer, MAX_PATH);
    return std::wstring(buffer, n < MAX_PATH ? n : 0);
  };
  const std::wstring keptShort = shortName(kept), exclShort = shortName(excl);
  ASSERT_NE(keptShort.substr(keptShort.find_last_of(L'\\')), L"\\kept long folder");
  const Paths unexcluded = {L"excluded files\\c.tmp", L"excluded files\\sub\\e.tmp"};
  const struct {
    std::wstring keys;
    Paths hits;
  } cases[] = {
      {L"FileKey1=" + kept + L".|*.tmp|RECURSE", {}},  // the system drops the dot: the whitelisted folder
      {L"FileKey1=" + kept + L" . |*|REMOVESELF", {}},
      {L"FileKey1=" + keptShort + L"|*.*|RECURSE", {}},
      {L"FileKey1=" + keptShort + L"\\SUB. |*.tmp", {}},
      {L"FileKey1=" + excl + L".|*.*|RECURSE\nExcludeKey1=PATH|" + excl + L"|*.bak;*.log", unexcluded},
      {L"FileKey1=" + excl + L"|*.*|RECURSE\nExcludeKey1=PATH|" + excl + L". .|*.bak;*.log", unexcluded},
      {L"FileKey1=" + exclShort + L"|*.*|RECURSE\nExcludeKey1=PATH|" + excl + L"|*.bak;*.log", unexcluded},
      {L"FileKey1=" + excl + L"|*.*|RECURSE\nExcludeKey1=PATH|" + exclShort + L"\\|*.bak;*.log", unexcluded},
      {L"FileKey1=" + excl + L"|*.*\nExcludeKey1=FILE|" + excl + L"\\|a.bak.;b.log .", {L"excluded files\\c.tmp"}},
  };
  std::wstring ini;
  for (size_t i = 0; i < std::size(cases); ++i) ini += L"[Case " + std::to_wstring(i) + L" *]\n" + cases[i].keys + L"\n";
  ASSERT_TRUE(Load(ini).skipped.empty());
  for (size_t i = 0; i < std::size(cases); ++i) {
    Paths hits = Scan(Item(L"Other", (L"Case " + std::to_wstring(i)).c_str()));
    std::sort(hits.begin(), hits.end());
    EXPECT_EQ(cases[i].hits, hits) << "case " << i << ": " << Narrow(cases[i].keys);
  }
}

TEST_F(Winapp2, DetectionThatCannotBeReadNeverHoldsAndDetWindowsAlwaysDoes) {
  MakeDirs(m_dir / L"here");
  const std::wstring v = Var(), rule = L"FileKey1=" + v + L"\\x|*\n";
  const struct {
    std::wstring detect;
    bool applies;
  } cases[] = {
      {L"DetectFile=%WinDir%%Nope%", false},       {L"DetectFile=%WinDir%\\..\\windows", false},
      {L"DetectFile=%WinDir%\\%", false},          {L"DetectFile=%WinDir%\\system32\\.", false},
      {L"DetectFile=" + v + L"\\here\\%Nope%", false}, {L"SpecialDetect=DET_WINDOWS", true},
      {L"SpecialDetect=DET_NOPE", false},          {L"DetectFile=" + v + L"\\here", true},
  };
  std::wstring ini;
  for (size_t i = 0; i < std::size(cases); ++i)
    ini += L"[Detect " + std::to_wstring(i) + L" *]\n" + cases[i].detect + L"\n" + rule;
  Load(ini);
  for (size_t i = 0; i < std::size(cases); ++i) {
    CScanGroup_imp* item = Item(L"Other", (L"Detect " + std::to_wstring(i)).c_str());
    ASSERT_TRUE(item);
    EXPECT_EQ(cases[i].applies, item->IsEnabled() != abFalse) << Narrow(cases[i].detect);
  }
}

TEST_F(Winapp2, RulesThatWouldTakeProtectedFoldersAreRefusedAtLoadWithTheirReason) {
  // Loaded, never scanned: a rule of this table that got through would clean the prefix's profile.
  wchar_t profile[MAX_PATH] = {}, windows[MAX_PATH] = {};
  GetEnvironmentVariableW(L"USERPROFILE", profile, MAX_PATH);
  GetEnvironmentVariableW(L"SystemRoot", windows, MAX_PATH);
  const std::wstring users = std::wstring(profile).substr(0, std::wstring(profile).find_last_of(L'\\'));
  const struct {
    std::wstring rule;
    const char* reason;  // nullptr: loads
  } cases[] = {
      {std::wstring(profile) + L".|*|REMOVESELF", "your profile folder"},
      {users + L".|*|REMOVESELF", "folder of the user profiles"},
      {L"%AppData%.|*.*|RECURSE", "AppData\\Roaming"},
      {L"%LocalAppData%\\..\\LocalLow.|*", nullptr},  // '..' is skipped as before
      {L"%SystemDrive%|*.*|RECURSE", "drive root"},
      {L"%SystemDrive%\\|*|REMOVESELF", "drive root"},
      {std::wstring(windows) + L"\\System32|*.*", "System32"},
      {L"%WinDir%\\System32|*.dll", nullptr},  // loads; the guard refuses every hit
      {L"%WinDir%|EPMBatch.ept;OutLog.txt", nullptr},
      {L"%UserProfile%\\*|*.log|RECURSE", "may be"},
      {L"%Documents%|~*.doc*|RECURSE", "Documents"},
  };
  std::wstring ini;
  for (size_t i = 0; i < std::size(cases); ++i) ini += L"[Root " + std::to_wstring(i) + L" *]\nFileKey1=" + cases[i].rule + L"\n";
  SWinapp2Report report = Load(ini);
  for (size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(Narrow(cases[i].rule));
    auto skip = std::find_if(report.skipped.begin(), report.skipped.end(),
                             [&](const SWinapp2Skip& s) { return s.line == static_cast<int>(2 * i + 2); });
    if (!cases[i].reason) {
      if (skip != report.skipped.end()) {
        EXPECT_EQ(std::string::npos, Narrow(skip->reason.str()).find("refused"));
      }
      continue;
    }
    ASSERT_TRUE(skip != report.skipped.end());
    EXPECT_NE(std::string::npos, Narrow(skip->reason.str()).find("refused: ")) << Narrow(skip->reason.str());
    EXPECT_NE(std::string::npos, Narrow(skip->reason.str()).find(cases[i].reason)) << Narrow(skip->reason.str());
    EXPECT_EQ(nullptr, Item(L"Other", (L"Root " + std::to_wstring(i)).c_str()));
  }
}

TEST_F(Winapp2, AWildcardInADetectionPathNeverLeadsThroughALink) {
  WriteFile(m_dir / L"real\\app\\x.txt", 3);
  MakeDirs(m_dir / L"links");
  MakeDirs(m_dir / L"loop");
  ASSERT_TRUE(broomtest::MakeUnixSymlink(m_dir / L"real", m_dir / L"links\\to_real"));
  // links back to their own folder: every wildcard level would triple the walk
  for (const wchar_t* name : {L"\\a", L"\\b", L"\\c"})
    ASSERT_TRUE(broomtest::MakeUnixSymlink(m_dir / L"loop", m_dir / L"loop" + name));
  const std::wstring v = Var();
  std::wstring loop = v + L"\\loop";
  for (int i = 0; i < 14; ++i) loop += L"\\*";
  const struct {
    std::wstring detect;
    bool applies;
  } cases[] = {
      {L"DetectFile=" + v + L"\\links\\*\\app", false},
      {L"DetectFile=" + v + L"\\real\\*\\x.txt", true},
      {L"DetectFile=" + v + L"\\links\\to_real\\app", true},  // a path named whole is asked as named
      {L"DetectFile=" + loop + L"\\nope", false},
  };
  std::wstring ini;
  for (size_t i = 0; i < std::size(cases); ++i)
    ini += L"[Detect " + std::to_wstring(i) + L" *]\n" + cases[i].detect + L"\nFileKey1=" + v + L"\\x|*\n";
  PROCESS_MEMORY_COUNTERS before = {}, after = {};
  GetProcessMemoryInfo(GetCurrentProcess(), &before, sizeof before);
  ASSERT_TRUE(Load(ini).skipped.empty());
  GetProcessMemoryInfo(GetCurrentProcess(), &after, sizeof after);
  for (size_t i = 0; i < std::size(cases); ++i) {
    CScanGroup_imp* item = Item(L"Other", (L"Detect " + std::to_wstring(i)).c_str());
    ASSERT_TRUE(item);
    EXPECT_EQ(cases[i].applies, item->IsEnabled() != abFalse) << Narrow(cases[i].detect);
  }
  EXPECT_LT(after.PeakWorkingSetSize - before.PeakWorkingSetSize, 64u << 20);
}

TEST_F(Winapp2, HostileDetectionPathsCostMemoryInLineWithTheFile) {
  // Long paths of many components were once planned as every prefix: a
  // 70 KB line took gigabytes. Now a line costs in line with its length.
  std::wstring deepFile = L"C:", deepKey = L"HKCU\\Software", temps;
  for (int i = 0; i < 40000; ++i) deepFile += L"\\a", deepKey += L"\\a";
  for (int i = 0; i < 8000; ++i) temps += L"%Temp%";
  PROCESS_MEMORY_COUNTERS before = {};
  GetProcessMemoryInfo(GetCurrentProcess(), &before, sizeof before);
  SWinapp2Report report = Load(L"[Deep *]\nDetectFile=" + deepFile + L"\nDetect=" + deepKey + L"\nDetectFile2=" +
                               temps + L"\nDetect2=HKCU\\Software\\" + std::wstring(300, L'k') + L"\n" +
                               L"FileKey1=" + Var() + L"\\x|*\n");
  PROCESS_MEMORY_COUNTERS after = {};
  GetProcessMemoryInfo(GetCurrentProcess(), &after, sizeof after);
  ASSERT_EQ(4u, report.skipped.size());
  for (const SWinapp2Skip& skip : report.skipped) EXPECT_NE(L"", skip.reason.str());
  EXPECT_EQ(abFalse, Item(L"Other", L"Deep")->IsEnabled());
  EXPECT_LT(after.PeakWorkingSetSize - before.PeakWorkingSetSize, 64u << 20);
}

TEST(Winapp2File, EveryEntryGetsTheCostOfWhatItTakesFromItsUserAndItsProgram) {
  const std::wstring path = SharedFile();
  if (path.empty()) GTEST_SKIP() << "no shared Winapp2.ini beside the source tree";
  CRefPtr<IConfig> config = IConfig::NewConfig();
  CConfigStore& store = *CConfigStore::Of(config);
  ASSERT_TRUE(CWinapp2Loader(store).Load(path.c_str()).read);
  const struct {
    const wchar_t *category, *name;
    ECost cost;
  } cases[] = {
      {L"Google Chrome Web Browser", L"Google Chrome Saved Usernames & Passwords", costSaved},
      {L"Google Chrome Web Browser", L"Google Chrome Autofill Data & Search Engine Preferences", costSaved},
      {L"Google Chrome Web Browser", L"Google Chrome Bookmark Backups", costSaved},
      {L"Google Chrome Web Browser", L"Google Chrome Web Browsing Cookies", costSignIn},
      {L"Google Chrome Web Browser", L"Google Chrome Extension Cookies", costSignIn},
      {L"Google Chrome Web Browser", L"Google Chrome Web Storage", costSignIn},
      {L"Google Chrome Web Browser", L"Google Chrome Web Browsing Session", costSignIn},
      {L"Google Chrome Web Browser", L"Google Chrome Sync Data", costSignIn},
      {L"Google Chrome Web Browser", L"Google Chrome Web Browsing History", costHistory},
      {L"Google Chrome Web Browser", L"Google Chrome Download History", costHistory},
      {L"Google Chrome Web Browser", L"Google Chrome Caches", costCache},
      {L"Google Chrome Web Browser", L"Google Chrome Bookmark Favicons", costCache},
      {L"Microsoft Edge Web Browser", L"Microsoft Edge Saved Usernames & Passwords", costSaved},
      {L"Microsoft Edge Web Browser", L"Microsoft Edge Autofill Data & Search Engine Preferences", costSaved},
      {L"Microsoft Edge Web Browser", L"Microsoft Edge Web Browsing Session", costSignIn},
      {L"Microsoft Edge Web Browser", L"Microsoft Edge Web Browsing Cookies", costSignIn},
      {L"Microsoft Edge Web Browser", L"Microsoft Edge Web Storage", costSignIn},
      {L"Microsoft Edge Web Browser", L"Microsoft Edge Web Browsing History", costHistory},
      {L"Microsoft Edge Web Browser", L"Microsoft Edge Caches", costCache},
      {L"Mozilla Firefox Web Browser", L"Mozilla Firefox Saved Usernames & Passwords", costSaved},
      {L"Mozilla Firefox Web Browser", L"Mozilla Firefox Autofill Data", costSaved},
      {L"Mozilla Firefox Web Browser", L"Mozilla Firefox Autocomplete History", costSaved},
      {L"Mozilla Firefox Web Browser", L"Mozilla Firefox Web Browsing Cookies", costSignIn},
      {L"Mozilla Firefox Web Browser", L"Mozilla Firefox Web Storage", costSignIn},
      {L"Mozilla Firefox Web Browser", L"Mozilla Firefox Web Browsing Session", costSignIn},
      {L"Mozilla Firefox Web Browser", L"Mozilla Firefox Website Permissions", costSignIn},
      {L"Mozilla Firefox Web Browser", L"Mozilla Firefox Caches", costCache},
      {L"Mozilla Firefox Web Browser", L"Mozilla Firefox Telemetry", costCache},
  };
  CScanGroup_imp* top = store.GetRoot().FindChild(L"winapp2");
  ASSERT_TRUE(top);
  for (const auto& c : cases) {
    CScanGroup_imp* category = top->FindChild(c.category);
    CScanGroup_imp* item = category ? category->FindChild(c.name) : nullptr;
    ASSERT_TRUE(item) << Narrow(c.name);
    EXPECT_STREQ(CostName(c.cost), CostName(store.GetCost(item))) << Narrow(c.name);
    const wchar_t* image = wcsstr(c.category, L"Chrome") ? L"chrome.exe"
                           : wcsstr(c.category, L"Edge") ? L"msedge.exe" : L"firefox.exe";
    EXPECT_EQ(std::vector<std::wstring>{image}, store.GetPrograms(item)) << Narrow(c.name);
  }
}

TEST_F(Winapp2, FilesThatAreNoWinapp2FilesAreRefusedWholeAndLoadNothing) {
  std::string binary;
  for (int i = 0; i < 4000; ++i) binary += static_cast<char>((i * 37 + 11) & 0xFF);
  const std::string rule = "FileKey1=" + Narrow(Var()) + "\\x|*.tmp\n";
  const struct {
    const char* label;
    std::string text;
    bool refused;
  } cases[] = {
      {"empty", "", true},
      {"blank lines and comments", "\n; only a comment\n\n", true},
      {"a web page", "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>404</title></head>\n"
                     "<body>Not Found</body></html>\n", true},
      {"binary", binary, true},
      {"one entry in garbage", "[A *]\n" + rule + "garbage\nmore garbage\n<p>\n]]\n", true},
      {"an entry with a few bad lines", "[A *]\n" + rule + "garbage\n[B *]\n" + rule, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    std::wstring file = WriteFile(m_dir / L"w.ini", c.text);
    m_config = IConfig::NewConfig();
    SWinapp2Report report = CWinapp2Loader(*Store()).Load(file.c_str());
    EXPECT_EQ(!c.refused, report.read);
    if (!c.refused) continue;
    EXPECT_NE(std::wstring::npos, report.error.str().find(L"not a winapp2.ini file")) << Narrow(report.error.str());
    EXPECT_EQ(nullptr, Store()->GetRoot().FindChild(L"winapp2"));
    EXPECT_EQ(1u, Store()->GetLoadNotes().size());
    EXPECT_TRUE(report.skipped.empty());
  }
}
