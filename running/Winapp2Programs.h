#pragma once
// The programs that keep winapp2 entries' files open while they run.
// winapp2.ini has no key for it, so this one table gives them: by an entry's
// Section (every browser and mail client family of the community file has
// one) or, for an entry without a Section the table knows, by the leading
// words of its name ("Discord", "Microsoft Teams", "Steam").
#include <windows.h>

#include <string>
#include <vector>

#include "core/Export.h"

class BROOM_API CWinapp2Programs {
 public:
  struct SProgram {
    std::wstring name;                 // as a user knows it: "Google Chrome"
    std::vector<std::wstring> images;  // chrome.exe
  };

  // The program of an entry: by its Section when the table knows that
  // section, otherwise by the longest leading words of entryName the table
  // knows (whole words, any case; winapp2's trailing " *" is ignored). False
  // when neither is known, or the words name something that is no program
  // of its own ("Chromium Embedded Framework"). section may be null.
  static bool Find(const wchar_t* section, const wchar_t* entryName, SProgram& program);

  // Its image names only; empty when the entry has no program.
  static std::vector<std::wstring> Images(const wchar_t* section, const wchar_t* entryName);
};
