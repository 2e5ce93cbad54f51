#pragma once
// The tree the scan benchmarks walk: 100,000 small files in 5,000 folders
// (50 top folders of 100 subfolders, 20 files each, half *.tmp, half *.dat),
// made once and then reused, and the bare recursive walk that is the floor
// every scan is measured against.
#include <windows.h>

#include <chrono>
#include <cstdio>
#include <string>

namespace benchtree {

constexpr int kFolders = 5000;
constexpr int kFilesPerFolder = 20;

inline std::wstring FolderPath(const std::wstring& root, int i) {
  return root + L"\\g" + std::to_wstring(i / 100) + L"\\f" + std::to_wstring(i % 100);
}

inline void Generate(const std::wstring& root) {
  std::wstring marker = root + L"\\complete";
  if (GetFileAttributesW(marker.c_str()) != INVALID_FILE_ATTRIBUTES) return;
  std::printf("generating %d files in %d folders...\n", kFolders * kFilesPerFolder, kFolders);
  CreateDirectoryW(root.c_str(), nullptr);
  for (int g = 0; g < kFolders / 100; ++g) CreateDirectoryW((root + L"\\g" + std::to_wstring(g)).c_str(), nullptr);
  char data[64] = "some cached bytes";
  for (int i = 0; i < kFolders; ++i) {
    std::wstring folder = FolderPath(root, i);
    CreateDirectoryW(folder.c_str(), nullptr);
    for (int f = 0; f < kFilesPerFolder; ++f) {
      std::wstring file = folder + L"\\file" + std::to_wstring(f) + (f % 2 ? L".tmp" : L".dat");
      HANDLE h = CreateFileW(file.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
      DWORD written;
      WriteFile(h, data, sizeof data, &written, nullptr);
      CloseHandle(h);
    }
  }
  HANDLE h = CreateFileW(marker.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  CloseHandle(h);
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

inline double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

inline std::wstring DefaultRoot() {
  wchar_t temp[MAX_PATH];
  GetTempPathW(MAX_PATH, temp);
  return std::wstring(temp) + L"broom-bench-tree";
}

}  // namespace benchtree
