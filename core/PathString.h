#pragma once
// Fixed-capacity wide strings for paths: no heap, bounds checked, and every
// operation validates before it changes anything.
#include <string>

#include "atl/CString.h"
#include "core/Export.h"

// Every engine exception carries one formatted message.
class BROOM_API Exception {
 public:
  Exception(const wchar_t* format, ...);

  std::wstring m_message;

 protected:
  Exception() = default;
  void FormatMessageV(const wchar_t* format, va_list args);
};

class BROOM_API BufferOverflowException : public Exception {
 public:
  BufferOverflowException();
};

class BROOM_API PositionOutOfStringException : public Exception {
 public:
  PositionOutOfStringException(int position, int length);
};

class BROOM_API InvalidSubstringException : public Exception {
 public:
  InvalidSubstringException();
};

class BROOM_API CBaseStackString {
 public:
  virtual wchar_t* GetBuffer() = 0;
  virtual unsigned short GetCapacity() const = 0;

  const wchar_t* GetBuffer() const { return const_cast<CBaseStackString*>(this)->GetBuffer(); }
  const wchar_t* c_str() const { return GetBuffer(); }
  unsigned short GetLength() const { return m_length; }

  void Assign(const wchar_t* text, unsigned short count);
  void Append(const wchar_t* text, unsigned short count);
  void AppendChar(wchar_t ch);
  void Mid(unsigned short start, unsigned short count, CBaseStackString& out) const;
  void Right(unsigned short count, CBaseStackString& out) const;
  int FindWildcard(unsigned short start) const;
  int ReverseFindSeparator(int start) const;
  int GetFileNameStart() const;
  void GetFileName(CBaseStackString& out) const;
  void RemoveFileName(CBaseStackString* nameOut);
  CString ToCString() const;

 protected:
  CBaseStackString() = default;
  CBaseStackString(const CBaseStackString&) = default;
  CBaseStackString& operator=(const CBaseStackString&) = default;
  ~CBaseStackString() = default;

  unsigned short m_length = 0;
};

template <unsigned short N>
class CStackString : public CBaseStackString {
 public:
  CStackString() : m_buffer{} {}
  wchar_t* GetBuffer() override { return m_buffer; }
  unsigned short GetCapacity() const override { return N; }
  using CBaseStackString::GetBuffer;

 protected:
  wchar_t m_buffer[N];
};

class BROOM_API CPathString : public CStackString<261> {
 public:
  CPathString() = default;
  CPathString(const wchar_t* text);  // NOLINT: paths convert implicitly
  CPathString(const CString& text);  // NOLINT
  CPathString(const CPathString& other) = default;  // the whole buffer
  CPathString& operator=(const CPathString& other);  // only the used characters

  void AddBackslash();
  void AppendPath(const wchar_t* text, unsigned short count);
};

// The stack-string operations over a buffer that belongs to someone else.
class BROOM_API CWrapperString : public CBaseStackString {
 public:
  CWrapperString(wchar_t* buffer, unsigned short capacity);
  wchar_t* GetBuffer() override { return m_buffer; }
  unsigned short GetCapacity() const override { return m_capacity; }
  using CBaseStackString::GetBuffer;

 private:
  wchar_t* m_buffer;
  unsigned short m_capacity;
};
