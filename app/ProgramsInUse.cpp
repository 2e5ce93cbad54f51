#include "app/ProgramsInUse.h"

#include "app/Text.h"
#include "core/Names.h"
#include "running/ImageNames.h"
#include "running/RunningPrograms.h"

namespace host {

namespace {

// The group an item's program is known by: "Browsers/Google Chrome/Cache"
// and "winapp2/Google Chrome/Google Chrome Cache" are Google Chrome's. An
// item right below a top group says nothing about its program.
std::wstring ProgramGroup(const std::wstring& itemPath) {
  size_t last = itemPath.rfind(L'/');
  if (last == std::wstring::npos || last == 0) return std::wstring();
  size_t before = itemPath.rfind(L'/', last - 1);
  if (before == std::wstring::npos) return std::wstring();
  return itemPath.substr(before + 1, last - before - 1);
}

std::wstring WithoutExe(const std::wstring& image) {
  if (image.size() > 4 && CImageNames::Same(image.substr(image.size() - 4), L".exe"))
    return image.substr(0, image.size() - 4);
  return image;
}

}  // namespace

std::vector<std::wstring> ProgramsOf(const CSession& session, const SItem& item) {
  const CConfigStore* store = CConfigStore::Of(session.Config());
  if (!store || !item.group) return {};
  return store->GetPrograms(item.group);
}

DWORD FindRunning(const CSession& session, SScanResults& results, std::vector<SHolder>& holders) {
  holders.clear();
  std::vector<std::vector<std::wstring>> programs;
  std::vector<std::wstring> asked;
  for (const SItemResult& r : results.items) {
    programs.push_back(ProgramsOf(session, r.item));
    for (const std::wstring& image : programs.back()) CImageNames::Add(asked, image);
  }
  CRunningPrograms running;
  DWORD error = asked.empty() ? ERROR_SUCCESS : running.Take(asked);
  for (size_t i = 0; i < results.items.size(); ++i) {
    SItemResult& r = results.items[i];
    r.running.clear();
    for (const std::wstring& image : programs[i]) {
      if (error == ERROR_SUCCESS && !running.IsRunning(image)) continue;
      r.running.push_back(image);
      if (!r.files) continue;
      SHolder* holder = nullptr;
      for (SHolder& h : holders)
        if (CImageNames::Same(h.image, image)) holder = &h;
      if (!holder) {
        holders.emplace_back();
        holder = &holders.back();
        holder->image = image;
        holder->processes = running.Count(image);
        holder->name = ProgramGroup(r.item.path);
        if (holder->name.empty()) holder->name = WithoutExe(image);
      }
      holder->items.push_back(r.item.path);
    }
  }
  return error;
}

bool SkipItem(SItemResult& r, const wchar_t* why, SGuardSummary& guard) {
  if (!r.skipped.empty()) return false;
  r.skipped = why;
  if (!r.refusal.empty()) return true;  // the guard counted none of it as allowed
  for (const SHit& hit : r.hits) {
    if (!hit.refusal.IsEmpty()) continue;
    --guard.allowedFiles;
    guard.allowedBytes -= hit.size;
  }
  return true;
}

size_t SkipRunning(SScanResults& results, SGuardSummary& guard) {
  size_t skipped = 0;
  for (SItemResult& r : results.items)
    if (!r.running.empty() && r.files) skipped += SkipItem(r, L"running", guard);
  return skipped;
}

std::vector<std::wstring> HolderImages(const std::vector<SHolder>& holders) {
  std::vector<std::wstring> images;
  for (const SHolder& h : holders) CImageNames::Add(images, h.image);
  return images;
}

std::wstring ProgramNameOf(const SItemResult& item) {
  std::wstring name = ProgramGroup(item.item.path);
  if (name.empty() && !item.running.empty()) name = WithoutExe(item.running.front());
  return name.empty() ? std::wstring(L"its program") : name;
}

std::wstring HolderTitle(const SHolder& holder) {
  if (CImageNames::Same(holder.name, WithoutExe(holder.image))) return holder.image;
  return holder.name + L" (" + holder.image + L")";
}

std::wstring CloseOutcomeText(const CProgramCloser::SResult& result, DWORD timeoutMs) {
  switch (result.outcome) {
    case CProgramCloser::notRunning:
      return L"was not running any more";
    case CProgramCloser::closed:
      return L"closed";
    case CProgramCloser::noWindow:
      return L"has no window to ask, so it was not asked to close";
    case CProgramCloser::stillRunning:
      break;
  }
  return L"did not close within " + Plural((timeoutMs + 999) / 1000, L"second", L"seconds") + L" (" +
         Plural(result.after, L"process", L"processes") + L" still running)";
}

}  // namespace host
