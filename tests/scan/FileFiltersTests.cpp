#include <gtest/gtest.h>

#include <list>
#include <set>
#include <string>

#include "clean/FileSystemOps.h"
#include "common/TestFiles.h"
#include "scan/BaseFileScan.h"

namespace {

using Filter = CBaseFileScan::IFilter;
using Pattern = IUnknownNoQIImp<CBaseFileScan::_FilterAcceptDOSPattern_Impl>;
using Small = IUnknownNoQIImp<CBaseFileScan::_FilterRejectSmallFiles_Impl>;
using Recent = IUnknownNoQIImp<CBaseFileScan::_FilterRejectRecentFiles_Impl>;
using Not = IUnknownNoQIImp<CBaseFileScan::_FilterNot_Impl>;
using And = IUnknownNoQIImp<CBaseFileScan::_FilterAnd_Impl>;
using Or = IUnknownNoQIImp<CBaseFileScan::_FilterOr_Impl>;

WIN32_FIND_DATAW Entry(const std::wstring& name, unsigned __int64 size = 0) {
  WIN32_FIND_DATAW e = {};
  wcsncpy(e.cFileName, name.c_str(), MAX_PATH - 1);
  e.nFileSizeHigh = static_cast<DWORD>(size >> 32);
  e.nFileSizeLow = static_cast<DWORD>(size);
  return e;
}

const CPathString kFolder(L"C:\\Temp\\");

CRefPtr<Filter> MakePattern(const wchar_t* pattern) {
  auto* f = new Pattern();
  f->SetPattern(pattern);
  return CRefPtr<Filter>(f);
}

CRefPtr<Filter> MakeSmall(unsigned __int64 size) {
  auto* f = new Small();
  f->SetSize(size);
  return CRefPtr<Filter>(f);
}

TEST(PatternFilter, MatchesNamesCaseInsensitively) {
  auto tmp = MakePattern(L"*.tmp");
  EXPECT_TRUE(tmp->RejectFile(kFolder, Entry(L"a.log")));
  EXPECT_FALSE(tmp->RejectFile(kFolder, Entry(L"A.TMP")));
  auto both = MakePattern(L"*.tmp; *.log");
  EXPECT_FALSE(both->RejectFile(kFolder, Entry(L"x.tmp")));
  EXPECT_FALSE(both->RejectFile(kFolder, Entry(L"y.log")));
  EXPECT_TRUE(both->RejectFile(kFolder, Entry(L"z.txt")));
  auto any = MakePattern(L"*.*");
  EXPECT_FALSE(any->RejectFile(kFolder, Entry(L"no_dot")));
  auto one = MakePattern(L"?.dmp");
  EXPECT_FALSE(one->RejectFile(kFolder, Entry(L"1.dmp")));
  EXPECT_TRUE(one->RejectFile(kFolder, Entry(L"12.dmp")));
}

TEST(PatternFilter, EmptyOrNullPatternRejectsEverything) {
  auto* f = new Pattern();
  CRefPtr<Filter> hold(f);
  f->SetPattern(nullptr);
  EXPECT_TRUE(hold->RejectFile(kFolder, Entry(L"a.txt")));
  f->SetPattern(L"");
  EXPECT_TRUE(hold->RejectFile(kFolder, Entry(L"a.txt")));
}

TEST(PatternFilter, LongNamesUseTheHeapBufferAndStillMatch) {
  std::wstring name(200, L'n');
  auto f = MakePattern(L"*.cache");
  EXPECT_FALSE(f->RejectFile(kFolder, Entry(name + L".cache")));
  EXPECT_TRUE(f->RejectFile(kFolder, Entry(name + L".keep")));
  std::wstring edge(127, L'e');  // 128 with the terminator: the last stack-sized name
  EXPECT_TRUE(f->RejectFile(kFolder, Entry(edge)));
}

TEST(SizeFilter, ThresholdBoundaries) {
  auto f = MakeSmall(1024);
  EXPECT_TRUE(f->RejectFile(kFolder, Entry(L"a", 1023)));
  EXPECT_FALSE(f->RejectFile(kFolder, Entry(L"a", 1024)));
  auto big = MakeSmall(0xFFFFFFFFull);
  EXPECT_FALSE(big->RejectFile(kFolder, Entry(L"a", (1ull << 32) + 1)));
  EXPECT_TRUE(big->RejectFile(kFolder, Entry(L"a", 0xFFFFFFFEull)));
  CRefPtr<Filter> unset(new Small());
  EXPECT_FALSE(unset->RejectFile(kFolder, Entry(L"empty", 0)));
}

TEST(AgeFilter, KeepsFilesOlderThanTheAgeByTheTimesOfTheListing) {
  broomtest::TempDir dir;
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  auto daysAgo = [&](double days) {
    ULARGE_INTEGER t;
    t.LowPart = now.dwLowDateTime;
    t.HighPart = now.dwHighDateTime;
    t.QuadPart -= static_cast<unsigned long long>(days * 864000000000.0);
    return FILETIME{t.LowPart, t.HighPart};
  };
  // name, days since written, days since last opened
  const struct { const wchar_t* name; double written, opened; } files[] = {
      {L"old", 40, 40}, {L"fresh", 10, 10}, {L"oldButOpened", 40, 1}, {L"edge", 30.01, 29.99}};
  for (const auto& f : files) {
    std::wstring path = broomtest::WriteFile(dir / f.name, 1);
    HANDLE h = CreateFileW(path.c_str(), FILE_WRITE_ATTRIBUTES, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    FILETIME written = daysAgo(f.written), opened = daysAgo(f.opened);
    ASSERT_TRUE(SetFileTime(h, nullptr, &opened, &written));
    CloseHandle(h);
  }
  std::list<WIN32_FIND_DATAW> folders, found;
  CFileSystemOps::ListDirectory(folders, &found, (dir / L"*").c_str(), false);
  auto kept = [&](bool byAccess) {
    auto* f = new Recent();
    CRefPtr<Filter> hold(f);
    f->SetAge(30, byAccess);
    std::set<std::wstring> names;  // the listing's order is the file system's
    for (const auto& e : found)
      if (!f->RejectFile(kFolder, e)) names.insert(e.cFileName);
    std::wstring joined;
    for (const auto& n : names) joined += (joined.empty() ? L"" : L",") + n;
    return joined;
  };
  EXPECT_EQ(kept(false), L"edge,old,oldButOpened");
  EXPECT_EQ(kept(true), L"old");
  CRefPtr<Filter> unset(new Recent());
  EXPECT_FALSE(unset->RejectFile(kFolder, found.front()));
}

TEST(Combinators, NotInvertsAndEmptyRejectsNothing) {
  auto* n = new Not();
  CRefPtr<Filter> hold(n);
  EXPECT_FALSE(hold->RejectFile(kFolder, Entry(L"a", 5)));  // no inner filter
  n->SetFilter(MakeSmall(1024));
  EXPECT_TRUE(hold->RejectFile(kFolder, Entry(L"a", 1024)));
  EXPECT_FALSE(hold->RejectFile(kFolder, Entry(L"a", 1023)));
  n->SetFilter(nullptr);
  EXPECT_FALSE(hold->RejectFile(kFolder, Entry(L"a", 1024)));

  CRefPtr<Filter> emptyAnd(new And()), emptyOr(new Or());
  EXPECT_FALSE(emptyAnd->RejectFile(kFolder, Entry(L"a")));
  EXPECT_FALSE(emptyOr->RejectFile(kFolder, Entry(L"a")));
}

TEST(Combinators, AndNeedsEveryMemberOrNeedsOne) {
  auto* a = new And();
  CRefPtr<Filter> andHold(a);
  a->AddFilter(MakePattern(L"*.log"));  // rejects non-.log
  a->AddFilter(MakeSmall(10));          // rejects small
  EXPECT_TRUE(andHold->RejectFile(kFolder, Entry(L"a.txt", 1)));
  EXPECT_FALSE(andHold->RejectFile(kFolder, Entry(L"a.txt", 100)));
  EXPECT_FALSE(andHold->RejectFile(kFolder, Entry(L"a.log", 1)));
  a->AddFilter(nullptr);  // a null member rejects nothing, so the whole rejects nothing
  EXPECT_FALSE(andHold->RejectFile(kFolder, Entry(L"a.txt", 1)));

  auto* o = new Or();
  CRefPtr<Filter> orHold(o);
  o->AddFilter(nullptr);
  o->AddFilter(MakePattern(L"*.log"));
  o->AddFilter(MakeSmall(10));
  EXPECT_TRUE(orHold->RejectFile(kFolder, Entry(L"a.txt", 100)));
  EXPECT_TRUE(orHold->RejectFile(kFolder, Entry(L"a.log", 1)));
  EXPECT_FALSE(orHold->RejectFile(kFolder, Entry(L"a.log", 100)));
}

struct CountingVisitor : CBaseFileScan::IFilterVisitor {
  int visits = 0;
  int stopAt = 0;
  int throwAt = 0;
  bool Visit(CBaseFileScan::IFilter*) override {
    ++visits;
    if (visits == throwAt) throw 42;
    return visits != stopAt;
  }
};

TEST(Combinators, ForEachStopsOnFalseAndSurvivesExceptions) {
  auto* o = new Or();
  CRefPtr<Filter> hold(o);
  for (int i = 0; i < 4; ++i) o->AddFilter(MakeSmall(i));
  CountingVisitor stop;
  stop.stopAt = 2;
  o->ForEach(&stop);
  EXPECT_EQ(stop.visits, 2);
  CountingVisitor thrower;
  thrower.throwAt = 1;
  o->ForEach(&thrower);
  EXPECT_EQ(thrower.visits, 4);
}

TEST(Combinators, MembersAreSharedByReference) {
  auto* inner = new Small();
  inner->SetSize(5);
  CRefPtr<Filter> innerHold(inner);
  {
    auto* a = new And();
    CRefPtr<Filter> andHold(a);
    a->AddFilter(inner);
    EXPECT_EQ(inner->AddRef(), 3u);
    inner->Release();
  }
  EXPECT_EQ(inner->AddRef(), 2u);  // the combinator's reference went with it
  inner->Release();
}

}  // namespace
