#pragma once
// Browser databases into a quarantine folder and back: a database is never
// moved, it is cleaned inside. Its files (the database, its -wal and
// -journal) are copied into the folder first, under one stored name and
// that name with -wal and -journal, and a restore puts the copy back only
// while the database is still exactly as the clean left it.
#include <windows.h>

#include <string>

#include "app/QuarantineManifest.h"
#include "app/ScanRun.h"

namespace host {

// The names a database entry's stored copy is made of: stored, stored-wal
// and stored-journal.
extern const wchar_t* const kDatabaseCompanions[2];

// Copies the database of a hit into the folder, cleans it and records it
// (entry holds all but its stored name, kind, size and checksum). A clean
// that removed nothing keeps no copy and records nothing. Returns 0 or a
// result code; throws CHostError(exitCleanFailures) when the manifest cannot
// be written, with the database put back as it was before the clean when
// that can be done.
DWORD CopyDatabaseInto(CQuarantineManifest& manifest, const SHit& hit, SQuarantineEntry& entry);

// Puts a database entry's copy back over the database; false with the
// reason when the copy stays (the database changed since the clean, is
// gone, or is held by its browser).
bool PutDatabaseBack(const CQuarantineManifest& manifest, const SQuarantineEntry& entry, std::wstring& reason);

}  // namespace host
