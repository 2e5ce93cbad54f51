#pragma once
#include <windows.h>

namespace broomtest {

// Number of handles this process holds, as the system's handle table reports it.
// GetProcessHandleCount answers 0 under Wine, so the table is read instead.
unsigned long ProcessHandleCount();

// Marks the running test as one that may leave handles open on purpose
// (process-wide threads created on first use); the leak check skips it.
void AllowHandleGrowth();

}  // namespace broomtest
