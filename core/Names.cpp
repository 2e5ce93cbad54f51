#include "core/Names.h"

namespace broom {

void UpperCase(wchar_t* text, size_t length) {
  // ASCII, by far the most common, maps the same way without the call.
  size_t i = 0;
  for (; i < length && text[i] < 0x80; ++i)
    if (text[i] >= L'a' && text[i] <= L'z') text[i] = static_cast<wchar_t>(text[i] - (L'a' - L'A'));
  if (i < length) {
    int rest = static_cast<int>(length - i);
    LCMapStringW(LOCALE_INVARIANT, LCMAP_UPPERCASE, text + i, rest, text + i, rest);
  }
}

std::vector<std::wstring> Split(std::wstring_view text, wchar_t separator) {
  std::vector<std::wstring> parts;
  for (size_t start = 0; start < text.size();) {
    size_t end = text.find(separator, start);
    if (end == std::wstring_view::npos) end = text.size();
    if (end > start) parts.emplace_back(text.substr(start, end - start));
    start = end + 1;
  }
  return parts;
}

bool IsBelow(std::wstring_view path, std::wstring_view folder) {
  const size_t n = folder.size() + (!folder.empty() && folder.back() == L'\\' ? 0 : 1);
  return path.size() > n && (n == folder.size() || path[folder.size()] == L'\\') &&
         SamePath(path.substr(0, folder.size()), folder);
}

bool IsAtOrBelow(std::wstring_view path, std::wstring_view folder) {
  const size_t n = folder.size();
  return n <= path.size() && SamePath(path.substr(0, n), folder) &&
         (n == path.size() || path[n] == L'\\' || (n > 0 && folder[n - 1] == L'\\'));
}

}  // namespace broom
