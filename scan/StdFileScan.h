#pragma once
// The two built-in scan operations: hits become items to delete
// (CStdFileScan) or files to empty (CStdFileScan_trunc).
#include "core/Export.h"
#include "core/RefCounting.h"
#include "scan/BaseFileScan.h"
#include "scan/ScanOperation.h"

class BROOM_API CStdFileScan : public CBaseFileScan, public IScanOperation {
 public:
  CStdFileScan() = default;
  CStdFileScan(const CStdFileScan&) = default;
  CStdFileScan& operator=(const CStdFileScan&) = default;

  void PerformScan(IResultsCollector* collector, IOperationProgressNotify* progress, IOperationStatusNotify* status,
                   CWhiteListTree* whiteList) override;
  bool ReportsProgress() const override { return true; }

 protected:
  void OnFile(const CPathString& folder, const WIN32_FIND_DATAW& entry) override;
  void ProcessHit(const CPathString& folder, const WIN32_FIND_DATAW& entry, unsigned int extra) override;
  // Reports the folder as a CCleanableEmptyFolder (see SetRemoveEmptied).
  bool OnEmptiedFolder(const CPathString& path, const WIN32_FIND_DATAW& entry) override;
  // Initialises, logs and reports one item.
  void Report(class CCleanableFile* item, const CPathString& folder, const WIN32_FIND_DATAW& entry);

  CRefPtr<IResultsCollector> m_collector;
};

class BROOM_API CStdFileScan_trunc : public CStdFileScan {
 protected:
  // Empty files are skipped: there is nothing to cut.
  void ProcessHit(const CPathString& folder, const WIN32_FIND_DATAW& entry, unsigned int extra) override;
};
