#include "core/NameMask.h"

namespace broom {

bool MatchUpper(const wchar_t* mask, size_t maskLength, const wchar_t* name, size_t nameLength) {
  if (maskLength == 3 && mask[0] == L'*' && mask[1] == L'.' && mask[2] == L'*') return true;
  // Greedy with a return to the last '*': linear for the masks rules use.
  size_t m = 0, n = 0, star = maskLength, resume = 0;
  while (n < nameLength) {
    if (m < maskLength && (mask[m] == L'?' || mask[m] == name[n])) {
      ++m;
      ++n;
    } else if (m < maskLength && mask[m] == L'*') {
      star = m++;
      resume = n;
    } else if (star < maskLength) {
      m = star + 1;
      n = ++resume;
    } else {
      return false;
    }
  }
  while (m < maskLength && mask[m] == L'*') ++m;
  return m == maskLength;
}

std::vector<std::wstring> SplitPath(const wchar_t* path, size_t length) {
  std::vector<std::wstring> parts;
  size_t start = 0;
  if (length >= 2 && path[0] == L'\\' && path[1] == L'\\') {
    size_t end = 2;
    for (int separators = 0; end < length && (path[end] != L'\\' || ++separators < 2);) ++end;
    parts.emplace_back(path, end);
    start = end + 1;
  }
  while (start < length) {
    size_t end = start;
    while (end < length && path[end] != L'\\') ++end;
    if (end > start) parts.emplace_back(path + start, end - start);
    start = end + 1;
  }
  return parts;
}

}  // namespace broom
