// Shared main of every test program: runs GoogleTest and fails any test that
// leaves more handles open than it found.
//
// The system opens some handles once per process on first use (code page
// tables, registry roots, shell modules). A test that grows the handle count
// is therefore run a second time, and only growth on that second run counts
// as a leak.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/HandleCount.h"
#include "threads/MsgThreadSTA.h"

namespace broomtest {
bool TakeAllowHandleGrowth();
long TakeExtraHandles();
}

namespace {

class HandleLeakCheck : public testing::EmptyTestEventListener {
 public:
  void OnTestStart(const testing::TestInfo&) override {
    broomtest::TakeAllowHandleGrowth();
    broomtest::TakeExtraHandles();
    m_before = broomtest::ProcessHandleCount();
  }
  void OnTestEnd(const testing::TestInfo& info) override {
    long extra = broomtest::TakeExtraHandles();
    if (broomtest::TakeAllowHandleGrowth() || info.result()->Skipped() || info.result()->Failed()) return;
    unsigned long after = broomtest::ProcessHandleCount() - static_cast<unsigned long>(extra);
    // Threads that a test ended may still be closing their last handles.
    for (int i = 0; i < 20 && after > m_before; ++i) {
      Sleep(10);
      after = broomtest::ProcessHandleCount() - static_cast<unsigned long>(extra);
    }
    if (after <= m_before) return;
    std::string name = std::string(info.test_suite_name()) + "." + info.name();
    if (!m_strict) {
      m_suspects.push_back(name);
      return;
    }
    ADD_FAILURE() << "handle leak in " << name << ": " << m_before << " handles before, " << after
                  << " after, on its second run";
  }

  bool m_strict = false;
  std::vector<std::string> m_suspects;

 private:
  unsigned long m_before = 0;
};

// Ends the program when one test runs far longer than any test should, naming
// it: a hung test then fails on its own instead of waiting for ctest's limit
// with nothing printed.
class Watchdog : public testing::EmptyTestEventListener {
 public:
  explicit Watchdog(DWORD limitMs) : m_limitMs(limitMs) {
    std::thread([this] { Watch(); }).detach();
  }
  void OnTestStart(const testing::TestInfo& info) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_name = std::string(info.test_suite_name()) + "." + info.name();
    m_started = GetTickCount64();
  }
  void OnTestEnd(const testing::TestInfo&) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_started = 0;
  }

 private:
  void Watch() {
    for (;;) {
      Sleep(1000);
      std::lock_guard<std::mutex> lock(m_mutex);
      if (m_started && GetTickCount64() - m_started > m_limitMs) {
        fprintf(stderr, "%s has run for more than %lu s; ending the program\n", m_name.c_str(),
                static_cast<unsigned long>(m_limitMs / 1000));
        fflush(stderr);
        fflush(stdout);
        TerminateProcess(GetCurrentProcess(), 3);
      }
    }
  }

  DWORD m_limitMs;
  std::mutex m_mutex;
  std::string m_name;
  ULONGLONG m_started = 0;
};

int RunTests() {
  const char* limit = std::getenv("BROOM_TEST_LIMIT_S");
  DWORD seconds = limit ? static_cast<DWORD>(std::strtoul(limit, nullptr, 10)) : 180;
  if (seconds) testing::UnitTest::GetInstance()->listeners().Append(new Watchdog(seconds * 1000));

  if (std::getenv("BROOM_NO_LEAK_CHECK")) return RUN_ALL_TESTS();

  auto* check = new HandleLeakCheck;
  testing::UnitTest::GetInstance()->listeners().Append(check);
  int rc = RUN_ALL_TESTS();
  if (rc != 0 || check->m_suspects.empty()) return rc;

  std::string filter;
  for (const auto& name : check->m_suspects) filter += (filter.empty() ? "" : ":") + name;
  printf("Running again to tell one-time set-up from leaks: %s\n", filter.c_str());
  GTEST_FLAG_SET(filter, filter);
  check->m_strict = true;
  return RUN_ALL_TESTS();
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  int rc = RunTests();
  // no thread of the library outlives the program
  CXmlConfigGlobal::Shutdown();
  return rc;
}
