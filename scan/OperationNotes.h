#pragma once
// Notes an operation keeps about what a scan left alone on purpose (a link
// on a rule's path, a record that does not parse), for the host to show
// beside the results. A host asks for them after each PerformScan:
//
//   if (auto* notes = dynamic_cast<IOperationNotes*>(op)) for (auto& n : notes->TakeScanNotes()) ...
#include <vector>

#include "atl/CString.h"

class IOperationNotes {
 public:
  // The notes of the last scan, in the order they arose; cleared.
  virtual std::vector<CString> TakeScanNotes() = 0;

 protected:
  ~IOperationNotes() = default;
};
