#include "settings/AppInfo.h"

#include "core/Exceptions.h"
#include "scan/ListAhead.h"
#include "settings/RegSettings.h"

unsigned long CAppInfo::m_appState = 0;
CString CAppInfo::m_userDataPath;
bool CAppInfo::s_wow64Checked = false;
bool CAppInfo::s_is64Bit = false;

namespace {

constexpr unsigned long kManualBits = 0xFFFF0000;

}  // namespace

void CAppInfo::Init(CRegSettings* settings, const wchar_t* userDataPath) {
  m_userDataPath = userDataPath ? userDataPath : L"";
  m_appState = 1;
  SetStateBitFromRegVal(settings, L"Defanged", 0x2);
  SetStateBitFromRegVal(settings, L"ReportStats", 0x8);
  unsigned long threads = 0;
  if (settings) settings->GetUserOrSystemValue(L"ScanThreads", threads, 0ul);
  CListAhead::SetThreads(threads);
}

unsigned long CAppInfo::GetAppState() {
  return m_appState;
}

void CAppInfo::SetManualStateBits(unsigned long bits) {
  m_appState |= bits & kManualBits;
}

void CAppInfo::ClearManualStateBits(unsigned long bits) {
  m_appState &= ~(bits & kManualBits);
}

const wchar_t* CAppInfo::GetUserDataPath() {
  return m_userDataPath.GetString();
}

void CAppInfo::SetStateBitFromRegVal(CRegSettings* settings, const wchar_t* valueName, unsigned long bit) {
  if (!settings) return;  // a host without settings gets no registry bits
  // A user value that exists decides, even when it is 0: it masks the system copy.
  DWORD value = 0;
  unsigned long size = sizeof(value);
  if (settings->ReadData(false, valueName, &value, size, REG_DWORD) != ERROR_SUCCESS) {
    value = 0;
    size = sizeof(value);
    if (settings->ReadData(true, valueName, &value, size, REG_DWORD) != ERROR_SUCCESS) return;
  }
  if (value != 0) m_appState |= bit;
}

bool CAppInfo::Is64BitOperatingSystem() {
  if (s_wow64Checked) return s_is64Bit;

  using IsWow64ProcessFn = BOOL(WINAPI*)(HANDLE, PBOOL);
  // Looked up at run time: older systems have no IsWow64Process.
  auto isWow64Process = reinterpret_cast<IsWow64ProcessFn>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32"), "IsWow64Process")));

  BOOL wow64 = FALSE;
  if (isWow64Process && !isWow64Process(GetCurrentProcess(), &wow64)) throw Win32Exception(L"IsWow64Process");
  // The answer is stored before the flag, so another thread never sees the
  // flag with an unset answer; a failed call leaves the flag clear.
  s_is64Bit = wow64 != FALSE;
  s_wow64Checked = true;
  return s_is64Bit;
}
