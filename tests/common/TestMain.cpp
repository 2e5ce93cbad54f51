// Shared main of every test program: runs GoogleTest and fails any test that
// leaves more handles open than it found.
#include <gtest/gtest.h>

#include <cstdlib>

#include "common/HandleCount.h"

namespace broomtest {
bool TakeAllowHandleGrowth();
}

namespace {

class HandleLeakCheck : public testing::EmptyTestEventListener {
 public:
  void OnTestStart(const testing::TestInfo&) override {
    broomtest::TakeAllowHandleGrowth();
    m_before = broomtest::ProcessHandleCount();
  }
  void OnTestEnd(const testing::TestInfo& info) override {
    if (broomtest::TakeAllowHandleGrowth() || info.result()->Skipped()) return;
    unsigned long after = broomtest::ProcessHandleCount();
    // Threads that a test ended may still be closing their last handles.
    for (int i = 0; i < 20 && after > m_before; ++i) {
      Sleep(10);
      after = broomtest::ProcessHandleCount();
    }
    if (after > m_before) {
      ADD_FAILURE() << "handle leak in " << info.test_suite_name() << "." << info.name()
                    << ": " << m_before << " handles before, " << after << " after";
    }
  }

 private:
  unsigned long m_before = 0;
};

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (!std::getenv("BROOM_NO_LEAK_CHECK"))
    testing::UnitTest::GetInstance()->listeners().Append(new HandleLeakCheck);
  return RUN_ALL_TESTS();
}
