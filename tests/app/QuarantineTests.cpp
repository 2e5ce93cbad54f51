// The quarantine in-process: its manifest read whole or refused, and files
// moved in and back without a byte lost or a file replaced.
#include <windows.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <functional>
#include <map>

#include "app/HostError.h"
#include "app/Quarantine.h"
#include "clean/CleanableFile.h"
#include "common/TestFiles.h"
#include "core/Handles.h"

using broomtest::Exists;
using broomtest::Narrow;
using broomtest::ReadFile;
using broomtest::WriteFile;

namespace {

std::string Bytes(size_t n, unsigned seed) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 131 + seed * 7 + (i >> 7)) & 0xFF);
  return s;
}

// A hit as a file scan reports it.
host::SHit FileHit(const std::wstring& path) {
  WIN32_FIND_DATAW data = {};
  broom::unique_hfind find(FindFirstFileW(path.c_str(), &data));
  EXPECT_TRUE(find) << Narrow(path);
  CRefPtr<CCleanableFile> item(new IUnknownNoQIImp<CCleanableFile>());
  item->Init(CPathString(path.substr(0, path.rfind(L'\\')).c_str()), data);
  host::SHit hit;
  hit.item = item.Get();
  hit.path = path;
  hit.size = item->GetSize();
  return hit;
}

// Every file below the folder, with its bytes.
std::map<std::wstring, std::string> Contents(const std::wstring& folder) {
  std::map<std::wstring, std::string> out;
  WIN32_FIND_DATAW data = {};
  broom::unique_hfind find(FindFirstFileW((folder + L"\\*").c_str(), &data));
  for (bool more = static_cast<bool>(find); more; more = FindNextFileW(find.get(), &data)) {
    std::wstring name = data.cFileName, path = folder + L"\\" + name;
    if (name == L"." || name == L"..") continue;
    if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
      for (auto& inner : Contents(path)) out.insert(inner);
    else
      out[path] = ReadFile(path);
  }
  return out;
}

class Quarantine : public ::testing::Test {
 protected:
  std::wstring Tree(const std::wstring& rel) const { return m_root / (L"tree\\" + rel); }
  // Moves the files into the quarantine q; every move must succeed.
  void MoveIn(const std::vector<std::wstring>& files) {
    host::CQuarantine quarantine(m_q, true);
    for (const std::wstring& file : files)
      ASSERT_EQ(0u, quarantine.Add(FileHit(file), L"T/Junk", nullptr)) << Narrow(file);
  }
  nlohmann::json Manifest() const { return nlohmann::json::parse(ReadFile(m_q + L"\\broom-quarantine.json")); }

  broomtest::TempDir m_root;
  const std::wstring m_q = m_root / L"q";
};

}  // namespace

TEST_F(Quarantine, FilesMoveInUnderFreeNamesAndComeBackByteForByte) {
  const std::vector<std::pair<std::wstring, std::string>> files = {
      {Tree(L"x\\same.txt"), Bytes(1500, 1)},
      {Tree(L"y\\same.txt"), Bytes(2500, 2)},
      {Tree(L"z\\deeper\\other.dat"), Bytes(0, 3)},
      {Tree(L"w\\\u00e9t\u00e9.bin"), Bytes(70000, 4)},
      {Tree(L"v\\broom-quarantine.json"), "not the manifest"}};
  std::vector<std::wstring> paths;
  for (auto& f : files) paths.push_back(WriteFile(f.first, f.second));
  MoveIn(paths);
  for (auto& f : files) EXPECT_FALSE(Exists(f.first)) << Narrow(f.first);
  const nlohmann::json manifest = Manifest();
  ASSERT_EQ(5u, manifest["entries"].size());
  std::vector<std::string> stored;
  for (auto& e : manifest["entries"]) stored.push_back(e["stored"]);
  std::sort(stored.begin(), stored.end());
  EXPECT_EQ((std::vector<std::string>{"_broom-quarantine.json", "other.dat", "same (1).txt", "same.txt",
                                      Narrow(L"\u00e9t\u00e9.bin")}),
            stored);
  EXPECT_EQ("T/Junk", manifest["entries"][0]["item"]);
  EXPECT_EQ(0, manifest["checksum"].get<std::string>().rfind("sha256:", 0));

  host::CQuarantine again(m_q, false);
  host::CQuarantine::SRestoreResult result = again.RestoreAll();
  EXPECT_EQ(5u, result.files);
  EXPECT_EQ(1500u + 2500 + 70000 + 16, result.bytes);
  EXPECT_TRUE(result.failures.empty());
  for (auto& f : files) EXPECT_EQ(f.second, ReadFile(f.first)) << Narrow(f.first);
  EXPECT_FALSE(Exists(m_q));
}

TEST_F(Quarantine, RestoreNeverReplacesAFileAndKeepsItsEntry) {
  const std::wstring a = WriteFile(Tree(L"a.bin"), Bytes(100, 5)), b = WriteFile(Tree(L"b.bin"), Bytes(200, 6));
  MoveIn({a, b});
  WriteFile(a, "new content");
  {
    host::CQuarantine quarantine(m_q, false);
    host::CQuarantine::SRestoreResult result = quarantine.RestoreAll();
    EXPECT_EQ(1u, result.files);
    ASSERT_EQ(1u, result.failures.size());
    EXPECT_EQ(a, result.failures[0].entry.original);
    EXPECT_EQ(0u, result.failures[0].reason.find(L"a file already exists at the original place"));
  }
  EXPECT_EQ("new content", ReadFile(a));
  EXPECT_EQ(Bytes(200, 6), ReadFile(b));
  EXPECT_EQ(Bytes(100, 5), ReadFile(m_q + L"\\a.bin"));
  ASSERT_EQ(1u, Manifest()["entries"].size());
  EXPECT_EQ(Narrow(a), Manifest()["entries"][0]["original"]);

  DeleteFileW(a.c_str());
  EXPECT_TRUE(host::CQuarantine(m_q, false).RestoreAll().failures.empty());
  EXPECT_EQ(Bytes(100, 5), ReadFile(a));
}

TEST_F(Quarantine, PathsARestoreCouldNotWriteBackStayWhereTheyAre) {
  host::CQuarantine quarantine(m_q, true);
  for (const wchar_t* path : {L"relative\\a.bin", L"\\\\server\\share\\a.bin", L"C:\\x\\NUL.txt", L"C:\\x\\a*.bin"})
    EXPECT_EQ(0u, quarantine.CannotHold(path).find(L"left in place: 'broom restore' could not put it back"))
        << Narrow(path);
  EXPECT_NE(std::wstring::npos, quarantine.CannotHold(m_q + L"\\x.bin").find(L"lies inside the quarantine folder"));
  EXPECT_NE(std::wstring::npos, quarantine.CannotHold(L"HKCU").find(L"is a hive root"));
  EXPECT_EQ(L"", quarantine.CannotHold(Tree(L"a.bin")));
  EXPECT_EQ(L"", quarantine.CannotHold(L"HKCU\\Software\\Vendor|Value"));
}

TEST_F(Quarantine, DamagedManifestsAreRefusedWholeBeforeAnythingMoves) {
  MoveIn({WriteFile(Tree(L"a.bin"), Bytes(100, 7)), WriteFile(Tree(L"b.bin"), Bytes(200, 8))});
  const nlohmann::json good = Manifest();
  const std::string root = Narrow(m_root.Path()), first = good["entries"][0]["original"];
  using Change = std::function<void(nlohmann::json&)>;
  auto set = [](int e, const char* field, const nlohmann::json& value) -> Change {
    return [=](nlohmann::json& j) { j["entries"][e][field] = value; };
  };
  const struct {
    Change change;
    const char* says;
  } cases[] = {
      {[](nlohmann::json& j) { j = nlohmann::json::array(); }, "it is not a JSON object"},
      {[](nlohmann::json& j) { j["format"] = 1; }, "'format' is not"},
      {[](nlohmann::json& j) { j["version"] = 2; }, "'version' is not 1"},
      {[](nlohmann::json& j) { j.erase("entries"); }, "'entries' is missing"},
      {set(1, "original", root + "\\tree\\*.bin"), "entry 2: 'original' holds the wildcard '*'"},
      {set(0, "original", "tree\\a.bin"), "entry 1: 'original' is a relative path"},
      {set(0, "original", "\\\\?\\" + first), "entry 1: 'original' is a network or device path"},
      {set(0, "original", root + "\\tree\\..\\x.bin"), "'..' name"},
      {set(0, "original", root + "\\tree\\NUL.txt"), "names the device 'NUL.txt'"},
      {set(0, "original", Narrow(m_q) + "\\x.bin"), "lies inside the quarantine folder"},
      {set(1, "stored", "broom-quarantine.json"), "entry 2: 'stored' is the manifest's own name"},
      {set(0, "stored", "..\\a.bin"), "entry 1: 'stored' is not a plain file name"},
      {set(0, "size", "12"), "entry 1: 'size' is not a whole number"},
      {set(0, "kind", "folder"), "entry 1: 'kind' is not \"file\", \"registry\" or \"database\""},
      {set(0, "kind", "database"), "entry 1: 'checksum' is missing from a database entry"},
      {[](nlohmann::json& j) { j["entries"][1]["kind"] = "database"; j["entries"][1]["checksum"] = "sha256:12"; },
       "entry 2: 'checksum' is not a \"sha256:\" checksum"},
      {set(0, "checksum", "sha256:" + std::string(64, 'a')), "entry 1: 'checksum' belongs to a database entry only"},
      {[](nlohmann::json& j) {
         j["entries"][0]["kind"] = "database";
         j["entries"][0]["checksum"] = "sha256:" + std::string(64, '0');
         j["entries"][1]["stored"] = j["entries"][0]["stored"].get<std::string>() + "-wal";
       },
       "is the name of entry 1's database copy's wal file"},
      {set(0, "kind", "registry"), "entry 1: 'original' is not a registry path"},
      {set(1, "item", 5), "entry 2: 'item' is not a string"},
      {set(0, "source", "defs.xml"), "entry 1: 'source' is not a JSON object"},
      {[](nlohmann::json& j) { j["entries"][0]["source"]["line"] = -3; }, "entry 1: 'source''s 'line' is not a line"},
      {set(1, "size", -1), "entry 2: 'size' is not a whole number"},
      {[](nlohmann::json& j) { j["entries"][0].erase("stored"); }, "entry 1: 'stored' is missing"},
      {[](nlohmann::json& j) { j["entries"][1]["stored"] = j["entries"][0]["stored"]; }, "the same 'stored' name"},
      {[](nlohmann::json& j) { j["entries"][1]["original"] = j["entries"][0]["original"]; }, "the same 'original'"},
      {[](nlohmann::json& j) { j["entries"].erase(1); }, "in the quarantine folder is not listed in it"},
      {set(0, "original", root + "\\tree\\z.bin"), "its entries do not match its 'checksum'"},
      {nullptr, "not valid JSON text (the first fault is at byte 41)"},
  };
  for (const auto& c : cases) {
    nlohmann::json j = good;
    if (c.change) c.change(j);
    std::string text = c.change ? j.dump(2) : good.dump(2).substr(0, 40);
    WriteFile(m_q + L"\\broom-quarantine.json", text);
    const auto before = Contents(m_root.Path());
    try {
      host::CQuarantine(m_q, false);
      ADD_FAILURE() << "accepted: " << c.says;
    } catch (const host::CHostError& e) {
      EXPECT_EQ(host::exitUsage, e.code);
      EXPECT_NE(std::wstring::npos, e.message.find(std::wstring(c.says, c.says + strlen(c.says)))) << Narrow(e.message);
      EXPECT_NE(std::wstring::npos, e.message.find(L"nothing was moved")) << Narrow(e.message);
    }
    EXPECT_TRUE(before == Contents(m_root.Path())) << c.says;
  }
}

// A database's copy keeps its -wal and -journal under its own name: listed
// by its entry, and deleted with it.
TEST_F(Quarantine, ADatabaseCopyOwnsItsWalAndJournalFiles) {
  for (const wchar_t* name : {L"Cookies", L"Cookies-wal", L"Cookies-journal"}) WriteFile(m_q + L"\\" + name, "x");
  nlohmann::json entry = {{"original", Narrow(Tree(L"Default\\Network\\Cookies"))},
                          {"stored", "Cookies"},
                          {"size", 3},
                          {"kind", "database"},
                          {"checksum", "sha256:" + std::string(64, 'c')}};
  nlohmann::json manifest = {{"format", "broom-quarantine"}, {"version", 1}, {"entries", {entry}}};
  WriteFile(m_q + L"\\broom-quarantine.json", manifest.dump());
  {
    host::CQuarantine quarantine(m_q, false);
    ASSERT_EQ(1u, quarantine.Entries().size());
    EXPECT_TRUE(quarantine.Entries()[0].database);
    // the database it came from is gone: the copy stays, and says why
    host::CQuarantine::SRestoreResult result = quarantine.RestoreAll();
    ASSERT_EQ(1u, result.failures.size());
    EXPECT_EQ(0u, result.failures[0].reason.find(L"the database is no longer there"));
    EXPECT_TRUE(Exists(m_q + L"\\Cookies-wal"));
  }
  WriteFile(m_q + L"\\Cookies-shm", "x");  // no companion of a copy
  try {
    host::CQuarantine(m_q, false);
    ADD_FAILURE() << "a -shm file was taken for a companion";
  } catch (const host::CHostError& e) {
    EXPECT_NE(std::wstring::npos, e.message.find(L"'Cookies-shm' in the quarantine folder is not listed"))
        << Narrow(e.message);
  }
  DeleteFileW((m_q + L"\\Cookies-shm").c_str());
  std::wstring reason;
  EXPECT_TRUE(host::CQuarantine(m_q, false).DeleteAll(reason)) << Narrow(reason);
  EXPECT_FALSE(Exists(m_q));
}

// A quarantine on another file system: /dev/shm is one of its own under Wine.
TEST_F(Quarantine, MovesAcrossDrivesCopyCompareAndLeaveAFileThatCannotGo) {
  const std::wstring q = L"Z:\\dev\\shm\\broom-q-" + std::to_wstring(GetCurrentProcessId());
  if (!Exists(L"Z:\\dev\\shm")) GTEST_SKIP() << "no second file system";
  struct Cleanup {
    std::wstring path;
    ~Cleanup() { broomtest::RemoveTree(path); }
  } cleanup{q};
  const std::wstring free = WriteFile(Tree(L"free.bin"), Bytes(3000000, 9));
  const std::wstring held = WriteFile(Tree(L"held.bin"), Bytes(5000, 10));
  {
    host::CQuarantine quarantine(q, true);
    EXPECT_EQ(0u, quarantine.Add(FileHit(free), L"T/Junk", nullptr));
    // open without delete sharing: it can be copied, but it cannot go
    broom::unique_hfile hold(CreateFileW(held.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(hold);
    const DWORD code = quarantine.Add(FileHit(held), L"T/Junk", nullptr);
    EXPECT_EQ(kQuarantineMoveFailed, code & 0xFFFF0000);
    EXPECT_NE(std::wstring::npos, ExplainResult(code).find(L"it stays where it was and no copy was kept"));
    EXPECT_EQ(1u, quarantine.Entries().size());
  }
  EXPECT_EQ(Bytes(5000, 10), ReadFile(held));
  EXPECT_FALSE(Exists(free));
  EXPECT_EQ(Bytes(3000000, 9), ReadFile(q + L"\\free.bin"));
  EXPECT_EQ(2u, Contents(q).size());  // the file and the manifest, no partial copy
  EXPECT_TRUE(host::CQuarantine(q, false).RestoreAll().failures.empty());
  EXPECT_EQ(Bytes(3000000, 9), ReadFile(free));
}
