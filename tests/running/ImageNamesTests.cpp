// The image names a definition's `running` text gives, and what it refuses.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <vector>

#include "common/TestFiles.h"
#include "running/ImageNames.h"

namespace {

struct Case {
  const wchar_t* text;
  std::vector<std::wstring> names;
  std::vector<std::wstring> rejected;
  const wchar_t* reason;  // a part of the first rejection's reason
};

TEST(ImageNames, SplitsAtSemicolonsAndRejectsPathsWildcardsAndOtherFiles) {
  const Case cases[] = {
      {L"chrome.exe", {L"chrome.exe"}, {}, L""},
      {L" chrome.exe ; msedge.EXE;;\tfirefox.exe\t;", {L"chrome.exe", L"msedge.EXE", L"firefox.exe"}, {}, L""},
      {L"chrome.exe;CHROME.EXE;Chrome.Exe", {L"chrome.exe"}, {}, L""},
      {L"NVIDIA GeForce Experience.exe", {L"NVIDIA GeForce Experience.exe"}, {}, L""},
      {L"", {}, {}, L""},
      {L" ; ", {}, {}, L""},
      {L"C:\\Program Files\\Google\\chrome.exe;opera.exe",
       {L"opera.exe"},
       {L"C:\\Program Files\\Google\\chrome.exe"},
       L"path separator ('\\')"},
      {L"bin/chrome.exe", {}, {L"bin/chrome.exe"}, L"path separator ('/')"},
      {L"C:chrome.exe", {}, {L"C:chrome.exe"}, L"path separator (':')"},
      {L"chrome*.exe", {}, {L"chrome*.exe"}, L"wildcard '*'"},
      {L"chrom?.exe", {}, {L"chrom?.exe"}, L"wildcard '?'"},
      {L"chrome", {}, {L"chrome"}, L"does not end in .exe"},
      {L"chrome.exe.lnk", {}, {L"chrome.exe.lnk"}, L"does not end in .exe"},
      {L"chrome.ex", {}, {L"chrome.ex"}, L"does not end in .exe"},
      {L".exe", {}, {L".exe"}, L"no name before .exe"},
      {L"a|b.exe", {}, {L"a|b.exe"}, L"no file name may hold"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(broomtest::Narrow(c.text));
    std::vector<CImageNames::SRejected> rejected;
    EXPECT_EQ(c.names, CImageNames::Parse(c.text, rejected));
    ASSERT_EQ(c.rejected.size(), rejected.size());
    for (size_t i = 0; i < rejected.size(); ++i) EXPECT_EQ(c.rejected[i], rejected[i].name);
    if (!rejected.empty()) {
      EXPECT_NE(std::wstring::npos, rejected[0].reason.find(c.reason)) << broomtest::Narrow(rejected[0].reason);
      EXPECT_EQ(rejected[0].reason, CImageNames::Check(rejected[0].name));
    }
  }
  std::vector<CImageNames::SRejected> rejected;
  EXPECT_TRUE(CImageNames::Parse(nullptr, rejected).empty());
  EXPECT_TRUE(rejected.empty());
}

}  // namespace
