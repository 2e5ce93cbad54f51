#include "running/RunningPrograms.h"

#include <tlhelp32.h>
#include <wtsapi32.h>

#include <unordered_map>

#include "core/Handles.h"
#include "running/ImageNames.h"

namespace {

using Sid = std::vector<BYTE>;

// The user in a process's token; empty when it cannot be read.
Sid UserOf(HANDLE process) {
  broom::unique_handle token;
  if (!OpenProcessToken(process, TOKEN_QUERY, token.addressof())) return Sid();
  DWORD size = 0;
  GetTokenInformation(token.get(), TokenUser, nullptr, 0, &size);
  if (size < sizeof(TOKEN_USER)) return Sid();
  std::vector<BYTE> buffer(size);
  if (!GetTokenInformation(token.get(), TokenUser, buffer.data(), size, &size)) return Sid();
  PSID sid = reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid;
  if (!sid || !IsValidSid(sid)) return Sid();
  const BYTE* bytes = static_cast<const BYTE*>(sid);
  return Sid(bytes, bytes + GetLengthSid(sid));
}

bool SameSid(const Sid& a, const Sid& b) {
  return !a.empty() && !b.empty() && EqualSid(const_cast<BYTE*>(a.data()), const_cast<BYTE*>(b.data()));
}

// Decides whose a process is. The token is asked first; a process a
// standard user may not open (another user's, usually) is looked up in the
// session service's process list, which names every process's user without
// opening it. That list is read once per snapshot, and only when needed;
// wtsapi32 is loaded then, so that hosts that never need it do not load it.
class COwners {
 public:
  COwners() : m_self(UserOf(GetCurrentProcess())) {}

  // Whether the process counts as this user's: it is, or its owner cannot be read.
  bool Counts(DWORD pid) {
    if (m_self.empty()) return true;
    Sid owner = OwnerOf(pid);
    return owner.empty() || SameSid(owner, m_self);
  }

 private:
  Sid OwnerOf(DWORD pid) {
    broom::unique_handle process(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid));
    if (process) {
      Sid owner = UserOf(process.get());
      if (!owner.empty()) return owner;
    }
    if (!m_listed) ListOwners();
    auto found = m_listedOwners.find(pid);
    return found == m_listedOwners.end() ? Sid() : found->second;
  }

  void ListOwners() {
    m_listed = true;
    wchar_t path[MAX_PATH + 32];
    UINT length = GetSystemDirectoryW(path, MAX_PATH);
    if (length == 0 || length >= MAX_PATH) return;
    wcscpy(path + length, L"\\wtsapi32.dll");
    broom::unique_hmodule module(LoadLibraryW(path));
    if (!module) return;
    using Enumerate = BOOL(WINAPI*)(HANDLE, DWORD, DWORD, PWTS_PROCESS_INFOW*, DWORD*);
    using Free = void(WINAPI*)(PVOID);
    auto enumerate =
        reinterpret_cast<Enumerate>(reinterpret_cast<void*>(GetProcAddress(module.get(), "WTSEnumerateProcessesW")));
    auto release = reinterpret_cast<Free>(reinterpret_cast<void*>(GetProcAddress(module.get(), "WTSFreeMemory")));
    if (!enumerate || !release) return;
    PWTS_PROCESS_INFOW list = nullptr;
    DWORD count = 0;
    if (!enumerate(WTS_CURRENT_SERVER_HANDLE, 0, 1, &list, &count) || !list) return;
    for (DWORD i = 0; i < count; ++i) {
      PSID sid = list[i].pUserSid;
      if (!sid || !IsValidSid(sid)) continue;
      const BYTE* bytes = static_cast<const BYTE*>(sid);
      m_listedOwners[list[i].ProcessId] = Sid(bytes, bytes + GetLengthSid(sid));
    }
    release(list);
  }

  Sid m_self;
  bool m_listed = false;
  std::unordered_map<DWORD, Sid> m_listedOwners;
};

const wchar_t* BaseName(const wchar_t* path) {
  const wchar_t* base = path;
  for (const wchar_t* p = path; *p; ++p)
    if (*p == L'\\' || *p == L'/') base = p + 1;
  return base;
}

}  // namespace

DWORD CRunningPrograms::Take(const std::vector<std::wstring>& images) {
  m_running.clear();
  std::vector<SProgram> asked;
  for (const std::wstring& image : images) {
    bool known = false;
    for (const SProgram& program : asked) known = known || CImageNames::Same(program.image, image);
    if (!known && !image.empty()) asked.push_back(SProgram{image, {}});
  }
  if (asked.empty()) return ERROR_SUCCESS;

  broom::unique_hfile snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
  if (!snapshot) return GetLastError();
  COwners owners;
  PROCESSENTRY32W entry = {};
  entry.dwSize = sizeof entry;
  for (BOOL more = Process32FirstW(snapshot.get(), &entry); more; more = Process32NextW(snapshot.get(), &entry)) {
    if (entry.th32ProcessID == 0) continue;
    std::wstring name = BaseName(entry.szExeFile);
    for (SProgram& program : asked) {
      if (!CImageNames::Same(program.image, name)) continue;
      if (owners.Counts(entry.th32ProcessID)) program.processIds.push_back(entry.th32ProcessID);
      break;
    }
  }
  DWORD error = GetLastError();
  if (error != ERROR_NO_MORE_FILES) return error;
  for (SProgram& program : asked)
    if (!program.processIds.empty()) m_running.push_back(std::move(program));
  return ERROR_SUCCESS;
}

const CRunningPrograms::SProgram* CRunningPrograms::Find(const std::wstring& image) const {
  for (const SProgram& program : m_running)
    if (CImageNames::Same(program.image, image)) return &program;
  return nullptr;
}

unsigned CRunningPrograms::Count(const std::wstring& image) const {
  const SProgram* program = Find(image);
  return program ? program->Count() : 0;
}
