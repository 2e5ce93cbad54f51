#include "common/TestFiles.h"

#include "common/HandleCount.h"
#include "common/TestProcess.h"

#include <shlobj.h>

#include <memory>
#include <stdexcept>
#include <vector>

namespace broomtest {
namespace {

std::wstring ParentOf(const std::wstring& path) {
  size_t sep = path.find_last_of(L'\\');
  return sep == std::wstring::npos ? std::wstring() : path.substr(0, sep);
}

struct HandleCloser {
  void operator()(HANDLE h) const {
    if (h && h != INVALID_HANDLE_VALUE) CloseHandle(h);
  }
};
using FileHolder = std::unique_ptr<void, HandleCloser>;

// The Unix path of a Windows path, from Wine's own export; freed with the
// process heap as Wine documents.
std::string UnixName(const std::wstring& path) {
  using Fn = char*(CDECL*)(const wchar_t*);
  auto fn = reinterpret_cast<Fn>(reinterpret_cast<void*>(
      GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name")));
  if (!fn) return std::string();
  char* name = fn(path.c_str());
  if (!name) return std::string();
  std::string result(name);
  HeapFree(GetProcessHeap(), 0, name);
  return result;
}

}  // namespace

TempDir::TempDir() {
  wchar_t base[MAX_PATH];
  DWORD n = GetTempPathW(MAX_PATH, base);
  if (n == 0 || n >= MAX_PATH) throw std::runtime_error("GetTempPathW failed");
  std::wstring root(base, n);
  if (!root.empty() && root.back() == L'\\') root.pop_back();
  static LONG counter = 0;
  for (int attempt = 0; attempt < 1000; ++attempt) {
    wchar_t name[64];
    swprintf(name, 64, L"\\broomtest-%lu-%ld", GetCurrentProcessId(), InterlockedIncrement(&counter));
    std::wstring candidate = root + name;
    if (CreateDirectoryW(candidate.c_str(), nullptr)) {
      m_path = candidate;
      return;
    }
  }
  throw std::runtime_error("cannot create a temporary folder");
}

TempDir::~TempDir() {
  if (!m_path.empty()) RemoveTree(m_path);
}

void MakeDirs(const std::wstring& path) {
  if (path.empty() || GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES) return;
  MakeDirs(ParentOf(path));
  CreateDirectoryW(path.c_str(), nullptr);
}

std::wstring WriteFile(const std::wstring& path, const std::string& bytes) {
  MakeDirs(ParentOf(path));
  SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
  FileHolder file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr));
  if (file.get() == INVALID_HANDLE_VALUE)
    throw std::runtime_error("cannot create " + Narrow(path));
  DWORD written = 0;
  if (!bytes.empty() &&
      (!::WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) ||
       written != bytes.size()))
    throw std::runtime_error("cannot write " + Narrow(path));
  return path;
}

std::wstring WriteFile(const std::wstring& path, size_t size, char fill) {
  return WriteFile(path, std::string(size, fill));
}

std::string ReadFile(const std::wstring& path) {
  FileHolder file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              OPEN_EXISTING, 0, nullptr));
  if (file.get() == INVALID_HANDLE_VALUE) throw std::runtime_error("cannot open " + Narrow(path));
  std::string result;
  char chunk[65536];
  DWORD got = 0;
  while (::ReadFile(file.get(), chunk, sizeof chunk, &got, nullptr) && got > 0) result.append(chunk, got);
  return result;
}

bool Exists(const std::wstring& path) {
  return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

void RemoveTree(const std::wstring& path) {
  DWORD attrs = GetFileAttributesW(path.c_str());
  if (attrs == INVALID_FILE_ATTRIBUTES) return;
  if (attrs & FILE_ATTRIBUTE_READONLY)
    SetFileAttributesW(path.c_str(), attrs & ~FILE_ATTRIBUTE_READONLY);
  if ((attrs & FILE_ATTRIBUTE_DIRECTORY) && !(attrs & FILE_ATTRIBUTE_REPARSE_POINT)) {
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((path + L"\\*").c_str(), &data);
    if (find != INVALID_HANDLE_VALUE) {
      do {
        std::wstring name = data.cFileName;
        if (name != L"." && name != L"..") RemoveTree(path + L"\\" + name);
      } while (FindNextFileW(find, &data));
      FindClose(find);
    }
    RemoveDirectoryW(path.c_str());
  } else if (attrs & FILE_ATTRIBUTE_DIRECTORY) {
    // a link to a folder: remove the link, never what it points to
    if (!RemoveDirectoryW(path.c_str())) DeleteFileW(path.c_str());
  } else {
    DeleteFileW(path.c_str());
  }
}

namespace {

// Runs a Unix program with its arguments quoted; false when it could not start.
bool RunUnix(const std::wstring& program, const std::vector<std::string>& args) {
  std::wstring cmd = program;
  for (const std::string& arg : args) {
    cmd += L" \"";
    for (char c : arg) cmd += static_cast<wchar_t>(static_cast<unsigned char>(c));
    cmd += L"\"";
  }
  std::vector<wchar_t> line(cmd.begin(), cmd.end());
  line.push_back(0);
  STARTUPINFOW si = {};
  si.cb = sizeof si;
  PROCESS_INFORMATION pi = {};
  if (!broomtest::StartProcess(nullptr, line.data(), FALSE, 0, nullptr, nullptr, &si, &pi)) return false;
  WaitForSingleObject(pi.hProcess, 10000);
  CloseHandle(pi.hThread);
  CloseHandle(pi.hProcess);
  return true;
}

}  // namespace

bool MakeUnixSymlink(const std::wstring& target, const std::wstring& linkPath) {
  std::string unixTarget = UnixName(target);
  std::string unixLink = UnixName(linkPath);
  if (unixTarget.empty() || unixLink.empty()) return false;
  unsigned long before = ProcessHandleCount();
  if (!RunUnix(L"/bin/ln -s", {unixTarget, unixLink})) return false;
  // Wine may report the Unix program as ended before the link is visible
  auto isLink = [&] {
    DWORD attrs = GetFileAttributesW(linkPath.c_str());
    return attrs != INVALID_FILE_ATTRIBUTES && (attrs & FILE_ATTRIBUTE_REPARSE_POINT);
  };
  for (int i = 0; i < 500 && !isLink(); ++i) Sleep(10);
  AllowExtraHandles(static_cast<long>(ProcessHandleCount()) - static_cast<long>(before));
  return isLink();
}

bool RemoveUnixSymlink(const std::wstring& linkPath) {
  std::string unixLink = UnixName(linkPath);
  if (unixLink.empty()) return false;
  unsigned long before = ProcessHandleCount();
  if (!RunUnix(L"/bin/rm -f", {unixLink})) return false;
  for (int i = 0; i < 500 && Exists(linkPath); ++i) Sleep(10);
  AllowExtraHandles(static_cast<long>(ProcessHandleCount()) - static_cast<long>(before));
  return !Exists(linkPath);
}

std::string Narrow(const std::wstring& text) {
  if (text.empty()) return std::string();
  int n = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
  std::string out(n, '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &out[0], n, nullptr, nullptr);
  return out;
}

std::wstring ExeFolder() {
  wchar_t buffer[MAX_PATH + 1];
  DWORD n = GetModuleFileNameW(nullptr, buffer, MAX_PATH + 1);
  std::wstring path(buffer, n);
  return path.substr(0, path.find_last_of(L'\\'));
}

std::vector<wchar_t> EnvironmentWith(const std::wstring& name, const std::wstring& value) {
  std::vector<wchar_t> block;
  wchar_t* env = GetEnvironmentStringsW();
  std::wstring prefix = name + L"=";
  for (const wchar_t* p = env; *p; p += wcslen(p) + 1) {
    if (_wcsnicmp(p, prefix.c_str(), prefix.size()) == 0) continue;
    block.insert(block.end(), p, p + wcslen(p) + 1);
  }
  FreeEnvironmentStringsW(env);
  std::wstring entry = prefix + value;
  block.insert(block.end(), entry.begin(), entry.end());
  block.push_back(0);
  block.push_back(0);
  return block;
}

}  // namespace broomtest
