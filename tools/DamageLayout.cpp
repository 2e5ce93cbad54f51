#include "DamageLayout.h"

#include <knownfolders.h>
#include <shlobj.h>

#include <cstdio>

#include "DamageCommon.h"
#include "core/Handles.h"

namespace damage {

namespace {

std::wstring Shell(int csidl) {
  wchar_t path[MAX_PATH];
  return SUCCEEDED(SHGetFolderPathW(nullptr, csidl, nullptr, SHGFP_TYPE_CURRENT, path)) ? path : L"";
}

std::wstring Known(REFKNOWNFOLDERID id) {
  wchar_t* path = nullptr;
  std::wstring out;
  if (SUCCEEDED(SHGetKnownFolderPath(id, 0, nullptr, &path))) out = path;
  CoTaskMemFree(path);
  return out;
}

std::wstring Variable(const wchar_t* name) {
  wchar_t value[32768];
  DWORD n = GetEnvironmentVariableW(name, value, 32768);
  return n > 0 && n < 32768 ? std::wstring(value, n) : std::wstring();
}

// A Unix path as Windows programs see it: Z: is the Unix root.
std::wstring FromUnix(const std::wstring& path) {
  if (path.empty() || path[0] != L'/') return std::wstring();
  std::wstring out = L"Z:" + path;
  for (wchar_t& c : out)
    if (c == L'/') c = L'\\';
  while (out.size() > 3 && out.back() == L'\\') out.pop_back();
  return out;
}

bool IsLink(const std::wstring& path) {
  DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT);
}

std::string UnixName(const std::wstring& path) {
  using Fn = char*(CDECL*)(const wchar_t*);
  auto fn = reinterpret_cast<Fn>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name")));
  char* name = fn ? fn(path.c_str()) : nullptr;
  if (!name) return std::string();
  std::string out(name);
  HeapFree(GetProcessHeap(), 0, name);
  return out;
}

}  // namespace

bool FindFolders(Folders& f, std::string& why) {
  f.windows = Shell(CSIDL_WINDOWS);
  f.system32 = Shell(CSIDL_SYSTEM);
  f.sysWow64 = Shell(CSIDL_SYSTEMX86);
  f.programFiles = Shell(CSIDL_PROGRAM_FILES);
  f.programFilesX86 = Shell(CSIDL_PROGRAM_FILESX86);
  f.programData = Shell(CSIDL_COMMON_APPDATA);
  f.profile = Shell(CSIDL_PROFILE);
  f.users = ParentOf(f.profile);
  f.publicDir = Known(FOLDERID_Public);
  f.roaming = Shell(CSIDL_APPDATA);
  f.local = Shell(CSIDL_LOCAL_APPDATA);
  f.localLow = Known(FOLDERID_LocalAppDataLow);
  f.known = {{L"Desktop", Shell(CSIDL_DESKTOPDIRECTORY)}, {L"Documents", Shell(CSIDL_PERSONAL)},
             {L"Downloads", Known(FOLDERID_Downloads)},   {L"Music", Shell(CSIDL_MYMUSIC)},
             {L"Pictures", Shell(CSIDL_MYPICTURES)},      {L"Videos", Shell(CSIDL_MYVIDEO)}};
  // the user's and the shared known folders that are folders of the prefix
  for (const wchar_t* name : {L"Favorites", L"Contacts", L"Links", L"Saved Games", L"Searches"})
    f.otherKnown.push_back({name, f.profile + L"\\" + name});
  for (const wchar_t* name : {L"Desktop", L"Documents", L"Music", L"Pictures", L"Videos"})
    f.otherKnown.push_back({std::wstring(L"Public ") + name, f.publicDir + L"\\" + name});
  f.data = f.local + L"\\Broom";
  f.test = f.windows.substr(0, 2) + L"\\broomtest";
  f.home = FromUnix(Variable(L"BROOM_DAMAGE_HOME"));
  f.outside = FromUnix(Variable(L"BROOM_DAMAGE_OUTSIDE"));
  const std::wstring all[] = {f.windows, f.system32, f.sysWow64, f.programFiles, f.programFilesX86, f.programData,
                              f.profile, f.publicDir, f.roaming, f.local, f.localLow};
  for (const std::wstring& folder : all)
    if (folder.empty() || !Exists(folder)) return why = "a system or user folder of the prefix is missing", false;
  if (f.home.empty() || f.outside.empty() || f.outside.size() < 8)
    return why = "BROOM_DAMAGE_HOME and BROOM_DAMAGE_OUTSIDE must name the prefix's home and a folder of its own", false;
  // Wine names the Unix home its programs run with as \??\Z:\...
  std::wstring home = Variable(L"WINEHOMEDIR");
  if (home.rfind(L"\\??\\", 0) == 0) home.erase(0, 4);
  if (_wcsicmp(home.c_str(), f.home.c_str()) != 0)
    return why = "Wine's home (" + Narrow(home) + ") is not BROOM_DAMAGE_HOME: the prefix would lead into another home", false;
  if (IsLink(f.profile) || IsLink(f.users)) return why = "the profile is a link", false;
  // Every user folder is a folder of the prefix, or a link into its own home: a
  // marker written through it must turn up there.
  for (const auto& known : f.known) {
    if (known.second.empty() || !Exists(known.second)) return why = "the user folder " + Narrow(known.first) + " is missing", false;
    if (!IsLink(known.second)) continue;
    const std::wstring name = L"\\.broom-damage-marker";
    WriteBytes(known.second + name, "marker");
    bool home = Exists(f.home + L"\\" + known.second.substr(known.second.find_last_of(L'\\') + 1) + name) ||
                Exists(f.home + name);
    DeleteFileW((known.second + name).c_str());
    if (!home) return why = Narrow(known.second) + " leads out of " + Narrow(f.home), false;
  }
  return true;
}

bool MakeUnixSymlink(const std::wstring& target, const std::wstring& link) {
  std::string from = UnixName(target), to = UnixName(link);
  if (from.empty() || to.empty()) return false;
  std::wstring command = L"/bin/ln -s \"" + Widen(from) + L"\" \"" + Widen(to) + L"\"";
  std::vector<wchar_t> line(command.begin(), command.end());
  line.push_back(0);
  STARTUPINFOW si = {};
  si.cb = sizeof si;
  PROCESS_INFORMATION pi = {};
  if (!CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi)) return false;
  broom::unique_handle process(pi.hProcess), thread(pi.hThread);
  WaitForSingleObject(process.get(), 10000);
  // Wine may report the Unix program as ended before the link is visible
  for (int i = 0; i < 500 && !Exists(link); ++i) Sleep(10);
  return Exists(link);
}

void List(const std::wstring& folder, Listing& into, const std::vector<std::wstring>& skip) {
  WIN32_FIND_DATAW data;
  broom::unique_hfind find(FindFirstFileW((folder + L"\\*").c_str(), &data));
  for (bool more = find.valid(); more; more = FindNextFileW(find.get(), &data)) {
    std::wstring name = data.cFileName;
    if (name == L"." || name == L"..") continue;
    std::wstring child = folder + L"\\" + name;
    bool skipped = false;
    for (const std::wstring& s : skip) skipped = skipped || _wcsicmp(child.c_str(), s.c_str()) == 0;
    if (skipped) continue;
    Entry& entry = into[child];
    entry.attributes = data.dwFileAttributes;
    entry.size = (static_cast<ULONGLONG>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
    if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) && !(data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT))
      List(child, into, skip);
  }
}

void Ground::LayFile(const std::wstring& path, const std::string& bytes) {
  std::string now;
  if (!ReadBytes(path, now) || now != bytes) WriteBytes(path, bytes);
  m_precious[path] = bytes;
}

bool Ground::Lay(std::string& why) {
  const Folders& f = m_f;
  unsigned seed = 0;
  auto precious = [&](const std::wstring& path) { LayFile(path, "precious " + Narrow(path) + "\n" + Bytes(64 + seed, seed)), ++seed; };
  precious(f.windows.substr(0, 2) + L"\\broom-precious.txt");
  for (const std::wstring& folder : {f.profile, f.users, f.publicDir, f.publicDir + L"\\Documents", f.roaming, f.local,
                                     f.localLow, f.programData, f.windows}) {
    precious(folder + L"\\broom-precious.txt");
    precious(folder + L"\\PreciousKeep\\deep\\p.dat");
  }
  for (const auto& known : f.known) {
    precious(known.second + L"\\broom-precious.txt");
    precious(known.second + L"\\PreciousKeep\\p.dat");
  }
  for (const auto& other : f.otherKnown) precious(other.second + L"\\broom-precious.txt");
  const std::wstring documents = f.known[1].second;
  precious(documents + L"\\linked\\p.txt");
  precious(documents + L"\\linked\\sub\\q.txt");
  for (const std::wstring& folder : {f.windows, f.system32, f.sysWow64}) {
    precious(folder + L"\\broomfake.dll");
    precious(folder + L"\\broomfake.exe");
  }
  precious(f.system32 + L"\\broomfake\\p.dat");
  precious(f.system32 + L"\\broomfake\\lib.dll");
  for (const std::wstring& folder : {f.programFiles, f.programFilesX86}) {
    precious(folder + L"\\BroomFake\\app.exe");
    precious(folder + L"\\BroomFake\\data.dat");
  }
  precious(f.outside + L"\\precious.txt");
  precious(f.outside + L"\\sub\\p.dat");

  // Broom's own data: the whitelist and a quarantine that broom itself made
  if (!m_madeData) {
    m_madeData = true;
    Run protect = Broom({L"protect", f.test + L"\\kept"});
    if (protect.code == 0) protect = Broom({L"protect", f.test + L"\\kept long folder"});
    WriteBytes(g_root + L"\\tree\\junk\\q1.bin", Bytes(3000, 1));
    WriteBytes(g_root + L"\\tree\\junk\\q2.bin", Bytes(200, 2));
    Run quarantine = Broom({L"--defs", g_root + L"\\defs", L"clean", L"--yes", L"--quarantine"});
    if (protect.code != 0 || quarantine.code != 0)
      return why = "broom could not make its whitelist or a quarantine: " + protect.err + quarantine.err, false;
    Snapshot data;
    damage::Take(f.data, data);
    for (const auto& file : data)
      if (_wcsnicmp(file.first.c_str(), (f.data + L"\\Logs\\").c_str(), f.data.size() + 6) != 0)
        m_precious[file.first] = file.second;
  }
  for (const auto& file : m_precious) {
    std::string now;
    if (!ReadBytes(file.first, now) || now != file.second) WriteBytes(file.first, file.second);
  }

  // the test folder, made again: what is not kept may go
  const std::wstring& t = f.test;
  for (const wchar_t* folder : {L"\\junk", L"\\self", L"\\excluded files", L"\\det", L"\\kept", L"\\kept long folder"})
    RemoveTree(t + folder);
  m_kept.clear();
  auto file = [&](const std::wstring& path, bool kept) {
    WriteBytes(t + path, Narrow(path) + "\n");
    if (kept) m_kept.push_back(t + path);
  };
  for (const wchar_t* path : {L"\\junk\\a.tmp", L"\\junk\\b.log", L"\\junk\\sub\\c.tmp", L"\\self\\x.tmp",
                              L"\\self\\sub\\y.tmp", L"\\excluded files\\c.tmp", L"\\excluded files\\sub\\f.tmp",
                              L"\\links\\plain.tmp"})
    file(path, false);
  for (const wchar_t* path : {L"\\excluded files\\a.bak", L"\\excluded files\\b.log", L"\\excluded files\\sub\\d.bak",
                              L"\\excluded files\\sub\\e.log", L"\\kept\\k.tmp", L"\\kept\\sub\\l.tmp",
                              L"\\kept long folder\\k.tmp", L"\\kept long folder\\sub\\l.tmp"})
    file(path, true);
  for (int k = 0; k < 24; ++k) file(L"\\det\\off" + std::to_wstring(k) + L"\\x.tmp", true);
  for (int k = 0; k < 4; ++k) file(L"\\det\\on" + std::to_wstring(k) + L"\\x.tmp", false);

  struct SLink {
    const wchar_t* path;
    std::wstring target;
    bool folder;
  };
  const SLink links[] = {{L"\\links\\to_docs", documents + L"\\linked", true},
                         {L"\\links\\to_sys32", f.system32 + L"\\broomfake", true},
                         {L"\\links\\to_outside", f.outside, true},
                         {L"\\links\\to_profile", f.profile, true},
                         {L"\\links\\to_windows", f.windows, true},
                         {L"\\file link\\file_link.tmp", documents + L"\\broom-precious.txt", false}};
  m_links.clear();
  for (const SLink& link : links) {
    const std::wstring path = t + link.path;
    if (!Exists(path)) SHCreateDirectoryExW(nullptr, ParentOf(path).c_str(), nullptr);
    if (!Exists(path) && !MakeUnixSymlink(link.target, path)) return why = "cannot make the link " + Narrow(path), false;
    if (link.folder) m_links.push_back(path);
  }
  return true;
}

Listing Ground::Take() const {
  Listing listing;
  const std::vector<std::wstring> skip = {m_f.test, m_f.data + L"\\Logs", g_root};
  List(m_f.windows.substr(0, 2), listing, skip);
  List(m_f.home, listing, skip);
  List(m_f.outside, listing, skip);
  return listing;
}

}  // namespace damage
