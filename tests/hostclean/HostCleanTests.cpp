// broom.exe's clean as a user runs it, against programs that run while it
// cleans (copies of the test window program started as chrome.exe and
// firefox.exe, whose winapp2 entries name them) and against a Recycle Bin
// laid out in the prefix's C:\$Recycle.Bin\<SID> as the shell writes it.
// broom.exe's output goes to files: this runs in a Wine desktop of its own.
#include <windows.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <string>
#include <vector>

#include "common/TestFiles.h"
#include "common/TestProcess.h"
#include "core/Handles.h"
#include "recyclebin/RecycleBinScan.h"
#include "running/TestApps.h"

using broomtest::AppMode;
using broomtest::Exists;
using broomtest::Narrow;
using broomtest::ReadFile;
using broomtest::TempDir;
using broomtest::TestApp;
using broomtest::WriteFile;

namespace {

struct RunResult {
  DWORD code = 0xFFFFFFFF;
  std::string out, err;
};

class HostClean : public testing::Test {
 protected:
  void SetUp() override {
    const wchar_t* xdg = _wgetenv(L"XDG_DATA_HOME");
    ASSERT_TRUE(xdg && *xdg) << "run through ctest: XDG_DATA_HOME must name a folder of the test's own";
    m_trash = L"Z:" + std::wstring(xdg) + L"/Trash";
    std::replace(m_trash.begin(), m_trash.end(), L'/', L'\\');
    WriteFile(m_root / L"defs\\test.xml",
              Narrow(L"<ConfigItems><group name=\"T\" scan=\"yes\" clean=\"yes\">"
                     L"<item name=\"Bin\"><cleaning><clean kind=\"recyclebin\"/></cleaning></item>"
                     L"<item name=\"Plain\"><cleaning><clean kind=\"file\">" +
                     Tree(L"plain") + L"\\*</clean></cleaning></item></group></ConfigItems>"));
    // Sections of the one table that names winapp2 entries' programs.
    m_ini = WriteFile(m_root / L"winapp2.ini",
                      Narrow(L"[Google Chrome Cache *]\r\nSection=Google Chrome\r\nFileKey1=" + Tree(L"chrome") +
                             L"|*.*\r\n[Mozilla Firefox Cache *]\r\nSection=Mozilla Firefox\r\nFileKey1=" +
                             Tree(L"firefox") + L"|*.*\r\n"));
    for (const wchar_t* name : {L"chrome\\a.tmp", L"chrome\\b.tmp", L"firefox\\c.tmp", L"plain\\d.tmp"})
      WriteFile(Tree(name), std::string(100, 'x'));
  }
  void TearDown() override { EXPECT_FALSE(Exists(m_trash)) << "something reached the shell's Recycle Bin"; }

  std::wstring Tree(const std::wstring& rel) const { return m_root / (L"tree\\" + rel); }

  // broom.exe with a LOCALAPPDATA of the test's own; stdin is empty.
  RunResult Run(std::vector<std::wstring> args, bool bundled = false) {
    if (!bundled) args.insert(args.begin(), {L"--defs", m_root / L"defs", L"--winapp2", m_ini});
    std::wstring exe = broomtest::ExeFolder() + L"\\broom.exe";
    std::wstring command = L"\"" + exe + L"\"";
    for (const std::wstring& a : args) command += L" \"" + a + L"\"";
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
    // Files of each run's own: Wine may hold the last run's a moment after it ended.
    const std::wstring run = std::to_wstring(++m_runs);
    const std::wstring outPath = m_root / (L"out" + run + L".txt"), errPath = m_root / (L"err" + run + L".txt");
    RunResult result;
    {
      broom::unique_hfile out(CreateFileW(outPath.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit, CREATE_ALWAYS, 0, nullptr));
      broom::unique_hfile err(CreateFileW(errPath.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit, CREATE_ALWAYS, 0, nullptr));
      broom::unique_hfile in(CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit, OPEN_EXISTING, 0, nullptr));
      if (!out || !err || !in) {
        ADD_FAILURE() << "cannot make the output files of broom.exe: error " << GetLastError();
        return result;
      }
      STARTUPINFOW si = {};
      si.cb = sizeof si;
      si.dwFlags = STARTF_USESTDHANDLES;
      si.hStdInput = in.get();
      si.hStdOutput = out.get();
      si.hStdError = err.get();
      std::vector<wchar_t> env = broomtest::EnvironmentWith(L"LOCALAPPDATA", m_root / L"appdata");
      PROCESS_INFORMATION pi = {};
      if (!broomtest::StartProcess(exe.c_str(), &command[0], TRUE, CREATE_UNICODE_ENVIRONMENT | CREATE_NO_WINDOW,
                          env.data(), nullptr, &si, &pi)) {
        ADD_FAILURE() << "cannot start broom.exe: error " << GetLastError();
        return result;
      }
      broom::unique_handle process(pi.hProcess), thread(pi.hThread);
      if (WaitForSingleObject(process.get(), 120000) != WAIT_OBJECT_0) {
        TerminateProcess(process.get(), 99);
        ADD_FAILURE() << "broom.exe did not end within two minutes";
      }
      GetExitCodeProcess(process.get(), &result.code);
    }
    result.out = ReadFile(outPath);
    result.err = ReadFile(errPath);
    return result;
  }

  TempDir m_root;
  TempDir m_apps;  // the copies of the test program run from here
  std::wstring m_ini, m_trash;
  int m_runs = 0;
};

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

TEST_F(HostClean, ARunningProgramKeepsItsItemsWholeAndScanNamesIt) {
  TestApp chrome(m_apps, L"chrome.exe", AppMode::polite);
  TestApp other(m_apps, L"other.exe", AppMode::polite);  // holds nothing

  RunResult scan = Run({L"scan", L"--json", L"Google Chrome Cache", L"Plain"});
  ASSERT_EQ(0u, scan.code) << scan.err;
  nlohmann::json items = nlohmann::json::parse(scan.out)["items"];
  ASSERT_EQ(2u, items.size()) << scan.out;
  EXPECT_EQ(nlohmann::json::array({"chrome.exe"}), items[0]["running"]);
  EXPECT_EQ(nlohmann::json::array(), items[1]["running"]);
  EXPECT_FALSE(items[0].contains("skipped")) << "a scan previews everything";
  EXPECT_TRUE(Has(scan.err, "broom: Google Chrome is running (chrome.exe, 1 process): its item is skipped by clean"))
      << scan.err;

  RunResult explain = Run({L"explain", Tree(L"chrome\\a.tmp")});
  EXPECT_TRUE(Has(explain.out, "chrome.exe is running now")) << explain.out << explain.err;

  RunResult clean = Run({L"clean", L"-y", L"Google Chrome Cache", L"Plain"});
  EXPECT_EQ(1u, clean.code) << clean.err;
  EXPECT_TRUE(Has(clean.err, "broom: skipped 'winapp2/Google Chrome/Google Chrome Cache': chrome.exe is running; "
                             "close it, or run again with --close-apps"))
      << clean.err;
  EXPECT_TRUE(Exists(Tree(L"chrome\\a.tmp")) && Exists(Tree(L"chrome\\b.tmp")));
  EXPECT_FALSE(Exists(Tree(L"plain\\d.tmp"))) << "the items of no running program are cleaned";
  EXPECT_TRUE(chrome.Running() && other.Running()) << "a clean without --close-apps never closes a program";
}

TEST_F(HostClean, CloseAppsCleansWhatClosedAndLeavesWhatIgnoredTheRequest) {
  TestApp chrome(m_apps, L"chrome.exe", AppMode::polite);
  TestApp firefox(m_apps, L"firefox.exe", AppMode::ignoreClose);

  RunResult clean =
      Run({L"clean", L"-y", L"--close-apps", L"--close-timeout", L"3", L"Google Chrome Cache", L"Mozilla Firefox Cache"});
  EXPECT_EQ(1u, clean.code) << clean.err;
  EXPECT_TRUE(chrome.WaitEnded(5000));
  EXPECT_EQ(0u, chrome.ExitCode()) << "it ended on WM_CLOSE, never terminated";
  EXPECT_FALSE(Exists(Tree(L"chrome\\a.tmp")) || Exists(Tree(L"chrome\\b.tmp"))) << clean.err;
  EXPECT_TRUE(firefox.Running());
  EXPECT_TRUE(Exists(Tree(L"firefox\\c.tmp")));
  EXPECT_TRUE(Has(clean.err, "broom: chrome.exe closed")) << clean.err;
  EXPECT_TRUE(Has(clean.err, "broom: firefox.exe did not close within 3 seconds")) << clean.err;
  EXPECT_TRUE(Has(clean.err, "broom: skipped 'winapp2/Mozilla Firefox/Mozilla Firefox Cache': firefox.exe is still "
                             "running; close it yourself and run again"))
      << clean.err;
}

// ---- the Recycle Bin ----

constexpr unsigned long long kDay = 864000000000ull;

// A $I record, version 2: size, deletion time, the path's length with its NUL, the path.
std::string Record(unsigned long long size, double daysAgo, const std::wstring& path) {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  unsigned long long deleted = ((static_cast<unsigned long long>(now.dwHighDateTime) << 32) | now.dwLowDateTime) -
                               static_cast<unsigned long long>(daysAgo * kDay);
  std::string bytes;
  auto put = [&](unsigned long long value, int count) {
    for (int i = 0; i < count; ++i) bytes += static_cast<char>((value >> (8 * i)) & 0xFF);
  };
  put(2, 8);
  put(size, 8);
  put(deleted, 8);
  put(path.size() + 1, 4);
  for (wchar_t c : path + L'\0') put(static_cast<unsigned long long>(c), 2);
  return bytes;
}

class HostCleanBin : public HostClean {
 protected:
  void SetUp() override {
    HostClean::SetUp();
    std::wstring sid = CRecycleBinScan::CurrentUserSid();
    ASSERT_FALSE(sid.empty());
    broomtest::RemoveTree(m_root_bin);  // the test prefix's, left by a run that was killed
    m_bin = m_root_bin + L"\\" + sid;
    Entry(L"OLD.txt", 40, false);
    Entry(L"NEW.txt", 5, false);
    Entry(L"OLDDIR", 45, true);
  }
  void TearDown() override {
    broomtest::RemoveTree(m_root_bin);
    HostClean::TearDown();
  }
  void Entry(const std::wstring& suffix, double daysAgo, bool folder) {
    WriteFile(m_bin + L"\\$I" + suffix, Record(300, daysAgo, L"C:\\work\\" + suffix));
    WriteFile(m_bin + L"\\$R" + suffix + (folder ? L"\\inside\\x.bin" : L""), std::string(300, 'r'));
  }
  bool Whole(const std::wstring& suffix) const {
    return Exists(m_bin + L"\\$I" + suffix) && Exists(m_bin + L"\\$R" + suffix);
  }
  bool Gone(const std::wstring& suffix) const {
    return !Exists(m_bin + L"\\$I" + suffix) && !Exists(m_bin + L"\\$R" + suffix);
  }

  const std::wstring m_root_bin = L"C:\\$Recycle.Bin";
  std::wstring m_bin;
};

TEST_F(HostCleanBin, OlderThanTakesWhatWasDeletedLongAgoAndAQuarantineNothing) {
  RunResult quarantined = Run({L"clean", L"-y", L"T/Bin", L"Plain", L"--quarantine"});
  EXPECT_EQ(1u, quarantined.code) << quarantined.err;
  EXPECT_TRUE(Has(quarantined.err, "broom: skipped 'T/Bin': the Recycle Bin is its own undo and is never moved into "
                                   "a quarantine"))
      << quarantined.err;
  EXPECT_TRUE(Whole(L"OLD.txt") && Whole(L"NEW.txt") && Whole(L"OLDDIR"));
  EXPECT_FALSE(Exists(Tree(L"plain\\d.tmp"))) << "the other items still move";

  RunResult aged = Run({L"clean", L"-y", L"--older-than", L"30", L"T/Bin"});
  EXPECT_EQ(0u, aged.code) << aged.err;
  EXPECT_TRUE(Gone(L"OLD.txt") && Gone(L"OLDDIR")) << aged.out << aged.err;
  EXPECT_TRUE(Whole(L"NEW.txt")) << "deleted 5 days ago: younger than --older-than";

  // The bundled item finds the bin, and is off for cleaning by default.
  RunResult bundled = Run({L"scan", L"--json", L"System/Recycle Bin"}, true);
  ASSERT_EQ(0u, bundled.code) << bundled.err;
  EXPECT_EQ(1u, nlohmann::json::parse(bundled.out)["items"][0]["files"].get<unsigned>()) << bundled.out;
  RunResult list = Run({L"list", L"--json"}, true);
  nlohmann::json found;
  std::vector<nlohmann::json> pending{nlohmann::json::parse(list.out)["groups"]};
  while (!pending.empty()) {
    nlohmann::json groups = pending.back();
    pending.pop_back();
    for (const auto& g : groups) {
      if (g.value("path", "") == "System/Recycle Bin") found = g;
      if (g.contains("children")) pending.push_back(g["children"]);
    }
  }
  ASSERT_TRUE(found.is_object()) << list.out;
  EXPECT_EQ(true, found["scan"]);
  EXPECT_EQ(false, found["clean"]);
}

}  // namespace
