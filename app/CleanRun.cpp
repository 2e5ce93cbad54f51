#include "app/CleanRun.h"

#include <map>

#include "app/Quarantine.h"
#include "app/Text.h"
#include "clean/CleanItems.h"
#include "clean/CleanableFolder.h"
#include "clean/ResultCodes.h"
#include "core/Names.h"
#include "recyclebin/RecycleBinScan.h"

namespace host {

bool IsRecycleBinItem(const SItem& item) {
  CRefPtr<TIteratorIface<CRefPtr<IScanOperation>>> ops;
  if (item.group) item.group->GetScanOps(ops);
  bool any = false;
  for (; ops && !ops->AtEnd(); ops->Next()) {
    if (!dynamic_cast<CRecycleBinScan*>(ops->Current()->Get())) return false;
    any = true;
  }
  return any;
}

SGuardSummary ApplyGuard(const CSession& session, const CBlastGuard& guard, SScanResults& results, bool force) {
  SGuardSummary summary;
  std::vector<SRefusal> whole;
  for (SItemResult& r : results.items) {
    r.refusal.clear();
    CBlastGuard::SVerdict totals = guard.CheckTotals(r.files, r.size);
    if (!totals.allowed && !force && !IsRecycleBinItem(r.item)) {
      r.refusal = totals.reason.GetString();
      whole.push_back({r.item.path, std::wstring(), r.refusal});
    }
    // Hits of one operation come together: its pattern is looked up once.
    const IScanOperation* op = nullptr;
    SOperationSource source;
    bool known = false;
    for (SHit& hit : r.hits) {
      if (hit.op != op || !known) {
        op = hit.op;
        known = session.SourceOf(hit, source);
      }
      CBlastGuard::SVerdict verdict = hit.item ? guard.Check(hit.item, known ? source.text.GetString() : nullptr)
                                               : guard.CheckPath(hit.path.c_str(), false,
                                                                 known ? source.text.GetString() : nullptr);
      hit.refusal = verdict.reason;
      hit.userFolder = verdict.userFolder;
      if (!verdict.allowed) {
        summary.refusals.push_back({r.item.path, hit.path, verdict.reason.GetString()});
        ++summary.refusedFiles;
        summary.refusedBytes += hit.size;
        continue;
      }
      if (!hit.userFolder.IsEmpty()) ++summary.markedFiles;
      if (r.refusal.empty()) {
        ++summary.allowedFiles;
        summary.allowedBytes += hit.size;
      }
    }
    if (!r.refusal.empty()) {
      // Hits kept for listing only (keepTotals keeps none): count the item whole.
      unsigned __int64 counted = 0;
      for (const SHit& hit : r.hits) counted += hit.refusal.IsEmpty();
      summary.refusedFiles += r.hits.empty() ? r.files : counted;
      summary.refusedBytes += r.size;
    }
  }
  summary.refusals.insert(summary.refusals.end(), whole.begin(), whole.end());
  RefuseFoldersOfKeptHits(results, summary);
  return summary;
}

void RefuseFoldersOfKeptHits(SScanResults& results, SGuardSummary& summary) {
  // Every folder above a kept hit, folded, with the hit that keeps it.
  std::map<std::wstring, std::pair<std::wstring, std::wstring>> holders;
  auto hold = [&](const std::wstring& path, const std::wstring& reason) {
    for (std::wstring folder = broom::ParentOf(path); folder.size() > 3; folder = broom::ParentOf(folder))
      if (!holders.emplace(broom::Upper(folder), std::make_pair(path, reason)).second) break;
  };
  for (const SItemResult& r : results.items)
    for (const SHit& hit : r.hits)
      if (!hit.refusal.IsEmpty() || !r.refusal.empty())
        hold(hit.path, hit.refusal.IsEmpty() ? r.refusal : std::wstring(hit.refusal.GetString()));
  if (holders.empty()) return;
  // Folders come after what they hold, so a folder kept here keeps its parents too.
  for (SItemResult& r : results.items) {
    if (!r.refusal.empty()) continue;
    for (SHit& hit : r.hits) {
      if (!hit.refusal.IsEmpty() || !dynamic_cast<CCleanableEmptyFolder*>(hit.item.Get())) continue;
      auto found = holders.find(broom::Upper(hit.path));
      if (found == holders.end()) continue;
      const std::wstring reason = L"it holds " + Quoted(found->second.first) + L", which stays (" +
                                  found->second.second + L")";
      hit.refusal = reason.c_str();
      summary.refusals.push_back({r.item.path, hit.path, reason});
      ++summary.refusedFiles;
      summary.refusedBytes += hit.size;
      --summary.allowedFiles;
      summary.allowedBytes -= hit.size;
      if (!hit.userFolder.IsEmpty()) --summary.markedFiles;
      hold(hit.path, reason);
    }
  }
}

SCleanReport CleanHits(const CSession& session, SScanResults& results, CQuarantine* quarantine,
                       ICleanObserver& observer, bool overwrite) {
  SCleanReport report;
  unsigned __int64 total = 0, index = 0;
  for (const SItemResult& r : results.items)
    if (r.refusal.empty() && r.skipped.empty())
      for (const SHit& hit : r.hits) total += hit.refusal.IsEmpty();

  auto account = [&](SHit& hit, DWORD result) {
    hit.tried = true;
    hit.result = result;
    if (result == kCleanDone || result == kCleanAlternateRemoved) {
      ++report.done;
      report.freed += hit.size;
    } else {
      ++report.failed;
      hit.failure = ExplainResult(result);
      report.failures.emplace_back(hit.path, result);
      observer.OnFailure(hit.path, hit.failure);
    }
  };
  std::vector<SHit*> run;
  std::vector<ICleanableItem*> runItems;
  std::vector<DWORD> runResults;
  auto flush = [&] {
    if (run.empty()) return;
    runResults.assign(run.size(), 0);
    CleanItems(runItems.data(), runItems.size(), runResults.data(), overwrite);
    for (size_t i = 0; i < run.size(); ++i) account(*run[i], runResults[i]);
    run.clear();
    runItems.clear();
  };
  for (SItemResult& r : results.items) {
    if (!r.refusal.empty()) continue;  // never half of a runaway item
    if (!r.skipped.empty()) continue;  // a running program's, or the bin under a quarantine
    unsigned __int64 taken = 0, toTake = 0;
    for (const SHit& hit : r.hits) toTake += hit.refusal.IsEmpty() && hit.item;
    if (report.cancelled) {
      report.untouchedItems += toTake != 0;
      continue;
    }
    for (SHit& hit : r.hits) {
      if (!hit.refusal.IsEmpty() || !hit.item) continue;
      if (observer.IsCancelled()) {
        report.cancelled = true;
        if (taken) {
          report.partItem = r.item.path;
          report.partDone = taken;
          report.partTotal = toTake;
        } else {
          ++report.untouchedItems;
        }
        break;
      }
      ++taken;
      observer.OnProgress(++index, total, hit.path);
      if (quarantine) {
        std::wstring refused = quarantine->CannotHold(hit.path);
        if (!refused.empty()) {
          ++report.failed;
          hit.tried = true;
          hit.result = kMoveException;
          hit.failure = refused;
          report.failures.emplace_back(hit.path, kQuarantineMoveFailed);
          observer.OnFailure(hit.path, refused);
        } else {
          SOperationSource source;
          account(hit, quarantine->Add(hit, r.item.path, session.SourceOf(hit, source) ? &source : nullptr));
        }
        continue;
      }
      run.push_back(&hit);
      runItems.push_back(hit.item.Get());
      if (run.size() == kCleanRun) flush();
    }
  }
  flush();
  report.untouched = total - report.done - report.failed;
  return report;
}

}  // namespace host
