// What a new user meets end to end: a winapp2 quarantine restored whole, a
// changed registry export refused, the exit codes of a clean, its JSON, the
// names a user types, and a data folder that is not one.
#include <windows.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "common/TestFiles.h"
#include "console/BroomRun.h"
#include "core/Handles.h"
#include "registry/RegTestTree.h"

using broomtest::Exists;
using broomtest::Narrow;
using broomtest::ReadFile;
using broomtest::SBroomRun;
using broomtest::WriteFile;

namespace {

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

int Count(const std::string& text, const std::string& part) {
  int n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

class UserJourney : public ::testing::Test {
 protected:
  std::wstring Tree(const std::wstring& rel = L"") const { return rel.empty() ? m_root / L"tree" : m_root / (L"tree\\" + rel); }
  std::wstring AppData() const { return m_root / L"appdata"; }
  std::wstring Defs() const { return m_root / L"defs"; }

  // One group T with the items given as name and clean elements.
  void WriteDefs(const std::vector<std::pair<std::wstring, std::wstring>>& items) {
    std::wstring xml = L"<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<ConfigItems>\n";
    for (const auto& item : items)
      xml += L"  <item group=\"T\" name=\"" + item.first + L"\" scan=\"yes\" clean=\"yes\">" + item.second + L"</item>\n";
    WriteFile(Defs() + L"\\test.xml", Narrow(xml + L"</ConfigItems>\n"));
  }
  static std::wstring Clean(const std::wstring& pattern, const std::wstring& kind = L"file") {
    return L"<clean kind=\"" + kind + L"\">" + pattern + L"</clean>";
  }
  std::wstring Winapp2(const std::wstring& entries) { return WriteFile(m_root / L"winapp2.ini", Narrow(entries)); }

  SBroomRun Run(std::vector<std::wstring> args, const std::string& input = "") {
    args.insert(args.begin(), {L"--defs", Defs()});
    return broomtest::RunBroomExe(args, AppData(), input);
  }
  SBroomRun RunBare(const std::vector<std::wstring>& args) { return broomtest::RunBroomExe(args, AppData()); }

  broomtest::TempDir m_root;
};

}  // namespace

TEST_F(UserJourney, AWinapp2QuarantineWithFolderEntriesIsRestoredWhole) {
  const std::map<std::wstring, std::string> files = {{L"cache\\a.bin", "alpha"},
                                                     {L"cache\\sub\\b.bin", "beta"},
                                                     {L"cache\\sub\\deeper\\c.bin", "gamma"},
                                                     {L"cache\\other\\d.bin", "delta"}};
  for (const auto& f : files) WriteFile(Tree(f.first), f.second);
  WriteDefs({{L"Unused", Clean(Tree(L"none\\*"))}});
  const std::wstring ini = Winapp2(L"[Junk Cache *]\r\nLangSecRef=3021\r\nFileKey1=" + Tree(L"cache") +
                                   L"|*.*|REMOVESELF\r\n");
  const std::wstring q = m_root / L"q";
  SBroomRun moved = Run({L"--winapp2", ini, L"clean", L"--yes", L"--quarantine", q, L"Junk Cache"});
  ASSERT_EQ(0u, moved.code) << moved.out << moved.err;
  EXPECT_FALSE(Exists(Tree(L"cache")));
  const nlohmann::json manifest = nlohmann::json::parse(ReadFile(q + L"\\broom-quarantine.json"));
  EXPECT_EQ(files.size() + 4, manifest["entries"].size());  // the four folders too

  SBroomRun restored = RunBare({L"restore", q});
  EXPECT_EQ(0u, restored.code) << restored.out << restored.err;
  EXPECT_TRUE(Has(restored.out, "Restored 8 files")) << restored.out;
  for (const auto& f : files) EXPECT_EQ(f.second, ReadFile(Tree(f.first))) << Narrow(f.first);
  EXPECT_FALSE(Exists(q));
}

TEST_F(UserJourney, ARegistryExportChangedToNameAnotherKeyIsRefusedWhole) {
  regtest::Tree keys;
  keys.Set(L"App", L"v", REG_SZ, regtest::Text(L"value"));
  WriteDefs({{L"Keys", Clean(keys.Path(L"App"), L"reg")}});
  const std::wstring q = m_root / L"q";
  ASSERT_EQ(0u, Run({L"clean", L"--yes", L"--quarantine", q}).code);
  const nlohmann::json manifest = nlohmann::json::parse(ReadFile(q + L"\\broom-quarantine.json"));
  const std::string stored = manifest["entries"][0]["stored"];
  const std::wstring reg = q + L"\\" + std::wstring(stored.begin(), stored.end());
  // a Run-like key outside the one exported, appended in the file's own UTF-16
  const std::wstring outside = L"\r\n[" + keys.Path(L"Outside") + L"]\r\n\"evil\"=\"x\"\r\n";
  WriteFile(reg, ReadFile(reg) + std::string(reinterpret_cast<const char*>(outside.data()), outside.size() * 2));

  SBroomRun r = RunBare({L"restore", q});
  EXPECT_EQ(1u, r.code) << r.err;
  EXPECT_TRUE(Has(r.err, "names a key or value other than")) << r.err;
  const regtest::Picture after = keys.Read();
  EXPECT_EQ(0u, after.count(L"Outside"));
  EXPECT_EQ(0u, after.count(L"App"));
  EXPECT_TRUE(Exists(reg));
}

// What a clean's exit code says, one setting each: scripts tell "something
// failed" from "the guard kept something".
TEST_F(UserJourney, ExitCodesOfACleanTellFailuresFromRefusals) {
  struct {
    const char* name;
    bool refused, locked;
    std::vector<std::wstring> extra;
    DWORD code;
    const char* says;
  } cases[] = {
      {"clean", false, false, {}, 0, "Cleaned 3 files"},
      {"refusal alone", true, false, {}, 3, "refusal above"},
      {"failure alone", false, true, {}, 1, "could not be cleaned; close the programs"},
      {"failure and refusal", true, true, {}, 1, "could not be cleaned"},
      {"cancelled", false, false, {L"--cancel-after-cleaned", L"1"}, 130, "cancelled"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    broomtest::RemoveTree(Tree());
    const std::wstring fine = WriteFile(Tree(L"t\\fine.tmp"), 10);
    WriteFile(Tree(L"t\\more.tmp"), 10);
    const std::wstring exe = c.refused ? WriteFile(Tree(L"t\\setup.exe"), 1000) : std::wstring();
    const std::wstring log = WriteFile(Tree(L"logs\\app.log"), 20);
    WriteDefs({{L"Temp", Clean(Tree(L"t\\*"))}, {L"Logs", Clean(Tree(L"logs\\*.log"), L"trunc")}});
    SBroomRun r;
    {
      broom::unique_hfile hold(c.locked ? CreateFileW(log.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr)
                                        : INVALID_HANDLE_VALUE);
      std::vector<std::wstring> args = {L"clean"};
      args.insert(args.end(), c.extra.begin(), c.extra.end());
      r = Run(args, "y\n");
    }
    EXPECT_EQ(c.code, r.code) << r.out << r.err;
    EXPECT_TRUE(Has(r.out + r.err, c.says)) << r.out << r.err;
    if (c.refused) {
      // the table and the question count only what will be cleaned
      EXPECT_TRUE(Has(r.out, "Not counted: 1 file (1000 bytes)")) << r.out;
      EXPECT_TRUE(Has(r.err, "Delete 3 files (40 bytes) for good?")) << r.err;
      EXPECT_TRUE(Exists(exe));
    }
  }
}

TEST_F(UserJourney, AFolderTheGuardKeepsAFileInIsKeptNotFailed) {
  const std::wstring exe = WriteFile(Tree(L"temp\\7zS4F21\\setup.exe"), 100);
  WriteFile(Tree(L"temp\\7zS4F21\\data.bin"), 50);
  WriteFile(Tree(L"temp\\other\\x.bin"), 5);
  WriteDefs({{L"Unused", Clean(Tree(L"none\\*"))}});
  const std::wstring ini = Winapp2(L"[Temp Files *]\r\nLangSecRef=3021\r\nFileKey1=" + Tree(L"temp") +
                                   L"|*.*|REMOVESELF\r\n");
  SBroomRun r = Run({L"--winapp2", ini, L"clean", L"--yes", L"Temp Files"});
  EXPECT_EQ(3u, r.code) << r.out << r.err;
  EXPECT_TRUE(Has(r.err, "refused: " + Narrow(Tree(L"temp\\7zS4F21")) + ": it holds '" + Narrow(exe) +
                             "', which stays (it is a program file")) << r.err;
  EXPECT_FALSE(Has(r.err, "close the programs")) << r.err;
  EXPECT_FALSE(Has(r.err, "failed")) << r.err;
  EXPECT_TRUE(Exists(exe));
  EXPECT_FALSE(Exists(Tree(L"temp\\7zS4F21\\data.bin")));
  EXPECT_FALSE(Exists(Tree(L"temp\\other")));
  EXPECT_TRUE(Exists(Tree(L"temp")));  // it holds the kept folder
}

TEST_F(UserJourney, CleanJsonHasTheShapeOfScanJsonWithEachHitsOutcome) {
  WriteFile(Tree(L"t\\a.tmp"), 10);
  const std::wstring exe = WriteFile(Tree(L"t\\tool.exe"), 30);
  const std::wstring log = WriteFile(Tree(L"logs\\app.log"), 20);
  WriteDefs({{L"Temp", Clean(Tree(L"t\\*"))}, {L"Logs", Clean(Tree(L"logs\\*.log"), L"trunc")}});
  SBroomRun r;
  {
    broom::unique_hfile hold(CreateFileW(log.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    r = Run({L"clean", L"--yes", L"--json"});
  }
  EXPECT_EQ(1u, r.code) << r.err;
  const nlohmann::json j = nlohmann::json::parse(r.out, nullptr, false);
  ASSERT_FALSE(j.is_discarded()) << r.out;
  for (const char* key : {"items", "total", "protected_skipped", "cancelled", "cleaned", "failed", "refused"})
    EXPECT_TRUE(j.contains(key)) << key;
  std::map<std::string, nlohmann::json> hits;
  for (const auto& item : j["items"]) {
    for (const char* key : {"path", "name", "files", "size", "errors", "notes", "hits"})
      EXPECT_TRUE(item.contains(key)) << key;
    for (const auto& hit : item["hits"]) hits[hit["path"]] = hit;
  }
  EXPECT_EQ("cleaned", hits[Narrow(Tree(L"t\\a.tmp"))]["outcome"]);
  EXPECT_EQ(0, hits[Narrow(Tree(L"t\\a.tmp"))]["result"]);
  EXPECT_EQ("refused", hits[Narrow(exe)]["outcome"]);
  EXPECT_EQ("failed", hits[Narrow(log)]["outcome"]);
  EXPECT_EQ(0x88004005u, hits[Narrow(log)]["result"].get<unsigned>());
  EXPECT_EQ(1, j["cleaned"]["files"]);
  EXPECT_EQ(1, j["failed"]);
  EXPECT_EQ(1, j["refused"]);
}

TEST_F(UserJourney, CtrlCInACleanSaysExactlyWhatWasLeft) {
  for (int i = 0; i < 12; ++i) WriteFile(Tree(L"a\\f" + std::to_wstring(i)), 1);
  WriteFile(Tree(L"b\\g"), 1);
  WriteDefs({{L"A", Clean(Tree(L"a\\*"))}, {L"B", Clean(Tree(L"b\\*"))}});
  SBroomRun r = Run({L"clean", L"--yes", L"--cancel-after-cleaned", L"5"});
  EXPECT_EQ(130u, r.code);
  EXPECT_TRUE(Has(r.err, "'T/A' was cleaned in part (5 of 12 files); 8 files were left untouched, 1 item not begun"))
      << r.err;
  int left = 0;
  for (int i = 0; i < 12; ++i) left += Exists(Tree(L"a\\f" + std::to_wstring(i)));
  EXPECT_EQ(7, left);
  EXPECT_TRUE(Exists(Tree(L"b\\g")));
}

TEST_F(UserJourney, NamesMatchWholeWordsAndAMissShowsTheClosestNames) {
  // the bundled definitions beside broom.exe, as the README's example uses them
  // (Chrome is not on the test's PC: its items are named as switched off)
  SBroomRun chrome = RunBare({L"scan", L"chrome"});
  EXPECT_EQ(0u, chrome.code) << chrome.err;
  EXPECT_TRUE(Has(chrome.err, "items of 'Browsers/Google Chrome': switched off")) << chrome.err;
  for (const wchar_t* typo : {L"chrom", L"Gogle Chrome"}) {
    SBroomRun miss = RunBare({L"scan", typo});
    EXPECT_EQ(2u, miss.code);
    EXPECT_TRUE(Has(miss.err, "did you mean 'Google Chrome'")) << miss.err;
  }
  SBroomRun none = RunBare({L"scan", L"qqqqqqqq"});
  EXPECT_EQ(2u, none.code);
  EXPECT_TRUE(Has(none.err, "no item or group is named 'qqqqqqqq'; run 'broom list'")) << none.err;
}

TEST_F(UserJourney, ADataFolderThatIsAFileStopsOnlyWhatNeedsIt) {
  WriteFile(Tree(L"t\\a.tmp"), 10);
  WriteDefs({{L"Temp", Clean(Tree(L"t\\*"))}});
  WriteFile(AppData() + L"\\Broom", "not a folder");
  EXPECT_EQ(0u, Run({L"--no-log", L"list"}).code);
  SBroomRun scan = Run({L"scan"});
  EXPECT_EQ(0u, scan.code) << scan.err;
  EXPECT_EQ(1, Count(scan.err, "writes no scan log")) << scan.err;
  EXPECT_TRUE(Has(scan.err, "is a file, not a folder")) << scan.err;
  SBroomRun noLog = Run({L"--no-log", L"scan"});
  EXPECT_EQ("", noLog.err);
  SBroomRun protect = Run({L"protect", Tree(L"t")});
  EXPECT_EQ(2u, protect.code);
  SBroomRun quarantine = Run({L"clean", L"--yes", L"--quarantine"});
  EXPECT_EQ(2u, quarantine.code);
  EXPECT_TRUE(Has(quarantine.err, "'" + Narrow(AppData() + L"\\Broom") + "' is a file, not a folder")) << quarantine.err;
  EXPECT_TRUE(Exists(Tree(L"t\\a.tmp")));
  EXPECT_EQ(0u, Run({L"quarantine", L"list"}).code);

  DeleteFileW((AppData() + L"\\Broom").c_str());
  WriteFile(AppData() + L"\\Broom\\Logs", "not a folder either");
  SBroomRun clean = Run({L"clean", L"--yes"});
  EXPECT_EQ(0u, clean.code) << clean.err;
  EXPECT_EQ(1, Count(clean.err, "writes no scan log")) << clean.err;
  EXPECT_FALSE(Exists(Tree(L"t\\a.tmp")));
}

TEST_F(UserJourney, FilesThatAreNotWinapp2FilesStopWithOneMessageAndTextIsEscaped) {
  WriteDefs({{L"Temp", Clean(Tree(L"t\\*"))}});
  const struct {
    const char* name;
    std::string bytes;
  } files[] = {{"empty", ""},
               {"html", "<!DOCTYPE html>\n<html><head><title>Winapp2</title></head>\n<body>\n<p>x</p>\n</body></html>\n"},
               {"no usable entry", "[Broken *]\nFileKey1=nothing here\n"}};
  for (const auto& f : files) {
    SCOPED_TRACE(f.name);
    const std::wstring ini = WriteFile(m_root / L"w.ini", f.bytes);
    SBroomRun r = Run({L"--winapp2", ini, L"scan", L"winapp2"});
    EXPECT_EQ(2u, r.code) << r.out << r.err;
    EXPECT_TRUE(Has(r.err, Narrow(ini))) << r.err;
    EXPECT_FALSE(Has(r.err, "no item or group is named")) << r.err;
    EXPECT_EQ("", r.out);
  }
  // a check echoes the lines it skips: control bytes are shown, never written
  const std::wstring ini = WriteFile(m_root / L"w.ini", "[A *]\nFileKey1=C:\\x|*\n[B *]\nFileKey1=\x1b[2J\x07\n");
  SBroomRun check = RunBare({L"winapp2", L"check", ini});
  EXPECT_EQ(1u, check.code) << check.err;
  EXPECT_FALSE(Has(check.out, "\x1b")) << check.out;
  EXPECT_TRUE(Has(check.out, "<U+001B>")) << check.out;
}
