// Damaged quarantine manifests: a real one that broom wrote, cut, with bytes
// changed, fields edited and files missing, each restored by broom; every
// file's bytes must be somewhere afterwards, and the exit code and counts
// must match the disk.
#include <shlobj.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <functional>

#include "DamageCommon.h"

using nlohmann::json;

namespace damage {

namespace {


struct ManifestCase {
  std::string label;
  std::string manifest;
  std::function<void(const std::wstring& q)> extra;  // more damage to the folder
};

std::string Dump(const json& j) { return j.dump(2) + "\n"; }

std::vector<ManifestCase> ManifestCases(const std::string& text, const std::wstring& root) {
  std::vector<ManifestCase> cases;
  const json base = json::parse(text);
  const size_t entries = base["entries"].size();
  // cut anywhere
  for (size_t n = 0; n < text.size(); n += text.size() / 70 + 1)
    cases.push_back({"truncated at " + std::to_string(n), text.substr(0, n), nullptr});
  cases.push_back({"last byte cut", text.substr(0, text.size() - 1), nullptr});
  cases.push_back({"last two bytes cut", text.substr(0, text.size() - 2), nullptr});
  // one byte changed anywhere
  const char flips[] = {'\0', '"', '\\', '*', '}', ',', '/', '\x1A'};
  int f = 0;
  for (size_t p = 0; p < text.size(); p += text.size() / 40 + 1)
    for (int k = 0; k < 3; ++k, ++f) {
      std::string m = text;
      char c = flips[f % sizeof flips];
      if (m[p] == c) c ^= 0x20;
      m[p] = c;
      cases.push_back({"byte " + std::to_string(p) + " set to " + std::to_string(static_cast<int>(c)), m, nullptr});
    }

  auto edit = [&](const std::string& label, const std::function<void(json&)>& change,
                  std::function<void(const std::wstring&)> extra = nullptr) {
    json j = base;
    change(j);
    cases.push_back({label, Dump(j), extra});
  };
  const std::string r = Narrow(root);
  std::vector<std::string> originals = {
      r + "\\tree\\junk\\*.bin", r + "\\tree\\junk\\?.bin", r + "\\tree\\junk\\a<.bin", r + "\\tree\\junk\\a|b",
      "tree\\junk\\a.bin", "a.bin", "\\tree\\junk\\a.bin", r.substr(0, 2) + "tree\\a.bin", r.substr(0, 3),
      "\\\\?\\" + r + "\\tree\\junk\\q.bin", "\\\\.\\" + r + "\\tree\\junk\\q.bin", "\\\\server\\share\\a.bin",
      "//server/share/a.bin", r + "/tree/junk/a.bin", r + "\\tree\\..\\tree\\junk\\x.bin", r + "\\tree\\.\\x.bin",
      r + "\\tree\\junk\\NUL", r + "\\tree\\junk\\con.txt", r + "\\tree\\junk\\COM1", r + "\\tree\\junk\\lpt9.log",
      r + "\\tree\\junk\\CONOUT$", r + "\\tree\\junk\\x.bin.", r + "\\tree\\junk\\x.bin ", r + "\\tree\\\\x.bin",
      r + "\\tree\\junk\\", r + "\\tree\\junk\\a.bin:stream", "", r + "\\tree\\junk\\" + std::string(300, 'l'),
      r + "\\tree\\junk\\decoy.bin", r + std::string("\\tree\\junk\\nul\0x.bin", sizeof "\\tree\\junk\\nul\0x.bin" - 1), r + "\\tree\\junk\\x\ty.bin",
      "C:x.bin"};
  for (size_t i = 0; i < originals.size(); ++i)
    edit("original '" + originals[i] + "'", [&](json& j) { j["entries"][i % entries]["original"] = originals[i]; });
  std::vector<std::string> stored = {"broom-quarantine.json", "BROOM-QUARANTINE.JSON", "broom-quarantine.json.tmp",
                                     "..", ".", "..\\a.bin", "sub\\a.bin", "", "CON", "a*.bin", "BROOM-~1.JSO",
                                     "x.bin.", "nul.txt", std::string(260, 's'), "a:b", "../x"};
  for (size_t i = 0; i < stored.size(); ++i)
    edit("stored '" + stored[i] + "'", [&](json& j) { j["entries"][i % entries]["stored"] = stored[i]; });
  std::vector<json> sizes = {-1, 1.5, "12", nullptr, true, 1e30, json::array(), json::object(), -9223372036854775807LL};
  for (size_t i = 0; i < sizes.size(); ++i)
    edit("size " + sizes[i].dump(), [&](json& j) { j["entries"][i % entries]["size"] = sizes[i]; });
  for (size_t e = 0; e < entries; ++e) {
    for (const char* field : {"original", "stored", "size"})
      edit(std::string("entry without ") + field, [&](json& j) { j["entries"][e].erase(field); });
    edit("original and stored swapped", [&](json& j) { std::swap(j["entries"][e]["original"], j["entries"][e]["stored"]); });
    edit("original and size swapped", [&](json& j) { std::swap(j["entries"][e]["original"], j["entries"][e]["size"]); });
    edit("original is a number", [&](json& j) { j["entries"][e]["original"] = 7; });
    edit("stored is a list", [&](json& j) { j["entries"][e]["stored"] = json::array({"a.bin"}); });
    edit("entry removed", [&](json& j) { j["entries"].erase(e); });
    edit("entry is a string", [&](json& j) { j["entries"][e] = "a.bin"; });
    edit("stored names another entry's file",
         [&](json& j) { j["entries"][e]["stored"] = j["entries"][(e + 1) % entries]["stored"]; });
    edit("original names another entry's place",
         [&](json& j) { j["entries"][e]["original"] = j["entries"][(e + 1) % entries]["original"]; });
    edit("original inside the quarantine", [&](json& j) { j["entries"][e]["original"] = "@Q@\\x.bin"; });
    edit("extra field", [&](json& j) { j["entries"][e]["note"] = "kept"; });
    edit("stored file missing", [](json&) {},
         [e, base](const std::wstring& folder) {
           DeleteFileW((folder + L"\\" + Widen(base["entries"][e]["stored"].get<std::string>())).c_str());
         });
    edit("original place taken", [](json&) {},
         [e, base](const std::wstring&) {
           WriteBytes(Widen(base["entries"][e]["original"].get<std::string>()), "someone else's file");
         });
  }
  edit("format missing", [](json& j) { j.erase("format"); });
  edit("format other", [](json& j) { j["format"] = "broom-quarantine-2"; });
  edit("format number", [](json& j) { j["format"] = 1; });
  edit("version missing", [](json& j) { j.erase("version"); });
  edit("version 2", [](json& j) { j["version"] = 2; });
  edit("version \"1\"", [](json& j) { j["version"] = "1"; });
  edit("version 1.0", [](json& j) { j["version"] = 1.0; });
  edit("entries missing", [](json& j) { j.erase("entries"); });
  edit("entries an object", [](json& j) { j["entries"] = json::object(); });
  edit("entries null", [](json& j) { j["entries"] = nullptr; });
  edit("entries empty", [](json& j) { j["entries"] = json::array(); });
  edit("entries reversed", [](json& j) { std::reverse(j["entries"].begin(), j["entries"].end()); });
  edit("entries doubled", [](json& j) {
    json copy = j["entries"];
    for (auto& e : copy) j["entries"].push_back(e);
  });
  edit("top-level extra field", [](json& j) { j["made by"] = "test"; });
  edit("an unlisted file", [](json&) {}, [](const std::wstring& folder) { WriteBytes(folder + L"\\stray.bin", "stray"); });
  edit("an unlisted folder", [](json&) {}, [](const std::wstring& folder) {
    WriteBytes(folder + L"\\straydir\\inner.bin", "inner");
  });
  edit("a leftover .tmp", [](json&) {},
       [](const std::wstring& folder) { WriteBytes(folder + L"\\broom-quarantine.json.tmp", "{}"); });
  edit("untouched", [](json&) {});
  for (const char* whole : {"[]", "null", "42", "\"text\"", "{}", "", " ", "{\"format\":\"broom-quarantine\"}",
                            "\xEF\xBB\xBF"})
    cases.push_back({std::string("whole file '") + whole + "'", whole, nullptr});
  cases.push_back({"byte-order mark", "\xEF\xBB\xBF" + text, nullptr});
  cases.push_back({"deep nesting", std::string(100000, '[') + std::string(100000, ']'), nullptr});
  cases.push_back({"deep nesting in an entry", [&] {
                     json j = base;
                     json deep = json::array();
                     for (int i = 0; i < 50; ++i) deep = json::array({deep});
                     j["entries"][0]["note"] = deep;
                     return Dump(j);
                   }(),
                   nullptr});
  {
    std::string dup = text;
    size_t at = dup.find("\"original\"");
    dup.insert(at, "\"original\": \"" + r + "\\\\tree\\\\junk\\\\decoy.bin\",\n      ");
    cases.push_back({"a repeated key", dup, nullptr});
    std::string nul = text;
    at = nul.find(".bin\"");
    if (at != std::string::npos) nul.insert(at, "\\u0000");
    cases.push_back({"an escaped NUL", nul, nullptr});
    std::string surrogate = text;
    at = surrogate.find(".bin\"");
    if (at != std::string::npos) surrogate.insert(at, "\\ud800");
    cases.push_back({"a lone surrogate", surrogate, nullptr});
    std::string badUtf8 = text;
    at = badUtf8.find(".bin\"");
    if (at != std::string::npos) badUtf8.insert(at, "\xC3");
    cases.push_back({"broken UTF-8", badUtf8, nullptr});
  }
  return cases;
}

}  // namespace

void Manifests(const std::wstring& root, Figures& f) {
  const std::wstring appData = root + L"\\appdata-q", tree = root + L"\\tree";
  const std::vector<std::pair<std::wstring, std::string>> files = {{tree + L"\\junk\\a.bin", Bytes(1000, 1)},
                                                                   {tree + L"\\junk\\sub\\b.txt", Bytes(2000, 2)},
                                                                   {tree + L"\\junk\\c d.dat", Bytes(3, 3)}};
  for (auto& file : files) WriteBytes(file.first, file.second);
  const std::wstring q0 = root + L"\\q0";
  Run made = Broom({L"--defs", root + L"\\defs", L"clean", L"--yes", L"--quarantine", q0}, appData);
  std::string text;
  if (made.code != 0 || !ReadBytes(q0 + L"\\broom-quarantine.json", text)) {
    fprintf(stderr, "the quarantine was not made (exit %lu): %s\n", made.code, made.err.c_str());
    ExitProcess(3);
  }
  Snapshot stored;
  Take(q0, stored);
  stored.erase(q0 + L"\\broom-quarantine.json");
  RemoveTree(tree);

  std::vector<ManifestCase> cases = ManifestCases(text, root);
  for (size_t k = 0; k < cases.size(); ++k) {
    const ManifestCase& c = cases[k];
    const std::wstring q = root + L"\\m\\" + std::to_wstring(k);
    for (auto& s : stored) WriteBytes(q + s.first.substr(q0.size()), s.second);
    std::string manifest = c.manifest;
    const std::string escaped = json(Narrow(q)).dump();  // the case's own folder, as JSON text
    for (size_t at; (at = manifest.find("@Q@")) != std::string::npos;)
      manifest.replace(at, 3, escaped.substr(1, escaped.size() - 2));
    WriteBytes(q + L"\\broom-quarantine.json", manifest);
    WriteBytes(tree + L"\\junk\\decoy.bin", "an unrelated file");
    if (c.extra) c.extra(q);
    Snapshot before;
    Take(q, before);
    Take(tree, before);
    Take(g_cwd, before);

    Run r = Broom({L"restore", q}, appData);
    Count(f, r);
    ++f.cases;
    Snapshot after;
    Take(q, after);
    Take(tree, after);
    Take(g_cwd, after);

    // Every file's bytes are somewhere afterwards: moved, never overwritten.
    auto isManifest = [&](const std::wstring& path) { return path.rfind(q + L"\\broom-quarantine.json", 0) == 0; };
    std::map<std::string, int> contents;
    size_t inQuarantineBefore = 0, inQuarantineAfter = 0;
    for (auto& b : before)
      if (!isManifest(b.first)) {
        ++contents[b.second];
        inQuarantineBefore += b.first.rfind(q + L"\\", 0) == 0;
      }
    for (auto& a : after)
      if (!isManifest(a.first)) {
        --contents[a.second];
        inQuarantineAfter += a.first.rfind(q + L"\\", 0) == 0;
      }
    for (auto& c2 : contents)
      for (int n = 0; n < c2.second; ++n) Complain(f.lostFiles, c.label, "file bytes lost or overwritten", r);
    CheckMessage(f, c.label, r);
    if (r.code == 2) {
      if (after != before) Complain(f.changedOnRefusal, c.label, "refused, yet files changed", r);
    } else if (r.code == 0 || r.code == 1) {
      // "Restored N" is what left the folder; "M files stay" what the
      // manifest still lists; exit 0 only when nothing stays.
      unsigned long restored = 0, stay = 0;
      size_t at = r.out.find("Restored ");
      bool said = at != std::string::npos && sscanf(r.out.c_str() + at, "Restored %lu", &restored) == 1;
      for (size_t line = 0; (line = r.err.find("broom: ", line)) != std::string::npos; line += 7)
        if (sscanf(r.err.c_str() + line, "broom: %lu file", &stay) == 1) break;
      std::string left;
      size_t listed = 0;
      if (ReadBytes(q + L"\\broom-quarantine.json", left)) {
        json j = json::parse(left, nullptr, false);
        listed = j.is_object() && j["entries"].is_array() ? j["entries"].size() : 999;
      }
      size_t moved = inQuarantineBefore - inQuarantineAfter;
      bool truthful = said && restored == moved && stay == listed && (r.code == 0) == (listed == 0) &&
                      (r.code != 0 || inQuarantineAfter == 0);
      if (!truthful)
        Complain(f.untruthful, c.label,
                 "says " + std::to_string(restored) + " restored and " + std::to_string(stay) + " staying; " +
                     std::to_string(moved) + " moved, " + std::to_string(listed) + " still listed",
                 r);
    } else {
      Complain(f.untruthful, c.label, "unexpected exit code", r);
    }
    RemoveTree(q);
    RemoveTree(tree);
    RemoveTree(g_cwd);
    CreateDirectoryW(g_cwd.c_str(), nullptr);
  }
}

}  // namespace damage
