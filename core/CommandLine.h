#pragma once
// One argument of a Windows command line, quoted so that the C runtime's
// parser (CommandLineToArgvW's rules) gives it back unchanged: backslashes
// need doubling only in front of a quote, which includes the closing one.
#include <string>

namespace broom {

inline std::wstring QuoteArgument(const std::wstring& arg) {
  std::wstring out = L"\"";
  size_t slashes = 0;
  for (wchar_t c : arg) {
    if (c == L'\\') {
      ++slashes;
    } else {
      if (c == L'"') out.append(slashes + 1, L'\\');
      slashes = 0;
    }
    out += c;
  }
  out.append(slashes, L'\\');
  return out + L"\"";
}

}  // namespace broom
