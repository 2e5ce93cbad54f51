// broom restore: putting the files of a quarantine back.
#include "host/Commands.h"

#include "host/Console.h"
#include "host/Quarantine.h"

namespace host {

int CmdRestore(const SOptions& options) {
  CQuarantine quarantine(FullPath(Wide(options.folder)), false);
  if (quarantine.Entries().empty()) {
    CConsole::Out(L"Nothing to restore in '" + quarantine.Folder() + L"'.\n");
    return exitOk;
  }
  unsigned __int64 files = 0, bytes = 0;
  auto failures = quarantine.RestoreAll(files, bytes);
  for (const auto& f : failures)
    CConsole::Err(L"broom: not restored: " + f.entry.original + L": " + f.reason + L"\n");
  CConsole::Out(L"Restored " + Plural(files, L"file", L"files") + L" (" + FormatSize(bytes) + L").\n");
  if (IsCancelRequested()) {
    CConsole::Err(L"broom: cancelled; the rest stays in quarantine\n");
    return exitCancelled;
  }
  if (!failures.empty()) {
    CConsole::Err(L"broom: " + Plural(failures.size(), L"file stays", L"files stay") + L" in '" +
                  quarantine.Folder() + L"'; clear the original places and run 'broom restore' again\n");
    return exitCleanFailures;
  }
  return exitOk;
}

}  // namespace host
