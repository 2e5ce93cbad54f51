#pragma once
// Names and paths as text, in one place: the two ways Broom folds case, the
// file system's own comparison, splitting at a separator, trimming, a
// path's parent and name, and whether a path lies at or below a folder.
#include <windows.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "core/Export.h"

namespace broom {

// ---- definition names ----
// Compared the way the C runtime's _wcsicmp does in the "C" locale: only
// 'A'..'Z' fold (to lower case), every other character compares by its
// code. Inline because it runs for every element name, value name and
// sibling look-up of a definition load, where a call into the runtime per
// comparison dominated the time.

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
inline bool EqualNoCase(std::wstring_view a, std::wstring_view b) {
  return EqualNoCase(a.data(), a.size(), b.data(), b.size());
}

// ---- stored paths ----
// Upper-cased in place with the invariant mapping, as the whitelist stores
// paths: it does not depend on the user's locale, so a path saved on one
// machine protects the same path on another, and it maps letters beyond
// ASCII as the file system compares them.
BROOM_API void UpperCase(wchar_t* text, size_t length);
inline std::wstring Upper(std::wstring text) {
  if (!text.empty()) UpperCase(&text[0], text.size());
  return text;
}

// Equal as the file system compares names (ordinal, ignoring case).
inline bool SamePath(std::wstring_view a, std::wstring_view b) {
  return CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()), TRUE) ==
         CSTR_EQUAL;
}
// Orders paths as the file system compares them, for maps and sets.
struct PathLess {
  bool operator()(std::wstring_view a, std::wstring_view b) const {
    return CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()), TRUE) ==
           CSTR_LESS_THAN;
  }
};

// ---- splitting and trimming ----

// The components of text between separators, empty ones dropped.
BROOM_API std::vector<std::wstring> Split(std::wstring_view text, wchar_t separator);

// The text without the characters blank says are blanks at either end.
template <class Blank>
std::wstring_view Trim(std::wstring_view text, Blank blank) {
  while (!text.empty() && blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && blank(text.back())) text.remove_suffix(1);
  return text;
}
inline bool IsSpaceOrTab(wchar_t c) { return c == L' ' || c == L'\t'; }
// Spaces, tabs, line breaks and the other control characters.
inline bool IsBlankOrControl(wchar_t c) { return c <= 32; }

// ---- paths ----

// Everything before the last backslash; empty when there is none.
inline std::wstring ParentOf(const std::wstring& path) {
  size_t slash = path.find_last_of(L'\\');
  return slash == std::wstring::npos ? std::wstring() : path.substr(0, slash);
}
// Everything after the last backslash; the whole path when there is none.
inline std::wstring NameOf(const std::wstring& path) {
  size_t slash = path.find_last_of(L'\\');
  return slash == std::wstring::npos ? path : path.substr(slash + 1);
}

// path lies below folder, not at it (folder may end in a backslash);
// names compared as the file system compares them.
BROOM_API bool IsBelow(std::wstring_view path, std::wstring_view folder);
// path is folder or lies below it: folder's text starts path and is
// followed by a backslash or the end (or ends in one itself).
BROOM_API bool IsAtOrBelow(std::wstring_view path, std::wstring_view folder);

}  // namespace broom
