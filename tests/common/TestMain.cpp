// Shared main of every test program: runs GoogleTest and fails any test that
// leaves more handles open than it found.
//
// The system opens some handles once per process on first use (code page
// tables, registry roots, shell modules). A test that grows the handle count
// is therefore run a second time, and only growth on that second run counts
// as a leak.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
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

int RunTests() {
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
