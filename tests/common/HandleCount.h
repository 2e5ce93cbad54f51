#pragma once
#include <windows.h>

namespace broomtest {

// Number of handles this process holds, as the system's handle table reports it.
// GetProcessHandleCount answers 0 under Wine, so the table is read instead.
unsigned long ProcessHandleCount();

// Marks the running test as one that may leave handles open on purpose
// (process-wide threads created on first use); the leak check skips it.
void AllowHandleGrowth();

// Lets the running test end with `count` more handles than it started with:
// for handles the system keeps on its own behalf (Wine holds one for every
// Unix program a test launches).
void AllowExtraHandles(long count);

}  // namespace broomtest
