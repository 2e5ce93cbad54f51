#pragma once
// What a scan definition item runs, and where its hits go.
#include <unknwn.h>

class CWhiteListTree;
struct ICleanableItem;
struct IOperationProgressNotify;
struct IOperationStatusNotify;

// Implemented by the host: receives every hit of a scan on the scanning
// thread; takes its own reference on an item it keeps.
struct IResultsCollector : public IUnknown {
  virtual void AddItem(ICleanableItem* item) = 0;
};

struct IScanOperation : public IUnknown {
  virtual void PerformScan(IResultsCollector* collector, IOperationProgressNotify* progress,
                           IOperationStatusNotify* status, CWhiteListTree* whiteList) = 0;
  virtual bool ReportsProgress() const = 0;
};
