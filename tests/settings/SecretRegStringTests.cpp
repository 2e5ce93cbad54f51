// A string value carries a hidden tail behind its NUL: the visible string
// and the tail are set and read independently, byte for byte.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "SettingsTestKey.h"
#include "settings/RegSettings.h"
#include "settings/SecretRegString.h"

using namespace settingstest;

namespace {

using SecretValueTest = HiveTest;
INSTANTIATE_TEST_SUITE_P(Hives, SecretValueTest, testing::Values(false, true), HiveName);

// Every byte value, including NULs that look like string terminators.
std::vector<BYTE> AwkwardSecret() {
  std::vector<BYTE> secret;
  for (int i = 0; i < 256; ++i) secret.push_back(static_cast<BYTE>(255 - i));
  secret.insert(secret.end(), {0, 0, 0});  // odd length on purpose
  return secret;
}

}  // namespace

TEST_P(SecretValueTest, SecretOnMissingValueCreatesEmptyStringWithTail) {
  std::vector<BYTE> secret = {0xDE, 0xAD, 0x00, 0xBE, 0xEF};
  ASSERT_TRUE(SetSecret(L"S", secret));
  EXPECT_EQ(static_cast<DWORD>(REG_SZ), StoredType(L"S"));
  EXPECT_EQ(StringBytes(L"", secret), Stored(L"S"));
  EXPECT_FALSE(m_key.Exists(!System()));
  EXPECT_TRUE(Text(L"S").IsEmpty());
  EXPECT_EQ(secret, Secret(L"S"));
}

TEST_P(SecretValueTest, StringAndTailAreReplacedIndependently) {
  // a new string keeps the tail, whatever the lengths
  std::vector<BYTE> secret = AwkwardSecret();
  Write(L"V", REG_SZ, StringBytes(L"first", secret));
  for (const wchar_t* text : {L"a much longer second text", L"", L"z"}) {
    ASSERT_TRUE(Set(L"V", CString(text)));
    EXPECT_EQ(StringBytes(text, secret), Stored(L"V")) << "after a string of " << wcslen(text) << " characters";
  }
  EXPECT_EQ(CString(L"z"), Text(L"V"));

  // a new tail keeps the string and its type, and replaces a longer tail whole
  Write(L"E", REG_EXPAND_SZ, StringBytes(L"%TEMP%\\x"));
  ASSERT_TRUE(SetSecret(L"E", secret));
  EXPECT_EQ(StringBytes(L"%TEMP%\\x", secret), Stored(L"E"));
  ASSERT_TRUE(SetSecret(L"E", {1, 2, 3}));
  EXPECT_EQ(StringBytes(L"%TEMP%\\x", {1, 2, 3}), Stored(L"E"));
  EXPECT_EQ(static_cast<DWORD>(REG_EXPAND_SZ), StoredType(L"E"));
  EXPECT_EQ((std::vector<BYTE>{1, 2, 3}), Secret(L"E"));
  // the string of an expandable value is given and set unexpanded
  EXPECT_EQ(CString(L"%TEMP%\\x"), Text(L"E"));
  ASSERT_TRUE(Set(L"E", CString(L"%WINDIR%")));
  EXPECT_EQ(StringBytes(L"%WINDIR%", {1, 2, 3}), Stored(L"E"));
  EXPECT_EQ(static_cast<DWORD>(REG_EXPAND_SZ), StoredType(L"E"));

  // a tail ending in a non-zero character gets no terminator of its own
  ASSERT_TRUE(Set(L"N", CString(L"s")));
  ASSERT_TRUE(SetSecret(L"N", {0x41, 0x42, 0x43, 0x44}));
  ASSERT_TRUE(Set(L"N", CString(L"t")));
  EXPECT_EQ(StringBytes(L"t", {0x41, 0x42, 0x43, 0x44}), Stored(L"N"));

  // an empty tail, by size 0 or by null data, removes it and keeps the string
  ASSERT_TRUE(Set(L"K", CString(L"keep")));
  for (int way = 0; way < 2; ++way) {
    ASSERT_TRUE(SetSecret(L"K", {9, 9, 9}));
    EXPECT_EQ(StringBytes(L"keep", {9, 9, 9}), Stored(L"K"));
    const BYTE some[2] = {1, 2};
    ASSERT_TRUE(way == 0 ? SetSecret(L"K", some, 0) : SetSecret(L"K", nullptr, 5));
    EXPECT_EQ(StringBytes(L"keep"), Stored(L"K"));
    EXPECT_TRUE(Secret(L"K").empty());
  }
}

TEST_P(SecretValueTest, StoredDataSplitsIntoStringAndTail) {
  struct Case {
    const wchar_t* name;
    std::vector<BYTE> data;
    const wchar_t* text;
    std::vector<BYTE> tail;
  } cases[] = {
      {L"NoNul", {'a', 0, 'b', 0, 'c', 0}, L"abc", {}},  // all string
      {L"OddTail", {'a', 0, 0, 0, 0x5A}, L"a", {0x5A}},
      {L"Plain", StringBytes(L"plain"), L"plain", {}},
  };
  for (const Case& c : cases) {
    Write(c.name, REG_SZ, c.data);
    EXPECT_EQ(CString(c.text), Text(c.name)) << c.name;
    EXPECT_EQ(c.tail, Secret(c.name)) << c.name;
  }
  ASSERT_TRUE(Set(L"OddTail", CString(L"bb")));
  EXPECT_EQ((std::vector<BYTE>{'b', 0, 'b', 0, 0, 0, 0x5A}), Stored(L"OddTail"));

  // a string set on a missing value (a literal, too) is a plain REG_SZ
  ASSERT_TRUE(Set(L"New", L"h\u00e9llo"));
  EXPECT_EQ(static_cast<DWORD>(REG_SZ), StoredType(L"New"));
  EXPECT_EQ((std::vector<BYTE>{'h', 0, 0xE9, 0, 'l', 0, 'l', 0, 'o', 0, 0, 0}), Stored(L"New"));
}

TEST_P(SecretValueTest, ShortBufferAndMissingValue) {
  ASSERT_TRUE(SetSecret(L"S", {10, 20, 30, 40, 50, 60}));
  BYTE buffer[8] = {0, 0, 0, 0, 0xEE, 0xEE, 0xEE, 0xEE};
  unsigned long size = 4;
  EXPECT_EQ(ERROR_MORE_DATA, GetSecret(L"S", buffer, size));
  EXPECT_EQ(4u, size);
  EXPECT_EQ((std::vector<BYTE>{10, 20, 30, 40, 0xEE}), std::vector<BYTE>(buffer, buffer + 5));

  size = sizeof(buffer);
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, GetSecret(L"Nope", buffer, size));
  EXPECT_EQ(0u, size);
  CString text;
  EXPECT_FALSE(Get(L"Nope", text, L"d"));
  EXPECT_EQ(CString(L"d"), text);
}

TEST_P(SecretValueTest, LargeValuesAndLargeNeighbours) {
  // a 5000-character string and an 8000-byte tail: both past 4096 bytes
  CString big(L'q', 5000);
  std::vector<BYTE> secret(8000);
  for (size_t i = 0; i < secret.size(); ++i) secret[i] = static_cast<BYTE>(i * 7);
  ASSERT_TRUE(Set(L"Big", big));
  ASSERT_TRUE(SetSecret(L"Big", secret));
  EXPECT_EQ(StringBytes(big.str(), secret), Stored(L"Big"));
  ASSERT_TRUE(Set(L"Big", CString(L"small")));
  EXPECT_EQ(StringBytes(L"small", secret), Stored(L"Big"));
  EXPECT_EQ(secret, Secret(L"Big"));

  // the buffer is sized from the largest value in the key, of any type
  std::vector<BYTE> blob(6000, 0x11);
  Write(L"Blob", REG_BINARY, blob);
  ASSERT_TRUE(Set(L"V", CString(L"text")));
  ASSERT_TRUE(SetSecret(L"V", {1, 2}));
  EXPECT_EQ(CString(L"text"), Text(L"V"));
  EXPECT_EQ(blob, Stored(L"Blob"));
}

TEST(SecretValueUserOrSystem, UserCopyWinsOnceItExists) {
  AppKey key;
  CRegSettings settings(kCompany, key.Product());
  BYTE secret[3] = {4, 5, 6};
  ASSERT_TRUE(settings.SetSystemSecretValue(L"S", secret, 3));
  ASSERT_TRUE(settings.SetSystemValue(L"T", CString(L"sys")));
  BYTE buffer[8] = {};
  unsigned long size = sizeof(buffer);
  EXPECT_EQ(ERROR_SUCCESS, settings.GetUserOrSystemSecretValue(L"S", buffer, size, nullptr));
  EXPECT_EQ(3u, size);
  EXPECT_EQ(0, memcmp(buffer, secret, 3));
  // the same once the user key exists without that value: its read gives 2
  // and must not shrink the buffer the machine copy is read into
  ASSERT_TRUE(settings.SetUserValue(L"Other", CString(L"u")));
  memset(buffer, 0, sizeof buffer);
  size = sizeof(buffer);
  EXPECT_EQ(ERROR_SUCCESS, settings.GetUserOrSystemSecretValue(L"S", buffer, size, nullptr));
  EXPECT_EQ(3u, size);
  EXPECT_EQ(0, memcmp(buffer, secret, 3));
  CString text;
  EXPECT_TRUE(settings.GetUserOrSystemValue(L"T", text, nullptr));
  EXPECT_EQ(CString(L"sys"), text);

  // once the user copy exists it wins, even with an empty tail
  ASSERT_TRUE(settings.SetUserValue(L"S", CString(L"user")));
  size = sizeof(buffer);
  EXPECT_EQ(ERROR_SUCCESS, settings.GetUserOrSystemSecretValue(L"S", buffer, size, nullptr));
  EXPECT_EQ(0u, size);
  // and a short buffer for the user tail stops the search as well
  BYTE userSecret[6] = {1, 1, 1, 1, 1, 1};
  ASSERT_TRUE(settings.SetUserSecretValue(L"S", userSecret, 6));
  size = 2;
  EXPECT_EQ(ERROR_MORE_DATA, settings.GetUserOrSystemSecretValue(L"S", buffer, size, nullptr));
  EXPECT_EQ(2u, size);
  EXPECT_EQ(1, buffer[0]);

  EXPECT_FALSE(settings.GetUserOrSystemValue(L"None", text, L"dd"));
  EXPECT_EQ(CString(L"dd"), text);
  size = sizeof(buffer);
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, settings.GetUserOrSystemSecretValue(L"None", buffer, size, nullptr));
}

// ---- the codec on its own ----

TEST(SecretRegString, SetFromDataStopsAtFirstNulOrHalfTheSize) {
  CSecretRegString codec;
  EXPECT_EQ(static_cast<DWORD>(REG_SZ), codec.GetType());
  const wchar_t text[] = {L'a', L'b', 0, L'c'};
  EXPECT_EQ(6u, codec.SetFromData(text, sizeof(text), REG_EXPAND_SZ));
  EXPECT_EQ(CString(L"ab"), codec.GetString());
  EXPECT_EQ(static_cast<DWORD>(REG_EXPAND_SZ), codec.GetType());
  // three bytes hold one character; the odd byte is not part of the string
  EXPECT_EQ(4u, codec.SetFromData(text, 3, REG_SZ));
  EXPECT_EQ(CString(L"a"), codec.GetString());
  EXPECT_EQ(2u, codec.SetFromData(nullptr, 0, REG_SZ));
  EXPECT_TRUE(codec.GetString().IsEmpty());

  const void* data = nullptr;
  codec.SetString(L"xyz");
  EXPECT_EQ(8u, codec.GetData(&data));
  EXPECT_EQ(0, memcmp(data, L"xyz", 8));
}

TEST(SecretRegString, ReadKeepsOldTailWhenNothingFollowsAndFailureChangesNothing) {
  AppKey key;
  key.Write(false, L"Plain", REG_SZ, StringBytes(L"p").data(), 4);
  CRegKey hkey;
  ASSERT_EQ(ERROR_SUCCESS, hkey.Open(HKEY_CURRENT_USER, key.Path().c_str(), KEY_READ));
  CSecretRegString codec;
  codec.SetString(L"before");
  BYTE tail[2] = {1, 2};
  ASSERT_TRUE(codec.SetTail(tail, 2));
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, codec.Read(hkey, L"Missing"));
  EXPECT_EQ(CString(L"before"), codec.GetString());
  EXPECT_EQ(2u, codec.GetTailSize());
  EXPECT_EQ(ERROR_SUCCESS, codec.Read(hkey, L"Plain"));
  EXPECT_EQ(CString(L"p"), codec.GetString());
  EXPECT_EQ(2u, codec.GetTailSize());
}
