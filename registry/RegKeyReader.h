#pragma once
// Listing an open key: its values (names, types, bytes) and subkey names.
// Internal to the engine.
#include <windows.h>

#include <string>
#include <vector>

namespace broom {
namespace reg {

struct SValue {
  std::wstring name;
  DWORD type = REG_NONE;
  DWORD size = 0;
  std::vector<BYTE> data;  // filled only when asked for
};

// Every value of the key; data only when withData. Retries when a value
// grows while it is read. Returns a Win32 status.
LONG ReadValues(HKEY key, bool withData, std::vector<SValue>& out);
// The names of the key's direct subkeys.
LONG ReadSubkeyNames(HKEY key, std::vector<std::wstring>& out);
// One value; ERROR_FILE_NOT_FOUND when it is not there.
LONG ReadValue(HKEY key, const std::wstring& name, SValue& out);
// Sum of the data sizes of every value at and below the key (what cannot
// be read counts nothing). Subkeys are opened with view.
unsigned __int64 TreeDataSize(HKEY key, REGSAM view);

// Writes bytes exactly: the registry would otherwise add a terminator to
// string data that lacks one when a NUL happens to follow it in memory.
LONG WriteValue(HKEY key, const std::wstring& name, DWORD type, const std::vector<BYTE>& data);

}  // namespace reg
}  // namespace broom
