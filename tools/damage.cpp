// Drives broom.exe through damaged quarantine manifests and whitelist files
// (mutations of real ones that broom itself wrote) and through hostile
// winapp2 files aimed at the folders the guard protects, and checks after
// every run that no file and no protected path was lost and that the exit
// code and the messages tell the truth. Prints the counts and exits with 1
// when anything was lost or misreported.
//
//   broom_damage.exe [PATH\broom.exe] [--part manifests|whitelists|winapp2]...
//                                      (default: broom.exe beside it, every part)
//
// Everything it makes happens below %TEMP%\broom-damage, apart from the
// precious files the winapp2 part lays around its test folder; the manifest
// and whitelist parts run broom with its LOCALAPPDATA there. The winapp2
// part runs only on a Wine prefix made for it (scripts/damage.sh).
#include <windows.h>
#include <shlobj.h>

#include <algorithm>
#include <cstdio>
#include <set>

#include "DamageCommon.h"

using namespace damage;

int wmain(int argc, wchar_t** argv) {
  std::set<std::wstring> parts;
  for (int i = 1; i < argc; ++i) {
    std::wstring a = argv[i];
    if (a == L"--part" && i + 1 < argc) {
      parts.insert(argv[++i]);
    } else if (a.rfind(L"--", 0) == 0) {
      fprintf(stderr, "usage: broom_damage [PATH\\broom.exe] [--part manifests|whitelists|winapp2]...\n");
      return 2;
    } else {
      g_exe = a;
    }
  }
  auto runs = [&](const wchar_t* part) { return parts.empty() || parts.count(part); };
  wchar_t buffer[MAX_PATH + 1];
  if (g_exe.empty()) {
    DWORD n = GetModuleFileNameW(nullptr, buffer, MAX_PATH + 1);
    g_exe = ParentOf(std::wstring(buffer, n)) + L"\\broom.exe";
  }
  GetTempPathW(MAX_PATH, buffer);
  g_root = std::wstring(buffer) + L"broom-damage";
  if (g_root.back() == L'\\') g_root.pop_back();
  RemoveTree(g_root);
  g_cwd = g_root + L"\\cwd";
  SHCreateDirectoryExW(nullptr, g_cwd.c_str(), nullptr);
  WriteBytes(g_root + L"\\defs\\t.xml",
             "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<ConfigItems>\n  <item group=\"T\" name=\"Junk\" scan=\"yes\" "
             "clean=\"yes\"><clean kind=\"file\">" +
                 Narrow(g_root) + "\\tree\\junk\\*</clean></item>\n</ConfigItems>\n");

  int status = 0;
  Figures manifests, whitelists;
  if (runs(L"manifests")) Manifests(g_root, manifests);
  if (runs(L"whitelists")) WhiteLists(g_root, whitelists);
  for (auto& part : {std::make_pair("quarantine manifests", &manifests), std::make_pair("whitelist files", &whitelists)}) {
    const Figures& x = *part.second;
    if (!x.cases) continue;
    printf("%-21s %4d cases, %4d runs of broom (exit 0: %d, 1: %d, 2: %d, 3: %d, other: %d)\n", part.first, x.cases,
           x.runs, x.exit0, x.exit1, x.exit2, x.exit3, x.otherExit);
    printf("%-21s lost files %d, lost protected paths %d, changed on refusal %d, untruthful %d, bad messages %d\n", "",
           x.lostFiles, x.lostPaths, x.changedOnRefusal, x.untruthful, x.badMessages);
    if (x.lostFiles || x.lostPaths || x.changedOnRefusal || x.untruthful || x.badMessages || x.otherExit) status = 1;
  }
  if (runs(L"winapp2")) status = std::max(status, Winapp2());
  RemoveTree(g_root);
  return status;
}
