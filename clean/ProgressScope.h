#pragma once
// What a cleanable item tells a progress notify, when it is given one: a
// total of one step as the work starts, and Finish when it ends, however
// it ends.
#include "scan/OperationNotify.h"

class CProgressScope {
 public:
  explicit CProgressScope(IOperationProgressNotify* progress) : m_progress(progress) {
    if (m_progress) m_progress->SetTotal(1);
  }
  ~CProgressScope() {
    if (m_progress) m_progress->Finish();
  }
  CProgressScope(const CProgressScope&) = delete;
  CProgressScope& operator=(const CProgressScope&) = delete;

 private:
  IOperationProgressNotify* m_progress;
};
