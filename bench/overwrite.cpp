// Overwriting before deleting (CFileOverwrite::OverwriteAndDelete: zeros
// over the allocated length, flushed, renamed, deleted) against a plain
// WriteFile of zeros over the same files (opened, written, closed; goal: at
// least 0.8 of its rate), and against the least an overwrite that reaches
// the disk and deletes must do: the same writes, FlushFileBuffers and a
// delete through the handle, and the same with the rename an overwrite makes
// before the delete. Two sets: a few large files, where the
// writing counts, and many small ones, where the calls per file do. Prints
// the rates and the ratios per round and the median of the rounds.
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "clean/FileOverwrite.h"

namespace {

std::vector<char> g_zeros(1 << 20, 0);

struct SSet {
  const char* name;
  int files;
  DWORD size;
};

std::vector<std::wstring> MakeFiles(const std::wstring& folder, const SSet& set) {
  CreateDirectoryW(folder.c_str(), nullptr);
  std::vector<char> data(set.size, 'x');
  std::vector<std::wstring> paths;
  for (int i = 0; i < set.files; ++i) {
    std::wstring path = folder + L"\\f" + std::to_wstring(i) + L".dat";
    HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    DWORD written = 0;
    WriteFile(h, data.data(), set.size, &written, nullptr);
    FlushFileBuffers(h);
    CloseHandle(h);
    paths.push_back(path);
  }
  return paths;
}

void RemoveFiles(const std::wstring& folder, const std::vector<std::wstring>& paths) {
  for (const auto& path : paths) DeleteFileW(path.c_str());
  RemoveDirectoryW(folder.c_str());
}

double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

enum EFinish { writesOnly, flushDelete, flushRenameDelete };

// Zeros written over each file's length; then flushed and deleted through
// the same handle, and renamed first (to a name of the same length in its
// folder, as an overwrite renames it) when asked.
double PlainWrites(const std::vector<std::wstring>& paths, EFinish finish) {
  auto t0 = std::chrono::steady_clock::now();
  std::vector<BYTE> rename(sizeof(FILE_RENAME_INFO) + MAX_PATH * sizeof(wchar_t));
  for (const auto& path : paths) {
    HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE | (finish != writesOnly ? DELETE : 0), 0, nullptr,
                           OPEN_EXISTING, 0, nullptr);
    LARGE_INTEGER size = {};
    GetFileSizeEx(h, &size);
    for (LONGLONG left = size.QuadPart; left > 0;) {
      DWORD chunk = static_cast<DWORD>(std::min<LONGLONG>(left, static_cast<LONGLONG>(g_zeros.size())));
      DWORD written = 0;
      WriteFile(h, g_zeros.data(), chunk, &written, nullptr);
      left -= chunk;
    }
    if (finish != writesOnly) {
      FlushFileBuffers(h);
      if (finish == flushRenameDelete) {
        std::wstring other = path;
        other[other.size() - 5] = L'z';  // "f12.dat" -> "f1z.dat"
        auto* info = reinterpret_cast<FILE_RENAME_INFO*>(rename.data());
        info->ReplaceIfExists = FALSE;
        info->RootDirectory = nullptr;
        info->FileNameLength = static_cast<DWORD>(other.size() * sizeof(wchar_t));
        memcpy(info->FileName, other.c_str(), (other.size() + 1) * sizeof(wchar_t));
        SetFileInformationByHandle(h, FileRenameInfo, info, static_cast<DWORD>(rename.size()));
      }
      FILE_DISPOSITION_INFO disposition = {TRUE};
      SetFileInformationByHandle(h, FileDispositionInfo, &disposition, sizeof disposition);
    }
    CloseHandle(h);
  }
  return Seconds(t0);
}

double Overwrites(const std::vector<std::wstring>& paths, int& failures) {
  auto t0 = std::chrono::steady_clock::now();
  for (const auto& path : paths) failures += CFileOverwrite::OverwriteAndDelete(path.c_str()) != 0;
  return Seconds(t0);
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main() {
  wchar_t temp[MAX_PATH];
  GetTempPathW(MAX_PATH, temp);
  const SSet sets[] = {{"large", 32, 4u << 20}, {"small", 1000, 4096}};
  constexpr int kRounds = 5;
  int failures = 0;
  for (const SSet& set : sets) {
    std::wstring folder = std::wstring(temp) + L"broom-bench-overwrite";
    double megabytes = static_cast<double>(set.files) * set.size / (1 << 20);
    std::vector<double> plainRatios, floorRatios, renameRatios;
    for (int round = 1; round <= kRounds; ++round) {
      std::vector<std::wstring> paths = MakeFiles(folder, set);
      double plain = PlainWrites(paths, writesOnly);
      double overwrite = Overwrites(paths, failures);
      paths = MakeFiles(folder, set);
      double floor = PlainWrites(paths, flushDelete);
      paths = MakeFiles(folder, set);
      double renamed = PlainWrites(paths, flushRenameDelete);
      RemoveFiles(folder, paths);
      plainRatios.push_back(plain / overwrite);
      floorRatios.push_back(floor / overwrite);
      renameRatios.push_back(renamed / overwrite);
      printf("%s round %d: %d files, %.1f MB: plain writes %.1f MB/s, overwrite %.1f MB/s, writes+flush+delete"
             " %.1f MB/s, writes+flush+rename+delete %.1f MB/s; ratio %.2f to plain writes, %.2f to"
             " writes+flush+delete, %.2f to writes+flush+rename+delete\n",
             set.name, round, set.files, megabytes, megabytes / plain, megabytes / overwrite, megabytes / floor,
             megabytes / renamed, plain / overwrite, floor / overwrite, renamed / overwrite);
    }
    printf("%s median: overwrite/plain writes %.2f (goal >= 0.80), overwrite/(writes+flush+delete) %.2f,"
           " overwrite/(writes+flush+rename+delete) %.2f\n",
           set.name, Median(plainRatios), Median(floorRatios), Median(renameRatios));
  }
  printf("failures: %d\n", failures);
  return failures ? 1 : 0;
}
