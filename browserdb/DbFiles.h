#pragma once
// The files of a SQLite database on disk: sizes, a checksum over them, and
// copies read back before they count. Internal to the engine.
#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

namespace broom {
namespace browserdb {

// The suffixes of a database's files: the database itself, -wal, -journal.
extern const wchar_t* const kDatabaseSuffixes[3];

bool FileExists(const std::wstring& path);
uint64_t FileBytes(const std::wstring& path);  // 0 when absent
// The database with its -wal and -journal.
uint64_t DatabaseBytes(const std::wstring& database);

// "sha256:<hex>" over the three files' presence, sizes and bytes; empty
// when the database itself cannot be read.
std::wstring ChecksumFiles(const std::wstring& database);

// Copies source to a new file target (which must not exist), then reads the
// copy back and compares it with what was read; 0 or the Win32 error, and
// then no copy is left.
DWORD CopyVerified(const std::wstring& source, const std::wstring& target);

}  // namespace browserdb
}  // namespace broom
