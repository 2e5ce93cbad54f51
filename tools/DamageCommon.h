#pragma once
// What the parts of broom_damage share: files, running broom.exe with its
// output in files, and the figures each part counts.
#include <windows.h>

#include <map>
#include <string>
#include <vector>

namespace damage {

// broom.exe, the folder everything happens in (%TEMP%\broom-damage) and
// broom's current folder inside it.
extern std::wstring g_exe, g_root, g_cwd;

std::string Narrow(const std::wstring& text);
std::wstring Widen(const std::string& text);

std::wstring ParentOf(const std::wstring& path);
// Writes the file, making its folders; ends the program when it cannot.
void WriteBytes(const std::wstring& path, const std::string& bytes);
bool ReadBytes(const std::wstring& path, std::string& bytes);
bool Exists(const std::wstring& path);
// Removes the folder and everything in it; a link is removed, never followed.
void RemoveTree(const std::wstring& path);
// Every file below folder, path -> bytes; links are not followed.
using Snapshot = std::map<std::wstring, std::string>;
void Take(const std::wstring& folder, Snapshot& into);
std::string Bytes(size_t n, unsigned seed);

struct Run {
  DWORD code = 0xFFFFFFFF;
  std::string out, err;
};
// Runs broom with the arguments, its current folder g_cwd and no input;
// appData, when given, becomes its LOCALAPPDATA.
Run Broom(const std::vector<std::wstring>& args, const std::wstring& appData = std::wstring());
int Lines(const std::string& text);

struct Figures {
  int cases = 0, runs = 0, exit0 = 0, exit1 = 0, exit2 = 0, exit3 = 0, otherExit = 0;  // 3: refusals alone
  int lostFiles = 0;          // bytes that are nowhere any more, or a protected file deleted
  int lostPaths = 0;          // protected paths gone from the list
  int changedOnRefusal = 0;   // exit 2, yet something on disk changed
  int untruthful = 0;         // a count or an exit code that does not match the disk
  int badMessages = 0;        // a raw library message, or a refusal not on one line
};
// Counts one fault and shows the first few.
void Complain(int& counter, const std::string& label, const std::string& what, const Run& r);
void Count(Figures& f, const Run& r);
bool CheckMessage(Figures& f, const std::string& label, const Run& r);

// The parts: damaged quarantine manifests and whitelist files below root,
// and hostile winapp2 files around precious files (DamageWinapp2.cpp), which prints its own
// figures and returns 0 when all of them are 0, 1 when not, and 3 without
// running when the Wine prefix is not one of its own.
void Manifests(const std::wstring& root, Figures& f);
void WhiteLists(const std::wstring& root, Figures& f);
int Winapp2();

}  // namespace damage
