#pragma once
// An application key name used by one test only, below SOFTWARE\BroomSettingsTest
// in both hives, and removed from both when the holder goes (also when the
// test failed half way). The key itself is not created: the code under test
// has to cope with it missing.
#include <windows.h>

#include <string>
#include <vector>

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

}  // namespace settingstest
