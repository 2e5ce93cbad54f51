#pragma once
// Conversion between UTF-16 and multi-byte code pages chosen by their IANA
// or Windows names.
#include <windows.h>

#include <string>

#include "core/Export.h"

namespace textconv {

// Base of the conversion errors; also thrown (by pointer) by the thread layer.
class BROOM_API exception {
 public:
  explicit exception(const std::string& message) : m_message(message) {}
  virtual ~exception() = default;
  const char* what() const noexcept { return m_message.c_str(); }
  const std::string& message() const noexcept { return m_message; }

 private:
  std::string m_message;
};

// "codepage %d is not supported"
class BROOM_API unsupported_codepage : public exception {
 public:
  explicit unsupported_codepage(int codepage);
  int codepage() const noexcept { return m_codepage; }

 private:
  int m_codepage;
};

// The code page of a name such as "utf-8", "windows-1252", "iso-8859-1",
// "cp437", "shift_jis" or "1252" (case-insensitive); false for an unknown name.
BROOM_API bool CodePageFromName(const std::wstring& name, UINT& codepage);

// Throw unsupported_codepage when the system cannot convert with the page;
// unconvertible characters become the page's default character.
BROOM_API std::string ToMultiByte(const std::wstring& text, UINT codepage);
BROOM_API std::wstring ToWide(const std::string& text, UINT codepage);
// The same, with the code page given by name; an unknown name throws
// unsupported_codepage with code page 0.
BROOM_API std::string ToMultiByte(const std::wstring& text, const std::wstring& codepageName);
BROOM_API std::wstring ToWide(const std::string& text, const std::wstring& codepageName);

}  // namespace textconv
