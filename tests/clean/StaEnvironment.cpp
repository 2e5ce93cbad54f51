// Ends the STA thread once every test of the program has run, so the
// program exits with no thread of the library left behind.
#include <gtest/gtest.h>

#include "threads/MsgThreadSTA.h"

namespace {

class StaShutdown : public testing::Environment {
 public:
  void TearDown() override { CXmlConfigGlobal::Shutdown(); }
};

const testing::Environment* const g_staShutdown = testing::AddGlobalTestEnvironment(new StaShutdown);

}  // namespace
