#pragma once
// Replaces the data folder's winapp2.ini with a downloaded one, only when the
// download is a winapp2 file as complete as the copy in use.
#include <windows.h>

#include <string>

namespace host {

// The community database's published file.
constexpr const wchar_t* kWinapp2Url = L"https://raw.githubusercontent.com/MoscaDotTo/Winapp2/master/Winapp2.ini";

struct SWinapp2Update {
  std::wstring file;              // the data folder's Winapp2.ini, now the downloaded one
  std::wstring previous;          // Winapp2.ini.previous, or empty when there was no copy in the data folder
  std::wstring inUse;             // the copy that was in use before (data folder's or shipped), or empty
  unsigned entries = 0;           // of the download
  unsigned previousEntries = 0;   // of the copy that was in use
  size_t skipped = 0;             // lines of the download that were skipped
  unsigned long long bytes = 0;
};

// Downloads url, reads it as winapp2.ini and, when it holds entries, skips
// no more than a few lines and has at least nine tenths of the entries of
// the copy in use, moves it over DATA\Winapp2.ini in one step, the former
// copy kept as Winapp2.ini.previous. Anything else throws CHostError(1)
// saying what went wrong, with the data folder as it was (a bad URL:
// CHostError(exitUsage)).
SWinapp2Update UpdateWinapp2(const std::wstring& dataFolder, const std::wstring& url, DWORD timeoutMs);

}  // namespace host
