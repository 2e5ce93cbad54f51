#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "clean/CleanItems.h"
#include "clean/CleanableFile.h"
#include "clean/FileSystemOps.h"
#include "common/HandleCount.h"
#include "common/TestFiles.h"
#include "core/Handles.h"
#include "core/RefCounting.h"
#include "threads/MsgThreadSTA.h"

using broomtest::Exists;
using broomtest::TempDir;
using broomtest::WriteFile;

namespace {

WIN32_FIND_DATAW Find(const std::wstring& path) {
  WIN32_FIND_DATAW data = {};
  HANDLE h = FindFirstFileW(path.c_str(), &data);
  EXPECT_NE(h, INVALID_HANDLE_VALUE) << broomtest::Narrow(path);
  if (h != INVALID_HANDLE_VALUE) FindClose(h);
  return data;
}

template <class Item>
CRefPtr<Item> MakeItem(const std::wstring& folder, const std::wstring& name) {
  CRefPtr<Item> item(new IUnknownNoQIImp<Item>());
  item->Init(CPathString(folder.c_str()), Find(folder + L"\\" + name));
  return item;
}

struct CountingProgress : IOperationProgressNotify {
  void SetTotal(int total) override { totals.push_back(total); }
  void Finish() override { ++finished; }
  void SetPosition(int) override {}
  std::vector<int> totals;
  int finished = 0;
};

class CleanableFile : public testing::Test {
 protected:
  // The STA thread that runs the shell operations lives for the process.
  void SetUp() override {
    broomtest::AllowHandleGrowth();
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  }
  void TearDown() override { CoUninitialize(); }
  TempDir m_dir;
};

TEST_F(CleanableFile, TextsOfAnItem) {
  WriteFile(m_dir / L"t\\a.tmp", 1536);
  auto item = MakeItem<CCleanableFile>(m_dir / L"t", L"a.tmp");
  EXPECT_EQ(item->GetSize(), 1536u);
  EXPECT_STREQ(item->GetLogEntry().GetString(), (L"File: " + (m_dir / L"t\\a.tmp") + L"\t\tSize: 1536\r\n").c_str());
  EXPECT_STREQ(item->GetName().GetString(), L"a.tmp");
  EXPECT_STREQ(item->GetDetails().GetString(), (m_dir / L"t").c_str());
  EXPECT_FALSE(item->IsDirectory());
  EXPECT_TRUE(item->Exists());
  CRefPtr<CCleanableFile> empty(new IUnknownNoQIImp<CCleanableFile>());
  EXPECT_FALSE(empty->Exists());
  EXPECT_EQ(empty->GetSize(), 0u);
}

TEST_F(CleanableFile, FolderItemCountsItsTree) {
  WriteFile(m_dir / L"t\\sub\\a", 100);
  WriteFile(m_dir / L"t\\sub\\deep\\b", 23);
  auto item = MakeItem<CCleanableFile>(m_dir / L"t", L"sub");
  EXPECT_TRUE(item->IsDirectory());
  EXPECT_EQ(item->GetSize(), 123u);
  EXPECT_STREQ(item->GetName().GetString(), L"sub");
  EXPECT_EQ(item->Clean(nullptr, nullptr), 0u);
  EXPECT_FALSE(Exists(m_dir / L"t\\sub"));
  EXPECT_TRUE(Exists(m_dir / L"t"));
}

TEST_F(CleanableFile, InitRefusesPathsPastTheLimit) {
  CPathString folder((m_dir.Path() + L"\\" + std::wstring(200, L'f')).c_str());
  WIN32_FIND_DATAW entry = {};
  wcscpy(entry.cFileName, std::wstring(100, L'n').c_str());
  CRefPtr<CCleanableFile> item(new IUnknownNoQIImp<CCleanableFile>());
  EXPECT_THROW(item->Init(folder, entry), BufferOverflowException);
}

TEST_F(CleanableFile, CleanDeletesReadOnlyHiddenAndSystemFiles) {
  const DWORD kinds[] = {FILE_ATTRIBUTE_READONLY, FILE_ATTRIBUTE_HIDDEN, FILE_ATTRIBUTE_SYSTEM};
  for (DWORD attrs : kinds) {
    std::wstring path = WriteFile(m_dir / L"f.bin", 10);
    ASSERT_TRUE(SetFileAttributesW(path.c_str(), attrs));
    auto item = MakeItem<CCleanableFile>(m_dir.Path(), L"f.bin");
    CountingProgress progress;
    EXPECT_EQ(item->Clean(&progress, nullptr), 0u) << attrs;
    EXPECT_FALSE(item->Exists()) << attrs;
    EXPECT_EQ(progress.totals, std::vector<int>{1});
    EXPECT_EQ(progress.finished, 1);
    EXPECT_EQ(item->GetSize(), 10u);  // the item keeps what the scan found
  }
}

TEST_F(CleanableFile, FailedShellDeleteWithoutServerGivesClassNotRegistered) {
  WriteFile(m_dir / L"gone.txt", 5);
  auto item = MakeItem<CCleanableFile>(m_dir.Path(), L"gone.txt");
  ASSERT_TRUE(DeleteFileW((m_dir / L"gone.txt").c_str()));
  EXPECT_EQ(item->Clean(nullptr, nullptr), 0x88040154u);
  EXPECT_EQ(CCleanableFile::ServerCreationCode(static_cast<HRESULT>(0xE0070005)), 0x88070005u);
}

TEST_F(CleanableFile, TruncationEmptiesButKeepsTheFile) {
  std::wstring hidden = WriteFile(m_dir / L"h.log", 4096);
  ASSERT_TRUE(SetFileAttributesW(hidden.c_str(), FILE_ATTRIBUTE_HIDDEN));
  auto item = MakeItem<CCleanableFile_trunc>(m_dir.Path(), L"h.log");
  EXPECT_EQ(item->Clean(nullptr, nullptr), 0u);
  EXPECT_TRUE(Exists(hidden));
  EXPECT_EQ(broomtest::ReadFile(hidden).size(), 0u);
  EXPECT_TRUE(GetFileAttributesW(hidden.c_str()) & FILE_ATTRIBUTE_HIDDEN);

  // a file another program holds without sharing cannot be emptied
  std::wstring busy = WriteFile(m_dir / L"busy.log", "keep me");
  auto busyItem = MakeItem<CCleanableFile_trunc>(m_dir.Path(), L"busy.log");
  {
    broom::unique_hfile holder(
        CreateFileW(busy.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    ASSERT_TRUE(holder);
    EXPECT_EQ(busyItem->Clean(nullptr, nullptr), 0x88004005u);
  }
  EXPECT_EQ(broomtest::ReadFile(busy), "keep me");
}

TEST_F(CleanableFile, TruncationLeavesReadOnlyFilesAlone) {
  std::wstring readOnly = WriteFile(m_dir / L"r.log", "keep me");
  ASSERT_TRUE(SetFileAttributesW(readOnly.c_str(), FILE_ATTRIBUTE_READONLY));
  {
    broom::unique_hfile probe(
        CreateFileW(readOnly.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    if (probe) {
      SetFileAttributesW(readOnly.c_str(), FILE_ATTRIBUTE_NORMAL);
      GTEST_SKIP() << "this system does not enforce the read-only attribute (Wine run as root)";
    }
  }
  auto locked = MakeItem<CCleanableFile_trunc>(m_dir.Path(), L"r.log");
  EXPECT_EQ(locked->Clean(nullptr, nullptr), 0x88004005u);
  SetFileAttributesW(readOnly.c_str(), FILE_ATTRIBUTE_NORMAL);
  EXPECT_EQ(broomtest::ReadFile(readOnly), "keep me");
}

TEST_F(CleanableFile, MoveProposesFreeNamesOnCollision) {
  WriteFile(m_dir / L"src\\a.txt", "moving");
  WriteFile(m_dir / L"dst\\a.txt", "old");
  auto item = MakeItem<CCleanableFile>(m_dir / L"src", L"a.txt");
  CPathString proposal;
  EXPECT_EQ(item->Move(CString((m_dir / L"dst\\a.txt").c_str()), nullptr, nullptr, false, proposal), 0x80640001u);
  EXPECT_STREQ(proposal.c_str(), (m_dir / L"dst\\a (1).txt").c_str());
  EXPECT_TRUE(Exists(m_dir / L"src\\a.txt"));
  EXPECT_EQ(broomtest::ReadFile(m_dir / L"dst\\a.txt"), "old");

  WriteFile(m_dir / L"dst\\a (1).txt", "taken");
  EXPECT_EQ(item->Move(CString((m_dir / L"dst\\a.txt").c_str()), nullptr, nullptr, false, proposal), 0x80640001u);
  EXPECT_STREQ(proposal.c_str(), (m_dir / L"dst\\a (2).txt").c_str());

  EXPECT_EQ(item->Move(CString(proposal.c_str()), nullptr, nullptr, false, proposal), 0u);
  EXPECT_EQ(broomtest::ReadFile(m_dir / L"dst\\a (2).txt"), "moving");
  EXPECT_FALSE(Exists(m_dir / L"src\\a.txt"));
  EXPECT_STREQ(item->GetPath().c_str(), (m_dir / L"src\\a.txt").c_str());  // the item is not updated
}

TEST_F(CleanableFile, CleaningFromManyThreadsLosesNoResult) {
  constexpr int kThreads = 4, kPerThread = 25;
  std::vector<CRefPtr<CCleanableFile>> items;
  for (int i = 0; i < kThreads * kPerThread; ++i) {
    std::wstring name = L"f" + std::to_wstring(i) + L".tmp";
    WriteFile(m_dir / name, static_cast<size_t>(i + 1));
    items.push_back(MakeItem<CCleanableFile>(m_dir.Path(), name));
  }
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i)
        if (items[t * kPerThread + i]->Clean(nullptr, nullptr) != 0) ++failures;
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
  for (auto& item : items) EXPECT_FALSE(item->Exists());
}

TEST_F(CleanableFile, CleanRacingShutdownNeverReportsAFileThatStaysAsDone) {
  // A request for a router that is gone never ran: it must not read as done.
  std::wstring kept = WriteFile(m_dir / L"kept.tmp", 3);
  {
    CRefPtr<CMsgThreadSTA> sta = CXmlConfigGlobal::AcquireSTAMsgThread();
    CXmlConfigGlobal::Shutdown();
    EXPECT_NE(CFileSystemOps::ShellDelete(sta.Get(), CPathString(kept.c_str())), 0);
    EXPECT_TRUE(Exists(kept));
  }

  // Cleaning on one thread while another shuts the STA thread down again and
  // again: every item either is gone and says 0, or stays and says why.
  constexpr int kItems = 200;
  std::vector<CRefPtr<CCleanableFile>> items;
  for (int i = 0; i < kItems; ++i) {
    std::wstring name = L"r" + std::to_wstring(i) + L".tmp";
    WriteFile(m_dir / name, 1);
    items.push_back(MakeItem<CCleanableFile>(m_dir.Path(), name));
  }
  std::vector<DWORD> results(kItems, 0xFFFFFFFF);
  std::atomic<bool> done{false};
  std::thread cleaner([&] {
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    for (int i = 0; i < kItems; ++i) results[i] = items[i]->Clean(nullptr, nullptr);
    CoUninitialize();
    done = true;
  });
  while (!done) {
    CXmlConfigGlobal::Shutdown();
    Sleep(1);
  }
  cleaner.join();
  int cleaned = 0;
  for (int i = 0; i < kItems; ++i) {
    EXPECT_EQ(results[i] == 0, !items[i]->Exists()) << "item " << i << " result " << std::hex << results[i];
    cleaned += results[i] == 0;
  }
  EXPECT_GT(cleaned, 0);
}

TEST_F(CleanableFile, CleanItemsGivesEveryItemWhatItsOwnCleanWould) {
  // Runs longer than one trip to the STA thread, with items that are not
  // shell deletes in between, and failures that must keep their own codes.
  std::vector<CRefPtr<CCleanableFile>> items;
  std::vector<DWORD> expected;
  std::vector<std::wstring> gone, kept;
  for (int i = 0; i < 2 * static_cast<int>(kCleanRun) + 7; ++i) {
    std::wstring name = L"n" + std::to_wstring(i) + L".tmp";
    WriteFile(m_dir / name, 1);
    items.push_back(MakeItem<CCleanableFile>(m_dir.Path(), name));
    expected.push_back(0);
    gone.push_back(m_dir / name);
  }
  SetFileAttributesW(gone[3].c_str(), FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN);
  WriteFile(m_dir / L"sub\\inner.tmp", 5);
  items.insert(items.begin() + 10, MakeItem<CCleanableFile>(m_dir.Path(), L"sub"));
  expected.insert(expected.begin() + 10, 0);
  gone.push_back(m_dir / L"sub");
  WriteFile(m_dir / L"t.log", 9);
  items.insert(items.begin() + 200, MakeItem<CCleanableFile_trunc>(m_dir.Path(), L"t.log"));
  expected.insert(expected.begin() + 200, 0);
  // a file deleted behind the scan's back: the shell fails, the server is not there
  WriteFile(m_dir / L"vanished.tmp", 1);
  items.push_back(MakeItem<CCleanableFile>(m_dir.Path(), L"vanished.tmp"));
  DeleteFileW((m_dir / L"vanished.tmp").c_str());
  expected.push_back(CCleanableFile::ServerCreationCode(REGDB_E_CLASSNOTREG));

  std::vector<ICleanableItem*> raw;
  for (auto& item : items) raw.push_back(item.Get());
  std::vector<DWORD> results(raw.size(), 0xFFFFFFFF);
  CleanItems(raw.data(), raw.size(), results.data());
  EXPECT_EQ(results, expected);
  for (const auto& path : gone) EXPECT_FALSE(Exists(path)) << broomtest::Narrow(path);
  EXPECT_EQ(broomtest::ReadFile(m_dir / L"t.log"), "");
}

}  // namespace
