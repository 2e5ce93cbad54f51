#include <gtest/gtest.h>

#include "common/TestFiles.h"
#include "core/Names.h"

TEST(Names, DefinitionNamesOrderAsTheRuntimeOrdersAscii) {
  const wchar_t* names[] = {L"", L"a", L"A", L"ab", L"aB", L"b", L"_", L"[", L"`", L"{", L"Z", L"z", L"item 10",
                            L"Item 9", L"ITEM", L"item", L"x/y", L"X-Y", L"0", L"~"};
  auto sign = [](int v) { return (v > 0) - (v < 0); };
  for (const wchar_t* a : names)
    for (const wchar_t* b : names) {
      int expected = sign(_wcsicmp(a, b));
      EXPECT_EQ(sign(broom::CompareNoCase(a, b)), expected) << broomtest::Narrow(a) << " / " << broomtest::Narrow(b);
      EXPECT_EQ(sign(broom::CompareNoCase(a, wcslen(a), b, wcslen(b))), expected);
      EXPECT_EQ(broom::EqualNoCase(a, wcslen(a), b, wcslen(b)), expected == 0);
    }
}

TEST(Names, FoldingSplittingAndAtOrBelow) {
  EXPECT_EQ(L"C:\\\u00C9T\u00C9\\A.TXT", broom::Upper(L"c:\\\u00E9t\u00E9\\a.txt"));
  EXPECT_TRUE(broom::SamePath(L"C:\\\u00C9t\u00E9", L"c:\\\u00E9T\u00C9"));
  EXPECT_EQ((std::vector<std::wstring>{L"a", L"b c"}), broom::Split(L"\\\\a\\b c\\", L'\\'));
  EXPECT_EQ(L"x y", std::wstring(broom::Trim(L" \t x y\t", broom::IsSpaceOrTab)));
  EXPECT_EQ(L"C:\\a", broom::ParentOf(L"C:\\a\\b.txt"));
  EXPECT_EQ(L"b.txt", broom::NameOf(L"C:\\a\\b.txt"));
  const struct {
    const wchar_t* path;
    const wchar_t* folder;
    bool atOrBelow, below;
  } cases[] = {
      {L"C:\\Q\\x.bin", L"c:\\q", true, true},  {L"C:\\q", L"C:\\Q", true, false},
      {L"C:\\q\\", L"C:\\q", true, false},      {L"C:\\qq\\x", L"C:\\q", false, false},
      {L"C:\\x", L"C:\\", true, true},          {L"C:\\", L"C:\\", true, false},
      {L"C:\\q", L"C:\\q\\x", false, false},     {L"D:\\q\\x", L"C:\\q", false, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.atOrBelow, broom::IsAtOrBelow(c.path, c.folder)) << broomtest::Narrow(c.path);
    EXPECT_EQ(c.below, broom::IsBelow(c.path, c.folder)) << broomtest::Narrow(c.path);
  }
}
