#include "DamageCommon.h"

#include <shlobj.h>

#include <cstdio>

#include "core/CommandLine.h"
#include "core/Handles.h"

namespace damage {

std::wstring g_exe, g_root, g_cwd;

std::string Narrow(const std::wstring& text) {
  if (text.empty()) return std::string();
  int n = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
  std::string out(static_cast<size_t>(n), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &out[0], n, nullptr, nullptr);
  return out;
}

std::wstring Widen(const std::string& text) {
  if (text.empty()) return std::wstring();
  int n = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
  std::wstring out(static_cast<size_t>(n), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &out[0], n);
  return out;
}

// ---- files ----

std::wstring ParentOf(const std::wstring& path) { return path.substr(0, path.find_last_of(L'\\')); }

namespace {

// Calls f(path, attributes) for every entry of the folder but "." and "..".
template <class F>
void ForEachEntry(const std::wstring& folder, F f) {
  WIN32_FIND_DATAW data;
  broom::unique_hfind find(FindFirstFileW((folder + L"\\*").c_str(), &data));
  for (bool more = find.valid(); more; more = FindNextFileW(find.get(), &data)) {
    std::wstring name = data.cFileName;
    if (name != L"." && name != L"..") f(folder + L"\\" + name, data.dwFileAttributes);
  }
}

bool IsPlainFolder(DWORD attributes) {
  return (attributes & FILE_ATTRIBUTE_DIRECTORY) && !(attributes & FILE_ATTRIBUTE_REPARSE_POINT);
}

}  // namespace

void WriteBytes(const std::wstring& path, const std::string& bytes) {
  SHCreateDirectoryExW(nullptr, ParentOf(path).c_str(), nullptr);
  broom::unique_hfile h(
      CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!h) {
    fprintf(stderr, "cannot write %s\n", Narrow(path).c_str());
    ExitProcess(3);
  }
  DWORD written = 0;
  WriteFile(h.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
}

bool ReadBytes(const std::wstring& path, std::string& bytes) {
  bytes.clear();
  broom::unique_hfile h(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                    OPEN_EXISTING, 0, nullptr));
  if (!h) return false;
  char chunk[65536];
  DWORD got = 0;
  while (ReadFile(h.get(), chunk, sizeof chunk, &got, nullptr) && got > 0) bytes.append(chunk, got);
  return true;
}

bool Exists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

void RemoveTree(const std::wstring& path) {
  DWORD attributes = GetFileAttributesW(path.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) return;
  SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
  if (!(attributes & FILE_ATTRIBUTE_DIRECTORY)) {
    DeleteFileW(path.c_str());
    return;
  }
  if (IsPlainFolder(attributes)) ForEachEntry(path, [](const std::wstring& child, DWORD) { RemoveTree(child); });
  RemoveDirectoryW(path.c_str());
}

void Take(const std::wstring& folder, Snapshot& into) {
  ForEachEntry(folder, [&into](const std::wstring& child, DWORD attributes) {
    if (IsPlainFolder(attributes))
      Take(child, into);
    else if (!(attributes & FILE_ATTRIBUTE_DIRECTORY))
      ReadBytes(child, into[child]);
  });
}

std::string Bytes(size_t n, unsigned seed) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 131 + seed * 7 + (i >> 7)) & 0xFF);
  return s;
}

// ---- running broom ----

// Standard output and error go to files: Wine's own service processes,
// started on the first run that needs them, inherit the handles and keep a
// pipe open long after broom has ended.
Run Broom(const std::vector<std::wstring>& args, const std::wstring& appData) {
  static int serial = 0;
  Run result;
  std::wstring command = broom::QuoteArgument(g_exe);
  for (const std::wstring& a : args) command += L" " + broom::QuoteArgument(a);
  std::vector<wchar_t> env;
  wchar_t* block = GetEnvironmentStringsW();
  for (const wchar_t* p = block; *p; p += wcslen(p) + 1)
    if (appData.empty() || _wcsnicmp(p, L"LOCALAPPDATA=", 13) != 0) env.insert(env.end(), p, p + wcslen(p) + 1);
  FreeEnvironmentStringsW(block);
  if (!appData.empty()) {
    std::wstring entry = L"LOCALAPPDATA=" + appData;
    env.insert(env.end(), entry.begin(), entry.end());
    env.push_back(0);
  }
  env.push_back(0);

  const std::wstring outPath = g_root + L"\\out\\" + std::to_wstring(++serial) + L".out";
  const std::wstring errPath = outPath.substr(0, outPath.size() - 4) + L".err";
  SHCreateDirectoryExW(nullptr, ParentOf(outPath).c_str(), nullptr);
  SECURITY_ATTRIBUTES sa = {sizeof sa, nullptr, TRUE};
  const DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  broom::unique_hfile out(CreateFileW(outPath.c_str(), GENERIC_WRITE, share, &sa, CREATE_ALWAYS, 0, nullptr));
  broom::unique_hfile err(CreateFileW(errPath.c_str(), GENERIC_WRITE, share, &sa, CREATE_ALWAYS, 0, nullptr));
  // a question reads "no"
  broom::unique_hfile in(CreateFileW(L"NUL", GENERIC_READ, share, &sa, OPEN_EXISTING, 0, nullptr));
  STARTUPINFOW si = {};
  si.cb = sizeof si;
  si.dwFlags = STARTF_USESTDHANDLES;
  si.hStdInput = in.get();
  si.hStdOutput = out.get();
  si.hStdError = err.get();
  PROCESS_INFORMATION pi = {};
  std::vector<wchar_t> line(command.begin(), command.end());
  line.push_back(0);
  BOOL started = CreateProcessW(g_exe.c_str(), line.data(), nullptr, nullptr, TRUE,
                                CREATE_UNICODE_ENVIRONMENT | CREATE_NO_WINDOW, env.data(), g_cwd.c_str(), &si, &pi);
  out.reset();
  err.reset();
  in.reset();
  if (!started) {
    fprintf(stderr, "cannot start %s (error %lu)\n", Narrow(g_exe).c_str(), GetLastError());
    ExitProcess(3);
  }
  broom::unique_handle process(pi.hProcess), thread(pi.hThread);
  if (WaitForSingleObject(process.get(), 60000) != WAIT_OBJECT_0) TerminateProcess(process.get(), 0xDEAD);
  WaitForSingleObject(process.get(), INFINITE);
  GetExitCodeProcess(process.get(), &result.code);
  ReadBytes(outPath, result.out);
  ReadBytes(errPath, result.err);
  DeleteFileW(outPath.c_str());
  DeleteFileW(errPath.c_str());
  return result;
}

int Lines(const std::string& text) {
  int n = 0;
  for (char c : text) n += c == '\n';
  return n;
}

// ---- figures ----

void Complain(int& counter, const std::string& label, const std::string& what, const Run& r) {
  ++counter;
  static int shown = 0;
  if (++shown <= 40) fprintf(stderr, "  [%s] %s (exit %lu)\n    %s", label.c_str(), what.c_str(), r.code, r.err.c_str());
}

void Count(Figures& f, const Run& r) {
  ++f.runs;
  if (r.code == 0) ++f.exit0;
  else if (r.code == 1) ++f.exit1;
  else if (r.code == 2) ++f.exit2;
  else if (r.code == 3) ++f.exit3;
  else ++f.otherExit;
}

bool CheckMessage(Figures& f, const std::string& label, const Run& r) {
  bool raw = r.err.find("json.exception") != std::string::npos || r.err.find("[json") != std::string::npos;
  bool lines = r.code == 2 && (Lines(r.err) != 1 || r.err.rfind("broom: ", 0) != 0);
  if (raw || lines) Complain(f.badMessages, label, raw ? "raw library message" : "refusal not one line", r);
  return !(raw || lines);
}

}  // namespace damage
