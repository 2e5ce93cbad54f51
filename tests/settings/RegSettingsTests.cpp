#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "SettingsTestKey.h"
#include "settings/RegSettings.h"

using namespace settingstest;

namespace {

std::vector<BYTE> Bytes(std::initializer_list<int> list) { return std::vector<BYTE>(list.begin(), list.end()); }

std::vector<BYTE> Wide(std::initializer_list<wchar_t> chars) {
  std::vector<BYTE> out(chars.size() * sizeof(wchar_t));
  memcpy(out.data(), chars.begin(), out.size());
  return out;
}

std::vector<CString> Strings(const CRefPtr<IConstTArray<CString>>& list) {
  return list ? list->GetArray() : std::vector<CString>{};
}

using RegSettingsTest = HiveTest;
INSTANTIATE_TEST_SUITE_P(Hives, RegSettingsTest, testing::Values(false, true), HiveName);

}  // namespace

TEST(RegSettings, PathIsSoftwareThenBothNames) {
  CRegSettings settings(L"Acme", L"Cleaner");
  CRegSettings copy(settings);
  CRegSettings other(L"X", L"Y");
  other = settings;
  for (const CRegSettings* s : {&settings, &copy, &other}) EXPECT_STREQ(L"SOFTWARE\\Acme\\Cleaner", s->GetRegistryPath());
  EXPECT_NE(settings.GetRegistryPath(), copy.GetRegistryPath());  // its own copy, not shared
}

TEST_P(RegSettingsTest, MissingKeyGivesDefaultsAndCreatesNothing) {
  unsigned long dword = 0;
  EXPECT_FALSE(Get(L"Count", dword, 77ul));
  EXPECT_EQ(77u, dword);
  bool flag = false;
  EXPECT_FALSE(Get(L"Flag", flag, true));
  EXPECT_TRUE(flag);
  BYTE buffer[4] = {};
  BYTE def[4] = {9, 8, 7, 6};
  unsigned long size = sizeof(buffer);
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, GetRaw(L"Blob", buffer, size, def));
  EXPECT_EQ(4u, size);
  EXPECT_EQ(0, memcmp(buffer, def, 4));
  CString text = L"old";
  EXPECT_FALSE(Get(L"Text", text, L"dflt"));
  EXPECT_EQ(CString(L"dflt"), text);
  EXPECT_FALSE(Get(L"Text", text, static_cast<const wchar_t*>(nullptr)));
  EXPECT_TRUE(text.IsEmpty());
  EXPECT_EQ(nullptr, m_settings.GetMultiStringValue(L"List", System(), nullptr).Get());
  size = sizeof(buffer);
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, GetSecret(L"S", buffer, size));

  EXPECT_FALSE(m_key.Exists(false));
  EXPECT_FALSE(m_key.Exists(true));
}

TEST_P(RegSettingsTest, DwordAndBoolAreStoredAsExactDwords) {
  ASSERT_TRUE(Set(L"Count", 0x12345678ul));
  ASSERT_TRUE(Set(L"On", true));
  ASSERT_TRUE(Set(L"Off", false));
  EXPECT_EQ(static_cast<DWORD>(REG_DWORD), StoredType(L"Count"));
  EXPECT_EQ(Bytes({0x78, 0x56, 0x34, 0x12}), Stored(L"Count"));
  EXPECT_EQ(static_cast<DWORD>(REG_DWORD), StoredType(L"On"));
  EXPECT_EQ(Bytes({1, 0, 0, 0}), Stored(L"On"));
  EXPECT_EQ(Bytes({0, 0, 0, 0}), Stored(L"Off"));
  EXPECT_FALSE(m_key.Exists(!System()));  // only the hive asked for

  unsigned long dword = 0;
  EXPECT_TRUE(Get(L"Count", dword, 1ul));
  EXPECT_EQ(0x12345678u, dword);
  bool flag = true;
  EXPECT_TRUE(Get(L"Off", flag, true));
  EXPECT_FALSE(flag);
  m_key.WriteDword(System(), L"High", 0x80000000);  // any non-zero DWORD is true
  EXPECT_TRUE(Get(L"High", flag, false));
  EXPECT_TRUE(flag);
}

TEST_P(RegSettingsTest, WrongTypesGiveDefaultsAndStatus87) {
  const wchar_t text[] = L"1";
  m_key.Write(System(), L"Number", REG_SZ, text, sizeof(text));
  unsigned long dword = 0;
  EXPECT_FALSE(Get(L"Number", dword, 42ul));
  EXPECT_EQ(42u, dword);
  bool flag = false;
  EXPECT_FALSE(Get(L"Number", flag, true));
  EXPECT_TRUE(flag);
  BYTE buffer[4] = {};
  BYTE def[4] = {0xAA, 0xBB, 0xCC, 0xDD};
  unsigned long size = sizeof(buffer);
  EXPECT_EQ(ERROR_INVALID_PARAMETER, GetRaw(L"Number", buffer, size, def));
  EXPECT_EQ(sizeof(text), size);
  EXPECT_EQ(0, memcmp(buffer, def, 4));

  // neither four bytes of REG_BINARY nor a REG_DWORD of another size is a DWORD
  Write(L"Binary", REG_BINARY, Bytes({1, 0, 0, 0}));
  EXPECT_FALSE(Get(L"Binary", dword, 5ul));
  EXPECT_EQ(5u, dword);
  Write(L"Long", REG_DWORD, Bytes({1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_FALSE(Get(L"Long", dword, 6ul));
  EXPECT_EQ(6u, dword);
}

TEST_P(RegSettingsTest, RawValuesKeepBytesAndSizeAndReportWhatIsMissing) {
  const std::vector<BYTE> data = Bytes({0, 0xFF, 0x10, 0, 0x7F});
  ASSERT_TRUE(SetRaw(L"Blob", data.data(), 5));
  EXPECT_EQ(static_cast<DWORD>(REG_BINARY), StoredType(L"Blob"));
  EXPECT_EQ(data, Stored(L"Blob"));
  BYTE buffer[16];
  memset(buffer, 0xEE, sizeof(buffer));
  unsigned long size = sizeof(buffer);
  EXPECT_EQ(ERROR_SUCCESS, GetRaw(L"Blob", buffer, size, nullptr));
  EXPECT_EQ(5u, size);
  EXPECT_EQ(0, memcmp(buffer, data.data(), 5));
  EXPECT_EQ(0xEE, buffer[5]);

  ASSERT_TRUE(SetRaw(L"Empty", nullptr, 0));
  EXPECT_EQ(static_cast<DWORD>(REG_BINARY), StoredType(L"Empty"));
  EXPECT_TRUE(Stored(L"Empty").empty());

  // a short buffer: 234 and the stored size, and the default is not copied
  BYTE def[4] = {0xAA, 0xAA, 0xAA, 0xAA};
  size = 4;
  EXPECT_EQ(ERROR_MORE_DATA, GetRaw(L"Blob", buffer, size, def));
  EXPECT_EQ(5u, size);
  EXPECT_NE(0, memcmp(buffer, def, 4));
  // a missing value in the existing key: 2, with the default copied
  size = 2;
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, GetRaw(L"Nothing", buffer, size, def));
  EXPECT_EQ(2u, size);
  EXPECT_EQ(0, memcmp(buffer, def, 2));
}

TEST(RegSettingsUserOrSystem, UserCopyAnswersFirstUnlessItCannot) {
  AppKey key;
  CRegSettings settings(kCompany, key.Product());
  unsigned long dword = 99;
  bool flag = true;
  // a user value of 0 masks the system value
  key.WriteDword(false, L"Zero", 0);
  key.WriteDword(true, L"Zero", 1);
  EXPECT_TRUE(settings.GetUserOrSystemValue(L"Zero", dword, 7));
  EXPECT_EQ(0u, dword);
  EXPECT_TRUE(settings.GetUserOrSystemValue(L"Zero", flag, true));
  EXPECT_FALSE(flag);
  // a user copy of another type does not count
  key.WriteDword(true, L"Typed", 5);
  const wchar_t nine[] = L"9";
  key.Write(false, L"Typed", REG_SZ, nine, sizeof(nine));
  EXPECT_TRUE(settings.GetUserOrSystemValue(L"Typed", dword, 7));
  EXPECT_EQ(5u, dword);
  EXPECT_TRUE(settings.GetUserOrSystemValue(L"Typed", flag, false));
  EXPECT_TRUE(flag);
  EXPECT_FALSE(settings.GetUserOrSystemValue(L"Missing", dword, 7));
  EXPECT_EQ(7u, dword);
  EXPECT_FALSE(settings.GetUserOrSystemValue(L"Missing", flag, true));
  EXPECT_TRUE(flag);

  // raw: a short buffer for the user copy stops the search with 234
  BYTE user[8] = {1, 1, 1, 1, 1, 1, 1, 1};
  BYTE system[2] = {2, 2};
  key.Write(false, L"Blob", REG_BINARY, user, sizeof(user));
  key.Write(true, L"Blob", REG_BINARY, system, sizeof(system));
  key.Write(true, L"Other", REG_BINARY, system, sizeof(system));
  BYTE buffer[4] = {};
  unsigned long size = sizeof(buffer);
  EXPECT_EQ(ERROR_MORE_DATA, settings.GetUserOrSystemValue(L"Blob", buffer, size, nullptr));
  EXPECT_EQ(8u, size);
  size = sizeof(buffer);
  EXPECT_EQ(ERROR_SUCCESS, settings.GetUserOrSystemValue(L"Other", buffer, size, nullptr));
  EXPECT_EQ(2u, size);
  EXPECT_EQ(2, buffer[1]);
  // neither copy: the system status, with the default copied
  BYTE def[4] = {7, 7, 7, 7};
  size = sizeof(buffer);
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, settings.GetUserOrSystemValue(L"None", buffer, size, def));
  EXPECT_EQ(0, memcmp(buffer, def, 4));
}

TEST_P(RegSettingsTest, MultiStringsAreStoredExactlyWithoutEmptyStrings) {
  m_settings.SetMultiStringValue(L"List", System(), {L"a", L"", L"b"}, nullptr);
  EXPECT_EQ(static_cast<DWORD>(REG_MULTI_SZ), StoredType(L"List"));
  EXPECT_EQ(Bytes({'a', 0, 0, 0, 'b', 0, 0, 0, 0, 0}), Stored(L"List"));
  EXPECT_EQ((std::vector<CString>{L"a", L"b"}), Strings(m_settings.GetMultiStringValue(L"List", System(), nullptr)));
  EXPECT_FALSE(m_key.Exists(!System()));

  // nothing left to store: the two bytes of an empty list, read back as null
  m_settings.SetMultiStringValue(L"None", System(), {}, nullptr);
  m_settings.SetMultiStringValue(L"Blanks", System(), {L"", L""}, nullptr);
  EXPECT_EQ(Bytes({0, 0}), Stored(L"None"));
  EXPECT_EQ(Bytes({0, 0}), Stored(L"Blanks"));
  EXPECT_EQ(nullptr, m_settings.GetMultiStringValue(L"None", System(), nullptr).Get());

  // 3 strings of 1500 characters: 9006 bytes, past the stack buffers both ways
  std::vector<CString> items;
  for (wchar_t c : {L'x', L'y', L'z'}) items.emplace_back(c, 1500);
  m_settings.SetMultiStringValue(L"Long", System(), items, L"ignored");
  EXPECT_EQ(static_cast<size_t>((3 * 1501 + 1) * 2), Stored(L"Long").size());
  EXPECT_EQ(items, Strings(m_settings.GetMultiStringValue(L"Long", System(), L"ignored")));
}

TEST_P(RegSettingsTest, MultiStringReadsOfOddData) {
  struct Case {
    const wchar_t* name;
    DWORD type;
    std::vector<BYTE> data;
    bool null;
    std::vector<CString> strings;
  } cases[] = {
      {L"LeadingEmpty", REG_MULTI_SZ, Wide({0, L'a', 0, 0}), false, {}},
      {L"FourBytes", REG_MULTI_SZ, Bytes({'x', 0, 0, 0}), true, {}},
      {L"PlainString", REG_SZ, Wide({L'a', 0, L'b', 0, 0}), true, {}},
      {L"Binary", REG_BINARY, Wide({L'a', 0, L'b', 0, 0}), true, {}},
      // the last string ends where the data ends
      {L"Unterminated", REG_MULTI_SZ, Wide({L'a', L'b', 0, L'c', L'd', L'e'}), false, {L"ab", L"cde"}},
  };
  for (const Case& c : cases) {
    Write(c.name, c.type, c.data);
    CRefPtr<IConstTArray<CString>> list = m_settings.GetMultiStringValue(c.name, System(), nullptr);
    EXPECT_EQ(c.null, list.Get() == nullptr) << c.name;
    EXPECT_EQ(c.strings, Strings(list));
  }
}

TEST(RegSettingsMultiString, ArrayOutlivesTheSettingsObject) {
  AppKey key;
  CRefPtr<IConstTArray<CString>> list;
  {
    CRegSettings settings(kCompany, key.Product());
    settings.SetMultiStringValue(L"L", false, {L"one"}, nullptr);
    list = settings.GetMultiStringValue(L"L", false, nullptr);
  }
  ASSERT_NE(nullptr, list.Get());
  list->AddRef();
  EXPECT_EQ(1u, list->Release());  // the reference we hold is the only one
  EXPECT_EQ(CString(L"one"), list->GetArray()[0]);
}

// ---- keys that exist but cannot be used ----

namespace {

class RegSettingsDeniedTest : public HiveTest {
 protected:
  void SetUp() override {
    std::string why;
    if (!DenyOrSkip(m_key, System(), why)) GTEST_SKIP() << why;
  }
};
INSTANTIATE_TEST_SUITE_P(Hives, RegSettingsDeniedTest, testing::Values(false, true), HiveName);

}  // namespace

TEST_P(RegSettingsDeniedTest, GettersAndWritersThrowIntZero) {
  unsigned long dword = 3;
  bool flag = false;
  CString text;
  BYTE buffer[4];
  unsigned long size = sizeof(buffer);
  EXPECT_EQ(0, ThrownInt([&] { Get(L"V", dword, 1ul); }));
  EXPECT_EQ(0, ThrownInt([&] { Get(L"V", flag, true); }));
  EXPECT_EQ(0, ThrownInt([&] { GetRaw(L"V", buffer, size, nullptr); }));
  EXPECT_EQ(0, ThrownInt([&] { Get(L"V", text, L""); }));
  EXPECT_EQ(0, ThrownInt([&] { GetSecret(L"V", buffer, size); }));
  EXPECT_EQ(0, ThrownInt([&] { m_settings.GetMultiStringValue(L"V", System(), nullptr); }));
  EXPECT_EQ(0, ThrownInt([&] { Set(L"V", dword); }));
  EXPECT_EQ(0, ThrownInt([&] { Set(L"V", flag); }));
  EXPECT_EQ(0, ThrownInt([&] { SetRaw(L"V", buffer, 4); }));
  EXPECT_EQ(0, ThrownInt([&] { Set(L"V", CString(L"t")); }));
  EXPECT_EQ(0, ThrownInt([&] { m_settings.SetMultiStringValue(L"V", System(), {L"a"}, nullptr); }));
  // the secret setter reports by its result instead
  EXPECT_EQ(-1, ThrownInt([&] { EXPECT_FALSE(SetSecret(L"V", buffer, 4)); }));
}

TEST_P(RegSettingsDeniedTest, UserOrSystemThrowsOnlyWhenItReachesTheDeniedCopy) {
  unsigned long dword = 0;
  if (!System()) {
    EXPECT_EQ(0, ThrownInt([&] { m_settings.GetUserOrSystemValue(L"V", dword, 1); }));
    return;
  }
  // a denied system copy behind a readable user value is never reached
  m_key.WriteDword(false, L"V", 4);
  EXPECT_TRUE(m_settings.GetUserOrSystemValue(L"V", dword, 1));
  EXPECT_EQ(4u, dword);
  EXPECT_EQ(0, ThrownInt([&] { m_settings.GetUserOrSystemValue(L"Missing", dword, 1); }));
}

TEST(RegSettingsConcurrency, ThreadsWritingTheirOwnValuesDoNotDisturbEachOther) {
  AppKey key;
  CRegSettings settings(kCompany, key.Product());
  constexpr int kThreads = 4;
  int failures[kThreads] = {};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&settings, &failures, i] {
      wchar_t name[16];
      swprintf(name, 16, L"T%d", i);
      for (unsigned long n = 0; n < 200; ++n) {
        unsigned long value = (static_cast<unsigned long>(i) << 16) | n;
        unsigned long back = 0;
        if (!settings.SetUserValue(name, value) || !settings.GetUserValue(name, back, 0) || back != value)
          ++failures[i];
      }
    });
  }
  for (auto& t : threads) t.join();
  for (int i = 0; i < kThreads; ++i) EXPECT_EQ(0, failures[i]) << "thread " << i;
}
