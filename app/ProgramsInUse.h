#pragma once
// Items whose programs run now. An item's programs are the image names of
// its own `running` elements and its groups' (winapp2 items get theirs from
// one table); one snapshot of the processes answers for every item of a
// scan, and a clean leaves the items of running programs untouched or asks
// the programs to close first.
#include <windows.h>

#include <string>
#include <vector>

#include "app/CleanRun.h"
#include "app/Session.h"
#include "running/ProgramCloser.h"

namespace host {

// A running program and the scanned items it holds.
struct SHolder {
  std::wstring name;        // "Google Chrome": the group its items are in, or the image without ".exe"
  std::wstring image;       // chrome.exe
  unsigned processes = 0;   // 0 when the snapshot failed and it only may run
  std::vector<std::wstring> items;  // item paths that found something, in scan order
};

// The image names of an item's programs; empty when it names none.
std::vector<std::wstring> ProgramsOf(const CSession& session, const SItem& item);

// Takes one snapshot for the programs of every item of results and sets
// each SItemResult::running to its names that run now. Fills holders with
// the running programs that hold items that found something. When the
// snapshot fails, every program counts as running (the safe answer) and the
// Windows error is returned; ERROR_SUCCESS otherwise.
DWORD FindRunning(const CSession& session, SScanResults& results, std::vector<SHolder>& holders);

// Marks an item skipped (why: "running", "quarantine"), so CleanHits leaves
// it whole, and takes what the guard allowed of it off the summary's allowed
// totals. False when it was skipped already.
bool SkipItem(SItemResult& item, const wchar_t* why, SGuardSummary& guard);

// Marks every item with a running program and hits as skipped ("running"),
// so CleanHits leaves it whole, and takes what the guard allowed of it off
// the summary's allowed totals. Returns how many items it marked.
size_t SkipRunning(SScanResults& results, SGuardSummary& guard);

// The image names of holders, once each.
std::vector<std::wstring> HolderImages(const std::vector<SHolder>& holders);

// The name an item's program is known by ("Google Chrome"), from its path or
// its running names; "its program" when neither says.
std::wstring ProgramNameOf(const SItemResult& item);

// "Google Chrome (chrome.exe)", or "chrome.exe" when the name is the image's.
std::wstring HolderTitle(const SHolder& holder);

// What a closer's result says, in words: "closed", "did not close within 15
// seconds", "has no window to ask, so it was not asked to close".
std::wstring CloseOutcomeText(const CProgramCloser::SResult& result, DWORD timeoutMs);

}  // namespace host
