// broom protect, unprotect and protected: the whitelist file of the user data folder.
#include "console/Commands.h"

#include "app/Text.h"
#include "app/WhiteListFile.h"
#include "console/Console.h"

namespace host {

namespace {

std::wstring PathArgument(const SOptions& options) { return ProtectedPathText(Wide(options.path)); }

}  // namespace

int CmdProtect(CSession& session, const SOptions& options) {
  std::wstring path = PathArgument(options);
  session.LoadWhiteList();
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
  if (!IsListed(session.WhiteList(), path))
    throw CHostError{exitUsage, Quoted(path) + L" is not on the protected list; run 'broom protected' to see it"};
  session.WhiteList().RemovePath(path.c_str(), 0x1);
  session.SaveWhiteList();
  std::wstring out = Quoted(path) + L" is no longer protected.\n";
  if (session.WhiteList().CheckProtection(path.c_str()) & 0x1)
    out += L"It stays protected through a protected folder above it.\n";
  CConsole::Out(out);
  return exitOk;
}

int CmdProtected(CSession& session, const SOptions&) {
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
