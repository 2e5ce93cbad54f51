#pragma once
// A results collector that keeps what a scan reports, and notifiers that
// ignore everything, for tests that drive scans.
#include <vector>

#include "clean/CleanableFile.h"
#include "core/RefCounting.h"
#include "scan/OperationNotify.h"
#include "scan/ScanOperation.h"

namespace broomtest {

// Lives on the stack: counts references without owning itself, so a test can
// see whether the scan kept one.
class Collector : public IResultsCollector {
 public:
  void AddItem(ICleanableItem* item) override { items.emplace_back(item); }
  std::vector<CRefPtr<ICleanableItem>> items;
};
using StackCollector = CUnknownFoundation<Collector, CRefCount<0>, CIUnknownOnly, CDontDelete>;

struct NullProgress : IOperationProgressNotify {
  void SetTotal(int) override {}
  void Finish() override {}
  void SetPosition(int) override {}
};

struct NullStatus : IOperationStatusNotify {
  void SetCurrentFolder(const CString&) override {}
  bool IsCancelled() override { return false; }
  void OnItem(const wchar_t*, int) override {}
};

}  // namespace broomtest
