#include <gtest/gtest.h>

#include <string>

#include "clean/FileSystemOps.h"
#include "common/HandleCount.h"
#include "common/TestFiles.h"

using broomtest::Exists;
using broomtest::WriteFile;

namespace {

class ShellOperations : public testing::Test {
 protected:
  void SetUp() override { broomtest::AllowHandleGrowth(); }  // the STA thread lives on
  CMsgThreadSTA* Sta() { return CXmlConfigGlobal::GetSTAMsgThread(); }
  broomtest::TempDir m_dir;
};

TEST_F(ShellOperations, DeletesFoldersAndAPathOfExactly260Characters) {
  WriteFile(m_dir / L"tree\\a\\b.txt", 10);
  EXPECT_EQ(CFileSystemOps::ShellDelete(Sta(), CPathString((m_dir / L"tree").c_str())), 0);
  EXPECT_FALSE(Exists(m_dir / L"tree"));

  std::wstring folder = m_dir / L"long";
  std::wstring name(260 - folder.size() - 1, L'n');
  std::wstring path = folder + L"\\" + name;
  ASSERT_EQ(path.size(), 260u);
  WriteFile(L"\\\\?\\" + path, 3);
  CPathString full(path.c_str());
  ASSERT_EQ(full.GetLength(), 260);  // no room for a second NUL in its own buffer
  EXPECT_EQ(CFileSystemOps::ShellDelete(Sta(), full), 0);
  EXPECT_FALSE(Exists(L"\\\\?\\" + path));
}

TEST_F(ShellOperations, MoveCollisionsProposeFreeNames) {
  WriteFile(m_dir / L"src\\readme", "new");
  WriteFile(m_dir / L"d\\readme", "old");
  CPathString proposal;
  EXPECT_EQ(CFileSystemOps::ShellMove(Sta(), CPathString((m_dir / L"src\\readme").c_str()),
                                      CPathString((m_dir / L"d\\readme").c_str()), false, &proposal),
            52);
  EXPECT_STREQ(proposal.c_str(), (m_dir / L"d\\readme (1)").c_str());
  EXPECT_EQ(broomtest::ReadFile(m_dir / L"d\\readme"), "old");

  // with overwrite the existing file is replaced
  EXPECT_EQ(CFileSystemOps::ShellMove(Sta(), CPathString((m_dir / L"src\\readme").c_str()),
                                      CPathString((m_dir / L"d\\readme").c_str()), true, &proposal),
            0);
  EXPECT_EQ(broomtest::ReadFile(m_dir / L"d\\readme"), "new");
  EXPECT_FALSE(Exists(m_dir / L"src\\readme"));

  // into an existing folder
  WriteFile(m_dir / L"x.txt", "x");
  broomtest::MakeDirs(m_dir / L"into");
  EXPECT_EQ(CFileSystemOps::ShellMove(Sta(), CPathString((m_dir / L"x.txt").c_str()),
                                      CPathString((m_dir / L"into\\x.txt").c_str()), false, &proposal),
            0);
  EXPECT_TRUE(Exists(m_dir / L"into\\x.txt"));
}

TEST_F(ShellOperations, FreeNamesCountUpAndStopAtTheLimit) {
  WriteFile(m_dir / L"a.txt", "");
  WriteFile(m_dir / L"a (1).txt", "");
  CPathString name((m_dir / L"a.txt").c_str());
  CFileSystemOps::MakeFreeName(name);
  EXPECT_STREQ(name.c_str(), (m_dir / L"a (2).txt").c_str());
  CPathString free((m_dir / L"free.txt").c_str());
  CFileSystemOps::MakeFreeName(free);  // nothing there: unchanged
  EXPECT_STREQ(free.c_str(), (m_dir / L"free.txt").c_str());

  std::wstring folder = m_dir / L"f";
  std::wstring stem(258 - folder.size() - 1 - 4, L's');
  std::wstring full = folder + L"\\" + stem + L".txt";  // 258 characters; " (1)" does not fit
  WriteFile(L"\\\\?\\" + full, "");
  CPathString tight(full.c_str());
  EXPECT_THROW(CFileSystemOps::MakeFreeName(tight), BufferOverflowException);
  DeleteFileW((L"\\\\?\\" + full).c_str());
}

TEST_F(ShellOperations, RunsOnTheCallingThreadWithoutASTAThread) {
  WriteFile(m_dir / L"plain.txt", 1);
  EXPECT_EQ(CFileSystemOps::ShellDelete(nullptr, CPathString((m_dir / L"plain.txt").c_str())), 0);
  EXPECT_FALSE(Exists(m_dir / L"plain.txt"));
  ASSERT_NE(CFileSystemOps::GetOSVersionInfo(), nullptr);
  EXPECT_EQ(CFileSystemOps::GetOSVersionInfo(), CFileSystemOps::GetOSVersionInfo());  // cached
}

}  // namespace
