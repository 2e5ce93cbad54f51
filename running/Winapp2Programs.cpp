#include "running/Winapp2Programs.h"

#include <cwctype>
#include <unordered_map>

namespace {

// program: as a user knows it (null: the words name no program of their
// own); images, sections and names: lists separated by ';'. sections are
// whole Section values; names are the leading words of entry names.
struct SRow {
  const wchar_t* program;
  const wchar_t* images;
  const wchar_t* sections;
  const wchar_t* names;
};

const SRow kRows[] = {
    // Browsers and mail clients, each a Section of its own in winapp2.ini.
    {L"Google Chrome", L"chrome.exe", L"Google Chrome Web Browser", L"Google Chrome"},
    {L"Chromium", L"chrome.exe", L"Chromium Web Browser", L"Chromium"},
    {nullptr, L"", L"", L"Chromium Embedded Framework"},  // inside many programs, none of them a browser
    {L"Microsoft Edge", L"msedge.exe", L"Microsoft Edge Web Browser", L"Microsoft Edge"},
    {L"Mozilla Firefox", L"firefox.exe", L"Mozilla Firefox Web Browser", L"Mozilla Firefox;Firefox"},
    {L"Thunderbird", L"thunderbird.exe", L"Thunderbird Email Client", L"Thunderbird;Mozilla Thunderbird"},
    {L"Opera", L"opera.exe", L"Opera Web Browser", L"Opera"},
    {L"Opera GX", L"opera.exe", L"Opera GX Web Browser", L"Opera GX"},
    {L"Brave", L"brave.exe", L"Brave Web Browser;Brave Origin Web Browser", L"Brave"},
    {L"Vivaldi", L"vivaldi.exe", L"Vivaldi Web Browser", L"Vivaldi"},
    {L"Waterfox", L"waterfox.exe", L"Waterfox Web Browser", L"Waterfox"},
    {L"Pale Moon", L"palemoon.exe", L"Pale Moon Web Browser", L"Pale Moon"},
    {L"SeaMonkey", L"seamonkey.exe", L"SeaMonkey Internet Suite", L"SeaMonkey"},
    {L"Yandex Browser", L"browser.exe", L"Yandex Web Browser", L"Yandex"},
    {L"LibreWolf", L"librewolf.exe", L"LibreWolf Web Browser", L"LibreWolf"},
    {L"Floorp", L"floorp.exe", L"Floorp Web Browser", L"Floorp"},
    {L"Basilisk", L"basilisk.exe", L"Basilisk Web Browser", L"Basilisk"},
    {L"GNU IceCat", L"icecat.exe", L"GNU IceCat Web Browser", L""},
    {L"Zen Browser", L"zen.exe", L"Zen Web Browser", L""},
    {L"Mullvad Browser", L"mullvadbrowser.exe", L"Mullvad Web Browser", L""},
    {L"Mypal", L"mypal.exe", L"Mypal Web Browser", L""},
    {L"Epic Privacy Browser", L"epic.exe", L"Epic Privacy Web Browser", L""},
    {L"Comodo Dragon", L"dragon.exe", L"Comodo Dragon Web Browser", L""},
    {L"Cent Browser", L"chrome.exe", L"CentBrowser Web Browser", L""},
    {L"Iridium", L"iridium.exe", L"Iridium Web Browser", L""},
    {L"Slimjet", L"slimjet.exe", L"FlashPeak SlimJet Web Browser", L""},
    {L"Thorium", L"thorium.exe", L"Thorium Web Browser", L""},
    {L"Supermium", L"chrome.exe", L"Supermium Web Browser", L""},
    {L"Cromite", L"chrome.exe", L"Cromite Web Browser", L""},
    {L"NAVER Whale", L"whale.exe", L"NAVER Whale Web Browser", L""},
    {L"Coc Coc", L"browser.exe", L"Coc Coc Web Browser", L""},
    {L"Maxthon", L"Maxthon.exe", L"Maxthon Web Browser", L""},
    {L"Avast Secure Browser", L"AvastBrowser.exe", L"Avast Secure Web Browser", L""},
    {L"AVG Secure Browser", L"AVGBrowser.exe", L"AVG Secure Web Browser", L""},
    {L"CCleaner Browser", L"CCleanerBrowser.exe", L"CCleaner Web Browser", L""},
    {L"Arc", L"Arc.exe", L"Arc Web Browser", L""},
    {L"DuckDuckGo", L"DuckDuckGo.exe", L"DuckDuckGo Web Browser", L""},

    // Applications: winapp2 names them without a Section, or in one that
    // holds many programs ("Games", "Adobe").
    {L"Microsoft Teams", L"ms-teams.exe;Teams.exe", L"", L"Microsoft Teams"},
    {L"Discord", L"Discord.exe", L"", L"Discord"},
    {L"Slack", L"slack.exe", L"", L"Slack"},
    {L"Spotify", L"Spotify.exe", L"", L"Spotify"},
    {L"Steam", L"steam.exe", L"", L"Steam"},
    {L"Zoom", L"Zoom.exe", L"", L"Zoom"},
    {L"Microsoft Office",
     L"WINWORD.EXE;EXCEL.EXE;POWERPNT.EXE;OUTLOOK.EXE;ONENOTE.EXE;MSACCESS.EXE;MSPUB.EXE;VISIO.EXE", L"",
     L"Microsoft Office"},
    {L"Microsoft Outlook", L"OUTLOOK.EXE", L"", L"Microsoft Outlook"},
    {L"Outlook for Windows", L"olk.exe", L"", L"Microsoft Outlook For Windows"},
    {L"Microsoft OneNote", L"ONENOTE.EXE", L"", L"Microsoft OneNote"},
    {L"Microsoft Visio", L"VISIO.EXE", L"", L"Microsoft Visio"},
    {L"OneDrive", L"OneDrive.exe", L"", L"Microsoft OneDrive;OneDrive"},
    {L"Visual Studio Code", L"Code.exe", L"", L"Microsoft VS Code;Visual Studio Code"},
    {L"Visual Studio", L"devenv.exe", L"", L"Microsoft Visual Studio"},
    {nullptr, L"", L"", L"Microsoft Visual Studio Installation Packages"},  // the installer's, not the editor's
    {L"Java", L"java.exe;javaw.exe;javaws.exe;jp2launcher.exe", L"", L"Oracle Java;Java"},
    {L"NVIDIA app", L"NVIDIA app.exe", L"", L"NVIDIA App"},
    {L"GeForce Experience", L"NVIDIA GeForce Experience.exe", L"", L"NVIDIA GeForce Experience"},
    {L"NVIDIA Broadcast", L"NVIDIA Broadcast.exe", L"", L"NVIDIA Broadcast"},
    {L"NVIDIA Control Panel", L"nvcplui.exe", L"", L"NVIDIA Control Panel"},
    {L"Adobe Acrobat", L"Acrobat.exe", L"", L"Adobe Acrobat"},
    {L"Adobe Acrobat Reader", L"AcroRd32.exe;Acrobat.exe", L"", L"Adobe Acrobat Reader"},
    {L"Acrobat Distiller", L"acrodist.exe", L"", L"Adobe Acrobat Distiller"},
    {L"Telegram", L"Telegram.exe", L"", L"Telegram Desktop"},
    {L"Signal", L"Signal.exe", L"", L"Signal Messenger"},
    {L"WhatsApp", L"WhatsApp.exe", L"", L"WhatsApp"},
    {L"Dropbox", L"Dropbox.exe", L"", L"Dropbox"},
    {L"Google Drive", L"GoogleDriveFS.exe", L"", L"Google Drive"},
    {L"VLC media player", L"vlc.exe", L"", L"VLC Media Player"},
    {L"Notepad++", L"notepad++.exe", L"", L"Notepad++"},
    {L"OBS Studio", L"obs64.exe;obs32.exe", L"", L"OBS Studio"},
    {L"TeamViewer", L"TeamViewer.exe", L"", L"TeamViewer"},
    {L"AnyDesk", L"AnyDesk.exe", L"", L"AnyDesk"},
    {L"Epic Games Launcher", L"EpicGamesLauncher.exe", L"", L"Epic Games Launcher"},
    {L"GOG Galaxy", L"GalaxyClient.exe", L"", L"GOG Galaxy"},
    {L"Battle.net", L"Battle.net.exe", L"", L"Battle.net"},
    {L"Ubisoft Connect", L"UbisoftConnect.exe", L"", L"Ubisoft Connect"},
    {L"EA app", L"EADesktop.exe", L"", L"EA App"},
};

std::wstring Upper(const wchar_t* text, size_t length) {
  std::wstring out(text, length);
  if (!out.empty())
    LCMapStringW(LOCALE_INVARIANT, LCMAP_UPPERCASE, text, static_cast<int>(length), &out[0], static_cast<int>(length));
  return out;
}

bool IsBlank(wchar_t c) { return c == L' ' || c == L'\t'; }

// text without the blanks around it, upper-cased; winapp2's trailing " *" dropped when asked.
std::wstring Key(const wchar_t* text, bool entryName) {
  if (!text) return std::wstring();
  const wchar_t* first = text;
  const wchar_t* last = text + wcslen(text);
  while (first < last && IsBlank(*first)) ++first;
  while (last > first && IsBlank(last[-1])) --last;
  if (entryName && last - first >= 2 && last[-1] == L'*' && IsBlank(last[-2])) {
    last -= 2;
    while (last > first && IsBlank(last[-1])) --last;
  }
  return Upper(first, static_cast<size_t>(last - first));
}

template <class F>
void EachPart(const wchar_t* list, F f) {
  for (const wchar_t* part = list; *part;) {
    const wchar_t* end = part;
    while (*end && *end != L';') ++end;
    if (end > part) f(part, static_cast<size_t>(end - part));
    part = *end ? end + 1 : end;
  }
}

struct SIndex {
  std::unordered_map<std::wstring, size_t> sections;   // upper-cased Section -> row
  std::vector<std::pair<std::wstring, size_t>> names;  // upper-cased leading words -> row
};

const SIndex& Index() {
  static const SIndex index = [] {
    SIndex built;
    for (size_t row = 0; row < sizeof kRows / sizeof kRows[0]; ++row) {
      EachPart(kRows[row].sections,
               [&](const wchar_t* part, size_t n) { built.sections.emplace(Upper(part, n), row); });
      EachPart(kRows[row].names, [&](const wchar_t* part, size_t n) { built.names.emplace_back(Upper(part, n), row); });
    }
    return built;
  }();
  return index;
}

// The row whose leading words are the longest that start name as whole words.
const SRow* ByName(const std::wstring& name) {
  const SRow* best = nullptr;
  size_t bestLength = 0;
  for (const auto& words : Index().names) {
    const std::wstring& prefix = words.first;
    if (prefix.size() <= bestLength || prefix.size() > name.size() || name.compare(0, prefix.size(), prefix) != 0)
      continue;
    if (name.size() > prefix.size() && iswalnum(name[prefix.size()])) continue;  // "SteamWorld" is not "Steam"
    best = &kRows[words.second];
    bestLength = prefix.size();
  }
  return best;
}

}  // namespace

bool CWinapp2Programs::Find(const wchar_t* section, const wchar_t* entryName, SProgram& program) {
  const SIndex& index = Index();
  const SRow* row = nullptr;
  auto bySection = index.sections.find(Key(section, false));
  if (bySection != index.sections.end())
    row = &kRows[bySection->second];
  else
    row = ByName(Key(entryName, true));
  if (!row || !row->program) return false;
  program.name = row->program;
  program.images.clear();
  EachPart(row->images, [&](const wchar_t* part, size_t n) { program.images.emplace_back(part, n); });
  return true;
}

std::vector<std::wstring> CWinapp2Programs::Images(const wchar_t* section, const wchar_t* entryName) {
  SProgram program;
  return Find(section, entryName, program) ? program.images : std::vector<std::wstring>();
}
