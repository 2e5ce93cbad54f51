#include <gtest/gtest.h>

#include <cstring>

#include "SettingsTestKey.h"
#include "common/TestFiles.h"
#include "core/Exceptions.h"
#include "settings/AppInfo.h"
#include "settings/RegSettings.h"

using settingstest::AppKey;

namespace {

class AppInfoTest : public testing::Test {
 protected:
  void TearDown() override {
    // Leave the process-wide state as a fresh process has it.
    CAppInfo::m_appState = 0;
    CAppInfo::m_userDataPath.Empty();
  }

  AppKey m_key;
  CRegSettings m_settings{settingstest::kCompany, m_key.Product()};
};

}  // namespace

TEST_F(AppInfoTest, InitWithoutKeySetsOnlyBitOneAndCreatesNothing) {
  CAppInfo::Init(&m_settings, L"C:\\Users\\me\\AppData\\Broom");
  EXPECT_EQ(1u, CAppInfo::GetAppState());
  EXPECT_STREQ(L"C:\\Users\\me\\AppData\\Broom", CAppInfo::GetUserDataPath());
  EXPECT_FALSE(m_key.Exists(false));
  EXPECT_FALSE(m_key.Exists(true));
}

TEST_F(AppInfoTest, NullPathGivesEmptyString) {
  CAppInfo::Init(&m_settings, L"first");
  CAppInfo::Init(&m_settings, nullptr);
  ASSERT_NE(nullptr, CAppInfo::GetUserDataPath());
  EXPECT_STREQ(L"", CAppInfo::GetUserDataPath());
}

TEST_F(AppInfoTest, BothRegistryBitsThenAllManualBits) {
  m_key.WriteDword(false, L"Defanged", 1);
  m_key.WriteDword(true, L"ReportStats", 0x100);
  CAppInfo::Init(&m_settings, L"p");
  EXPECT_EQ(0x0000000Bu, CAppInfo::GetAppState());
  CAppInfo::SetManualStateBits(0xFFFFFFFF);
  EXPECT_EQ(0xFFFF000Bu, CAppInfo::GetAppState());
  EXPECT_EQ(0xFFFF000Bu, CAppInfo::m_appState);
  CAppInfo::ClearManualStateBits(0xFFFFFFFF);
  EXPECT_EQ(0x0000000Bu, CAppInfo::GetAppState());
}

TEST_F(AppInfoTest, ManualBitsIgnoreTheLowHalf) {
  CAppInfo::Init(&m_settings, L"p");
  CAppInfo::SetManualStateBits(0x0000FFFE);
  EXPECT_EQ(1u, CAppInfo::GetAppState());
  CAppInfo::SetManualStateBits(0x00030000);
  EXPECT_EQ(0x00030001u, CAppInfo::GetAppState());
  CAppInfo::ClearManualStateBits(0x0001FFFF);  // bit 1 stays: it is not a manual bit
  EXPECT_EQ(0x00020001u, CAppInfo::GetAppState());
}

TEST_F(AppInfoTest, UserZeroMasksSystemValue) {
  m_key.WriteDword(false, L"Defanged", 0);
  m_key.WriteDword(true, L"Defanged", 5);
  CAppInfo::Init(&m_settings, L"p");
  EXPECT_EQ(0u, CAppInfo::GetAppState() & 0x2);
}

TEST_F(AppInfoTest, SystemValueAloneSetsTheBit) {
  m_key.WriteDword(true, L"Defanged", 5);
  CAppInfo::Init(&m_settings, L"p");
  EXPECT_EQ(0x3u, CAppInfo::GetAppState());
}

TEST_F(AppInfoTest, ValuesOfOtherTypesLeaveBitsClear) {
  const wchar_t one[] = L"1";
  m_key.Write(false, L"ReportStats", REG_SZ, one, sizeof(one));
  BYTE binary[4] = {1, 0, 0, 0};
  m_key.Write(true, L"Defanged", REG_BINARY, binary, sizeof(binary));
  CAppInfo::Init(&m_settings, L"p");
  EXPECT_EQ(1u, CAppInfo::GetAppState());
}

TEST_F(AppInfoTest, WrongUserTypeFallsBackToSystemCopy) {
  const wchar_t one[] = L"1";
  m_key.Write(false, L"ReportStats", REG_SZ, one, sizeof(one));
  m_key.WriteDword(true, L"ReportStats", 1);
  CAppInfo::Init(&m_settings, L"p");
  EXPECT_EQ(0x9u, CAppInfo::GetAppState());
}

TEST_F(AppInfoTest, InitAgainDropsManualBitsAndRereadsRegistry) {
  m_key.WriteDword(false, L"Defanged", 1);
  CAppInfo::Init(&m_settings, L"one");
  CAppInfo::SetManualStateBits(0x20000);
  EXPECT_EQ(0x20003u, CAppInfo::GetAppState());
  m_key.WriteDword(false, L"Defanged", 0);
  CAppInfo::Init(&m_settings, L"two");
  EXPECT_EQ(1u, CAppInfo::GetAppState());
  EXPECT_STREQ(L"two", CAppInfo::GetUserDataPath());
}

TEST_F(AppInfoTest, DeniedKeyThrowsIntZeroAfterPathAndFirstBit) {
  if (!m_key.DenyAccess(false)) GTEST_SKIP() << "the registry does not take a key's security descriptor";
  HKEY probe = nullptr;
  if (RegOpenKeyExW(HKEY_CURRENT_USER, m_key.Path().c_str(), 0, KEY_READ, &probe) == ERROR_SUCCESS) {
    RegCloseKey(probe);
    GTEST_SKIP() << "the registry does not enforce a key's security descriptor";
  }
  CAppInfo::SetManualStateBits(0x10000);
  int thrown = -1;
  try {
    CAppInfo::Init(&m_settings, L"kept");
  } catch (int value) {
    thrown = value;
  }
  EXPECT_EQ(0, thrown);
  EXPECT_EQ(1u, CAppInfo::GetAppState());
  EXPECT_STREQ(L"kept", CAppInfo::GetUserDataPath());
}

// ---- Is64BitOperatingSystem ----
//
// The engine's own import of GetProcAddress is redirected, so the test sees
// every lookup of "IsWow64Process" and can make the call fail.

namespace {

FARPROC(WINAPI* g_realGetProcAddress)(HMODULE, LPCSTR) = nullptr;
LONG g_wow64Lookups = 0;
bool g_failWow64 = false;

BOOL WINAPI FailingIsWow64Process(HANDLE, PBOOL) {
  SetLastError(ERROR_ACCESS_DENIED);
  return FALSE;
}

FARPROC WINAPI CountingGetProcAddress(HMODULE module, LPCSTR name) {
  if (reinterpret_cast<ULONG_PTR>(name) > 0xFFFF && strcmp(name, "IsWow64Process") == 0) {
    InterlockedIncrement(&g_wow64Lookups);
    if (g_failWow64) return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&FailingIsWow64Process));
  }
  return g_realGetProcAddress(module, name);
}

// Replaces every import slot of the module that holds target; returns how many.
int PatchImports(HMODULE module, void* target, void* replacement) {
  auto* base = reinterpret_cast<BYTE*>(module);
  auto* dos = reinterpret_cast<IMAGE_DOS_HEADER*>(base);
  auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
  const IMAGE_DATA_DIRECTORY& dir = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  if (dir.VirtualAddress == 0) return 0;
  int patched = 0;
  for (auto* desc = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + dir.VirtualAddress); desc->Name; ++desc) {
    for (auto* slot = reinterpret_cast<IMAGE_THUNK_DATA*>(base + desc->FirstThunk); slot->u1.Function; ++slot) {
      if (reinterpret_cast<void*>(slot->u1.Function) != target) continue;
      DWORD old = 0;
      VirtualProtect(&slot->u1.Function, sizeof(slot->u1.Function), PAGE_READWRITE, &old);
      slot->u1.Function = reinterpret_cast<ULONG_PTR>(replacement);
      VirtualProtect(&slot->u1.Function, sizeof(slot->u1.Function), old, &old);
      ++patched;
    }
  }
  return patched;
}

class ImportHook {
 public:
  ImportHook() {
    m_engine = GetModuleHandleW(L"broomcore.dll");
    void* real = reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32"), "GetProcAddress"));
    g_realGetProcAddress = reinterpret_cast<decltype(g_realGetProcAddress)>(real);
    m_real = real;
    m_patched = m_engine ? PatchImports(m_engine, real, reinterpret_cast<void*>(&CountingGetProcAddress)) : 0;
  }
  ~ImportHook() {
    if (m_patched) PatchImports(m_engine, reinterpret_cast<void*>(&CountingGetProcAddress), m_real);
    g_failWow64 = false;
  }
  bool Active() const { return m_patched > 0; }

 private:
  HMODULE m_engine = nullptr;
  void* m_real = nullptr;
  int m_patched = 0;
};

bool ProcessIsWow64() {
  BOOL wow64 = FALSE;
  IsWow64Process(GetCurrentProcess(), &wow64);
  return wow64 != FALSE;
}

}  // namespace

TEST(AppInfo64Bit, FailureThrowsAndIsRetriedThenAnswerIsCached) {
  static bool firstRun = true;
  ImportHook hook;
  if (!hook.Active()) GTEST_SKIP() << "the engine does not import GetProcAddress from kernel32 directly";
  g_wow64Lookups = 0;

  if (firstRun) {
    // No other test of this program asks before this one.
    firstRun = false;
    g_failWow64 = true;
    bool threw = false;
    try {
      CAppInfo::Is64BitOperatingSystem();
    } catch (const Win32Exception& e) {
      threw = true;
      EXPECT_EQ(0u, e.m_message.find(L"IsWow64Process\r\nError: ")) << broomtest::Narrow(e.m_message);
    }
    EXPECT_TRUE(threw);
    EXPECT_EQ(1, g_wow64Lookups);
    // Not cached after the failure: the next call looks the function up again.
    g_failWow64 = false;
    EXPECT_EQ(ProcessIsWow64(), CAppInfo::Is64BitOperatingSystem());
    EXPECT_EQ(2, g_wow64Lookups);
  }
  LONG before = g_wow64Lookups;
  EXPECT_EQ(ProcessIsWow64(), CAppInfo::Is64BitOperatingSystem());
  EXPECT_EQ(ProcessIsWow64(), CAppInfo::Is64BitOperatingSystem());
  EXPECT_EQ(before, g_wow64Lookups);
}
