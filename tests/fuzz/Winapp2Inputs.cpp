#include "fuzz/Winapp2Inputs.h"

#include <windows.h>

#include <algorithm>

#include "fuzz/FuzzInputs.h"

namespace fuzz {

namespace {

std::string Repeat(const std::string& piece, size_t count) {
  std::string out;
  out.reserve(piece.size() * count);
  for (size_t i = 0; i < count; ++i) out += piece;
  return out;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t at = 0; at < text.size();) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size() - 1;
    lines.push_back(text.substr(at, end + 1 - at));
    at = end + 1;
  }
  return lines;
}

std::string Join(const std::vector<std::string>& lines) {
  std::string out;
  for (const std::string& line : lines) out += line;
  return out;
}

// ---- the grammar ----

const char* const kRoots[] = {
    "%AppData%",     "%LocalAppData%",  "%LocalLowAppData%", "%ProgramData%", "%CommonAppData%", "%ProgramFiles%",
    "%CommonProgramFiles%", "%Documents%", "%Music%",        "%Pictures%",    "%Video%",         "%Public%",
    "%SystemDrive%", "%SystemRoot%",    "%WinDir%",          "%UserProfile%", "%UserName%",      "%HomeDrive%",
    "%AllUsersProfile%", "%Temp%",      "%tmp%",             "%Nope%",        "%",               "%%",
    "%Temp",         "C:",              "C:\\",              "\\\\server\\share", "\\\\?\\C:",   "relative",
    "%WinDir%.",     "C:\\users\\root.", "c:/windows/",      "%Temp%%Temp%",  "\\\\.\\C:",       "C:\\PROGRA~1"};
const char* const kParts[] = {"x", "App", "Cache", "*", "?", "a*b", "..", ".", "Logs", "dir.", "dir ", "System32",
                              "users", "root.", "PROGRA~1", "/", "", "%Temp%", "\xC3\xA4rger", "\xEF\xBB\xBF",
                              "a|b", "a:b", "con", "nul.txt", "Broom", "*.*", "%UserName%"};
const char* const kMasks[] = {"*", "*.*", "*.tmp", "*.log;*.bak", "?", "", ";;", "x\\y", "a:b", "*.dll;*.exe",
                              "LOG", "*.", ".*", "**", "a;", "~*.doc*", "*.dat", "desktop.ini", "x/y"};
const char* const kFlags[] = {"RECURSE", "REMOVESELF", "recurse", "", "BOGUS", "RECURSE|RECURSE", " removeself "};
const char* const kRegRoots[] = {"HKCU\\Software", "HKLM\\Software", "HKCR\\.txt", "HKU", "HKEY_CURRENT_USER\\Software",
                                 "HKXX", "HKCU", "HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run", "",
                                 "HKCU\\Software\\Wine", "HKLM\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion"};
const char* const kSpecial[] = {"DET_CHROME", "DET_MOZILLA", "DET_THUNDERBIRD", "DET_OPERA", "DET_WINDOWS",
                                "DET_NOPE", "det_windows", ""};
const char* const kOs[] = {"6.1|", "|10.0", "5.1|6.3", "x|y", "|", "10", "6.1|10.0|11", "99999999999|", "|5.0"};
const char* const kCategory[] = {"LangSecRef=3021", "LangSecRef=3022", "LangSecRef=3025", "LangSecRef=9999",
                                 "LangSecRef=x", "LangSecRef=", "LangSecRef=3021.5", "Section=Games",
                                 "Section=", "Section=a/b"};
const char* const kNames[] = {"Test *", "A/B *", "x", "", " *", "Name ] bracket *", "Temp files *", "*", "[x] *",
                              "Windows Shell - Folder/Dialog Box View Settings *", "%Temp% *", "$(self) *"};
const char* const kExcludeKinds[] = {"FILE", "PATH", "REG", "file", "BOGUS", "", "PATH|"};

class Grammar {
 public:
  explicit Grammar(Rng& rng) : r(rng) {}

  std::string File() {
    std::string out;
    if (r.Chance(10)) out += "; comment\r\n";
    if (r.Chance(5)) out += "FileKey1=%Temp%|*\r\n";  // before the first entry
    for (size_t n = 1 + r.Below(6); n-- > 0;) out += Entry();
    return out;
  }

  std::string Entry() {
    std::string name = r.Chance(3) ? std::string(300, 'n') + " *" : r.Pick(kNames);
    std::string out = "[" + name + (r.Chance(95) ? "]" : "") + End();
    for (size_t n = r.Below(8); n-- > 0;) out += Key() + End();
    return out;
  }

  std::string Path() {
    std::string path = r.Pick(kRoots);
    for (size_t n = r.Below(5); n-- > 0;) path += std::string(r.Chance(90) ? "\\" : "/") + r.Pick(kParts);
    if (r.Chance(3)) path += "\\" + std::string(300, 'p');
    return path;
  }
  std::string Masks() {
    std::string masks = r.Pick(kMasks);
    for (size_t n = r.Below(3); n-- > 0;) masks += std::string(";") + r.Pick(kMasks);
    return masks;
  }
  std::string Reg() {
    std::string key = r.Pick(kRegRoots);
    for (size_t n = r.Below(3); n-- > 0;) key += std::string("\\") + r.Pick(kParts);
    if (r.Chance(25)) key += std::string("|") + (r.Chance(50) ? "Value" : "");
    return key;
  }

 private:
  std::string End() { return r.Chance(90) ? "\r\n" : r.Chance(50) ? "\n" : "\r"; }
  std::string Number() {
    if (r.Chance(15)) return "";
    if (r.Chance(5)) return std::string(30, '9');
    return std::to_string(1 + r.Below(20));
  }

  std::string Key() {
    switch (r.Below(12)) {
      case 0: case 1: case 2: {
        std::string key = "FileKey" + Number() + "=" + Path() + "|" + Masks();
        if (r.Chance(50)) key += std::string("|") + r.Pick(kFlags);
        return key;
      }
      case 3: {
        std::string kind = r.Pick(kExcludeKinds);
        std::string value = kind == "REG" ? Reg() : kind == "FILE" ? Path() + "\\" + r.Pick(kMasks) : Path() + "|" + Masks();
        return "ExcludeKey" + Number() + "=" + kind + "|" + value;
      }
      case 4: return "RegKey" + Number() + "=" + Reg();
      case 5: return "Detect" + Number() + "=" + Reg();
      case 6: case 7: return "DetectFile" + Number() + "=" + Path();
      case 8: return std::string("SpecialDetect=") + r.Pick(kSpecial);
      case 9: return std::string("DetectOS=") + r.Pick(kOs);
      case 10: return r.Pick(kCategory);
      default: {
        const char* others[] = {"Warning=This deletes %Temp%", "Default=False", "Default=True", "Unknown=1", "=x",
                                "FileKey", "Detect=", "DetectFile=", "FileKey1=|", "FileKey1=||", "x"};
        return r.Pick(others);
      }
    }
  }

  Rng& r;
};

// ---- mutations ----

// Folders a careless or hostile rule aims at, in the spellings that once
// walked past the guard.
const char* const kHostileRoots[] = {
    "%SystemDrive%",        "%WinDir%\\System32",     "C:\\users\\root.",         "%UserProfile%.",
    "%AppData%.",           "%LocalAppData%\\Broom",  "C:\\users\\Public.",       "\\\\?\\C:\\windows",
    "c:/windows/",          "C:\\PROGRA~1",           "%Documents%",              "%ProgramData%",
    "C:\\users. ",          "%LocalLowAppData%.",     "C:\\windows\\system32\\.", "%WinDir%\\..\\windows",
    "%WinDir%%Nope%",       "%WinDir%\\%",            "C:",                       "C:\\*",
    "C:\\users\\*",         "%UserProfile%\\*\\*"};
const char* const kHostileTails[] = {"|*|REMOVESELF", "|*.*|RECURSE", "|*.dll;*.exe|RECURSE", "|*.dll", "|*", "|*.*"};
const char* const kKeyNames[] = {"FileKey1=", "DetectFile=", "Detect=", "ExcludeKey1=PATH|", "ExcludeKey1=FILE|",
                                 "RegKey1=", "SpecialDetect=", "DetectOS=", "ExcludeKey1=REG|"};

void Semantic(Rng& r, std::string& text, std::string& what) {
  std::vector<std::string> lines = Lines(text);
  if (lines.empty()) lines.push_back("[Empty *]\r\n");
  const size_t at = r.Below(lines.size());
  std::string line = lines[at], end;
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) end.insert(end.begin(), line.back()), line.pop_back();
  if (end.empty()) end = "\r\n";
  size_t equals = line.find('=');
  std::string key = equals == std::string::npos ? "FileKey9=" : line.substr(0, equals + 1);
  std::string value = equals == std::string::npos ? std::string() : line.substr(equals + 1);
  size_t bar = value.find('|');
  switch (r.Below(8)) {
    case 0:
      value = r.Pick(kHostileRoots) + (bar == std::string::npos ? std::string() : value.substr(bar));
      what += "hostile folder, ";
      break;
    case 1:
      value = (bar == std::string::npos ? value : value.substr(0, bar)) + r.Pick(kHostileTails);
      what += "hostile masks, ";
      break;
    case 2: {
      size_t n = r.LogSize(10, 20000);
      value.insert(bar == std::string::npos ? value.size() : bar, Repeat(r.Chance(50) ? "\\a" : "%Temp%", n));
      what += "path of " + std::to_string(n) + ", ";
      break;
    }
    case 3: {
      size_t n = r.LogSize(2, 5000);
      lines.insert(lines.begin() + static_cast<long>(at), n, line + end);
      what += "line repeated " + std::to_string(n) + ", ";
      text = Join(lines);
      return;
    }
    case 4: {
      const char* bad[] = {"%Nope%", "%", "..", ".", "\\..\\", " ", ".", "\\\\", "*", "?", "\xEF\xBB\xBF"};
      value.insert(r.Below(value.size() + 1), r.Pick(bad));
      what += "bad piece in a value, ";
      break;
    }
    case 5: {
      // trailing dots and spaces on every component
      std::string out;
      for (char c : value) {
        if (c == '\\' || c == '|') out += r.Chance(50) ? "." : " ";
        out += c;
      }
      value = out;
      what += "dotted components, ";
      break;
    }
    case 6:
      key = r.Pick(kKeyNames);
      what += "key renamed, ";
      break;
    default:
      std::swap(lines[at], lines[r.Below(lines.size())]);
      what += "lines swapped, ";
      text = Join(lines);
      return;
  }
  lines[at] = key + value + end;
  text = Join(lines);
}

const char* const kTokens[] = {"[", "]", "=", "|", "%", "%Temp%", "\\", "*", "\r", "\n", ";", "|RECURSE",
                               "|REMOVESELF", "..", ".", " *]", "\r\n[X *]\r\n", "FileKey1=", "\xEF\xBB\xBF",
                               "\xFF\xFE", "\xC0\xAF", "\xED\xA0\x80", "\xE2\x80\xA8", "\xC2\x85"};

void Bytes(Rng& r, std::string& s, std::string& what) {
  size_t at = r.Below(s.size() + 1);
  switch (r.Below(6)) {
    case 0: {
      size_t n = 1 + r.Below(16);
      for (size_t i = 0; i < n && !s.empty(); ++i) s[r.Below(s.size())] ^= static_cast<char>(1 + r.Below(255));
      what += "flip " + std::to_string(n) + ", ";
      break;
    }
    case 1: case 2: {
      std::string token = r.Chance(10) ? std::string(1, '\0') : r.Pick(kTokens);
      s.insert(at, token);
      what += "insert a token, ";
      break;
    }
    case 3: {
      size_t n = std::min(s.size() - at, r.Chance(50) ? 1 + r.Below(64) : r.Below(s.size() / 4 + 1));
      s.erase(at, n);
      what += "delete " + std::to_string(n) + ", ";
      break;
    }
    case 4: {
      size_t n = std::min(s.size() - at, r.Below(512));
      s.insert(r.Below(s.size() + 1), s.substr(at, n));
      what += "duplicate " + std::to_string(n) + ", ";
      break;
    }
    default:
      s.resize(at);
      what += "truncate at " + std::to_string(at) + ", ";
      break;
  }
}

std::string Utf16(const std::string& utf8, bool bigEndian) {
  int n = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0);
  std::wstring wide(static_cast<size_t>(n), L'\0');
  if (n > 0) MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), &wide[0], n);
  std::string out;
  out.reserve(wide.size() * 2);
  for (wchar_t c : wide) {
    char low = static_cast<char>(c & 0xFF), high = static_cast<char>(c >> 8);
    out += bigEndian ? high : low;
    out += bigEndian ? low : high;
  }
  return out;
}

}  // namespace

Winapp2Source::Winapp2Source(std::string shared) : m_shared(std::move(shared)) {
  for (size_t at = 0; at < m_shared.size();) {
    if (m_shared[at] == '[') m_entries.push_back(at);
    size_t end = m_shared.find('\n', at);
    at = end == std::string::npos ? m_shared.size() : end + 1;
  }
  if (m_entries.empty()) m_shared.clear();
}

std::string Winapp2Source::Entries(Rng& r, size_t count) const {
  size_t first = r.Below(m_entries.size());
  size_t last = std::min(first + count, m_entries.size());
  size_t end = last == m_entries.size() ? m_shared.size() : m_entries[last];
  return m_shared.substr(m_entries[first], end - m_entries[first]);
}

std::string Winapp2Source::Slice(Rng& r, std::string& what) const {
  if (r.Chance(1)) {
    what += "the whole shared file";
    return m_shared;
  }
  size_t length = r.LogSize(100, 40000);
  size_t from = r.Chance(70) ? m_entries[r.Below(m_entries.size())] : r.Below(m_shared.size());
  std::string text = m_shared.substr(from, length);
  if (r.Chance(70)) {
    size_t end = m_shared.find('\n', from + text.size());
    text = m_shared.substr(from, (end == std::string::npos ? m_shared.size() : end + 1) - from);
  }
  what += "slice of " + std::to_string(text.size()) + " bytes at " + std::to_string(from);
  return text;
}

std::string Winapp2Source::RealMutated(Rng& r, std::string& what) const {
  size_t count = 1 + r.Below(16);
  std::string text = Entries(r, count);
  what += std::to_string(count) + " real entries: ";
  for (size_t n = 1 + r.Below(4); n-- > 0;) Semantic(r, text, what);
  return text;
}

std::string Winapp2Source::Huge(Rng& r, std::string& what) const {
  size_t n = r.LogSize(1000, 60000);
  std::string deep = Repeat("\\a", n), temps = Repeat("%Temp%", n / 4 + 1);
  std::string line;
  switch (r.Below(16)) {
    case 0: line = "DetectFile=C:" + deep; what += "DetectFile of " + std::to_string(n) + " components"; break;
    case 1: line = "DetectFile=" + temps; what += "DetectFile of %Temp% x" + std::to_string(n / 4 + 1); break;
    case 2: line = "Detect=HKCU" + deep; what += "Detect of " + std::to_string(n) + " components"; break;
    case 3: line = "FileKey1=C:" + deep + "|*.tmp"; what += "FileKey of " + std::to_string(n) + " components"; break;
    case 4: line = "FileKey1=" + temps + "|*"; what += "FileKey of %Temp% x" + std::to_string(n / 4 + 1); break;
    case 5: line = "ExcludeKey1=PATH|C:" + deep + "|*.x"; what += "ExcludeKey PATH of " + std::to_string(n); break;
    case 6: line = "ExcludeKey1=FILE|%Temp%" + deep + "\\x.txt"; what += "ExcludeKey FILE of " + std::to_string(n); break;
    case 7: line = "RegKey1=HKCU" + deep + "|v"; what += "RegKey of " + std::to_string(n) + " components"; break;
    case 8: line = "FileKey1=%Temp%|" + Repeat("*.a;", n); what += std::to_string(n) + " masks"; break;
    case 9: line = "ExcludeKey1=PATH|%Temp%\\|" + Repeat("*.a;", n); what += std::to_string(n) + " exclude masks"; break;
    case 10: {
      // wildcards in every component a path may hold: detection lists what it meets
      size_t k = 1 + r.Below(128);
      line = std::string(r.Chance(50) ? "DetectFile=C:" : "FileKey1=%Temp%") + Repeat("\\*", k);
      if (line[0] == 'F') line += "|*.nothing";
      what += "path of " + std::to_string(k) + " wildcards";
      break;
    }
    case 11: {
      const char* forms[] = {"FileKey1=C:\\%s|*", "FileKey1=%Temp%\\%s|*", "DetectFile=%Temp%\\%s",
                             "FileKey1=%Temp%|%s", "Detect=HKCU\\Software\\%s", "[%s]", "FileKey%s=%Temp%|*",
                             "Section=%s", "Warning=%s", "ExcludeKey1=FILE|%Temp%\\%s"};
      line = r.Pick(forms);
      size_t length = r.Chance(50) ? 300 : r.LogSize(200, 70000);
      line.replace(line.find("%s"), 2, std::string(length, r.Chance(50) ? 'n' : '9'));
      what += "name of " + std::to_string(length);
      break;
    }
    case 12: line = Repeat("%", n); what += std::to_string(n) + " '%'"; break;
    case 13: line = "FileKey1=" + Repeat("|", n); what += std::to_string(n) + " '|'"; break;
    case 14: line = Repeat("[", n) + Repeat("]", n); what += std::to_string(n) + " brackets"; break;
    default: line = "DetectFile=C:" + Repeat("\\" + std::string(255, 'd'), n / 256 + 1); what += "long names"; break;
  }
  std::string entry = "[Huge *]\r\n";
  if (r.Chance(50)) entry += "DetectFile=%Temp%\r\n";
  entry += line + "\r\nFileKey2=%Temp%\\broom-fuzz-none|*.tmp\r\n";
  return entry;
}

std::string Winapp2Source::Many(Rng& r, std::string& what) const {
  size_t n = r.LogSize(100, 30000);
  std::string out;
  switch (r.Below(8)) {
    case 0:
      for (size_t i = 0; i < n; ++i)
        out += "[E" + std::to_string(i) + " *]\r\n" + (i % 2 ? "DetectFile=%Temp%\\e" + std::to_string(i) + "\r\n" : "") +
               "FileKey1=%Temp%\\e" + std::to_string(i) + "|*.tmp\r\n";
      what += std::to_string(n) + " entries";
      break;
    case 1:
      out = Repeat("[Same *]\r\nFileKey1=%Temp%\\same|*.tmp\r\n", n);
      what += std::to_string(n) + " entries of one name";
      break;
    case 2: {
      const char* kinds[] = {"FileKey%u=%Temp%\\k%u|*.tmp", "DetectFile%u=%Temp%\\k%u\\x", "Detect%u=HKCU\\Software\\k%u",
                             "ExcludeKey%u=PATH|%Temp%\\k%u|*.log", "RegKey%u=HKCU\\Software\\broom-fuzz\\k%u",
                             "Warning%u=w%u", "LangSecRef%u=30%u", "DetectOS%u=6.%u|"};
      std::string form = r.Pick(kinds);
      out = "[Keys *]\r\nFileKey0=%Temp%\\keys|*.tmp\r\n";
      for (size_t i = 0; i < n; ++i) {
        std::string key = form, number = std::to_string(i);
        for (size_t p; (p = key.find("%u")) != std::string::npos;) key.replace(p, 2, number);
        out += key + "\r\n";
      }
      what += std::to_string(n) + " keys of the form " + form;
      break;
    }
    case 3:
      out = "[Both *]\r\n";
      for (size_t i = 0; i < n; ++i)
        out += "FileKey" + std::to_string(i) + "=%Temp%\\b" + std::to_string(i) + "|*.tmp|RECURSE\r\nExcludeKey" +
               std::to_string(i) + "=FILE|%Temp%\\b" + std::to_string(i) + "\\x.tmp;y.tmp\r\n";
      what += std::to_string(n) + " rules and excludes";
      break;
    case 4:
      out = "[Detections *]\r\n";
      for (size_t i = 0; i < n; ++i) out += "DetectFile" + std::to_string(i) + "=%WinDir%\\f" + std::to_string(i) + ".x\r\n";
      out += "FileKey1=%Temp%\\detections|*.tmp\r\n";
      what += std::to_string(n) + " detections in one folder";
      break;
    case 5:
      out = Repeat("x\r\n", n * 4);
      what += std::to_string(n * 4) + " lines that are not keys";
      break;
    case 6:
      out = Repeat(r.Chance(50) ? "; comment\r\n" : "\r\n", n * 4) + "[Last *]\r\nFileKey1=%Temp%|*.tmp\r\n";
      what += std::to_string(n * 4) + " comment or blank lines";
      break;
    default: {
      Grammar g(r);
      for (size_t i = 0; i < n / 8 + 1; ++i) out += g.Entry();
      what += std::to_string(n / 8 + 1) + " grammar entries";
      break;
    }
  }
  return out;
}

std::string Winapp2Source::Encoded(Rng& r, std::string& what) const {
  std::string base = HasShared() && r.Chance(60) ? Entries(r, 1 + r.Below(20)) : Grammar(r).File();
  switch (r.Below(9)) {
    case 0: case 1: {
      std::string out = "\xFF\xFE" + Utf16(base, false);
      bool odd = r.Chance(60);
      if (odd) r.Chance(50) ? out.pop_back() : out.push_back('\x41');
      what += odd ? "UTF-16 of odd length" : "UTF-16";
      return out;
    }
    case 2:
      what += "UTF-16 big-endian";
      return "\xFE\xFF" + Utf16(base, true);
    case 3:
      what += "UTF-16 without its BOM";
      return Utf16(base, false);
    case 4: {
      const char* bad[] = {"\x80", "\xBF", "\xC3", "\xE2\x82", "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xF8\x88\x80\x80\x80",
                           "\xFF", "\xF4\x90\x80\x80"};
      size_t n = 1 + r.Below(40);
      for (size_t i = 0; i < n; ++i) base.insert(r.Below(base.size() + 1), r.Pick(bad));
      what += "bad UTF-8 x" + std::to_string(n);
      return base;
    }
    case 5: {
      size_t n = 1 + r.Below(20);
      for (size_t i = 0; i < n; ++i) base.insert(r.Below(base.size() + 1), 1, '\0');
      what += "NUL x" + std::to_string(n);
      return base;
    }
    case 6: {
      std::string out;
      if (r.Chance(50)) {
        for (char c : base)
          if (c != '\n') out += c;
        what += "lone CRs for line ends";
      } else {
        out = base;
        size_t n = 1 + r.Below(20);
        for (size_t i = 0; i < n; ++i) out.insert(r.Below(out.size() + 1), 1, '\r');
        what += "lone CRs inside lines x" + std::to_string(n);
      }
      return out;
    }
    case 7: {
      std::string out = "\xEF\xBB\xBF\xEF\xBB\xBF";
      for (char c : base) {
        out += c;
        if (c == '\n' || (c == '\\' && r.Chance(20))) out += "\xEF\xBB\xBF";
      }
      what += "BOMs everywhere";
      return out;
    }
    default: {
      const char* odd[] = {"\xE2\x80\xA8", "\xC2\x85", "\xEF\xBF\xBF", "\xF4\x8F\xBF\xBF", "\xE2\x80\xAE", "\xEF\xBC\xBC"};
      size_t n = 1 + r.Below(20);
      for (size_t i = 0; i < n; ++i) base.insert(r.Below(base.size() + 1), r.Pick(odd));
      what += "odd characters x" + std::to_string(n);
      return base;
    }
  }
}

std::string Winapp2Source::Make(Rng& r, std::string& what) const {
  std::string text;
  size_t family = r.Below(20);
  if (!HasShared() && family < 9) family = 9 + r.Below(2);  // the shared file's families made from the grammar
  if (family < 5) {
    text = Slice(r, what);
  } else if (family < 9) {
    text = RealMutated(r, what);
  } else if (family < 11) {
    text = Grammar(r).File();
    what += "grammar";
  } else if (family < 14) {
    text = Huge(r, what);
  } else if (family < 16) {
    text = Many(r, what);
  } else {
    text = Encoded(r, what);
  }
  if (r.Chance(40)) {
    what += "; ";
    for (size_t n = 1 + r.Below(2); n-- > 0;) Bytes(r, text, what);
  }
  while (what.size() > 2 && (what.back() == ' ' || what.back() == ',')) what.pop_back();
  return text;
}

}  // namespace fuzz
