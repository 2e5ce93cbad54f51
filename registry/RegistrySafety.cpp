#include "registry/RegistrySafety.h"

#include <vector>

#include "core/Names.h"

namespace {

enum ERootKind { rkUser, rkMachine, rkClasses };

struct SRefusedKey {
  ERootKind root;
  const wchar_t* path;  // below the root; every key above it is refused too
};

// Refused with every key above them. A user's keys apply to HKCU and to
// each user's hive under HKU; machine keys also apply below WOW6432Node.
const SRefusedKey kRefusedKeys[] = {
    {rkUser, L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\Shell Folders"},
    {rkUser, L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\User Shell Folders"},
    {rkUser, L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\FileExts"},
    {rkUser, L"Software\\Microsoft\\Windows\\CurrentVersion\\Policies"},
    {rkUser, L"Software\\Microsoft\\Windows\\CurrentVersion\\Run"},
    {rkUser, L"Software\\Microsoft\\Windows\\CurrentVersion\\RunOnce"},
    {rkUser, L"Software\\Microsoft\\Windows\\CurrentVersion\\Internet Settings"},
    {rkUser, L"Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall"},
    {rkUser, L"Software\\Microsoft\\Windows NT\\CurrentVersion\\Windows"},
    {rkUser, L"Software\\Microsoft\\Windows NT\\CurrentVersion\\Winlogon"},
    {rkUser, L"Software\\Microsoft\\Office"},
    {rkUser, L"Software\\Policies\\Microsoft"},
    {rkUser, L"Software\\Wow6432Node\\Microsoft"},
    {rkUser, L"Control Panel\\Desktop"},
    {rkUser, L"Control Panel\\International"},
    {rkUser, L"Control Panel\\Keyboard"},
    {rkUser, L"Control Panel\\Mouse"},
    {rkMachine, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Explorer\\Shell Folders"},
    {rkMachine, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Explorer\\ShellExecuteHooks"},
    {rkMachine, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\App Paths"},
    {rkMachine, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Policies"},
    {rkMachine, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run"},
    {rkMachine, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\RunOnce"},
    {rkMachine, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Shell Extensions"},
    {rkMachine, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\SharedDLLs"},
    {rkMachine, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall"},
    {rkMachine, L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Fonts"},
    {rkMachine, L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList"},
    {rkMachine, L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Winlogon"},
    {rkMachine, L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Image File Execution Options"},
    {rkMachine, L"SOFTWARE\\Microsoft\\Cryptography"},
    {rkMachine, L"SOFTWARE\\Microsoft\\Windows Defender"},
    {rkMachine, L"SOFTWARE\\Microsoft\\.NETFramework"},
    {rkMachine, L"SOFTWARE\\Microsoft\\Office"},
    {rkMachine, L"SOFTWARE\\Policies\\Microsoft"},
    {rkMachine, L"SOFTWARE\\Wow6432Node\\Microsoft"},
    {rkMachine, L"SYSTEM\\CurrentControlSet\\Control"},
    {rkMachine, L"SYSTEM\\CurrentControlSet\\Enum"},
    {rkMachine, L"SYSTEM\\CurrentControlSet\\Services"},
    {rkMachine, L"SYSTEM\\ControlSet001\\Control"},
    {rkMachine, L"SYSTEM\\ControlSet001\\Enum"},
    {rkMachine, L"SYSTEM\\ControlSet001\\Services"},
    {rkMachine, L"SYSTEM\\MountedDevices"},
    {rkMachine, L"SYSTEM\\Setup"},
};

bool StartsWith(const std::vector<std::wstring>& parts, std::initializer_list<const wchar_t*> head) {
  if (parts.size() < head.size()) return false;
  size_t i = 0;
  for (const wchar_t* name : head)
    if (!broom::EqualNoCase(parts[i++], name)) return false;
  return true;
}

// The key seen from the root it is judged against: which kind of root and
// the components below it. Classes roots (HKCR, Software\Classes of a user
// or of the machine, in both views) count as roots of their own.
void Locate(const CRegistryPath& key, ERootKind& root, std::vector<std::wstring>& rest) {
  rest = CRegistryPath::Components(key.Subkey());
  size_t skip = 0;
  if (key.Hive() == HKEY_CLASSES_ROOT) {
    root = rkClasses;
  } else if (key.Hive() == HKEY_LOCAL_MACHINE) {
    root = rkMachine;
    if (StartsWith(rest, {L"SOFTWARE", L"Classes"})) {
      root = rkClasses;
      skip = 2;
    } else if (StartsWith(rest, {L"SOFTWARE", L"Wow6432Node", L"Classes"})) {
      root = rkClasses;
      skip = 3;
    } else if (StartsWith(rest, {L"SOFTWARE", L"Wow6432Node"}) && rest.size() > 2) {
      rest.erase(rest.begin() + 1);  // the 32-bit view is judged like the 64-bit one
    }
  } else {
    root = rkUser;
    if (key.Hive() == HKEY_USERS) {
      // each user's hive below HKU is a root of its own
      if (!rest.empty()) {
        size_t n = rest[0].size();
        if (n > 8 && broom::EqualNoCase(std::wstring_view(rest[0]).substr(n - 8), L"_Classes")) root = rkClasses;
        rest.erase(rest.begin());
      }
    }
    if (root == rkUser && StartsWith(rest, {L"Software", L"Classes"})) {
      root = rkClasses;
      skip = 2;
    }
  }
  rest.erase(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(skip));
}

}  // namespace

bool CRegistrySafety::IsRefusedKey(const CRegistryPath& key) {
  if (key.IsHiveRoot()) return true;
  ERootKind root;
  std::vector<std::wstring> rest;
  Locate(key, root, rest);
  if (rest.size() <= 1) return true;  // a root or a key right below one
  for (const SRefusedKey& refused : kRefusedKeys) {
    if (refused.root != root) continue;
    std::vector<std::wstring> parts = CRegistryPath::Components(refused.path);
    if (rest.size() > parts.size()) continue;
    bool above = true;
    for (size_t i = 0; above && i < rest.size(); ++i) above = broom::EqualNoCase(rest[i], parts[i]);
    if (above) return true;
  }
  return false;
}

bool CRegistrySafety::IsRefusedValueKey(const CRegistryPath& key) {
  if (key.IsHiveRoot()) return true;
  ERootKind root;
  std::vector<std::wstring> rest;
  Locate(key, root, rest);
  return rest.empty();
}
