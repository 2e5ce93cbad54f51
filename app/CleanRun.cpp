#include "app/CleanRun.h"

#include "app/Quarantine.h"
#include "clean/CleanItems.h"
#include "clean/ResultCodes.h"

namespace host {

SGuardSummary ApplyGuard(const CSession& session, const CBlastGuard& guard, SScanResults& results, bool force) {
  SGuardSummary summary;
  std::vector<SRefusal> whole;
  for (SItemResult& r : results.items) {
    r.refusal.clear();
    CBlastGuard::SVerdict totals = guard.CheckTotals(r.files, r.size);
    if (!totals.allowed && !force) {
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
  return summary;
}

SCleanReport CleanHits(const CSession& session, SScanResults& results, CQuarantine* quarantine,
                       ICleanObserver& observer) {
  SCleanReport report;
  unsigned __int64 total = 0, index = 0;
  for (const SItemResult& r : results.items)
    if (r.refusal.empty())
      for (const SHit& hit : r.hits) total += hit.refusal.IsEmpty();

  auto account = [&](const SHit& hit, DWORD result) {
    if (result == kCleanDone || result == kCleanAlternateRemoved) {
      ++report.done;
      report.freed += hit.size;
    } else {
      ++report.failed;
      report.failures.emplace_back(hit.path, result);
      observer.OnFailure(hit.path, ExplainResult(result));
    }
  };
  std::vector<const SHit*> run;
  std::vector<ICleanableItem*> runItems;
  std::vector<DWORD> runResults;
  auto flush = [&] {
    if (run.empty()) return;
    runResults.assign(run.size(), 0);
    CleanItems(runItems.data(), runItems.size(), runResults.data());
    for (size_t i = 0; i < run.size(); ++i) account(*run[i], runResults[i]);
    run.clear();
    runItems.clear();
  };
  for (SItemResult& r : results.items) {
    if (!r.refusal.empty()) continue;  // never half of a runaway item
    for (SHit& hit : r.hits) {
      if (!hit.refusal.IsEmpty() || !hit.item) continue;
      if (observer.IsCancelled()) {
        report.cancelled = true;
        break;
      }
      observer.OnProgress(++index, total, hit.path);
      if (quarantine) {
        std::wstring refused = quarantine->CannotHold(hit.path);
        if (!refused.empty()) {
          ++report.failed;
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
    if (report.cancelled) break;
  }
  flush();
  report.untouched = total - report.done - report.failed;
  return report;
}

}  // namespace host
