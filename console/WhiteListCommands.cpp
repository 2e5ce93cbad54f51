// broom protect, unprotect and protected: the whitelist file of the user data folder.
#include "console/Commands.h"

#include "app/PolicyRules.h"
#include "app/Text.h"
#include "app/WhiteListFile.h"
#include "console/Console.h"

namespace host {

namespace {

std::wstring PathArgument(const SOptions& options) { return ProtectedPathText(Wide(options.path)); }

// Whether the organisation's ProtectedPaths policy lists the path itself.
bool ByPolicy(const CSession& session, const std::wstring& path) {
  for (const std::wstring& entry : PolicyProtectedPaths(session.Policies()))
    if (_wcsicmp(entry.c_str(), path.c_str()) == 0) return true;
  return false;
}

}  // namespace

int CmdProtect(CSession& session, const SOptions& options) {
  std::wstring path = PathArgument(options);
  session.LoadWhiteList();
  if (ByPolicy(session, path)) {
    CConsole::Out(Quoted(path) + L" is already protected by your organisation (ProtectedPaths).\n");
    return exitOk;
  }
  if (IsListed(session.WhiteList(), path)) {
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
  if (!IsListed(session.WhiteList(), path) && ByPolicy(session, path))
    throw CHostError{exitUsage, Quoted(path) + L" is protected by your organisation (ProtectedPaths policy) and cannot "
                                               L"be removed"};
  if (!IsListed(session.WhiteList(), path))
    throw CHostError{exitUsage, Quoted(path) + L" is not on the protected list; run 'broom protected' to see it"};
  session.WhiteList().RemovePath(path.c_str(), 0x1);
  session.SaveWhiteList();
  std::wstring out = Quoted(path) + L" is no longer protected.\n";
  if (ByPolicy(session, path))
    out += L"It stays protected by your organisation (ProtectedPaths).\n";
  else if (session.WhiteList().CheckProtection(path.c_str()) & 0x1)
    out += L"It stays protected through a protected folder above it.\n";
  CConsole::Out(out);
  return exitOk;
}

int CmdProtected(CSession& session, const SOptions&) {
  session.LoadWhiteList();
  CRefPtr<IConstTArray<CString>> list = session.WhiteList().SaveToArray(0x1);
  const std::vector<std::wstring> policy = PolicyProtectedPaths(session.Policies());
  if ((!list || list->GetArray().empty()) && policy.empty()) {
    CConsole::Out(L"No path is protected.\n");
    return exitOk;
  }
  std::wstring out;
  if (list)
    for (const CString& listed : list->GetArray()) out += std::wstring(listed.GetString()) + L"\n";
  for (const std::wstring& path : policy) out += path + L"  [set by your organisation]\n";
  CConsole::Out(out);
  return exitOk;
}

}  // namespace host
