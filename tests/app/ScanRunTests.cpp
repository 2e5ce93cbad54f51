// Items scanned side by side on host threads against the same items one
// after the other: the same items, hits, order, totals and scan log, and a
// file found by two items counted once, for the first.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/ScanRun.h"
#include "app/Session.h"
#include "common/TestFiles.h"
#include "scan/ListAhead.h"

using broomtest::ReadFile;
using broomtest::WriteFile;

namespace {

std::string Utf8(const std::wstring& text) { return broomtest::Narrow(text); }

struct Outcome {
  std::vector<std::wstring> items, hits;
  std::vector<unsigned __int64> files, sizes;
  unsigned __int64 allFiles = 0, allSize = 0;
  bool cancelled = false;
};

// The logs folder is fixed at its first use: one data folder for the program.
const std::wstring& LocalAppData() {
  static broomtest::TempDir folder;
  return folder.Path();
}

Outcome Summary(const host::SScanResults& results) {
  Outcome out;
  for (const auto& item : results.items) {
    out.items.push_back(item.item.path);
    out.files.push_back(item.files);
    out.sizes.push_back(item.size);
    for (const auto& hit : item.hits) out.hits.push_back(item.item.path + L": " + hit.path);
  }
  out.allFiles = results.files;
  out.allSize = results.size;
  out.cancelled = results.cancelled;
  return out;
}

class ScanRun : public testing::Test {
 protected:
  void SetUp() override {
    const std::wstring tree = m_dir / L"tree";
    for (int d = 0; d < 6; ++d)
      for (int f = 0; f < 40; ++f)
        WriteFile(tree + L"\\d" + std::to_wstring(d) + L"\\s\\f" + std::to_wstring(f) + (f % 3 ? L".tmp" : L".log"),
                  static_cast<size_t>(d * 40 + f));
    // items that overlap: d1 again below "All", d2's *.tmp again after d2
    std::string xml = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<ConfigItems>\n<group name=\"G\" scan=\"yes\" clean=\"no\">\n";
    auto item = [&](const std::string& name, const std::wstring& path) {
      xml += "<item name=\"" + name + "\" desc=\"d\"><clean kind=\"file\">" + Utf8(path) + "</clean></item>\n";
    };
    for (int d = 0; d < 6; ++d) item("D" + std::to_string(d), tree + L"\\d" + std::to_wstring(d));
    item("All", tree);
    item("Tmp of d2", tree + L"\\d2\\s\\*.tmp");
    xml += "</group>\n</ConfigItems>\n";
    WriteFile(m_dir / L"defs\\items.xml", xml);
    SetEnvironmentVariableW(L"LOCALAPPDATA", LocalAppData().c_str());
    m_session.Start(false);
    m_session.LoadDefinitions({m_dir / L"defs"});
    m_items = m_session.AllItems();
    ASSERT_EQ(m_items.size(), 8u);
  }
  void TearDown() override {
    CListAhead::SetThreads(0);
    host::ResetCancel();
  }

  Outcome Scan(unsigned threads, host::EKeep keep, unsigned long cancelAfter = 0) {
    host::ResetCancel();
    host::SScanOptions options;
    options.keep = keep;
    options.itemThreads = threads;
    options.cancelAfterFiles = cancelAfter;
    return Summary(m_session.Scan(m_items, options));
  }

  // The scan log's text once it has stopped growing.
  std::wstring Log() {
    std::string bytes, last;
    for (int i = 0; i < 100; ++i) {
      Sleep(50);
      bytes = ReadFile(LocalAppData() + L"\\Broom\\Logs\\scan1.log");
      if (bytes == last && !bytes.empty()) break;
      last = bytes;
    }
    return std::wstring(reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / 2);
  }

  broomtest::TempDir m_dir;
  host::CSession m_session;
  std::vector<host::SItem> m_items;
};

TEST_F(ScanRun, ItemsSideBySideGiveWhatTheyGiveInTurn) {
  for (host::EKeep keep : {host::keepTotals, host::keepPaths, host::keepItems}) {
    SCOPED_TRACE(static_cast<int>(keep));
    Outcome inTurn = Scan(1, keep);
    EXPECT_EQ(inTurn.allFiles, 240u);  // "All" and "Tmp of d2" find only files found before
    EXPECT_EQ(inTurn.files[6], 0u);
    EXPECT_EQ(inTurn.files[7], 0u);
    for (unsigned threads : {2u, 4u}) {
      Outcome sideBySide = Scan(threads, keep);
      EXPECT_EQ(inTurn.items, sideBySide.items);
      EXPECT_EQ(inTurn.hits, sideBySide.hits);
      EXPECT_EQ(inTurn.files, sideBySide.files);
      EXPECT_EQ(inTurn.sizes, sideBySide.sizes);
      EXPECT_EQ(inTurn.allFiles, sideBySide.allFiles);
      EXPECT_EQ(inTurn.allSize, sideBySide.allSize);
    }
  }
}

TEST_F(ScanRun, TheScanLogIsWrittenInTheItemsOrder) {
  // each scan in a session of its own, whose end closes the log
  std::wstring logs[2];
  for (unsigned threads : {1u, 4u}) {
    {
      host::CSession session;
      session.Start(false);
      session.LoadDefinitions({m_dir / L"defs"});
      session.BeginScanLog(L"test");
      host::SScanOptions options;
      options.itemThreads = threads;
      session.Scan(session.AllItems(), options);
    }
    const std::wstring text = Log();
    logs[threads > 1] = text.substr(text.find(L"\r\n"));  // past the heading and its time
  }
  EXPECT_GT(logs[0].size(), 240u * 20);
  EXPECT_TRUE(logs[0] == logs[1]) << "the log of the items side by side differs";
}

TEST_F(ScanRun, CancelledSideBySideKeepsTheItemsBegunInOrder) {
  Outcome cancelled = Scan(4, host::keepPaths, 30);
  EXPECT_TRUE(cancelled.cancelled);
  ASSERT_FALSE(cancelled.items.empty());
  EXPECT_LT(cancelled.allFiles, 240u);
  for (size_t i = 0; i < cancelled.items.size(); ++i) EXPECT_EQ(cancelled.items[i], m_items[i].path);
}

// What a host shows while items run side by side: every item in hand, in
// the items' order, each told once it begins and dropped once it is done.
TEST_F(ScanRun, TheObserverIsToldEveryItemInHandInOrder) {
  struct SRecorder : host::IScanObserver {
    std::vector<std::vector<std::wstring>> told;
    std::vector<std::wstring> begun;
    void OnItem(const std::wstring& item, size_t, size_t) override { begun.push_back(item); }
    void OnProgress(int, int) override {}
    void OnFolder(const std::wstring&) override {}
    void OnHits(unsigned __int64, unsigned __int64) override {}
    void OnItemsInProgress(const std::vector<std::wstring>& items) override { told.push_back(items); }
  };
  std::vector<std::wstring> order;
  for (const host::SItem& item : m_items) order.push_back(item.path);
  for (unsigned threads : {1u, 4u}) {
    SCOPED_TRACE(threads);
    host::ResetCancel();
    SRecorder recorder;
    host::SScanOptions options;
    options.itemThreads = threads;
    options.observer = &recorder;
    m_session.Scan(m_items, options);
    EXPECT_EQ(order, recorder.begun);
    if (threads == 1) {
      EXPECT_TRUE(recorder.told.empty());  // one item at a time: OnItem says it all
      continue;
    }
    ASSERT_FALSE(recorder.told.empty());
    EXPECT_TRUE(recorder.told.back().empty());  // none in hand once the scan ends
    for (const auto& inHand : recorder.told) {
      // a subsequence of the items, as they stand in the list
      size_t at = 0;
      for (const std::wstring& item : inHand) {
        while (at < order.size() && order[at] != item) ++at;
        EXPECT_LT(at, order.size()) << broomtest::Narrow(item) << " out of order or unknown";
        ++at;
      }
    }
  }
}


// Two items naming one folder in letters of another case, beyond ASCII too
// (winapp2 text is UTF-8): its files count once, for the first item,
// however the hits are kept.
TEST(ScanRunCase, AFileNamedInAnotherCaseCountsOnce) {
  broomtest::TempDir dir;
  for (const wchar_t* name : {L"a.tmp", L"\u00c9t\u00e9.tmp", L"b.TMP"})
    WriteFile(dir / (std::wstring(L"\u00d1and\u00fa\\") + name), 10);
  WriteFile(dir / L"Winapp2.ini", "[Nandu One *]\r\nFileKey1=" + Utf8(dir / L"\u00d1and\u00fa") +
                                      "|*.*\r\n\r\n[Nandu Two *]\r\nFileKey1=" + Utf8(dir / L"\u00f1AND\u00da") +
                                      "|*.*\r\n");
  SetEnvironmentVariableW(L"LOCALAPPDATA", LocalAppData().c_str());
  host::CSession session;
  session.Start(false);
  session.LoadWinapp2Files({dir / L"Winapp2.ini"});
  std::vector<host::SItem> items = session.AllItems();
  ASSERT_EQ(items.size(), 2u);
  for (host::EKeep keep : {host::keepTotals, host::keepPaths})
    for (unsigned threads : {1u, 2u}) {
      SCOPED_TRACE(testing::Message() << "keep " << keep << ", threads " << threads);
      host::ResetCancel();
      host::SScanOptions options;
      options.keep = keep;
      options.itemThreads = threads;
      Outcome out = Summary(session.Scan(items, options));
      EXPECT_EQ(3u, out.allFiles);
      EXPECT_EQ((std::vector<unsigned __int64>{3, 0}), out.files);
    }
}

}  // namespace
