#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "common/TestFiles.h"
#include "log/ScanLogThread.h"
#include "scan/BaseFileScan.h"
#include "settings/AppInfo.h"
#include "tests/scan/ScanTestSupport.h"

using broomtest::MakeDirs;
using broomtest::TempDir;
using broomtest::WriteFile;
using scantest::RecordingProgress;
using scantest::RecordingScan;
using scantest::RecordingStatus;

namespace {

std::set<std::wstring> AsSet(const std::vector<std::wstring>& v) { return {v.begin(), v.end()}; }

class FileScan : public testing::Test {
 protected:
  void SetUp() override { scantest::UserDataFolder(); }

  // Runs one scan of the given roots and returns the scan object.
  void Scan(RecordingScan& scan, std::initializer_list<std::wstring> roots) {
    for (const auto& root : roots) scan.AddPath(CPathString(root.c_str()));
    scan.Initialize(&m_progress, &m_status, &m_whiteList);
    scan.StartScan();
  }

  std::wstring P(const std::wstring& relative) const { return m_dir / relative; }

  TempDir m_dir;
  RecordingProgress m_progress;
  RecordingStatus m_status;
  CWhiteListTree m_whiteList;
};

TEST_F(FileScan, FolderRootReportsEveryFileAndIsRewritten) {
  WriteFile(P(L"T\\a.txt"), "a");
  WriteFile(P(L"T\\sub\\b.txt"), "bb");
  WriteFile(P(L"T\\sub\\deep\\c.txt"), "ccc");
  WriteFile(P(L"T\\z.txt"), "");
  RecordingScan scan;
  Scan(scan, {P(L"T")});
  auto paths = scan.Paths();
  EXPECT_EQ(AsSet(paths), AsSet({P(L"T\\a.txt"), P(L"T\\z.txt"), P(L"T\\sub\\b.txt"), P(L"T\\sub\\deep\\c.txt")}));
  // a folder's files come before anything in its subfolders
  auto pos = [&](const std::wstring& p) { return std::find(paths.begin(), paths.end(), p) - paths.begin(); };
  EXPECT_LT(pos(P(L"T\\z.txt")), pos(P(L"T\\sub\\b.txt")));
  EXPECT_LT(pos(P(L"T\\sub\\b.txt")), pos(P(L"T\\sub\\deep\\c.txt")));
  ASSERT_EQ(scan.GetPaths().size(), 1u);
  EXPECT_EQ(std::wstring(scan.GetPaths().front().c_str()), P(L"T\\*"));
  EXPECT_EQ(m_progress.finished, 1);
  // hits carry their folder with a trailing separator
  EXPECT_EQ(scan.hits.front().folder, P(L"T\\"));

  // the rewritten root scans the same again
  scan.hits.clear();
  scan.StartScan();
  EXPECT_EQ(AsSet(scan.Paths()), AsSet(paths));
}

// Which files a set of root patterns reports, each case in a folder of its own.
TEST_F(FileScan, RootPatternsSelectTheirFiles) {
  struct Case {
    const char* what;
    std::vector<std::wstring> files, roots, expected;
    const wchar_t* rewrittenRoot;
  };
  const Case cases[] = {
      {"folder root with a trailing separator", {L"T\\a.txt", L"T\\s\\b.txt"}, {L"T\\"},
       {L"T\\a.txt", L"T\\s\\b.txt"}, L"T\\*"},
      {"missing roots", {}, {L"nothing-here", L"nothing\\*.tmp", L"no\\*\\x\\*"}, {}, nullptr},
      {"final mask selects files and the subfolders it descends",
       {L"T\\x.log", L"T\\y.txt", L"T\\d.log\\z.log", L"T\\d.log\\w.txt", L"T\\other\\q.log"},
       {L"T\\*.log"}, {L"T\\x.log", L"T\\d.log\\z.log"}, nullptr},
      {"folder wildcard visits every matching folder",
       {L"U\\alice\\App\\Temp\\t1.tmp", L"U\\alice\\App\\Temp\\sub\\t2.tmp", L"U\\bob\\Docs\\keep.txt",
        L"U\\carol\\App\\Roaming\\r.txt", L"U\\dave\\App\\Temp\\t3.tmp"},
       {L"U\\*\\App\\Temp\\*"},
       {L"U\\alice\\App\\Temp\\t1.tmp", L"U\\alice\\App\\Temp\\sub\\t2.tmp", L"U\\dave\\App\\Temp\\t3.tmp"},
       nullptr},
      {"a wildcard anywhere in a folder name",
       {L"U\\alice\\App\\Temp\\t1.tmp", L"U\\dave\\App\\Temp\\t3.tmp"}, {L"U\\?l*\\App\\Temp\\*.tmp"},
       {L"U\\alice\\App\\Temp\\t1.tmp"}, nullptr},
      {"wildcard with a trailing separator", {L"U\\alice\\a.txt"}, {L"U\\*\\"}, {}, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    TempDir dir;
    for (const auto& file : c.files) WriteFile(dir / file, "x");
    RecordingScan scan;
    for (const auto& root : c.roots) scan.AddPath(CPathString((dir / root).c_str()));
    RecordingProgress progress;
    scan.Initialize(&progress, &m_status, &m_whiteList);
    scan.StartScan();
    std::set<std::wstring> expected;
    for (const auto& file : c.expected) expected.insert(dir / file);
    EXPECT_EQ(AsSet(scan.Paths()), expected);
    EXPECT_EQ(progress.finished, 1);
    if (c.rewrittenRoot) {
      EXPECT_EQ(std::wstring(scan.GetPaths().front().c_str()), dir / c.rewrittenRoot);
    }
  }
  // a single file root reports the file with its folder as given
  WriteFile(P(L"T\\a.log"), "12345");
  WriteFile(P(L"T\\b.log"), "1");
  RecordingScan scan;
  Scan(scan, {P(L"T\\a.log")});
  ASSERT_EQ(scan.hits.size(), 1u);
  EXPECT_EQ(scan.hits[0].folder, P(L"T"));
  EXPECT_EQ(scan.hits[0].name, L"a.log");
}

TEST_F(FileScan, AttributesOfListedFolders) {
  WriteFile(P(L"T\\sys\\s.txt"), "s");
  WriteFile(P(L"T\\hid\\h.txt"), "h");
  WriteFile(P(L"T\\plain.txt"), "p");
  WriteFile(P(L"outside\\o.txt"), "o");
  ASSERT_TRUE(SetFileAttributesW(P(L"T\\sys").c_str(), FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_DIRECTORY));
  ASSERT_TRUE(SetFileAttributesW(P(L"T\\hid").c_str(), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_DIRECTORY));
  ASSERT_TRUE(broomtest::MakeUnixSymlink(P(L"outside"), P(L"T\\link")));

  RecordingScan scan;
  Scan(scan, {P(L"T")});
  EXPECT_EQ(AsSet(scan.Paths()), AsSet({P(L"T\\plain.txt"), P(L"T\\hid\\h.txt")}));

  RecordingScan withSystem;
  withSystem.SetSystem(true);
  Scan(withSystem, {P(L"T")});
  EXPECT_EQ(AsSet(withSystem.Paths()), AsSet({P(L"T\\plain.txt"), P(L"T\\hid\\h.txt"), P(L"T\\sys\\s.txt")}));

  // a root that is itself a link or a system folder is followed
  RecordingScan viaLink;
  Scan(viaLink, {P(L"T\\link"), P(L"T\\sys")});
  EXPECT_EQ(AsSet(viaLink.Paths()), AsSet({P(L"T\\link\\o.txt"), P(L"T\\sys\\s.txt")}));
  SetFileAttributesW(P(L"T\\sys").c_str(), FILE_ATTRIBUTE_DIRECTORY);
}

TEST_F(FileScan, WhiteListTestBits) {
  WriteFile(P(L"T\\keep2\\a.txt"), "a");
  WriteFile(P(L"T\\keep1\\b.txt"), "b");
  WriteFile(P(L"T\\open\\c.txt"), "c");
  m_whiteList.SafeGuardPath(P(L"T\\keep2").c_str(), 2);
  m_whiteList.SafeGuardPath(P(L"T\\keep1").c_str(), 1);

  RecordingScan byDefault;
  Scan(byDefault, {P(L"T")});
  EXPECT_EQ(AsSet(byDefault.Paths()), AsSet({P(L"T\\open\\c.txt")}));
  // the protected folder is still announced before it is skipped
  bool announced = false;
  for (const auto& item : m_status.items) announced |= item.first == L"keep2" && item.second == 1;
  EXPECT_TRUE(announced);

  RecordingScan bitOne;
  bitOne.SetWhiteListTestBits(1);
  Scan(bitOne, {P(L"T")});
  EXPECT_EQ(AsSet(bitOne.Paths()), AsSet({P(L"T\\open\\c.txt"), P(L"T\\keep2\\a.txt")}));
}

TEST_F(FileScan, ProtectedRootAndFixedPartsEndTheirBranch) {
  WriteFile(P(L"Users\\alice\\AppData\\Local\\Temp\\t.tmp"), "t");
  WriteFile(P(L"Users\\bob\\AppData\\Local\\Temp\\t.tmp"), "t");
  WriteFile(P(L"T\\f.txt"), "f");
  m_whiteList.SafeGuardPath(P(L"Users\\bob\\AppData\\Local").c_str(), 1);
  m_whiteList.SafeGuardPath(P(L"T").c_str(), 1);
  RecordingScan scan;
  Scan(scan, {P(L"Users\\*\\AppData\\Local\\Temp\\*"), P(L"T"), P(L"T\\f.txt")});
  EXPECT_EQ(AsSet(scan.Paths()), AsSet({P(L"Users\\alice\\AppData\\Local\\Temp\\t.tmp")}));
}

TEST_F(FileScan, CancelAtTheFirstFileStopsEveryRoot) {
  WriteFile(P(L"A\\1.txt"), "1");
  WriteFile(P(L"A\\2.txt"), "2");
  WriteFile(P(L"A\\sub\\3.txt"), "3");
  WriteFile(P(L"B\\4.txt"), "4");
  WriteFile(P(L"C\\single.txt"), "5");
  RecordingScan scan;
  scan.onFile = [&](const scantest::Hit&) { m_status.cancelled = true; };
  Scan(scan, {P(L"A"), P(L"B"), P(L"C\\single.txt")});
  // one file of A, nothing of B, and the single-file root is still reported
  ASSERT_EQ(scan.hits.size(), 2u);
  EXPECT_EQ(scan.hits[0].folder, P(L"A\\"));
  EXPECT_EQ(scan.hits[1].Path(), P(L"C\\single.txt"));
  EXPECT_EQ(m_progress.finished, 1);
}

TEST_F(FileScan, CancelAtASubfolder) {
  WriteFile(P(L"A\\top.txt"), "1");
  WriteFile(P(L"A\\sub\\inner.txt"), "2");
  WriteFile(P(L"A\\sub\\deeper\\x.txt"), "3");
  RecordingScan scan;
  m_status.onFolder = [&](const std::wstring& folder) {
    if (folder == P(L"A\\sub\\")) m_status.cancelled = true;
  };
  Scan(scan, {P(L"A")});
  EXPECT_EQ(scan.Paths(), std::vector<std::wstring>{P(L"A\\top.txt")});
}

TEST_F(FileScan, ProgressEstimateCountsTheLastPassWhole) {
  for (int i = 0; i < 10; ++i) MakeDirs(P(L"R1\\d" + std::to_wstring(i)));
  MakeDirs(P(L"R2"));
  for (int i = 0; i < 5; ++i) MakeDirs(P(L"R3\\d" + std::to_wstring(i)));
  RecordingScan scan;
  Scan(scan, {P(L"R1"), P(L"R2"), P(L"R3")});
  EXPECT_EQ(m_progress.totals, std::vector<int>{18});
  EXPECT_EQ(scan.GetProgressLevels(), 1);
  ASSERT_FALSE(m_progress.positions.empty());
  EXPECT_EQ(m_progress.positions.back(), 18);
  EXPECT_TRUE(std::is_sorted(m_progress.positions.begin(), m_progress.positions.end()));
  // each folder root reports its own position twice, before and after it is rewritten
  EXPECT_EQ(std::count(m_progress.positions.begin(), m_progress.positions.end(), 1), 2);

  RecordingProgress wide;
  for (int i = 0; i < 300; ++i) MakeDirs(P(L"W\\d" + std::to_wstring(i)));
  RecordingScan big;
  big.AddPath(CPathString(P(L"W").c_str()));
  big.Initialize(&wide, &m_status, &m_whiteList);
  big.StartScan();
  EXPECT_EQ(wide.totals, std::vector<int>{301});
  EXPECT_EQ(big.GetProgressLevels(), 1);
}

TEST_F(FileScan, PathsPastTheLimitEndOnlyTheirBranch) {
  // a chain of folders whose deepest one, with its separator, no longer fits
  // in 260 characters, whatever the length of the temporary folder
  std::wstring deep = P(L"L");
  while (deep.size() < MAX_PATH + 2) deep += L"\\segment_of_the_long_path";
  std::wstring longDir = L"\\\\?\\" + deep;
  MakeDirs(longDir);
  WriteFile(longDir + L"\\too_long_to_report.txt", "x");
  WriteFile(P(L"L\\short.txt"), "s");
  WriteFile(P(L"L\\zz\\after.txt"), "a");
  // below a wildcard root, so that the progress estimate (whose path
  // overflows reach the caller) does not list the long chain
  RecordingScan scan;
  Scan(scan, {P(L"L\\*")});
  auto paths = AsSet(scan.Paths());
  EXPECT_TRUE(paths.count(P(L"L\\short.txt")));
  EXPECT_TRUE(paths.count(P(L"L\\zz\\after.txt")));
  for (const auto& h : scan.hits) {
    EXPECT_LT(h.folder.size(), size_t{MAX_PATH}) << broomtest::Narrow(h.folder);
    EXPECT_NE(h.name, L"too_long_to_report.txt");
  }
  broomtest::RemoveTree(L"\\\\?\\" + P(L"L"));
}

TEST_F(FileScan, RefusesToStartWithoutNotifiersWhiteListOrRoots) {
  RecordingScan scan;
  scan.AddPath(CPathString(P(L"T").c_str()));
  auto startHr = [&]() -> HRESULT {
    try {
      scan.StartScan();
    } catch (const CAtlException& e) {
      return e;
    }
    return S_OK;
  };
  EXPECT_EQ(startHr(), E_FAIL);
  scan.Initialize(&m_progress, &m_status, nullptr);
  EXPECT_EQ(startHr(), E_FAIL);  // no whitelist: refused rather than scanning unprotected
  RecordingScan empty;
  empty.Initialize(&m_progress, &m_status, &m_whiteList);
  EXPECT_THROW(empty.StartScan(), CAtlException);
  EXPECT_TRUE(m_progress.totals.empty());
  EXPECT_EQ(m_progress.finished, 0);
}

TEST_F(FileScan, FilterChainAppliesInOrder) {
  WriteFile(P(L"T\\a.log"), "data");
  WriteFile(P(L"T\\empty.log"), "");
  WriteFile(P(L"T\\b.txt"), "data");
  CRefPtr<CBaseFileScan::IFilter> pattern;
  auto* p = new IUnknownNoQIImp<CBaseFileScan::_FilterAcceptDOSPattern_Impl>();
  p->SetPattern(L"*.log");
  pattern = p;
  auto* s = new IUnknownNoQIImp<CBaseFileScan::_FilterRejectSmallFiles_Impl>();
  s->SetSize(1);
  CRefPtr<CBaseFileScan::IFilter> small(s);
  RecordingScan scan;
  scan.AddFilter(pattern);
  scan.AddFilter(small);
  Scan(scan, {P(L"T")});
  EXPECT_EQ(scan.Paths(), std::vector<std::wstring>{P(L"T\\a.log")});
  // every file is announced before the filters run
  int fileItems = 0;
  for (const auto& item : m_status.items) fileItems += item.second == 2;
  EXPECT_EQ(fileItems, 3);

  scan.ClearFilters();
  scan.hits.clear();
  scan.StartScan();
  EXPECT_EQ(scan.hits.size(), 3u);
}

TEST_F(FileScan, TitleGoesToTheScanLogAsAHeading) {
  WriteFile(P(L"T\\a.txt"), "a");
  RecordingScan scan;
  scan.SetTitle(L"Temporary files");
  Scan(scan, {P(L"T")});
  std::wstring text = scantest::ReadScanLog(wcslen(L"Temporary files\r\n"));
  EXPECT_NE(text.find(L"Temporary files\r\n"), std::wstring::npos);
}

TEST(FixedDrives, ListsTheSystemDriveAsARoot) {
  std::list<CBaseFileScan::DriveInfo> drives;
  ASSERT_TRUE(CBaseFileScan::GetFixedDriveInfo(drives));
  bool hasC = false;
  for (const auto& d : drives) {
    hasC |= _wcsicmp(d.root.c_str(), L"C:\\") == 0;
    EXPECT_GE(d.totalBytes, d.freeBytes);
  }
  EXPECT_TRUE(hasC);
  RecordingScan scan;
  scan.AddFixedDrivesToPath();
  ASSERT_EQ(scan.GetPaths().size(), drives.size());
  EXPECT_EQ(std::wstring(scan.GetPaths().front().c_str()), std::wstring(drives.front().root.c_str()) + L"*");
}

}  // namespace
