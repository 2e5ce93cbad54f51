// broom protect, unprotect and protected: the whitelist file of the user data folder.
#include "host/Commands.h"

#include "host/Console.h"
#include "registry/RegistryPath.h"

namespace host {

namespace {

bool IsListed(CSession& session, const std::wstring& path) {
  std::wstring upper = path;
  CWhiteListTree::UpperCase(&upper[0], static_cast<int>(upper.size()));
  CRefPtr<IConstTArray<CString>> list = session.WhiteList().SaveToArray(0x1);
  if (!list) return false;
  for (const CString& listed : list->GetArray())
    if (upper == listed.GetString()) return true;
  return false;
}

std::wstring PathArgument(const SOptions& options) { return ProtectedPathText(Wide(options.path)); }

}  // namespace

// A registry path (it starts with a hive name) in the form the registry
// scans look for, HKCU\Software\Vendor, a value as one more component;
// anything else as a full file path. No file or key name holds a control
// character.
std::wstring ProtectedPathText(const std::wstring& given) {
  for (wchar_t c : given)
    if (c < 0x20)
      throw CHostError{exitUsage, L"the path " + Quoted(given) +
                                      L" holds a control character, which no file name can hold; check the argument"};
  if (!CRegistryPath::StartsWithHive(given.c_str())) return FullPath(given);
  CRegistryPath path;
  path.Parse(given);
  std::wstring normal = path.WhiteListText();
  if (normal.size() > MAX_PATH)
    throw CHostError{exitUsage,
                     L"the registry path " + Quoted(given) + L" is longer than 260 characters; protect a key above it"};
  return normal;
}

int CmdProtect(CSession& session, const SOptions& options) {
  std::wstring path = PathArgument(options);
  session.LoadWhiteList();
  if (IsListed(session, path)) {
    CConsole::Out(Quoted(path) + L" is already protected.\n");
    return exitOk;
  }
  session.WhiteList().SafeGuardPath(path.c_str(), 0x1);
  session.SaveWhiteList();
  CConsole::Out(L"Protected " + Quoted(path) + L": scans and cleans leave it and everything below it alone.\n");
  return exitOk;
}

int CmdUnprotect(CSession& session, const SOptions& options) {
  std::wstring path = PathArgument(options);
  session.LoadWhiteList();
  if (!IsListed(session, path))
    throw CHostError{exitUsage, Quoted(path) + L" is not on the protected list; run 'broom protected' to see it"};
  session.WhiteList().RemovePath(path.c_str(), 0x1);
  session.SaveWhiteList();
  std::wstring out = Quoted(path) + L" is no longer protected.\n";
  if (session.WhiteList().CheckProtection(path.c_str()) & 0x1)
    out += L"It stays protected through a protected folder above it.\n";
  CConsole::Out(out);
  return exitOk;
}

int CmdProtected(CSession& session) {
  session.LoadWhiteList();
  CRefPtr<IConstTArray<CString>> list = session.WhiteList().SaveToArray(0x1);
  if (!list || list->GetArray().empty()) {
    CConsole::Out(L"No path is protected.\n");
    return exitOk;
  }
  std::wstring out;
  for (const CString& listed : list->GetArray()) out += std::wstring(listed.GetString()) + L"\n";
  CConsole::Out(out);
  return exitOk;
}

}  // namespace host
