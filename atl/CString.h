#pragma once
// The wide string class of the host interface: the part of ATL's
// CStringT<wchar_t> that the engine uses, with ATL's behaviour.
#include <windows.h>

#include <string>

#include "atl/CAtlException.h"
#include "core/Export.h"

namespace ATL {

class BROOM_API CString {
 public:
  CString() = default;
  CString(const wchar_t* text);  // NOLINT: implicit as in ATL
  CString(const wchar_t* text, int length);
  CString(wchar_t ch, int repeat = 1);
  CString(const char* text);  // converted with the thread's ANSI code page, as ATL does
  CString(const std::wstring& text) : m_str(text) {}
  CString(const CString&) = default;
  CString(CString&&) noexcept = default;
  CString& operator=(const CString&) = default;
  CString& operator=(CString&&) noexcept = default;
  CString& operator=(const wchar_t* text);
  CString& operator=(wchar_t ch);

  int GetLength() const noexcept { return static_cast<int>(m_str.size()); }
  bool IsEmpty() const noexcept { return m_str.empty(); }
  void Empty() noexcept { m_str.clear(); }
  const wchar_t* GetString() const noexcept { return m_str.c_str(); }
  operator const wchar_t*() const noexcept { return m_str.c_str(); }
  const std::wstring& str() const noexcept { return m_str; }

  wchar_t GetAt(int index) const;
  void SetAt(int index, wchar_t ch);
  wchar_t operator[](int index) const { return GetAt(index); }

  CString& operator+=(const CString& other);
  CString& operator+=(const wchar_t* text);
  CString& operator+=(wchar_t ch);
  void Append(const wchar_t* text, int length);
  void AppendChar(wchar_t ch) { m_str.push_back(ch); }
  // Room for length characters, so that appends up to it allocate nothing.
  void Preallocate(int length) {
    if (length > 0) m_str.reserve(static_cast<size_t>(length));
  }

  int Compare(const wchar_t* text) const;        // wcscmp
  int CompareNoCase(const wchar_t* text) const;  // _wcsicmp

  // printf-style with the C runtime's wide forms (%s is wide, %I64u, ...)
  void Format(const wchar_t* format, ...);
  void AppendFormat(const wchar_t* format, ...);
  void FormatV(const wchar_t* format, va_list args);
  void AppendFormatV(const wchar_t* format, va_list args);

  // Next token after iStart, skipping leading delimiters; iStart becomes -1
  // once no token is left. With no delimiters, returns the rest unchanged.
  CString Tokenize(const wchar_t* tokens, int& iStart) const;

  int Find(wchar_t ch, int start = 0) const noexcept;
  int Find(const wchar_t* sub, int start = 0) const noexcept;
  int FindOneOf(const wchar_t* chars) const noexcept;
  int ReverseFind(wchar_t ch) const noexcept;

  CString Mid(int first) const;
  CString Mid(int first, int count) const;
  CString Left(int count) const;
  CString Right(int count) const;
  CString SpanIncluding(const wchar_t* chars) const;
  CString SpanExcluding(const wchar_t* chars) const;

  int Replace(wchar_t oldCh, wchar_t newCh);
  int Replace(const wchar_t* oldText, const wchar_t* newText);
  int Remove(wchar_t ch);
  int Insert(int index, const wchar_t* text);
  int Insert(int index, wchar_t ch);
  int Delete(int index, int count = 1);

  CString& MakeUpper();
  CString& MakeLower();
  CString& MakeReverse();
  CString& Trim();
  CString& Trim(wchar_t ch);
  CString& Trim(const wchar_t* chars);
  CString& TrimLeft();
  CString& TrimLeft(wchar_t ch);
  CString& TrimLeft(const wchar_t* chars);
  CString& TrimRight();
  CString& TrimRight(wchar_t ch);
  CString& TrimRight(const wchar_t* chars);

  // Direct access to the characters: room for at least minLength characters
  // plus the terminator; ReleaseBuffer fixes the length (-1: up to the NUL).
  wchar_t* GetBuffer();
  wchar_t* GetBuffer(int minLength);
  wchar_t* GetBufferSetLength(int length);
  void ReleaseBuffer(int newLength = -1);
  void ReleaseBufferSetLength(int newLength) { ReleaseBuffer(newLength); }
  void Truncate(int newLength);
  void SetString(const wchar_t* text);
  void SetString(const wchar_t* text, int length);

 private:
  std::wstring m_str;
};

BROOM_API CString operator+(const CString& a, const CString& b);
BROOM_API CString operator+(const CString& a, const wchar_t* b);
BROOM_API CString operator+(const wchar_t* a, const CString& b);
BROOM_API CString operator+(const CString& a, wchar_t b);
BROOM_API CString operator+(wchar_t a, const CString& b);

inline bool operator==(const CString& a, const CString& b) noexcept { return a.str() == b.str(); }
inline bool operator==(const CString& a, const wchar_t* b) noexcept { return a.Compare(b) == 0; }
inline bool operator==(const wchar_t* a, const CString& b) noexcept { return b.Compare(a) == 0; }
inline bool operator!=(const CString& a, const CString& b) noexcept { return !(a == b); }
inline bool operator!=(const CString& a, const wchar_t* b) noexcept { return !(a == b); }
inline bool operator!=(const wchar_t* a, const CString& b) noexcept { return !(a == b); }
inline bool operator<(const CString& a, const CString& b) noexcept { return a.Compare(b) < 0; }
inline bool operator>(const CString& a, const CString& b) noexcept { return a.Compare(b) > 0; }
inline bool operator<=(const CString& a, const CString& b) noexcept { return a.Compare(b) <= 0; }
inline bool operator>=(const CString& a, const CString& b) noexcept { return a.Compare(b) >= 0; }

}  // namespace ATL

using ATL::CString;
