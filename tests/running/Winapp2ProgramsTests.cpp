// The programs the table gives winapp2 entries: real entries of the
// community file (Section, name), with and without the trailing " *".
#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <vector>

#include "common/TestFiles.h"
#include "running/ImageNames.h"
#include "running/Winapp2Programs.h"

namespace {

struct Case {
  const wchar_t* section;  // null: the entry has no Section
  const wchar_t* name;
  const wchar_t* program;  // null: no program
  std::vector<std::wstring> images;
};

TEST(Winapp2Programs, GivesEntriesTheirProgramsBySectionOrByTheLeadingWordsOfTheirName) {
  const Case cases[] = {
      // browsers and mail clients, by their Section
      {L"Google Chrome Web Browser", L"Google Chrome Caches *", L"Google Chrome", {L"chrome.exe"}},
      {L"Chromium Web Browser", L"Chromium Web Browsing History *", L"Chromium", {L"chrome.exe"}},
      {L"Microsoft Edge Web Browser", L"Microsoft Edge PDF Restore Data *", L"Microsoft Edge", {L"msedge.exe"}},
      {L"Mozilla Firefox Web Browser", L"Mozilla Firefox Web Browsing Cookies *", L"Mozilla Firefox", {L"firefox.exe"}},
      {L"Thunderbird Email Client", L"Thunderbird Caches *", L"Thunderbird", {L"thunderbird.exe"}},
      {L"Opera Web Browser", L"Opera Web Browsing Session *", L"Opera", {L"opera.exe"}},
      {L"Opera GX Web Browser", L"Opera GX Caches *", L"Opera GX", {L"opera.exe"}},
      {L"Brave Web Browser", L"Brave Caches *", L"Brave", {L"brave.exe"}},
      {L"Brave Origin Web Browser", L"Brave Origin Caches *", L"Brave", {L"brave.exe"}},
      {L"Vivaldi Web Browser", L"Vivaldi Web Storage *", L"Vivaldi", {L"vivaldi.exe"}},
      {L"Waterfox Web Browser", L"Waterfox Synced Tabs *", L"Waterfox", {L"waterfox.exe"}},
      {L"Pale Moon Web Browser", L"Pale Moon Caches *", L"Pale Moon", {L"palemoon.exe"}},
      {L"SeaMonkey Internet Suite", L"SeaMonkey Web Browsing Session *", L"SeaMonkey", {L"seamonkey.exe"}},
      {L"Yandex Web Browser", L"Yandex NeuroEdit *", L"Yandex Browser", {L"browser.exe"}},
      // any case, blanks around it; the Section wins over the name's words
      {L"  google chrome web browser ", L"Cent Browser Caches", L"Google Chrome", {L"chrome.exe"}},
      {L"CentBrowser Web Browser", L"Cent Browser Saved Usernames & Passwords *", L"Cent Browser", {L"chrome.exe"}},
      // by the leading words of the name: no Section, or one of many programs
      {nullptr, L"Microsoft Teams *", L"Microsoft Teams", {L"ms-teams.exe", L"Teams.exe"}},
      {nullptr, L"Discord *", L"Discord", {L"Discord.exe"}},
      {L"", L"Slack", L"Slack", {L"slack.exe"}},
      {nullptr, L"Spotify - Downloaded Songs *", L"Spotify", {L"Spotify.exe"}},
      {L"Games", L"Steam Installers *", L"Steam", {L"steam.exe"}},
      {nullptr, L"Zoom *", L"Zoom", {L"Zoom.exe"}},
      {nullptr, L"Microsoft OneDrive *", L"OneDrive", {L"OneDrive.exe"}},
      {nullptr, L"Microsoft VS Code *", L"Visual Studio Code", {L"Code.exe"}},
      {nullptr, L"Oracle Java *", L"Java", {L"java.exe", L"javaw.exe", L"javaws.exe", L"jp2launcher.exe"}},
      {nullptr, L"NVIDIA Geforce Experience *", L"GeForce Experience", {L"NVIDIA GeForce Experience.exe"}},
      {L"Adobe", L"Adobe Acrobat Reader *", L"Adobe Acrobat Reader", {L"AcroRd32.exe", L"Acrobat.exe"}},
      // the longest leading words win
      {nullptr, L"Microsoft Office Unsaved Files *", L"Microsoft Office", {}},
      {nullptr, L"Microsoft Outlook For Windows *", L"Outlook for Windows", {L"olk.exe"}},
      {nullptr, L"Microsoft Outlook *", L"Microsoft Outlook", {L"OUTLOOK.EXE"}},
      // whole words only, and names that are no program of their own
      {L"Games", L"SteamWorld Dig 2 *", nullptr, {}},
      {nullptr, L"JavaRa *", nullptr, {}},
      {nullptr, L"Chromium Embedded Framework *", nullptr, {}},
      {nullptr, L"Microsoft Visual Studio Installation Packages *", nullptr, {}},
      {nullptr, L"NVIDIA Shader Cache *", nullptr, {}},
      {L"Games", L"Battle Islands *", nullptr, {}},
      {nullptr, L"7-Zip *", nullptr, {}},
      {nullptr, nullptr, nullptr, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(broomtest::Narrow(c.name ? c.name : L"(null)"));
    CWinapp2Programs::SProgram program;
    bool found = CWinapp2Programs::Find(c.section, c.name, program);
    ASSERT_EQ(c.program != nullptr, found);
    if (!found) {
      EXPECT_TRUE(CWinapp2Programs::Images(c.section, c.name).empty());
      continue;
    }
    EXPECT_EQ(c.program, program.name);
    if (!c.images.empty()) {
      EXPECT_EQ(c.images, program.images);
    }
    EXPECT_FALSE(program.images.empty());
    EXPECT_EQ(program.images, CWinapp2Programs::Images(c.section, c.name));
    for (const std::wstring& image : program.images)
      EXPECT_EQ(L"", CImageNames::Check(image)) << broomtest::Narrow(image);
  }
}

}  // namespace
