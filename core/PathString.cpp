#include "core/PathString.h"

#include <cstdarg>
#include <cstring>
#include <cwchar>

Exception::Exception(const wchar_t* format, ...) {
  va_list args;
  va_start(args, format);
  FormatMessageV(format, args);
  va_end(args);
}

void Exception::FormatMessageV(const wchar_t* format, va_list args) {
  va_list measure;
  va_copy(measure, args);
  int length = _vscwprintf(format, measure);
  va_end(measure);
  if (length <= 0) {
    m_message.clear();
    return;
  }
  std::wstring text(static_cast<size_t>(length) + 1, L'\0');
  _vsnwprintf(&text[0], text.size(), format, args);
  text.resize(static_cast<size_t>(length));
  m_message = std::move(text);
}

BufferOverflowException::BufferOverflowException() : Exception(L"Buffer overflow") {}

PositionOutOfStringException::PositionOutOfStringException(int position, int length)
    : Exception(L"Position (%d) is outside of string (length=%d)", position, length) {}

InvalidSubstringException::InvalidSubstringException()
    : Exception(L"Requested substring extends beyond the end of the string") {}

void CBaseStackString::Assign(const wchar_t* text, unsigned short count) {
  if (count >= GetCapacity()) throw BufferOverflowException();
  wchar_t* buffer = GetBuffer();
  if (count) memmove(buffer, text, count * sizeof(wchar_t));
  m_length = count;
  buffer[count] = 0;
}

void CBaseStackString::Append(const wchar_t* text, unsigned short count) {
  unsigned room = GetCapacity() - m_length - 1u;
  if (count > room) throw BufferOverflowException();
  wchar_t* buffer = GetBuffer();
  if (count) memmove(buffer + m_length, text, count * sizeof(wchar_t));
  m_length = static_cast<unsigned short>(m_length + count);
  buffer[m_length] = 0;
}

void CBaseStackString::AppendChar(wchar_t ch) {
  if (m_length >= GetCapacity() - 1) throw BufferOverflowException();
  wchar_t* buffer = GetBuffer();
  buffer[m_length++] = ch;
  buffer[m_length] = 0;
}

void CBaseStackString::Mid(unsigned short start, unsigned short count, CBaseStackString& out) const {
  if (static_cast<unsigned>(start) + count > m_length) throw InvalidSubstringException();
  out.Assign(GetBuffer() + start, count);
}

void CBaseStackString::Right(unsigned short count, CBaseStackString& out) const {
  if (count > m_length) throw InvalidSubstringException();
  out.Assign(GetBuffer() + (m_length - count), count);
}

int CBaseStackString::FindWildcard(unsigned short start) const {
  if (start >= m_length) throw PositionOutOfStringException(start, m_length);
  const wchar_t* buffer = GetBuffer();
  for (unsigned i = start; i < m_length; ++i)
    if (buffer[i] == L'*' || buffer[i] == L'?') return static_cast<int>(i);
  return -1;
}

int CBaseStackString::ReverseFindSeparator(int start) const {
  int position = start < 0 ? m_length - 1 : start;
  if (position >= static_cast<int>(m_length)) throw PositionOutOfStringException(position, m_length);
  const wchar_t* buffer = GetBuffer();
  for (int i = position; i >= 0; --i)
    if (buffer[i] == L'\\') return i;
  return -1;
}

int CBaseStackString::GetFileNameStart() const {
  const wchar_t* buffer = GetBuffer();
  for (int i = static_cast<int>(m_length) - 1; i >= 0; --i)
    if (buffer[i] == L'\\') return i + 1;
  return 0;
}

void CBaseStackString::GetFileName(CBaseStackString& out) const {
  int start = GetFileNameStart();
  out.Assign(GetBuffer() + start, static_cast<unsigned short>(m_length - start));
}

void CBaseStackString::RemoveFileName(CBaseStackString* nameOut) {
  int start = GetFileNameStart();
  if (nameOut) Right(static_cast<unsigned short>(m_length - start), *nameOut);
  if (start >= 1) {
    m_length = static_cast<unsigned short>(start - 1);
    GetBuffer()[m_length] = 0;
  }
}

CString CBaseStackString::ToCString() const { return CString(GetBuffer(), m_length); }

CPathString::CPathString(const wchar_t* text) {
  size_t length = wcslen(text);
  if (length >= GetCapacity()) throw BufferOverflowException();
  Assign(text, static_cast<unsigned short>(length));
}

CPathString::CPathString(const CString& text) {
  if (text.GetLength() >= GetCapacity()) throw BufferOverflowException();
  Assign(text.GetString(), static_cast<unsigned short>(text.GetLength()));
}

CPathString& CPathString::operator=(const CPathString& other) {
  if (this != &other) Assign(other.GetBuffer(), other.GetLength());
  return *this;
}

void CPathString::AddBackslash() {
  if (m_length > 0 && m_buffer[m_length - 1] != L'\\') AppendChar(L'\\');
}

void CPathString::AppendPath(const wchar_t* text, unsigned short count) {
  // check the whole join first so a failed join leaves the path unchanged
  bool needsSeparator = m_length > 0 && m_buffer[m_length - 1] != L'\\';
  if (static_cast<unsigned>(m_length) + (needsSeparator ? 1u : 0u) + count > GetCapacity() - 1u)
    throw BufferOverflowException();
  AddBackslash();
  Append(text, count);
}

CWrapperString::CWrapperString(wchar_t* buffer, unsigned short capacity)
    : m_buffer(buffer), m_capacity(capacity) {
  if (capacity == 0) throw BufferOverflowException();
}
