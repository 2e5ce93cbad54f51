#include "app/Text.h"

#include <cstdio>

#include "textconv/TextConv.h"

namespace host {

std::string Utf8(const wchar_t* text, size_t length) { return textconv::ToMultiByte(std::wstring(text, length), CP_UTF8); }
std::string Utf8(const std::wstring& text) { return textconv::ToMultiByte(text, CP_UTF8); }
std::string Utf8(const CString& text) { return Utf8(text.GetString(), static_cast<size_t>(text.GetLength())); }
std::wstring Wide(const std::string& utf8) { return textconv::ToWide(utf8, CP_UTF8); }

std::wstring Printable(const std::wstring& text) {
  std::wstring out;
  out.reserve(text.size());
  for (wchar_t c : text) {
    if (c < 0x20 || (c >= 0x7F && c <= 0x9F) || c == 0x2028 || c == 0x2029) {
      wchar_t escaped[16];
      swprintf(escaped, 16, L"<U+%04X>", static_cast<unsigned>(c));
      out += escaped;
    } else {
      out += c;
    }
  }
  return out;
}

std::wstring Quoted(const std::wstring& text, size_t max) {
  if (text.size() <= max) return L"'" + Printable(text) + L"'";
  return L"'" + Printable(text.substr(0, max)) + L"\u2026'";
}

std::wstring FormatSize(unsigned __int64 bytes) {
  static const wchar_t* const units[] = {L"KB", L"MB", L"GB", L"TB"};
  if (bytes < 1024) return std::to_wstring(bytes) + (bytes == 1 ? L" byte" : L" bytes");
  double value = static_cast<double>(bytes) / 1024.0;
  int unit = 0;
  while (value >= 1024.0 && unit < 3) {
    value /= 1024.0;
    ++unit;
  }
  wchar_t text[32];
  swprintf(text, 32, L"%.1f %ls", value, units[unit]);
  return text;
}

std::wstring FormatCount(unsigned __int64 value) {
  std::wstring digits = std::to_wstring(value);
  std::wstring out;
  int n = static_cast<int>(digits.size());
  for (int i = 0; i < n; ++i) {
    if (i > 0 && (n - i) % 3 == 0) out += L',';
    out += digits[static_cast<size_t>(i)];
  }
  return out;
}

std::wstring Plural(unsigned __int64 n, const wchar_t* one, const wchar_t* many) {
  return FormatCount(n) + L" " + (n == 1 ? one : many);
}

}  // namespace host
