// Scans with folders listed ahead on the engine's pool against the same scans
// listing on the calling thread alone: the same hits in the same order, the
// same scan log, the same calls of the notifiers.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "clean/CleanableFile.h"
#include "common/TestFiles.h"
#include "scan/ListAhead.h"
#include "scan/StdFileScan.h"
#include "tests/scan/ScanTestSupport.h"

using broomtest::MakeDirs;
using broomtest::RemoveTree;
using broomtest::TempDir;
using broomtest::WriteFile;

namespace {

// What one scan did, in the order it did it.
struct Outcome {
  std::vector<std::wstring> hits;  // log entries of the reported items
  std::vector<std::wstring> log;   // the scan log's lines below the scan's title
  std::vector<std::pair<std::wstring, int>> items;
  std::vector<std::wstring> folders;
  std::vector<int> positions, totals;
};

class TitledScan : public CStdFileScan {
 public:
  void SetTitle(const std::wstring& title) { m_title = title.c_str(); }
};

class Recorder : public IResultsCollector {
 public:
  void AddItem(ICleanableItem* item) override {
    hits.push_back(item->GetLogEntry().GetString());
    if (onHit) onHit(hits.size(), hits.back());
  }
  std::vector<std::wstring> hits;
  std::function<void(size_t, const std::wstring&)> onHit;
};
using StackRecorder = CUnknownFoundation<Recorder, CRefCount<0>, CIUnknownOnly, CDontDelete>;

class ThreadsSetting {
 public:
  ~ThreadsSetting() {
    CListAhead::SetThreads(0);
    CListAhead::SetEntriesAhead(0);
  }
};

struct ScanSetup {
  std::vector<std::wstring> roots;
  CWhiteListTree* whiteList = nullptr;
  std::vector<CRefPtr<CBaseFileScan::IFilter>> filters;
  // on the scanning thread: the hit's number and log entry
  std::function<void(size_t hit, const std::wstring& entry, scantest::RecordingStatus&)> onHit;
};

// readLog: false when other scans write to the log at the same time
Outcome ScanWith(const ScanSetup& setup, unsigned threads, bool readLog = true) {
  static int serial = 0;
  const std::wstring title = L"list-ahead scan " + std::to_wstring(++serial);
  CListAhead::SetThreads(threads);
  CRefPtr<TitledScan> scan(new IUnknownNoQIImp<TitledScan>());
  for (const auto& root : setup.roots) scan->AddPath(CPathString(root.c_str()));
  for (const auto& filter : setup.filters) scan->AddFilter(filter);
  scan->SetTitle(title);
  scantest::RecordingProgress progress;
  scantest::RecordingStatus status;
  StackRecorder recorder;
  if (setup.onHit) recorder.onHit = [&](size_t hit, const std::wstring& entry) { setup.onHit(hit, entry, status); };
  scan->PerformScan(&recorder, &progress, &status, setup.whiteList);

  Outcome out{recorder.hits, {}, status.items, status.folders, progress.positions, progress.totals};
  if (!readLog) return out;
  // this scan's part of the shared log: its title, then a line per hit
  size_t length = title.size() + 2;
  for (const auto& hit : out.hits) length += hit.size();
  std::wstring text;
  for (int i = 0; i < 200; ++i) {
    text = scantest::ReadScanLog(0);
    size_t at = text.find(title + L"\r\n");
    if (at != std::wstring::npos && text.size() - at >= length) {
      text = text.substr(at + title.size() + 2, length - title.size() - 2);
      break;
    }
    Sleep(10);
  }
  for (size_t from = 0; from < text.size();) {
    size_t end = text.find(L"\r\n", from);
    if (end == std::wstring::npos) end = text.size();
    out.log.push_back(text.substr(from, end - from));
    from = end + 2;
  }
  return out;
}

void ExpectSame(const Outcome& alone, const Outcome& ahead) {
  EXPECT_EQ(alone.hits, ahead.hits);
  EXPECT_EQ(alone.log, ahead.log);
  EXPECT_EQ(alone.items, ahead.items);
  EXPECT_EQ(alone.folders, ahead.folders);
  EXPECT_EQ(alone.positions, ahead.positions);
  EXPECT_EQ(alone.totals, ahead.totals);
}

// A tree with a bit of everything a walk meets: many folders at several
// depths, files of several kinds and sizes, a protected folder and a
// protected deep one, a link to a folder outside, system and hidden folders.
void MakeTree(const std::wstring& root) {
  for (int a = 0; a < 12; ++a) {
    std::wstring top = root + L"\\T\\d" + std::to_wstring(a);
    for (int f = 0; f < 6; ++f) WriteFile(top + L"\\f" + std::to_wstring(f) + (f % 2 ? L".tmp" : L".log"), f * 3);
    for (int b = 0; b < a % 5; ++b) {
      std::wstring mid = top + L"\\s" + std::to_wstring(b);
      WriteFile(mid + L"\\x.tmp", b + 1);
      for (int c = 0; c < 3; ++c) WriteFile(mid + L"\\deep" + std::to_wstring(c) + L"\\y.log", c);
    }
  }
  WriteFile(root + L"\\T\\d3\\keep\\secret.tmp", 5);
  WriteFile(root + L"\\outside\\o.tmp", 7);
  WriteFile(root + L"\\T\\sys\\s.tmp", 1);
  WriteFile(root + L"\\T\\hid\\h.tmp", 1);
  WriteFile(root + L"\\T\\logs.log\\inner.log", 2);
  SetFileAttributesW((root + L"\\T\\sys").c_str(), FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_DIRECTORY);
  SetFileAttributesW((root + L"\\T\\hid").c_str(), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_DIRECTORY);
  ASSERT_TRUE(broomtest::MakeUnixSymlink(root + L"\\outside", root + L"\\T\\d5\\link"));
}

class ListAhead : public testing::Test {
 protected:
  void SetUp() override {
    scantest::UserDataFolder();
    MakeTree(m_dir.Path());
    m_whiteList.SafeGuardPath((m_dir / L"T\\d7").c_str(), 1);
    m_whiteList.SafeGuardPath((m_dir / L"T\\d3\\keep").c_str(), 1);
    m_whiteList.SafeGuardPath((m_dir / L"T\\d9\\s2\\deep1").c_str(), 1);
  }
  void TearDown() override { SetFileAttributesW((m_dir / L"T\\sys").c_str(), FILE_ATTRIBUTE_DIRECTORY); }

  ScanSetup Setup(std::vector<std::wstring> roots) {
    ScanSetup setup;
    for (auto& root : roots) setup.roots.push_back(m_dir / root);
    setup.whiteList = &m_whiteList;
    return setup;
  }

  ThreadsSetting m_restore;
  TempDir m_dir;
  int m_asides = 0;
  CWhiteListTree m_whiteList;
};

TEST_F(ListAhead, SameScanAsTheWalkAlone) {
  auto pattern = new IUnknownNoQIImp<CBaseFileScan::_FilterAcceptDOSPattern_Impl>();
  CRefPtr<CBaseFileScan::IFilter> holdPattern(pattern);
  pattern->SetPattern(L"*.tmp");
  auto small = new IUnknownNoQIImp<CBaseFileScan::_FilterRejectSmallFiles_Impl>();
  CRefPtr<CBaseFileScan::IFilter> holdSmall(small);
  small->SetSize(4);
  struct Case {
    const char* what;
    std::vector<std::wstring> roots;
    std::vector<CRefPtr<CBaseFileScan::IFilter>> filters;
  };
  const Case cases[] = {
      {"a folder root", {L"T"}, {}},
      {"a mask that also picks the folders it descends", {L"T\\*.log"}, {}},
      {"filters that reject", {L"T\\*"}, {holdPattern, holdSmall}},
      {"folder wildcards and several roots", {L"T\\d*\\s?\\*", L"T\\d1", L"T\\d2\\f1.tmp"}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ScanSetup setup = Setup(c.roots);
    setup.filters = c.filters;
    Outcome alone = ScanWith(setup, 1);
    ASSERT_FALSE(alone.hits.empty());
    for (unsigned threads : {2u, 8u}) ExpectSame(alone, ScanWith(setup, threads));
  }
}

TEST_F(ListAhead, CancelledHalfWay) {
  ScanSetup setup = Setup({L"T"});
  setup.onHit = [](size_t hit, const std::wstring&, scantest::RecordingStatus& status) {
    if (hit == 40) status.cancelled = true;
  };
  Outcome alone = ScanWith(setup, 1);
  ASSERT_EQ(alone.hits.size(), 40u);
  ExpectSame(alone, ScanWith(setup, 4));
}

// Folders that go, and one that turns into a link, after their parent was
// listed and before the walk reaches them; the pool, or the progress
// estimate (for the folder root), listed them long before. (Whoever lists a
// folder that became a link follows it, as the walk alone always did: it was
// a folder when its parent was listed.)
TEST_F(ListAhead, FoldersThatChangeBeforeTheWalkGetsThere) {
  for (const wchar_t* root : {L"T", L"T\\*"}) {
    SCOPED_TRACE(broomtest::Narrow(root));
    Outcome outcomes[2];
    const unsigned threads[2] = {1, 4};
    for (int i = 0; i < 2; ++i) {
      // the same tree again where the last was, which is kept aside
      std::wstring aside = m_dir / (L"aside" + std::to_wstring(m_asides++));
      ASSERT_TRUE(MoveFileW((m_dir / L"T").c_str(), aside.c_str()));
      MakeTree(m_dir.Path());
      ScanSetup setup = Setup({root});
      bool changed = false;
      setup.onHit = [&](size_t, const std::wstring& entry, scantest::RecordingStatus&) {
        if (changed || entry.find(L"\\T\\d8\\") == std::wstring::npos) return;
        changed = true;
        Sleep(200);  // time enough for the pool to list the whole tree
        for (int d = 0; d < 12; ++d)
          if (d != 8) RemoveTree(m_dir / (L"T\\d" + std::to_wstring(d)));
        RemoveTree(m_dir / L"T\\d8\\s1");
        ASSERT_TRUE(broomtest::MakeUnixSymlink(m_dir / L"outside", m_dir / L"T\\d8\\s1"));
      };
      outcomes[i] = ScanWith(setup, threads[i]);
      EXPECT_TRUE(changed);
    }
    ExpectSame(outcomes[0], outcomes[1]);
  }
}

TEST_F(ListAhead, HeldEntriesStayBelowTheLimitAndProtectedFoldersAreNeverListed) {
  // a protected folder of many files, early in the walk
  for (int i = 0; i < 500; ++i) WriteFile(m_dir / (L"T\\d0\\big\\f" + std::to_wstring(i)), 1);
  m_whiteList.SafeGuardPath((m_dir / L"T\\d0\\big").c_str(), 1);
  ScanSetup setup = Setup({L"T\\*"});  // nothing listed before the walk
  Outcome alone = ScanWith(setup, 1);
  setup.onHit = [](size_t, const std::wstring&, scantest::RecordingStatus&) { Sleep(2); };  // a slow walk: the pool runs ahead
  for (size_t limit : {size_t{30}, size_t{290}}) {
    SCOPED_TRACE(limit);
    CListAhead::SetEntriesAhead(limit);
    CListAhead::TakePeakEntriesAhead();
    ExpectSame(alone, ScanWith(setup, 4));
    // at most one folder's listing (here at most 10 entries) per thread beyond the limit
    EXPECT_LE(CListAhead::TakePeakEntriesAhead(), limit + 4 * 10);
  }
}

TEST_F(ListAhead, ScansOnSeveralThreadsShareThePool) {
  std::vector<ScanSetup> setups = {Setup({L"T"}), Setup({L"T\\*.log"}), Setup({L"T\\d*\\s?\\*"}), Setup({L"T\\d4"})};
  std::vector<Outcome> alone;
  for (const auto& setup : setups) alone.push_back(ScanWith(setup, 1));
  CListAhead::SetThreads(3);
  std::vector<Outcome> together(setups.size());
  std::vector<std::thread> threads;
  for (size_t i = 0; i < setups.size(); ++i)
    threads.emplace_back([&, i] {
      for (int round = 0; round < 3; ++round) together[i] = ScanWith(setups[i], 3, false);
    });
  for (auto& thread : threads) thread.join();
  for (size_t i = 0; i < setups.size(); ++i) {
    EXPECT_EQ(alone[i].hits, together[i].hits);
    EXPECT_EQ(alone[i].items, together[i].items);
  }
}

TEST(ListAheadSetting, ThreadsAreClamped) {
  ThreadsSetting restore;
  const std::pair<unsigned, unsigned> cases[] = {{0, CListAhead::DefaultThreads()}, {1, 1}, {5, 5}, {100, 8}};
  for (const auto& c : cases) {
    CListAhead::SetThreads(c.first);
    EXPECT_EQ(CListAhead::GetThreads(), c.second) << c.first;
  }
  EXPECT_GE(CListAhead::DefaultThreads(), 1u);
  EXPECT_LE(CListAhead::DefaultThreads(), unsigned{CListAhead::kMaxThreads});
}

}  // namespace
