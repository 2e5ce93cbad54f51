#pragma once
// Text helpers both hosts use for what they show: UTF-8 and back, values
// quoted for a message, counts, sizes, plurals and the system's words for an
// error code.
#include <windows.h>

#include <string>

#include "atl/CString.h"
#include "core/Exceptions.h"

namespace host {

std::string Utf8(const wchar_t* text, size_t length);
std::string Utf8(const std::wstring& text);
std::string Utf8(const CString& text);
std::wstring Wide(const std::string& utf8);

// The text with every control character (C0, DEL, C1, the line and
// paragraph separators) written as <U+000D>, so that a value echoed in a
// message cannot break or rewrite its line.
std::wstring Printable(const std::wstring& text);
// A value for a message: quoted, printable, and cut to about max characters.
std::wstring Quoted(const std::wstring& text, size_t max = 260);

// What a Win32 error code means, with its number: "Access is denied (error 5)".
using broom::SystemMessage;

// "1.5 MB", "512 bytes", ... (binary units, one decimal).
std::wstring FormatSize(unsigned __int64 bytes);
// 1234567 -> "1,234,567".
std::wstring FormatCount(unsigned __int64 value);
// "1 file", "1,024 files".
std::wstring Plural(unsigned __int64 n, const wchar_t* one, const wchar_t* many);

}  // namespace host
