#pragma once
// The scan operation of "recyclebin" definitions: the entries of the
// current user's Recycle Bin on every fixed drive, X:\$Recycle.Bin\<SID>,
// reported as CRecycleBinItem items.
//
// Each $I record is paired with the $R data of the same suffix; either
// alone is an orphan item of its own. A record that does not parse is left
// alone with its data and noted (GetNotes). A bin folder or $Recycle.Bin
// that is a link is never entered. An entry is not reported when the
// whitelist protects its data, its record, anything inside its data or its
// original path.
//
// Age filters work as on file scans (CBaseFileScan::AddFilter): each is
// asked about the item's GetAgeEntry(), whose times are the deletion time,
// so an age filter keeps what was deleted less than its days ago. A host
// applies its own --older-than the same way, adding a
// CBaseFileScan::_FilterRejectRecentFiles_Impl for the run and removing it
// afterwards.
#include <windows.h>

#include <list>
#include <string>
#include <vector>

#include "core/Export.h"
#include "core/RefCounting.h"
#include "scan/BaseFileScan.h"
#include "scan/ScanOperation.h"

class BROOM_API CRecycleBinScan : public IScanOperation {
 public:
  // Something a scan left alone, and why.
  struct SNote {
    std::wstring path;
    std::wstring reason;
  };

  CRecycleBinScan() = default;

  void PerformScan(IResultsCollector* collector, IOperationProgressNotify* progress, IOperationStatusNotify* status,
                   CWhiteListTree* whiteList) override;
  bool ReportsProgress() const override { return true; }

  void AddFilter(CBaseFileScan::IFilter* filter) { m_filters.emplace_back(filter); }
  void RemoveFilter(CBaseFileScan::IFilter* filter) {
    m_filters.remove_if([filter](const CRefPtr<CBaseFileScan::IFilter>& f) { return f.Get() == filter; });
  }
  const std::list<CRefPtr<CBaseFileScan::IFilter>>& GetFilters() const { return m_filters; }

  // The drives to look at, as "C:\" (default: every fixed drive).
  void SetDrives(const std::vector<std::wstring>& roots) { m_drives = roots; }
  // The notes of the last scan.
  const std::vector<SNote>& GetNotes() const { return m_notes; }

  // The current user's SID as text ("S-1-5-21-..."); empty when it cannot be read.
  static std::wstring CurrentUserSid();

 protected:
  void ScanBin(const std::wstring& bin, IResultsCollector* collector, IOperationStatusNotify* status,
               CWhiteListTree* whiteList);

  std::list<CRefPtr<CBaseFileScan::IFilter>> m_filters;
  std::vector<std::wstring> m_drives;
  std::vector<SNote> m_notes;
};
