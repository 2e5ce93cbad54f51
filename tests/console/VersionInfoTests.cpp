// broomcore.dll and both programs carry the project's version and company in
// their version resources, as Explorer's Details page reads them, and the
// programs carry the application icon at every size the packages promise.
#include <windows.h>

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "common/TestFiles.h"
#include "core/Handles.h"

namespace {

std::wstring Beside(const wchar_t* name) { return broomtest::ExeFolder() + L"\\" + name; }

std::wstring Text(std::vector<BYTE>& data, const wchar_t* key) {
  void* value = nullptr;
  UINT length = 0;
  std::wstring query = std::wstring(L"\\StringFileInfo\\040904b0\\") + key;
  if (!VerQueryValueW(data.data(), query.c_str(), &value, &length) || length == 0) return L"<none>";
  return static_cast<const wchar_t*>(value);
}

#pragma pack(push, 2)
struct IconDirEntry {  // an image of an RT_GROUP_ICON resource
  BYTE width, height, colors, reserved;
  WORD planes, bitCount;
  DWORD bytes;
  WORD id;
};
#pragma pack(pop)

TEST(VersionInfo, EngineAndHostsCarryTheProjectVersion) {
  const std::string narrow = BROOM_EXPECTED_VERSION;
  const std::wstring version(narrow.begin(), narrow.end());
  unsigned major = 0, minor = 0, patch = 0;
  ASSERT_EQ(3, swscanf(version.c_str(), L"%u.%u.%u", &major, &minor, &patch));

  const std::string company = BROOM_EXPECTED_COMPANY;
  for (const wchar_t* name : {L"broomcore.dll", L"broom.exe", L"broomw.exe"}) {
    SCOPED_TRACE(testing::Message() << narrow << " in " << std::string(name, name + wcslen(name)));
    std::wstring path = Beside(name);
    DWORD ignored = 0;
    DWORD size = GetFileVersionInfoSizeW(path.c_str(), &ignored);
    ASSERT_NE(0u, size) << "no version resource";
    std::vector<BYTE> data(size);
    ASSERT_TRUE(GetFileVersionInfoW(path.c_str(), 0, size, data.data()));

    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT length = 0;
    ASSERT_TRUE(VerQueryValueW(data.data(), L"\\", reinterpret_cast<void**>(&fixed), &length));
    EXPECT_EQ(MAKELONG(minor, major), fixed->dwFileVersionMS);
    EXPECT_EQ(MAKELONG(0, patch), fixed->dwFileVersionLS);
    EXPECT_EQ(fixed->dwFileVersionMS, fixed->dwProductVersionMS);
    EXPECT_EQ(fixed->dwFileVersionLS, fixed->dwProductVersionLS);
    EXPECT_TRUE(version == Text(data, L"FileVersion")) << "FileVersion";
    EXPECT_TRUE(version == Text(data, L"ProductVersion")) << "ProductVersion";
    EXPECT_TRUE(Text(data, L"OriginalFilename") == name) << "OriginalFilename";
    EXPECT_EQ(0u, Text(data, L"FileDescription").find(L"Broom ")) << "FileDescription";
    EXPECT_TRUE(std::wstring(company.begin(), company.end()) == Text(data, L"CompanyName")) << "CompanyName";
  }
}

TEST(VersionInfo, ProgramsCarryTheIconAtEverySize) {
  for (const wchar_t* name : {L"broom.exe", L"broomw.exe"}) {
    SCOPED_TRACE(std::string(name, name + wcslen(name)));
    broom::unique_hmodule module(
        LoadLibraryExW(Beside(name).c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE));
    ASSERT_TRUE(module);
    HRSRC found = FindResourceW(module.get(), MAKEINTRESOURCEW(1), MAKEINTRESOURCEW(14));  // RT_GROUP_ICON
    ASSERT_NE(nullptr, found) << "no icon group 1";
    const BYTE* group = static_cast<const BYTE*>(LockResource(LoadResource(module.get(), found)));
    ASSERT_NE(nullptr, group);
    WORD count = reinterpret_cast<const WORD*>(group)[2];
    ASSERT_GE(SizeofResource(module.get(), found), 6 + count * sizeof(IconDirEntry));
    std::set<int> sizes;
    for (WORD i = 0; i < count; ++i) {
      const auto* entry = reinterpret_cast<const IconDirEntry*>(group + 6 + i * sizeof(IconDirEntry));
      sizes.insert(entry->width == 0 ? 256 : entry->width);
      EXPECT_NE(nullptr, FindResourceW(module.get(), MAKEINTRESOURCEW(entry->id), MAKEINTRESOURCEW(3)))  // RT_ICON
          << "image " << entry->id << " of the group is missing";
    }
    EXPECT_EQ((std::set<int>{16, 24, 32, 48, 64, 256}), sizes);
  }
}

}  // namespace
