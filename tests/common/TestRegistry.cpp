#include "common/TestRegistry.h"

#include <stdexcept>

namespace broomtest {

TestRegKey::TestRegKey(HKEY root, const std::wstring& prefix) : m_root(root) {
  static LONG counter = 0;
  wchar_t suffix[64];
  swprintf(suffix, 64, L"\\%lu-%ld", GetCurrentProcessId(), InterlockedIncrement(&counter));
  m_subkey = prefix + suffix;
  LONG rc = RegCreateKeyExW(root, m_subkey.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &m_key, nullptr);
  if (rc != ERROR_SUCCESS) throw std::runtime_error("cannot create the test registry key");
}

TestRegKey::~TestRegKey() {
  if (m_key) RegCloseKey(m_key);
  RegDeleteTreeW(m_root, m_subkey.c_str());
  RegDeleteKeyW(m_root, m_subkey.c_str());
}

}  // namespace broomtest
