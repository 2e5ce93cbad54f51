// Runs broom.exe as a user would, with pipes for its standard handles, a
// private LOCALAPPDATA and definition folders and file trees made per test.
#include <windows.h>
#include <shlobj.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <map>
#include <string>
#include <thread>
#include <vector>

#include "common/TestFiles.h"
#include "common/TestProcess.h"
#include "core/CommandLine.h"
#include "core/Handles.h"
#include "registry/RegTestTree.h"

using broomtest::EnvironmentWith;
using broomtest::ExeFolder;
using broomtest::Exists;
using broomtest::Narrow;
using broomtest::ReadFile;
using broomtest::TempDir;
using broomtest::WriteFile;

namespace {

struct RunResult {
  DWORD code = 0xFFFFFFFF;
  std::string out;
  std::string err;
};

void Drain(HANDLE pipe, std::string* into) {
  char buffer[4096];
  DWORD read = 0;
  while (::ReadFile(pipe, buffer, sizeof buffer, &read, nullptr) && read > 0) into->append(buffer, read);
}

// broom.exe with LOCALAPPDATA pointing at appData; input goes to its stdin.
RunResult RunBroom(const std::vector<std::wstring>& args, const std::wstring& appData, const std::string& input = "") {
  RunResult result;
  std::wstring exe = ExeFolder() + L"\\broom.exe";
  std::wstring command = broom::QuoteArgument(exe);
  for (const std::wstring& a : args) command += L" " + broom::QuoteArgument(a);

  SECURITY_ATTRIBUTES sa = {sizeof sa, nullptr, TRUE};
  HANDLE outRead = nullptr, outWrite = nullptr, errRead = nullptr, errWrite = nullptr, inRead = nullptr,
         inWrite = nullptr;
  if (!CreatePipe(&outRead, &outWrite, &sa, 0) || !CreatePipe(&errRead, &errWrite, &sa, 0) ||
      !CreatePipe(&inRead, &inWrite, &sa, 0)) {
    ADD_FAILURE() << "CreatePipe failed";
    return result;
  }
  broom::unique_handle hOutRead(outRead), hOutWrite(outWrite), hErrRead(errRead), hErrWrite(errWrite),
      hInRead(inRead), hInWrite(inWrite);
  SetHandleInformation(outRead, HANDLE_FLAG_INHERIT, 0);
  SetHandleInformation(errRead, HANDLE_FLAG_INHERIT, 0);
  SetHandleInformation(inWrite, HANDLE_FLAG_INHERIT, 0);

  STARTUPINFOW si = {};
  si.cb = sizeof si;
  si.dwFlags = STARTF_USESTDHANDLES;
  si.hStdInput = inRead;
  si.hStdOutput = outWrite;
  si.hStdError = errWrite;
  PROCESS_INFORMATION pi = {};
  std::vector<wchar_t> env = EnvironmentWith(L"LOCALAPPDATA", appData);
  std::vector<wchar_t> line(command.begin(), command.end());
  line.push_back(0);
  if (!broomtest::StartProcess(exe.c_str(), line.data(), TRUE, CREATE_UNICODE_ENVIRONMENT | CREATE_NO_WINDOW,
                      env.data(), nullptr, &si, &pi)) {
    ADD_FAILURE() << "cannot start " << Narrow(exe) << ": error " << GetLastError();
    return result;
  }
  broom::unique_handle process(pi.hProcess), thread(pi.hThread);
  // The child holds its own copies; ours must go for the reads to see the end.
  hOutWrite.reset();
  hErrWrite.reset();
  hInRead.reset();
  std::thread outReader(Drain, outRead, &result.out);
  std::thread errReader(Drain, errRead, &result.err);
  DWORD written = 0;
  if (!input.empty()) ::WriteFile(inWrite, input.data(), static_cast<DWORD>(input.size()), &written, nullptr);
  hInWrite.reset();
  if (WaitForSingleObject(process.get(), 120000) != WAIT_OBJECT_0) {
    TerminateProcess(process.get(), 99);
    ADD_FAILURE() << "broom.exe did not end within two minutes";
  }
  outReader.join();
  errReader.join();
  GetExitCodeProcess(process.get(), &result.code);
  return result;
}

// Every file below the folders, with its bytes.
std::map<std::wstring, std::string> Contents(const std::vector<std::wstring>& folders) {
  std::map<std::wstring, std::string> out;
  std::vector<std::wstring> pending = folders;
  while (!pending.empty()) {
    std::wstring folder = pending.back();
    pending.pop_back();
    WIN32_FIND_DATAW data;
    broom::unique_hfind find(FindFirstFileW((folder + L"\\*").c_str(), &data));
    for (bool more = static_cast<bool>(find); more; more = FindNextFileW(find.get(), &data)) {
      std::wstring name = data.cFileName, path = folder + L"\\" + name;
      if (name == L"." || name == L"..") continue;
      if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
        pending.push_back(path);
      else
        out[path] = ReadFile(path);
    }
  }
  return out;
}

std::wstring Wide(const nlohmann::json& utf8) {
  const std::string text = utf8.get<std::string>();
  std::wstring out(text.size(), L'\0');
  out.resize(static_cast<size_t>(MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &out[0],
                                                     static_cast<int>(out.size()))));
  return out;
}

int CountLines(const std::string& text) {
  int n = 0;
  for (char c : text) n += c == '\n';
  return n;
}

class BroomExe : public ::testing::Test {
 protected:
  // Definitions with one group per call of Item(); paths are absolute.
  struct ItemDef {
    std::wstring group, name, attributes, body;
  };

  void WriteDefs(const std::vector<ItemDef>& items, const std::wstring& file = L"defs\\test.xml") {
    std::wstring xml = L"<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<ConfigItems>\n";
    for (const ItemDef& i : items)
      xml += L"  <item group=\"" + i.group + L"\" name=\"" + i.name + L"\" " + i.attributes + L">" + i.body +
             L"</item>\n";
    xml += L"</ConfigItems>\n";
    WriteFile(m_root / file, Narrow(xml));
  }

  static std::wstring Clean(const std::wstring& pattern, const std::wstring& kind = L"file") {
    return L"<clean kind=\"" + kind + L"\">" + pattern + L"</clean>";
  }

  RunResult Run(std::vector<std::wstring> args, const std::string& input = "") {
    args.insert(args.begin(), {L"--defs", Defs()});
    return RunBroom(args, AppData(), input);
  }
  RunResult RunBare(const std::vector<std::wstring>& args, const std::string& input = "") {
    return RunBroom(args, AppData(), input);
  }

  std::wstring Defs() const { return m_root / L"defs"; }
  std::wstring AppData() const { return m_root / L"appdata"; }
  std::wstring Tree(const std::wstring& rel = L"") const { return rel.empty() ? m_root / L"tree" : m_root / (L"tree\\" + rel); }

  static nlohmann::json Json(const RunResult& r) {
    nlohmann::json j = nlohmann::json::parse(r.out, nullptr, false);
    EXPECT_FALSE(j.is_discarded()) << r.out;
    return j;
  }

  TempDir m_root;
};

std::string Bytes(size_t n, unsigned seed) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 131 + seed * 7 + (i >> 7)) & 0xFF);
  return s;
}

// ---- list ----

TEST_F(BroomExe, ListShowsTheSortedTreeWithEveryState) {
  WriteDefs({{L"Beta", L"Only", L"scan=\"yes\" clean=\"yes\" desc=\"Only item\"", Clean(Tree(L"b\\*"))},
             {L"Alpha", L"Zed", L"scan=\"yes\" clean=\"no\" safe=\"yes\" qscan=\"yes\" desc=\"Last by name\"",
              Clean(Tree(L"z\\*")) + Clean(Tree(L"y\\*"))},
             {L"Alpha", L"Able", L"scan=\"no\" desc=\"First by name\"", Clean(Tree(L"a\\*"))},
             {L"Alpha", L"Gone", L"scan=\"yes\" clean=\"yes\"",
              L"<check test=\"exists\" data=\"file\" path=\"" + Tree(L"missing") + L"\"/>" + Clean(Tree(L"g\\*"))}});
  WriteFile(m_root / L"defs\\order.xml",
            "<ConfigItems><group name=\"Beta\" order=\"2\" desc=\"Second group\"/><group name=\"Alpha\" order=\"1\"/>"
            "</ConfigItems>");
  RunResult r = Run({L"list"});
  ASSERT_EQ(0u, r.code) << r.err;
  EXPECT_EQ("", r.err);
  const std::string expected =
      "Alpha\n"
      "  Able  [not scanned, not cleaned, 1 operation, cost: cache]\n"
      "      First by name\n"
      "  Gone  [off: not on this PC, scan, clean, 1 operation, cost: cache]\n"
      "  Zed  [scan, not cleaned, safe, quick scan, 2 operations, cost: cache]\n"
      "      Last by name\n"
      "Beta\n"
      "    Second group\n"
      "  Only  [scan, clean, 1 operation, cost: cache]\n"
      "      Only item\n"
      "\n"
      "4 items in 2 groups; 2 scanned by default.\n";
  EXPECT_EQ(expected, r.out);
}

// ---- winapp2 ----

TEST_F(BroomExe, Winapp2EntriesJoinTheDefinitionsOptInByFullNameAndAreChecked) {
  WriteFile(Tree(L"w\\a.tmp"), 5);
  WriteFile(Tree(L"x\\b.bin"), 7);
  WriteDefs({{L"T", L"Bin", L"scan=\"yes\" clean=\"yes\"", Clean(Tree(L"x\\*"))}});
  std::wstring ini = WriteFile(m_root / L"winapp2.ini",
                               Narrow(L"; test\r\n[Odd/Name *]\r\nLangSecRef=3021\r\nWarning=Be careful\r\nFileKey1=" +
                                      Tree(L"w") + L"|*.tmp\r\n[Bad *]\r\nFileKey1=" + Tree(L"w") + L"\r\nFileKey2=" + Tree(L"w") +
                                      L"|*.none\r\n"));
  auto paths = [](const RunResult& r) {
    std::vector<std::string> out;
    nlohmann::json j = Json(r);
    for (auto& i : j["items"]) out.push_back(i["path"]);
    return out;
  };
  RunResult byDefault = Run({L"--winapp2", ini, L"scan", L"--json"});  // winapp2 items are opt-in
  ASSERT_EQ(0u, byDefault.code) << byDefault.err;
  EXPECT_EQ(std::vector<std::string>{"T/Bin"}, paths(byDefault));
  EXPECT_NE(std::string::npos, byDefault.err.find("1 line was skipped")) << byDefault.err;
  for (const wchar_t* name : {L"Odd/Name", L"winapp2/Applications/Odd/Name", L"applications/odd/name"}) {
    RunResult named = Run({L"--winapp2", ini, L"scan", L"--json", name});
    ASSERT_EQ(0u, named.code) << named.err;
    EXPECT_EQ(std::vector<std::string>{"winapp2/Applications/Odd/Name"}, paths(named));
  }

  RunResult list = Run({L"--winapp2", ini, L"list", L"--json"});
  ASSERT_EQ(0u, list.code) << list.err;
  nlohmann::json tree = Json(list)["groups"];
  ASSERT_EQ(2u, tree.size());
  EXPECT_EQ("T", tree[0]["name"]);
  const nlohmann::json& item = tree[1]["children"][0]["children"][0];
  EXPECT_EQ("winapp2/Applications/Odd/Name", item["path"]);
  EXPECT_EQ("Be careful", item["tip"]);
  EXPECT_EQ(false, item["scan"]);
  EXPECT_EQ(true, item["enabled"]);
  EXPECT_EQ(5, item["sources"][0]["line"]);
  EXPECT_EQ("FileKey1", item["sources"][0]["kind"]);

  RunResult clean = Run({L"--winapp2", ini, L"clean", L"--yes", L"Odd/Name"});
  ASSERT_EQ(0u, clean.code) << clean.err;
  EXPECT_NE(std::string::npos, clean.out.find("Warning for 'winapp2/Applications/Odd/Name': Be careful")) << clean.out;
  EXPECT_FALSE(Exists(Tree(L"w\\a.tmp")));

  RunResult check = RunBare({L"winapp2", L"check", L"--json", ini});
  EXPECT_EQ(1u, check.code);
  nlohmann::json report = Json(check);
  EXPECT_EQ(2, report["entries"]);
  EXPECT_EQ(2, report["file_rules"]);
  ASSERT_EQ(1u, report["skipped"].size());
  EXPECT_EQ(7, report["skipped"][0]["line"]);
  WriteFile(ini, "[Fine *]\nFileKey1=C:\\x|*\n");
  EXPECT_EQ(0u, RunBare({L"winapp2", L"check", ini}).code);
  RunResult missing = RunBare({L"winapp2", L"check", m_root / L"none.ini"});
  EXPECT_EQ(2u, missing.code);
  EXPECT_NE(std::string::npos, missing.err.find("does not exist")) << missing.err;
}

// ---- scan ----

TEST_F(BroomExe, ScanTotalsAreTheRealSizesAndJsonParses) {
  std::vector<std::pair<std::wstring, size_t>> logs = {{L"logs\\a.log", 1}, {L"logs\\b.log", 1000}};
  std::vector<std::pair<std::wstring, size_t>> cache = {
      {L"cache\\c.bin", 4096}, {L"cache\\deep\\d.bin", 70000}, {L"cache\\deep\\er\\e.bin", 0}};
  size_t logTotal = 0, cacheTotal = 0;
  for (auto& f : logs) {
    WriteFile(Tree(f.first), f.second);
    logTotal += f.second;
  }
  for (auto& f : cache) {
    WriteFile(Tree(f.first), f.second);
    cacheTotal += f.second;
  }
  WriteFile(Tree(L"logs\\not-a-log.txt"), 333);
  WriteDefs({{L"T", L"Logs", L"scan=\"yes\"", Clean(Tree(L"logs\\*.log"))},
             {L"T", L"Cache", L"scan=\"yes\"", Clean(Tree(L"cache\\*"))}});

  RunResult r = Run({L"scan", L"--json", L"--files"});
  ASSERT_EQ(0u, r.code) << r.err;
  nlohmann::json j = Json(r);
  ASSERT_EQ(2u, j["items"].size());
  EXPECT_EQ("T/Cache", j["items"][0]["path"]);
  EXPECT_EQ(3u, j["items"][0]["files"]);
  EXPECT_EQ(cacheTotal, j["items"][0]["size"].get<size_t>());
  EXPECT_EQ("T/Logs", j["items"][1]["path"]);
  EXPECT_EQ(2u, j["items"][1]["files"]);
  EXPECT_EQ(logTotal, j["items"][1]["size"].get<size_t>());
  EXPECT_EQ(5u, j["total"]["files"]);
  EXPECT_EQ(logTotal + cacheTotal, j["total"]["size"].get<size_t>());
  EXPECT_FALSE(j["cancelled"].get<bool>());
  size_t sum = 0;
  for (auto& item : j["items"])
    for (auto& hit : item["hits"]) sum += hit["size"].get<size_t>();
  EXPECT_EQ(logTotal + cacheTotal, sum);
  // Every hit names the rule that found it: the second item's line.
  const nlohmann::json& source = j["items"][0]["hits"][0]["source"];
  EXPECT_EQ(Narrow(Defs() + L"\\test.xml"), source["file"]);
  EXPECT_EQ(4, source["line"]);
  EXPECT_EQ("file", source["kind"]);
  EXPECT_EQ(Narrow(Tree(L"cache\\*")), source["text"]);

  RunResult table = Run({L"scan"});
  ASSERT_EQ(0u, table.code);
  EXPECT_NE(std::string::npos, table.out.find("Total")) << table.out;
  EXPECT_NE(std::string::npos, table.out.find("(75,097 bytes)")) << table.out;
}

TEST_F(BroomExe, NonAsciiPathsReachTextAndJsonAsUtf8) {
  std::wstring odd = WriteFile(Tree(L"u\\caf\u00e9-\u65e5\u672c.tmp"), 10);
  WriteDefs({{L"T", L"U", L"scan=\"yes\"", Clean(Tree(L"u\\*"))}});
  RunResult r = Run({L"scan", L"--json", L"--files"});
  ASSERT_EQ(0u, r.code) << r.err;
  nlohmann::json j = Json(r);
  ASSERT_EQ(1u, j["items"][0]["hits"].size());
  EXPECT_EQ(Narrow(odd), j["items"][0]["hits"][0]["path"].get<std::string>());
  RunResult text = Run({L"scan", L"--files"});
  EXPECT_NE(std::string::npos, text.out.find(Narrow(odd))) << text.out;
}

TEST_F(BroomExe, DefaultSelectionNamesGroupsAndSwitchedOffItems) {
  WriteFile(Tree(L"on\\1.bin"), 1);
  WriteFile(Tree(L"risky\\2.bin"), 2);
  WriteFile(Tree(L"off\\3.bin"), 3);
  WriteDefs({{L"G/Sub", L"On", L"scan=\"yes\"", Clean(Tree(L"on\\*"))},
             {L"G/Sub", L"Risky", L"scan=\"no\"", Clean(Tree(L"risky\\*"))},
             {L"G", L"Off", L"scan=\"yes\"",
              L"<check test=\"exists\" data=\"env\" path=\"BROOM_NO_SUCH_VARIABLE\"/>" + Clean(Tree(L"off\\*"))}});
  auto paths = [](const nlohmann::json& j) {
    std::vector<std::string> out;
    for (auto& i : j["items"]) out.push_back(i["path"]);
    return out;
  };
  RunResult byDefault = Run({L"scan", L"--json"});
  ASSERT_EQ(0u, byDefault.code) << byDefault.err;
  EXPECT_EQ(std::vector<std::string>{"G/Sub/On"}, paths(Json(byDefault)));

  RunResult named = Run({L"scan", L"--json", L"g/sub/RISKY"});
  ASSERT_EQ(0u, named.code) << named.err;
  EXPECT_EQ(std::vector<std::string>{"G/Sub/Risky"}, paths(Json(named)));
  EXPECT_EQ(2u, Json(named)["total"]["size"]);

  RunResult group = Run({L"scan", L"--json", L"G"});
  ASSERT_EQ(0u, group.code);
  EXPECT_EQ((std::vector<std::string>{"G/Sub/On", "G/Sub/Risky"}), paths(Json(group)));
  EXPECT_NE(std::string::npos, group.err.find("skipped 'G/Off'")) << group.err;

  RunResult suffix = Run({L"scan", L"--json", L"Sub"});
  ASSERT_EQ(0u, suffix.code);
  EXPECT_EQ((std::vector<std::string>{"G/Sub/On", "G/Sub/Risky"}), paths(Json(suffix)));
}

// ---- clean ----

TEST_F(BroomExe, CleanRemovesExactlyTheHitsAndNothingProtected) {
  std::wstring a = WriteFile(Tree(L"junk\\a.bin"), 100);
  std::wstring b = WriteFile(Tree(L"junk\\sub\\b.bin"), 200);
  std::wstring c = WriteFile(Tree(L"junk\\guarded\\c.bin"), 300);
  std::wstring lone = WriteFile(Tree(L"junk\\lonely.bin"), 400);
  std::wstring other = WriteFile(Tree(L"elsewhere\\d.bin"), 500);
  WriteDefs({{L"T", L"Junk", L"scan=\"yes\" clean=\"yes\"", Clean(Tree(L"junk\\*"))}});
  ASSERT_EQ(0u, RunBare({L"protect", Tree(L"junk\\guarded")}).code);
  ASSERT_EQ(0u, RunBare({L"protect", lone}).code);

  RunResult r = Run({L"clean", L"--yes"});
  ASSERT_EQ(0u, r.code) << r.err;
  EXPECT_NE(std::string::npos, r.out.find("Cleaned 2 files, freed 300 bytes.")) << r.out;
  EXPECT_FALSE(Exists(a));
  EXPECT_FALSE(Exists(b));
  EXPECT_TRUE(Exists(Tree(L"junk\\sub")));  // folders are not hits
  EXPECT_EQ(std::string(300, 'x'), ReadFile(c));
  EXPECT_EQ(std::string(400, 'x'), ReadFile(lone));
  EXPECT_EQ(std::string(500, 'x'), ReadFile(other));
}

TEST_F(BroomExe, CleanAsksFirstAndOnlyYesGoesAhead) {
  std::wstring a = WriteFile(Tree(L"junk\\a.bin"), 10);
  WriteDefs({{L"T", L"Junk", L"scan=\"yes\" clean=\"yes\"", Clean(Tree(L"junk\\*"))}});
  for (const char* answer : {"n\n", "", "yess\n"}) {
    RunResult r = Run({L"clean"}, answer);
    EXPECT_EQ(0u, r.code) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("Delete 1 file (10 bytes) for good? [y/N]")) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("Nothing was cleaned.")) << r.out;
    EXPECT_TRUE(Exists(a)) << answer;
  }
  RunResult yes = Run({L"clean"}, "y\r\n");
  EXPECT_EQ(0u, yes.code) << yes.err;
  EXPECT_FALSE(Exists(a));
}

TEST_F(BroomExe, CleanByDefaultTakesOnlyItemsThatAreOnForCleaning) {
  std::wstring kept = WriteFile(Tree(L"scanonly\\k.bin"), 5);
  std::wstring gone = WriteFile(Tree(L"both\\g.bin"), 6);
  WriteDefs({{L"T", L"ScanOnly", L"scan=\"yes\" clean=\"no\"", Clean(Tree(L"scanonly\\*"))},
             {L"T", L"Both", L"scan=\"yes\" clean=\"yes\"", Clean(Tree(L"both\\*"))}});
  RunResult r = Run({L"clean", L"-y"});
  ASSERT_EQ(0u, r.code) << r.err;
  EXPECT_TRUE(Exists(kept));
  EXPECT_FALSE(Exists(gone));
}

TEST_F(BroomExe, TruncatingItemsEmptyTheirFilesAndKeepThem) {
  std::wstring log = WriteFile(Tree(L"logs\\app.log"), 4000);
  std::wstring empty = WriteFile(Tree(L"logs\\empty.log"), 0);
  WriteDefs({{L"T", L"Logs", L"scan=\"yes\" clean=\"yes\"", Clean(Tree(L"logs\\*.log"), L"trunc")}});
  RunResult r = Run({L"clean", L"--yes"});
  ASSERT_EQ(0u, r.code) << r.err;
  EXPECT_NE(std::string::npos, r.out.find("Cleaned 1 file, freed 3.9 KB (4,000 bytes).")) << r.out;
  ASSERT_TRUE(Exists(log));
  EXPECT_EQ("", ReadFile(log));
  EXPECT_TRUE(Exists(empty));
}

TEST_F(BroomExe, FailuresAreExplainedAndExitWithOne) {
  std::wstring locked = WriteFile(Tree(L"logs\\locked.log"), 50);
  std::wstring fine = WriteFile(Tree(L"logs\\fine.log"), 60);
  WriteDefs({{L"T", L"Logs", L"scan=\"yes\" clean=\"yes\"", Clean(Tree(L"logs\\*.log"), L"trunc")}});
  RunResult r;
  {
    // Held open without sharing, as a running program holds its log.
    broom::unique_hfile hold(
        CreateFileW(locked.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    ASSERT_TRUE(hold);
    r = Run({L"clean", L"--yes"});
  }
  EXPECT_EQ(1u, r.code) << r.out << r.err;
  EXPECT_NE(std::string::npos, r.err.find("failed: " + Narrow(locked) + ": could not be opened to empty it")) << r.err;
  EXPECT_NE(std::string::npos, r.err.find("(0x88004005)")) << r.err;
  EXPECT_NE(std::string::npos, r.err.find("1 file could not be cleaned")) << r.err;
  EXPECT_EQ(std::string(50, 'x'), ReadFile(locked));
  EXPECT_EQ("", ReadFile(fine));
}

// ---- overwrite ----

// A second hard link made before the clean keeps the data reachable after
// the name is deleted: through it, the test reads what reached the disk.
TEST_F(BroomExe, OverwriteZeroesTheDataBeforeItGoesAndLeavesWhatItCannotOpen) {
  const std::string data = Bytes(70000, 3);
  std::wstring secret = WriteFile(Tree(L"o\\secret.dat"), data);
  std::wstring locked = WriteFile(Tree(L"o\\locked.dat"), data);
  std::wstring plain = WriteFile(Tree(L"p\\plain.dat"), data);
  std::wstring secretLink = m_root / L"secret.link", plainLink = m_root / L"plain.link";
  ASSERT_TRUE(CreateHardLinkW(secretLink.c_str(), secret.c_str(), nullptr));
  ASSERT_TRUE(CreateHardLinkW(plainLink.c_str(), plain.c_str(), nullptr));
  WriteDefs({{L"T", L"Secret", L"scan=\"yes\" clean=\"yes\"", Clean(Tree(L"o\\*"))},
             {L"T", L"Plain", L"scan=\"yes\" clean=\"yes\"", Clean(Tree(L"p\\*"))}});

  RunResult both = Run({L"clean", L"-y", L"--overwrite", L"--quarantine"});
  EXPECT_EQ(2u, both.code);
  EXPECT_NE(std::string::npos, both.err.find(" excludes --")) << both.err;
  EXPECT_TRUE(Exists(secret) && Exists(plain));

  RunResult over;
  {
    broom::unique_hfile hold(CreateFileW(locked.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(hold);
    over = Run({L"clean", L"-y", L"--overwrite", L"T/Secret"});
  }
  EXPECT_EQ(1u, over.code) << over.err;
  EXPECT_NE(std::string::npos, over.out.find("whole-disk encryption")) << over.out;
  EXPECT_NE(std::string::npos, over.err.find("locked.dat: ")) << over.err;
  EXPECT_NE(std::string::npos, over.err.find("(0x80680020)")) << over.err;
  EXPECT_FALSE(Exists(secret));
  std::string left = ReadFile(secretLink);
  EXPECT_GE(left.size(), data.size());
  EXPECT_EQ(std::string::npos, left.find_first_not_of('\0')) << "the data was not overwritten";
  EXPECT_EQ(data, ReadFile(locked)) << "a file that cannot be opened for writing stays whole";

  RunResult normal = Run({L"clean", L"-y", L"T/Plain"});
  EXPECT_EQ(0u, normal.code) << normal.err;
  EXPECT_EQ(std::string::npos, normal.out.find("whole-disk encryption"));
  EXPECT_FALSE(Exists(plain));
  EXPECT_EQ(data, ReadFile(plainLink)) << "without --overwrite the data is left as it was";
}

// ---- quarantine ----

// The moves and the manifest's checks are tested in-process (tests/app);
// these are what broom says and how it exits.
TEST_F(BroomExe, QuarantineThenRestoreGivesBackEveryByteAndNeverReplacesAFile) {
  const std::wstring a = WriteFile(Tree(L"junk\\a.bin"), Bytes(100, 5));
  const std::wstring b = WriteFile(Tree(L"junk\\w\\\u00e9t\u00e9.bin"), Bytes(70000, 4));
  WriteDefs({{L"T", L"Junk", L"scan=\"yes\" clean=\"yes\"", Clean(Tree(L"junk\\*"))}});
  const std::wstring q = m_root / L"quarantine";

  RunResult moved = Run({L"clean", L"--yes", L"--quarantine", q});
  ASSERT_EQ(0u, moved.code) << moved.err;
  EXPECT_NE(std::string::npos, moved.out.find("Moved 2 files")) << moved.out;
  EXPECT_FALSE(Exists(a) || Exists(b));
  // A second clean finds nothing: the quarantine is not scanned, the sources are empty.
  RunResult again = Run({L"clean", L"--yes", L"--quarantine", q});
  EXPECT_NE(std::string::npos, again.out.find("Nothing to clean.")) << again.out;

  WriteFile(a, "new content");
  RunResult kept = RunBare({L"restore", q});
  EXPECT_EQ(1u, kept.code);
  EXPECT_NE(std::string::npos, kept.err.find("not restored: " + Narrow(a) + ": a file already exists")) << kept.err;
  EXPECT_NE(std::string::npos, kept.err.find("1 file stays in")) << kept.err;
  EXPECT_EQ("new content", ReadFile(a));
  EXPECT_EQ(Bytes(70000, 4), ReadFile(b));
  DeleteFileW(a.c_str());
  RunResult restored = RunBare({L"restore", q});
  ASSERT_EQ(0u, restored.code) << restored.err;
  EXPECT_NE(std::string::npos, restored.out.find("Restored 1 file")) << restored.out;
  EXPECT_EQ(Bytes(100, 5), ReadFile(a));
  EXPECT_FALSE(Exists(q));
}

TEST_F(BroomExe, DamagedManifestsStopRestoreWithOneLineAndAMissingFileIsReported) {
  WriteFile(Tree(L"junk\\a.bin"), Bytes(100, 7));
  WriteFile(Tree(L"junk\\b.bin"), Bytes(200, 8));
  WriteDefs({{L"T", L"Junk", L"scan=\"yes\" clean=\"yes\"", Clean(Tree(L"junk\\*"))}});
  const std::wstring q = m_root / L"q", manifest = q + L"\\broom-quarantine.json";
  ASSERT_EQ(0u, Run({L"clean", L"--yes", L"--quarantine", q}).code);
  const nlohmann::json good = nlohmann::json::parse(ReadFile(manifest));
  nlohmann::json relative = good;
  relative["entries"][0]["original"] = "tree\\a.bin";
  for (const std::string& text : {relative.dump(2), good.dump(2).substr(0, 40)}) {
    WriteFile(manifest, text);
    const auto before = Contents({q, Tree()});
    RunResult r = RunBare({L"restore", q});
    EXPECT_EQ(2u, r.code) << r.err;
    EXPECT_EQ(1, CountLines(r.err)) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("is damaged: ")) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("nothing was moved")) << r.err;
    EXPECT_EQ(std::string::npos, r.err.find("json.exception")) << r.err;
    EXPECT_TRUE(before == Contents({q, Tree()}));
  }

  // A stored file gone by hand: the rest is restored and the count says so.
  WriteFile(manifest, good.dump(2));
  const std::string gone = good["entries"][0]["stored"];
  ASSERT_TRUE(DeleteFileW((q + L"\\" + std::wstring(gone.begin(), gone.end())).c_str()));
  RunResult r = RunBare({L"restore", q});
  EXPECT_EQ(1u, r.code);
  EXPECT_NE(std::string::npos, r.out.find("Restored 1 file (")) << r.out;
  EXPECT_NE(std::string::npos, r.err.find("it is no longer in the quarantine folder")) << r.err;
  EXPECT_NE(std::string::npos, r.err.find("1 file stays in")) << r.err;
}

TEST_F(BroomExe, ManagedQuarantinesAreListedRestoredByNameOrLatestAndPurgedByTheirDate) {
  const std::wstring root = AppData() + L"\\Broom\\Quarantine", old = L"2001-02-03 04.05.06";
  WriteDefs({{L"T", L"Junk", L"scan=\"yes\" clean=\"yes\"", Clean(Tree(L"junk\\*"))},
             {L"T", L"Quarantines", L"", Clean(root + L"\\*")}});
  auto clean = [&](const std::wstring& name, size_t bytes) {
    std::wstring file = WriteFile(Tree(L"junk\\" + name), Bytes(bytes, static_cast<unsigned>(bytes)));
    RunResult r = Run({L"clean", L"--yes", L"--quarantine"});
    EXPECT_EQ(0u, r.code) << r.err;
    EXPECT_FALSE(Exists(file));
    return file;
  };
  auto list = [&] { return Json(RunBare({L"quarantine", L"list", L"--json"}))["quarantines"]; };
  const std::wstring a = clean(L"a.bin", 100);
  ASSERT_TRUE(MoveFileW((root + L"\\" + Wide(list()[0]["name"])).c_str(), (root + L"\\" + old).c_str()));
  const std::wstring b = clean(L"b.bin", 200), c = clean(L"c.bin", 300);
  // damaged: kept by purge whatever its date, with what it holds
  const std::wstring precious = WriteFile(root + L"\\2000-01-01 00.00.00\\precious.txt", "mine");
  WriteFile(root + L"\\2000-01-01 00.00.00\\broom-quarantine.json", "{}");
  EXPECT_EQ(0u, Run({L"clean", L"--yes", L"--quarantine"}).code);  // nothing found: no folder is left

  EXPECT_EQ(0u, Json(Run({L"scan", L"--json", L"T/Quarantines"}))["total"]["files"]) << "never scanned";
  nlohmann::json all = list();
  ASSERT_EQ(4u, all.size()) << all.dump(2);
  EXPECT_EQ(300u, all[0]["size"]);  // newest first, a taken second gets " (2)"
  EXPECT_EQ(200u, all[1]["size"]);
  EXPECT_EQ(Narrow(old), all[2]["name"]);
  EXPECT_EQ("2001-02-03T04:05:06", all[2]["date"]);
  EXPECT_EQ(1u, all[2]["items"]);
  EXPECT_TRUE(all[2]["damaged"].is_null());
  EXPECT_NE(std::string::npos, all[3]["damaged"].get<std::string>().find("'format' is missing"));
  nlohmann::json manifest = nlohmann::json::parse(ReadFile(root + L"\\" + old + L"\\broom-quarantine.json"));
  EXPECT_EQ("T/Junk", manifest["entries"][0]["item"]);
  EXPECT_EQ("file", manifest["entries"][0]["source"]["kind"]);
  EXPECT_EQ(Narrow(Tree(L"junk\\*")), manifest["entries"][0]["source"]["text"]);
  EXPECT_EQ(3, manifest["entries"][0]["source"]["line"]);

  ASSERT_EQ(0u, RunBare({L"restore", L"latest"}).code);
  EXPECT_EQ(Bytes(300, 300), ReadFile(c));
  RunResult byName = RunBare({L"restore", Wide(all[1]["name"])});
  ASSERT_EQ(0u, byName.code) << byName.err;
  EXPECT_EQ(Bytes(200, 200), ReadFile(b));
  EXPECT_EQ(2u, list().size());

  RunResult no = RunBare({L"quarantine", L"purge", L"--older-than", L"30"}, "n\n");
  EXPECT_EQ(0u, no.code);
  EXPECT_NE(std::string::npos, no.out.find(Narrow(old) + "  1 item, 100 bytes")) << no.out;
  EXPECT_NE(std::string::npos, no.err.find("kept '2000-01-01 00.00.00': its manifest is damaged")) << no.err;
  EXPECT_TRUE(Exists(root + L"\\" + old + L"\\a.bin"));
  RunResult young = RunBare({L"quarantine", L"purge", L"--older-than", L"100000", L"--yes"});
  EXPECT_NE(std::string::npos, young.out.find("No quarantine is older than 100,000 days")) << young.out;
  RunResult yes = RunBare({L"quarantine", L"purge", L"--older-than", L"30", L"--yes"});
  EXPECT_EQ(0u, yes.code) << yes.err;
  EXPECT_FALSE(Exists(root + L"\\" + old));
  EXPECT_FALSE(Exists(a));
  EXPECT_EQ("mine", ReadFile(precious));
}

TEST_F(BroomExe, RegistryHitsGoIntoQuarantineAsExportsAndComeBackByteForByte) {
  regtest::Tree keys;
  keys.Set(L"App", L"", REG_SZ, regtest::Text(L"default"));
  keys.Set(L"App", L"bin", REG_BINARY, {0, 1, 0xFF});
  keys.Set(L"App\\Sub", L"multi", REG_MULTI_SZ, regtest::Text(std::wstring(L"a\0b\0", 4)));
  keys.Set(L"App\\Sub", L"expand", REG_EXPAND_SZ, regtest::Text(L"%TEMP%\\x", false));
  keys.Set(L"App\\Sub\\Empty", nullptr, REG_NONE, {});
  keys.Set(L"Other", L"qword", REG_QWORD, {1, 2, 3, 4, 5, 6, 7, 8});
  keys.Set(L"Other", L"keep", REG_DWORD, {7, 0, 0, 0});
  const regtest::Picture before = keys.Read();
  WriteDefs({{L"R", L"Keys", L"scan=\"yes\" clean=\"yes\"",
              Clean(keys.Path(L"App"), L"reg") + Clean(keys.Path(L"Other") + L"|qword", L"reg")}});
  const std::wstring q = m_root / L"q";

  RunResult moved = Run({L"clean", L"--yes", L"--quarantine", q});
  ASSERT_EQ(0u, moved.code) << moved.err;
  regtest::Picture after = keys.Read();
  EXPECT_EQ(0u, after.count(L"App"));
  EXPECT_EQ(0u, after.count(L"Other|qword"));
  EXPECT_EQ(1u, after.count(L"Other|keep"));
  nlohmann::json manifest = nlohmann::json::parse(ReadFile(q + L"\\broom-quarantine.json"));
  ASSERT_EQ(2u, manifest["entries"].size());
  for (const auto& e : manifest["entries"]) {
    EXPECT_EQ("registry", e["kind"]);
    EXPECT_EQ("reg", e["source"]["kind"]);
    EXPECT_TRUE(Exists(q + L"\\" + Wide(e["stored"])));
  }
  EXPECT_EQ(Narrow(keys.Path(L"Other") + L"|qword"), manifest["entries"][1]["original"]);
  EXPECT_EQ("Other qword.reg", manifest["entries"][1]["stored"]);

  // a value written meanwhile is never replaced: it stays, and so does its export
  keys.Set(L"Other", L"qword", REG_QWORD, {9, 9, 9, 9, 9, 9, 9, 9});
  RunResult conflict = RunBare({L"restore", q});
  EXPECT_EQ(1u, conflict.code);
  EXPECT_NE(std::string::npos, conflict.err.find("1 value holds other data now")) << conflict.err;
  EXPECT_TRUE(Exists(q + L"\\Other qword.reg"));
  RegDeleteKeyValueW(HKEY_CURRENT_USER, keys.Sub(L"Other").c_str(), L"qword");
  RunResult restored = RunBare({L"restore", q});
  ASSERT_EQ(0u, restored.code) << restored.err;
  EXPECT_TRUE(before == keys.Read());
  EXPECT_FALSE(Exists(q));
}

TEST_F(BroomExe, WhiteListsThatWouldNotLoadWholeStopEveryCommandAndStayAsTheyWere) {
  const std::wstring file = AppData() + L"\\Broom\\whitelist.txt";
  const std::wstring kept = WriteFile(Tree(L"junk\\keep\\k.bin"), 5), loose = WriteFile(Tree(L"junk\\x.bin"), 6);
  WriteDefs({{L"T", L"Junk", L"scan=\"yes\" clean=\"yes\"", Clean(Tree(L"junk\\*"))}});
  std::string keep = Narrow(Tree(L"junk\\keep"));
  for (char& ch : keep) ch = static_cast<char>(toupper(static_cast<unsigned char>(ch)));
  struct Case {
    std::string bytes;
    const char* says;
  };
  const std::vector<Case> cases = {
      {"D:\\A\r\nC:\\" + std::string(300, 'L') + "\r\n" + keep + "\r\n", "line 2 'C:\\LLL"},
      {"D:\\A\r\n\x1A" + keep + "\r\n", "line 2 holds a Ctrl+Z"},
      {"D:\\A" + std::string(1, '\0') + "B\r\n" + keep, "line 1 'D:\\A<U+0000>B' holds a NUL"},
      {"D:\\A\r\n\r\n" + keep, "line 2 is empty"},
      {"D:\\A\rD:\\B\r\n" + keep, "line 1 'D:\\A<U+000D>D:\\B' holds a carriage return"},
      {keep + "\r\nD:\\A\\\\\r\n", "line 2 'D:\\A\\\\' ends in two backslashes"},
      {"\xEF\xBB\xBF" + keep, "line 1 starts with a UTF-8 byte-order mark"},
  };
  const std::vector<std::vector<std::wstring>> commands = {
      {L"protect", m_root / L"new"}, {L"clean", L"--yes"}, {L"unprotect", Tree(L"junk\\keep")}, {L"protected"},
      {L"scan"}};
  for (size_t i = 0; i < cases.size(); ++i) {
    WriteFile(file, cases[i].bytes);
    // every case runs protect and clean, and one of the others in turn
    for (size_t c : {size_t{0}, size_t{1}, 2 + i % 3}) {
      RunResult r = Run(commands[c]);
      EXPECT_EQ(2u, r.code) << cases[i].says << ": " << Narrow(commands[c][0]) << "\n" << r.err;
      EXPECT_EQ(1, CountLines(r.err)) << r.err;
      EXPECT_NE(std::string::npos, r.err.find("whitelist.txt' cannot be read whole: " + std::string(cases[i].says)))
          << r.err;
      EXPECT_EQ(cases[i].bytes, ReadFile(file));
    }
    EXPECT_TRUE(Exists(kept) && Exists(loose)) << cases[i].says;
  }
}

TEST_F(BroomExe, AnEntryTheWhiteListCannotHoldIsNamedAndNothingIsWritten) {
  const std::wstring file = AppData() + L"\\Broom\\whitelist.txt";
  // y with diaeresis upper-cases to U+0178, which one byte cannot hold
  const std::string bytes = "C:\\KEEP\r\nC:\\\xFF\r\n";
  WriteFile(file, bytes);
  RunResult p = RunBare({L"protect", m_root / L"plain"});
  EXPECT_EQ(2u, p.code);
  EXPECT_NE(std::string::npos, p.err.find("cannot be saved: line 2 is stored as 'C:\\\xC5\xB8', which holds the "
                                          "character U+0178")) << p.err;
  EXPECT_EQ(bytes, ReadFile(file));
  EXPECT_EQ("C:\\KEEP\nC:\\\xC5\xB8\n", RunBare({L"protected"}).out);  // it loads, and protects, whole

  RunResult u = RunBare({L"unprotect", L"c:\\\u00ff"});
  EXPECT_EQ(0u, u.code) << u.err;
  EXPECT_EQ("C:\\KEEP\r\n", ReadFile(file));

  RunResult cr = RunBare({L"protect", L"C:\\a\rb"});
  EXPECT_EQ(2u, cr.code);
  EXPECT_EQ("broom: the path 'C:\\a<U+000D>b' holds a control character, which no file name can hold; check the "
            "argument\n", cr.err);
  EXPECT_EQ("C:\\KEEP\r\n", ReadFile(file));
}

// ---- usage errors ----

TEST_F(BroomExe, UnusableArgumentsAndDefinitionsExitTwoWithOneLine) {
  WriteDefs({{L"T", L"Junk", L"scan=\"yes\"", Clean(Tree(L"junk\\*"))}});
  broomtest::MakeDirs(m_root / L"empty");
  WriteFile(m_root / L"broken\\bad.xml", "<ConfigItems><group name=\"x\"></ConfigItems>");
  WriteFile(m_root / L"noitems\\none.xml", "<ConfigItems><group name=\"x\"/></ConfigItems>");
  struct Case {
    std::vector<std::wstring> args;
    const char* says;
    const char* note = nullptr;  // a line of its own before the error
  };
  std::vector<Case> cases = {
      {{}, "A subcommand is required"},
      {{L"bogus"}, "unknown command 'bogus'"},
      {{L"scan", L"--bogus"}, "--bogus"},
      {{L"--defs"}, "--defs"},
      {{L"restore"}, "QUARANTINE"},
      {{L"restore", L"no-such-name"}, "there is no quarantine named 'no-such-name'"},
      {{L"clean", L"--quarantine", L"T/Junk"}, "is not a folder path"},
      {{L"--defs", m_root / L"missing", L"scan"}, "does not exist"},
      {{L"--defs", m_root / L"empty", L"list"}, "no definition file"},
      {{L"--defs", m_root / L"broken", L"list"}, "no definition file",
       "bad.xml: does not parse: an end tag does not match its start tag at line 1\n"},
      {{L"--defs", m_root / L"noitems", L"list"}, "hold no item"},
      {{L"--defs", Defs(), L"scan", L"No such item"}, "no item or group is named 'No such item'"},
      {{L"restore", m_root / L"empty"}, "holds no quarantine manifest"},
      {{L"unprotect", m_root / L"never"}, "is not on the protected list"},
  };
  for (const Case& c : cases) {
    std::string shown;
    for (auto& a : c.args) shown += " " + Narrow(a);
    RunResult r = RunBare(c.args);
    EXPECT_EQ(2u, r.code) << shown << "\n" << r.err;
    EXPECT_EQ(c.note ? 2 : 1, CountLines(r.err)) << shown << "\n" << r.err;
    EXPECT_EQ(0u, r.err.rfind(c.note ? "broom: skipped " : "broom: ", 0)) << shown << "\n" << r.err;
    if (c.note) {
      EXPECT_NE(std::string::npos, r.err.find(c.note)) << r.err;
    }
    EXPECT_NE(std::string::npos, r.err.find(c.says)) << shown << "\n" << r.err;
    EXPECT_EQ("", r.out) << shown;
  }
}

TEST_F(BroomExe, FilesThatCannotBeReadAreNotedAndTheRestIsListed) {
  // deeper than any walk of the file or of the tree may recurse
  WriteDefs({{L"T", L"Junk", L"scan=\"yes\"", Clean(Tree(L"junk\\*"))}});
  std::string deep = "<ConfigItems>\n";
  for (int i = 0; i < 30000; ++i) deep += "<group name=\"g\">";
  for (int i = 0; i < 30000; ++i) deep += "</group>";
  WriteFile(m_root / L"defs\\deep.xml", deep + "</ConfigItems>");
  std::string path;
  for (int i = 0; i < 30000; ++i) path += "a/";
  WriteFile(m_root / L"defs\\path.xml", "<ConfigItems><item group=\"" + path + "\" name=\"x\"/></ConfigItems>");
  RunResult r = Run({L"list"});
  EXPECT_EQ(0u, r.code) << r.err;
  EXPECT_EQ("T\n  Junk  [scan, not cleaned, 1 operation, cost: cache]\n\n1 item in 1 group; 1 scanned by default.\n", r.out);
  EXPECT_NE(std::string::npos, r.err.find("deep.xml: nests 30001 levels deep at line 2; at most 100 are read\n")) << r.err;
  EXPECT_NE(std::string::npos, r.err.find("path.xml: nests its groups 30001 levels deep at line 1; at most 100 are read\n"))
      << r.err;
  EXPECT_EQ(2, CountLines(r.err)) << r.err;
}

TEST_F(BroomExe, HelpAndVersionExitZero) {
  RunResult help = RunBare({L"--help"});
  EXPECT_EQ(0u, help.code);
  for (const char* word : {"list", "scan", "clean", "restore", "protect", "unprotect", "protected", "--defs", "--no-log"})
    EXPECT_NE(std::string::npos, help.out.find(word)) << word;
  EXPECT_EQ(std::string::npos, help.out.find("cancel-after")) << "the test option stays hidden";
  RunResult version = RunBare({L"--version"});
  EXPECT_EQ(0u, version.code);
  EXPECT_EQ("broom " BROOM_EXPECTED_VERSION "\n", version.out);
}

// ---- cancellation ----
// Ctrl+C sets the flag IsCancelled answers; a console event cannot reach a
// child that has no console under Wine, so the hidden --cancel-after-files
// raises the same flag once the scan has seen that many files.

TEST_F(BroomExe, CancellationStopsALongScanAndCleansNothing) {
  for (int d = 0; d < 40; ++d)
    for (int f = 0; f < 10; ++f) WriteFile(Tree(L"many\\d" + std::to_wstring(d) + L"\\f" + std::to_wstring(f)), 1);
  WriteDefs({{L"T", L"Many", L"scan=\"yes\" clean=\"yes\"", Clean(Tree(L"many\\*"))}});
  RunResult full = Run({L"scan", L"--json"});
  ASSERT_EQ(0u, full.code);
  EXPECT_EQ(400u, Json(full)["total"]["files"]);

  RunResult r = Run({L"scan", L"--json", L"--cancel-after-files", L"15"});
  EXPECT_EQ(130u, r.code);
  nlohmann::json j = Json(r);
  EXPECT_TRUE(j["cancelled"].get<bool>());
  EXPECT_LE(j["total"]["files"].get<int>(), 20);
  EXPECT_NE(std::string::npos, r.err.find("cancelled")) << r.err;

  RunResult c = Run({L"clean", L"--yes", L"--cancel-after-files", L"15"});
  EXPECT_EQ(130u, c.code);
  EXPECT_NE(std::string::npos, c.err.find("nothing was cleaned")) << c.err;
  for (int d = 0; d < 40; ++d) EXPECT_TRUE(Exists(Tree(L"many\\d" + std::to_wstring(d) + L"\\f0")));
}

// ---- safety nets ----

void SetAgeInDays(const std::wstring& path, int days) {
  broom::unique_hfile file(
      CreateFileW(path.c_str(), FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
  ASSERT_TRUE(file);
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  ULARGE_INTEGER t{{now.dwLowDateTime, now.dwHighDateTime}};
  t.QuadPart -= static_cast<unsigned long long>(days) * 24 * 3600 * 10000000ull;
  FILETIME then{t.LowPart, t.HighPart};
  ASSERT_TRUE(SetFileTime(file.get(), nullptr, &then, &then));
}

TEST_F(BroomExe, TheGuardRefusesProgramsAndRunawayItemsAndMarksTheUsersOwnFolders) {
  wchar_t documents[MAX_PATH];
  ASSERT_EQ(S_OK, SHGetFolderPathW(nullptr, CSIDL_PERSONAL, nullptr, 0, documents));
  const std::wstring docs = std::wstring(documents) + L"\\broom-guard-test";
  auto removeDocs = broom::scope_exit([&] { broomtest::RemoveTree(docs); });
  std::wstring mine = WriteFile(docs + L"\\thumbs.db", 7);
  std::wstring exe = WriteFile(Tree(L"prog\\tool.exe"), 1), dll = WriteFile(Tree(L"prog\\lib.DLL"), 2);
  std::wstring txt = WriteFile(Tree(L"prog\\notes.txt"), 3), named = WriteFile(Tree(L"named\\old.exe"), 4);
  std::vector<std::wstring> many;
  for (int i = 0; i < 4; ++i) many.push_back(WriteFile(Tree(L"many\\" + std::to_wstring(i)), 1));
  WriteDefs({{L"T", L"Programs", L"scan=\"yes\" clean=\"yes\"", Clean(Tree(L"prog\\*"))},
             {L"T", L"Named", L"scan=\"yes\" clean=\"yes\"", Clean(Tree(L"named\\*.exe"))},
             {L"T", L"Mine", L"scan=\"yes\" clean=\"yes\"", Clean(docs + L"\\*")},
             {L"T", L"Many", L"scan=\"yes\" clean=\"yes\"", Clean(Tree(L"many\\*"))}});

  nlohmann::json j = Json(Run({L"scan", L"--files", L"--json"}));
  std::map<std::string, nlohmann::json> hits;
  for (auto& item : j["items"])
    for (auto& hit : item["hits"]) hits[hit["path"]] = hit;
  EXPECT_EQ("Documents", hits[Narrow(mine)]["user_folder"]);
  EXPECT_NE(std::string::npos, hits[Narrow(exe)].value("refused", "").find("program file (.exe)"));
  EXPECT_NE(std::string::npos, hits[Narrow(dll)].value("refused", "").find("program file (.dll)"));
  EXPECT_FALSE(hits[Narrow(txt)].contains("refused"));
  EXPECT_FALSE(hits[Narrow(named)].contains("refused"));  // its rule names .exe

  RunResult r = Run({L"clean", L"--yes", L"--files", L"--runaway-files", L"3"});
  EXPECT_EQ(3u, r.code) << r.out << r.err;  // refusals alone
  EXPECT_NE(std::string::npos, r.out.find("[in your Documents]")) << r.out;
  EXPECT_NE(std::string::npos, r.err.find("refused: " + Narrow(exe) + ": it is a program file")) << r.err;
  EXPECT_NE(std::string::npos, r.err.find("refused: the item 'T/Many': it found 4 files, more than the 3")) << r.err;
  struct {
    const std::wstring& path;
    bool stays;
  } expected[] = {{mine, false}, {exe, true}, {dll, true}, {txt, false}, {named, false},
                  {many[0], true}, {many[3], true}};
  for (const auto& e : expected) EXPECT_EQ(e.stays, Exists(e.path)) << Narrow(e.path);

  RunResult forced = Run({L"clean", L"--yes", L"--runaway-files", L"3", L"--force", L"T/Many"});
  EXPECT_EQ(0u, forced.code) << forced.err;
  for (const std::wstring& f : many) EXPECT_FALSE(Exists(f));
}

TEST_F(BroomExe, OlderThanKeepsNewFilesAndExplainSaysWhy) {
  std::wstring fresh = WriteFile(Tree(L"logs\\fresh.log"), 1), old = WriteFile(Tree(L"logs\\old.log"), 2);
  std::wstring kept = WriteFile(Tree(L"logs\\kept\\k.log"), 3), none = WriteFile(Tree(L"other.txt"), 4);
  SetAgeInDays(old, 40);
  WriteDefs({{L"T", L"Logs", L"scan=\"yes\" clean=\"yes\"", Clean(Tree(L"logs\\*"))},
             {L"T", L"Old logs", L"", L"<clean kind=\"file\" olderThan=\"30\">" + Tree(L"logs\\*.log") + L"</clean>"}});
  ASSERT_EQ(0u, RunBare({L"protect", Tree(L"logs\\kept")}).code);

  struct {
    std::wstring path;
    std::vector<std::wstring> extra;
    unsigned code;
    const char* says;
  } cases[] = {
      {fresh, {}, 0, "is taken by:"},
      {fresh, {}, 0, "only files last changed 30 or more days ago are taken, and this one is newer"},
      {fresh, {L"--older-than", L"10"}, 1, "none takes it now"},
      {old, {L"--older-than", L"10"}, 0, "'T/Old logs' (off by default)"},
      {kept, {}, 1, "is protected by the entry"},
      {none, {}, 1, "No enabled item takes"},
  };
  for (const auto& c : cases) {
    std::vector<std::wstring> args{L"explain", c.path};
    args.insert(args.end(), c.extra.begin(), c.extra.end());
    RunResult r = Run(args);
    EXPECT_EQ(c.code, r.code) << Narrow(c.path) << r.err;
    EXPECT_NE(std::string::npos, r.out.find(c.says)) << r.out;
  }

  RunResult clean = Run({L"clean", L"--yes", L"--older-than", L"10"});
  ASSERT_EQ(0u, clean.code) << clean.err;
  EXPECT_TRUE(Exists(fresh));
  EXPECT_FALSE(Exists(old));
}

// ---- whitelist and logs ----

TEST_F(BroomExe, ProtectedPathsAreKeptInTheUserDataFolder) {
  std::wstring file = AppData() + L"\\Broom\\whitelist.txt";
  std::wstring path = m_root / L"Keep\\Me";
  std::string upper = Narrow(path);
  for (char& ch : upper) ch = static_cast<char>(toupper(static_cast<unsigned char>(ch)));

  RunResult p = RunBare({L"protect", path + L"\\"});
  ASSERT_EQ(0u, p.code) << p.err;
  EXPECT_EQ(upper + "\r\n", ReadFile(file));
  EXPECT_EQ(upper + "\n", RunBare({L"protected"}).out);
  EXPECT_NE(std::string::npos, RunBare({L"protect", path}).out.find("already protected"));
  EXPECT_EQ(upper + "\r\n", ReadFile(file));

  RunResult wide = RunBare({L"protect", m_root / L"\u65e5\u672c"});
  EXPECT_EQ(2u, wide.code);
  EXPECT_NE(std::string::npos, wide.err.find("Latin-1")) << wide.err;
  EXPECT_EQ(upper + "\r\n", ReadFile(file));

  ASSERT_EQ(0u, RunBare({L"unprotect", path}).code);
  EXPECT_EQ("", ReadFile(file));
  EXPECT_EQ("No path is protected.\n", RunBare({L"protected"}).out);

  // registry paths are stored with the short hive name, never as file paths
  ASSERT_EQ(0u, RunBare({L"protect", L"hkey_current_user\\Software\\\\Vendor\\"}).code);
  EXPECT_EQ("HKCU\\SOFTWARE\\VENDOR\r\n", ReadFile(file));
  ASSERT_EQ(0u, RunBare({L"unprotect", L"HKCU\\software\\vendor"}).code);
  EXPECT_EQ("", ReadFile(file));
}

TEST_F(BroomExe, ScanLogsAreWrittenUnlessSwitchedOff) {
  std::wstring hit = WriteFile(Tree(L"junk\\a.bin"), 7);
  WriteDefs({{L"T", L"Junk", L"scan=\"yes\"", Clean(Tree(L"junk\\*"))}});
  ASSERT_EQ(0u, Run({L"--no-log", L"scan"}).code);
  EXPECT_TRUE(Exists(AppData() + L"\\Broom\\Logs"));
  EXPECT_FALSE(Exists(AppData() + L"\\Broom\\Logs\\scan1.log"));
  ASSERT_EQ(0u, Run({L"scan"}).code);
  auto log = [&](int n) {
    std::string bytes = ReadFile(AppData() + L"\\Broom\\Logs\\scan" + std::to_wstring(n) + L".log");
    return std::wstring(reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / sizeof(wchar_t));
  };
  std::wstring first = log(1);
  EXPECT_EQ(0u, first.find(L"Broom scan, ")) << Narrow(first);
  EXPECT_NE(std::wstring::npos, first.find(L"File: " + hit + L"\t\tSize: 7\r\n")) << Narrow(first);
  // every run starts a new scan1.log; the five files keep the last five runs
  for (int run = 2; run <= 5; ++run) ASSERT_EQ(0u, Run({L"scan"}).code);
  EXPECT_EQ(first, log(5));
  EXPECT_EQ(log(1).size(), first.size());
  ASSERT_EQ(0u, Run({L"scan"}).code);
  EXPECT_NE(std::wstring::npos, log(5).find(L"File: ")) << "the second run's log moved up";
  EXPECT_FALSE(Exists(AppData() + L"\\Broom\\Logs\\scan6.log"));
}

}  // namespace

// ---- what items cost ----

class BroomExeCosts : public BroomExe {
 protected:
  void SetUp() override {
    WriteFile(m_root / L"defs\\web.xml", "<ConfigItems><group name=\"Web\" cost=\"history\" scan=\"yes\" clean=\"yes\">"
                                         "<running>web.exe</running></group></ConfigItems>");
    WriteDefs({{L"Web", L"Cache", L"cost=\"cache\"", Clean(Tree(L"cache\\*"))},
               {L"Web", L"Visits", L"", Clean(Tree(L"visits\\*"))},
               {L"Web", L"Cookies", L"cost=\"sign-in\"", Clean(Tree(L"cookies\\*"))},
               {L"Web", L"Passwords", L"cost=\"saved\"", Clean(Tree(L"passwords\\*"))}});
    for (const wchar_t* folder : {L"cache", L"visits", L"cookies", L"passwords"})
      WriteFile(Tree(std::wstring(folder) + L"\\f.dat"), 4);
  }
  // Which of the four items' files are still there, in their order: "cCvp" style, '-' for gone.
  std::string Left() const {
    std::string left;
    for (const wchar_t* folder : {L"cache", L"visits", L"cookies", L"passwords"})
      left += GetFileAttributesW(Tree(std::wstring(folder) + L"\\f.dat").c_str()) != INVALID_FILE_ATTRIBUTES
                  ? static_cast<char>(folder[0])
                  : '-';
    return left;
  }
};

TEST_F(BroomExeCosts, ListAndExplainNameTheCost) {
  RunResult list = Run({L"list"});
  ASSERT_EQ(0u, list.code) << list.err;
  EXPECT_NE(std::string::npos, list.out.find("  Passwords  [scan, clean, 1 operation, cost: saved]\n")) << list.out;
  EXPECT_NE(std::string::npos, list.out.find("  Visits  [scan, clean, 1 operation, cost: history]\n")) << list.out;
  nlohmann::json j = Json(Run({L"list", L"--json"}));
  std::map<std::string, std::string> costs;
  for (auto& item : j["groups"][0]["children"]) {
    costs[item["name"]] = item["cost"];
    EXPECT_EQ(item["running"], nlohmann::json::array({"web.exe"})) << item.dump();  // the group's program holds each item
  }
  EXPECT_EQ(costs, (std::map<std::string, std::string>{
                       {"Cache", "cache"}, {"Visits", "history"}, {"Cookies", "sign-in"}, {"Passwords", "saved"}}));
  RunResult explain = Run({L"explain", Tree(L"passwords\\f.dat")});
  EXPECT_NE(std::string::npos, explain.out.find("  cost: saved (Deletes your saved data")) << explain.out;
}

TEST_F(BroomExeCosts, AGroupTakesItsCacheAndHistoryOnlyAndYesNeverASavedItemThroughIt) {
  struct Case {
    std::vector<std::wstring> args;
    std::string input;
    std::string left;       // what stays afterwards
    std::string tableLine;  // a line the output must hold
  };
  const Case cases[] = {
      {{L"--yes", L"Web"}, "", "--cp", "Web/Passwords  -  -  [left out: saved; name it or add --include saved]"},
      {{L"--yes", L"Web"}, "", "--cp", "[left out: sign-in; name it or add --include sign-in]"},
      {{L"--yes", L"--include", L"sign-in,saved", L"Web"}, "", "---p", "[left out: saved; with --yes, name it one by one]"},
      {{L"--yes", L"--include", L"saved", L"--include", L"sign-in", L"Web"}, "", "---p", "Web/Cookies"},
      {{L"--yes", L"Web/Passwords"}, "", "cvc-", "Web/Passwords"},
      {{L"--yes", L"Web", L"Passwords"}, "", "--c-", "Web/Passwords"},
      // without --yes the saved items are asked for apart, by name: a no keeps them
      {{L"--include", L"saved", L"Web"}, "y\nn\n", "--cp", "These items delete your saved data, which nothing brings back:\n  Web/Passwords\n"},
      {{L"--include", L"saved", L"Web"}, "y\ny\n", "--c-", "Web/Passwords"},
  };
  for (const Case& c : cases) {
    SetUp();
    std::vector<std::wstring> args{L"clean"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    RunResult r = Run(args, c.input);
    EXPECT_EQ(0u, r.code) << r.err;
    EXPECT_EQ(c.left, Left()) << r.out;
    std::string out = r.out;
    // the table pads its columns: compare with runs of blanks made one
    std::string squeezed;
    for (char ch : out)
      if (ch != ' ' || squeezed.empty() || squeezed.back() != ' ') squeezed += ch;
    std::string line;
    for (char ch : c.tableLine)
      if (ch != ' ' || line.empty() || line.back() != ' ') line += ch;
    EXPECT_NE(std::string::npos, squeezed.find(line)) << out;
  }
  RunResult bad = Run({L"clean", L"--include", L"cookies", L"Web"});
  EXPECT_EQ(2u, bad.code) << bad.err;
}
