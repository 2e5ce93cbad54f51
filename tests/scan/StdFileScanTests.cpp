#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "clean/CleanableFile.h"
#include "clean/CleanableFolder.h"
#include "core/Handles.h"
#include "common/HandleCount.h"
#include "common/ScanNotifiers.h"
#include "scan/StdFileScan.h"
#include "tests/scan/ScanTestSupport.h"

using broomtest::WriteFile;

namespace {

using broomtest::StackCollector;

class StdFileScan : public testing::Test {
 protected:
  void SetUp() override { scantest::UserDataFolder(); }

  template <class Op>
  CRefPtr<Op> MakeScan(const std::wstring& root) {
    CRefPtr<Op> op(new IUnknownNoQIImp<Op>());
    op->AddPath(CPathString(root.c_str()));
    return op;
  }

  broomtest::TempDir m_dir;
  scantest::RecordingProgress m_progress;
  scantest::RecordingStatus m_status;
  CWhiteListTree m_whiteList;
};

TEST_F(StdFileScan, DeleteScanReportsEveryFileTruncScanSkipsEmptyOnes) {
  WriteFile(m_dir / L"T\\a", 10);
  WriteFile(m_dir / L"T\\b", 0);
  StackCollector all;
  auto scan = MakeScan<CStdFileScan>(m_dir / L"T\\*");
  EXPECT_TRUE(scan->ReportsProgress());
  scan->PerformScan(&all, &m_progress, &m_status, &m_whiteList);
  ASSERT_EQ(all.items.size(), 2u);

  StackCollector nonEmpty;
  auto trunc = MakeScan<CStdFileScan_trunc>(m_dir / L"T\\*");
  EXPECT_TRUE(trunc->ReportsProgress());
  trunc->PerformScan(&nonEmpty, &m_progress, &m_status, &m_whiteList);
  ASSERT_EQ(nonEmpty.items.size(), 1u);
  EXPECT_STREQ(nonEmpty.items[0]->GetName().GetString(), L"a");
  EXPECT_EQ(nonEmpty.items[0]->GetSize(), 10u);

  // the scans keep no reference on the collectors
  EXPECT_EQ(all.AddRef(), 1u);
  all.Release();
  EXPECT_EQ(nonEmpty.AddRef(), 1u);
  nonEmpty.Release();
}

TEST_F(StdFileScan, EveryReportedItemIsLoggedInOrder) {
  WriteFile(m_dir / L"L\\one.tmp", 1);
  WriteFile(m_dir / L"L\\two.tmp", 2);
  WriteFile(m_dir / L"L\\sub\\three.tmp", 3);
  StackCollector collector;
  auto scan = MakeScan<CStdFileScan>(m_dir / L"L");
  scan->PerformScan(&collector, &m_progress, &m_status, &m_whiteList);
  ASSERT_EQ(collector.items.size(), 3u);
  std::wstring expected;
  for (auto& item : collector.items) expected += item->GetLogEntry().GetString();
  // other scans of this program wrote to the same log before
  std::wstring text = scantest::ReadScanLog(expected.size());
  for (int i = 0; i < 200 && text.find(expected) == std::wstring::npos; ++i) {
    Sleep(10);
    text = scantest::ReadScanLog(expected.size());
  }
  EXPECT_NE(text.find(expected), std::wstring::npos);
}

TEST_F(StdFileScan, ItemsPastThePathLimitNeverReachTheCollector) {
  std::wstring folder = m_dir / L"P";
  WriteFile(folder + L"\\ok.txt", 1);
  std::wstring tooLong = L"\\\\?\\" + folder + L"\\" + std::wstring(250, L'x');
  WriteFile(tooLong, 1);
  WriteFile(folder + L"\\zz.txt", 1);
  StackCollector collector;
  auto scan = MakeScan<CStdFileScan>(folder + L"\\*");
  scan->PerformScan(&collector, &m_progress, &m_status, &m_whiteList);
  std::vector<std::wstring> names;
  for (auto& item : collector.items) names.push_back(item->GetName().GetString());
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::wstring>{L"ok.txt", L"zz.txt"}));
  DeleteFileW(tooLong.c_str());
}

TEST_F(StdFileScan, MissingNotifierRaisesAndTheCollectorIsKeptUntilNextRun) {
  StackCollector collector;
  auto scan = MakeScan<CStdFileScan>(m_dir / L"none\\*");
  EXPECT_THROW(scan->PerformScan(&collector, nullptr, &m_status, &m_whiteList), CAtlException);
  EXPECT_EQ(collector.AddRef(), 2u);
  collector.Release();
  scan->PerformScan(&collector, &m_progress, &m_status, &m_whiteList);
  EXPECT_EQ(collector.AddRef(), 1u);
  collector.Release();
}


// Last written hours ago: a file, or a folder (after what was made in it).
void Age(const std::wstring& path, unsigned hours) {
  broom::unique_hfile h(CreateFileW(path.c_str(), FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  ASSERT_TRUE(h);
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  ULARGE_INTEGER t{{now.dwLowDateTime, now.dwHighDateTime}};
  t.QuadPart -= static_cast<unsigned __int64>(hours) * 3600 * 10000000ull;
  FILETIME then{t.LowPart, t.HighPart};
  ASSERT_TRUE(SetFileTime(h.get(), nullptr, &then, &then));
}

TEST_F(StdFileScan, TemporaryFilesOfADayAgoGoWithTheSubfoldersTheyLeaveEmpty) {
  // The bundled temporary-file rule: older than 24 hours, emptied subfolders removed.
  const std::wstring root = m_dir / L"Tmp";
  const std::pair<const wchar_t*, unsigned> files[] = {
      {L"old.txt", 48},          {L"new.txt", 1},          {L"mixed\\old.txt", 48}, {L"mixed\\new.txt", 1},
      {L"gone\\a.txt", 48},      {L"deep\\inner\\b.txt", 48}};
  for (const auto& [name, hours] : files) {
    WriteFile(root + L"\\" + name, 3);
    Age(root + L"\\" + name, hours);
  }
  CreateDirectoryW((root + L"\\fresh").c_str(), nullptr);  // made an hour ago, empty: an installer's
  CreateDirectoryW((root + L"\\stale").c_str(), nullptr);
  const std::pair<const wchar_t*, unsigned> folders[] = {
      {L"mixed", 48}, {L"gone", 48}, {L"deep\\inner", 48}, {L"deep", 48}, {L"fresh", 1}, {L"stale", 48}, {L"", 48}};
  for (const auto& [name, hours] : folders) Age(root + L"\\" + name, hours);

  auto scan = MakeScan<CStdFileScan>(root + L"\\*");
  auto* age = new IUnknownNoQIImp<CBaseFileScan::_FilterRejectRecentFiles_Impl>();
  CRefPtr<CBaseFileScan::IFilter> hold(age);
  age->SetAgeHours(24, false);
  scan->AddFilter(age);
  scan->SetRemoveEmptied(true);
  StackCollector collector;
  scan->PerformScan(&collector, &m_progress, &m_status, &m_whiteList);
  std::vector<std::wstring> folderNames;
  for (auto& item : collector.items) {
    if (dynamic_cast<CCleanableEmptyFolder*>(item.Get())) folderNames.push_back(item->GetName().GetString());
    EXPECT_EQ(item->Clean(&m_progress, &m_status), 0u) << item->GetName().GetString();
  }
  // deepest first, each after what it holds; never the temporary folder itself
  EXPECT_EQ(folderNames.size(), 4u);
  const std::pair<const wchar_t*, bool> stays[] = {
      {L"", true},           {L"new.txt", true},      {L"mixed\\new.txt", true}, {L"fresh", true},
      {L"old.txt", false},   {L"mixed\\old.txt", false}, {L"gone", false},     {L"deep", false},
      {L"stale", false}};
  for (const auto& [name, kept] : stays)
    EXPECT_EQ(GetFileAttributesW((root + L"\\" + name).c_str()) != INVALID_FILE_ATTRIBUTES, kept) << name;
}

}  // namespace
