#pragma once
// Whole-name masks of rules, compared upper-cased: '*' stands for
// any run of characters, '?' for one, and "*.*" for every name as on
// Windows. Unlike FindFirstFileW and PathMatchSpecW, a mask never matches a
// file by its 8.3 short name. Internal to the engine.
#include <cstddef>
#include <string>
#include <vector>

#include "core/Names.h"

namespace broom {

// Upper-cases in place the way the whitelist and the file system compare names.
inline void UpperName(wchar_t* text, size_t length) { UpperCase(text, length); }
inline void UpperName(std::wstring& text) {
  if (!text.empty()) UpperCase(&text[0], text.size());
}

inline bool HasWildcard(const wchar_t* text, size_t length) {
  for (size_t i = 0; i < length; ++i)
    if (text[i] == L'*' || text[i] == L'?') return true;
  return false;
}
inline bool HasWildcard(const std::wstring& text) { return HasWildcard(text.data(), text.size()); }

// Both texts upper-cased already.
bool MatchUpper(const wchar_t* mask, size_t maskLength, const wchar_t* name, size_t nameLength);
inline bool MatchUpper(const std::wstring& mask, const std::wstring& name) {
  return MatchUpper(mask.data(), mask.size(), name.data(), name.size());
}

// The components of a full path: C:\a\*\b gives C:, a, *, b; the
// \\server\share of a UNC path is one component; empty ones are dropped.
std::vector<std::wstring> SplitPath(const wchar_t* path, size_t length);

}  // namespace broom
