#include "atl/CString.h"

#include <cstdarg>
#include <cwchar>
#include <cwctype>


namespace ATL {
namespace {


bool IsSpace(wchar_t ch) { return std::iswspace(ch) != 0; }

// Formats with the C runtime's own wide printf (msvcrt), which is what ATL's
// Format uses: %s takes a wide string there, and %I64u is understood.
std::wstring FormatArgs(const wchar_t* format, va_list args) {
  va_list measure;
  va_copy(measure, args);
  int length = _vscwprintf(format, measure);
  va_end(measure);
  if (length < 0) AtlThrow(E_INVALIDARG);
  std::wstring out(static_cast<size_t>(length) + 1, L'\0');
  _vsnwprintf(&out[0], out.size(), format, args);
  out.resize(static_cast<size_t>(length));
  return out;
}

}  // namespace

CString::CString(const wchar_t* text) {
  if (text) m_str = text;
}

CString::CString(const wchar_t* text, int length) {
  if (length < 0) AtlThrow(E_INVALIDARG);
  if (length > 0) {
    if (!text) AtlThrow(E_INVALIDARG);
    m_str.assign(text, static_cast<size_t>(length));
  }
}

CString::CString(wchar_t ch, int repeat) {
  if (repeat > 0) m_str.assign(static_cast<size_t>(repeat), ch);
}

CString::CString(const char* text) {
  if (!text || !*text) return;
  int n = MultiByteToWideChar(CP_THREAD_ACP, 0, text, -1, nullptr, 0);
  if (n <= 0) return;
  m_str.resize(static_cast<size_t>(n));
  MultiByteToWideChar(CP_THREAD_ACP, 0, text, -1, &m_str[0], n);
  m_str.resize(static_cast<size_t>(n - 1));
}

CString& CString::operator=(const wchar_t* text) {
  SetString(text);
  return *this;
}

CString& CString::operator=(wchar_t ch) {
  m_str.assign(1, ch);
  return *this;
}

wchar_t CString::GetAt(int index) const {
  if (index < 0 || index > GetLength()) AtlThrow(E_INVALIDARG);
  return m_str.c_str()[index];
}

void CString::SetAt(int index, wchar_t ch) {
  if (index < 0 || index >= GetLength()) AtlThrow(E_INVALIDARG);
  m_str[static_cast<size_t>(index)] = ch;
}

CString& CString::operator+=(const CString& other) {
  m_str += other.m_str;
  return *this;
}

CString& CString::operator+=(const wchar_t* text) {
  if (text) m_str += text;
  return *this;
}

CString& CString::operator+=(wchar_t ch) {
  m_str.push_back(ch);
  return *this;
}

void CString::Append(const wchar_t* text, int length) {
  if (length < 0) AtlThrow(E_INVALIDARG);
  if (length > 0) m_str.append(text, static_cast<size_t>(length));
}

int CString::Compare(const wchar_t* text) const { return wcscmp(m_str.c_str(), text ? text : L""); }

int CString::CompareNoCase(const wchar_t* text) const {
  return _wcsicmp(m_str.c_str(), text ? text : L"");
}

void CString::Format(const wchar_t* format, ...) {
  va_list args;
  va_start(args, format);
  FormatV(format, args);
  va_end(args);
}

void CString::AppendFormat(const wchar_t* format, ...) {
  va_list args;
  va_start(args, format);
  AppendFormatV(format, args);
  va_end(args);
}

void CString::FormatV(const wchar_t* format, va_list args) {
  if (!format) AtlThrow(E_INVALIDARG);
  m_str = FormatArgs(format, args);
}

void CString::AppendFormatV(const wchar_t* format, va_list args) {
  if (!format) AtlThrow(E_INVALIDARG);
  m_str += FormatArgs(format, args);
}

CString CString::Tokenize(const wchar_t* tokens, int& iStart) const {
  if (iStart < 0) AtlThrow(E_INVALIDARG);
  if (!tokens || !*tokens) {
    if (iStart < GetLength()) return CString(m_str.c_str() + iStart);
  } else if (iStart < GetLength()) {
    const wchar_t* place = m_str.c_str() + iStart;
    int including = static_cast<int>(wcsspn(place, tokens));
    if (iStart + including < GetLength()) {
      place += including;
      int excluding = static_cast<int>(wcscspn(place, tokens));
      int from = iStart + including;
      iStart = from + excluding + 1;
      return Mid(from, excluding);
    }
  }
  iStart = -1;
  return CString();
}

int CString::Find(wchar_t ch, int start) const noexcept {
  if (start < 0 || start >= GetLength()) return -1;
  size_t pos = m_str.find(ch, static_cast<size_t>(start));
  return pos == std::wstring::npos ? -1 : static_cast<int>(pos);
}

int CString::Find(const wchar_t* sub, int start) const noexcept {
  if (!sub || start < 0 || start > GetLength()) return -1;
  if (!*sub) return start;
  const wchar_t* found = wcsstr(m_str.c_str() + start, sub);
  return found ? static_cast<int>(found - m_str.c_str()) : -1;
}

int CString::FindOneOf(const wchar_t* chars) const noexcept {
  if (!chars) return -1;
  size_t pos = wcscspn(m_str.c_str(), chars);
  return pos < m_str.size() ? static_cast<int>(pos) : -1;
}

int CString::ReverseFind(wchar_t ch) const noexcept {
  const wchar_t* found = wcsrchr(m_str.c_str(), ch);
  return found ? static_cast<int>(found - m_str.c_str()) : -1;
}

CString CString::Mid(int first) const { return Mid(first, GetLength() - first); }

CString CString::Mid(int first, int count) const {
  if (first < 0) first = 0;
  if (count < 0) count = 0;
  if (static_cast<long long>(first) + count > GetLength()) count = GetLength() - first;
  if (first > GetLength()) count = 0;
  if (first == 0 && first + count == GetLength()) return *this;
  return CString(m_str.c_str() + first, count);
}

CString CString::Left(int count) const {
  if (count < 0) count = 0;
  if (count >= GetLength()) return *this;
  return CString(m_str.c_str(), count);
}

CString CString::Right(int count) const {
  if (count < 0) count = 0;
  if (count >= GetLength()) return *this;
  return CString(m_str.c_str() + GetLength() - count, count);
}

CString CString::SpanIncluding(const wchar_t* chars) const {
  return Left(static_cast<int>(wcsspn(m_str.c_str(), chars)));
}

CString CString::SpanExcluding(const wchar_t* chars) const {
  return Left(static_cast<int>(wcscspn(m_str.c_str(), chars)));
}

int CString::Replace(wchar_t oldCh, wchar_t newCh) {
  int count = 0;
  if (oldCh == newCh) return 0;
  for (auto& ch : m_str)
    if (ch == oldCh) {
      ch = newCh;
      ++count;
    }
  return count;
}

int CString::Replace(const wchar_t* oldText, const wchar_t* newText) {
  size_t oldLength = oldText ? wcslen(oldText) : 0;
  if (oldLength == 0) return 0;
  std::wstring replacement = newText ? newText : L"";
  std::wstring out;
  int count = 0;
  size_t pos = 0;
  for (;;) {
    size_t hit = m_str.find(oldText, pos, oldLength);
    if (hit == std::wstring::npos) break;
    out.append(m_str, pos, hit - pos);
    out += replacement;
    pos = hit + oldLength;
    ++count;
  }
  if (count > 0) {
    out.append(m_str, pos, std::wstring::npos);
    m_str.swap(out);
  }
  return count;
}

int CString::Remove(wchar_t ch) {
  size_t before = m_str.size();
  std::wstring out;
  out.reserve(before);
  for (wchar_t c : m_str)
    if (c != ch) out.push_back(c);
  m_str.swap(out);
  return static_cast<int>(before - m_str.size());
}

int CString::Insert(int index, const wchar_t* text) {
  if (index < 0) index = 0;
  if (index > GetLength()) index = GetLength();
  if (text) m_str.insert(static_cast<size_t>(index), text);
  return GetLength();
}

int CString::Insert(int index, wchar_t ch) {
  wchar_t text[2] = {ch, 0};
  return Insert(index, text);
}

int CString::Delete(int index, int count) {
  if (index < 0) index = 0;
  if (count > 0 && index < GetLength()) {
    if (count > GetLength() - index) count = GetLength() - index;
    m_str.erase(static_cast<size_t>(index), static_cast<size_t>(count));
  }
  return GetLength();
}

CString& CString::MakeUpper() {
  if (!m_str.empty()) _wcsupr(&m_str[0]);
  return *this;
}

CString& CString::MakeLower() {
  if (!m_str.empty()) _wcslwr(&m_str[0]);
  return *this;
}

CString& CString::MakeReverse() {
  std::wstring(m_str.rbegin(), m_str.rend()).swap(m_str);
  return *this;
}

CString& CString::Trim() { return TrimRight().TrimLeft(); }
CString& CString::Trim(wchar_t ch) { return TrimRight(ch).TrimLeft(ch); }
CString& CString::Trim(const wchar_t* chars) { return TrimRight(chars).TrimLeft(chars); }

CString& CString::TrimLeft() {
  size_t n = 0;
  while (n < m_str.size() && IsSpace(m_str[n])) ++n;
  m_str.erase(0, n);
  return *this;
}

CString& CString::TrimLeft(wchar_t ch) {
  size_t n = 0;
  while (n < m_str.size() && m_str[n] == ch) ++n;
  m_str.erase(0, n);
  return *this;
}

CString& CString::TrimLeft(const wchar_t* chars) {
  if (!chars || !*chars) return *this;
  m_str.erase(0, wcsspn(m_str.c_str(), chars));
  return *this;
}

CString& CString::TrimRight() {
  size_t n = m_str.size();
  while (n > 0 && IsSpace(m_str[n - 1])) --n;
  m_str.resize(n);
  return *this;
}

CString& CString::TrimRight(wchar_t ch) {
  size_t n = m_str.size();
  while (n > 0 && m_str[n - 1] == ch) --n;
  m_str.resize(n);
  return *this;
}

CString& CString::TrimRight(const wchar_t* chars) {
  if (!chars || !*chars) return *this;
  size_t n = m_str.size();
  while (n > 0 && wcschr(chars, m_str[n - 1])) --n;
  m_str.resize(n);
  return *this;
}

wchar_t* CString::GetBuffer() { return &m_str[0]; }

wchar_t* CString::GetBuffer(int minLength) {
  if (minLength < 0) AtlThrow(E_INVALIDARG);
  if (static_cast<size_t>(minLength) > m_str.size()) m_str.resize(static_cast<size_t>(minLength));
  return &m_str[0];
}

wchar_t* CString::GetBufferSetLength(int length) {
  if (length < 0) AtlThrow(E_INVALIDARG);
  m_str.resize(static_cast<size_t>(length));
  return &m_str[0];
}

void CString::ReleaseBuffer(int newLength) {
  if (newLength < 0) newLength = static_cast<int>(wcsnlen(m_str.c_str(), m_str.size()));
  if (static_cast<size_t>(newLength) > m_str.size()) AtlThrow(E_INVALIDARG);
  m_str.resize(static_cast<size_t>(newLength));
}

void CString::Truncate(int newLength) {
  if (newLength < 0 || newLength > GetLength()) AtlThrow(E_INVALIDARG);
  m_str.resize(static_cast<size_t>(newLength));
}

void CString::SetString(const wchar_t* text) {
  if (text)
    m_str = text;  // std::wstring copes with text inside its own buffer
  else
    m_str.clear();
}

void CString::SetString(const wchar_t* text, int length) {
  if (length < 0) AtlThrow(E_INVALIDARG);
  if (length > 0 && !text) AtlThrow(E_INVALIDARG);
  m_str.assign(text ? text : L"", static_cast<size_t>(length));
}

CString operator+(const CString& a, const CString& b) { return CString(a.str() + b.str()); }
CString operator+(const CString& a, const wchar_t* b) {
  CString r(a);
  r += b;
  return r;
}
CString operator+(const wchar_t* a, const CString& b) {
  CString r(a);
  r += b;
  return r;
}
CString operator+(const CString& a, wchar_t b) {
  CString r(a);
  r += b;
  return r;
}
CString operator+(wchar_t a, const CString& b) {
  CString r(a);
  r += b;
  return r;
}

}  // namespace ATL
