#pragma once
// An application key name used by one test only, below SOFTWARE\BroomSettingsTest
// in both hives, and removed from both when the holder goes (also when the
// test failed half way). The key itself is not created: the code under test
// has to cope with it missing.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <vector>

#include "settings/RegSettings.h"

namespace settingstest {

constexpr const wchar_t* kCompany = L"BroomSettingsTest";

struct RawValue {
  LONG status = ERROR_FILE_NOT_FOUND;
  DWORD type = REG_NONE;
  std::vector<BYTE> bytes;
};

class AppKey {
 public:
  AppKey();
  ~AppKey();
  AppKey(const AppKey&) = delete;
  AppKey& operator=(const AppKey&) = delete;

  const wchar_t* Product() const { return m_product.c_str(); }
  // SOFTWARE\BroomSettingsTest\<product>
  const std::wstring& Path() const { return m_path; }
  static HKEY Hive(bool system) { return system ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER; }

  bool Exists(bool system) const;
  void Create(bool system) const;
  // Writes the bytes exactly as given, creating the key when needed.
  void Write(bool system, const wchar_t* name, DWORD type, const void* data, DWORD size) const;
  void WriteDword(bool system, const wchar_t* name, DWORD value) const {
    Write(system, name, REG_DWORD, &value, sizeof(value));
  }
  RawValue Read(bool system, const wchar_t* name) const;

  // Leaves the key in place but lets nobody read it or write values to it;
  // the holder gives the rights back before it deletes the key.
  bool DenyAccess(bool system);

 private:
  void Remove(bool system) const;

  std::wstring m_product;
  std::wstring m_path;
  bool m_denied[2] = {false, false};
};

// The bytes of a UTF-16 text with its NUL, then the tail.
std::vector<BYTE> StringBytes(const std::wstring& text, const std::vector<BYTE>& tail = {});

// A fresh application key and settings on it; the parameter picks the hive
// (false: the user's copy, true: the machine's), so one test body runs
// against both.
class HiveTest : public testing::TestWithParam<bool> {
 protected:
  bool System() const { return GetParam(); }

  template <class T, class D>
  bool Get(const wchar_t* name, T& value, D def) {
    return System() ? m_settings.GetSystemValue(name, value, def) : m_settings.GetUserValue(name, value, def);
  }
  long GetRaw(const wchar_t* name, void* buffer, unsigned long& size, void* def) {
    return System() ? m_settings.GetSystemValue(name, buffer, size, def)
                    : m_settings.GetUserValue(name, buffer, size, def);
  }
  template <class T>
  bool Set(const wchar_t* name, const T& value) {
    return System() ? m_settings.SetSystemValue(name, value) : m_settings.SetUserValue(name, value);
  }
  bool SetRaw(const wchar_t* name, const void* data, unsigned long size) {
    void* bytes = const_cast<void*>(data);
    return System() ? m_settings.SetSystemValue(name, bytes, size) : m_settings.SetUserValue(name, bytes, size);
  }
  long GetSecret(const wchar_t* name, void* buffer, unsigned long& size) {
    return System() ? m_settings.GetSystemSecretValue(name, buffer, size, nullptr)
                    : m_settings.GetUserSecretValue(name, buffer, size, nullptr);
  }
  bool SetSecret(const wchar_t* name, const void* data, unsigned long size) {
    void* bytes = const_cast<void*>(data);
    return System() ? m_settings.SetSystemSecretValue(name, bytes, size)
                    : m_settings.SetUserSecretValue(name, bytes, size);
  }
  bool SetSecret(const wchar_t* name, const std::vector<BYTE>& secret) {
    return SetSecret(name, secret.empty() ? nullptr : secret.data(), static_cast<unsigned long>(secret.size()));
  }
  // The whole tail as the settings deliver it; ERROR_SUCCESS is expected.
  std::vector<BYTE> Secret(const wchar_t* name) {
    std::vector<BYTE> buffer(16384);
    unsigned long size = static_cast<unsigned long>(buffer.size());
    EXPECT_EQ(ERROR_SUCCESS, GetSecret(name, buffer.data(), size)) << "reading the tail of this value";
    buffer.resize(size);
    return buffer;
  }
  CString Text(const wchar_t* name) {
    CString text;
    EXPECT_TRUE(Get(name, text, L"")) << "reading the string of this value";
    return text;
  }
  // The bytes as the registry holds them.
  std::vector<BYTE> Stored(const wchar_t* name) const { return m_key.Read(System(), name).bytes; }
  DWORD StoredType(const wchar_t* name) const { return m_key.Read(System(), name).type; }
  void Write(const wchar_t* name, DWORD type, const std::vector<BYTE>& bytes) const {
    m_key.Write(System(), name, type, bytes.data(), static_cast<DWORD>(bytes.size()));
  }

  AppKey m_key;
  CRegSettings m_settings{kCompany, m_key.Product()};
};

// Names a parameterised test "User" or "System".
inline std::string HiveName(const testing::TestParamInfo<bool>& info) { return info.param ? "System" : "User"; }

// The int an operation threw, or -1 when it threw nothing.
template <class F>
int ThrownInt(F f) {
  try {
    f();
  } catch (int value) {
    return value;
  }
  return -1;
}

// True when the key of the given hive can be locked against reading here; a
// test that needs it skips otherwise.
bool DenyOrSkip(AppKey& key, bool system, std::string& why);

}  // namespace settingstest
