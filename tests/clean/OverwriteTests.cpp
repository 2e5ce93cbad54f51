// Overwriting before deleting: a second hard link made beside a file keeps
// its data reachable after the file's name is gone, so the test reads back
// what an overwrite left on the disk.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "clean/CleanItems.h"
#include "clean/CleanableFile.h"
#include "clean/FileOverwrite.h"
#include "clean/FileSystemOps.h"
#include "common/HandleCount.h"
#include "common/TestFiles.h"
#include "core/Handles.h"
#include "core/RefCounting.h"

using broomtest::Exists;
using broomtest::TempDir;
using broomtest::WriteFile;

namespace {

const std::string kSecret = std::string(3000, 'S') + "the secret" + std::string(9000, 's');

template <class Item>
CRefPtr<Item> MakeItem(const std::wstring& folder, const std::wstring& name) {
  WIN32_FIND_DATAW data = {};
  HANDLE find = FindFirstFileW((folder + L"\\" + name).c_str(), &data);
  EXPECT_NE(find, INVALID_HANDLE_VALUE);
  if (find != INVALID_HANDLE_VALUE) FindClose(find);
  CRefPtr<Item> item(new IUnknownNoQIImp<Item>());
  item->Init(CPathString(folder.c_str()), data);
  return item;
}

bool AllZeros(const std::string& bytes) { return bytes.find_first_not_of('\0') == std::string::npos; }

std::vector<std::wstring> Listing(const std::wstring& folder) {
  std::vector<std::wstring> names;
  WIN32_FIND_DATAW data;
  HANDLE find = FindFirstFileW((folder + L"\\*").c_str(), &data);
  if (find == INVALID_HANDLE_VALUE) return names;
  do {
    if (data.cFileName[0] != L'.') names.push_back(data.cFileName);
  } while (FindNextFileW(find, &data));
  FindClose(find);
  return names;
}

class Overwrite : public testing::Test {
 protected:
  void SetUp() override {
    broomtest::AllowHandleGrowth();  // the STA thread of shell deletes lives for the process
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  }
  void TearDown() override { CoUninitialize(); }

  // The file with the secret in the folder, and a second link to its data beside the folder.
  std::wstring Secret(const std::wstring& folder, const std::wstring& name) {
    std::wstring path = WriteFile(m_dir / (folder + L"\\" + name), kSecret);
    std::wstring link = m_dir / (L"link" + std::to_wstring(++m_links));
    EXPECT_TRUE(CreateHardLinkW(link.c_str(), path.c_str(), nullptr));
    return link;
  }
  TempDir m_dir;
  int m_links = 0;
};

TEST_F(Overwrite, TheDataIsZeroedBeforeTheNameGoes) {
  // the item's own switch, a whole run's, and a folder with the file in it
  enum How { itemSwitch, wholeRun, folderItem };
  for (How how : {itemSwitch, wholeRun, folderItem}) {
    std::wstring folder = L"case" + std::to_wstring(how);
    std::wstring link = Secret(folder + L"\\sub", L"secret.txt");
    std::wstring hidden = WriteFile(m_dir / (folder + L"\\sub\\hidden.bin"), "hidden");
    SetFileAttributesW(hidden.c_str(), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
    CRefPtr<CCleanableFile> item = how == folderItem ? MakeItem<CCleanableFile>(m_dir / folder, L"sub")
                                                     : MakeItem<CCleanableFile>(m_dir / (folder + L"\\sub"), L"secret.txt");
    DWORD result = kCleanFailed;
    if (how == itemSwitch) {
      item->SetOverwrite(true);
      result = item->Clean(nullptr, nullptr);
    } else {
      ICleanableItem* raw = item.Get();
      CleanItems(&raw, 1, &result, true);
    }
    EXPECT_EQ(result, 0u) << how;
    std::string left = broomtest::ReadFile(link);
    EXPECT_GE(left.size(), kSecret.size()) << how;
    EXPECT_TRUE(AllZeros(left)) << how;
    // renamed before it went: no name of any length is left behind
    EXPECT_EQ(Listing(m_dir / (folder + L"\\sub")),
              how == folderItem ? std::vector<std::wstring>{} : std::vector<std::wstring>{L"hidden.bin"})
        << how;
    if (how == folderItem) {
      EXPECT_FALSE(Exists(m_dir / (folder + L"\\sub")));
    }
  }
}

TEST_F(Overwrite, WithoutItTheDataStaysAsItWas) {
  std::wstring link = Secret(L"plain", L"secret.txt");
  auto item = MakeItem<CCleanableFile>(m_dir / L"plain", L"secret.txt");
  ICleanableItem* raw = item.Get();
  DWORD result = kCleanFailed;
  CleanItems(&raw, 1, &result, false);
  EXPECT_EQ(result, 0u);
  EXPECT_FALSE(Exists(m_dir / L"plain\\secret.txt"));
  EXPECT_EQ(broomtest::ReadFile(link), kSecret);
}

TEST_F(Overwrite, AFileThatCannotBeWrittenIsNeitherOverwrittenNorDeleted) {
  std::wstring locked = WriteFile(m_dir / L"locked.txt", kSecret);
  std::wstring readOnly = WriteFile(m_dir / L"readonly.txt", kSecret);
  ASSERT_TRUE(SetFileAttributesW(readOnly.c_str(), FILE_ATTRIBUTE_READONLY));
  auto lockedItem = MakeItem<CCleanableFile>(m_dir.Path(), L"locked.txt");
  auto readOnlyItem = MakeItem<CCleanableFile>(m_dir.Path(), L"readonly.txt");
  auto truncItem = MakeItem<CCleanableFile_trunc>(m_dir.Path(), L"locked.txt");
  {
    broom::unique_hfile holder(CreateFileW(locked.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(holder);
    ICleanableItem* raw[] = {lockedItem.Get(), readOnlyItem.Get(), truncItem.Get()};
    DWORD results[3] = {};
    CleanItems(raw, 3, results, true);
    EXPECT_EQ(results[0], kOverwriteOpenFailed | ERROR_SHARING_VIOLATION);  // 0x80680020
    EXPECT_EQ(results[1], kOverwriteOpenFailed | ERROR_ACCESS_DENIED);      // 0x80680005
    EXPECT_EQ(results[2], kOverwriteOpenFailed | ERROR_SHARING_VIOLATION);
  }
  EXPECT_EQ(broomtest::ReadFile(locked), kSecret);
  EXPECT_EQ(broomtest::ReadFile(readOnly), kSecret);
  SetFileAttributesW(readOnly.c_str(), FILE_ATTRIBUTE_NORMAL);
}

TEST_F(Overwrite, TruncatedItemsAreOverwrittenThenEmptied) {
  std::wstring log = WriteFile(m_dir / L"app.log", kSecret);
  auto item = MakeItem<CCleanableFile_trunc>(m_dir.Path(), L"app.log");
  item->SetOverwrite(true);
  EXPECT_EQ(item->Clean(nullptr, nullptr), 0u);
  EXPECT_TRUE(Exists(log));
  EXPECT_EQ(broomtest::ReadFile(log).size(), 0u);
}

TEST_F(Overwrite, RemoveTreeTakesEverythingAndReportsTheFirstFailure) {
  WriteFile(m_dir / L"tree\\a.txt", "a");
  std::wstring readOnly = WriteFile(m_dir / L"tree\\deep\\er\\r.txt", "r");
  SetFileAttributesW(readOnly.c_str(), FILE_ATTRIBUTE_READONLY);
  SetFileAttributesW((m_dir / L"tree\\deep").c_str(), FILE_ATTRIBUTE_READONLY);
  EXPECT_EQ(CFileSystemOps::GetTreeSizeOnDisk((m_dir / L"tree").c_str()), 2u);
  std::wstring busy = WriteFile(m_dir / L"tree\\busy.txt", "b");
  {
    broom::unique_hfile holder(CreateFileW(busy.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_EQ(CFileSystemOps::RemoveTree((m_dir / L"tree").c_str(), false), kRemoveFailed | ERROR_SHARING_VIOLATION);
    EXPECT_EQ(Listing(m_dir / L"tree"), std::vector<std::wstring>{L"busy.txt"});
  }
  EXPECT_EQ(CFileSystemOps::RemoveTree((m_dir / L"tree").c_str(), false), 0u);
  EXPECT_FALSE(Exists(m_dir / L"tree"));
  EXPECT_EQ(CFileSystemOps::RemoveTree((m_dir / L"tree").c_str(), false), 0u);  // already gone
}

}  // namespace
