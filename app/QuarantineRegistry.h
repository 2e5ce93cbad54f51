#pragma once
// Registry hits into a quarantine folder and back: exported to a file in
// the registry editor's format, the export checked, only then deleted; a
// restore imports it without replacing what changed meanwhile.
#include <windows.h>

#include <string>

#include "app/QuarantineManifest.h"
#include "app/ScanRun.h"

namespace host {

// Exports a registry hit into the folder, records it in the manifest
// (entry holds all but its stored name and kind) and deletes it. Returns 0
// or a result code; throws CHostError(exitCleanFailures) when the manifest
// cannot be written, with nothing deleted.
DWORD ExportInto(CQuarantineManifest& manifest, const SHit& hit, SQuarantineEntry& entry);

// Writes a registry entry's export back and deletes it; false with the
// reason when it stays.
bool ImportBack(const CQuarantineManifest& manifest, const SQuarantineEntry& entry, std::wstring& reason);

}  // namespace host
