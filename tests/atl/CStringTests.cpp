#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "atl/CString.h"

namespace {

std::vector<std::wstring> Tokens(const CString& s, const wchar_t* delims, std::vector<int>* starts = nullptr) {
  std::vector<std::wstring> out;
  int pos = 0;
  for (;;) {
    CString token = s.Tokenize(delims, pos);
    if (starts) starts->push_back(pos);
    if (pos == -1) break;
    out.push_back(token.GetString());
  }
  return out;
}

TEST(CString, ConstructionAndLength) {
  EXPECT_EQ(CString().GetLength(), 0);
  EXPECT_TRUE(CString(static_cast<const wchar_t*>(nullptr)).IsEmpty());
  EXPECT_EQ(CString(L"abc", 2), L"ab");
  EXPECT_EQ(CString(L'x', 3), L"xxx");
  EXPECT_EQ(CString("narrow"), L"narrow");
  EXPECT_THROW(CString(L"abc", -1), CAtlException);
}

TEST(CString, Comparison) {
  CString a(L"Temp");
  EXPECT_TRUE(a == L"Temp");
  EXPECT_TRUE(a != L"temp");
  EXPECT_EQ(a.CompareNoCase(L"TEMP"), 0);
  EXPECT_LT(a.CompareNoCase(L"tempz"), 0);
  EXPECT_GT(a.Compare(L"Tem"), 0);
  EXPECT_TRUE(CString(L"a") < CString(L"b"));
}

TEST(CString, FormatUsesTheRuntimesWideForms) {
  CString s;
  s.Format(L"%s: %I64u bytes, %d%%, %c", L"total", 18446744073709551615ULL, -5, L'z');
  EXPECT_EQ(s, L"total: 18446744073709551615 bytes, -5%, z");
  s.AppendFormat(L" [%04X]", 0xBEEF);
  EXPECT_EQ(s, L"total: 18446744073709551615 bytes, -5%, z [BEEF]");
  std::wstring big(5000, L'q');
  s.Format(L"<%s>", big.c_str());
  EXPECT_EQ(s.GetLength(), 5002);
}

TEST(CString, TokenizeSkipsEmptyTokensAndEndsWithMinusOne) {
  std::vector<int> starts;
  EXPECT_EQ(Tokens(L"\\\\a\\\\b\\", L"\\", &starts), (std::vector<std::wstring>{L"a", L"b"}));
  EXPECT_EQ(starts, (std::vector<int>{4, 7, -1}));
  EXPECT_TRUE(Tokens(L"", L"\\").empty());
  EXPECT_TRUE(Tokens(L"\\\\\\", L"\\").empty());
  EXPECT_EQ(Tokens(L"a/b\\c", L"/\\"), (std::vector<std::wstring>{L"a", L"b", L"c"}));
}

TEST(CString, TokenizeWithoutDelimitersReturnsTheRest) {
  CString s(L"abc");
  int pos = 1;
  EXPECT_EQ(s.Tokenize(L"", pos), L"bc");
  EXPECT_EQ(pos, 1);  // not advanced
  pos = 3;
  EXPECT_EQ(s.Tokenize(L"", pos), L"");
  EXPECT_EQ(pos, -1);
  pos = -1;
  EXPECT_THROW(s.Tokenize(L"\\", pos), CAtlException);
}

TEST(CString, FindAndSubstrings) {
  CString s(L"C:\\a\\b.txt");
  EXPECT_EQ(s.Find(L'\\'), 2);
  EXPECT_EQ(s.Find(L'\\', 3), 4);
  EXPECT_EQ(s.Find(L'\\', 100), -1);
  EXPECT_EQ(s.Find(L"b.t"), 5);
  EXPECT_EQ(s.Find(L"", s.GetLength()), s.GetLength());
  EXPECT_EQ(s.Find(L"x", s.GetLength() + 1), -1);
  EXPECT_EQ(s.ReverseFind(L'\\'), 4);
  EXPECT_EQ(s.Mid(5), L"b.txt");
  EXPECT_EQ(s.Mid(5, 100), L"b.txt");
  EXPECT_EQ(s.Mid(100, 2), L"");
  EXPECT_EQ(s.Mid(-3, 2), L"C:");
  EXPECT_EQ(s.Left(2), L"C:");
  EXPECT_EQ(s.Left(-1), L"");
  EXPECT_EQ(s.Left(100), s);
  EXPECT_EQ(s.Right(3), L"txt");
  EXPECT_EQ(s.Right(100), s);
}

TEST(CString, ReplaceCountsAndHandlesGrowth) {
  CString s(L"$$a$$$b");
  EXPECT_EQ(s.Replace(L"$$", L"$"), 2);
  EXPECT_EQ(s, L"$a$$b");
  EXPECT_EQ(s.Replace(L"", L"x"), 0);
  EXPECT_EQ(s.Replace(L'$', L'#'), 3);
  EXPECT_EQ(s, L"#a##b");
  CString t(L"aa");
  EXPECT_EQ(t.Replace(L"a", L"aa"), 2);
  EXPECT_EQ(t, L"aaaa");
}

TEST(CString, CaseMappingAndTrim) {
  CString s(L"Temp Files");
  EXPECT_EQ(s.MakeUpper(), L"TEMP FILES");
  EXPECT_EQ(s.MakeLower(), L"temp files");
  CString t(L"  \t padded \r\n");
  EXPECT_EQ(t.Trim(), L"padded");
  CString u(L"xxabcxx");
  EXPECT_EQ(u.TrimLeft(L'x'), L"abcxx");
  EXPECT_EQ(u.TrimRight(L"x"), L"abc");
}

TEST(CString, BufferAccess) {
  CString s(L"abc");
  wchar_t* p = s.GetBuffer(10);
  wcscpy(p, L"0123456789");
  s.ReleaseBuffer();
  EXPECT_EQ(s, L"0123456789");
  p = s.GetBuffer();
  p[4] = 0;
  s.ReleaseBuffer();
  EXPECT_EQ(s.GetLength(), 4);
  p = s.GetBuffer(MAX_PATH);
  DWORD n = GetWindowsDirectoryW(p, MAX_PATH);
  s.ReleaseBuffer(static_cast<int>(n));
  EXPECT_EQ(s.GetLength(), static_cast<int>(n));
  EXPECT_EQ(s.Find(L'\0'), -1);
  EXPECT_THROW(s.ReleaseBuffer(s.GetLength() + 1), CAtlException);
}

TEST(CString, ConcatenationAndEditing) {
  CString s = CString(L"a") + L"b" + L'c';
  EXPECT_EQ(s, L"abc");
  s.Insert(1, L"XY");
  EXPECT_EQ(s, L"aXYbc");
  s.Delete(1, 10);
  EXPECT_EQ(s, L"a");
  s += s;
  EXPECT_EQ(s, L"aa");
}

}  // namespace
