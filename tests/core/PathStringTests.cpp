#include <gtest/gtest.h>

#include <string>

#include "core/PathString.h"

namespace {

std::wstring Str(const CBaseStackString& s) { return std::wstring(s.GetBuffer(), s.GetLength()); }

// Throws T and checks the message; returns false when nothing was thrown.
template <class T, class F>
std::wstring MessageOf(F f) {
  try {
    f();
  } catch (const T& e) {
    return e.m_message;
  }
  return L"<nothing thrown>";
}

TEST(PathString, DefaultIsEmptyAndZeroFilled) {
  CPathString p;
  EXPECT_EQ(p.GetLength(), 0);
  EXPECT_EQ(p.GetCapacity(), 261);
  for (int i = 0; i < 261; ++i) ASSERT_EQ(p.GetBuffer()[i], 0) << i;
}

TEST(PathString, AssignAtCapacityBoundary) {
  CPathString p(L"keep");
  std::wstring s260(260, L'a'), s261(261, L'b');
  p.Assign(s260.c_str(), 260);
  EXPECT_EQ(p.GetLength(), 260);
  EXPECT_EQ(p.GetBuffer()[260], 0);

  CPathString q(L"keep");
  EXPECT_EQ(MessageOf<BufferOverflowException>([&] { q.Assign(s261.c_str(), 261); }), L"Buffer overflow");
  EXPECT_EQ(Str(q), L"keep");
  EXPECT_THROW(CPathString{s261.c_str()}, BufferOverflowException);
  EXPECT_THROW(CPathString{CString(s261.c_str())}, BufferOverflowException);
}

TEST(PathString, AssignCopiesExactlyCountCharacters) {
  CPathString p(L"0123456789");
  p.Assign(L"abcdef", 3);  // the source need not end at count
  EXPECT_EQ(Str(p), L"abc");
  EXPECT_EQ(p.GetBuffer()[3], 0);
}

TEST(PathString, AppendBounds) {
  std::wstring s259(259, L'x');
  CPathString p(s259.c_str());
  CPathString before = p;
  EXPECT_THROW(p.Append(L"yz", 2), BufferOverflowException);
  EXPECT_EQ(Str(p), Str(before));
  p.Append(L"y", 1);
  EXPECT_EQ(p.GetLength(), 260);
  p.Append(L"ignored", 0);  // nothing to add to a full string
  EXPECT_EQ(p.GetLength(), 260);
  EXPECT_THROW(p.AppendChar(L'z'), BufferOverflowException);
  EXPECT_EQ(p.GetLength(), 260);
  EXPECT_EQ(p.GetBuffer()[259], L'y');
  EXPECT_EQ(p.GetBuffer()[260], 0);
}

TEST(PathString, MidAndRightBounds) {
  CPathString p(L"abc"), out(L"old");
  p.Mid(3, 0, out);
  EXPECT_EQ(Str(out), L"");
  out = CPathString(L"old");
  EXPECT_EQ(MessageOf<InvalidSubstringException>([&] { p.Mid(3, 1, out); }),
            L"Requested substring extends beyond the end of the string");
  EXPECT_EQ(Str(out), L"old");
  EXPECT_THROW(p.Mid(65535, 2, out), InvalidSubstringException);  // no wrap-around
  p.Mid(1, 2, out);
  EXPECT_EQ(Str(out), L"bc");

  p.Right(0, out);
  EXPECT_EQ(Str(out), L"");
  p.Right(3, out);
  EXPECT_EQ(Str(out), L"abc");
  EXPECT_THROW(p.Right(4, out), InvalidSubstringException);
}

TEST(PathString, OutTooSmallOverflows) {
  CPathString p(L"C:\\folder\\name.txt");
  wchar_t small[4] = {L'q', 0, 0, 0};
  CWrapperString out(small, 4);
  EXPECT_THROW(p.Mid(0, 4, out), BufferOverflowException);
  EXPECT_THROW(p.GetFileName(out), BufferOverflowException);
  p.Right(3, out);
  EXPECT_EQ(std::wstring(small), L"txt");
}

TEST(PathString, FindWildcard) {
  EXPECT_EQ(CPathString(L"ab*c").FindWildcard(2), 2);
  EXPECT_EQ(CPathString(L"ab?c*").FindWildcard(0), 2);
  EXPECT_EQ(CPathString(L"ab?c*").FindWildcard(3), 4);
  EXPECT_EQ(CPathString(L"abc").FindWildcard(0), -1);
  EXPECT_EQ(MessageOf<PositionOutOfStringException>([] { CPathString(L"ab").FindWildcard(2); }),
            L"Position (2) is outside of string (length=2)");
  EXPECT_EQ(MessageOf<PositionOutOfStringException>([] { CPathString().FindWildcard(0); }),
            L"Position (0) is outside of string (length=0)");
}

TEST(PathString, ReverseFindSeparator) {
  EXPECT_EQ(CPathString().ReverseFindSeparator(-1), -1);
  EXPECT_EQ(CPathString(L"C:\\a\\b").ReverseFindSeparator(-1), 4);
  EXPECT_EQ(CPathString(L"C:\\a\\b").ReverseFindSeparator(3), 2);
  EXPECT_EQ(CPathString(L"C:/a/b").ReverseFindSeparator(-1), -1);  // only the backslash separates
  EXPECT_EQ(MessageOf<PositionOutOfStringException>([] { CPathString(L"abc").ReverseFindSeparator(3); }),
            L"Position (3) is outside of string (length=3)");
}

TEST(PathString, FileNameSplitting) {
  CPathString dirEnd(L"C:\\a\\"), out(L"x");
  EXPECT_EQ(dirEnd.GetFileNameStart(), 5);
  dirEnd.GetFileName(out);
  EXPECT_EQ(Str(out), L"");
  EXPECT_EQ(CPathString().GetFileNameStart(), 0);
  EXPECT_EQ(CPathString(L"b.txt").GetFileNameStart(), 0);

  struct Case {
    const wchar_t* path;
    const wchar_t* parent;
    const wchar_t* name;
  } cases[] = {{L"C:\\a\\b.txt", L"C:\\a", L"b.txt"},
               {L"C:\\", L"C:", L""},
               {L"\\x", L"", L"x"},
               {L"b.txt", L"b.txt", L"b.txt"}};
  for (const auto& c : cases) {
    CPathString p(c.path), name(L"junk");
    p.RemoveFileName(&name);
    EXPECT_EQ(Str(p), c.parent) << c.path;
    EXPECT_EQ(Str(name), c.name) << c.path;
    CPathString q(c.path);
    q.RemoveFileName(nullptr);
    EXPECT_EQ(Str(q), c.parent) << c.path;
  }
}

TEST(PathString, RemoveFileNameIntoWrapperOverCallerBuffer) {
  wchar_t name[260];
  CWrapperString out(name, 260);
  CPathString p(L"C:\\Users\\me\\file.tmp");
  p.RemoveFileName(&out);
  EXPECT_EQ(Str(p), L"C:\\Users\\me");
  EXPECT_EQ(std::wstring(name), L"file.tmp");
}

TEST(PathString, AddBackslashAndAppendPath) {
  CPathString empty;
  empty.AddBackslash();
  EXPECT_EQ(Str(empty), L"");
  CPathString root(L"C:\\");
  root.AddBackslash();
  EXPECT_EQ(Str(root), L"C:\\");
  CPathString drive(L"C:");
  drive.AddBackslash();
  EXPECT_EQ(Str(drive), L"C:\\");

  CPathString join;
  join.AppendPath(L"name", 4);
  EXPECT_EQ(Str(join), L"name");  // no leading separator
  join.AppendPath(L"sub", 3);
  EXPECT_EQ(Str(join), L"name\\sub");
}

TEST(PathString, AppendPathThatDoesNotFitChangesNothing) {
  std::wstring s258(258, L'p');
  CPathString p(s258.c_str());
  EXPECT_THROW(p.AppendPath(L"ab", 2), BufferOverflowException);  // 258 + '\' + 2 > 260
  EXPECT_EQ(p.GetLength(), 258);
  EXPECT_EQ(p.GetBuffer()[258], 0);
  p.AppendPath(L"a", 1);
  EXPECT_EQ(p.GetLength(), 260);
}

TEST(PathString, CopySemantics) {
  CPathString a(L"C:\\long\\path\\here");
  a.Assign(L"C:\\x", 4);  // stale characters remain behind the terminator
  CPathString copied(a);
  EXPECT_EQ(Str(copied), L"C:\\x");
  EXPECT_EQ(copied.GetBuffer()[5], L'n');  // copy construction takes the whole buffer
  CPathString assigned(L"zzzzzzzzzzzzzzzzzzzzzzz");
  assigned = a;  // assignment takes the used characters and the terminator only
  EXPECT_EQ(Str(assigned), L"C:\\x");
  EXPECT_EQ(assigned.GetBuffer()[5], L'z');
}

TEST(PathString, ToCString) {
  CPathString p(L"C:\\a b");
  CString s = p.ToCString();
  EXPECT_EQ(s.GetLength(), 6);
  EXPECT_STREQ(s.GetString(), L"C:\\a b");
}

TEST(WrapperString, ZeroCapacityOverflows) {
  wchar_t buffer[1];
  EXPECT_EQ(MessageOf<BufferOverflowException>([&] { CWrapperString w(buffer, 0); }), L"Buffer overflow");
}

TEST(WrapperString, WorksOverForeignBufferWithoutTouchingIt) {
  WIN32_FIND_DATAW data;
  wmemset(data.cFileName, L'#', MAX_PATH);
  CWrapperString name(data.cFileName, MAX_PATH);
  EXPECT_EQ(name.GetLength(), 0);
  EXPECT_EQ(data.cFileName[0], L'#');
  name.Assign(L"file.txt", 8);
  EXPECT_STREQ(data.cFileName, L"file.txt");
  std::wstring s259(MAX_PATH - 1, L'n');
  name.Assign(s259.c_str(), MAX_PATH - 1);
  EXPECT_THROW(name.AppendChar(L'x'), BufferOverflowException);
}

TEST(Exception, HandlerOfBaseCatchesEveryKind) {
  int caught = 0;
  try { throw BufferOverflowException(); } catch (const Exception&) { ++caught; }
  try { throw PositionOutOfStringException(1, 0); } catch (const Exception&) { ++caught; }
  try { throw InvalidSubstringException(); } catch (const Exception&) { ++caught; }
  EXPECT_EQ(caught, 3);
  Exception custom(L"%s has %d items (%I64u bytes)", L"folder", 3, 1ULL << 40);
  EXPECT_EQ(custom.m_message, L"folder has 3 items (1099511627776 bytes)");
}

}  // namespace
