#include "profiles/UserHive.h"

#include <cwchar>
#include <cwctype>

#include "core/Exceptions.h"
#include "core/Handles.h"

namespace {

constexpr const wchar_t* kUserShellFolders = L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\User Shell Folders";
constexpr const wchar_t* kShellFolders = L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\Shell Folders";
// Variables that are the same for every user of the machine, taken from this process.
const wchar_t* const kMachineVariables[] = {
    L"SystemRoot", L"windir", L"SystemDrive", L"ProgramData", L"ALLUSERSPROFILE", L"PUBLIC",
    L"ProgramFiles", L"ProgramFiles(x86)", L"ProgramW6432", L"CommonProgramFiles", L"CommonProgramFiles(x86)",
    L"CommonProgramW6432"};

[[noreturn]] void Throw(const std::wstring& message, DWORD error) {
  throw CWin32Exception(CString(message.c_str()), error);
}

// Enables the backup and restore privileges for its lifetime and puts back
// what was set before; RegLoadKey and RegUnLoadKey need both.
class CHivePrivileges {
 public:
  CHivePrivileges() {
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, m_token.addressof())) {
      m_error = GetLastError();
      return;
    }
    struct {
      DWORD count;
      LUID_AND_ATTRIBUTES privileges[2];
    } wanted{2, {}};
    if (!LookupPrivilegeValueW(nullptr, SE_BACKUP_NAME, &wanted.privileges[0].Luid) ||
        !LookupPrivilegeValueW(nullptr, SE_RESTORE_NAME, &wanted.privileges[1].Luid)) {
      m_error = GetLastError();
      return;
    }
    wanted.privileges[0].Attributes = wanted.privileges[1].Attributes = SE_PRIVILEGE_ENABLED;
    DWORD size = sizeof m_previous;
    if (!AdjustTokenPrivileges(m_token.get(), FALSE, reinterpret_cast<TOKEN_PRIVILEGES*>(&wanted), sizeof m_previous,
                               reinterpret_cast<TOKEN_PRIVILEGES*>(&m_previous), &size)) {
      m_error = GetLastError();
      return;
    }
    m_adjusted = true;
    // Success, yet a privilege the token lacks stays off.
    if (GetLastError() == ERROR_NOT_ALL_ASSIGNED) m_error = ERROR_PRIVILEGE_NOT_HELD;
  }
  ~CHivePrivileges() {
    if (m_adjusted)
      AdjustTokenPrivileges(m_token.get(), FALSE, reinterpret_cast<TOKEN_PRIVILEGES*>(&m_previous), 0, nullptr, nullptr);
  }
  CHivePrivileges(const CHivePrivileges&) = delete;
  CHivePrivileges& operator=(const CHivePrivileges&) = delete;
  DWORD Error() const { return m_error; }

 private:
  broom::unique_handle m_token;
  struct {
    DWORD count;
    LUID_AND_ATTRIBUTES privileges[2];
  } m_previous{};
  bool m_adjusted = false;
  DWORD m_error = ERROR_SUCCESS;
};

std::vector<std::pair<std::wstring, std::wstring>> ReadStrings(HKEY root, const wchar_t* path) {
  std::vector<std::pair<std::wstring, std::wstring>> out;
  broom::unique_hkey key;
  if (RegOpenKeyExW(root, path, 0, KEY_QUERY_VALUE, key.addressof()) != ERROR_SUCCESS) return out;
  wchar_t name[256];
  std::vector<wchar_t> data(4096);
  for (DWORD i = 0;; ++i) {
    DWORD nameLength = 256, size = static_cast<DWORD>((data.size() - 1) * sizeof(wchar_t)), type = REG_NONE;
    LONG rc = RegEnumValueW(key.get(), i, name, &nameLength, nullptr, &type, reinterpret_cast<BYTE*>(data.data()), &size);
    if (rc == ERROR_NO_MORE_ITEMS) break;
    if (rc != ERROR_SUCCESS || (type != REG_SZ && type != REG_EXPAND_SZ)) continue;
    data[size / sizeof(wchar_t)] = L'\0';
    out.emplace_back(name, data.data());
  }
  return out;
}

const std::wstring* Lookup(const std::vector<std::pair<std::wstring, std::wstring>>& list, const wchar_t* name) {
  for (const auto& entry : list)
    if (_wcsicmp(entry.first.c_str(), name) == 0) return &entry.second;
  return nullptr;
}

void DropTrailingSeparators(std::wstring& path) {
  while (path.size() > 3 && path.back() == L'\\') path.pop_back();
}

bool IsFullPath(const std::wstring& path) {
  return (path.size() >= 3 && iswalpha(path[0]) && path[1] == L':' && path[2] == L'\\') ||
         (path.size() > 2 && path[0] == L'\\' && path[1] == L'\\');
}

// Expands %NAME% for one user: that user's own variables first, then the
// variables of their Environment key, then the machine's; a name none of
// them knows leaves the text unexpanded and is given in unknown.
class CUserExpander {
 public:
  CUserExpander(const SUserProfile& profile, const std::vector<std::pair<std::wstring, std::wstring>>& environment)
      : m_environment(environment) {
    m_own.emplace_back(L"USERPROFILE", profile.folder);
    if (profile.accountKnown) m_own.emplace_back(L"USERNAME", profile.userName.substr(profile.userName.find(L'\\') + 1));
  }
  void AddOwn(const wchar_t* name, const std::wstring& value) { m_own.emplace_back(name, value); }

  bool Expand(const std::wstring& text, std::wstring& out, std::wstring& unknown, int depth = 0) const {
    out.clear();
    for (size_t i = 0; i < text.size();) {
      size_t close = text[i] == L'%' ? text.find(L'%', i + 1) : std::wstring::npos;
      if (close == std::wstring::npos || close == i + 1) {
        out += text[i++];
        continue;
      }
      std::wstring name = text.substr(i + 1, close - i - 1), value;
      if (!Value(name, value, unknown, depth)) return false;
      out += value;
      i = close + 1;
    }
    return true;
  }

 private:
  bool Value(const std::wstring& name, std::wstring& value, std::wstring& unknown, int depth) const {
    if (const std::wstring* own = Lookup(m_own, name.c_str())) {
      value = *own;
      return true;
    }
    if (const std::wstring* raw = Lookup(m_environment, name.c_str())) {
      // Variables that name each other in circles end here.
      if (depth < 8 && Expand(*raw, value, unknown, depth + 1)) return true;
      if (unknown.empty()) unknown = name;
      return false;
    }
    for (const wchar_t* machine : kMachineVariables) {
      if (_wcsicmp(machine, name.c_str()) != 0) continue;
      wchar_t buffer[MAX_PATH + 1];
      DWORD n = GetEnvironmentVariableW(machine, buffer, MAX_PATH + 1);
      if (n == 0 || n > MAX_PATH) break;
      value.assign(buffer, n);
      return true;
    }
    unknown = name;
    return false;
  }

  std::vector<std::pair<std::wstring, std::wstring>> m_own;
  const std::vector<std::pair<std::wstring, std::wstring>>& m_environment;
};

}  // namespace

std::wstring SUserFolders::Folder(const wchar_t* name) const {
  const std::wstring* found = Lookup(folders, name);
  return found ? *found : std::wstring();
}

std::wstring SUserFolders::Variable(const wchar_t* name) const {
  const std::wstring* found = Lookup(environment, name);
  return found ? *found : std::wstring();
}

CUserHive::CUserHive(const SUserProfile& profile) : m_profile(profile) {
  const std::wstring& who = profile.userName.empty() ? profile.sid : profile.userName;
  if (!CUserProfiles::IsPersonSid(profile.sid.c_str()))
    Throw(L"'" + profile.sid + L"' is not the SID of a person's account", ERROR_INVALID_SID);
  // Logged on: the system has the hive, and it stays the system's.
  if (RegOpenKeyExW(HKEY_USERS, profile.sid.c_str(), 0, KEY_READ, &m_key) == ERROR_SUCCESS) {
    m_name = profile.sid;
    return;
  }
  m_key = nullptr;

  // A semaphore rather than a mutex: a second claim from the same thread must fail too.
  m_claim = CreateSemaphoreW(nullptr, 1, 1, (L"Global\\Broom-hive-" + profile.sid).c_str());
  if (!m_claim) {
    DWORD error = GetLastError();
    Throw(L"the registry hive of " + who + L" cannot be claimed for this run", error);
  }
  if (WaitForSingleObject(m_claim, 0) != WAIT_OBJECT_0) {
    CloseHandle(m_claim);
    m_claim = nullptr;
    Throw(L"another Broom run is working on the profile of " + who, ERROR_BUSY);
  }
  auto release = broom::scope_exit([&] {
    ReleaseSemaphore(m_claim, 1, nullptr);
    CloseHandle(m_claim);
    m_claim = nullptr;
  });

  m_name = kMountPrefix + profile.sid;
  LONG rc = RegOpenKeyExW(HKEY_USERS, m_name.c_str(), 0, KEY_READ, &m_key);
  if (rc == ERROR_SUCCESS) {
    m_loaded = true;  // left by a run that was ended before it unloaded it
    release.release();
    return;
  }
  m_key = nullptr;
  const std::wstring file = profile.folder + L"\\NTUSER.DAT";
  if (GetFileAttributesW(file.c_str()) == INVALID_FILE_ATTRIBUTES) {
    DWORD error = GetLastError();
    Throw(L"the registry hive '" + file + L"' of " + who + L" cannot be found", error);
  }
  {
    CHivePrivileges privileges;
    if (privileges.Error())
      Throw(L"the registry hive of " + who + L" cannot be loaded without the backup and restore privileges",
            privileges.Error());
    rc = RegLoadKeyW(HKEY_USERS, m_name.c_str(), file.c_str());
    // Wine leaves the key of a load that failed (a damaged file); it was not there before.
    broom::unique_hkey leftover;
    if (rc != ERROR_SUCCESS &&
        RegOpenKeyExW(HKEY_USERS, m_name.c_str(), 0, KEY_READ, leftover.addressof()) == ERROR_SUCCESS) {
      leftover.reset();
      RegUnLoadKeyW(HKEY_USERS, m_name.c_str());
    }
  }
  if (rc != ERROR_SUCCESS) Throw(L"the registry hive '" + file + L"' of " + who + L" cannot be loaded", rc);
  m_loaded = true;
  auto unload = broom::scope_exit([&] { Unload(); });
  rc = RegOpenKeyExW(HKEY_USERS, m_name.c_str(), 0, KEY_READ, &m_key);
  if (rc != ERROR_SUCCESS) {
    m_key = nullptr;
    Throw(L"the registry hive of " + who + L" was loaded but cannot be opened", rc);
  }
  unload.release();
  release.release();
}

CUserHive::~CUserHive() {
  Unload();
  if (m_claim) {
    ReleaseSemaphore(m_claim, 1, nullptr);
    CloseHandle(m_claim);
  }
}

LONG CUserHive::Unload() {
  if (m_key) {
    RegCloseKey(m_key);
    m_key = nullptr;
  }
  if (!m_loaded) return ERROR_SUCCESS;
  CHivePrivileges privileges;
  if (privileges.Error()) return static_cast<LONG>(privileges.Error());
  LONG rc = ERROR_SUCCESS;
  // The system may still be closing a handle into the hive that a scan let go.
  for (int attempt = 0; attempt < 3; ++attempt) {
    rc = RegUnLoadKeyW(HKEY_USERS, m_name.c_str());
    if (rc == ERROR_SUCCESS || rc == ERROR_FILE_NOT_FOUND) {
      m_loaded = false;
      return ERROR_SUCCESS;
    }
    Sleep(100);
  }
  return rc;
}

SUserFolders CUserHive::Folders(std::vector<std::wstring>* notes) const {
  SUserFolders out;
  if (!m_key) return out;
  auto raw = ReadStrings(m_key, kUserShellFolders);
  for (auto& legacy : ReadStrings(m_key, kShellFolders))
    if (!Lookup(raw, legacy.first.c_str())) raw.push_back(std::move(legacy));
  const auto environment = ReadStrings(m_key, L"Environment");

  CUserExpander expander(m_profile, environment);
  std::wstring expanded, unknown;
  // AppData and Local AppData are the user's own, so the other folders and
  // the environment may name them.
  const std::pair<const wchar_t*, const wchar_t*> own[] = {{L"AppData", L"APPDATA"},
                                                          {L"Local AppData", L"LOCALAPPDATA"}};
  for (const auto& pair : own) {
    const std::wstring* text = Lookup(raw, pair.first);
    if (!text || !expander.Expand(*text, expanded, unknown)) continue;
    DropTrailingSeparators(expanded);
    if (IsFullPath(expanded)) expander.AddOwn(pair.second, expanded);
  }
  for (const auto& entry : raw) {
    unknown.clear();
    if (!expander.Expand(entry.second, expanded, unknown)) {
      if (notes)
        notes->push_back(L"the folder '" + entry.first + L"' of " + m_profile.userName + L" uses %" + unknown +
                         L"%, which is not known for that user; left out");
      continue;
    }
    DropTrailingSeparators(expanded);
    if (!IsFullPath(expanded)) {
      if (notes)
        notes->push_back(L"the folder '" + entry.first + L"' of " + m_profile.userName + L" is '" + expanded +
                         L"', not a full path; left out");
      continue;
    }
    out.folders.emplace_back(entry.first, expanded);
  }
  for (const auto& entry : environment) {
    unknown.clear();
    if (expander.Expand(entry.second, expanded, unknown))
      out.environment.emplace_back(entry.first, expanded);
    else if (notes)
      notes->push_back(L"the variable " + entry.first + L" of " + m_profile.userName + L" uses %" + unknown +
                       L"%, which is not known for that user; left out");
  }
  return out;
}
