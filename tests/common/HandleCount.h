#pragma once
#include <windows.h>

namespace broomtest {

// Number of handles this process holds.
unsigned long ProcessHandleCount();

// Marks the running test as one that may leave handles open on purpose
// (process-wide threads created on first use); the leak check skips it.
void AllowHandleGrowth();

// Lets the running test end with `count` more handles than it started with:
// for handles the system keeps on its own behalf (Wine holds one for every
// Unix program a test launches).
void AllowExtraHandles(long count);

}  // namespace broomtest
