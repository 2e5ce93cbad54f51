#pragma once
// The writer interface of the scan logs: callers hand it entries and never
// test for a missing log (a writer that does nothing stands in for one).
#include <windows.h>
#include <unknwn.h>

#include "atl/CString.h"
#include "core/RefCounting.h"

struct ILogWriter : public IUnknown {
  // Queues one entry, followed by CR LF when newLine is true.
  virtual void WriteEntry(const CString& text, bool newLine) = 0;
};

// {b19db8af-43e9-4424-a069-34c4d43fd6bb}
inline constexpr IID IID_ILogWriter = {0xb19db8af, 0x43e9, 0x4424, {0xa0, 0x69, 0x34, 0xc4, 0xd4, 0x3f, 0xd6, 0xbb}};
BROOM_DECLARE_IID(ILogWriter, IID_ILogWriter);
