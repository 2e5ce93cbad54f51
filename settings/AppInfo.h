#pragma once
// Process-wide facts the host sets up once and the engine consults: the
// application state word, the user data folder and whether Windows is 64-bit.
//
// State word: bit 0x1 is set by Init, 0x2 and 0x8 come from the registry
// DWORDs "Defanged" and "ReportStats"; the high 16 bits are the host's manual
// bits (0x20000 is read by the scan logs).
#include <windows.h>

#include "atl/CString.h"
#include "core/Export.h"

class CRegSettings;

class BROOM_API CAppInfo {
 public:
  // Stores the path (empty for null), resets the word to 1, then ORs in the
  // two registry bits, and sets the threads that list folders ahead of a
  // scan from the DWORD "ScanThreads" (see scan/ListAhead.h; the default
  // without one). Lets the int 0 of CRegSettings through.
  static void Init(CRegSettings* settings, const wchar_t* userDataPath);
  static unsigned long GetAppState();
  // Only bits 0x00010000..0x80000000 of the argument are used.
  static void SetManualStateBits(unsigned long bits);
  static void ClearManualStateBits(unsigned long bits);
  // Empty before Init; valid until the next Init.
  static const wchar_t* GetUserDataPath();
  // The engine is a 32-bit module, so "running under WOW64" answers it.
  // Computed once; throws Win32Exception "IsWow64Process" when the call fails.
  static bool Is64BitOperatingSystem();

  static unsigned long m_appState;
  static CString m_userDataPath;

 private:
  static void SetStateBitFromRegVal(CRegSettings* settings, const wchar_t* valueName, unsigned long bit);

  static bool s_wow64Checked;
  static bool s_is64Bit;
};
