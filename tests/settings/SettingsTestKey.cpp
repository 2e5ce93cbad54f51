#include "SettingsTestKey.h"

#include <aclapi.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace settingstest {

namespace {

// A DACL with one ACE for Everyone, holding only the given rights.
bool SetEveryoneRights(HKEY hive, const std::wstring& path, DWORD rights) {
  HKEY key = nullptr;
  if (RegOpenKeyExW(hive, path.c_str(), 0, WRITE_DAC, &key) != ERROR_SUCCESS) return false;
  SID_IDENTIFIER_AUTHORITY world = SECURITY_WORLD_SID_AUTHORITY;
  PSID everyone = nullptr;
  bool ok = false;
  if (AllocateAndInitializeSid(&world, 1, SECURITY_WORLD_RID, 0, 0, 0, 0, 0, 0, 0, &everyone)) {
    BYTE aclBuffer[256];
    ACL* acl = reinterpret_cast<ACL*>(aclBuffer);
    SECURITY_DESCRIPTOR sd;
    ok = InitializeAcl(acl, sizeof(aclBuffer), ACL_REVISION) && AddAccessAllowedAce(acl, ACL_REVISION, rights, everyone) &&
         InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION) &&
         SetSecurityDescriptorDacl(&sd, TRUE, acl, FALSE) &&
         RegSetKeySecurity(key, DACL_SECURITY_INFORMATION, &sd) == ERROR_SUCCESS;
    FreeSid(everyone);
  }
  RegCloseKey(key);
  return ok;
}

}  // namespace

AppKey::AppKey() {
  static LONG counter = 0;
  wchar_t product[64];
  swprintf(product, 64, L"%lu-%ld", GetCurrentProcessId(), InterlockedIncrement(&counter));
  m_product = product;
  m_path = std::wstring(L"SOFTWARE\\") + kCompany + L"\\" + m_product;
  // Left over by a run that was killed: start clean.
  Remove(false);
  Remove(true);
}

AppKey::~AppKey() {
  for (int system = 0; system < 2; ++system) {
    if (m_denied[system]) SetEveryoneRights(Hive(system), m_path, KEY_ALL_ACCESS);
    Remove(system != 0);
    // The company key goes too once no other test's key is below it.
    RegDeleteKeyW(Hive(system), (std::wstring(L"SOFTWARE\\") + kCompany).c_str());
  }
}

void AppKey::Remove(bool system) const {
  RegDeleteTreeW(Hive(system), m_path.c_str());
  RegDeleteKeyW(Hive(system), m_path.c_str());
}

bool AppKey::Exists(bool system) const {
  HKEY key = nullptr;
  LONG rc = RegOpenKeyExW(Hive(system), m_path.c_str(), 0, KEY_READ, &key);
  if (rc == ERROR_SUCCESS) RegCloseKey(key);
  return rc != ERROR_FILE_NOT_FOUND;
}

void AppKey::Create(bool system) const {
  HKEY key = nullptr;
  if (RegCreateKeyExW(Hive(system), m_path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr) !=
      ERROR_SUCCESS)
    throw std::runtime_error("cannot create the test key");
  RegCloseKey(key);
}

void AppKey::Write(bool system, const wchar_t* name, DWORD type, const void* data, DWORD size) const {
  HKEY key = nullptr;
  if (RegCreateKeyExW(Hive(system), m_path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr) !=
      ERROR_SUCCESS)
    throw std::runtime_error("cannot create the test key");
  // Two non-zero bytes behind the data: otherwise RegSetValueExW stores a
  // terminator of its own behind string data that does not end in NUL.
  std::vector<BYTE> guarded(static_cast<const BYTE*>(data), static_cast<const BYTE*>(data) + size);
  guarded.push_back(0xFF);
  guarded.push_back(0xFF);
  LONG rc = RegSetValueExW(key, name, 0, type, guarded.data(), size);
  RegCloseKey(key);
  if (rc != ERROR_SUCCESS) throw std::runtime_error("cannot write the test value");
}

RawValue AppKey::Read(bool system, const wchar_t* name) const {
  RawValue value;
  HKEY key = nullptr;
  value.status = RegOpenKeyExW(Hive(system), m_path.c_str(), 0, KEY_READ, &key);
  if (value.status != ERROR_SUCCESS) return value;
  DWORD size = 0;
  value.status = RegQueryValueExW(key, name, nullptr, &value.type, nullptr, &size);
  if (value.status == ERROR_SUCCESS) {
    value.bytes.resize(size);
    value.status = RegQueryValueExW(key, name, nullptr, &value.type, value.bytes.data(), &size);
    value.bytes.resize(size);
  }
  RegCloseKey(key);
  return value;
}

bool AppKey::DenyAccess(bool system) {
  Create(system);
  m_denied[system] = true;
  return SetEveryoneRights(Hive(system), m_path, DELETE | READ_CONTROL | WRITE_DAC);
}

std::vector<BYTE> StringBytes(const std::wstring& text, const std::vector<BYTE>& tail) {
  std::vector<BYTE> bytes((text.size() + 1) * sizeof(wchar_t));
  memcpy(bytes.data(), text.c_str(), bytes.size());
  bytes.insert(bytes.end(), tail.begin(), tail.end());
  return bytes;
}

bool DenyOrSkip(AppKey& key, bool system, std::string& why) {
  if (!key.DenyAccess(system)) {
    why = "the registry does not take a key's security descriptor";
    return false;
  }
  HKEY probe = nullptr;
  if (RegOpenKeyExW(AppKey::Hive(system), key.Path().c_str(), 0, KEY_READ, &probe) == ERROR_SUCCESS) {
    RegCloseKey(probe);
    why = "the registry does not enforce a key's security descriptor";
    return false;
  }
  return true;
}

}  // namespace settingstest
