#pragma once
#include <windows.h>

#include <string>

namespace broomtest {

// A registry key made for one test below root and removed with its whole
// subtree when the holder goes. Subkey() is the path below root.
class TestRegKey {
 public:
  explicit TestRegKey(HKEY root = HKEY_CURRENT_USER, const std::wstring& prefix = L"Software\\BroomTest");
  ~TestRegKey();
  TestRegKey(const TestRegKey&) = delete;
  TestRegKey& operator=(const TestRegKey&) = delete;

  HKEY Root() const { return m_root; }
  const std::wstring& Subkey() const { return m_subkey; }
  HKEY Key() const { return m_key; }

 private:
  HKEY m_root;
  std::wstring m_subkey;
  HKEY m_key = nullptr;
};

}  // namespace broomtest
