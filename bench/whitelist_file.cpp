// Loads and saves whitelists of 10,000, 50,000 and 100,000 entries that all
// sit in one folder: the file as the saver writes it (sorted), the same
// lines shuffled, the array form, and the save, median of three rounds. A
// protect command does one load and one save of such a list, a scan one load.
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "whitelist/WhiteListTree.h"

namespace {

double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

bool WriteBytes(const std::wstring& path, const std::string& bytes) {
  HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  DWORD written = 0;
  bool ok = WriteFile(h, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) && written == bytes.size();
  CloseHandle(h);
  return ok;
}

std::string Lines(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\r\n";
  return text;
}

}  // namespace

int main() {
  wchar_t temp[MAX_PATH];
  GetTempPathW(MAX_PATH, temp);
  const std::wstring sortedFile = std::wstring(temp) + L"broom-bench-whitelist-sorted.txt";
  const std::wstring shuffledFile = std::wstring(temp) + L"broom-bench-whitelist-shuffled.txt";
  const std::wstring savedFile = std::wstring(temp) + L"broom-bench-whitelist-saved.txt";

  printf("%8s  %12s  %12s  %12s  %12s\n", "entries", "load sorted", "load shuffl", "array shuffl", "save");
  for (int count : {10000, 50000, 100000}) {
    std::vector<std::string> lines;
    char name[64];
    for (int i = 0; i < count; ++i) {
      snprintf(name, sizeof name, "C:\\USERS\\ME\\KEEP\\FILE%06d.DAT", i);
      lines.push_back(name);
    }
    std::vector<std::string> shuffled = lines;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(42));
    if (!WriteBytes(sortedFile, Lines(lines)) || !WriteBytes(shuffledFile, Lines(shuffled))) {
      printf("cannot write the files in %ls\n", temp);
      return 1;
    }
    std::vector<CString> array;
    for (const std::string& line : shuffled) array.emplace_back(std::wstring(line.begin(), line.end()).c_str());

    // Median of three rounds: under Wine every lock of the tree is a call to
    // the Wine server, whose speed follows the load of the machine.
    std::vector<double> loadSortedRounds, loadShuffledRounds, loadArrayRounds, saveRounds;
    for (int round = 0; round < 3; ++round) {
      auto t0 = std::chrono::steady_clock::now();
      CWhiteListTree sorted;
      sorted.LoadFromFile(sortedFile.c_str());
      loadSortedRounds.push_back(Seconds(t0));

      t0 = std::chrono::steady_clock::now();
      CWhiteListTree fromShuffled;
      fromShuffled.LoadFromFile(shuffledFile.c_str());
      loadShuffledRounds.push_back(Seconds(t0));

      t0 = std::chrono::steady_clock::now();
      CWhiteListTree fromArray;
      fromArray.LoadFromArray(array);
      loadArrayRounds.push_back(Seconds(t0));

      t0 = std::chrono::steady_clock::now();
      bool saved = sorted.SaveToFile(savedFile.c_str(), 0x1);
      saveRounds.push_back(Seconds(t0));

      size_t listed = sorted.SaveToArray(0x1)->GetArray().size();
      if (!saved || listed != static_cast<size_t>(count) ||
          fromShuffled.SaveToArray(0x1)->GetArray().size() != listed ||
          fromArray.SaveToArray(0x1)->GetArray().size() != listed) {
        printf("%d entries: the lists differ after loading (%zu listed)\n", count, listed);
        return 1;
      }
    }
    auto median = [](std::vector<double> v) {
      std::sort(v.begin(), v.end());
      return v[v.size() / 2];
    };
    double loadSorted = median(loadSortedRounds), loadShuffled = median(loadShuffledRounds);
    double loadArray = median(loadArrayRounds), save = median(saveRounds);
    printf("%8d  %10.2f s  %10.2f s  %10.2f s  %10.2f s\n", count, loadSorted, loadShuffled, loadArray, save);
    fflush(stdout);
  }
  DeleteFileW(sortedFile.c_str());
  DeleteFileW(shuffledFile.c_str());
  DeleteFileW(savedFile.c_str());
  return 0;
}
