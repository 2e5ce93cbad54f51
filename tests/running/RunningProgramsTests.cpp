// Which programs run, and closing them, against real processes: copies of
// the test window program started as chrome.exe, firefox.exe and opera.exe.
// The test program runs in a Wine desktop with the null display driver
// (scripts/wine-null-run.sh), so the windows exist and get their messages.
#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "TestApps.h"
#include "running/ImageNames.h"
#include "running/ProgramCloser.h"
#include "running/RunningPrograms.h"

namespace {

using broomtest::AppMode;
using broomtest::TestApp;

std::wstring OwnImage() {
  wchar_t path[MAX_PATH];
  DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
  std::wstring full(path, n);
  return full.substr(full.find_last_of(L'\\') + 1);
}

class RunningProgramsTest : public testing::Test {
 protected:
  std::unique_ptr<TestApp> Start(const wchar_t* image, AppMode mode = AppMode::polite) {
    return std::make_unique<TestApp>(m_dir, image, mode);
  }

  broomtest::TempDir m_dir;
};

TEST_F(RunningProgramsTest, CountsTheProcessesOfEachNameAskedWhateverItsCase) {
  auto chrome1 = Start(L"chrome.exe");
  auto chrome2 = Start(L"chrome.exe", AppMode::hidden);
  auto firefox = Start(L"firefox.exe");

  CRunningPrograms running;
  ASSERT_EQ(DWORD(ERROR_SUCCESS),
            running.Take({L"opera.exe", L"CHROME.EXE", L"Firefox.exe", L"chrome.exe", L"", OwnImage()}));
  ASSERT_EQ(3u, running.Running().size());
  EXPECT_EQ(L"CHROME.EXE", running.Running()[0].image);  // in the order asked, as first spelled
  std::vector<DWORD> ids = running.Running()[0].processIds;
  std::sort(ids.begin(), ids.end());
  std::vector<DWORD> started = {chrome1->Id(), chrome2->Id()};
  std::sort(started.begin(), started.end());
  EXPECT_EQ(started, ids);
  EXPECT_EQ(L"Firefox.exe", running.Running()[1].image);
  EXPECT_EQ(std::vector<DWORD>{firefox->Id()}, running.Running()[1].processIds);
  // this user's own process counts
  EXPECT_EQ(std::vector<DWORD>{GetCurrentProcessId()}, running.Running()[2].processIds);

  struct Case {
    const wchar_t* image;
    unsigned count;
  };
  const Case cases[] = {
      {L"chrome.exe", 2}, {L"cHrOmE.eXe", 2}, {L"firefox.exe", 1},    {L"opera.exe", 0},
      {L"chrome", 0},     {L"hrome.exe", 0},  {L"chrome.exe.exe", 0}, {L"", 0},
  };
  for (const Case& c : cases) EXPECT_EQ(c.count, running.Count(c.image)) << broomtest::Narrow(c.image);
  EXPECT_EQ(nullptr, running.Find(L"opera.exe"));
}

TEST_F(RunningProgramsTest, AProcessOfAnotherNameHoldsNothing) {
  auto other = Start(L"chromium.exe");
  CRunningPrograms running;
  ASSERT_EQ(DWORD(ERROR_SUCCESS), running.Take({L"chrome.exe", L"firefox.exe"}));
  EXPECT_TRUE(running.Running().empty());
  ASSERT_EQ(DWORD(ERROR_SUCCESS), running.Take({}));
  EXPECT_TRUE(running.Running().empty());
}

// Records what the closer waits for, and cancels once only the program that
// ignores the request is left: nothing here depends on how long anything takes.
struct Progress : CProgramCloser::IProgress {
  explicit Progress(CProgramCloser& closer) : closer(closer) {}
  void Waiting(const std::vector<std::wstring>& images) override {
    seen.push_back(images);
    if (images.size() == 1 && CImageNames::Same(images[0], L"firefox.exe")) closer.Cancel();
  }
  CProgramCloser& closer;
  std::vector<std::vector<std::wstring>> seen;
};

TEST_F(RunningProgramsTest, ClosesThePoliteProgramAndReportsTheOthersWhichStillRun) {
  auto chrome = Start(L"chrome.exe");
  auto chrome2 = Start(L"chrome.exe");
  auto firefox = Start(L"firefox.exe", AppMode::ignoreClose);
  auto opera = Start(L"opera.exe", AppMode::hidden);

  CProgramCloser closer;
  Progress progress(closer);
  std::vector<CProgramCloser::SResult> results;
  EXPECT_EQ(DWORD(ERROR_CANCELLED),
            closer.Close({L"chrome.exe", L"FIREFOX.EXE", L"opera.exe", L"vivaldi.exe", L"firefox.exe"}, results, 120000,
                         &progress));

  struct Expected {
    const wchar_t* image;
    CProgramCloser::EOutcome outcome;
    unsigned before, after;
  };
  const Expected expected[] = {
      {L"chrome.exe", CProgramCloser::closed, 2, 0},
      {L"FIREFOX.EXE", CProgramCloser::stillRunning, 1, 1},
      {L"opera.exe", CProgramCloser::noWindow, 1, 1},
      {L"vivaldi.exe", CProgramCloser::notRunning, 0, 0},
  };
  ASSERT_EQ(sizeof expected / sizeof expected[0], results.size());
  for (size_t i = 0; i < results.size(); ++i) {
    SCOPED_TRACE(broomtest::Narrow(expected[i].image));
    EXPECT_EQ(expected[i].image, results[i].image);
    EXPECT_EQ(expected[i].outcome, results[i].outcome);
    EXPECT_EQ(expected[i].before, results[i].before);
    EXPECT_EQ(expected[i].after, results[i].after);
  }
  const std::vector<std::vector<std::wstring>> waited = {{L"chrome.exe", L"FIREFOX.EXE"}, {L"FIREFOX.EXE"}};
  EXPECT_EQ(waited, progress.seen);

  // both chrome.exe ended by themselves (exit code 0: not terminated); the others really still run
  EXPECT_EQ(0u, chrome->ExitCode());
  EXPECT_EQ(0u, chrome2->ExitCode());
  EXPECT_TRUE(firefox->Running());
  EXPECT_TRUE(opera->Running());
  EXPECT_TRUE(closer.Cancelled());
}

TEST_F(RunningProgramsTest, StopsWaitingWhenTheTimeIsUpAndNeverEndsAProcess) {
  auto firefox = Start(L"firefox.exe", AppMode::ignoreClose);
  auto second = Start(L"firefox.exe", AppMode::ignoreClose);

  CProgramCloser closer;
  std::vector<CProgramCloser::SResult> results;
  ASSERT_EQ(DWORD(ERROR_SUCCESS), closer.Close({L"firefox.exe"}, results, 300));
  ASSERT_EQ(1u, results.size());
  EXPECT_EQ(CProgramCloser::stillRunning, results[0].outcome);
  EXPECT_EQ(2u, results[0].after);
  EXPECT_TRUE(firefox->Running());
  EXPECT_TRUE(second->Running());
  EXPECT_FALSE(closer.Cancelled());
}

}  // namespace
