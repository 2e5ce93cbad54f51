// Damaged whitelist files: a real one that broom wrote, cut and with bytes
// changed or lines reshaped, under clean, protect and unprotect; nothing the
// file names may be cleaned, and no path may drop out of it.
#include <cstdio>

#include "DamageCommon.h"

namespace damage {

namespace {


std::wstring Upper(std::wstring text) {
  if (!text.empty())
    LCMapStringW(LOCALE_INVARIANT, LCMAP_UPPERCASE, &text[0], static_cast<int>(text.size()), &text[0],
                 static_cast<int>(text.size()));
  return text;
}

// The paths a whitelist file names, read on its own terms: lines end at LF
// (a CR before it goes), the text at a Ctrl+Z, one byte per character.
std::vector<std::wstring> Named(const std::string& bytes) {
  std::vector<std::wstring> paths;
  std::string text = bytes.substr(0, bytes.find('\x1A'));
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    std::string line = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
    start = end == std::string::npos ? text.size() : end + 1;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::wstring wide;
    for (char c : line) wide += static_cast<wchar_t>(static_cast<unsigned char>(c));
    if (!wide.empty() && wide.back() == L'\\') wide.pop_back();
    if (!wide.empty()) paths.push_back(Upper(wide));
  }
  return paths;
}

bool Covers(const std::vector<std::wstring>& paths, const std::wstring& file) {
  std::wstring upper = Upper(file);
  for (const std::wstring& p : paths)
    if (upper == p || (upper.size() > p.size() && upper.compare(0, p.size(), p) == 0 && upper[p.size()] == L'\\'))
      return true;
  return false;
}

std::vector<std::pair<std::string, std::string>> WhiteListCases(const std::string& w) {
  std::vector<std::pair<std::string, std::string>> cases;
  for (size_t n = 0; n < w.size(); n += w.size() / 30 + 1) cases.push_back({"truncated at " + std::to_string(n), w.substr(0, n)});
  const char values[] = {'\0', '\x1A', '\r', '\n', '\xFF', '\xB5', '\\', 'a', '\x80', ' '};
  int v = 0;
  for (size_t p = 0; p < w.size(); p += w.size() / 12 + 1)
    for (int k = 0; k < 10; ++k, ++v) {
      std::string m = w;
      m[p] = values[v % 10];
      cases.push_back({"byte " + std::to_string(p) + " set to " + std::to_string(static_cast<unsigned char>(m[p])), m});
    }
  const size_t firstEnd = w.find("\r\n") + 2;
  const std::string head = w.substr(0, firstEnd), tail = w.substr(firstEnd);
  auto lineOf = [](size_t n) { return "C:\\" + std::string(n - 3, 'L') + "\r\n"; };
  cases.push_back({"259-character line", head + lineOf(259) + tail});
  cases.push_back({"260-character line", head + lineOf(260) + tail});
  cases.push_back({"300-character first line", lineOf(300) + w});
  cases.push_back({"1000-character last line", w + lineOf(1000)});
  cases.push_back({"empty line inside", head + "\r\n" + tail});
  cases.push_back({"empty line at the end", w + "\r\n"});
  cases.push_back({"empty first line", "\r\n" + w});
  cases.push_back({"Ctrl+Z at the end", w + "\x1A"});
  cases.push_back({"Ctrl+Z and a line end at the end", w + "\x1A\r\n"});
  cases.push_back({"Ctrl+Z inside", head + "\x1A" + tail});
  cases.push_back({"NUL inside a line", head.substr(0, 6) + std::string(1, '\0') + head.substr(6) + tail});
  std::string lf, cr;
  for (char c : w) {
    if (c != '\r') lf += c;
    if (c != '\n') cr += c;
  }
  cases.push_back({"LF line ends", lf});
  cases.push_back({"CR line ends", cr});
  cases.push_back({"no line end at the end", w.substr(0, w.size() - 2)});
  std::string lower = w;
  for (char& c : lower) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  cases.push_back({"lower case", lower});
  cases.push_back({"trailing backslashes", [&] {
                     std::string m;
                     for (size_t s = 0, e; (e = w.find("\r\n", s)) != std::string::npos; s = e + 2)
                       m += w.substr(s, e - s) + "\\\r\n";
                     return m;
                   }()});
  cases.push_back({"two trailing backslashes", head.substr(0, head.size() - 2) + "\\\\\r\n" + tail});
  cases.push_back({"a lone backslash", head + "\\\r\n" + tail});
  cases.push_back({"a UNC path", head + "\\\\SERVER\\SHARE\r\n" + tail});
  cases.push_back({"a relative path", head + "DATA\\X\r\n" + tail});
  cases.push_back({"lines doubled", w + w});
  cases.push_back({"y with diaeresis", head + "C:\\\xFF\r\n" + tail});
  cases.push_back({"micro sign", w + "C:\\\xB5M\r\n"});
  cases.push_back({"byte-order mark", "\xEF\xBB\xBF" + w});
  cases.push_back({"lone CR inside a line", head.substr(0, 6) + "\r" + head.substr(6) + tail});
  cases.push_back({"CR CR LF", head.substr(0, head.size() - 2) + "\r\r\n" + tail});
  cases.push_back({"empty file", ""});
  cases.push_back({"untouched", w});
  return cases;
}

}  // namespace

void WhiteLists(const std::wstring& root, Figures& f) {
  const std::wstring appData = root + L"\\appdata-w", file = appData + L"\\Broom\\whitelist.txt";
  const std::wstring junk = root + L"\\tree\\junk";
  const std::vector<std::wstring> guarded = {junk + L"\\p1", junk + L"\\p2\\deep", junk + L"\\keep.bin",
                                             root + L"\\keep\\\u00c4rger", root + L"\\keep\\x y", junk + L"\\p3"};
  for (const std::wstring& g : guarded)
    if (Broom({L"protect", g}, appData).code != 0) {
      fprintf(stderr, "cannot protect %s\n", Narrow(g).c_str());
      ExitProcess(3);
    }
  std::string w;
  ReadBytes(file, w);
  const std::vector<std::wstring> junkFiles = {junk + L"\\p1\\f.bin", junk + L"\\p2\\deep\\g.bin", junk + L"\\p2\\h.bin",
                                               junk + L"\\keep.bin", junk + L"\\free.bin", junk + L"\\p3\\i.bin"};

  auto cases = WhiteListCases(w);
  for (size_t k = 0; k < cases.size(); ++k) {
    const std::string& label = cases[k].first;
    ++f.cases;
    // clean: nothing the file names may go, and a refusal deletes nothing
    WriteBytes(file, cases[k].second);
    for (const std::wstring& j : junkFiles) WriteBytes(j, "junk");
    std::vector<std::wstring> named = Named(cases[k].second);
    Run clean = Broom({L"--defs", root + L"\\defs", L"clean", L"--yes"}, appData);
    Count(f, clean);
    CheckMessage(f, label, clean);
    for (const std::wstring& j : junkFiles)
      if (!Exists(j) && (clean.code == 2 || Covers(named, j)))
        Complain(f.lostFiles, label, "clean deleted the protected " + Narrow(j), clean);
    std::string now;
    ReadBytes(file, now);
    if (now != cases[k].second) Complain(f.changedOnRefusal, label, "clean changed the whitelist", clean);

    // protect, then unprotect one of the paths the file names
    std::vector<std::pair<std::wstring, std::wstring>> steps = {{L"protect", root + L"\\new\\k" + std::to_wstring(k)}};
    for (const std::wstring& n : named)
      if (n.rfind(Upper(root), 0) == 0) {
        steps.push_back({L"unprotect", n});
        break;
      }
    for (auto& step : steps) {
      std::string old;
      ReadBytes(file, old);
      std::vector<std::wstring> oldPaths = Named(old);
      Run r = Broom({step.first, step.second}, appData);
      Count(f, r);
      CheckMessage(f, label, r);
      std::string after;
      ReadBytes(file, after);
      if (r.code == 2) {
        if (after != old) Complain(f.changedOnRefusal, label, Narrow(step.first) + " refused, yet changed the file", r);
        continue;
      }
      if (r.code != 0) {
        Complain(f.untruthful, label, Narrow(step.first) + ": unexpected exit code", r);
        continue;
      }
      std::vector<std::wstring> newPaths = Named(after);
      for (const std::wstring& p : oldPaths) {
        if (step.first == L"unprotect" && p == Upper(step.second)) continue;
        bool kept = false;
        for (const std::wstring& n : newPaths) kept = kept || n == p;
        if (!kept) Complain(f.lostPaths, label, Narrow(step.first) + " dropped " + Narrow(p), r);
      }
      bool added = false;
      for (const std::wstring& n : newPaths) added = added || n == Upper(step.second);
      if (step.first == L"protect" && !added) Complain(f.untruthful, label, "protect said done, path not listed", r);
    }
  }
  RemoveTree(root + L"\\tree");
}

}  // namespace damage
