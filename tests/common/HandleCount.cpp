#include "common/HandleCount.h"

namespace broomtest {
namespace {

bool g_allowGrowth = false;
long g_extraHandles = 0;

}  // namespace

// Under Wine, GetProcessHandleCount answers 0, and reading the system-wide
// handle table (NtQuerySystemInformation) crashes Wine 8's server whenever
// another process holds no handle at that moment, such as one starting up;
// every program of the run then loses its server. So each handle value is
// asked after in turn instead. Values are slot numbers times four and the
// lowest free slot is handed out first, so the table is dense from the
// bottom: the walk ends after a run of free slots above the highest handle
// any earlier count met.
unsigned long ProcessHandleCount() {
  DWORD reported = 0;
  if (GetProcessHandleCount(GetCurrentProcess(), &reported) && reported != 0) return reported;
  constexpr ULONG_PTR kStep = 4;
  constexpr unsigned kFreeRun = 256;
  static ULONG_PTR highest = 0;
  unsigned long count = 0;
  unsigned freeSlots = 0;
  for (ULONG_PTR value = kStep; freeSlots < kFreeRun || value <= highest; value += kStep) {
    DWORD flags = 0;
    if (GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags)) {
      ++count;
      freeSlots = 0;
      if (value > highest) highest = value;
    } else {
      ++freeSlots;
    }
  }
  return count;
}

void AllowHandleGrowth() { g_allowGrowth = true; }

void AllowExtraHandles(long count) {
  if (count > 0) g_extraHandles += count;
}

long TakeExtraHandles() {
  long extra = g_extraHandles;
  g_extraHandles = 0;
  return extra;
}

bool TakeAllowHandleGrowth() {
  bool allowed = g_allowGrowth;
  g_allowGrowth = false;
  return allowed;
}

}  // namespace broomtest
