#pragma once
// Files and folders into a quarantine folder and back out: renamed on one
// drive, copied, compared and only then deleted across drives; never over
// a file, and never half a move left behind.
#include <windows.h>

#include <string>

#include "app/QuarantineManifest.h"
#include "app/ScanRun.h"

namespace host {

// Moves a file or folder hit into the folder and records it in the
// manifest (entry holds all but its stored name). A folder that is not
// empty is not moved across drives. Returns 0 or a result code; throws
// CHostError(exitCleanFailures) when the manifest cannot be written, with
// the hit back where it was.
DWORD MoveInto(CQuarantineManifest& manifest, const SHit& hit, SQuarantineEntry& entry);

// Moves a file entry back to its original place, never over a file; false
// with the reason when it stays.
bool MoveBack(const CQuarantineManifest& manifest, const SQuarantineEntry& entry, std::wstring& reason);

// Deletes a file, or a folder with everything in it; a link is removed as a
// link, never followed. What is already gone counts as deleted.
bool DeleteTree(const std::wstring& path, DWORD& error);

// Replaces path by the engine's first free "name (N).ext"; false when
// none fits in 260 characters.
bool FreeName(std::wstring& path);

}  // namespace host
