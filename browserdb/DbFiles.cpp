#include "browserdb/DbFiles.h"

#include <cstring>
#include <cwchar>

#include "core/Handles.h"

namespace broom {
namespace browserdb {

const wchar_t* const kDatabaseSuffixes[3] = {L"", L"-wal", L"-journal"};

namespace {

constexpr DWORD kChunk = 1 << 20;
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

class CSha256 {
 public:
  CSha256() {
    if (BCryptOpenAlgorithmProvider(m_alg.addressof(), BCRYPT_SHA256_ALGORITHM, nullptr, 0) < 0) return;
    if (BCryptCreateHash(m_alg.get(), m_hash.addressof(), nullptr, 0, nullptr, 0, 0) < 0) m_hash.reset();
  }
  bool Valid() const { return m_hash.valid(); }
  bool Add(const void* data, size_t length) {
    return BCryptHashData(m_hash.get(), static_cast<PUCHAR>(const_cast<void*>(data)), static_cast<ULONG>(length), 0) >= 0;
  }
  bool Finish(unsigned char (&digest)[32]) { return BCryptFinishHash(m_hash.get(), digest, 32, 0) >= 0; }

 private:
  unique_bcrypt_alg m_alg;
  unique_bcrypt_hash m_hash;
};

// Hashes the whole file; false when it cannot be read whole.
bool HashFile(HANDLE file, CSha256& hash, uint64_t& bytes, std::vector<char>& buffer) {
  bytes = 0;
  for (;;) {
    DWORD read = 0;
    if (!ReadFile(file, buffer.data(), kChunk, &read, nullptr)) return false;
    if (read == 0) return true;
    if (!hash.Add(buffer.data(), read)) return false;
    bytes += read;
  }
}

}  // namespace

bool FileExists(const std::wstring& path) {
  DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
}

uint64_t FileBytes(const std::wstring& path) {
  WIN32_FILE_ATTRIBUTE_DATA data{};
  if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data) ||
      (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
    return 0;
  return (static_cast<uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

uint64_t DatabaseBytes(const std::wstring& database) {
  uint64_t total = 0;
  for (const wchar_t* suffix : kDatabaseSuffixes) total += FileBytes(database + suffix);
  return total;
}

std::wstring ChecksumFiles(const std::wstring& database) {
  CSha256 hash;
  if (!hash.Valid()) return std::wstring();
  std::vector<char> buffer(kChunk);
  for (const wchar_t* suffix : kDatabaseSuffixes) {
    const std::wstring path = database + suffix;
    unique_hfile file(CreateFileW(path.c_str(), GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING,
                                  FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    DWORD error = file ? ERROR_SUCCESS : GetLastError();
    if (!file && *suffix == 0) return std::wstring();
    if (!file && error != ERROR_FILE_NOT_FOUND) return std::wstring();
    // each file as: suffix, presence, its bytes, their count
    hash.Add(suffix, wcslen(suffix) * sizeof(wchar_t) + sizeof(wchar_t));
    unsigned char present = file ? 1 : 0;
    hash.Add(&present, 1);
    uint64_t bytes = 0;
    if (file && !HashFile(file.get(), hash, bytes, buffer)) return std::wstring();
    hash.Add(&bytes, sizeof bytes);
  }
  unsigned char digest[32];
  if (!hash.Finish(digest)) return std::wstring();
  std::wstring text = L"sha256:";
  static const wchar_t kHex[] = L"0123456789abcdef";
  for (unsigned char byte : digest) {
    text += kHex[byte >> 4];
    text += kHex[byte & 15];
  }
  return text;
}

DWORD CopyVerified(const std::wstring& source, const std::wstring& target) {
  unique_hfile from(CreateFileW(source.c_str(), GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING,
                                FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
  if (!from) return GetLastError();
  unique_hfile to(CreateFileW(target.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                              FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!to) return GetLastError();
  auto fail = [&](DWORD error) {
    to.reset();
    DeleteFileW(target.c_str());
    return error ? error : ERROR_GEN_FAILURE;
  };
  CSha256 read, back;
  if (!read.Valid() || !back.Valid()) return fail(ERROR_NOT_SUPPORTED);
  std::vector<char> buffer(kChunk);
  for (;;) {
    DWORD got = 0, written = 0;
    if (!ReadFile(from.get(), buffer.data(), kChunk, &got, nullptr)) return fail(GetLastError());
    if (got == 0) break;
    if (!read.Add(buffer.data(), got)) return fail(ERROR_GEN_FAILURE);
    if (!WriteFile(to.get(), buffer.data(), got, &written, nullptr) || written != got) return fail(GetLastError());
  }
  if (!FlushFileBuffers(to.get())) return fail(GetLastError());
  LARGE_INTEGER start{};
  if (!SetFilePointerEx(to.get(), start, nullptr, FILE_BEGIN)) return fail(GetLastError());
  uint64_t bytes = 0;
  if (!HashFile(to.get(), back, bytes, buffer)) return fail(GetLastError());
  unsigned char a[32], b[32];
  if (!read.Finish(a) || !back.Finish(b) || memcmp(a, b, sizeof a) != 0) return fail(ERROR_CRC);
  return ERROR_SUCCESS;
}

}  // namespace browserdb
}  // namespace broom
