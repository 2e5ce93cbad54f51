#include <gtest/gtest.h>

#include <cstring>
#include <vector>

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

TEST_F(AppInfoTest, InitReadsBothRegistryBitsUserCopyFirst) {
  struct Value {
    bool system;
    const wchar_t* name;
    DWORD type;
    DWORD data;
  };
  struct Case {
    const char* what;
    std::vector<Value> values;
    unsigned long state;
  } cases[] = {
      {"no key", {}, 0x1},
      {"both bits", {{false, L"Defanged", REG_DWORD, 1}, {true, L"ReportStats", REG_DWORD, 0x100}}, 0xB},
      {"user zero masks the system value", {{false, L"Defanged", REG_DWORD, 0}, {true, L"Defanged", REG_DWORD, 5}}, 0x1},
      {"system value alone", {{true, L"Defanged", REG_DWORD, 5}}, 0x3},
      {"other types", {{false, L"ReportStats", REG_SZ, L'1'}, {true, L"Defanged", REG_BINARY, 1}}, 0x1},
      {"wrong user type falls back", {{false, L"ReportStats", REG_SZ, L'1'}, {true, L"ReportStats", REG_DWORD, 1}}, 0x9},
  };
  for (const Case& c : cases) {
    AppKey key;
    CRegSettings settings(settingstest::kCompany, key.Product());
    for (const Value& v : c.values) key.Write(v.system, v.name, v.type, &v.data, sizeof(v.data));
    CAppInfo::Init(&settings, L"C:\\Users\\me\\AppData\\Broom");
    EXPECT_EQ(c.state, CAppInfo::GetAppState()) << c.what;
    EXPECT_STREQ(L"C:\\Users\\me\\AppData\\Broom", CAppInfo::GetUserDataPath());
    if (c.values.empty()) {
      EXPECT_FALSE(key.Exists(false) || key.Exists(true)) << "reading created the key";
    }
  }
}

TEST_F(AppInfoTest, ManualBitsAreTheHighHalfOnly) {
  m_key.WriteDword(false, L"Defanged", 1);
  m_key.WriteDword(true, L"ReportStats", 0x100);
  CAppInfo::Init(&m_settings, L"p");
  CAppInfo::SetManualStateBits(0xFFFFFFFF);
  EXPECT_EQ(0xFFFF000Bu, CAppInfo::GetAppState());
  EXPECT_EQ(0xFFFF000Bu, CAppInfo::m_appState);
  CAppInfo::ClearManualStateBits(0xFFFFFFFF);
  EXPECT_EQ(0x0000000Bu, CAppInfo::GetAppState());
  CAppInfo::SetManualStateBits(0x0000FFF4);
  EXPECT_EQ(0xBu, CAppInfo::GetAppState());
  CAppInfo::SetManualStateBits(0x00030000);
  CAppInfo::ClearManualStateBits(0x0001FFFF);  // the registry bits stay
  EXPECT_EQ(0x0002000Bu, CAppInfo::GetAppState());
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
  CAppInfo::Init(&m_settings, nullptr);
  ASSERT_NE(nullptr, CAppInfo::GetUserDataPath());
  EXPECT_STREQ(L"", CAppInfo::GetUserDataPath());
}

TEST_F(AppInfoTest, DeniedKeyThrowsIntZeroAfterPathAndFirstBit) {
  std::string why;
  if (!settingstest::DenyOrSkip(m_key, false, why)) GTEST_SKIP() << why;
  CAppInfo::SetManualStateBits(0x10000);
  EXPECT_EQ(0, settingstest::ThrownInt([&] { CAppInfo::Init(&m_settings, L"kept"); }));
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
