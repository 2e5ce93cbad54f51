// broom cookies list, keep and unkeep, and cleaning cookies with the keep
// list of the data folder: what stays in a Chromium cookie database, and
// that a damaged keep list stops every cookie command with nothing changed.
#include <windows.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <string>
#include <vector>

#include "browserdb/BrowserSchemas.h"
#include "common/TestFiles.h"
#include "console/BroomRun.h"
#include "console/TestPolicies.h"

using broomtest::Exists;
using broomtest::Narrow;
using broomtest::ReadFile;
using broomtest::RunBroomExe;
using broomtest::SBroomRun;
using broomtest::TempDir;
using broomtest::WriteFile;

namespace {

class BroomCookies : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::wstring profile = m_root / L"tree\\User Data\\Default";
    broomtest::MakeDirs(profile + L"\\Network");
    {
      broom::unique_sqlite db = browserschema::Open(Database());
      browserschema::Exec(db.get(), browserschema::kChromiumCookies);
      browserschema::Insert(db.get(), browserschema::kChromiumCookieRow,
                            {{".example.com", "sid"}, {"mail.example.com", "a"}, {"mail.example.com", "b"},
                             {".badexample.com", "x"}, {"example.com.evil.net", "y"}, {".other.net", "z"}});
    }
    WriteFile(m_root / L"defs\\cookies.xml",
              Narrow(L"<ConfigItems><group name=\"Browsers\"><group name=\"Test Browser\">"
                     L"<item name=\"Cookies\" scan=\"no\" clean=\"no\"><cleaning><clean kind=\"cookies\" "
                     L"browser=\"chromium\">" + m_root / L"tree\\User Data" +
                     L"</clean></cleaning></item></group></group></ConfigItems>"));
  }

  SBroomRun Run(std::vector<std::wstring> args) {
    args.insert(args.begin(), {L"--defs", m_root / L"defs"});
    return RunBroomExe(args, m_root / L"appdata");
  }
  std::wstring Database() const { return m_root / L"tree\\User Data\\Default\\Network\\Cookies"; }
  std::wstring KeepFile() const { return m_root / L"appdata\\Broom\\cookies-keep.txt"; }
  std::vector<std::string> Hosts() const {
    broom::unique_sqlite db = browserschema::Open(Database());
    return browserschema::Rows(db.get(), "SELECT host_key FROM cookies ORDER BY host_key, name");
  }

  TempDir m_root;
};

}  // namespace

TEST_F(BroomCookies, KeptSitesAndTheirSubdomainsSurviveACleanAndTheListCountsThem) {
  SBroomRun r = Run({L"cookies", L"keep", L"Example.COM"});
  ASSERT_EQ(0u, r.code) << r.err;
  EXPECT_NE(std::string::npos, ReadFile(KeepFile()).find("example.com"));
  EXPECT_EQ(0u, Run({L"cookies", L"keep", L"mail.example.com"}).code);  // kept already, by its parent
  const std::string once = ReadFile(KeepFile());
  EXPECT_EQ(1, std::count(once.begin(), once.end(), '\n')) << once;

  r = Run({L"cookies", L"list", L"--json"});
  ASSERT_EQ(0u, r.code) << r.err;
  nlohmann::json j = nlohmann::json::parse(r.out);
  EXPECT_EQ(1, j["databases"]);
  EXPECT_EQ(2, j["kept"]);
  std::vector<std::string> listed;
  for (const auto& site : j["sites"])
    listed.push_back(site["site"].get<std::string>() + (site["kept"].get<bool>() ? " kept " : " ") +
                     std::to_string(site["cookies"].get<int>()) + " " + site["where"][0]["browser"].get<std::string>() +
                     "/" + site["where"][0]["profile"].get<std::string>());
  EXPECT_EQ((std::vector<std::string>{"badexample.com 1 Test Browser/Default", "example.com kept 1 Test Browser/Default",
                                      "example.com.evil.net 1 Test Browser/Default",
                                      "mail.example.com kept 2 Test Browser/Default", "other.net 1 Test Browser/Default"}),
            listed);

  r = Run({L"clean", L"--yes", L"Browsers/Test Browser/Cookies"});
  ASSERT_EQ(0u, r.code) << r.err;
  EXPECT_EQ((std::vector<std::string>{".example.com", "mail.example.com", "mail.example.com"}), Hosts());

  r = Run({L"cookies", L"unkeep", L"example.com"});
  ASSERT_EQ(0u, r.code) << r.err;
  EXPECT_EQ(std::string::npos, ReadFile(KeepFile()).find("example.com"));
}

TEST_F(BroomCookies, ADamagedKeepListStopsEveryCookieCommandAndChangesNothing) {
  const std::string damaged = "example.com\r\nhttps://bank.example\r\n";
  WriteFile(KeepFile(), damaged);
  const std::string before = ReadFile(Database());
  struct SCase {
    std::vector<std::wstring> args;
  };
  const SCase cases[] = {{{L"cookies", L"list"}},
                         {{L"cookies", L"keep", L"other.net"}},
                         {{L"cookies", L"unkeep", L"example.com"}},
                         {{L"scan", L"Browsers/Test Browser/Cookies"}},
                         {{L"clean", L"--yes", L"Browsers/Test Browser/Cookies"}}};
  for (const SCase& c : cases) {
    SBroomRun r = Run(c.args);
    EXPECT_EQ(2u, r.code) << Narrow(c.args[1]) << r.out;
    EXPECT_NE(std::string::npos, r.err.find("cookies-keep.txt")) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("line 2")) << r.err;
  }
  EXPECT_EQ(damaged, ReadFile(KeepFile()));
  EXPECT_EQ(before, ReadFile(Database()));
  EXPECT_EQ(6u, Hosts().size());
}

TEST_F(BroomCookies, ASiteThatIsNotAHostNameIsRefusedAndNothingIsWritten) {
  for (const wchar_t* bad : {L"https://example.com", L"example.com/path", L"ex ample.com", L"*ample.com"}) {
    SBroomRun r = Run({L"cookies", L"keep", L"good.org", bad});
    EXPECT_EQ(2u, r.code) << Narrow(bad);
    EXPECT_NE(std::string::npos, r.err.find("is not a site")) << r.err;
    EXPECT_FALSE(Exists(KeepFile())) << Narrow(bad);
  }
}

// A database is cleaned inside, so its quarantine is a copy from before the
// clean; it goes back only over the database exactly as the clean left it.
TEST_F(BroomCookies, AQuarantinedCleanKeepsACopyThatRestorePutsBackByteForByte) {
  const std::string before = ReadFile(Database());
  const std::wstring q = m_root / L"q";
  SBroomRun r = Run({L"clean", L"--yes", L"Browsers/Test Browser/Cookies", L"--quarantine", q});
  ASSERT_EQ(0u, r.code) << r.out << r.err;
  EXPECT_TRUE(Hosts().empty());
  const nlohmann::json manifest = nlohmann::json::parse(ReadFile(q + L"\\broom-quarantine.json"));
  ASSERT_EQ(1u, manifest["entries"].size());
  const nlohmann::json& entry = manifest["entries"][0];
  EXPECT_EQ("database", entry["kind"]);
  EXPECT_EQ("Cookies", entry["stored"]);
  EXPECT_EQ(Narrow(Database()), entry["original"]);
  EXPECT_EQ(0u, entry["checksum"].get<std::string>().rfind("sha256:", 0));
  EXPECT_EQ(before, ReadFile(q + L"\\Cookies"));

  r = Run({L"restore", q});
  ASSERT_EQ(0u, r.code) << r.out << r.err;
  EXPECT_EQ(before, ReadFile(Database()));
  EXPECT_EQ(6u, Hosts().size());
  EXPECT_FALSE(Exists(q));
}

TEST_F(BroomCookies, ARestoreKeepsTheCopyOfADatabaseItsBrowserWroteToSinceTheClean) {
  const std::string before = ReadFile(Database());
  const std::wstring q = m_root / L"q";
  ASSERT_EQ(0u, Run({L"clean", L"--yes", L"Browsers/Test Browser/Cookies", L"--quarantine", q}).code);
  {
    broom::unique_sqlite db = browserschema::Open(Database());
    browserschema::Insert(db.get(), browserschema::kChromiumCookieRow, {{".new.org", "fresh"}});
  }
  SBroomRun r = Run({L"restore", q});
  EXPECT_EQ(1u, r.code) << r.out << r.err;
  EXPECT_NE(std::string::npos, r.err.find("changed since the clean")) << r.err;
  EXPECT_EQ((std::vector<std::string>{".new.org"}), Hosts());
  EXPECT_EQ(before, ReadFile(q + L"\\Cookies"));
  EXPECT_EQ(1u, nlohmann::json::parse(ReadFile(q + L"\\broom-quarantine.json"))["entries"].size());

}

// The organisation's KeepCookieSites keep on top of the user's list: a clean
// leaves them, unkeep cannot take them away, and the file never holds them.
TEST_F(BroomCookies, SitesTheOrganisationKeepsSurviveACleanAndCannotBeUnkept) {
  broomtest::TestPolicies policies;
  policies.List(HKEY_LOCAL_MACHINE, L"KeepCookieSites", {L"other.net"});
  WriteFile(KeepFile(), "example.com\n");

  SBroomRun r = Run({L"cookies", L"unkeep", L"other.net"});
  EXPECT_EQ(2u, r.code) << r.out;
  EXPECT_NE(std::string::npos, r.err.find("kept by your organisation")) << r.err;
  r = Run({L"cookies", L"list", L"--json"});
  ASSERT_EQ(0u, r.code) << r.err;
  for (const auto& site : nlohmann::json::parse(r.out)["sites"])
    EXPECT_EQ(site["site"] == "other.net" ? nlohmann::json("KeepCookieSites") : nlohmann::json(), site["policy"])
        << site.dump();

  r = Run({L"clean", L"--yes", L"Browsers/Test Browser/Cookies"});
  ASSERT_EQ(0u, r.code) << r.err;
  EXPECT_EQ((std::vector<std::string>{".example.com", ".other.net", "mail.example.com", "mail.example.com"}), Hosts());
  EXPECT_EQ("example.com\n", ReadFile(KeepFile()));

  // an entry that is not a site stops cookie cleaning: nothing it meant to keep may go
  policies.List(HKEY_LOCAL_MACHINE, L"KeepCookieSites", {L"other.net", L"https://bank.example"});
  r = Run({L"clean", L"--yes", L"Browsers/Test Browser/Cookies"});
  EXPECT_EQ(2u, r.code) << r.out;
  EXPECT_NE(std::string::npos, r.err.find("KeepCookieSites policy")) << r.err;
  EXPECT_NE(std::string::npos, r.err.find("ask your administrator")) << r.err;
  EXPECT_EQ(4u, Hosts().size());
}
