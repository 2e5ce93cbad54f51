#pragma once
// What broomw.exe remembers between starts: the definition folders and
// winapp2.ini files it was given (beside the engine's own settings, under
// SOFTWARE\Broom\Engine) and where its window was (SOFTWARE\Broom\Window).
#include <windows.h>

#include <string>
#include <vector>

namespace broomw {

struct SSources {
  std::vector<std::wstring> defs;     // absolute folders; empty: defs beside broomw.exe
  std::vector<std::wstring> winapp2;  // absolute winapp2.ini files
};

SSources LoadSources();
void SaveSources(const SSources& sources);

// True when the start-up notice differs from the one shown last (then it is
// remembered as shown): the same notes are not shown on every start.
bool NoticeIsNew(const std::wstring& text);

// False when nothing usable is stored.
bool LoadPlacement(WINDOWPLACEMENT& placement);
void SavePlacement(const WINDOWPLACEMENT& placement);

}  // namespace broomw
