// broom restore: putting the files of a quarantine back.
#include "host/Commands.h"

#include "host/Console.h"
#include "host/Quarantine.h"

namespace host {

int CmdRestore(const SOptions& options) {
  CQuarantine quarantine(FullPath(Wide(options.folder)), false);
  const size_t total = quarantine.Entries().size();
  if (total == 0) {
    CConsole::Out(L"Nothing to restore in " + Quoted(quarantine.Folder()) + L".\n");
    return exitOk;
  }
  CQuarantine::SRestoreResult result = quarantine.RestoreAll();
  for (const auto& f : result.failures)
    CConsole::Err(L"broom: not restored: " + Printable(f.entry.original) + L": " + Printable(f.reason) + L"\n");
  CConsole::Out(L"Restored " + Plural(result.files, L"file", L"files") + L" (" + FormatSize(result.bytes) + L").\n");
  const unsigned __int64 stay = total - result.files;
  if (!result.stopped.empty()) CConsole::Err(L"broom: " + Printable(result.stopped) + L"\n");
  if (IsCancelRequested()) {
    CConsole::Err(L"broom: cancelled; " + Plural(stay, L"file stays", L"files stay") + L" in quarantine\n");
    return exitCancelled;
  }
  if (stay > 0) {
    CConsole::Err(L"broom: " + Plural(stay, L"file stays", L"files stay") + L" in " +
                  Quoted(quarantine.Folder()) +
                  L"; deal with the reasons above and run 'broom restore' again\n");
    return exitCleanFailures;
  }
  return exitOk;
}

}  // namespace host
