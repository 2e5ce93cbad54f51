#include <gtest/gtest.h>

#include "common/TestFiles.h"
#include "registry/RegistryPath.h"

TEST(RegistryPath, ParsesHivesValuesAndGivesNormalForms) {
  struct { const wchar_t* text; bool ok; const wchar_t* normal; const wchar_t* whiteList; } cases[] = {
      {L"HKEY_CURRENT_USER\\Software\\\\Vendor\\", true, L"HKCU\\Software\\Vendor", L"HKCU\\Software\\Vendor"},
      {L" \r\n\thklm\\a\\b|Val \r\n", true, L"HKLM\\a\\b|Val", L"HKLM\\a\\b\\Val"},
      {L"HKU\\x|", true, L"HKU\\x|", L"HKU\\x"},  // the default value belongs to its key
      {L"hkey_classes_root\\.txt|a|b", true, L"HKCR\\.txt|a|b", L"HKCR\\.txt\\a|b"},
      {L"HKCU", true, L"HKCU", L"HKCU"},
      {L"HKXX\\a", false, L"", L""},
      {L"Software\\Vendor", false, L"", L""},
      {L"", false, L"", L""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(broomtest::Narrow(c.text));
    CRegistryPath path;
    ASSERT_EQ(c.ok, path.Parse(c.text));
    if (!c.ok) continue;
    EXPECT_EQ(c.normal, path.Text());
    EXPECT_EQ(c.whiteList, path.WhiteListText());
  }
}

TEST(RegistryPath, KeysAtOrBelowOthersWithWhatLiesBetween) {
  const struct {
    const wchar_t* key;
    const wchar_t* outer;
    bool same, atOrBelow;
    const wchar_t* rest;  // null: not below
  } cases[] = {
      {L"HKCU\\Software\\Vendor\\App", L"hkcu\\software\\vendor", false, true, L"App"},
      {L"HKCU\\Software\\Vendor|Value", L"HKCU\\SOFTWARE\\VENDOR", true, true, nullptr},
      {L"HKCU\\Software\\Vendors", L"HKCU\\Software\\Vendor", false, false, nullptr},
      {L"HKCU\\Software", L"HKCU", false, true, L"Software"},
      {L"HKLM\\Software\\Vendor", L"HKCU\\Software", false, false, nullptr},
      {L"HKCU\\Software", L"HKCU\\Software\\Vendor", false, false, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(broomtest::Narrow(c.key));
    CRegistryPath key, outer;
    ASSERT_TRUE(key.Parse(c.key) && outer.Parse(c.outer));
    EXPECT_EQ(c.same, key.SameKey(outer));
    EXPECT_EQ(c.atOrBelow, key.IsAtOrBelow(outer));
    std::wstring rest;
    EXPECT_EQ(c.rest != nullptr, key.IsBelow(outer, &rest));
    if (c.rest) {
      EXPECT_EQ(c.rest, rest);
    }
  }
  EXPECT_EQ(std::wstring(L"HKEY_CLASSES_ROOT"), CRegistryPath::HiveLongName(CRegistryPath::HiveFromName(L"hkcr", 4)));
}
