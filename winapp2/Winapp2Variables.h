#pragma once
// The %Name% variables of winapp2 rules, from the engine's shell-folder
// symbols and the environment, and the full paths a rule's text stands for.
// Internal to the engine.
#include <string>
#include <vector>

#include "winapp2/Winapp2Text.h"

namespace broom {
namespace winapp2 {

class CVariables {
 public:
  CVariables();
  // Every path the text stands for (two when it names the Program Files
  // folders of a 64-bit Windows), in normal form; false with the reason,
  // and then no path at all.
  bool Expand(Text text, std::vector<std::wstring>& out, std::wstring& reason) const;

 private:
  const std::vector<std::wstring>* Find(Text name) const;
  // C:\a\b or \\server\share\a, single separators, none at the end (a drive
  // root keeps its own), at most 260 characters, no '.' or '..' components;
  // each folder named as the system opens it (no trailing dots or spaces, long
  // names for short ones), so that the whitelist and excludes, which compare
  // names, meet the folders a rule walks.
  static bool Normalize(std::wstring& path, std::wstring& reason);
  // The folders before the first pattern, long names for short ones where
  // they exist (a folder that does not has nothing to clean).
  static void LongNames(std::wstring& path);

  std::vector<std::vector<std::wstring>> m_values;  // per variable
};

}  // namespace winapp2
}  // namespace broom
