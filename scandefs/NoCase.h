#pragma once
// Case-insensitive comparison of names the way the C runtime's _wcsicmp
// does it in the "C" locale: only 'A'..'Z' fold (to lower case), every
// other character compares by its code. Inline because it runs for every
// element name, value name and sibling look-up of a definition load, where
// a call into the runtime per comparison dominated the time.
#include <cstddef>

namespace broom {

inline wchar_t FoldCase(wchar_t c) { return (c >= L'A' && c <= L'Z') ? static_cast<wchar_t>(c + (L'a' - L'A')) : c; }

// <0, 0 or >0 as _wcsicmp answers.
inline int CompareNoCase(const wchar_t* a, const wchar_t* b) {
  for (;; ++a, ++b) {
    wchar_t ca = FoldCase(*a), cb = FoldCase(*b);
    if (ca != cb || !ca) return static_cast<int>(ca) - static_cast<int>(cb);
  }
}

// The same for texts of known length: a shorter text that is a prefix of
// the other orders first, as its terminator would.
inline int CompareNoCase(const wchar_t* a, size_t na, const wchar_t* b, size_t nb) {
  for (size_t i = 0, n = na < nb ? na : nb; i < n; ++i) {
    wchar_t ca = FoldCase(a[i]), cb = FoldCase(b[i]);
    if (ca != cb) return static_cast<int>(ca) - static_cast<int>(cb);
  }
  return na < nb ? -1 : (na > nb ? 1 : 0);
}

// Equality of two texts of known length (folding keeps lengths, so texts of
// different length never match).
inline bool EqualNoCase(const wchar_t* a, size_t na, const wchar_t* b, size_t nb) {
  if (na != nb) return false;
  for (size_t i = 0; i < na; ++i)
    if (a[i] != b[i] && FoldCase(a[i]) != FoldCase(b[i])) return false;
  return true;
}

}  // namespace broom
