#pragma once
// Cleaning the hits of a scan, shared by the console and the window: the
// blast-radius guard's verdict on every hit before the user confirms, then
// the deletions (or moves into a quarantine) of what the guard allows.
#include <string>
#include <vector>

#include "app/Session.h"
#include "guard/BlastGuard.h"

namespace host {

class CQuarantine;

struct SRefusal {
  std::wstring item;    // "System/Temporary files"
  std::wstring path;    // the hit; empty when the whole item is refused
  std::wstring reason;  // in words
};

struct SGuardSummary {
  std::vector<SRefusal> refusals;  // hits refused one by one, then whole items
  unsigned __int64 refusedFiles = 0, refusedBytes = 0;
  unsigned __int64 markedFiles = 0;  // allowed, but in one of the user's own folders
  unsigned __int64 allowedFiles = 0, allowedBytes = 0;
};

// Asks the guard about every kept hit (with the pattern of the rule that
// found it) and about every item's totals. Sets SHit::refusal and
// SHit::userFolder; an item past the runaway limits gets
// SItemResult::refusal and none of its hits is cleaned, unless force.
// Recycle Bin items have no runaway limit: each entry is checked to lie in
// a real bin folder, and everything there was deleted by the user already.
SGuardSummary ApplyGuard(const CSession& session, const CBlastGuard& guard, SScanResults& results, bool force);

// A folder a rule removes once it is empty (winapp2's REMOVESELF) cannot go
// while a hit in it stays: such a folder is refused too, saying which hit
// keeps it, rather than failing at the clean. ApplyGuard calls it last.
void RefuseFoldersOfKeptHits(SScanResults& results, SGuardSummary& summary);

// What a clean reports as it goes, on the cleaning thread.
class ICleanObserver {
 public:
  virtual ~ICleanObserver() = default;
  virtual void OnProgress(unsigned __int64 index, unsigned __int64 total, const std::wstring& path) = 0;
  virtual void OnFailure(const std::wstring& path, const std::wstring& reason) = 0;
  virtual bool IsCancelled() { return IsCancelRequested(); }
};

struct SCleanReport {
  unsigned __int64 done = 0, freed = 0, failed = 0;
  unsigned __int64 untouched = 0;  // left when cancelled
  bool cancelled = false;
  // When cancelled inside an item: that item, and how many of its hits had
  // been taken of how many it had to clean.
  std::wstring partItem;
  unsigned __int64 partDone = 0, partTotal = 0;
  unsigned __int64 untouchedItems = 0;  // items of which nothing was taken
  std::vector<std::pair<std::wstring, unsigned long>> failures;  // path and result code, for run reports
};

// Cleans (or, with a quarantine, moves) every hit the guard allowed, in
// runs that make one trip to the engine's STA thread each; cancellation
// is checked between hits. Hits of refused items and refused hits are
// never touched.
// Items with SItemResult::skipped set are left whole too. With overwrite,
// file contents are overwritten before they go (never with a quarantine).
// The session tells the quarantine which rule found each hit.
SCleanReport CleanHits(const CSession& session, SScanResults& results, CQuarantine* quarantine,
                       ICleanObserver& observer, bool overwrite = false);

// Whether every operation of the item reads the Recycle Bin ("recyclebin").
bool IsRecycleBinItem(const SItem& item);

}  // namespace host
