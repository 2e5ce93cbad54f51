#include "app/QuarantineDatabase.h"

#include "app/HostError.h"
#include "app/Text.h"
#include "browserdb/CleanableBrowserDb.h"
#include "clean/ResultCodes.h"
#include "core/Names.h"
#include "core/PathString.h"

namespace host {

const wchar_t* const kDatabaseCompanions[2] = {L"-wal", L"-journal"};

DWORD CopyDatabaseInto(CQuarantineManifest& manifest, const SHit& hit, SQuarantineEntry& entry) {
  auto* database = dynamic_cast<CCleanableBrowserDb*>(hit.item.Get());
  if (!database) return kMoveException;
  std::wstring name = broom::NameOf(hit.path);
  if (CQuarantineManifest::IsOwnName(name)) name = L"_" + name;
  std::wstring destination = manifest.Child(name);
  DWORD result = kMoveException;
  // The engine proposes a free name when one of the three is taken; it may
  // be taken in turn before the copy is made.
  for (int attempt = 0; attempt < 5; ++attempt) {
    CPathString proposal;
    result = database->Move(CString(destination.c_str()), nullptr, nullptr, false, proposal);
    if (result != kMoveDestinationExists || proposal.GetLength() == 0) break;
    destination.assign(proposal.GetBuffer(), proposal.GetLength());
  }
  if (result != kCleanDone) return result;
  const SBrowserDbCleanResult& clean = database->GetLastClean();
  if (!clean.changed) return kCleanDone;  // nothing went, and the engine removed its copy
  entry.stored = broom::NameOf(destination);
  entry.database = true;
  entry.size = clean.bytesBefore;
  entry.checksum = clean.checksum;
  std::wstring error;
  if (manifest.Record(entry, error)) return kCleanDone;
  // Unlisted, the copy would be lost to a restore: the clean is undone.
  const DWORD undone = CBrowserDatabase::Restore(destination.c_str(), hit.path.c_str(), clean.checksum);
  throw CHostError{exitCleanFailures,
                   error + (undone == 0 ? L"; " + Quoted(hit.path) + L" was put back as it was before its clean"
                                        : L"; the copy of " + Quoted(hit.path) + L" made before its clean is " +
                                              Quoted(destination) + L" (with its -wal and -journal, if any), not "
                                              L"listed: copy it back by hand while the browser is closed")};
}

bool PutDatabaseBack(const CQuarantineManifest& manifest, const SQuarantineEntry& entry, std::wstring& reason) {
  const std::wstring copy = manifest.Child(entry.stored);
  const std::wstring kept = L"; the copy stays as " + Quoted(entry.stored);
  if (!manifest.StoredReachable(entry, L"its copy", reason)) return false;
  if (IsMissing(Probe(entry.original))) {
    reason = L"the database is no longer there (its browser may have been removed or its profile deleted)" + kept;
    return false;
  }
  const DWORD result = CBrowserDatabase::Restore(copy.c_str(), entry.original.c_str(), entry.checksum);
  if (result == 0) return true;
  if (result == kBrowserDbChangedSinceClean)
    reason = L"the database changed since the clean (its browser has written to it), and putting the copy back would "
             L"lose that" + kept;
  else if ((result & 0xFFFF0000) == kBrowserDbFileFailed &&
           ((result & 0xFFFF) == ERROR_SHARING_VIOLATION || (result & 0xFFFF) == ERROR_LOCK_VIOLATION))
    reason = L"its browser holds the database open: close the browser and run the restore again" + kept;
  else
    reason = L"it cannot be put back: " + ExplainResult(result) + kept;
  return false;
}

}  // namespace host
