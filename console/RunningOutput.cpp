// What scan and clean say about the programs that hold items, and the
// closing of them for clean --close-apps; the items a clean with a
// quarantine leaves in the Recycle Bin.
#include "console/Commands.h"

#include "app/Text.h"
#include "console/Console.h"

namespace host {

namespace {

// "3 processes", or "not known" when the snapshot failed.
std::wstring Processes(const SHolder& holder) {
  return holder.processes ? Plural(holder.processes, L"process", L"processes") : std::wstring(L"not known");
}

}  // namespace

void PrintRunning(const std::vector<SHolder>& holders, DWORD snapshotError) {
  if (snapshotError != ERROR_SUCCESS)
    CConsole::Err(L"broom: the running programs cannot be listed (" + SystemMessage(snapshotError) +
                  L"); every item of a program counts as held by it\n");
  for (const SHolder& h : holders) {
    const bool named = HolderTitle(h) != h.image;
    std::wstring which = named ? h.name + L" is running (" + h.image + L", " + Processes(h) + L")"
                               : h.image + L" is running (" + Processes(h) + L")";
    CConsole::Err(L"broom: " + which + L": its " +
                  (h.items.size() == 1 ? std::wstring(L"item is") : std::to_wstring(h.items.size()) + L" items are") +
                  L" skipped by clean\n");
  }
}

size_t SkipRunningItems(SScanResults& results, SGuardSummary& guard, bool afterClose) {
  size_t skipped = 0;
  for (SItemResult& r : results.items) {
    if (r.running.empty() || !r.files || !SkipItem(r, L"running", guard)) continue;
    ++skipped;
    std::wstring images;
    for (const std::wstring& image : r.running) images += (images.empty() ? L"" : L", ") + image;
    const bool one = r.running.size() == 1;
    CConsole::Err(L"broom: skipped '" + r.item.path + L"': " + images + (one ? L" is" : L" are") +
                  (afterClose ? L" still running; close " + std::wstring(one ? L"it" : L"them") +
                                    L" yourself and run again"
                              : L" running; close " + std::wstring(one ? L"it" : L"them") +
                                    L", or run again with --close-apps") +
                  L"\n");
  }
  return skipped;
}

void CloseHolders(const std::vector<SHolder>& holders, unsigned long timeoutSeconds) {
  std::vector<std::wstring> images = HolderImages(holders);
  if (images.empty()) return;
  std::wstring names;
  for (const SHolder& h : holders) names += (names.empty() ? L"" : L", ") + HolderTitle(h);
  CConsole::Err(L"broom: asking " + names + L" to close; waiting at most " +
                Plural(timeoutSeconds, L"second", L"seconds") + L"\n");
  const DWORD timeoutMs = timeoutSeconds * 1000;
  std::vector<CProgramCloser::SResult> closed;
  CProgramCloser closer;
  DWORD error = closer.Close(images, closed, timeoutMs);
  if (error != ERROR_SUCCESS && error != ERROR_CANCELLED) {
    CConsole::Err(L"broom: the running programs cannot be listed (" + SystemMessage(error) +
                  L"); none was asked to close\n");
    return;
  }
  for (const CProgramCloser::SResult& result : closed)
    CConsole::Err(L"broom: " + result.image + L" " + CloseOutcomeText(result, timeoutMs) + L"\n");
}

size_t SkipRecycleBinItems(SScanResults& results, SGuardSummary& guard) {
  size_t skipped = 0;
  for (SItemResult& r : results.items) {
    if (!r.files || !IsRecycleBinItem(r.item) || !SkipItem(r, L"quarantine", guard)) continue;
    ++skipped;
    CConsole::Err(L"broom: skipped '" + r.item.path +
                  L"': the Recycle Bin is its own undo and is never moved into a quarantine; it stays as it is "
                  L"(run without --quarantine to empty it)\n");
  }
  return skipped;
}

}  // namespace host
