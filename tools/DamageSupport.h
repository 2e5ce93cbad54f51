#pragma once
// What broom_damage needs around its cases: files written, read, listed
// and removed, broom.exe run with a LOCALAPPDATA of its own, and the
// figures every run adds to.
#include <windows.h>

#include <map>
#include <string>
#include <vector>

// broom.exe, the folder everything happens below, and broom's current folder.
extern std::wstring g_exe, g_root, g_cwd;

std::string Narrow(const std::wstring& text);
std::wstring Widen(const std::string& text);

void WriteBytes(const std::wstring& path, const std::string& bytes);  // ends the program when it cannot
bool ReadBytes(const std::wstring& path, std::string& bytes);
bool Exists(const std::wstring& path);
void RemoveTree(const std::wstring& path);
// Every file below folder: path -> bytes.
using Snapshot = std::map<std::wstring, std::string>;
void Take(const std::wstring& folder, Snapshot& into);
std::string Bytes(size_t n, unsigned seed);

struct Run {
  DWORD code = 0xFFFFFFFF;
  std::string out, err;
};
// broom.exe with args and LOCALAPPDATA set to appData; a question reads "no".
Run Broom(const std::vector<std::wstring>& args, const std::wstring& appData);
int Lines(const std::string& text);

struct Figures {
  int cases = 0, runs = 0, exit0 = 0, exit1 = 0, exit2 = 0, otherExit = 0;
  int lostFiles = 0;          // bytes that are nowhere any more, or a protected file deleted
  int lostPaths = 0;          // protected paths gone from the list
  int changedOnRefusal = 0;   // exit 2, yet something on disk changed
  int untruthful = 0;         // a count or an exit code that does not match the disk
  int badMessages = 0;        // a raw library message, or a refusal not on one line
};
// Counts one fault and shows the first few.
void Complain(Figures& f, int& counter, const std::string& label, const std::string& what, const Run& r);
void Count(Figures& f, const Run& r);
// False, counted, when the messages hold a raw library message or a refusal is not one line.
bool CheckMessage(Figures& f, const std::string& label, const Run& r);
