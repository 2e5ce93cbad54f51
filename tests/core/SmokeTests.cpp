#include <gtest/gtest.h>
#include "core/PathString.h"
TEST(Smoke, Builds) { CPathString p(L"C:\\a"); EXPECT_EQ(p.GetLength(), 4); }
