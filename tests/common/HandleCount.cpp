#include "common/HandleCount.h"

#include <winternl.h>

#include <vector>

namespace broomtest {
namespace {

struct HandleEntry {
  ULONG ownerPid;
  BYTE objectType;
  BYTE flags;
  USHORT handle;
  PVOID object;
  ULONG access;
};
struct HandleTable {
  ULONG count;
  HandleEntry entries[1];
};
constexpr ULONG kSystemHandleInformation = 16;
constexpr NTSTATUS kInfoLengthMismatch = static_cast<NTSTATUS>(0xC0000004L);

bool g_allowGrowth = false;
long g_extraHandles = 0;

}  // namespace

unsigned long ProcessHandleCount() {
  using QueryFn = NTSTATUS(WINAPI*)(ULONG, PVOID, ULONG, PULONG);
  static auto query = reinterpret_cast<QueryFn>(reinterpret_cast<void*>(
      GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
  if (!query) return 0;
  std::vector<char> buffer(1 << 18);
  for (;;) {
    ULONG needed = 0;
    NTSTATUS status = query(kSystemHandleInformation, buffer.data(),
                            static_cast<ULONG>(buffer.size()), &needed);
    if (status == kInfoLengthMismatch) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (status != 0) return 0;
    break;
  }
  const auto* table = reinterpret_cast<const HandleTable*>(buffer.data());
  const ULONG pid = GetCurrentProcessId();
  unsigned long n = 0;
  for (ULONG i = 0; i < table->count; ++i)
    if (table->entries[i].ownerPid == pid) ++n;
  return n;
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
