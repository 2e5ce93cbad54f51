#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "common/TestFiles.h"
#include "whitelist/WhiteListTree.h"

namespace {

std::vector<std::wstring> Saved(const CWhiteListTree& tree, unsigned long mask) {
  std::vector<std::wstring> out;
  CRefPtr<IConstTArray<CString>> array = tree.SaveToArray(mask);
  for (const auto& s : array->GetArray()) out.push_back(s.GetString());
  return out;
}

TEST(WhiteListTree, FlagsCoverEverythingBelowAndStopAtBitOne) {
  CWhiteListTree tree;
  tree.SafeGuardPath(L"c:\\data\\", 0x1);
  EXPECT_EQ(tree.CheckProtection(L"C:\\DATA\\SUB\\X.DLL"), 1u);
  EXPECT_EQ(tree.CheckProtection(L"C:\\OTHER"), 0u);

  tree.SafeGuardPath(L"C:\\A", 0x2);
  tree.SafeGuardPath(L"C:\\A\\B", 0x4);
  EXPECT_EQ(tree.CheckProtection(L"C:\\A\\B\\C"), 0x6u);
  tree.SafeGuardPath(L"C:\\A", 0x1);
  EXPECT_EQ(tree.CheckProtection(L"C:\\A\\B\\C"), 0x3u);  // the walk stops at A

  tree.SafeGuardPath(L"C:\\X\\Y", 0x1);
  EXPECT_EQ(tree.CheckProtection(L"C:\\X"), 0u);  // nodes made on the way carry nothing
}

TEST(WhiteListTree, SiblingsAreOrderedByUpperCaseCodeUnits) {
  CWhiteListTree tree;
  tree.SafeGuardPath(L"C:\\_x", 1);
  tree.SafeGuardPath(L"C:\\b", 1);
  tree.SafeGuardPath(L"C:\\a", 1);
  EXPECT_EQ(Saved(tree, 1), (std::vector<std::wstring>{L"C:\\A", L"C:\\B", L"C:\\_X"}));
}

TEST(WhiteListTree, RemovingPrunesNodesThatKeepNothing) {
  CWhiteListTree tree;
  tree.SafeGuardPath(L"C:\\X\\Y", 0x1);
  tree.SafeGuardPath(L"C:\\K", 0x8);
  tree.RemovePath(L"C:\\X\\Y", 0x1);
  EXPECT_EQ(Saved(tree, 0), (std::vector<std::wstring>{L"C:", L"C:\\K"}));
  tree.RemovePath(L"C:\\K", 0);  // only bit 8: removed like flags 0
  EXPECT_TRUE(tree.empty());

  tree.SafeGuardPath(L"D:\\P", 0x1);
  tree.SafeGuardPath(L"D:\\P\\Q", 0x1);
  tree.RemovePath(L"D:\\P", 0x1);  // has a child: only the bits go
  EXPECT_EQ(Saved(tree, 0), (std::vector<std::wstring>{L"D:", L"D:\\P", L"D:\\P\\Q"}));
  EXPECT_EQ(tree.CheckProtection(L"D:\\P"), 0u);
  tree.RemovePath(L"D:\\NOT\\THERE", 0x1);  // nothing happens
  tree.SafeGuardPath(L"E:\\Two", 0x2);
  tree.RemovePath(L"E:\\Two", 0x1);
  EXPECT_EQ(tree.CheckProtection(L"E:\\TWO"), 0x2u);
}

TEST(WhiteListTree, BadPathsRaiseAndChangeNothing) {
  CWhiteListTree tree;
  tree.SafeGuardPath(L"C:\\keep", 1);
  EXPECT_THROW(tree.SafeGuardPath(L"", 1), PositionOutOfStringException);
  EXPECT_THROW(tree.SafeGuardPath(L"\\", 1), PositionOutOfStringException);
  EXPECT_THROW(tree.SafeGuardPath(L"C:\\DIR\\\\", 1), PositionOutOfStringException);
  EXPECT_THROW(tree.CheckProtection(L""), PositionOutOfStringException);
  std::wstring tooLong(261, L'x');
  EXPECT_THROW(tree.SafeGuardPath(tooLong.c_str(), 1), BufferOverflowException);
  unsigned long flags = 0;
  EXPECT_THROW(tree.GetFolder(L"", flags), PositionOutOfStringException);
  EXPECT_EQ(Saved(tree, 0), (std::vector<std::wstring>{L"C:", L"C:\\KEEP"}));
}

TEST(WhiteListTree, UncPathsAndNonAsciiLetters) {
  CWhiteListTree tree;
  tree.SafeGuardPath(L"\\\\server\\share", 1);
  EXPECT_EQ(tree.CheckProtection(L"\\\\SERVER\\SHARE\\file"), 1u);
  tree.SafeGuardPath(L"C:\\caf\u00e9", 1);
  EXPECT_EQ(tree.CheckProtection(L"C:\\CAF\u00c9\\x"), 1u);
  EXPECT_EQ(Saved(tree, 1), (std::vector<std::wstring>{L"\\\\SERVER\\SHARE", L"C:\\CAF\u00c9"}));  // the empty component sorts first
}

TEST(WhiteListTree, FoldersWalkTheTree) {
  CWhiteListTree tree;
  tree.SafeGuardPath(L"C:\\Users\\Me\\Docs", 0x1);
  tree.SafeGuardPath(L"C:\\Users", 0x4);
  unsigned long flags = 0;
  CWhiteListTree::Folder prefix = tree.GetFolder(L"C:\\Users\\Nobody", flags);
  EXPECT_FALSE(prefix);
  EXPECT_EQ(flags, 0x4u);  // the prefix's flags still count

  flags = 0;
  CWhiteListTree::Folder users = tree.GetFolder(L"C:\\USERS", flags);
  ASSERT_TRUE(users);
  EXPECT_EQ(users.GetFlags(), 0x4u);
  EXPECT_TRUE(users.GetSubFolder(L"me"));
  EXPECT_FALSE(users.GetSubFolder(L"me\\docs"));  // one component: the backslash is part of the name
  unsigned long below = 0;
  EXPECT_TRUE(users.GetSubFolder(L"me\\docs", below));
  EXPECT_EQ(below, 0x1u);
  EXPECT_EQ(users.TestItem(L"Me\\Docs\\a.txt"), 0x1u);
  EXPECT_EQ(users.TestItem(L"Other"), 0u);  // the folder's own flags are not included

  CWhiteListTree::Folder walker = users;
  EXPECT_EQ(walker.FollowPath(L"\\Me\\Docs"), 0x1u);
  EXPECT_EQ(walker.GetFlags(), 0x1u);
  CWhiteListTree::Folder lost = users;
  EXPECT_EQ(lost.FollowPath(L"\\Me\\Missing"), 0u);
  EXPECT_FALSE(lost);

  CWhiteListTree::Folder invalid;
  EXPECT_EQ(invalid.GetFlags(), 0u);
  EXPECT_FALSE(invalid.GetSubFolder(L"x"));
  EXPECT_EQ(invalid.FollowPath(L""), 0u);  // parses nothing, so no exception
  EXPECT_EQ(invalid.TestItem(L""), 0u);
  std::wstring longName(261, L'n');
  EXPECT_THROW(users.GetSubFolder(longName.c_str()), BufferOverflowException);

  CWhiteListTree::Iterator it;
  EXPECT_TRUE(tree.FromPath(L"c:\\users\\me", it, false));
  EXPECT_STREQ(CWhiteListTree::PathFromIterator(it).GetString(), L"C:\\USERS\\ME");
  EXPECT_FALSE(tree.FromPath(L"c:\\users\\new", it, true));  // created now
  EXPECT_TRUE(tree.FromPath(L"c:\\users\\new", it, false));
}

TEST(WhiteListTree, ConcurrentGuardingLosesNoPath) {
  CWhiteListTree tree;
  constexpr int kThreads = 4, kPaths = 200;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&tree, t] {
      for (int i = 0; i < kPaths; ++i) {
        std::wstring path = L"C:\\T" + std::to_wstring(t) + L"\\P" + std::to_wstring(i);
        tree.SafeGuardPath(path.c_str(), 1);
        tree.CheckProtection((L"C:\\T" + std::to_wstring((t + 1) % kThreads) + L"\\P1").c_str());
      }
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(Saved(tree, 1).size(), static_cast<size_t>(kThreads * kPaths));
}

class WhiteListFile : public testing::Test {
 protected:
  broomtest::TempDir m_dir;
  std::wstring m_file = m_dir / L"whitelist.txt";
};

TEST_F(WhiteListFile, SavedBytesAndRoundTrip) {
  CWhiteListTree tree;
  tree.SafeGuardPath(L"C:\\Data", 0x1);
  tree.SafeGuardPath(L"C:\\Data\\Sub", 0x1);
  tree.SafeGuardPath(L"D:\\X", 0x2);
  ASSERT_TRUE(tree.SaveToFile(m_file.c_str(), 0x1));
  EXPECT_EQ(broomtest::ReadFile(m_file), "C:\\DATA\r\nC:\\DATA\\SUB\r\n");
  ASSERT_TRUE(tree.SaveToFile(m_file.c_str(), 0));
  EXPECT_EQ(broomtest::ReadFile(m_file), "C:\r\nC:\\DATA\r\nC:\\DATA\\SUB\r\nD:\r\nD:\\X\r\n");

  tree.SaveToFile(m_file.c_str(), 0x1);
  CWhiteListTree loaded;
  loaded.LoadFromFile(m_file.c_str());
  std::wstring again = m_dir / L"again.txt";
  ASSERT_TRUE(loaded.SaveToFile(again.c_str(), 0x1));
  EXPECT_EQ(broomtest::ReadFile(again), broomtest::ReadFile(m_file));
  loaded.LoadFromFile(m_file.c_str());  // loading twice changes nothing
  EXPECT_EQ(Saved(loaded, 0).size(), 3u);
  loaded.LoadFromFile((m_dir / L"missing.txt").c_str());
}

TEST_F(WhiteListFile, LoadingLinesAsATextStream) {
  broomtest::WriteFile(m_file, "c:\\data\\\r\nD:\\last");
  CWhiteListTree tree;
  tree.LoadFromFile(m_file.c_str());
  EXPECT_EQ(Saved(tree, 1), (std::vector<std::wstring>{L"C:\\DATA", L"D:\\LAST"}));

  std::string longLine = "E:\\" + std::string(297, 'l');
  broomtest::WriteFile(m_file, longLine + "\r\nF:\\never\r\n");
  CWhiteListTree cut;
  cut.LoadFromFile(m_file.c_str());
  auto saved = Saved(cut, 1);
  ASSERT_EQ(saved.size(), 1u);
  EXPECT_EQ(saved[0].size(), 259u);

  broomtest::WriteFile(m_file, "G:\\first\r\n\r\nH:\\after\r\n");
  CWhiteListTree empty;
  EXPECT_THROW(empty.LoadFromFile(m_file.c_str()), PositionOutOfStringException);
  EXPECT_EQ(Saved(empty, 1), (std::vector<std::wstring>{L"G:\\FIRST"}));

  std::vector<CString> paths = {CString(L"c:\\x"), CString(L"c:\\y")};
  CWhiteListTree fromArray;
  fromArray.LoadFromArray(paths);
  EXPECT_EQ(Saved(fromArray, 1), (std::vector<std::wstring>{L"C:\\X", L"C:\\Y"}));
  EXPECT_THROW(fromArray.LoadFromArray({CString(L"")}), PositionOutOfStringException);
}

TEST_F(WhiteListFile, PathsTheFileCannotHoldRefuseTheSave) {
  broomtest::WriteFile(m_file, "OLD\r\n");
  CWhiteListTree tree;
  tree.SafeGuardPath(L"C:\\caf\u00e9", 1);  // U+00C9 fits in one byte
  ASSERT_TRUE(tree.SaveToFile(m_file.c_str(), 1));
  EXPECT_EQ(broomtest::ReadFile(m_file), "C:\\CAF\xC9\r\n");
  tree.SafeGuardPath(L"C:\\\u4e2d\u6587", 1);
  broomtest::WriteFile(m_file, "OLD\r\n");
  EXPECT_FALSE(tree.SaveToFile(m_file.c_str(), 1));
  EXPECT_EQ(broomtest::ReadFile(m_file), "OLD\r\n");  // untouched
  EXPECT_EQ(Saved(tree, 1).size(), 2u);             // the array form holds every path
}

}  // namespace
