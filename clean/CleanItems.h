#pragma once
// Cleaning many items at once. Every file item is still deleted on its own
// by the shell on the STA thread, but a run of them travels there in one
// request instead of one each: under load the cross-thread round trip, not
// the delete, is what a clean waits for.
#include <windows.h>

#include <cstddef>

#include "clean/CleanableFile.h"
#include "core/Export.h"

// results[i] receives what items[i]->Clean(nullptr, nullptr) would return:
// items whose cleaning is the engine's own shell delete go to the STA thread
// in runs of up to kCleanRun, a failed delete still goes to the fallback
// server, and every other item (truncation, registry, a host's own) is asked
// to Clean itself. Never throws.
BROOM_API void CleanItems(ICleanableItem* const* items, size_t count, DWORD* results);
// The same with overwrite for the whole run (broom clean --overwrite): every
// file item (CCleanableFile and its subclasses) is cleaned with
// CleanWith(true) on the calling thread, so its contents are overwritten
// before it goes; items without file contents (registry) clean as always.
// An item switched to overwrite on its own (SetOverwrite) is overwritten
// in either call.
BROOM_API void CleanItems(ICleanableItem* const* items, size_t count, DWORD* results, bool overwrite);

constexpr size_t kCleanRun = 128;
