// Hostile winapp2 files end to end: rules aimed at every folder the guard
// protects in every spelling, at links, at Broom's own data folder, with
// excludes of several masks and with detection keys that cannot be read,
// each file run as "broom --winapp2 FILE clean --yes winapp2" and checked by
// "broom winapp2 check" first. Drive C, the prefix's home and a folder
// outside C are listed before and after every run: nothing outside the test
// folder may go, no precious file may change, and in the test folder what an
// exclude, the whitelist or an entry that is off keeps must stay.
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <set>

#include "DamageCommon.h"
#include "DamageLayout.h"

using nlohmann::json;

namespace damage {

namespace {

struct Rule {
  std::wstring name;
  std::vector<std::wstring> keys;
  bool refuse = false;  // its FileKey lines must be refused at load
};

enum Encoding { kUtf8, kUtf16Odd, kLoneCr, kNulInKeys };

struct Case {
  std::string label;
  std::vector<Rule> rules;
  std::vector<std::wstring> gone;  // files of the test folder the case must delete: it proves the run cleans
  Encoding encoding = kUtf8;
  // what it deletes outside the test folder is lost only under Wine, which
  // shows a Unix symlink to a file as a plain file and, deleting it, deletes
  // its target (Windows shows a reparse point and deletes the link)
  bool wineOnly = false;
};

struct Tally {
  int cases = 0, runs = 0, exit0 = 0, exit1 = 0, exit2 = 0, exit3 = 0, otherExit = 0;
  int deletedOutside = 0;   // gone, or another size, on drive C, in the home or outside C
  int preciousChanged = 0;  // a precious file whose bytes changed
  int keptDeleted = 0;      // excluded, whitelisted or switched-off files of the test folder gone
  int linksRemoved = 0;     // a link out of the test folder gone
  int hostileLoaded = 0;    // a rule that must be refused at load and that winapp2 check did not list
  int controlsFailed = 0;   // a file a control case names still there: the run proves nothing
  int wineLinkTargets = 0;  // gone outside the test folder through a file symlink, under Wine
};

// The file's bytes, and the lines of the FileKeys that must be refused.
std::string Text(const Case& c, std::set<int>& refused) {
  std::wstring text = L"; hostile winapp2 file: " + Widen(c.label) + L"\r\n";
  int line = 1;
  for (const Rule& rule : c.rules) {
    text += L"[" + rule.name + L" *]\r\n";
    ++line;
    for (std::wstring key : rule.keys) {
      ++line;
      if (rule.refuse && key.rfind(L"FileKey", 0) == 0) refused.insert(line);
      if (c.encoding == kNulInKeys && key.find(L'|') != std::wstring::npos) key.insert(key.find(L'|'), 1, L'\0');
      text += key + (c.encoding == kLoneCr ? L"\r" : L"\r\n");
    }
  }
  if (c.encoding != kUtf16Odd) return Narrow(text);
  std::string bytes = "\xFF\xFE";
  for (wchar_t ch : text) bytes += std::string{static_cast<char>(ch & 0xFF), static_cast<char>(ch >> 8)};
  return bytes + "!";
}

void CountExit(Tally& f, const Run& r) {
  ++f.runs;
  (r.code == 0 ? f.exit0 : r.code == 1 ? f.exit1 : r.code == 2 ? f.exit2 : r.code == 3 ? f.exit3 : f.otherExit)++;
}

struct Damage {
  std::vector<std::wstring> outside, precious, kept, links, controls;
  bool Any() const { return !outside.empty() || !precious.empty() || !kept.empty() || !links.empty(); }
};

// What the run did that it must not have done.
Damage Compare(const Ground& ground, const Listing& before, const Listing& after, const Case& c) {
  Damage d;
  for (const auto& was : before) {
    auto now = after.find(was.first);
    bool folder = was.second.attributes & FILE_ATTRIBUTE_DIRECTORY;
    if (now == after.end() || (!folder && now->second.size != was.second.size)) d.outside.push_back(was.first);
  }
  for (const auto& file : ground.Precious()) {
    std::string now;
    if (!ReadBytes(file.first, now) || now != file.second) d.precious.push_back(file.first);
  }
  for (const std::wstring& file : ground.Kept())
    if (!Exists(file)) d.kept.push_back(file);
  for (const std::wstring& link : ground.Links()) {
    DWORD attributes = GetFileAttributesW(link.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_REPARSE_POINT)) d.links.push_back(link);
  }
  for (const std::wstring& file : c.gone)
    if (Exists(file)) d.controls.push_back(file);
  return d;
}

void Show(const char* what, const std::vector<std::wstring>& paths) {
  for (size_t i = 0; i < paths.size() && i < 12; ++i) fprintf(stderr, "      %s: %s\n", what, Narrow(paths[i]).c_str());
  if (paths.size() > 12) fprintf(stderr, "      ... and %zu more\n", paths.size() - 12);
}

// One clean of the case's file; its damage.
Damage CleanOnce(Ground& ground, const Case& c, const std::wstring& file, Run& clean) {
  std::string why;
  if (!ground.Lay(why)) {
    fprintf(stderr, "broom_damage: %s\n", why.c_str());
    ExitProcess(3);
  }
  Listing before = ground.Take();
  std::set<int> refused;
  WriteBytes(file, Text(c, refused));
  clean = Broom({L"--winapp2", file, L"clean", L"--yes", L"winapp2"});
  return Compare(ground, before, ground.Take(), c);
}

void RunCase(Ground& ground, const Case& c, size_t index, Tally& f) {
  ++f.cases;
  const std::wstring file = g_root + L"\\winapp2\\case" + std::to_wstring(index) + L".ini";
  std::set<int> refused;
  WriteBytes(file, Text(c, refused));
  Run check = Broom({L"winapp2", L"check", file, L"--json"});
  CountExit(f, check);
  std::set<int> skipped;
  json doc = json::parse(check.out, nullptr, false);
  if (doc.is_object() && doc["skipped"].is_array())
    for (const json& skip : doc["skipped"])
      if (skip.is_object() && skip["line"].is_number_integer()) skipped.insert(skip["line"].get<int>());
  for (int line : refused)
    if (!skipped.count(line)) {
      ++f.hostileLoaded;
      fprintf(stderr, "  [%s] line %d was not refused at load (check exit %lu)\n", c.label.c_str(), line, check.code);
    }

  Run clean;
  Damage d = CleanOnce(ground, c, file, clean);
  CountExit(f, clean);
  (c.wineOnly ? f.wineLinkTargets : f.deletedOutside) += static_cast<int>(d.outside.size());
  if (!c.wineOnly) f.preciousChanged += static_cast<int>(d.precious.size());
  f.keptDeleted += static_cast<int>(d.kept.size());
  f.linksRemoved += static_cast<int>(d.links.size());
  f.controlsFailed += static_cast<int>(d.controls.size());
  if (!d.Any() && d.controls.empty()) return;
  fprintf(stderr, "  [%s] clean exit %lu: %zu gone outside the test folder, %zu precious, %zu kept, %zu links, "
                  "%zu control files still there\n%s",
          c.label.c_str(), clean.code, d.outside.size(), d.precious.size(), d.kept.size(), d.links.size(),
          d.controls.size(), clean.err.c_str());
  Show("gone", d.outside);
  Show("changed", d.precious);
  Show("kept, gone", d.kept);
  Show("link gone", d.links);
  Show("still there", d.controls);
  if (!d.Any() || c.rules.size() < 2) return;
  // which rule: each entry again on its own
  for (const Rule& rule : c.rules) {
    Case one{c.label, {rule}, {}, c.encoding};
    Run r;
    Damage alone = CleanOnce(ground, one, file, r);
    if (!alone.Any()) continue;
    std::wstring keys;
    for (const std::wstring& key : rule.keys) keys += L"\n      " + key;
    fprintf(stderr, "    the entry [%s *]%s\n    deletes on its own (exit %lu):\n", Narrow(rule.name).c_str(),
            Narrow(keys).c_str(), r.code);
    Show("gone", alone.outside);
    Show("changed", alone.precious);
    Show("kept, gone", alone.kept);
    Show("link gone", alone.links);
  }
}

// ---- the cases ----

const wchar_t* const kRefusedTails[] = {L"|*|REMOVESELF", L"|*.*|RECURSE", L"|*.dll;*.exe|RECURSE", L"|*.*", L"|*"};
// names files without recursion: loads, and the guard decides file by file
const wchar_t* const kFileTail = L"|*.dll;*.exe";

std::wstring Replace(std::wstring text, const std::wstring& from, const std::wstring& to) {
  for (size_t at = 0; (at = text.find(from, at)) != std::wstring::npos; at += to.size()) text.replace(at, from.size(), to);
  return text;
}

// Every way a path may spell the folder: trailing dots and spaces, case,
// '/', "\\?\", doubled separators, short names, wildcards, variables.
std::vector<std::wstring> Spellings(const std::wstring& path, const std::vector<std::wstring>& variables) {
  std::vector<std::wstring> out;
  auto add = [&](const std::wstring& s) {
    if (!s.empty() && std::find(out.begin(), out.end(), s) == out.end()) out.push_back(s);
  };
  const bool root = path.size() <= 3;
  const std::wstring p = root ? path.substr(0, 2) : path;
  add(root ? p + L"\\" : p);
  for (const wchar_t* tail : {L".", L"..", L" .", L". .", L"\\", L"\\\\", L".\\"}) add(p + tail);
  std::wstring lower = p, upper = p;
  for (wchar_t& ch : lower) ch = towlower(ch);
  for (wchar_t& ch : upper) ch = towupper(ch);
  add(lower);
  add(upper);
  add(Replace(p, L"\\", L"/") + (root ? L"/" : L""));
  add(L"\\\\?\\" + p + (root ? L"\\" : L""));
  add(L"\\??\\" + p + (root ? L"\\" : L""));
  add(Replace(p, L"\\", L"\\\\"));
  add(Replace(p, L"\\", L".\\"));  // a dot after every folder on the way
  wchar_t shortName[MAX_PATH];
  DWORD n = GetShortPathNameW(path.c_str(), shortName, MAX_PATH);
  if (n > 0 && n < MAX_PATH) {
    std::wstring s(shortName, n);
    while (s.size() > 3 && s.back() == L'\\') s.pop_back();
    add(s);
    add(s + L".");
  }
  if (!root) {
    add(p.substr(0, p.size() - 1) + L"?");
    add(p.substr(0, p.find_last_of(L'\\') + 2) + L"*");
  }
  for (const std::wstring& v : variables)
    for (const wchar_t* tail : {L"", L".", L"\\", L" ."}) add(v + tail);
  return out;
}

std::vector<Case> Cases(const Folders& f) {
  std::vector<Case> cases;
  const std::wstring& t = f.test;
  const std::wstring drive = f.windows.substr(0, 2);
  struct Root {
    const char* name;
    std::wstring path;
    std::vector<std::wstring> variables;
  };
  std::vector<Root> roots = {
      {"the drive root", drive + L"\\", {L"%SystemDrive%", L"%HomeDrive%"}},
      {"the Windows folder", f.windows, {L"%WinDir%", L"%SystemRoot%"}},
      {"System32", f.system32, {L"%WinDir%\\System32", L"%SystemRoot%\\system32"}},
      {"SysWOW64", f.sysWow64, {L"%WinDir%\\SysWOW64"}},
      {"Program Files", f.programFiles, {L"%ProgramFiles%"}},
      {"Program Files (x86)", f.programFilesX86, {}},
      {"ProgramData", f.programData, {L"%ProgramData%", L"%CommonAppData%", L"%AllUsersProfile%"}},
      {"Users", f.users, {}},
      {"the profile", f.profile, {L"%UserProfile%"}},
      {"Public", f.publicDir, {L"%Public%"}},
      {"AppData Roaming", f.roaming, {L"%AppData%"}},
      {"AppData Local", f.local, {L"%LocalAppData%"}},
      {"AppData LocalLow", f.localLow, {L"%LocalLowAppData%"}}};
  const wchar_t* knownVariables[] = {L"", L"%Documents%", L"", L"%Music%", L"%Pictures%", L"%Video%"};
  for (size_t i = 0; i < f.known.size(); ++i)
    roots.push_back({"a user folder", f.known[i].second,
                     {*knownVariables[i] ? knownVariables[i] : L"", L"%UserProfile%\\" + f.known[i].first}});
  for (const auto& other : f.otherKnown) {
    std::wstring leaf = other.second.substr(other.second.find_last_of(L'\\'));
    bool shared = other.first.rfind(L"Public ", 0) == 0;
    roots.push_back({shared ? "a shared user folder" : "a user folder", other.second,
                     {(shared ? L"%Public%" : L"%UserProfile%") + leaf}});
  }
  int serial = 0;
  for (const Root& root : roots) {
    Case c{std::string(root.name) + " " + Narrow(root.path), {}, {}, kUtf8};
    for (const std::wstring& spelling : Spellings(root.path, root.variables)) {
      for (const wchar_t* tail : kRefusedTails)
        c.rules.push_back({L"R" + std::to_wstring(++serial), {L"FileKey1=" + spelling + tail}, true});
      c.rules.push_back({L"R" + std::to_wstring(++serial), {L"FileKey1=" + spelling + kFileTail}, false});
    }
    cases.push_back(c);
  }
  // the profile's file again, as it may arrive: UTF-16 cut short, lone CRs, NULs in the keys
  for (Encoding e : {kUtf16Odd, kLoneCr, kNulInKeys}) {
    Case c = cases[8];  // the profile
    c.label += e == kUtf16Odd ? " (UTF-16 of odd length)" : e == kLoneCr ? " (lone CRs)" : " (NULs in the keys)";
    c.encoding = e;
    for (Rule& rule : c.rules) rule.refuse = e == kUtf16Odd && rule.refuse;
    cases.push_back(c);
  }

  auto rules = [&](const std::string& label, std::vector<std::wstring> keys, bool refuse,
                   std::vector<std::wstring> gone = {}) {
    Case c{label, {}, std::move(gone), kUtf8};
    for (const std::wstring& key : keys) c.rules.push_back({L"E" + std::to_wstring(++serial), {key}, refuse});
    cases.push_back(c);
  };
  rules("the system drive and the Windows folder, refused at load",
        {L"FileKey1=%SystemDrive%|*.*|RECURSE", L"FileKey1=%SystemDrive%|*|REMOVESELF", L"FileKey1=%WinDir%\\*|*.*",
         L"FileKey1=%SystemDrive%\\*|*.*|RECURSE", L"FileKey1=%WinDir%\\System32|*.*"},
        true);
  rules("program files below the Windows folder, named",
        {L"FileKey1=%WinDir%\\System32|*.dll", L"FileKey1=%WinDir%\\System32|broomfake.dll;broomfake.exe",
         L"FileKey1=%WinDir%|broomfake.dll;broomfake.exe", L"FileKey1=%WinDir%\\SysWOW64|*.dll;*.exe",
         L"FileKey1=%WinDir%\\System32|*.dll;*.exe;*.sys;*.drv;*.ocx;*.cpl;*.scr;*.msi;*.msp",
         L"FileKey1=%WinDir%\\System32\\broomfake|*.dll", L"FileKey1=%WinDir%\\*|broomfake.dll",
         L"FileKey1=%WinDir%.\\System32.|BROOMFAKE.DLL"},
        false);
  const std::wstring l = t + L"\\links";
  rules("links as the rule's folder",
        {L"FileKey1=" + l + L"\\to_docs|*|REMOVESELF", L"FileKey1=" + l + L"\\to_docs|*.*|RECURSE",
         L"FileKey1=" + l + L"\\to_sys32|*.*|RECURSE", L"FileKey1=" + l + L"\\to_sys32|*|REMOVESELF",
         L"FileKey1=" + l + L"\\to_sys32|*.dll", L"FileKey1=" + l + L"\\to_outside|*.*|RECURSE",
         L"FileKey1=" + l + L"\\to_outside|*|REMOVESELF", L"FileKey1=" + l + L"\\to_profile|*.*|RECURSE",
         L"FileKey1=" + l + L"\\to_windows|*.dll;*.exe|RECURSE", L"FileKey1=" + l + L"\\to_docs.|*.*|RECURSE",
         L"FileKey1=" + Replace(l, L"\\", L"/") + L"/to_docs/|*|REMOVESELF", L"FileKey1=" + l + L"\\TO_DOCS |*.*"},
        false);
  rules("links on the rule's path",
        {L"FileKey1=" + l + L"\\to_docs\\sub|*.*", L"FileKey1=" + l + L"\\to_outside\\sub|*|REMOVESELF",
         L"FileKey1=" + l + L"\\to_profile\\AppData\\Roaming|*.*|RECURSE",
         L"FileKey1=" + l + L"\\to_profile\\BroomPrecious|*|REMOVESELF",
         L"FileKey1=" + l + L"\\to_windows\\System32\\broomfake|*.*|RECURSE", L"FileKey1=" + l + L"\\to_*|*.*|RECURSE",
         L"FileKey1=" + l + L"\\*\\sub|*.*", L"FileKey1=" + l + L"\\*|*|REMOVESELF",
         L"FileKey1=" + l + L"\\to_windows\\..\\users|*.*|RECURSE"},
        false);
  rules("the folder that holds the links", {L"FileKey1=" + l + L"|*.*|RECURSE", L"FileKey1=" + l + L"|*|REMOVESELF"},
        false, {l + L"\\plain.tmp"});
  {
    wchar_t shortData[MAX_PATH];
    DWORD n = GetShortPathNameW(f.data.c_str(), shortData, MAX_PATH);
    std::wstring s = n > 0 && n < MAX_PATH ? std::wstring(shortData, n) : f.data;
    rules("Broom's data folder, refused at load",
          {L"FileKey1=%LocalAppData%\\Broom|*.*", L"FileKey1=%LocalAppData%\\Broom|*.*|RECURSE",
           L"FileKey1=%LocalAppData%\\Broom\\Quarantine|*|REMOVESELF", L"FileKey1=%LocalAppData%\\Broom.|whitelist.txt",
           L"FileKey1=" + s + L"|*.txt", L"FileKey1=" + f.data + L"\\|*.json|RECURSE",
           L"FileKey1=%LocalAppData%\\BROOM\\Quarantine\\*|*.*", L"FileKey1=%UserProfile%\\AppData\\Local\\Broom|*"},
          true);
    rules("Broom's data folder through wildcards",
          {L"FileKey1=%LocalAppData%\\Bro?m|*.*|RECURSE", L"FileKey1=%LocalAppData%\\*|whitelist.txt",
           L"FileKey1=%LocalAppData%\\*\\Quarantine|*.*|RECURSE", L"FileKey1=%LocalAppData%\\Br*m|*|REMOVESELF"},
          false);
  }
  auto shortName = [](const std::wstring& path) {
    wchar_t buffer[MAX_PATH];
    DWORD n = GetShortPathNameW(path.c_str(), buffer, MAX_PATH);
    return n > 0 && n < MAX_PATH ? std::wstring(buffer, n) : path;
  };
  const std::wstring kept = t + L"\\kept", keptLong = t + L"\\kept long folder";
  rules("the whitelist", {L"FileKey1=" + kept + L"|*.*|RECURSE", L"FileKey1=" + kept + L"|*|REMOVESELF",
                          L"FileKey1=" + t + L"\\*|k.tmp;l.tmp|RECURSE", L"FileKey1=" + keptLong + L"|*.*|RECURSE"},
        false);
  rules("the whitelist, its folders spelled otherwise",
        {L"FileKey1=" + t + L"\\KEPT.|*.tmp", L"FileKey1=" + kept + L" .|*.*|RECURSE", L"FileKey1=" + kept + L"\\sub.|*.tmp",
         L"FileKey1=" + shortName(keptLong) + L"|*.*|RECURSE", L"FileKey1=" + keptLong + L".|*|REMOVESELF",
         L"FileKey1=" + shortName(keptLong) + L"\\SUB. . |*.tmp", L"FileKey1=" + t + L".\\kept\\sub|*.tmp"},
        false);
  const std::wstring fl = t + L"\\file link";
  rules("a file symlink (Wine shows it as a plain file)", {L"FileKey1=" + fl + L"|*.*"}, false);
  cases.back().wineOnly = true;
  const std::wstring x = t + L"\\excluded files", xs = shortName(x);
  auto excluded = [&](const std::string& label, std::vector<std::wstring> keys, std::vector<std::wstring> gone) {
    cases.push_back({label, {{L"X" + std::to_wstring(++serial), std::move(keys), false}}, std::move(gone), kUtf8});
  };
  const std::vector<std::wstring> top = {x + L"\\c.tmp"}, below = {x + L"\\c.tmp", x + L"\\sub\\f.tmp"};
  excluded("an exclude of several files", {L"FileKey1=" + x + L"|*.*", L"ExcludeKey1=FILE|" + x + L"\\|a.bak;b.log"}, top);
  excluded("an exclude of several masks, below",
           {L"FileKey1=" + x + L"|*.*|RECURSE", L"ExcludeKey1=PATH|" + x + L"\\|*.bak;*.log"}, below);
  excluded("an exclude of several masks, removing the folder",
           {L"FileKey1=" + x + L"|*|REMOVESELF", L"ExcludeKey1=PATH|" + x + L"|*.BAK ; *.Log"}, below);
  excluded("excludes of each kind, several lines",
           {L"FileKey1=" + x + L"|*.*|RECURSE", L"ExcludeKey1=FILE|" + x + L"\\a.bak",
            L"ExcludeKey2=FILE|" + x + L"\\|b.log;nothing.txt", L"ExcludeKey3=PATH|" + x + L"\\sub\\|*.bak;*.log"},
           below);
  excluded("an exclude whose folder has a trailing dot",
           {L"FileKey1=" + x + L"|*.*|RECURSE", L"ExcludeKey1=PATH|" + x + L".|*.bak;*.log"}, below);
  excluded("an exclude by the folder's short name",
           {L"FileKey1=" + x + L"|*.*|RECURSE", L"ExcludeKey1=PATH|" + xs + L"\\|*.bak;*.log"}, below);
  excluded("a rule by the folder's short name, its exclude by the long",
           {L"FileKey1=" + xs + L"|*.*|RECURSE", L"ExcludeKey1=PATH|" + x + L"|*.bak;*.log"}, below);
  excluded("a rule with a trailing dot, its exclude without",
           {L"FileKey1=" + x + L". |*.*|RECURSE", L"ExcludeKey1=PATH|" + x + L"|*.bak;*.log"}, below);
  excluded("excluded names with trailing dots and spaces",
           {L"FileKey1=" + x + L"|*.*", L"ExcludeKey1=FILE|" + x + L"\\|a.bak.;b.log ."}, top);
  {
    const std::wstring unreadable[] = {
        L"DetectFile=%WinDir%%Nope%",   L"DetectFile=%WinDir%\\..\\windows", L"DetectFile=%WinDir%\\%",
        L"DetectFile=%WinDir%\\system32\\.", L"DetectFile=%Nope%",       L"DetectFile=%WinDir%|x",
        L"DetectFile=relative\\path",    L"DetectFile=\\\\?\\C:\\windows",  L"DetectFile=",
        L"DetectFile=%WinDir",           L"Detect=HKXX\\Software",          L"Detect=",
        L"SpecialDetect=DET_NOPE",         L"DetectOS=x|y",
        L"DetectOS=|1.0",                L"DetectFile=C:\\broom-nope\nDetectFile2=%WinDir%%Nope%",
        L"Detect=HKCU\\Software\\" + std::wstring(300, L'k'), L"DetectFile=%WinDir%\\" + std::wstring(300, L'w'),
        L"DetectFile=%WinDir%\\.\\system32", L"DetectFile=%WinDir%\\system32\\..", L"DetectFile=C:windows",
        L"SpecialDetect=", L"DetectFile=%WinDir%\\%WinDir%"};
    Case c{"detection keys that cannot be read", {}, {}, kUtf8};
    for (size_t k = 0; k < std::size(unreadable); ++k) {
      Rule rule{L"D" + std::to_wstring(k), {}, false};
      std::wstring keys = unreadable[k];
      for (size_t at = 0, end; at <= keys.size(); at = end + 1) {
        end = keys.find(L'\n', at);
        if (end == std::wstring::npos) end = keys.size();
        rule.keys.push_back(keys.substr(at, end - at));
      }
      rule.keys.push_back(L"FileKey1=" + t + L"\\det\\off" + std::to_wstring(k) + L"|*.tmp");
      c.rules.push_back(rule);
    }
    // and detections that hold, so the case shows that the entries would run
    const wchar_t* holding[] = {L"DetectFile=%WinDir%", L"SpecialDetect=DET_WINDOWS", L"Detect=HKCU\\Software",
                                L"DetectFile=%WinDir%\\system32"};
    for (size_t k = 0; k < std::size(holding); ++k) {
      const std::wstring folder = t + L"\\det\\on" + std::to_wstring(k);
      c.rules.push_back({L"H" + std::to_wstring(k), {holding[k], L"FileKey1=" + folder + L"|*.tmp"}, false});
      c.gone.push_back(folder + L"\\x.tmp");
    }
    cases.push_back(c);
  }
  rules("controls: rules the test folder allows",
        {L"FileKey1=" + t + L"\\junk|*.tmp|RECURSE", L"FileKey1=" + t + L"\\self|*|REMOVESELF"}, false,
        {t + L"\\junk\\a.tmp", t + L"\\junk\\sub\\c.tmp", t + L"\\self"});
  return cases;
}

}  // namespace

int Winapp2() {
  Folders folders;
  std::string why;
  if (!FindFolders(folders, why)) {
    fprintf(stderr, "broom_damage: the winapp2 part needs a Wine prefix of its own (scripts/damage.sh makes one): %s\n",
            why.c_str());
    return 3;
  }
  Ground ground(folders);
  if (!ground.Lay(why)) {
    fprintf(stderr, "broom_damage: %s\n", why.c_str());
    return 3;
  }
  std::vector<Case> cases = Cases(folders);
  Tally f;
  size_t rules = 0;
  for (size_t i = 0; i < cases.size(); ++i) {
    RunCase(ground, cases[i], i, f);
    rules += cases[i].rules.size();
  }
  printf("%-21s %4d cases, %4zu entries, %4d runs of broom (exit 0: %d, 1: %d, 2: %d, 3: %d, other: %d)\n",
         "winapp2 files", f.cases, rules, f.runs, f.exit0, f.exit1, f.exit2, f.exit3, f.otherExit);
  printf("%-21s %zu precious files; gone outside the test folder %d, precious changed %d, kept files gone %d,\n", "",
         ground.Precious().size(), f.deletedOutside, f.preciousChanged, f.keptDeleted);
  printf("%-21s links gone %d, hostile rules loaded %d, control files left %d\n", "", f.linksRemoved, f.hostileLoaded,
         f.controlsFailed);
  printf("%-21s under Wine only, targets of file symlinks gone %d (Wine deletes the target of a Unix file symlink)\n", "",
         f.wineLinkTargets);
  RemoveTree(folders.test);
  return f.deletedOutside || f.preciousChanged || f.keptDeleted || f.linksRemoved || f.hostileLoaded ||
                 f.controlsFailed || f.wineLinkTargets || f.otherExit
             ? 1
             : 0;
}

}  // namespace damage
