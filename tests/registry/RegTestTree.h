#pragma once
// A throw-away key tree below HKCU or HKLM (in both registry views), the
// registry scan run over it, and a byte-exact picture of the tree.
#include <gtest/gtest.h>
#include <windows.h>

#include <map>
#include <string>
#include <vector>

#include "common/ScanNotifiers.h"
#include "common/TestFiles.h"
#include "common/TestRegistry.h"
#include "registry/CleanableRegistry.h"
#include "registry/RegistryScan.h"
#include "settings/AppInfo.h"
#include "whitelist/WhiteListTree.h"

namespace regtest {

using Bytes = std::vector<BYTE>;
// "sub\key" for every key (type ~0) and "sub\key|name" for every value.
using Picture = std::map<std::wstring, std::pair<DWORD, Bytes>>;

inline Bytes Text(const std::wstring& text, bool terminator = true) {
  Bytes out((text.size() + (terminator ? 1 : 0)) * 2);
  memcpy(out.data(), text.c_str(), out.size());
  return out;
}

inline std::string HiveName(const testing::TestParamInfo<HKEY>& info) {
  return info.param == HKEY_CURRENT_USER ? "HKCU" : "HKLM";
}

inline std::wstring Upper(std::wstring text) {
  CharUpperBuffW(&text[0], static_cast<DWORD>(text.size()));
  return text;
}

class Tree {
 public:
  explicit Tree(HKEY root = HKEY_CURRENT_USER)
      : m_key(root, root == HKEY_CURRENT_USER ? L"Software\\BroomTest" : L"SOFTWARE\\BroomTest") {
    CAppInfo::SetManualStateBits(0x20000);  // no scan log threads in these tests
  }
  ~Tree() {
    for (const auto& rel : std::vector<std::wstring>(m_restricted)) Restrict(rel, KEY_ALL_ACCESS);
    HKEY other = nullptr;  // the default view goes with the holder
    if (RegOpenKeyExW(m_key.Root(), Sub(L"").c_str(), 0, KEY_ALL_ACCESS | KEY_WOW64_32KEY, &other) == 0) {
      RegDeleteTreeW(other, nullptr);
      RegCloseKey(other);
      RegDeleteKeyExW(m_key.Root(), Sub(L"").c_str(), KEY_WOW64_32KEY, 0);
      RegDeleteKeyExW(m_key.Root(), L"SOFTWARE\\BroomTest", KEY_WOW64_32KEY, 0);  // once no other test uses it
    }
  }

  std::wstring Sub(const std::wstring& rel) const {
    return rel.empty() ? m_key.Subkey() : m_key.Subkey() + L"\\" + rel;
  }
  // The definition form, HKCU\Software\BroomTest\<id>\rel
  std::wstring Path(const std::wstring& rel) const {
    return std::wstring(m_key.Root() == HKEY_CURRENT_USER ? L"HKCU\\" : L"HKLM\\") + Sub(rel);
  }

  void Set(const std::wstring& rel, const wchar_t* name, DWORD type, const Bytes& data, REGSAM view = 0) const {
    HKEY key = nullptr;
    ASSERT_EQ(0, RegCreateKeyExW(m_key.Root(), Sub(rel).c_str(), 0, nullptr, 0, KEY_ALL_ACCESS | view, nullptr, &key,
                                 nullptr));
    Bytes guarded(data);  // non-NUL behind the data: no terminator gets added
    guarded.insert(guarded.end(), {0xFF, 0xFF});
    if (name) {
      EXPECT_EQ(0, RegSetValueExW(key, name, 0, type, guarded.data(), static_cast<DWORD>(data.size())));
    }
    RegCloseKey(key);
  }

  // Gives everyone only these rights on the key; true when the registry then enforces them.
  bool Restrict(const std::wstring& rel, DWORD rights) {
    HKEY key = nullptr;
    if (RegOpenKeyExW(m_key.Root(), Sub(rel).c_str(), 0, WRITE_DAC, &key) != 0) return false;
    if (rights != KEY_ALL_ACCESS) m_restricted.push_back(rel);
    SID_IDENTIFIER_AUTHORITY world = SECURITY_WORLD_SID_AUTHORITY;
    PSID everyone = nullptr;
    AllocateAndInitializeSid(&world, 1, SECURITY_WORLD_RID, 0, 0, 0, 0, 0, 0, 0, &everyone);
    BYTE buffer[256];
    ACL* acl = reinterpret_cast<ACL*>(buffer);
    SECURITY_DESCRIPTOR sd;
    InitializeAcl(acl, sizeof buffer, ACL_REVISION);
    AddAccessAllowedAce(acl, ACL_REVISION, rights, everyone);
    InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION);
    SetSecurityDescriptorDacl(&sd, TRUE, acl, FALSE);
    RegSetKeySecurity(key, DACL_SECURITY_INFORMATION, &sd);
    FreeSid(everyone);
    RegCloseKey(key);
    LONG rc = RegOpenKeyExW(m_key.Root(), Sub(rel).c_str(), 0, KEY_SET_VALUE, &key);
    if (rc == 0) RegCloseKey(key);
    return rc == ERROR_ACCESS_DENIED;
  }

  Picture Read(REGSAM view = 0) const {
    Picture picture;
    HKEY key = nullptr;
    if (RegOpenKeyExW(m_key.Root(), Sub(L"").c_str(), 0, KEY_READ | view, &key) != 0) return picture;
    ReadKey(key, L"", view, picture);
    RegCloseKey(key);
    return picture;
  }

 private:
  static void ReadKey(HKEY key, const std::wstring& rel, REGSAM view, Picture& out) {
    out[rel] = {~0u, {}};
    wchar_t name[512];
    Bytes data(70000);
    for (DWORD i = 0, length = 512, size = 70000, type = 0;
         RegEnumValueW(key, i, name, &length, nullptr, &type, data.data(), &size) == 0; ++i, length = 512, size = 70000)
      out[rel + L"|" + name] = {type, Bytes(data.begin(), data.begin() + size)};
    for (DWORD i = 0, length = 512; RegEnumKeyExW(key, i, name, &length, nullptr, nullptr, nullptr, nullptr) == 0;
         ++i, length = 512) {
      HKEY child = nullptr;
      if (RegOpenKeyExW(key, name, 0, KEY_READ | view, &child) != 0) continue;
      ReadKey(child, rel.empty() ? name : rel + L"\\" + name, view, out);
      RegCloseKey(child);
    }
  }

  broomtest::TestRegKey m_key;
  std::vector<std::wstring> m_restricted;
};

// The items a registry scan of these paths reports.
inline std::vector<CRefPtr<CCleanableRegistry>> Scan(const std::vector<std::wstring>& paths,
                                                      const std::vector<std::wstring>& keeps = {},
                                                      CWhiteListTree* whiteList = nullptr) {
  CRefPtr<CRegistryScan> scan(new IUnknownNoQIImp<CRegistryScan>());
  for (const auto& path : paths) EXPECT_TRUE(scan->AddPath(path.c_str())) << broomtest::Narrow(path);
  for (const auto& keep : keeps) EXPECT_TRUE(scan->AddKeep(keep.c_str())) << broomtest::Narrow(keep);
  broomtest::StackCollector collector;
  broomtest::NullProgress progress;
  broomtest::NullStatus status;
  scan->PerformScan(&collector, &progress, &status, whiteList);
  std::vector<CRefPtr<CCleanableRegistry>> items;
  for (const auto& item : collector.items) items.emplace_back(dynamic_cast<CCleanableRegistry*>(item.Get()));
  return items;
}

}  // namespace regtest
