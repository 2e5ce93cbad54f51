#pragma once
// The organisation's policy values of one test, written to this prefix's
// HKLM or HKCU Software\Policies\Broom and removed from both afterwards.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/Handles.h"

namespace broomtest {

constexpr wchar_t kPolicyKey[] = L"SOFTWARE\\Policies\\Broom";

class TestPolicies {
 public:
  ~TestPolicies() {
    for (HKEY root : {HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER}) RegDeleteTreeW(root, kPolicyKey);
  }
  void Set(HKEY root, const wchar_t* name, DWORD type, const std::vector<BYTE>& data) {
    broom::unique_hkey key;
    ASSERT_EQ(0, RegCreateKeyExW(root, kPolicyKey, 0, nullptr, 0, KEY_SET_VALUE | KEY_WOW64_64KEY, nullptr,
                                 key.addressof(), nullptr));
    ASSERT_EQ(0, RegSetValueExW(key.get(), name, 0, type, data.data(), static_cast<DWORD>(data.size())));
  }
  void Number(HKEY root, const wchar_t* name, DWORD value) {
    Set(root, name, REG_DWORD, std::vector<BYTE>(reinterpret_cast<BYTE*>(&value), reinterpret_cast<BYTE*>(&value + 1)));
  }
  void List(HKEY root, const wchar_t* name, const std::vector<std::wstring>& entries) {
    std::wstring multi;
    for (const std::wstring& e : entries) multi += e + L'\0';
    multi += L'\0';
    const BYTE* bytes = reinterpret_cast<const BYTE*>(multi.data());
    Set(root, name, REG_MULTI_SZ, std::vector<BYTE>(bytes, bytes + multi.size() * sizeof(wchar_t)));
  }
  void Text(HKEY root, const wchar_t* name, const std::wstring& text) {
    const BYTE* bytes = reinterpret_cast<const BYTE*>(text.c_str());
    Set(root, name, REG_SZ, std::vector<BYTE>(bytes, bytes + (text.size() + 1) * sizeof(wchar_t)));
  }
};

}  // namespace broomtest
