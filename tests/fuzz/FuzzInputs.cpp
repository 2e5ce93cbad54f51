#include "fuzz/FuzzInputs.h"

#include <windows.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <stdexcept>

namespace fuzz {

uint64_t Rng::Next() {
  // splitmix64
  uint64_t z = (m_state += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

size_t Rng::LogSize(size_t from, size_t to) {
  double f = static_cast<double>(Next() >> 11) / 9007199254740992.0;
  return static_cast<size_t>(static_cast<double>(from) * std::pow(static_cast<double>(to) / from, f));
}

// ---- kept cases ----

namespace {

std::string ExpandFrom(const std::string& p, size_t& at, bool nested) {
  std::string out;
  while (at < p.size()) {
    char c = p[at++];
    if (c == '}' && nested) return out;
    if (c == '{') {
      size_t star = p.find('*', at);
      if (star == std::string::npos) throw std::runtime_error("'{' without a count");
      size_t count = std::stoul(p.substr(at, star - at));
      at = star + 1;
      std::string body = ExpandFrom(p, at, true);
      out.reserve(out.size() + body.size() * count);
      for (size_t i = 0; i < count; ++i) out += body;
    } else if (c == '\\' && at < p.size()) {
      char e = p[at++];
      if (e == 'x' && at + 2 <= p.size()) {
        out += static_cast<char>(std::stoul(p.substr(at, 2), nullptr, 16));
        at += 2;
      } else {
        out += e == 'n' ? '\n' : e == 'r' ? '\r' : e;
      }
    } else {
      out += c;
    }
  }
  if (nested) throw std::runtime_error("'{' without '}'");
  return out;
}

}  // namespace

std::string Expand(const std::string& pattern) {
  size_t at = 0;
  return ExpandFrom(pattern, at, false);
}

std::vector<Case> ReadCases(const std::wstring& path) {
  std::ifstream in(path.c_str(), std::ios::binary);
  if (!in) throw std::runtime_error("cannot read the kept cases");
  std::vector<Case> cases;
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty() || line[0] == '#') continue;
    size_t blank = line.find(' ');
    if (blank == std::string::npos) throw std::runtime_error("kept case on line " + std::to_string(number) + " has no pattern");
    Case c{line.substr(0, blank), line.substr(blank + 1)};
    try {
      Expand(c.pattern);
    } catch (const std::exception& e) {
      throw std::runtime_error("kept case on line " + std::to_string(number) + ": " + e.what());
    }
    cases.push_back(c);
  }
  return cases;
}

// ---- the grammar ----

namespace {

const char* const kNames[] = {"Internet", "System", "Browser cache", "a/b", "A/B/c", "Logs", "x", "/", "//",
                              "$(Browsers)", "%CACHE%", "Temp %%", "%P%", "Thumbnails", "a//b/", " "};
const char* const kValueNames[] = {"A", "B", "CACHE", "SUB", "P", "TEMP", "Self", "a"};
const char* const kTexts[] = {"%TEMP%\\x\\*.tmp", "%LOCALAPPDATA%\\%SUB%\\*", "%%", "100%", "%NOSUCH%",
                              "$(Browsers)", "$(self)", "$$5", "$(", "a;b;c", "&amp;&lt;&#37;", "%A%%B%",
                              "C:\\Tmp\\\\x", "", "%WINDOWS%\\Temp\\*", "%CACHE%/%P%", "plain words", "%"};
const char* const kWords[] = {"yes", "no", "true", "0", "1", "on", "maybe", ""};

class Grammar {
 public:
  explicit Grammar(Rng& rng) : r(rng) {}

  std::string File() {
    std::string out;
    if (r.Chance(60)) out += "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n";
    if (r.Chance(20)) out += "<!-- generated -->\r\n";
    out += "<ConfigItems>";
    for (size_t n = r.Below(8); n-- > 0;) {
      switch (r.Below(6)) {
        case 0: out += Value(); break;
        case 1: case 2: out += Group(1); break;
        case 3: case 4: out += Item(1, true); break;
        default: out += Clean(); break;
      }
    }
    return out + "</ConfigItems>\r\n";
  }

 private:
  std::string Text() {
    std::string t;
    for (size_t n = 1 + r.Below(3); n-- > 0;) t += r.Pick(kTexts);
    if (r.Chance(3)) t += std::string(300, 'p');
    return t;
  }
  std::string Attr(const char* name, const std::string& value) { return std::string(" ") + name + "=\"" + value + "\""; }
  std::string Base() {
    std::string a;
    if (r.Chance(30)) a += Attr("order", r.Chance(80) ? std::to_string(static_cast<int>(r.Below(2000)) - 100) : "x1");
    const char* texts[] = {"desc", "tip", "icon", "tabIcon", "report"};
    for (const char* t : texts)
      if (r.Chance(25)) a += Attr(t, Text());
    const char* words[] = {"scan", "clean", "qscan", "safe"};
    for (const char* w : words)
      if (r.Chance(25)) a += Attr(w, r.Pick(kWords));
    return a;
  }
  std::string Children(int depth) {
    std::string out;
    for (size_t n = r.Below(depth > 4 ? 2 : 5); n-- > 0;) {
      switch (r.Below(8)) {
        case 0: out += Value(); break;
        case 1: out += Group(depth + 1); break;
        case 2: out += Item(depth + 1, false); break;
        case 3: out += "<cleaning>" + Clean() + (r.Chance(30) ? Check() : "") + Clean() + "</cleaning>"; break;
        case 4: out += Clean(); break;
        case 5: out += "<checks>" + Check() + Check() + "</checks>"; break;
        case 6: out += Check(); break;
        default: out += "<unknown a=\"%A%\">text %B%</unknown>"; break;
      }
    }
    return out;
  }
  std::string Group(int depth) {
    std::string open = "<group" + Attr("name", r.Pick(kNames)) + Base();
    std::string inner = Children(depth);
    return inner.empty() ? open + "/>" : open + ">" + inner + "</group>";
  }
  std::string Item(int depth, bool top) {
    std::string a = Attr("name", r.Pick(kNames));
    if (top ? r.Chance(85) : r.Chance(20)) a += Attr("group", r.Pick(kNames));
    return "<item" + a + Base() + ">" + Children(depth) + "</item>";
  }
  std::string Value() {
    std::string a = Attr("name", r.Pick(kValueNames));
    std::string text = Text();
    if (r.Chance(20)) {
      a += Attr("type", "regVal");
      text = r.Chance(50) ? "HKCU\\Software\\Wine[ Version ]" : "HKLM\\Software\\Microsoft\\Windows NT\\CurrentVersion[ProductName]";
    }
    if (r.Chance(20)) a += Attr("default", Text());
    if (r.Chance(20)) a += Attr("delimiter", r.Chance(70) ? ";" : ";\\") + Attr("index", std::to_string(r.Below(5)));
    if (r.Chance(15)) text = "<![CDATA[" + text + "]]>";
    return "<value" + a + ">" + text + "</value>";
  }
  std::string Clean() {
    const char* kinds[] = {"file", "trunc", "path", "file_trunc", "ram", "reg", "system", "bogus", ""};
    std::string a = Attr("kind", r.Pick(kinds));
    if (r.Chance(20)) a += Attr("system", r.Chance(50) ? "1" : "yes");
    std::string text = Text();
    if (r.Chance(10)) text = "<![CDATA[" + text + "]]>";
    return "<clean" + a + ">" + text + "</clean>";
  }
  std::string Check() {
    const char* tests[] = {"exists", "equals", "contains", "other"};
    const char* data[] = {"file", "env", "regkey", "regvalue", "other"};
    const char* paths[] = {"%WINDOWS%", "TEMP", "HKCU\\Software", "HKLM\\Software\\Wine[x]", "C:\\no\\such", "PATH"};
    std::string a = Attr("test", r.Pick(tests)) + Attr("data", r.Pick(data)) + Attr("path", r.Pick(paths));
    if (r.Chance(60)) a += Attr("value", r.Chance(50) ? "C:" : "\\");
    return "<check" + a + "/>";
  }

  Rng& r;
};

// ---- mutations ----

// A position just after a '>' (or the end), where an element may go.
size_t ElementSpot(Rng& r, const std::string& s) {
  for (int tries = 0; tries < 8 && !s.empty(); ++tries) {
    size_t at = s.find('>', r.Below(s.size()));
    if (at != std::string::npos) return at + 1;
  }
  return s.size();
}

std::string Repeat(const std::string& piece, size_t count) {
  std::string out;
  out.reserve(piece.size() * count);
  for (size_t i = 0; i < count; ++i) out += piece;
  return out;
}

// The pieces of huge texts; '%' and "$(" runs are what made expansion quadratic.
const char* const kRunPieces[] = {"%", "%", "$(", "%A%", "a", "/", "%%", "$$", "x%", "$(a)", "&amp;", " ", ";"};

void Mutate(Rng& r, std::string& s, const std::vector<std::string>& seeds, std::string& what) {
  auto note = [&](const std::string& text) { what += (what.empty() ? "" : ", ") + text; };
  size_t at = r.Below(s.size() + 1);
  switch (r.Below(18)) {
    case 0: {
      size_t n = 1 + r.Below(16);
      for (size_t i = 0; i < n && !s.empty(); ++i) s[r.Below(s.size())] ^= static_cast<char>(1 + r.Below(255));
      note("flip " + std::to_string(n));
      break;
    }
    case 1: case 2: {
      const char* tokens[] = {"<", ">", "/>", "</group>", "<group name=\"x\">", "<item name=\"y\" group=\"g\">", "</item>",
                              "<value name=\"A\">", "</value>", "%", "%%", "$(", ")", "\"", "'", "&", "&amp;",
                              "<![CDATA[", "]]>", "<!--", "-->", "/", "//", "\r\n", "<?xml version=\"1.0\"?>", "=\""};
      const char* t = r.Pick(tokens);
      s.insert(at, t);
      note(std::string("insert ") + t);
      break;
    }
    case 3: {
      size_t n = std::min(s.size() - std::min(at, s.size()), r.Chance(50) ? 1 + r.Below(64) : r.Below(s.size() / 4 + 1));
      s.erase(at, n);
      note("delete " + std::to_string(n));
      break;
    }
    case 4: {
      size_t n = std::min(s.size() - at, r.Below(256));
      s.insert(r.Below(s.size() + 1), s.substr(at, n));
      note("duplicate " + std::to_string(n));
      break;
    }
    case 5:
      s.resize(at);
      note("truncate at " + std::to_string(at));
      break;
    case 6: {
      const std::string& other = seeds.empty() ? s : seeds[r.Below(seeds.size())];
      size_t from = r.Below(other.size() + 1);
      s = s.substr(0, at) + other.substr(from);
      note("splice");
      break;
    }
    case 7: case 8: {
      // deep nesting of one element kind, or of groups and items in turn
      const char* kinds[] = {"group", "item", "value", "cleaning", "clean", "checks", "check", "ConfigItems", "x", "mixed"};
      std::string kind = r.Pick(kinds);
      size_t depth = r.LogSize(50, 40000);
      std::string open, close;
      for (int k = 0; k < 2; ++k) {
        std::string name = kind == "mixed" ? (k ? "item" : "group") : kind;
        std::string attrs = name == "item" ? " name=\"i\" group=\"g\"" : name == "group" || name == "value" ? " name=\"n\"" : "";
        open += "<" + name + attrs + ">";
        close = "</" + name + ">" + close;
        if (kind != "mixed") break;
      }
      size_t pairs = kind == "mixed" ? depth / 2 : depth;
      s.insert(ElementSpot(r, s), Repeat(open, pairs) + (r.Chance(50) ? "%A%" : "") + Repeat(close, pairs));
      note("nest " + kind + " " + std::to_string(depth));
      break;
    }
    case 9: {
      size_t segments = r.LogSize(10, 40000);
      std::string path = Repeat("a/", segments);
      const char* forms[] = {"<group name=\"%s\"/>", "<item name=\"i\" group=\"%s\"/>", "<item name=\"%s\" group=\"g\"/>",
                             "<group name=\"g\"><item name=\"%s\"/></group>"};
      std::string form = r.Pick(forms);
      form.replace(form.find("%s"), 2, path);
      s.insert(ElementSpot(r, s), form);
      note("group path of " + std::to_string(segments));
      break;
    }
    case 10: case 11: {
      std::string piece = r.Pick(kRunPieces);
      size_t length = r.LogSize(1000, 2000000);
      std::string run = Repeat(piece, length / piece.size() + 1);
      const char* forms[] = {"<group name=\"G\" desc=\"%s\"/>", "<group name=\"%s\"/>", "<value name=\"A\">%s</value>",
                             "<item name=\"I\" group=\"G\"><clean kind=\"file\">%s</clean></item>",
                             "<value name=\"A\" delimiter=\"%s\" index=\"99\">%s</value>",
                             "<group name=\"G\"><check test=\"contains\" data=\"env\" path=\"PATH\" value=\"%s\"/></group>",
                             "<group name=\"G\" desc=\"x\">%s</group>"};
      std::string form = r.Pick(forms);
      for (size_t p; (p = form.find("%s")) != std::string::npos;) form.replace(p, 2, run);
      s.insert(ElementSpot(r, s), form);
      note("run of " + std::to_string(run.size()) + " '" + piece + "'");
      break;
    }
    case 12: {
      // values that name themselves, and localized texts that do
      s.insert(ElementSpot(r, s),
               "<value name=\"A\">%A%/%A%</value><value name=\"Self\">$(self)</value>"
               "<group name=\"%A%\" desc=\"%A%%Self%$(self)\"><item name=\"$(Self)%A%\"/></group>");
      note("self references");
      break;
    }
    case 13: {
      // a group path that only grows deep once its value is expanded
      size_t segments = r.LogSize(10, 40000);
      s.insert(ElementSpot(r, s), "<value name=\"P\">" + Repeat("p/", segments) +
                                      "</value><group name=\"%P%\"><item name=\"%P%\" group=\"%P%\"/></group>");
      note("value path of " + std::to_string(segments));
      break;
    }
    case 14: {
      const char* heads[] = {"\xEF\xBB\xBF", "\xFF\xFE", "\xFE\xFF", "<?xml version=\"1.0\" encoding=\"utf-8\"?>",
                             "<?xml version=\"1.0\" encoding=\"utf-16\"?>",
                             "<!DOCTYPE x [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;\">]>", "junk ", "\r\n\r\n"};
      std::string head;
      for (size_t n = 1 + r.Below(3); n-- > 0;) head += r.Pick(heads);
      s.insert(r.Chance(70) ? 0 : at, head);
      note("head bytes");
      break;
    }
    case 15: {
      size_t n = 1 + r.Below(20);
      for (size_t i = 0; i < n; ++i) {
        std::string bad;
        for (size_t k = 1 + r.Below(4); k-- > 0;) bad += static_cast<char>(0x80 + r.Below(128));
        s.insert(r.Below(s.size() + 1), bad);
      }
      note("invalid UTF-8 x" + std::to_string(n));
      break;
    }
    case 16:
      s.insert(at, 1, '\0');
      note("NUL");
      break;
    default: {
      // one long value used many times: expansion that multiplies the text
      size_t length = r.LogSize(10, 5000), uses = r.LogSize(10, 4000);
      s.insert(ElementSpot(r, s), "<value name=\"V\">" + std::string(length, 'v') + "</value><group name=\"G\" desc=\"" +
                                      Repeat("%V%", uses) + "\"/>");
      note("value of " + std::to_string(length) + " used " + std::to_string(uses) + " times");
      break;
    }
  }
}

}  // namespace

Input Inputs::Make(uint64_t index) const {
  Input in;
  if (index < m_cases.size()) {
    in.bytes = Expand(m_cases[index].pattern);
    in.what = "kept case " + m_cases[index].name;
    in.localizer = m_cases[index].name.rfind("localized", 0) == 0;
    if (m_cases[index].name.rfind("winapp2", 0) == 0) in.winapp2 = true, in.extension = L"ini";
    return in;
  }
  Rng r(m_seed * 0x100000001B3ull ^ (index + 1) * 0x9E3779B97F4A7C15ull);
  r.Next();
  if (r.Chance(15)) {
    in.winapp2 = true;
    in.extension = L"ini";
    in.what = "winapp2 ";
    in.bytes = m_winapp2.Make(r, in.what);
    return in;
  }
  if (!m_seeds.empty() && r.Chance(50)) {
    size_t which = r.Below(m_seeds.size());
    in.bytes = m_seeds[which];
    in.what = "bundled file " + std::to_string(which);
  } else {
    in.bytes = Grammar(r).File();
    in.what = "grammar";
  }
  std::string how;
  for (size_t n = 1 + r.Below(3); n-- > 0;) Mutate(r, in.bytes, m_seeds, how);
  in.what += ": " + how;
  if (r.Chance(15)) {
    const wchar_t* hooked[] = {L"da0", L"dat0", L"dat2"};
    in.extension = r.Pick(hooked);
    in.hook = r.Chance(70) ? 0 : r.Chance(50) ? 1 : 2;
  } else if (r.Chance(5)) {
    in.extension = L"dat";
  }
  in.localizer = r.Chance(30);
  return in;
}

}  // namespace fuzz
