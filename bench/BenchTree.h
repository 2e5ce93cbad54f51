#pragma once
// The trees the scan benchmarks walk, made once and then reused: 100,000
// small files in 5,000 folders (50 top folders of 100 subfolders, 20 files
// each, half *.tmp, half *.dat), and the items tree, 20 folders item0 ...
// item19 of 5,000 files each (50 subfolders of 100 files); and the bare
// recursive walk that is the floor every scan is measured against, on one
// thread or several.
#include <windows.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace benchtree {

constexpr int kFolders = 5000;
constexpr int kFilesPerFolder = 20;

inline std::wstring FolderPath(const std::wstring& root, int i) {
  return root + L"\\g" + std::to_wstring(i / 100) + L"\\f" + std::to_wstring(i % 100);
}

inline void WriteSmallFile(const std::wstring& path) {
  char data[64] = "some cached bytes";
  HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  DWORD written;
  WriteFile(h, data, sizeof data, &written, nullptr);
  CloseHandle(h);
}

inline void Generate(const std::wstring& root) {
  std::wstring marker = root + L"\\complete";
  if (GetFileAttributesW(marker.c_str()) != INVALID_FILE_ATTRIBUTES) return;
  std::printf("generating %d files in %d folders...\n", kFolders * kFilesPerFolder, kFolders);
  CreateDirectoryW(root.c_str(), nullptr);
  for (int g = 0; g < kFolders / 100; ++g) CreateDirectoryW((root + L"\\g" + std::to_wstring(g)).c_str(), nullptr);
  for (int i = 0; i < kFolders; ++i) {
    std::wstring folder = FolderPath(root, i);
    CreateDirectoryW(folder.c_str(), nullptr);
    for (int f = 0; f < kFilesPerFolder; ++f)
      WriteSmallFile(folder + L"\\file" + std::to_wstring(f) + (f % 2 ? L".tmp" : L".dat"));
  }
  HANDLE h = CreateFileW(marker.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  CloseHandle(h);
}

constexpr int kItems = 20;
constexpr int kItemFolders = 50;
constexpr int kItemFiles = 100;

inline void GenerateItems(const std::wstring& root) {
  std::wstring marker = root + L"\\complete";
  if (GetFileAttributesW(marker.c_str()) != INVALID_FILE_ATTRIBUTES) return;
  std::printf("generating %d items of %d files...\n", kItems, kItemFolders * kItemFiles);
  CreateDirectoryW(root.c_str(), nullptr);
  for (int item = 0; item < kItems; ++item) {
    std::wstring top = root + L"\\item" + std::to_wstring(item);
    CreateDirectoryW(top.c_str(), nullptr);
    for (int f = 0; f < kItemFolders; ++f) {
      std::wstring folder = top + L"\\f" + std::to_wstring(f);
      CreateDirectoryW(folder.c_str(), nullptr);
      for (int i = 0; i < kItemFiles; ++i) WriteSmallFile(folder + L"\\file" + std::to_wstring(i) + L".tmp");
    }
  }
  WriteSmallFile(marker);
}

inline long long BareWalk(const std::wstring& folder) {
  long long files = 0;
  WIN32_FIND_DATAW data;
  HANDLE find = FindFirstFileW((folder + L"\\*").c_str(), &data);
  if (find == INVALID_HANDLE_VALUE) return 0;
  do {
    if (data.cFileName[0] == L'.' && (!data.cFileName[1] || (data.cFileName[1] == L'.' && !data.cFileName[2])))
      continue;
    if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
      files += BareWalk(folder + L"\\" + data.cFileName);
    else
      ++files;
  } while (FindNextFileW(find, &data));
  FindClose(find);
  return files;
}

// The same walk with folders listed on several threads, in no particular
// order: each thread takes a folder, lists it and leaves its subfolders to
// whichever thread is free.
inline long long ThreadedBareWalk(const std::wstring& root, unsigned threads) {
  SRWLOCK lock = SRWLOCK_INIT;
  CONDITION_VARIABLE changed = CONDITION_VARIABLE_INIT;
  std::vector<std::wstring> folders{root};
  unsigned busy = 0;
  long long files = 0;
  auto work = [&] {
    AcquireSRWLockExclusive(&lock);
    for (;;) {
      while (folders.empty() && busy > 0) SleepConditionVariableSRW(&changed, &lock, INFINITE, 0);
      if (folders.empty()) break;
      std::wstring folder = std::move(folders.back());
      folders.pop_back();
      ++busy;
      ReleaseSRWLockExclusive(&lock);
      std::vector<std::wstring> found;
      long long here = 0;
      WIN32_FIND_DATAW data;
      HANDLE find = FindFirstFileW((folder + L"\\*").c_str(), &data);
      if (find != INVALID_HANDLE_VALUE) {
        do {
          if (data.cFileName[0] == L'.' &&
              (!data.cFileName[1] || (data.cFileName[1] == L'.' && !data.cFileName[2])))
            continue;
          if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
            found.push_back(folder + L"\\" + data.cFileName);
          else
            ++here;
        } while (FindNextFileW(find, &data));
        FindClose(find);
      }
      AcquireSRWLockExclusive(&lock);
      --busy;
      files += here;
      for (auto& f : found) folders.push_back(std::move(f));
      WakeAllConditionVariable(&changed);
    }
    ReleaseSRWLockExclusive(&lock);
  };
  std::vector<std::thread> pool;
  for (unsigned i = 1; i < threads; ++i) pool.emplace_back(work);
  work();
  for (auto& t : pool) t.join();
  return files;
}

inline double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

inline std::wstring DefaultRoot() {
  wchar_t temp[MAX_PATH];
  GetTempPathW(MAX_PATH, temp);
  return std::wstring(temp) + L"broom-bench-tree";
}

}  // namespace benchtree
