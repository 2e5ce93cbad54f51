// broomcore.dll and broom.exe carry the project's version in their version
// resources, as Explorer's Details page reads them.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/TestFiles.h"

namespace {

std::wstring Beside(const wchar_t* name) { return broomtest::ExeFolder() + L"\\" + name; }

std::wstring Text(std::vector<BYTE>& data, const wchar_t* key) {
  void* value = nullptr;
  UINT length = 0;
  std::wstring query = std::wstring(L"\\StringFileInfo\\040904b0\\") + key;
  if (!VerQueryValueW(data.data(), query.c_str(), &value, &length) || length == 0) return L"<none>";
  return static_cast<const wchar_t*>(value);
}

TEST(VersionInfo, EngineAndHostCarryTheProjectVersion) {
  const std::string narrow = BROOM_EXPECTED_VERSION;
  const std::wstring version(narrow.begin(), narrow.end());
  unsigned major = 0, minor = 0, patch = 0;
  ASSERT_EQ(3, swscanf(version.c_str(), L"%u.%u.%u", &major, &minor, &patch));

  for (const wchar_t* name : {L"broomcore.dll", L"broom.exe"}) {
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
  }
}

}  // namespace
