#pragma once
// Image names of programs (chrome.exe): the file name a process was started
// from, as the process list shows it. A definition names the programs that
// keep an item's files open while they run; a host asks which of them run.
#include <windows.h>

#include <string>
#include <vector>

#include "core/Export.h"

class BROOM_API CImageNames {
 public:
  struct SRejected {
    std::wstring name;    // as written, without the spaces around it
    std::wstring reason;  // in words: "it holds a path separator ('\\'); ..."
  };

  // Splits a `running` text at ';' into image names. Spaces around a name
  // are dropped and empty parts skipped; a name given twice (in any case)
  // is kept once. A name with a path separator, a wildcard, a character no
  // file name may hold or no name ending in .exe goes to rejected instead.
  static std::vector<std::wstring> Parse(const wchar_t* text, std::vector<SRejected>& rejected);

  // Why name is not an image name, in words; empty when it is one.
  static std::wstring Check(const std::wstring& name);

  // Whether two image names are the same program: compared as the file
  // system compares names, whatever their case.
  static bool Same(const std::wstring& a, const std::wstring& b);

  // Appends name unless names holds it already (in any case); true when added.
  static bool Add(std::vector<std::wstring>& names, const std::wstring& name);
};
