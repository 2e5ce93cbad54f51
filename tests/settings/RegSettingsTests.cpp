#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include <cstring>
#include <vector>

#include "SettingsTestKey.h"
#include "settings/RegSettings.h"

using settingstest::AppKey;
using settingstest::RawValue;

namespace {

std::vector<BYTE> Bytes(std::initializer_list<int> list) {
  std::vector<BYTE> out;
  for (int b : list) out.push_back(static_cast<BYTE>(b));
  return out;
}

class RegSettingsTest : public testing::TestWithParam<bool> {
 protected:
  bool System() const { return GetParam(); }
  bool SetDword(const wchar_t* name, unsigned long value) {
    return System() ? m_settings.SetSystemValue(name, value) : m_settings.SetUserValue(name, value);
  }
  bool SetBool(const wchar_t* name, bool value) {
    return System() ? m_settings.SetSystemValue(name, value) : m_settings.SetUserValue(name, value);
  }
  bool GetDword(const wchar_t* name, unsigned long& value, unsigned long def) {
    return System() ? m_settings.GetSystemValue(name, value, def) : m_settings.GetUserValue(name, value, def);
  }
  bool GetBool(const wchar_t* name, bool& value, bool def) {
    return System() ? m_settings.GetSystemValue(name, value, def) : m_settings.GetUserValue(name, value, def);
  }
  long GetRaw(const wchar_t* name, void* buffer, unsigned long& size, void* def) {
    return System() ? m_settings.GetSystemValue(name, buffer, size, def)
                    : m_settings.GetUserValue(name, buffer, size, def);
  }
  bool SetRaw(const wchar_t* name, void* data, unsigned long size) {
    return System() ? m_settings.SetSystemValue(name, data, size) : m_settings.SetUserValue(name, data, size);
  }

  AppKey m_key;
  CRegSettings m_settings{settingstest::kCompany, m_key.Product()};
};

INSTANTIATE_TEST_SUITE_P(Hives, RegSettingsTest, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& info) { return info.param ? "System" : "User"; });

}  // namespace

TEST(RegSettings, PathIsSoftwareThenBothNames) {
  CRegSettings settings(L"Acme", L"Cleaner");
  EXPECT_STREQ(L"SOFTWARE\\Acme\\Cleaner", settings.GetRegistryPath());
  CRegSettings copy(settings);
  CRegSettings other(L"X", L"Y");
  other = settings;
  EXPECT_STREQ(L"SOFTWARE\\Acme\\Cleaner", copy.GetRegistryPath());
  EXPECT_STREQ(L"SOFTWARE\\Acme\\Cleaner", other.GetRegistryPath());
  EXPECT_NE(settings.GetRegistryPath(), copy.GetRegistryPath());  // its own copy, not shared
}

TEST_P(RegSettingsTest, MissingKeyGivesDefaultsAndCreatesNothing) {
  unsigned long dword = 0;
  EXPECT_FALSE(GetDword(L"Count", dword, 77));
  EXPECT_EQ(77u, dword);
  bool flag = false;
  EXPECT_FALSE(GetBool(L"Flag", flag, true));
  EXPECT_TRUE(flag);

  BYTE buffer[4] = {0, 0, 0, 0};
  BYTE def[4] = {9, 8, 7, 6};
  unsigned long size = sizeof(buffer);
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, GetRaw(L"Blob", buffer, size, def));
  EXPECT_EQ(4u, size);
  EXPECT_EQ(0, memcmp(buffer, def, 4));

  CString text = L"old";
  EXPECT_FALSE(System() ? m_settings.GetSystemValue(L"Text", text, L"dflt")
                        : m_settings.GetUserValue(L"Text", text, L"dflt"));
  EXPECT_EQ(CString(L"dflt"), text);
  EXPECT_FALSE(System() ? m_settings.GetSystemValue(L"Text", text, nullptr)
                        : m_settings.GetUserValue(L"Text", text, nullptr));
  EXPECT_TRUE(text.IsEmpty());

  EXPECT_EQ(nullptr, m_settings.GetMultiStringValue(L"List", System(), nullptr).Get());
  unsigned long secretSize = 10;
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, System() ? m_settings.GetSystemSecretValue(L"S", buffer, secretSize, nullptr)
                                          : m_settings.GetUserSecretValue(L"S", buffer, secretSize, nullptr));

  EXPECT_FALSE(m_key.Exists(false));
  EXPECT_FALSE(m_key.Exists(true));
}

TEST_P(RegSettingsTest, DwordAndBoolAreStoredAsExactDwords) {
  ASSERT_TRUE(SetDword(L"Count", 0x12345678));
  RawValue raw = m_key.Read(System(), L"Count");
  ASSERT_EQ(ERROR_SUCCESS, raw.status);
  EXPECT_EQ(static_cast<DWORD>(REG_DWORD), raw.type);
  EXPECT_EQ(Bytes({0x78, 0x56, 0x34, 0x12}), raw.bytes);
  // Only the hive asked for was written.
  EXPECT_FALSE(m_key.Exists(!System()));

  ASSERT_TRUE(SetBool(L"On", true));
  raw = m_key.Read(System(), L"On");
  EXPECT_EQ(static_cast<DWORD>(REG_DWORD), raw.type);
  EXPECT_EQ(Bytes({1, 0, 0, 0}), raw.bytes);
  ASSERT_TRUE(SetBool(L"Off", false));
  EXPECT_EQ(Bytes({0, 0, 0, 0}), m_key.Read(System(), L"Off").bytes);

  unsigned long dword = 0;
  EXPECT_TRUE(GetDword(L"Count", dword, 1));
  EXPECT_EQ(0x12345678u, dword);
  bool flag = true;
  EXPECT_TRUE(GetBool(L"Off", flag, true));
  EXPECT_FALSE(flag);
}

TEST_P(RegSettingsTest, AnyNonZeroDwordReadsAsTrue) {
  m_key.WriteDword(System(), L"Flag", 0x80000000);
  bool flag = false;
  EXPECT_TRUE(GetBool(L"Flag", flag, false));
  EXPECT_TRUE(flag);
}

TEST_P(RegSettingsTest, WrongTypesGiveDefaultsAndStatus87) {
  const wchar_t text[] = L"1";
  m_key.Write(System(), L"Number", REG_SZ, text, sizeof(text));
  unsigned long dword = 0;
  EXPECT_FALSE(GetDword(L"Number", dword, 42));
  EXPECT_EQ(42u, dword);
  bool flag = false;
  EXPECT_FALSE(GetBool(L"Number", flag, true));
  EXPECT_TRUE(flag);

  BYTE buffer[4] = {};
  BYTE def[4] = {0xAA, 0xBB, 0xCC, 0xDD};
  unsigned long size = sizeof(buffer);
  EXPECT_EQ(ERROR_INVALID_PARAMETER, GetRaw(L"Number", buffer, size, def));
  EXPECT_EQ(sizeof(text), size);
  EXPECT_EQ(0, memcmp(buffer, def, 4));

  // A REG_BINARY of four bytes is not a DWORD either.
  BYTE four[4] = {1, 0, 0, 0};
  m_key.Write(System(), L"Binary", REG_BINARY, four, 4);
  EXPECT_FALSE(GetDword(L"Binary", dword, 5));
  EXPECT_EQ(5u, dword);
  // A DWORD of another size cannot be read into four bytes.
  BYTE eight[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  m_key.Write(System(), L"Long", REG_DWORD, eight, 8);
  EXPECT_FALSE(GetDword(L"Long", dword, 6));
  EXPECT_EQ(6u, dword);
}

TEST_P(RegSettingsTest, RawValuesKeepTheirBytesAndSize) {
  BYTE data[5] = {0, 0xFF, 0x10, 0, 0x7F};
  ASSERT_TRUE(SetRaw(L"Blob", data, sizeof(data)));
  RawValue raw = m_key.Read(System(), L"Blob");
  EXPECT_EQ(static_cast<DWORD>(REG_BINARY), raw.type);
  EXPECT_EQ(Bytes({0, 0xFF, 0x10, 0, 0x7F}), raw.bytes);

  BYTE buffer[16];
  memset(buffer, 0xEE, sizeof(buffer));
  unsigned long size = sizeof(buffer);
  EXPECT_EQ(ERROR_SUCCESS, GetRaw(L"Blob", buffer, size, nullptr));
  EXPECT_EQ(5u, size);
  EXPECT_EQ(0, memcmp(buffer, data, 5));
  EXPECT_EQ(0xEE, buffer[5]);

  ASSERT_TRUE(SetRaw(L"Empty", nullptr, 0));
  raw = m_key.Read(System(), L"Empty");
  EXPECT_EQ(static_cast<DWORD>(REG_BINARY), raw.type);
  EXPECT_TRUE(raw.bytes.empty());
}

TEST_P(RegSettingsTest, ShortRawBufferGives234AndTheStoredSizeWithoutDefault) {
  BYTE data[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  ASSERT_TRUE(SetRaw(L"Blob", data, sizeof(data)));
  BYTE buffer[4] = {0, 0, 0, 0};
  BYTE def[4] = {0xAA, 0xAA, 0xAA, 0xAA};
  unsigned long size = sizeof(buffer);
  EXPECT_EQ(ERROR_MORE_DATA, GetRaw(L"Blob", buffer, size, def));
  EXPECT_EQ(12u, size);
  EXPECT_NE(0, memcmp(buffer, def, 4));
}

TEST_P(RegSettingsTest, MissingValueInExistingKeyGivesStatus2) {
  m_key.Create(System());
  BYTE buffer[2] = {0, 0};
  BYTE def[2] = {5, 6};
  unsigned long size = 2;
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, GetRaw(L"Nothing", buffer, size, def));
  EXPECT_EQ(2u, size);
  EXPECT_EQ(5, buffer[0]);
  EXPECT_EQ(6, buffer[1]);
}

// ---- user copy before system copy ----

TEST(RegSettingsUserOrSystem, UserValueOfZeroMasksSystemValue) {
  AppKey key;
  CRegSettings settings(settingstest::kCompany, key.Product());
  key.WriteDword(false, L"Value", 0);
  key.WriteDword(true, L"Value", 1);
  unsigned long dword = 99;
  EXPECT_TRUE(settings.GetUserOrSystemValue(L"Value", dword, 7));
  EXPECT_EQ(0u, dword);
  bool flag = true;
  EXPECT_TRUE(settings.GetUserOrSystemValue(L"Value", flag, true));
  EXPECT_FALSE(flag);
}

TEST(RegSettingsUserOrSystem, SystemCopyAnswersWhenUserCopyCannot) {
  AppKey key;
  CRegSettings settings(settingstest::kCompany, key.Product());
  key.WriteDword(true, L"Value", 5);
  // The user copy holds the name with another type: it does not count.
  const wchar_t text[] = L"9";
  key.Write(false, L"Value", REG_SZ, text, sizeof(text));
  unsigned long dword = 0;
  EXPECT_TRUE(settings.GetUserOrSystemValue(L"Value", dword, 7));
  EXPECT_EQ(5u, dword);
  bool flag = false;
  EXPECT_TRUE(settings.GetUserOrSystemValue(L"Value", flag, false));
  EXPECT_TRUE(flag);

  EXPECT_FALSE(settings.GetUserOrSystemValue(L"Missing", dword, 7));
  EXPECT_EQ(7u, dword);
  EXPECT_FALSE(settings.GetUserOrSystemValue(L"Missing", flag, true));
  EXPECT_TRUE(flag);
}

TEST(RegSettingsUserOrSystem, RawReadStopsAtUserCopyUnlessItFailed) {
  AppKey key;
  CRegSettings settings(settingstest::kCompany, key.Product());
  BYTE user[8] = {1, 1, 1, 1, 1, 1, 1, 1};
  BYTE system[2] = {2, 2};
  key.Write(false, L"Blob", REG_BINARY, user, sizeof(user));
  key.Write(true, L"Blob", REG_BINARY, system, sizeof(system));

  // A short buffer for the user copy: 234, and the system copy is not read.
  BYTE buffer[4] = {0, 0, 0, 0};
  unsigned long size = sizeof(buffer);
  EXPECT_EQ(ERROR_MORE_DATA, settings.GetUserOrSystemValue(L"Blob", buffer, size, nullptr));
  EXPECT_EQ(8u, size);

  // Only a system copy: it is returned.
  key.Write(true, L"Other", REG_BINARY, system, sizeof(system));
  size = sizeof(buffer);
  EXPECT_EQ(ERROR_SUCCESS, settings.GetUserOrSystemValue(L"Other", buffer, size, nullptr));
  EXPECT_EQ(2u, size);
  EXPECT_EQ(2, buffer[0]);
  EXPECT_EQ(2, buffer[1]);

  // Neither: the system status, with the default copied.
  BYTE def[4] = {7, 7, 7, 7};
  size = sizeof(buffer);
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, settings.GetUserOrSystemValue(L"None", buffer, size, def));
  EXPECT_EQ(0, memcmp(buffer, def, 4));
}

// ---- string lists ----

TEST_P(RegSettingsTest, MultiStringSkipsEmptyStringsAndStoresExactBytes) {
  m_settings.SetMultiStringValue(L"List", System(), {L"a", L"", L"b"}, nullptr);
  RawValue raw = m_key.Read(System(), L"List");
  ASSERT_EQ(ERROR_SUCCESS, raw.status);
  EXPECT_EQ(static_cast<DWORD>(REG_MULTI_SZ), raw.type);
  EXPECT_EQ(Bytes({'a', 0, 0, 0, 'b', 0, 0, 0, 0, 0}), raw.bytes);

  CRefPtr<IConstTArray<CString>> list = m_settings.GetMultiStringValue(L"List", System(), nullptr);
  ASSERT_NE(nullptr, list.Get());
  ASSERT_EQ(2u, list->GetArray().size());
  EXPECT_EQ(CString(L"a"), list->GetArray()[0]);
  EXPECT_EQ(CString(L"b"), list->GetArray()[1]);
  EXPECT_FALSE(m_key.Exists(!System()));
}

TEST_P(RegSettingsTest, EmptyMultiStringIsTwoBytesAndReadsAsNull) {
  m_settings.SetMultiStringValue(L"None", System(), {}, nullptr);
  RawValue raw = m_key.Read(System(), L"None");
  EXPECT_EQ(static_cast<DWORD>(REG_MULTI_SZ), raw.type);
  EXPECT_EQ(Bytes({0, 0}), raw.bytes);
  EXPECT_EQ(nullptr, m_settings.GetMultiStringValue(L"None", System(), nullptr).Get());

  m_settings.SetMultiStringValue(L"Blanks", System(), {L"", L""}, nullptr);
  EXPECT_EQ(Bytes({0, 0}), m_key.Read(System(), L"Blanks").bytes);

  // Exactly four bytes is still too short to hold a list.
  m_key.Write(System(), L"Four", REG_MULTI_SZ, "x\0\0\0", 4);
  EXPECT_EQ(nullptr, m_settings.GetMultiStringValue(L"Four", System(), nullptr).Get());
}

TEST_P(RegSettingsTest, MultiStringWithLeadingEmptyStringGivesEmptyArray) {
  const wchar_t data[] = {0, L'a', 0, 0};
  m_key.Write(System(), L"List", REG_MULTI_SZ, data, sizeof(data));
  CRefPtr<IConstTArray<CString>> list = m_settings.GetMultiStringValue(L"List", System(), nullptr);
  ASSERT_NE(nullptr, list.Get());
  EXPECT_TRUE(list->GetArray().empty());
}

TEST_P(RegSettingsTest, MultiStringOfAnotherTypeIsNull) {
  const wchar_t data[] = {L'a', 0, L'b', 0, 0};
  m_key.Write(System(), L"List", REG_SZ, data, sizeof(data));
  EXPECT_EQ(nullptr, m_settings.GetMultiStringValue(L"List", System(), nullptr).Get());
  m_key.Write(System(), L"List", REG_BINARY, data, sizeof(data));
  EXPECT_EQ(nullptr, m_settings.GetMultiStringValue(L"List", System(), nullptr).Get());
}

TEST_P(RegSettingsTest, MultiStringWithoutFinalNulsStaysInsideTheData) {
  // Last string unterminated: it ends where the data ends.
  const wchar_t data[] = {L'a', L'b', 0, L'c', L'd', L'e'};
  m_key.Write(System(), L"List", REG_MULTI_SZ, data, sizeof(data));
  CRefPtr<IConstTArray<CString>> list = m_settings.GetMultiStringValue(L"List", System(), nullptr);
  ASSERT_NE(nullptr, list.Get());
  ASSERT_EQ(2u, list->GetArray().size());
  EXPECT_EQ(CString(L"ab"), list->GetArray()[0]);
  EXPECT_EQ(CString(L"cde"), list->GetArray()[1]);
}

TEST_P(RegSettingsTest, LongMultiStringGoesThroughTheHeapBothWays) {
  // 3 strings of 1500 characters: 9006 bytes, past the stack buffers.
  std::vector<CString> items;
  for (wchar_t c : {L'x', L'y', L'z'}) items.emplace_back(c, 1500);
  m_settings.SetMultiStringValue(L"Long", System(), items, L"ignored");
  RawValue raw = m_key.Read(System(), L"Long");
  EXPECT_EQ(static_cast<size_t>((3 * 1501 + 1) * 2), raw.bytes.size());
  CRefPtr<IConstTArray<CString>> list = m_settings.GetMultiStringValue(L"Long", System(), L"ignored");
  ASSERT_NE(nullptr, list.Get());
  ASSERT_EQ(3u, list->GetArray().size());
  for (size_t i = 0; i < 3; ++i) EXPECT_EQ(items[i], list->GetArray()[i]);
}

TEST(RegSettingsMultiString, ArrayOutlivesTheSettingsObject) {
  AppKey key;
  CRefPtr<IConstTArray<CString>> list;
  {
    CRegSettings settings(settingstest::kCompany, key.Product());
    settings.SetMultiStringValue(L"L", false, {L"one"}, nullptr);
    list = settings.GetMultiStringValue(L"L", false, nullptr);
  }
  ASSERT_NE(nullptr, list.Get());
  // The reference we hold is the only one.
  list->AddRef();
  EXPECT_EQ(1u, list->Release());
  EXPECT_EQ(CString(L"one"), list->GetArray()[0]);
}

// ---- keys that exist but cannot be used ----

class RegSettingsDeniedTest : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    if (!m_key.DenyAccess(GetParam())) GTEST_SKIP() << "the registry does not take a key's security descriptor";
    HKEY probe = nullptr;
    LONG rc = RegOpenKeyExW(AppKey::Hive(GetParam()), m_key.Path().c_str(), 0, KEY_READ, &probe);
    if (rc == ERROR_SUCCESS) {
      RegCloseKey(probe);
      GTEST_SKIP() << "the registry does not enforce a key's security descriptor";
    }
  }

  AppKey m_key;
  CRegSettings m_settings{settingstest::kCompany, m_key.Product()};
};

INSTANTIATE_TEST_SUITE_P(Hives, RegSettingsDeniedTest, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& info) { return info.param ? "System" : "User"; });

template <class F>
int ThrownInt(F f) {
  try {
    f();
  } catch (int value) {
    return value;
  }
  return -1;  // nothing thrown
}

TEST_P(RegSettingsDeniedTest, GettersAndWritersThrowIntZero) {
  bool system = GetParam();
  CRegSettings& s = m_settings;
  unsigned long dword = 3;
  bool flag = false;
  CString text;
  BYTE buffer[4];
  unsigned long size = sizeof(buffer);
  EXPECT_EQ(0, ThrownInt([&] { system ? s.GetSystemValue(L"V", dword, 1) : s.GetUserValue(L"V", dword, 1); }));
  EXPECT_EQ(0, ThrownInt([&] { system ? s.GetSystemValue(L"V", flag, true) : s.GetUserValue(L"V", flag, true); }));
  EXPECT_EQ(0, ThrownInt([&] {
              system ? s.GetSystemValue(L"V", buffer, size, nullptr) : s.GetUserValue(L"V", buffer, size, nullptr);
            }));
  EXPECT_EQ(0, ThrownInt([&] { system ? s.GetSystemValue(L"V", text, L"") : s.GetUserValue(L"V", text, L""); }));
  EXPECT_EQ(0, ThrownInt([&] {
              system ? s.GetSystemSecretValue(L"V", buffer, size, nullptr)
                     : s.GetUserSecretValue(L"V", buffer, size, nullptr);
            }));
  EXPECT_EQ(0, ThrownInt([&] { s.GetMultiStringValue(L"V", system, nullptr); }));

  EXPECT_EQ(0, ThrownInt([&] { system ? s.SetSystemValue(L"V", dword) : s.SetUserValue(L"V", dword); }));
  EXPECT_EQ(0, ThrownInt([&] { system ? s.SetSystemValue(L"V", flag) : s.SetUserValue(L"V", flag); }));
  EXPECT_EQ(0, ThrownInt([&] { system ? s.SetSystemValue(L"V", buffer, 4) : s.SetUserValue(L"V", buffer, 4); }));
  EXPECT_EQ(0, ThrownInt([&] {
              system ? s.SetSystemValue(L"V", CString(L"t")) : s.SetUserValue(L"V", CString(L"t"));
            }));
  EXPECT_EQ(0, ThrownInt([&] { s.SetMultiStringValue(L"V", system, {L"a"}, nullptr); }));

  // The secret setter reports by its result instead.
  EXPECT_EQ(-1, ThrownInt([&] {
              EXPECT_FALSE(system ? s.SetSystemSecretValue(L"V", buffer, 4) : s.SetUserSecretValue(L"V", buffer, 4));
            }));
}

TEST_P(RegSettingsDeniedTest, UserOrSystemThrowsWhenTheUserCopyIsDenied) {
  if (GetParam()) {
    // Denied system copy behind a readable user value: never reached.
    m_key.WriteDword(false, L"V", 4);
    unsigned long dword = 0;
    EXPECT_TRUE(m_settings.GetUserOrSystemValue(L"V", dword, 1));
    EXPECT_EQ(4u, dword);
    // Behind a missing user value it is reached, and throws.
    EXPECT_EQ(0, ThrownInt([&] { m_settings.GetUserOrSystemValue(L"Missing", dword, 1); }));
  } else {
    unsigned long dword = 0;
    EXPECT_EQ(0, ThrownInt([&] { m_settings.GetUserOrSystemValue(L"V", dword, 1); }));
  }
}

TEST(RegSettingsConcurrency, ThreadsWritingTheirOwnValuesDoNotDisturbEachOther) {
  AppKey key;
  CRegSettings settings(settingstest::kCompany, key.Product());
  struct Job {
    CRegSettings* settings;
    int index;
    int failures;
  };
  constexpr int kThreads = 4;
  Job jobs[kThreads];
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    jobs[i] = {&settings, i, 0};
    threads.emplace_back([job = &jobs[i]] {
      wchar_t name[16];
      swprintf(name, 16, L"T%d", job->index);
      for (unsigned long n = 0; n < 200; ++n) {
        unsigned long value = (static_cast<unsigned long>(job->index) << 16) | n;
        unsigned long back = 0;
        if (!job->settings->SetUserValue(name, value) || !job->settings->GetUserValue(name, back, 0) ||
            back != value)
          ++job->failures;
      }
    });
  }
  for (auto& t : threads) t.join();
  for (int i = 0; i < kThreads; ++i) {
    EXPECT_EQ(0, jobs[i].failures) << "thread " << i;
  }
}
