#include <gtest/gtest.h>

#include <string>

#include "textconv/TextConv.h"

namespace {

TEST(TextConv, NamesMapToCodePages) {
  UINT page = 1;
  EXPECT_TRUE(textconv::CodePageFromName(L"UTF-8", page));
  EXPECT_EQ(page, static_cast<UINT>(CP_UTF8));
  EXPECT_TRUE(textconv::CodePageFromName(L"windows-1252", page));
  EXPECT_EQ(page, 1252u);
  EXPECT_TRUE(textconv::CodePageFromName(L"ISO-8859-1", page));
  EXPECT_EQ(page, 28591u);
  EXPECT_TRUE(textconv::CodePageFromName(L"cp437", page));
  EXPECT_EQ(page, 437u);
  EXPECT_TRUE(textconv::CodePageFromName(L"ansi", page));
  EXPECT_EQ(page, static_cast<UINT>(CP_ACP));
  EXPECT_FALSE(textconv::CodePageFromName(L"klingon", page));
  EXPECT_FALSE(textconv::CodePageFromName(L"windows-", page));
}

TEST(TextConv, RoundTripsThroughUtf8AndLatin1) {
  std::wstring text = L"caf\u00e9 \u00fcber \u4e2d";
  std::string utf8 = textconv::ToMultiByte(text, L"utf-8");
  EXPECT_EQ(utf8, "caf\xc3\xa9 \xc3\xbc" "ber \xe4\xb8\xad");
  EXPECT_EQ(textconv::ToWide(utf8, CP_UTF8), text);
  std::string latin1 = textconv::ToMultiByte(L"caf\u00e9", L"windows-1252");
  EXPECT_EQ(latin1, "caf\xe9");
  EXPECT_EQ(textconv::ToWide(latin1, 1252), L"caf\u00e9");
  EXPECT_EQ(textconv::ToMultiByte(L"", CP_UTF8), "");
}

TEST(TextConv, UnsupportedPagesThrowWithTheirNumber) {
  try {
    textconv::ToMultiByte(L"x", 12345u);
    FAIL() << "no exception";
  } catch (const textconv::exception& e) {
    EXPECT_STREQ(e.what(), "codepage 12345 is not supported");
  }
  EXPECT_THROW(textconv::ToWide("x", L"no-such-page"), textconv::unsupported_codepage);
}

}  // namespace
