#pragma once
// Callbacks the host implements to follow a scan. Plain interfaces without
// reference counting, called synchronously on the scanning thread.
#include "atl/CString.h"

struct IOperationProgressNotify {
  virtual void SetTotal(int total) = 0;
  virtual void Finish() = 0;
  virtual void SetPosition(int position) = 0;

 protected:
  ~IOperationProgressNotify() = default;
};

struct IOperationStatusNotify {
  // kinds passed to OnItem
  enum { itemFolder = 1, itemFile = 2 };

  virtual void SetCurrentFolder(const CString& folder) = 0;
  virtual bool IsCancelled() = 0;
  // Kept for hosts built against the full interface; the engine never calls it.
  virtual void SetStatusText(const wchar_t*) {}
  virtual void OnItem(const wchar_t* name, int kind) = 0;

 protected:
  ~IOperationStatusNotify() = default;
};
