#include <gtest/gtest.h>

#include <atomic>
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

// Checks one sibling ring and everything below it: the sentinel points back
// at its owner, next/prev agree, names ascend strictly by code unit, and
// every real node owns a ring of its own. Returns the real nodes counted.
size_t CheckRing(const SWhiteListTreeNode* owner, const SWhiteListTreeNode* sentinel) {
  size_t count = 0;
  EXPECT_EQ(sentinel->item, nullptr);
  EXPECT_EQ(sentinel->link, owner);
  const SWhiteListTreeNode* before = sentinel;
  for (const SWhiteListTreeNode* cur = sentinel->next; cur != sentinel; cur = cur->next) {
    if (!cur->item) {
      ADD_FAILURE() << "a second sentinel in one ring";
      return count;
    }
    EXPECT_EQ(cur->prev, before);
    if (before != sentinel) {
      EXPECT_LT(before->item->name.Compare(cur->item->name), 0);
    }
    EXPECT_NE(cur->link, nullptr);
    EXPECT_NE(cur->link, sentinel);
    count += 1 + CheckRing(cur, cur->link);
    before = cur;
  }
  EXPECT_EQ(sentinel->prev, before);
  return count;
}

size_t CheckTree(const CWhiteListTree& tree) {
  const SWhiteListTreeNode* root = tree.root().node();
  EXPECT_EQ(root->link, root);  // the tree is its own top-level sentinel
  return CheckRing(root, root);
}

TEST(WhiteListTree, SentinelRingsHoldThroughAddingAndPruning) {
  CWhiteListTree tree;
  EXPECT_EQ(CheckTree(tree), 0u);
  EXPECT_EQ(tree.root().node()->next, tree.root().node());
  EXPECT_EQ(tree.root().node()->prev, tree.root().node());
  EXPECT_TRUE(tree.begin() == tree.end());
  EXPECT_FALSE(tree.root().IsValid());

  for (const wchar_t* path : {L"C:\\M", L"C:\\A", L"C:\\Z\\Q", L"C:\\K", L"D:\\Y", L"A:\\B\\C\\D"})
    tree.SafeGuardPath(path, 0x1);
  EXPECT_EQ(CheckTree(tree), 12u);
  EXPECT_STREQ(tree.begin()->name.GetString(), L"A:");

  CWhiteListTree::Iterator z;
  ASSERT_TRUE(tree.FromPath(L"C:\\Z", z, false));
  tree.RemovePath(L"C:\\Z\\Q", 0x1);                // alone in its ring; Z kept nothing and goes too
  EXPECT_FALSE(tree.FromPath(L"C:\\Z", z, false));
  tree.RemovePath(L"C:\\M", 0x1);                   // from the middle of a ring
  tree.RemovePath(L"C:\\A", 0x1);                   // the first of a ring
  EXPECT_EQ(CheckTree(tree), 8u);
  tree.RemovePath(L"C:\\K", 0x1);                   // the last one; C: goes with it
  EXPECT_EQ(CheckTree(tree), 6u);
  EXPECT_EQ(Saved(tree, 0), (std::vector<std::wstring>{L"A:", L"A:\\B", L"A:\\B\\C", L"A:\\B\\C\\D", L"D:", L"D:\\Y"}));
  tree.RemovePath(L"A:\\B\\C\\D", 0x1);
  tree.RemovePath(L"D:\\Y", 0x1);
  EXPECT_TRUE(tree.empty());
  EXPECT_EQ(CheckTree(tree), 0u);
  EXPECT_EQ(tree.root().node()->prev, tree.root().node());
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
  for (const wchar_t* bad : {L"", L"\\", L"C:\\keep\\\\"})
    EXPECT_THROW(tree.CheckProtection(bad), PositionOutOfStringException) << broomtest::Narrow(bad);
  EXPECT_EQ(tree.CheckProtection(L"C:\\keep\\"), 1u);  // one trailing separator is dropped
  std::wstring tooLong(261, L'x');
  EXPECT_THROW(tree.SafeGuardPath(tooLong.c_str(), 1), BufferOverflowException);
  EXPECT_THROW(tree.CheckProtection(tooLong.c_str()), BufferOverflowException);
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
  CWhiteListTree::Iterator kept = it;
  EXPECT_FALSE(tree.FromPath(L"c:\\users\\none\\deeper", it, false));
  EXPECT_TRUE(it == kept);  // a miss leaves the caller's iterator alone
  EXPECT_FALSE(tree.FromPath(L"c:\\users\\new", it, true));  // created now
  EXPECT_STREQ(CWhiteListTree::PathFromIterator(it).GetString(), L"C:\\USERS\\NEW");
  EXPECT_EQ(it->flags, 0u);
  EXPECT_TRUE(tree.FromPath(L"c:\\users\\new", it, true));  // already there: nothing added
  EXPECT_EQ(Saved(tree, 0).size(), 5u);
}

TEST(WhiteListTree, SiblingsCompareAsUnsignedCodeUnits) {
  CWhiteListTree tree;
  for (const wchar_t* name : {L"\uff41", L"\u4e2d", L"\u00e9", L"z", L"_x", L"b"})
    tree.SafeGuardPath((std::wstring(L"C:\\") + name).c_str(), 0x1);
  // fullwidth a (U+FF41) upper-cases to U+FF21 and sorts last: code units are unsigned
  EXPECT_EQ(Saved(tree, 0x1), (std::vector<std::wstring>{L"C:\\B", L"C:\\Z", L"C:\\_X", L"C:\\\u00c9", L"C:\\\u4e2d",
                                                          L"C:\\\uff21"}));
  EXPECT_EQ(tree.CheckProtection(L"c:\\\uff41\\file"), 0x1u);  // queries take the same mapping
}

TEST(WhiteListTree, ConcurrentGuardingLosesNoPath) {
  // The threads start together and at each step all add a child below the
  // same new folder, so they race to create that folder and to insert into
  // the same ring, while checking their own and a neighbour's paths. A race
  // is not certain on every run of a two-core machine, hence the rounds.
  constexpr int kRounds = 8, kThreads = 4, kPaths = 1000;
  for (int round = 0; round < kRounds && !HasFailure(); ++round) {
    CWhiteListTree tree;
    std::atomic<int> ownMisses{0}, badFlags{0}, ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
      threads.emplace_back([&, t] {
        ++ready;
        while (ready.load() < kThreads) std::this_thread::yield();
        for (int i = 0; i < kPaths; ++i) {
          std::wstring folder = L"C:\\Shared\\P" + std::to_wstring(i);
          std::wstring path = folder + L"\\T" + std::to_wstring(t);
          tree.SafeGuardPath(path.c_str(), 0x1);
          if (tree.CheckProtection(path.c_str()) != 0x1) ++ownMisses;
          std::wstring other = folder + L"\\T" + std::to_wstring((t + 1) % kThreads) + L"\\x";
          if (tree.CheckProtection(other.c_str()) & ~0x1ul) ++badFlags;
        }
      });
    for (auto& th : threads) th.join();
    EXPECT_EQ(ownMisses.load(), 0);
    EXPECT_EQ(badFlags.load(), 0);
    EXPECT_EQ(Saved(tree, 1).size(), static_cast<size_t>(kThreads * kPaths));
    EXPECT_EQ(CheckTree(tree), static_cast<size_t>(kThreads * kPaths + kPaths + 2));  // no folder made twice
    for (int i = 0; i < kPaths; ++i)
      for (int t = 0; t < kThreads; ++t)
        ASSERT_EQ(tree.CheckProtection((L"C:\\SHARED\\P" + std::to_wstring(i) + L"\\T" + std::to_wstring(t)).c_str()),
                  0x1u);
  }
}

TEST(WhiteListTree, LoadingInAnyOrderBuildsTheTreeThatAddingBuilds) {
  // Paths that share folders at several depths, given shuffled, merged into
  // a tree that already holds some of them and their neighbours.
  std::vector<CString> paths;
  for (int i = 0; i < 600; ++i)
    paths.emplace_back((L"C:\\d" + std::to_wstring(i % 7) + L"\\s" + std::to_wstring(i % 13) + L"\\f" +
                        std::to_wstring(i))
                           .c_str());
  paths.emplace_back(L"C:\\d3");
  paths.emplace_back(L"c:\\D3\\s1\\");
  paths.emplace_back(L"C:\\d3");
  std::vector<CString> shuffled = paths;
  for (size_t i = shuffled.size() - 1; i > 0; --i) std::swap(shuffled[i], shuffled[(i * 7919) % (i + 1)]);

  CWhiteListTree added, loaded;
  for (const wchar_t* seed : {L"C:\\d3\\s2\\f9999", L"C:\\d0\\a", L"B:\\x", L"C:\\d6\\zz"}) {
    added.SafeGuardPath(seed, 0x2);
    loaded.SafeGuardPath(seed, 0x2);
  }
  for (const CString& path : paths) added.SafeGuardPath(path, 0x1);
  loaded.LoadFromArray(shuffled);
  EXPECT_EQ(CheckTree(loaded), CheckTree(added));
  EXPECT_EQ(Saved(loaded, 0), Saved(added, 0));
  EXPECT_EQ(Saved(loaded, 0x3), Saved(added, 0x3));
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
  CWhiteListTree tree;
  tree.SafeGuardPath(L"C:\\caf\u00e9", 1);  // U+00C9 fits in one byte
  ASSERT_TRUE(tree.SaveToFile(m_file.c_str(), 1));
  EXPECT_EQ(broomtest::ReadFile(m_file), "C:\\CAF\xC9\r\n");

  // Each of these could only be written as a different path: cut, mapped to
  // another byte, split into two lines, or ended early by the loader.
  const std::wstring longest = L"C:\\" + std::wstring(256, L'L');  // 259 characters: still fits a line
  const std::wstring unsafe[] = {
      L"C:\\\u4e2d\u6587",               // above U+00FF
      L"C:\\" + std::wstring(257, L'L'),  // 260 characters: the loader would keep 259
      L"C:\\A\nD:\\B",                    // would load as C:\A and D:\B
      L"C:\\A\r\nD:\\B",
      L"C:\\A\x1A\\B",                    // Ctrl+Z ends the text: would load as C:\A
  };
  for (const auto& path : unsafe) {
    SCOPED_TRACE(broomtest::Narrow(path));
    CWhiteListTree bad;
    bad.SafeGuardPath(L"C:\\Fine", 1);
    bad.SafeGuardPath(path.c_str(), 1);
    broomtest::WriteFile(m_file, "OLD\r\n");
    EXPECT_FALSE(bad.SaveToFile(m_file.c_str(), 1));
    EXPECT_EQ(broomtest::ReadFile(m_file), "OLD\r\n");  // untouched
    EXPECT_EQ(Saved(bad, 1).size(), 2u);               // the array form holds every path
    bad.RemovePath(path.c_str(), 1);
    EXPECT_TRUE(bad.SaveToFile(m_file.c_str(), 1));     // without it the save goes through
    EXPECT_EQ(broomtest::ReadFile(m_file), "C:\\FINE\r\n");
  }

  CWhiteListTree edge;
  edge.SafeGuardPath(longest.c_str(), 1);
  ASSERT_TRUE(edge.SaveToFile(m_file.c_str(), 1));
  CWhiteListTree back;
  back.LoadFromFile(m_file.c_str());
  EXPECT_EQ(Saved(back, 1), Saved(edge, 1));

  // A node whose own name is empty would be written with a trailing
  // backslash and load as its parent, protecting all of C:.
  CWhiteListTree empty;
  empty.SafeGuardPath(L"C:\\\\X", 1);
  EXPECT_TRUE(empty.SaveToFile(m_file.c_str(), 1));
  EXPECT_EQ(broomtest::ReadFile(m_file), "C:\\\\X\r\n");
  EXPECT_FALSE(empty.SaveToFile(m_file.c_str(), 0));
  CWhiteListTree::Iterator it;
  ASSERT_TRUE(empty.FromPath(L"C:\\\\X", it, false));
  EXPECT_EQ(CWhiteListTree::PathFromIterator(it), CString(L"C:\\\\X"));

  // an unsafe path that the mask leaves out does not stop the save
  CWhiteListTree masked;
  masked.SafeGuardPath(L"C:\\\u4e2d", 0x2);
  masked.SafeGuardPath(L"C:\\ok", 0x1);
  EXPECT_TRUE(masked.SaveToFile(m_file.c_str(), 0x1));
  EXPECT_EQ(broomtest::ReadFile(m_file), "C:\\OK\r\n");
}

TEST_F(WhiteListFile, SavingCutsTheFileAndMasksNeedEveryBit) {
  broomtest::WriteFile(m_file, "a much longer old content\r\n");
  CWhiteListTree tree;
  ASSERT_TRUE(tree.SaveToFile(m_file.c_str(), 0x1));
  EXPECT_EQ(broomtest::ReadFile(m_file), "");  // an empty tree leaves an empty file

  tree.SafeGuardPath(L"C:\\One", 0x1);
  tree.SafeGuardPath(L"C:\\Both", 0x3);
  tree.SafeGuardPath(L"C:\\Two", 0x2);
  tree.SafeGuardPath(L"C:\\Both\\More", 0x7);
  ASSERT_TRUE(tree.SaveToFile(m_file.c_str(), 0x3));
  EXPECT_EQ(broomtest::ReadFile(m_file), "C:\\BOTH\r\nC:\\BOTH\\MORE\r\n");
  ASSERT_TRUE(tree.SaveToFile(m_file.c_str(), 0x4));
  EXPECT_EQ(broomtest::ReadFile(m_file), "C:\\BOTH\\MORE\r\n");  // a skipped parent's children are still visited

  // the file is written while another handle has it open for reading
  HANDLE reader = CreateFileW(m_file.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                              0, nullptr);
  ASSERT_NE(reader, INVALID_HANDLE_VALUE);
  EXPECT_TRUE(tree.SaveToFile(m_file.c_str(), 0x2));
  CloseHandle(reader);
  EXPECT_EQ(broomtest::ReadFile(m_file), "C:\\BOTH\r\nC:\\BOTH\\MORE\r\nC:\\TWO\r\n");

  EXPECT_FALSE(tree.SaveToFile(m_dir.Path().c_str(), 0x1));  // a folder cannot be opened as the file
  EXPECT_FALSE(tree.SaveToFile((m_dir / L"no\\such\\folder.txt").c_str(), 0x1));
}

TEST_F(WhiteListFile, LineLengthBoundaries) {
  const std::string line259 = "E:\\" + std::string(256, 'a');
  broomtest::WriteFile(m_file, line259 + "\r\nF:\\next\r\n");
  CWhiteListTree exact;
  exact.LoadFromFile(m_file.c_str());
  auto saved = Saved(exact, 1);
  ASSERT_EQ(saved.size(), 2u);  // 259 characters and a line end: the loading goes on
  EXPECT_EQ(saved[0].size(), 259u);
  EXPECT_EQ(saved[1], L"F:\\NEXT");

  broomtest::WriteFile(m_file, line259 + "b\r\nF:\\never\r\n");
  CWhiteListTree over;
  over.LoadFromFile(m_file.c_str());
  saved = Saved(over, 1);
  ASSERT_EQ(saved.size(), 1u);  // 260: cut to 259 and the rest of the file is not read
  EXPECT_EQ(saved[0], std::wstring(L"E:\\") + std::wstring(256, L'A'));

  broomtest::WriteFile(m_file, line259);
  CWhiteListTree atEnd;
  atEnd.LoadFromFile(m_file.c_str());
  EXPECT_EQ(Saved(atEnd, 1).size(), 1u);

  // bytes above 0x7F are the characters of the same code
  broomtest::WriteFile(m_file, "c:\\\xe9t\xe9\\\x80\r\nc:\\end\x1A" "D:\\after-eof\r\n");
  CWhiteListTree latin;
  latin.LoadFromFile(m_file.c_str());
  EXPECT_EQ(Saved(latin, 1), (std::vector<std::wstring>{L"C:\\END", L"C:\\\u00c9T\u00c9\\\u0080"}));
  ASSERT_TRUE(latin.SaveToFile(m_file.c_str(), 1));
  EXPECT_EQ(broomtest::ReadFile(m_file), "C:\\END\r\nC:\\\xc9T\xc9\\\x80\r\n");  // E (0x45) before \xc9
}

}  // namespace
