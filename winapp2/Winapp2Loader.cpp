#include "winapp2/Winapp2Loader.h"

#include <windows.h>

#include <algorithm>
#include <iterator>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "core/Handles.h"
#include "guard/BlastGuard.h"
#include "registry/RegistryPath.h"
#include "registry/RegistryScan.h"
#include "scandefs/ConfigValues.h"
#include "scandefs/NoCase.h"
#include "core/NameMask.h"
#include "winapp2/Winapp2Detect.h"
#include "winapp2/Winapp2FileScan.h"

using broom::winapp2::CDetector;
using broom::HasWildcard;
using broom::SplitPath;
using broom::UpperName;

namespace {

using Text = std::wstring_view;

enum EKind {
  kUnknown, kLangSecRef, kSection, kDetect, kDetectFile, kSpecialDetect, kDetectOS,
  kFileKey, kExcludeKey, kRegKey, kWarning, kDefault
};

const std::pair<const wchar_t*, EKind> kKinds[] = {
    {L"LangSecRef", kLangSecRef}, {L"Section", kSection},     {L"Detect", kDetect},
    {L"DetectFile", kDetectFile}, {L"SpecialDetect", kSpecialDetect}, {L"DetectOS", kDetectOS},
    {L"FileKey", kFileKey},       {L"ExcludeKey", kExcludeKey}, {L"RegKey", kRegKey},
    {L"Warning", kWarning},       {L"Default", kDefault}};

const std::pair<int, const wchar_t*> kCategories[] = {
    {3021, L"Applications"}, {3022, L"Internet"}, {3023, L"Multimedia"}, {3024, L"Utilities"}, {3025, L"Windows"}};
const wchar_t* const kOther = L"Other";

// DET_WINDOWS holds on every Windows: it has no folder to look for.
const wchar_t* const kDetWindows = L"DET_WINDOWS";
const std::pair<const wchar_t*, const wchar_t*> kSpecialDetects[] = {
    {L"DET_CHROME", L"%LocalAppData%\\Google\\Chrome\\User Data"},
    {L"DET_MOZILLA", L"%AppData%\\Mozilla\\Firefox"},
    {L"DET_THUNDERBIRD", L"%AppData%\\Thunderbird"},
    {L"DET_OPERA", L"%AppData%\\Opera Software"}};

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

bool IsBlank(wchar_t c) { return c == L' ' || c == L'\t' || c == L'\r' || c == 0xFEFF; }

Text Trim(Text t) {
  while (!t.empty() && IsBlank(t.front())) t.remove_prefix(1);
  while (!t.empty() && IsBlank(t.back())) t.remove_suffix(1);
  return t;
}

bool Equal(Text a, const wchar_t* b) { return broom::EqualNoCase(a.data(), a.size(), b, wcslen(b)); }

std::wstring Upper(Text t) {
  std::wstring s(t);
  UpperName(s);
  return s;
}

// Splits at every separator; a field may be empty.
std::vector<Text> Fields(Text t, wchar_t separator) {
  std::vector<Text> fields;
  for (size_t start = 0;;) {
    size_t end = t.find(separator, start);
    fields.push_back(Trim(t.substr(start, end == Text::npos ? Text::npos : end - start)));
    if (end == Text::npos) return fields;
    start = end + 1;
  }
}

EKind KindOf(Text key) {
  while (!key.empty() && key.back() >= L'0' && key.back() <= L'9') key.remove_suffix(1);
  for (const auto& kind : kKinds)
    if (Equal(key, kind.first)) return kind.second;
  return kUnknown;
}

struct SLine {
  int line = 0;
  EKind kind = kUnknown;
  Text key, value, text;
};

struct SEntry {
  int line = 0;
  Text name, text;
  std::vector<SLine> keys;
};

// The major and minor version of "10", "6.1"; false for anything else.
bool ParseVersion(Text t, unsigned (&version)[2]) {
  version[0] = version[1] = 0;
  size_t dot = t.find(L'.');
  Text parts[2] = {t.substr(0, dot), dot == Text::npos ? Text() : t.substr(dot + 1)};
  if (parts[0].empty() || (dot != Text::npos && parts[1].empty())) return false;
  for (int i = 0; i < 2; ++i)
    for (wchar_t c : parts[i]) {
      if (c < L'0' || c > L'9' || version[i] > 9999) return false;
      version[i] = version[i] * 10 + static_cast<unsigned>(c - L'0');
    }
  return true;
}

// The version Windows really is (GetVersionEx reports 6.2 to programs
// without a manifest that names newer systems).
void WindowsVersion(unsigned (&version)[2]) {
  static unsigned cached[2] = {0, 0};
  if (!cached[0]) {
    using RtlGetVersionFn = LONG(WINAPI*)(OSVERSIONINFOW*);
    auto get = reinterpret_cast<RtlGetVersionFn>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion")));
    OSVERSIONINFOW info = {};
    info.dwOSVersionInfoSize = sizeof info;
    if (get && get(&info) == 0) {
      cached[0] = info.dwMajorVersion;
      cached[1] = info.dwMinorVersion;
    }
  }
  version[0] = cached[0];
  version[1] = cached[1];
}

bool Below(const unsigned (&a)[2], const unsigned (&b)[2]) { return a[0] < b[0] || (a[0] == b[0] && a[1] < b[1]); }

// ---- variables and paths ----

class CVariables {
 public:
  CVariables() {
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

  // Every path the text stands for (two when it names the Program Files
  // folders of a 64-bit Windows), in normal form; false with the reason.
  bool Expand(Text text, std::vector<std::wstring>& out, std::wstring& reason) const {
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

 private:
  const std::vector<std::wstring>* Find(Text name) const {
    for (size_t i = 0; i < std::size(kVariables); ++i)
      if (Equal(name, kVariables[i].name)) return &m_values[i];
    return nullptr;
  }

  // C:\a\b or \\server\share\a, single separators, none at the end (a drive
  // root keeps its own), at most 260 characters, no '.' or '..' components;
  // each folder named as the system opens it (no trailing dots or spaces, long
  // names for short ones), so that the whitelist and excludes, which compare
  // names, meet the folders a rule walks.
  static bool Normalize(std::wstring& path, std::wstring& reason) {
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

  // The folders before the first pattern, long names for short ones where
  // they exist (a folder that does not has nothing to clean).
  static void LongNames(std::wstring& path) {
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

  std::vector<std::wstring> m_values[std::size(kVariables)];
};

// ---- one load ----

class CLoad {
 public:
  CLoad(CConfigStore& store, const wchar_t* path, SWinapp2Report& report)
      : m_store(store), m_path(path ? path : L""), m_report(report) {
    size_t slash = m_path.find_last_of(L"\\/");
    m_fileName = slash == std::wstring::npos ? m_path : m_path.substr(slash + 1);
  }

  void Run(const std::wstring& text) {
    Parse(text);
    std::vector<SPrepared> prepared(m_entries.size());
    for (size_t i = 0; i < m_entries.size(); ++i) Prepare(m_entries[i], prepared[i]);
    for (SPrepared& entry : prepared) Build(entry);
    m_report.fileCalls = m_detector.FileCalls();
    m_report.registryCalls = m_detector.KeyCalls();
    std::stable_sort(m_report.skipped.begin(), m_report.skipped.end(),
                     [](const SWinapp2Skip& a, const SWinapp2Skip& b) { return a.line < b.line; });
    CString file(m_path.c_str());
    for (const SWinapp2Skip& skip : m_report.skipped) m_store.AddLoadNote(file, skip.line, skip.text + L": " + skip.reason);
  }

 private:
  struct SFileRule {
    const SLine* line;
    std::vector<std::wstring> roots, masks;
    CWinapp2FileScan::ERecurse recurse;
  };
  struct SRegRule {
    const SLine* line;
    CRegistryPath path;
  };
  struct SPrepared {
    const SEntry* entry = nullptr;
    std::wstring category;
    Text warning;
    bool detection = false;  // a Detect, DetectFile or SpecialDetect key, readable or not
    bool detectWindows = false;  // SpecialDetect=DET_WINDOWS: holds
    bool osHolds = true;
    std::vector<std::wstring> files;
    std::vector<CRegistryPath> keys;
    std::vector<SFileRule> fileRules;
    std::vector<SRegRule> regRules;
    std::shared_ptr<std::vector<CWinapp2FileScan::SExclude>> fileExcludes;
    std::vector<CRegistryPath> regExcludes;
    const SLine* brokenFileExclude = nullptr;
    const SLine* brokenRegExclude = nullptr;
  };
  struct SCategory {
    CScanGroup_imp* group = nullptr;
    std::unordered_set<std::wstring> names;  // upper-cased item names
  };

  void Skip(int line, Text text, const std::wstring& reason) {
    SWinapp2Skip skip;
    skip.line = line;
    skip.text = CString(text.data(), static_cast<int>(text.size()));
    skip.reason = CString(reason.c_str());
    m_report.skipped.push_back(skip);
  }
  void Skip(const SLine& line, const std::wstring& reason) { Skip(line.line, line.text, reason); }

  void Parse(const std::wstring& text) {
    bool inEntry = false;  // keys after an unreadable header belong to no entry
    int number = 0;
    for (size_t at = 0; at < text.size();) {
      size_t end = text.find(L'\n', at);
      if (end == std::wstring::npos) end = text.size();
      Text line = Trim(Text(text.data() + at, end - at));
      at = end + 1;
      ++number;
      if (line.empty() || line[0] == L';') continue;
      // text after a NUL would be lost on the way to the system, leaving a shorter path
      if (line.find(L'\0') != Text::npos) {
        Skip(number, line.substr(0, line.find(L'\0')), L"the line holds a NUL character");
        if (line[0] == L'[') inEntry = false;
        continue;
      }
      if (line[0] == L'[') {
        inEntry = false;
        if (line.back() != L']') {
          Skip(number, line, L"an entry name without its closing ']'; its keys are skipped too");
          continue;
        }
        Text name = Trim(line.substr(1, line.size() - 2));
        if (name.size() >= 2 && name.back() == L'*' && IsBlank(name[name.size() - 2])) name = Trim(name.substr(0, name.size() - 1));
        if (name.empty()) {
          Skip(number, line, L"an entry without a name; its keys are skipped too");
          continue;
        }
        m_entries.push_back(SEntry{number, name, line, {}});
        ++m_report.entries;
        inEntry = true;
        continue;
      }
      size_t equals = line.find(L'=');
      if (equals == Text::npos) {
        Skip(number, line, L"not a Key=Value line");
        continue;
      }
      SLine key{number, kUnknown, Trim(line.substr(0, equals)), Trim(line.substr(equals + 1)), line};
      if (!inEntry) {
        Skip(key, m_entries.empty() ? L"a key before the first [entry]" : L"a key of an entry that cannot be read");
        continue;
      }
      key.kind = KindOf(key.key);
      if (key.kind == kUnknown) {
        Skip(key, L"unknown key '" + std::wstring(key.key) + L"'");
        continue;
      }
      m_entries.back().keys.push_back(key);
    }
  }

  // Reads every key of the entry and announces its detection queries.
  void Prepare(const SEntry& entry, SPrepared& p) {
    p.entry = &entry;
    bool haveCategory = false;
    for (const SLine& line : entry.keys) {
      std::wstring reason;
      switch (line.kind) {
        case kLangSecRef:
        case kSection:
          if (!haveCategory) {
            haveCategory = true;
            p.category = CategoryOf(line);
          }
          break;
        case kWarning:
          if (p.warning.empty()) p.warning = line.value;
          break;
        case kDetect: {
          ++m_report.detectionKeys;
          p.detection = true;
          CRegistryPath key;
          if (!key.Parse(line.value.data(), line.value.size()) || line.value.empty())
            Skip(line, L"not a registry key: it must start with HKCU, HKLM, HKU or HKCR");
          else if (BeyondRegistryLimits(key))
            Skip(line, L"no registry key can be deeper than 512 levels or have a name over 255 characters");
          else
            AddKey(p, key);
          break;
        }
        case kDetectFile:
        case kSpecialDetect: {
          ++m_report.detectionKeys;
          p.detection = true;
          Text path = line.value;
          if (line.kind == kSpecialDetect && Equal(line.value, kDetWindows)) {
            p.detectWindows = true;
            break;
          }
          if (line.kind == kSpecialDetect) {
            path = Text();
            for (const auto& special : kSpecialDetects)
              if (Equal(line.value, special.first)) path = special.second;
            if (path.empty()) {
              Skip(line, L"unknown SpecialDetect (DET_CHROME, DET_MOZILLA, DET_THUNDERBIRD, DET_OPERA or DET_WINDOWS)");
              break;
            }
          }
          std::vector<std::wstring> paths;
          if (path.find(L'|') != Text::npos)
            Skip(line, L"a '|' cannot be part of a path");
          else if (!m_variables.Expand(path, paths, reason))
            Skip(line, reason);
          for (const std::wstring& one : paths) AddFile(p, one);
          break;
        }
        case kDetectOS: {
          ++m_report.detectionKeys;
          std::vector<Text> sides = Fields(line.value, L'|');
          unsigned low[2] = {0, 0}, high[2] = {0, 0}, os[2] = {0, 0};
          WindowsVersion(os);
          if (sides.size() != 2 || (sides[0].empty() && sides[1].empty()) ||
              (!sides[0].empty() && !ParseVersion(sides[0], low)) || (!sides[1].empty() && !ParseVersion(sides[1], high))) {
            Skip(line, L"not min|max Windows versions such as 6.1| or |10.0");
            p.osHolds = false;
          } else if ((!sides[0].empty() && Below(os, low)) || (!sides[1].empty() && Below(high, os))) {
            p.osHolds = false;
          }
          break;
        }
        case kFileKey:
          PrepareFileKey(line, p);
          break;
        case kExcludeKey:
          PrepareExclude(line, p);
          break;
        case kRegKey: {
          CRegistryPath path;
          if (line.value.empty() || !path.Parse(line.value.data(), line.value.size()))
            Skip(line, L"not a registry path: it must start with HKCU, HKLM, HKU or HKCR");
          else if (BeyondRegistryLimits(path))
            Skip(line, L"no registry key can be deeper than 512 levels or have a name over 255 characters");
          else
            p.regRules.push_back(SRegRule{&line, path});
          break;
        }
        case kDefault:
        case kUnknown:
          break;
      }
    }
    if (!haveCategory) p.category = kOther;
  }

  std::wstring CategoryOf(const SLine& line) {
    if (line.kind == kSection) return line.value.empty() ? kOther : std::wstring(line.value);
    unsigned number[2];
    if (!ParseVersion(line.value, number) || line.value.find(L'.') != Text::npos) {
      Skip(line, L"LangSecRef is not a number; the entry goes to Other");
      return kOther;
    }
    for (const auto& category : kCategories)
      if (static_cast<unsigned>(category.first) == number[0]) return category.second;
    return kOther;
  }

  void AddFile(SPrepared& p, const std::wstring& path) {
    m_detector.PlanFile(path);
    p.files.push_back(path);
  }
  void AddKey(SPrepared& p, const CRegistryPath& key) {
    m_detector.PlanKey(key);
    p.keys.push_back(key);
  }

  void PrepareFileKey(const SLine& line, SPrepared& p) {
    std::vector<Text> fields = Fields(line.value, L'|');
    SFileRule rule{&line, {}, {}, CWinapp2FileScan::recurseNone};
    std::wstring reason;
    if (fields.size() < 2)
      return Skip(line, L"no '|' between the folder and the file masks");
    if (fields.size() > 3) return Skip(line, L"more than three '|'-separated parts");
    if (fields[0].empty()) return Skip(line, L"empty path");
    if (fields.size() == 3) {
      if (Equal(fields[2], L"RECURSE"))
        rule.recurse = CWinapp2FileScan::recurseAll;
      else if (Equal(fields[2], L"REMOVESELF"))
        rule.recurse = CWinapp2FileScan::recurseRemoveSelf;
      else
        return Skip(line, L"unknown flag '" + std::wstring(fields[2]) + L"' (RECURSE or REMOVESELF)");
    }
    for (Text mask : Fields(fields[1], L';')) {
      if (mask.empty()) continue;
      if (mask.find_first_of(L"\\/:") != Text::npos) return Skip(line, L"a file mask holds a folder separator or ':'");
      rule.masks.push_back(Upper(mask));
    }
    if (rule.masks.empty()) return Skip(line, L"no file mask");
    if (!m_variables.Expand(fields[0], rule.roots, reason)) return Skip(line, reason);
    bool everyName = false;
    for (const std::wstring& mask : rule.masks)
      everyName = everyName || mask == L"*.*" || mask.find_first_not_of(L'*') == std::wstring::npos;
    for (const std::wstring& root : rule.roots) {
      CBlastGuard::SVerdict verdict = Guard().CheckRule(root.c_str(), rule.recurse != CWinapp2FileScan::recurseNone,
                                                        everyName);
      if (!verdict.allowed) return Skip(line, L"refused: " + std::wstring(verdict.reason.GetString()));
    }
    p.fileRules.push_back(std::move(rule));
  }

  const CBlastGuard& Guard() {
    if (!m_guard) m_guard.reset(new CBlastGuard());
    return *m_guard;
  }

  // A registry path no system can hold: deeper than 512 levels, or a name over 255 characters.
  static bool BeyondRegistryLimits(const CRegistryPath& key) {
    std::vector<std::wstring> parts = CRegistryPath::Components(key.Subkey());
    if (parts.size() > 512) return true;
    for (const std::wstring& part : parts)
      if (part.size() > 255) return true;
    return false;
  }

  void PrepareExclude(const SLine& line, SPrepared& p) {
    size_t bar = line.value.find(L'|');
    Text kind = Trim(line.value.substr(0, bar));
    Text rest = bar == Text::npos ? Text() : Trim(line.value.substr(bar + 1));
    auto broken = [&](const std::wstring& reason, bool files, bool keys) {
      Skip(line, reason);
      if (files && !p.brokenFileExclude) p.brokenFileExclude = &line;
      if (keys && !p.brokenRegExclude) p.brokenRegExclude = &line;
    };
    if (Equal(kind, L"REG")) {
      CRegistryPath key;
      if (rest.empty() || !key.Parse(rest.data(), rest.size()) || key.IsHiveRoot())
        return broken(L"REG needs a registry key below HKCU, HKLM, HKU or HKCR", false, true);
      p.regExcludes.push_back(key);
      ++m_report.excludes;
      return;
    }
    bool file = Equal(kind, L"FILE");
    if (!file && !Equal(kind, L"PATH")) return broken(L"unknown exclude kind (FILE, PATH or REG)", true, true);
    // FILE|folder\|name, PATH|folder\|mask; FILE|folder\name and PATH|folder read as such too
    size_t split = rest.rfind(L'|');
    Text folder = rest, mask = L"*";
    if (split != Text::npos) {
      folder = Trim(rest.substr(0, split));
      mask = Trim(rest.substr(split + 1));
    } else if (file) {
      size_t slash = rest.find_last_of(L"\\/");
      folder = slash == Text::npos ? Text() : rest.substr(0, slash);
      mask = slash == Text::npos ? rest : rest.substr(slash + 1);
    }
    if (folder.empty()) return broken(L"empty path", true, false);
    std::vector<std::wstring> masks;
    for (Text one : Fields(mask, L';')) {
      // a name as the system opens it: a trailing dot or space would make the exclude keep nothing
      while (!one.empty() && (one.back() == L'.' || one.back() == L' ')) one.remove_suffix(1);
      if (one.empty()) continue;
      if (one.find_first_of(L"\\/:|") != Text::npos)
        return broken(file ? L"a file name holds a folder separator" : L"the mask holds a folder separator", true,
                      false);
      masks.push_back(Upper(one));
    }
    if (masks.empty()) return broken(file ? L"no file name after the folder" : L"no mask after the folder", true, false);
    std::vector<std::wstring> folders;
    std::wstring reason;
    if (!m_variables.Expand(folder, folders, reason)) return broken(reason, true, false);
    if (!p.fileExcludes) p.fileExcludes = std::make_shared<std::vector<CWinapp2FileScan::SExclude>>();
    for (const std::wstring& one : folders) {
      CWinapp2FileScan::SExclude exclude;
      exclude.folder = SplitPath(one.c_str(), one.size());
      for (std::wstring& part : exclude.folder) UpperName(part);
      exclude.masks = masks;
      exclude.below = !file;
      p.fileExcludes->push_back(std::move(exclude));
    }
    ++m_report.excludes;
  }

  bool Applies(const SPrepared& p) {
    if (!p.osHolds) return false;
    if (!p.detection || p.detectWindows) return true;
    // files first: they cost no trip to the Wine server
    for (const std::wstring& file : p.files)
      if (m_detector.FileExists(file)) return true;
    for (const CRegistryPath& key : p.keys)
      if (m_detector.KeyExists(key)) return true;
    return false;
  }

  static bool AtOrBelow(const CRegistryPath& key, const CRegistryPath& outer) {
    const std::wstring& a = key.Subkey();
    const std::wstring& b = outer.Subkey();
    return key.Hive() == outer.Hive() && a.size() >= b.size() &&
           broom::EqualNoCase(a.c_str(), b.size(), b.c_str(), b.size()) &&
           (a.size() == b.size() || b.empty() || a[b.size()] == L'\\');
  }

  void Build(SPrepared& p) {
    const SEntry& entry = *p.entry;
    struct SOp {
      CRefPtr<IScanOperation> op;
      const SLine* line;
    };
    std::vector<SOp> ops;
    std::wstring firstRoot;
    unsigned files = 0, keys = 0;
    // a rule of a kind whose exclusions cannot all be read would delete what they keep
    auto excludeBroken = [&](const SLine* broken, const SLine& rule) {
      if (!broken) return false;
      Skip(rule, L"skipped with ExcludeKey line " + std::to_wstring(broken->line) +
                     L", which cannot be read: this rule would delete what it keeps");
      return true;
    };
    for (const SFileRule& rule : p.fileRules) {
      if (excludeBroken(p.brokenFileExclude, *rule.line)) continue;
      CRefPtr<CWinapp2FileScan> scan(new IUnknownNoQIImp<CWinapp2FileScan>());
      scan->SetWhiteListTestBits(1);
      for (const std::wstring& root : rule.roots) scan->AddPath(CPathString(root.c_str()));
      scan->SetRule(rule.masks, rule.recurse);
      scan->SetExcludes(p.fileExcludes);
      if (firstRoot.empty()) firstRoot = rule.roots.front();
      ops.push_back(SOp{CRefPtr<IScanOperation>(scan.Get()), rule.line});
      ++files;
    }
    for (const SRegRule& rule : p.regRules) {
      if (excludeBroken(p.brokenRegExclude, *rule.line)) continue;
      CRefPtr<CRegistryScan> scan(new IUnknownNoQIImp<CRegistryScan>());
      scan->AddPath(rule.path.Text().c_str());
      bool kept = false;
      for (const CRegistryPath& exclude : p.regExcludes) {
        // a kept key keeps everything in it: a rule inside it has nothing left to find
        if (AtOrBelow(rule.path, exclude) &&
            (!exclude.HasValue() || (rule.path.HasValue() && exclude.Subkey().size() == rule.path.Subkey().size() &&
                                     broom::EqualNoCase(exclude.ValueName().c_str(), exclude.ValueName().size(),
                                                        rule.path.ValueName().c_str(), rule.path.ValueName().size()))))
          kept = true;
        else if (!rule.path.HasValue())
          scan->AddKeep(exclude.Text().c_str());
      }
      if (kept) continue;
      ops.push_back(SOp{CRefPtr<IScanOperation>(scan.Get()), rule.line});
      ++keys;
    }
    if (ops.empty()) {
      if (p.fileRules.empty() && p.regRules.empty())
        Skip(entry.line, entry.text, L"the entry has no FileKey or RegKey that can be read; it is left out");
      return;
    }
    SCategory& category = Category(p.category);
    if (!category.names.insert(Upper(entry.name)).second) {
      Skip(entry.line, entry.text, L"an entry of this name is already in " + std::wstring(CWinapp2Loader::kTopGroup) + L"/" +
                                       p.category + L"; this one is left out");
      return;
    }
    category.group->m_children.emplace_back();
    CScanGroup_imp& item = category.group->m_children.back();
    item.m_name = CString(entry.name.data(), static_cast<int>(entry.name.size()));
    item.m_parent = category.group;
    item.m_tip = CString(p.warning.data(), static_cast<int>(p.warning.size()));
    item.SetBoolProperty(bpDefaultScan, abFalse);
    item.SetBoolProperty(bpDefaultClean, abFalse);
    bool applies = Applies(p);
    if (!applies) item.SetBoolProperty(bpEnabled, abFalse);
    item.m_desc = Describe(p.category, firstRoot, files, keys).c_str();
    for (const SOp& op : ops) {
      CScanGroup_imp::AddScanOp(item, op.op);
      const std::wstring kind(op.line->key.data(), op.line->key.size());
      const std::wstring text(op.line->value.data(), op.line->value.size());
      m_store.SetOperationSource(op.op.Get(), m_path.c_str(), op.line->line, kind.c_str(), text.c_str());
    }
    ++m_report.items;
    m_report.applicable += applies;
    m_report.fileRules += files;
    m_report.registryRules += keys;
  }

  std::wstring Describe(const std::wstring& category, const std::wstring& firstRoot, unsigned files,
                        unsigned keys) const {
    std::wstring text = category + L" (" + m_fileName + L"): ";
    if (files) {
      text += L"files in " + firstRoot;
      if (files > 1) text += L" and " + std::to_wstring(files - 1) + (files == 2 ? L" more place" : L" more places");
    }
    if (keys) text += (files ? L"; " : L"") + std::to_wstring(keys) + (keys == 1 ? L" registry key or value" : L" registry keys or values");
    return text;
  }

  SCategory& Category(const std::wstring& name) {
    std::wstring upper = Upper(name);
    auto found = m_categories.find(upper);
    if (found != m_categories.end()) return found->second;
    SCategory& category = m_categories[upper];
    category.group = &Child(Child(m_store.GetRoot(), CWinapp2Loader::kTopGroup), name.c_str());
    for (const CScanGroup_imp& item : category.group->m_children) category.names.insert(Upper(item.GetName()));
    return category;
  }

  static CScanGroup_imp& Child(CScanGroup_imp& parent, const wchar_t* name) {
    if (CScanGroup_imp* found = parent.FindChild(name)) return *found;
    parent.m_children.emplace_back();
    CScanGroup_imp& child = parent.m_children.back();
    child.m_name = name;
    child.m_parent = &parent;
    return child;
  }

  CConfigStore& m_store;
  std::wstring m_path, m_fileName;
  SWinapp2Report& m_report;
  std::vector<SEntry> m_entries;
  CVariables m_variables;
  CDetector m_detector;
  std::unique_ptr<CBlastGuard> m_guard;  // made for the first FileKey
  std::unordered_map<std::wstring, SCategory> m_categories;
};

bool ReadWhole(const wchar_t* path, std::string& bytes, std::wstring& error) {
  broom::unique_hfile file(CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                       FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
  if (!file) {
    DWORD code = GetLastError();
    error = code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND
                ? L"the file does not exist"
                : L"the file cannot be opened (Windows error " + std::to_wstring(code) + L")";
    return false;
  }
  LARGE_INTEGER size = {};
  if (!GetFileSizeEx(file.get(), &size) || size.QuadPart > static_cast<LONGLONG>(CWinapp2Loader::kMaxFileBytes)) {
    error = L"the file is larger than 64 MB";
    return false;
  }
  bytes.resize(static_cast<size_t>(size.QuadPart));
  DWORD read = 0;
  if (!bytes.empty() && (!ReadFile(file.get(), &bytes[0], static_cast<DWORD>(bytes.size()), &read, nullptr) ||
                         read != bytes.size())) {
    error = L"the file cannot be read (Windows error " + std::to_wstring(GetLastError()) + L")";
    return false;
  }
  return true;
}

// UTF-8 with or without its BOM; UTF-16 when the file starts with its BOM.
std::wstring Decode(const char* data, size_t size) {
  std::wstring text;
  if (size >= 2 && static_cast<unsigned char>(data[0]) == 0xFF && static_cast<unsigned char>(data[1]) == 0xFE) {
    text.resize((size - 2) / 2);
    if (!text.empty()) memcpy(&text[0], data + 2, text.size() * 2);
    return text;
  }
  if (size >= 3 && memcmp(data, "\xEF\xBB\xBF", 3) == 0) {
    data += 3;
    size -= 3;
  }
  if (size == 0) return text;
  int length = MultiByteToWideChar(CP_UTF8, 0, data, static_cast<int>(size), nullptr, 0);
  text.resize(static_cast<size_t>(length));
  if (length > 0) MultiByteToWideChar(CP_UTF8, 0, data, static_cast<int>(size), &text[0], length);
  return text;
}

}  // namespace

SWinapp2Report CWinapp2Loader::Load(const wchar_t* path) {
  std::string bytes;
  std::wstring error;
  if (!ReadWhole(path, bytes, error)) {
    SWinapp2Report report;
    report.error = error.c_str();
    m_store.AddLoadNote(CString(path), 0, CString(error.c_str()));
    return report;
  }
  return LoadText(bytes.data(), bytes.size(), path);
}

SWinapp2Report CWinapp2Loader::LoadText(const char* data, size_t size, const wchar_t* path) {
  SWinapp2Report report;
  if (size > kMaxFileBytes) {
    report.error = L"the file is larger than 64 MB";
    m_store.AddLoadNote(CString(path), 0, report.error);
    return report;
  }
  report.read = true;
  std::wstring text = Decode(data, size);
  // the tree is sorted again on the way out of a failure too, as after a definition load
  auto sort = broom::scope_exit([this] { m_store.GetRoot().SortChildren(); });
  CLoad(m_store, path, report).Run(text);
  return report;
}
