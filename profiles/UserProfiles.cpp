#include "profiles/UserProfiles.h"

#include <sddl.h>

#include <algorithm>
#include <cwchar>

#include "core/Handles.h"

namespace {

bool StartsWith(const wchar_t* text, const wchar_t* prefix) { return wcsncmp(text, prefix, wcslen(prefix)) == 0; }

// Reads a string value (REG_SZ or REG_EXPAND_SZ, expanded); false with the error in rc otherwise.
bool ReadPath(HKEY key, const wchar_t* name, std::wstring& out, LONG& rc) {
  wchar_t raw[MAX_PATH * 2] = {};
  DWORD size = sizeof raw - sizeof(wchar_t), type = REG_NONE;
  rc = RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(raw), &size);
  if (rc == ERROR_SUCCESS && type != REG_SZ && type != REG_EXPAND_SZ) rc = ERROR_INVALID_DATATYPE;
  if (rc != ERROR_SUCCESS) return false;
  raw[size / sizeof(wchar_t)] = L'\0';
  wchar_t expanded[MAX_PATH * 2];
  DWORD n = ExpandEnvironmentStringsW(raw, expanded, MAX_PATH * 2);
  if (n == 0 || n > MAX_PATH * 2) {
    rc = ERROR_BUFFER_OVERFLOW;
    return false;
  }
  out = expanded;
  while (out.size() > 3 && out.back() == L'\\') out.pop_back();
  return true;
}

bool AccountName(const wchar_t* sidText, std::wstring& out) {
  PSID sid = nullptr;
  if (!ConvertStringSidToSidW(sidText, &sid)) return false;
  broom::unique_hlocal hold(sid);
  wchar_t name[256], domain[256];
  DWORD nameSize = 256, domainSize = 256;
  SID_NAME_USE use;
  if (!LookupAccountSidW(nullptr, sid, name, &nameSize, domain, &domainSize, &use)) return false;
  out = domainSize ? std::wstring(domain) + L"\\" + name : std::wstring(name);
  return true;
}

}  // namespace

bool CUserProfiles::IsPersonSid(const wchar_t* sid) {
  if (!sid || !(StartsWith(sid, L"S-1-5-21-") || StartsWith(sid, L"S-1-12-1-"))) return false;
  // Also refuses "S-1-5-21-…-1001.bak", the copy the system keeps of a damaged entry.
  PSID parsed = nullptr;
  if (!ConvertStringSidToSidW(sid, &parsed)) return false;
  LocalFree(parsed);
  return true;
}

std::wstring CUserProfiles::CurrentUserSid() {
  broom::unique_handle token;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.addressof())) return std::wstring();
  BYTE buffer[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
  DWORD size = 0;
  if (!GetTokenInformation(token.get(), TokenUser, buffer, sizeof buffer, &size)) return std::wstring();
  wchar_t* text = nullptr;
  if (!ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid, &text)) return std::wstring();
  broom::unique_hlocal hold(text);
  return text;
}

std::wstring CUserProfiles::CurrentUserName() {
  std::wstring sid = CurrentUserSid(), name;
  return !sid.empty() && AccountName(sid.c_str(), name) ? name : std::wstring();
}

bool CUserProfiles::IsAdministrator() {
  BYTE sid[SECURITY_MAX_SID_SIZE];
  DWORD size = sizeof sid;
  BOOL member = FALSE;
  if (!CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, sid, &size)) return false;
  return CheckTokenMembership(nullptr, sid, &member) && member;
}

std::vector<SUserProfile> CUserProfiles::List(std::vector<std::wstring>* notes, HKEY root, const wchar_t* key) {
  std::vector<SUserProfile> out;
  auto note = [&](const std::wstring& text) {
    if (notes) notes->push_back(text);
  };
  broom::unique_hkey list;
  LONG rc = RegOpenKeyExW(root, key, 0, KEY_READ | KEY_WOW64_64KEY, list.addressof());
  if (rc != ERROR_SUCCESS) {
    note(L"the profile list cannot be read (error " + std::to_wstring(rc) + L")");
    return out;
  }
  const std::wstring me = CurrentUserSid();
  wchar_t name[256];
  for (DWORD i = 0;; ++i) {
    DWORD length = 256;
    rc = RegEnumKeyExW(list.get(), i, name, &length, nullptr, nullptr, nullptr, nullptr);
    if (rc == ERROR_NO_MORE_ITEMS) break;
    if (rc != ERROR_SUCCESS) {
      note(L"the profile list cannot be read whole (error " + std::to_wstring(rc) + L")");
      break;
    }
    bool person = StartsWith(name, L"S-1-5-21-") || StartsWith(name, L"S-1-12-1-");
    if (!person) continue;  // LocalSystem, LocalService, NetworkService and the other service SIDs
    if (!IsPersonSid(name)) {
      note(L"the profile entry " + std::wstring(name) + L" is no account's (a copy the system kept?); left out");
      continue;
    }
    broom::unique_hkey entry;
    SUserProfile profile;
    profile.sid = name;
    rc = RegOpenKeyExW(list.get(), name, 0, KEY_QUERY_VALUE, entry.addressof());
    if (rc == ERROR_SUCCESS) ReadPath(entry.get(), L"ProfileImagePath", profile.folder, rc);
    if (rc != ERROR_SUCCESS) {
      note(L"the profile of " + profile.sid + L" names no usable folder (error " + std::to_wstring(rc) + L"); left out");
      continue;
    }
    DWORD attributes = GetFileAttributesW(profile.folder.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_DIRECTORY)) {
      note(L"the profile folder '" + profile.folder + L"' of " + profile.sid + L" does not exist; left out");
      continue;
    }
    profile.accountKnown = AccountName(name, profile.userName);
    if (!profile.accountKnown) profile.userName = profile.folder.substr(profile.folder.find_last_of(L'\\') + 1);
    profile.current = _wcsicmp(name, me.c_str()) == 0;
    out.push_back(std::move(profile));
  }
  std::sort(out.begin(), out.end(), [](const SUserProfile& a, const SUserProfile& b) {
    return _wcsicmp(a.folder.c_str(), b.folder.c_str()) < 0;
  });
  return out;
}
