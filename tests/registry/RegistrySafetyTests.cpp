#include <gtest/gtest.h>

#include "common/TestFiles.h"
#include "core/RefCounting.h"
#include "registry/CleanableRegistry.h"
#include "registry/RegistryPath.h"
#include "registry/RegistrySafety.h"

TEST(RegistrySafety, RefusesRootsFirstLevelKeysAndTheTableWithTheirParents) {
  struct { const wchar_t* key; bool refused; } cases[] = {
      {L"HKCU", true}, {L"HKCU\\Software", true}, {L"HKLM\\SOFTWARE", true}, {L"HKLM\\SYSTEM", true},
      {L"HKCU\\Environment", true}, {L"HKCU\\Software\\Microsoft", true},
      {L"HKCU\\Software\\Microsoft\\Windows\\CurrentVersion", true},
      {L"HKCU\\Software\\Microsoft\\Windows\\CurrentVersion\\Policies", true},
      {L"HKCU\\Software\\Microsoft\\Windows\\CurrentVersion\\Policies\\Explorer", false},
      {L"HKLM\\SOFTWARE\\WOW6432Node", true}, {L"HKLM\\SOFTWARE\\WOW6432Node\\Microsoft\\Windows", true},
      {L"HKLM\\SYSTEM\\CurrentControlSet", true}, {L"HKCR\\CLSID", true}, {L"HKLM\\SOFTWARE\\Classes\\.txt", true},
      {L"HKCU\\Software\\Classes\\Vendor.Doc", true}, {L"HKU\\S-1-5-18\\Software", true},
      {L"HKU\\S-1-5-18\\Software\\Microsoft\\Windows", true}, {L"HKU\\S-1-5-21-1_Classes\\CLSID", true},
      {L"HKCU\\Software\\Vendor", false},
      {L"HKCU\\Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\RunMRU", false},
      {L"HKLM\\SOFTWARE\\WOW6432Node\\Vendor", false}, {L"HKCR\\Vendor.Doc\\shell", false},
      {L"HKU\\S-1-5-18\\Software\\Vendor", false},
  };
  for (const auto& c : cases) {
    CRegistryPath path;
    ASSERT_TRUE(path.Parse(c.key));
    EXPECT_EQ(c.refused, CRegistrySafety::IsRefusedKey(path)) << broomtest::Narrow(c.key);
  }
  CRegistryPath root, first;
  ASSERT_TRUE(root.Parse(L"HKU\\S-1-5-18|v") && first.Parse(L"HKCU\\Environment|TEMP"));
  EXPECT_TRUE(CRegistrySafety::IsRefusedValueKey(root));
  EXPECT_FALSE(CRegistrySafety::IsRefusedValueKey(first));

  // an item made by hand for a first-level key is refused as well
  HKEY made = nullptr;
  ASSERT_EQ(0, RegCreateKeyExW(HKEY_CURRENT_USER, L"BroomRefusalTest", 0, nullptr, 0, KEY_READ, nullptr, &made,
                               nullptr));
  RegCloseKey(made);
  CRefPtr<CCleanableRegistry> item(new IUnknownNoQIImp<CCleanableRegistry>());
  item->Init(CRegistryPath(HKEY_CURRENT_USER, L"BroomRefusalTest"), 0, 0);
  EXPECT_EQ(kRegistryRefused, item->Clean(nullptr, nullptr));
  EXPECT_TRUE(item->Exists());
  RegDeleteKeyW(HKEY_CURRENT_USER, L"BroomRefusalTest");
}
