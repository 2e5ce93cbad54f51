#include "running/ImageNames.h"

#include <initializer_list>

namespace {

bool IsBlank(wchar_t c) { return c == L' ' || c == L'\t' || c == L'\r' || c == L'\n'; }

bool EndsWithExe(const std::wstring& name) {
  static const wchar_t kExe[] = L".exe";
  return name.size() >= 4 && CompareStringOrdinal(name.c_str() + name.size() - 4, 4, kExe, 4, TRUE) == CSTR_EQUAL;
}

}  // namespace

std::wstring CImageNames::Check(const std::wstring& name) {
  if (name.empty()) return L"it is empty";
  for (wchar_t separator : {L'\\', L'/', L':'})
    if (name.find(separator) != std::wstring::npos)
      return L"it holds a path separator ('" + std::wstring(1, separator) +
             L"'); give the program's file name only, such as chrome.exe";
  size_t wildcard = name.find_first_of(L"*?");
  if (wildcard != std::wstring::npos)
    return L"it holds the wildcard '" + std::wstring(1, name[wildcard]) + L"'; give the program's exact file name";
  for (wchar_t c : name)
    if (c < 32 || c == L'<' || c == L'>' || c == L'"' || c == L'|')
      return L"it holds a character no file name may hold";
  if (name.size() > 255) return L"it is longer than a file name may be";
  if (!EndsWithExe(name)) return L"it does not end in .exe";
  if (name.size() == 4) return L"it has no name before .exe";
  return std::wstring();
}

bool CImageNames::Same(const std::wstring& a, const std::wstring& b) {
  return CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b.c_str(), static_cast<int>(b.size()), TRUE) ==
         CSTR_EQUAL;
}

bool CImageNames::Add(std::vector<std::wstring>& names, const std::wstring& name) {
  for (const std::wstring& known : names)
    if (Same(known, name)) return false;
  names.push_back(name);
  return true;
}

std::vector<std::wstring> CImageNames::Parse(const wchar_t* text, std::vector<SRejected>& rejected) {
  std::vector<std::wstring> names;
  if (!text) return names;
  for (const wchar_t* part = text;;) {
    const wchar_t* end = part;
    while (*end && *end != L';') ++end;
    const wchar_t* first = part;
    const wchar_t* last = end;
    while (first < last && IsBlank(*first)) ++first;
    while (last > first && IsBlank(last[-1])) --last;
    if (first < last) {
      std::wstring name(first, last);
      std::wstring reason = Check(name);
      if (reason.empty())
        Add(names, name);
      else
        rejected.push_back(SRejected{name, reason});
    }
    if (!*end) break;
    part = end + 1;
  }
  return names;
}
