#include <gtest/gtest.h>

#include <string>

#include "browserdb/CookieKeepList.h"
#include "common/TestFiles.h"

using broomtest::TempDir;

TEST(CookieKeepList, KeepsASiteAndItsSubdomainsNeverLookAlikes) {
  CCookieKeepList keep;
  ASSERT_TRUE(keep.Parse("# signed in here\nexample.com\n\n  *.Work.Example.ORG  # the office\n.dots.net\n"));
  struct { const wchar_t* host; bool kept; } cases[] = {
      {L"example.com", true},        {L".example.com", true},        {L"mail.example.com", true},
      {L"EXAMPLE.COM", true},        {L"a.b.example.com", true},     {L"badexample.com", false},
      {L"example.com.evil.net", false}, {L"example.co", false},      {L"com", false},
      {L"work.example.org", true},   {L"x.work.example.org", true},  {L"example.org", false},
      {L"dots.net", true},           {L"..dots.net", true},          {L"", false},
  };
  for (const auto& c : cases) EXPECT_EQ(c.kept, keep.Keeps(c.host)) << broomtest::Narrow(c.host);
  EXPECT_EQ(L"example.com", keep.KeptBy(L"mail.example.com"));
  EXPECT_EQ((std::vector<std::wstring>{L"example.com", L"work.example.org", L"dots.net"}), keep.GetSites());
}

TEST(CookieKeepList, AnInvalidLineMakesTheListUnusableNamingTheLine) {
  struct { std::string text; int line; const wchar_t* reason; } cases[] = {
      {"ok.com\nhttps://example.com\n", 2, L"holds a scheme ('https://')"},
      {"example.com/login", 1, L"holds a path ('/login')"},
      {"exa mple.com", 1, L"holds a space"},
      {"a.com\n\nexample.com:8080", 3, L"holds a ':'"},
      {"*example.com", 1, L"holds a wildcard"},
      {"mail.*.example.com", 1, L"holds a wildcard"},
      {"ex?mple.com", 1, L"holds a wildcard"},
      {"example..com", 1, L"has an empty part"},
      {"example.com.", 1, L"has an empty part"},
      {"-example.com", 1, L"starts or ends with '-'"},
      {"exa$mple.com", 1, L"holds the character '$'"},
      {"a.com\r\nb.com\xff\r\n", 2, L"is not UTF-8 text"},
      {std::string("a.com\nb\0c.com", 13), 2, L"holds a NUL"},
  };
  for (const auto& c : cases) {
    CCookieKeepList keep;
    EXPECT_FALSE(keep.Parse(c.text)) << c.text;
    EXPECT_FALSE(keep.IsUsable());
    EXPECT_EQ(c.line, keep.GetProblem().line) << c.text;
    EXPECT_NE(std::wstring::npos, keep.GetProblem().reason.find(c.reason)) << broomtest::Narrow(keep.GetProblem().reason);
    // an unusable list keeps everything and refuses edits
    EXPECT_TRUE(keep.Keeps(L"anything.net"));
    EXPECT_EQ(CCookieKeepList::editUnusable, keep.Keep(L"b.com"));
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_STATE), keep.Save(L"C:\\never-written.txt"));
  }
}

TEST(CookieKeepList, InternationalNamesAreKeptInTheirAsciiForm) {
  CCookieKeepList keep;
  ASSERT_TRUE(keep.Parse("\xEF\xBB\xBF" "b\xC3\xBC" "cher.de\n"));  // a BOM, then bücher.de
  EXPECT_EQ((std::vector<std::wstring>{L"xn--bcher-kva.de"}), keep.GetSites());
  EXPECT_TRUE(keep.Keeps(L".www.xn--bcher-kva.de"));
}

TEST(CookieKeepList, LoadFailsClosedButAnAbsentFileKeepsNothing) {
  TempDir dir;
  CCookieKeepList absent;
  EXPECT_TRUE(absent.Load((dir / L"none\\cookies-keep.txt").c_str()));
  EXPECT_TRUE(absent.IsUsable() && absent.WasAbsent());
  EXPECT_FALSE(absent.Keeps(L"example.com"));

  broomtest::MakeDirs(dir / L"folder");
  CCookieKeepList unreadable;
  EXPECT_FALSE(unreadable.Load((dir / L"folder").c_str()));  // a folder cannot be read as a file
  EXPECT_EQ(0, unreadable.GetProblem().line);
  EXPECT_NE(0u, unreadable.GetProblem().error);
  EXPECT_TRUE(unreadable.Keeps(L"example.com"));

  std::wstring file = broomtest::WriteFile(dir / L"keep.txt", "ok.com\nhttp://bad.com\n");
  CCookieKeepList bad;
  EXPECT_FALSE(bad.Load(file.c_str()));
  EXPECT_EQ(L"line 2 ('http://bad.com') holds a scheme ('http://'); write the host name alone, as in example.com",
            bad.DescribeProblem());
}

TEST(CookieKeepList, EditsKeepCommentsAndReplaceTheFileWhole) {
  TempDir dir;
  std::wstring file = broomtest::WriteFile(dir / L"cookies-keep.txt", "# mine\nexample.com # bank\n*.other.org\n");
  CCookieKeepList keep;
  ASSERT_TRUE(keep.Load(file.c_str()));
  std::wstring detail;
  struct { bool keep; const wchar_t* text; CCookieKeepList::EEdit result; const wchar_t* detail; } steps[] = {
      {true, L"New.Site.NET", CCookieKeepList::editAdded, L"new.site.net"},
      {true, L"mail.example.com", CCookieKeepList::editAlready, L"example.com"},
      {true, L"http://x.com", CCookieKeepList::editInvalid, nullptr},
      {false, L"mail.example.com", CCookieKeepList::editByParent, L"example.com"},
      {false, L"nowhere.com", CCookieKeepList::editNotListed, L"nowhere.com"},
      {false, L"other.org", CCookieKeepList::editRemoved, L"other.org"},
  };
  for (const auto& s : steps) {
    detail.clear();
    EXPECT_EQ(s.result, s.keep ? keep.Keep(s.text, &detail) : keep.Unkeep(s.text, &detail)) << broomtest::Narrow(s.text);
    if (s.detail) {
      EXPECT_EQ(s.detail, detail);
    }
  }
  ASSERT_EQ(0u, keep.Save(file.c_str()));
  EXPECT_EQ("# mine\r\nexample.com # bank\r\nnew.site.net\r\n", broomtest::ReadFile(file));
  EXPECT_FALSE(broomtest::Exists(file + L".tmp"));
  CCookieKeepList again;
  ASSERT_TRUE(again.Load(file.c_str()));
  EXPECT_EQ((std::vector<std::wstring>{L"example.com", L"new.site.net"}), again.GetSites());

  // a save that cannot replace the file leaves it as it was
  std::wstring folder = dir / L"taken";
  broomtest::MakeDirs(folder);
  EXPECT_NE(0u, again.Save(folder.c_str()));
  EXPECT_EQ("# mine\r\nexample.com # bank\r\nnew.site.net\r\n", broomtest::ReadFile(file));
}

// Sites an organisation enforces keep like listed ones, are never written
// to the file, and no edit takes them away; one that is not a site makes
// the whole list unusable, so that nothing it meant to keep goes.
TEST(CookieKeepList, EnforcedSitesKeepButAreNeverSavedNorRemoved) {
  TempDir dir;
  std::wstring file = broomtest::WriteFile(dir / L"cookies-keep.txt", "mine.org\n");
  CCookieKeepList keep;
  ASSERT_TRUE(keep.Load(file.c_str()));
  ASSERT_TRUE(keep.AddEnforced(L"Corp.Example", L"the policy"));
  ASSERT_TRUE(keep.AddEnforced(L"*.corp.example", L"the policy"));  // the same site again
  EXPECT_EQ((std::vector<std::wstring>{L"corp.example"}), keep.GetEnforcedSites());
  EXPECT_EQ((std::vector<std::wstring>{L"mine.org"}), keep.GetSites());
  struct { const wchar_t* host; bool kept; } hosts[] = {
      {L".corp.example", true}, {L"sso.corp.example", true}, {L"notcorp.example", false}, {L"mine.org", true}};
  for (const auto& h : hosts) EXPECT_EQ(h.kept, keep.Keeps(h.host)) << broomtest::Narrow(h.host);
  struct { bool keep; const wchar_t* text; CCookieKeepList::EEdit result; const wchar_t* detail; } steps[] = {
      {true, L"sso.corp.example", CCookieKeepList::editByPolicy, L"corp.example"},
      {false, L"corp.example", CCookieKeepList::editByPolicy, L"corp.example"},
      {false, L"sso.corp.example", CCookieKeepList::editByPolicy, L"corp.example"},
      {false, L"mine.org", CCookieKeepList::editRemoved, L"mine.org"},
  };
  for (const auto& s : steps) {
    std::wstring detail;
    EXPECT_EQ(s.result, s.keep ? keep.Keep(s.text, &detail) : keep.Unkeep(s.text, &detail)) << broomtest::Narrow(s.text);
    EXPECT_EQ(s.detail, detail);
  }
  EXPECT_TRUE(keep.Keeps(L"corp.example"));  // an edit rebuilds the sites, the enforced ones with them
  ASSERT_EQ(0u, keep.Save(file.c_str()));
  EXPECT_EQ("", broomtest::ReadFile(file));

  EXPECT_FALSE(keep.AddEnforced(L"https://bank.example", L"the policy"));
  EXPECT_FALSE(keep.IsUsable());
  EXPECT_TRUE(keep.Keeps(L"anything.net"));
  EXPECT_EQ(0u, keep.DescribeProblem().find(L"the policy ('https://bank.example') holds a scheme"))
      << broomtest::Narrow(keep.DescribeProblem());

  ASSERT_TRUE(keep.Load(file.c_str()));  // a new read starts without them
  EXPECT_TRUE(keep.GetEnforcedSites().empty());
  EXPECT_FALSE(keep.Keeps(L"corp.example"));
}
