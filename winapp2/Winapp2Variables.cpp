#include "winapp2/Winapp2Variables.h"

#include <windows.h>

#include <cwctype>
#include <iterator>
#include <unordered_set>

#include "core/Handles.h"
#include "core/NameMask.h"
#include "scandefs/ConfigValues.h"

namespace broom {
namespace winapp2 {

namespace {

// The variables rules use and the engine's symbols they come from: the
// first symbol with a value, or every one of them for the two that name the
// 64-bit and the 32-bit folder (a 32-bit engine's own symbols give the
// 32-bit one, the environment's ...W6432 the other).
struct SVariable {
  const wchar_t* name;
  bool every;
  std::vector<const wchar_t*> symbols;
};
const SVariable kVariables[] = {
    {L"AppData", false, {L"APPDATA"}},
    {L"LocalAppData", false, {L"LOCALAPPDATA"}},
    {L"LocalLowAppData", false, {L"LOCALLOWAPPDATA"}},
    {L"ProgramData", false, {L"COMMON_APPDATA", L"ProgramData"}},
    {L"CommonAppData", false, {L"COMMON_APPDATA", L"ProgramData"}},
    {L"ProgramFiles", true, {L"ProgramW6432", L"PROGRAM_FILES", L"PROGRAM_FILESX86"}},
    {L"CommonProgramFiles", true, {L"CommonProgramW6432", L"PROGRAM_FILES_COMMON", L"PROGRAM_FILES_COMMONX86"}},
    {L"Documents", false, {L"PERSONAL"}},
    {L"Music", false, {L"MYMUSIC"}},
    {L"Pictures", false, {L"MYPICTURES"}},
    {L"Video", false, {L"MYVIDEO"}},
    {L"Public", false, {L"PUBLIC"}},
    {L"SystemDrive", false, {L"SystemDrive"}},
    {L"SystemRoot", false, {L"WINDOWS", L"SystemRoot"}},
    {L"WinDir", false, {L"WINDOWS", L"windir"}},
    {L"UserProfile", false, {L"PROFILE", L"USERPROFILE"}},
    {L"UserName", false, {L"USERNAME"}},
    {L"HomeDrive", false, {L"HOMEDRIVE"}},
    {L"AllUsersProfile", false, {L"ALLUSERSPROFILE"}},
    {L"Temp", false, {L"TEMP"}},
    {L"Tmp", false, {L"TMP"}}};

constexpr size_t kMaxExpansions = 8;

}  // namespace

CVariables::CVariables() : m_values(std::size(kVariables)) {
  CScopedMap::ConfigValueMap* scope = CScopedMap::GetGlobalScope();
  for (size_t i = 0; i < std::size(kVariables); ++i) {
    std::vector<std::wstring>& values = m_values[i];
    std::unordered_set<std::wstring> seen;
    for (const wchar_t* symbol : kVariables[i].symbols) {
      const wchar_t* value = scope->Find(symbol, wcslen(symbol));
      if (!value || !*value) continue;
      std::wstring text(value);
      while (text.size() > 3 && text.back() == L'\\') text.pop_back();
      if (!seen.insert(Upper(text)).second) continue;
      values.push_back(text);
      if (!kVariables[i].every) break;
    }
  }
}

bool CVariables::Expand(Text text, std::vector<std::wstring>& out, std::wstring& reason) const {
  // a text that cannot be read whole stands for no path at all, never for the part read so far
  auto fail = broom::scope_exit([&out] { out.clear(); });
  out.assign(1, std::wstring());
  out[0].reserve(text.size() + 64);
  for (size_t at = 0; at < text.size();) {
    size_t open = text.find(L'%', at);
    Text literal = text.substr(at, open == Text::npos ? Text::npos : open - at);
    for (std::wstring& path : out) path += literal;
    if (open == Text::npos) break;
    size_t close = text.find(L'%', open + 1);
    if (close == Text::npos) {
      reason = L"a '%' without its closing '%'";
      return false;
    }
    Text name = text.substr(open + 1, close - open - 1);
    const std::vector<std::wstring>* values = Find(name);
    if (!values) {
      reason = L"unknown variable %" + std::wstring(name) + L"%";
      return false;
    }
    if (values->empty()) {
      reason = L"%" + std::wstring(name) + L"% has no value on this PC";
      return false;
    }
    if (values->size() == 1) {
      for (std::wstring& path : out) path += values->front();
    } else {
      std::vector<std::wstring> next;
      for (const std::wstring& path : out)
        for (const std::wstring& value : *values)
          if (next.size() < kMaxExpansions) next.push_back(path + value);
      out.swap(next);
    }
    at = close + 1;
  }
  for (std::wstring& path : out)
    if (!Normalize(path, reason)) return false;
  if (out.size() > 1) {
    std::vector<std::wstring> unique;
    std::unordered_set<std::wstring> seen;
    for (std::wstring& path : out)
      if (seen.insert(Upper(path)).second) unique.push_back(std::move(path));
    out.swap(unique);
  }
  fail.release();
  return true;
}

const std::vector<std::wstring>* CVariables::Find(Text name) const {
  for (size_t i = 0; i < std::size(kVariables); ++i)
    if (Equal(name, kVariables[i].name)) return &m_values[i];
  return nullptr;
}

void CVariables::LongNames(std::wstring& path) {
  size_t literal = path.size();
  for (size_t at = 0; at < path.size(); ++at)
    if (path[at] == L'*' || path[at] == L'?') {
      literal = path.find_last_of(L'\\', at);
      break;
    }
  for (std::wstring prefix = path.substr(0, literal); prefix.find(L'~') != std::wstring::npos;) {
    wchar_t buffer[MAX_PATH + 1];
    DWORD n = GetLongPathNameW(prefix.c_str(), buffer, MAX_PATH + 1);
    if (n > 0 && n <= MAX_PATH) {
      path = std::wstring(buffer, n) + path.substr(prefix.size());
      return;
    }
    size_t slash = prefix.find_last_of(L'\\');
    if (slash == std::wstring::npos || slash < 3) return;
    prefix.resize(slash);
  }
}

bool CVariables::Normalize(std::wstring& path, std::wstring& reason) {
  const bool unc = path.size() >= 2 && (path[0] == L'\\' || path[0] == L'/') && (path[1] == L'\\' || path[1] == L'/');
  // one pass: separators made single, each component checked as it ends
  size_t out = unc ? 2 : 0, start = out, components = 0;
  bool bad = false, dots = false, shortNames = false;
  auto endComponent = [&] {
    Text part(path.data() + start, out - start);
    if (part == L"." || part == L"..") dots = true;
    if (components == 0 && !unc && !(part.size() == 2 && iswalpha(part[0]) && part[1] == L':')) bad = true;
    // a pattern keeps its dots: it is matched against names, never opened
    if (components >= (unc ? 2u : 1u) && !HasWildcard(part.data(), part.size())) {
      while (out > start && (path[out - 1] == L'.' || path[out - 1] == L' ')) --out;
      if (out == start) dots = true;  // only dots and spaces
      shortNames = shortNames || part.find(L'~') != Text::npos;
    }
    ++components;
  };
  for (size_t i = out; i < path.size(); ++i) {
    wchar_t c = path[i] == L'/' ? L'\\' : path[i];
    if (c == L'\\') {
      if (out == start) continue;  // a doubled or leading separator
      endComponent();
      path[out++] = L'\\';
      start = out;
      continue;
    }
    if (c < 32 || c == L'<' || c == L'>' || c == L'"' || c == L'|' || (c == L':' && (unc || components > 0))) {
      reason = L"the path holds a character no path may hold";
      return false;
    }
    path[out++] = c;
  }
  if (out > start) endComponent();
  path.resize(out);
  while (path.size() > (unc ? 2u : 0u) && path.back() == L'\\') path.pop_back();
  if (components == 0) {
    reason = L"empty path";
    return false;
  }
  if (unc && components >= 2) {
    size_t share = path.find(L'\\', path.find(L'\\', 2) + 1);  // the end of \\server\share
    bad = HasWildcard(path.data(), share == std::wstring::npos ? path.size() : share);
  }
  if (bad || (unc && components < 2)) {
    reason = L"not a full path: it must start with a drive (C:\\) or \\\\server\\share";
    return false;
  }
  if (dots) {
    reason = L"'.' and '..' are not allowed in a path";
    return false;
  }
  if (path.size() == 2) path += L'\\';
  if (shortNames) LongNames(path);
  if (path.size() > MAX_PATH) {
    reason = std::to_wstring(path.size()) + L" characters after expansion, more than 260";
    return false;
  }
  return true;
}

}  // namespace winapp2
}  // namespace broom
