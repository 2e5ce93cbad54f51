#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "SettingsTestKey.h"
#include "settings/RegSettings.h"
#include "settings/SecretRegString.h"

using settingstest::AppKey;
using settingstest::RawValue;
using settingstest::StringBytes;

namespace {

class SecretValueTest : public testing::TestWithParam<bool> {
 protected:
  bool System() const { return GetParam(); }
  bool SetString(const wchar_t* name, const CString& value) {
    return System() ? m_settings.SetSystemValue(name, value) : m_settings.SetUserValue(name, value);
  }
  bool GetString(const wchar_t* name, CString& value, const wchar_t* def) {
    return System() ? m_settings.GetSystemValue(name, value, def) : m_settings.GetUserValue(name, value, def);
  }
  bool SetSecret(const wchar_t* name, const std::vector<BYTE>& secret) {
    void* data = secret.empty() ? nullptr : const_cast<BYTE*>(secret.data());
    auto size = static_cast<unsigned long>(secret.size());
    return System() ? m_settings.SetSystemSecretValue(name, data, size)
                    : m_settings.SetUserSecretValue(name, data, size);
  }
  long GetSecret(const wchar_t* name, void* buffer, unsigned long& size) {
    return System() ? m_settings.GetSystemSecretValue(name, buffer, size, nullptr)
                    : m_settings.GetUserSecretValue(name, buffer, size, nullptr);
  }

  AppKey m_key;
  CRegSettings m_settings{settingstest::kCompany, m_key.Product()};
};

INSTANTIATE_TEST_SUITE_P(Hives, SecretValueTest, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& info) { return info.param ? "System" : "User"; });

// Every byte value, including NULs that look like string terminators.
std::vector<BYTE> AwkwardSecret() {
  std::vector<BYTE> secret;
  for (int i = 0; i < 256; ++i) secret.push_back(static_cast<BYTE>(255 - i));
  secret.push_back(0);
  secret.push_back(0);
  secret.push_back(0);  // odd length on purpose
  return secret;
}

}  // namespace

TEST_P(SecretValueTest, SecretOnMissingValueCreatesEmptyStringWithTail) {
  std::vector<BYTE> secret = {0xDE, 0xAD, 0x00, 0xBE, 0xEF};
  ASSERT_TRUE(SetSecret(L"S", secret));
  RawValue raw = m_key.Read(System(), L"S");
  ASSERT_EQ(ERROR_SUCCESS, raw.status);
  EXPECT_EQ(static_cast<DWORD>(REG_SZ), raw.type);
  EXPECT_EQ((std::vector<BYTE>{0, 0, 0xDE, 0xAD, 0x00, 0xBE, 0xEF}), raw.bytes);
  EXPECT_FALSE(m_key.Exists(!System()));

  CString text = L"x";
  EXPECT_TRUE(GetString(L"S", text, L"dflt"));
  EXPECT_TRUE(text.IsEmpty());

  BYTE buffer[16] = {};
  unsigned long size = sizeof(buffer);
  EXPECT_EQ(ERROR_SUCCESS, GetSecret(L"S", buffer, size));
  EXPECT_EQ(5u, size);
  EXPECT_EQ(0, memcmp(buffer, secret.data(), 5));
}

TEST_P(SecretValueTest, StringSetKeepsTailByteForByte) {
  std::vector<BYTE> secret = AwkwardSecret();
  m_key.Write(System(), L"V", REG_SZ, StringBytes(L"first", secret).data(),
              static_cast<DWORD>(StringBytes(L"first", secret).size()));

  ASSERT_TRUE(SetString(L"V", L"a much longer second text"));
  EXPECT_EQ(StringBytes(L"a much longer second text", secret), m_key.Read(System(), L"V").bytes);
  ASSERT_TRUE(SetString(L"V", L""));
  EXPECT_EQ(StringBytes(L"", secret), m_key.Read(System(), L"V").bytes);
  ASSERT_TRUE(SetString(L"V", L"z"));
  RawValue raw = m_key.Read(System(), L"V");
  EXPECT_EQ(StringBytes(L"z", secret), raw.bytes);
  EXPECT_EQ(static_cast<DWORD>(REG_SZ), raw.type);

  CString text;
  EXPECT_TRUE(GetString(L"V", text, nullptr));
  EXPECT_EQ(CString(L"z"), text);
}

TEST_P(SecretValueTest, SecretSetKeepsStringAndType) {
  m_key.Write(System(), L"V", REG_EXPAND_SZ, StringBytes(L"%TEMP%\\x").data(),
              static_cast<DWORD>(StringBytes(L"%TEMP%\\x").size()));
  std::vector<BYTE> secret = AwkwardSecret();
  ASSERT_TRUE(SetSecret(L"V", secret));
  RawValue raw = m_key.Read(System(), L"V");
  EXPECT_EQ(static_cast<DWORD>(REG_EXPAND_SZ), raw.type);
  EXPECT_EQ(StringBytes(L"%TEMP%\\x", secret), raw.bytes);

  // A shorter secret replaces the longer one completely.
  std::vector<BYTE> shorter = {1, 2, 3};
  ASSERT_TRUE(SetSecret(L"V", shorter));
  EXPECT_EQ(StringBytes(L"%TEMP%\\x", shorter), m_key.Read(System(), L"V").bytes);

  std::vector<BYTE> buffer(secret.size() + 10, 0xCC);
  unsigned long size = static_cast<unsigned long>(buffer.size());
  EXPECT_EQ(ERROR_SUCCESS, GetSecret(L"V", buffer.data(), size));
  EXPECT_EQ(3u, size);
  EXPECT_EQ(0, memcmp(buffer.data(), shorter.data(), 3));
}

TEST_P(SecretValueTest, ExpandStringKeepsItsTypeAndIsReturnedUnexpanded) {
  m_key.Write(System(), L"P", REG_EXPAND_SZ, StringBytes(L"%WINDIR%").data(),
              static_cast<DWORD>(StringBytes(L"%WINDIR%").size()));
  CString text;
  EXPECT_TRUE(GetString(L"P", text, nullptr));
  EXPECT_EQ(CString(L"%WINDIR%"), text);
  ASSERT_TRUE(SetString(L"P", L"%TEMP%"));
  RawValue raw = m_key.Read(System(), L"P");
  EXPECT_EQ(static_cast<DWORD>(REG_EXPAND_SZ), raw.type);
  EXPECT_EQ(StringBytes(L"%TEMP%"), raw.bytes);
}

TEST_P(SecretValueTest, StringSetOnMissingValueWritesPlainRegSz) {
  ASSERT_TRUE(SetString(L"New", L"h\u00e9llo"));
  RawValue raw = m_key.Read(System(), L"New");
  EXPECT_EQ(static_cast<DWORD>(REG_SZ), raw.type);
  EXPECT_EQ((std::vector<BYTE>{'h', 0, 0xE9, 0, 'l', 0, 'l', 0, 'o', 0, 0, 0}), raw.bytes);
  // No tail to report.
  BYTE buffer[4];
  unsigned long size = sizeof(buffer);
  EXPECT_EQ(ERROR_SUCCESS, GetSecret(L"New", buffer, size));
  EXPECT_EQ(0u, size);
}

TEST_P(SecretValueTest, TailEndingInNonZeroCharacterIsStoredWithoutExtraTerminator) {
  std::vector<BYTE> secret = {0x41, 0x42, 0x43, 0x44};
  ASSERT_TRUE(SetString(L"V", L"s"));
  ASSERT_TRUE(SetSecret(L"V", secret));
  EXPECT_EQ(StringBytes(L"s", secret), m_key.Read(System(), L"V").bytes);
  ASSERT_TRUE(SetString(L"V", L"t"));
  EXPECT_EQ(StringBytes(L"t", secret), m_key.Read(System(), L"V").bytes);
}

TEST_P(SecretValueTest, DataWithoutNulIsAllStringAndNoTail) {
  const wchar_t chars[] = {L'a', L'b', L'c'};
  m_key.Write(System(), L"V", REG_SZ, chars, sizeof(chars));
  ASSERT_EQ(6u, m_key.Read(System(), L"V").bytes.size());
  CString text;
  EXPECT_TRUE(GetString(L"V", text, nullptr));
  EXPECT_EQ(CString(L"abc"), text);
  BYTE buffer[8];
  unsigned long size = sizeof(buffer);
  EXPECT_EQ(ERROR_SUCCESS, GetSecret(L"V", buffer, size));
  EXPECT_EQ(0u, size);
}

TEST_P(SecretValueTest, OddByteTailAfterStringIsKept) {
  // "a", NUL, then a single byte: the tail is that one byte.
  const BYTE data[] = {'a', 0, 0, 0, 0x5A};
  m_key.Write(System(), L"V", REG_SZ, data, sizeof(data));
  BYTE buffer[4] = {};
  unsigned long size = sizeof(buffer);
  EXPECT_EQ(ERROR_SUCCESS, GetSecret(L"V", buffer, size));
  EXPECT_EQ(1u, size);
  EXPECT_EQ(0x5A, buffer[0]);
  ASSERT_TRUE(SetString(L"V", L"bb"));
  EXPECT_EQ((std::vector<BYTE>{'b', 0, 'b', 0, 0, 0, 0x5A}), m_key.Read(System(), L"V").bytes);
}

TEST_P(SecretValueTest, ShortSecretBufferGetsFirstBytesAnd234) {
  std::vector<BYTE> secret = {10, 20, 30, 40, 50, 60};
  ASSERT_TRUE(SetSecret(L"S", secret));
  BYTE buffer[8] = {0, 0, 0, 0, 0xEE, 0xEE, 0xEE, 0xEE};
  unsigned long size = 4;
  EXPECT_EQ(ERROR_MORE_DATA, GetSecret(L"S", buffer, size));
  EXPECT_EQ(4u, size);
  EXPECT_EQ((std::vector<BYTE>{10, 20, 30, 40, 0xEE}), std::vector<BYTE>(buffer, buffer + 5));
}

TEST_P(SecretValueTest, EmptySecretRemovesTailAndKeepsString) {
  ASSERT_TRUE(SetString(L"V", L"keep"));
  ASSERT_TRUE(SetSecret(L"V", {9, 9, 9}));
  EXPECT_EQ(StringBytes(L"keep", {9, 9, 9}), m_key.Read(System(), L"V").bytes);
  ASSERT_TRUE(System() ? m_settings.SetSystemSecretValue(L"V", const_cast<BYTE*>(StringBytes(L"x").data()), 0)
                       : m_settings.SetUserSecretValue(L"V", const_cast<BYTE*>(StringBytes(L"x").data()), 0));
  EXPECT_EQ(StringBytes(L"keep"), m_key.Read(System(), L"V").bytes);
  ASSERT_TRUE(SetSecret(L"V", {7}));
  ASSERT_TRUE(System() ? m_settings.SetSystemSecretValue(L"V", nullptr, 5)
                       : m_settings.SetUserSecretValue(L"V", nullptr, 5));
  EXPECT_EQ(StringBytes(L"keep"), m_key.Read(System(), L"V").bytes);

  BYTE buffer[4];
  unsigned long size = sizeof(buffer);
  EXPECT_EQ(ERROR_SUCCESS, GetSecret(L"V", buffer, size));
  EXPECT_EQ(0u, size);
}

TEST_P(SecretValueTest, MissingValueInExistingKey) {
  m_key.Create(System());
  BYTE buffer[4];
  unsigned long size = sizeof(buffer);
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, GetSecret(L"Nope", buffer, size));
  EXPECT_EQ(0u, size);
  CString text;
  EXPECT_FALSE(GetString(L"Nope", text, L"d"));
  EXPECT_EQ(CString(L"d"), text);
}

TEST_P(SecretValueTest, LargeValuesGoThroughTheHeap) {
  // A 5000-character string and an 8000-byte tail: both parts past 4096 bytes.
  CString big(L'q', 5000);
  std::vector<BYTE> secret(8000);
  for (size_t i = 0; i < secret.size(); ++i) secret[i] = static_cast<BYTE>(i * 7);
  ASSERT_TRUE(SetString(L"Big", big));
  ASSERT_TRUE(SetSecret(L"Big", secret));
  EXPECT_EQ(StringBytes(big.str(), secret), m_key.Read(System(), L"Big").bytes);
  ASSERT_TRUE(SetString(L"Big", L"small"));
  EXPECT_EQ(StringBytes(L"small", secret), m_key.Read(System(), L"Big").bytes);

  std::vector<BYTE> buffer(9000);
  unsigned long size = static_cast<unsigned long>(buffer.size());
  EXPECT_EQ(ERROR_SUCCESS, GetSecret(L"Big", buffer.data(), size));
  ASSERT_EQ(8000u, size);
  EXPECT_TRUE(std::equal(secret.begin(), secret.end(), buffer.begin()));
}

TEST_P(SecretValueTest, NeighbourValuesOfAnyTypeDoNotDisturbTheRead) {
  // The codec sizes its buffer from the largest value in the key.
  std::vector<BYTE> blob(6000, 0x11);
  m_key.Write(System(), L"Blob", REG_BINARY, blob.data(), static_cast<DWORD>(blob.size()));
  ASSERT_TRUE(SetString(L"V", L"text"));
  ASSERT_TRUE(SetSecret(L"V", {1, 2}));
  CString text;
  EXPECT_TRUE(GetString(L"V", text, nullptr));
  EXPECT_EQ(CString(L"text"), text);
  EXPECT_EQ(blob, m_key.Read(System(), L"Blob").bytes);
}

TEST(SecretValueUserOrSystem, OnlySystemValueIsFound) {
  AppKey key;
  CRegSettings settings(settingstest::kCompany, key.Product());
  BYTE secret[3] = {4, 5, 6};
  ASSERT_TRUE(settings.SetSystemSecretValue(L"S", secret, 3));
  ASSERT_TRUE(settings.SetSystemValue(L"T", CString(L"sys")));
  BYTE buffer[8] = {};
  unsigned long size = sizeof(buffer);
  EXPECT_EQ(ERROR_SUCCESS, settings.GetUserOrSystemSecretValue(L"S", buffer, size, nullptr));
  EXPECT_EQ(3u, size);
  EXPECT_EQ(0, memcmp(buffer, secret, 3));
  CString text;
  EXPECT_TRUE(settings.GetUserOrSystemValue(L"T", text, nullptr));
  EXPECT_EQ(CString(L"sys"), text);

  // Once the user copy exists it wins, even with an empty tail.
  ASSERT_TRUE(settings.SetUserValue(L"S", CString(L"user")));
  size = sizeof(buffer);
  EXPECT_EQ(ERROR_SUCCESS, settings.GetUserOrSystemSecretValue(L"S", buffer, size, nullptr));
  EXPECT_EQ(0u, size);
  // And a short buffer for the user tail stops the search as well.
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

TEST(SecretValueLiteral, StringLiteralIsStoredAsString) {
  AppKey key;
  CRegSettings settings(settingstest::kCompany, key.Product());
  ASSERT_TRUE(settings.SetUserValue(L"Lit", L"text"));
  RawValue raw = key.Read(false, L"Lit");
  EXPECT_EQ(static_cast<DWORD>(REG_SZ), raw.type);
  EXPECT_EQ(StringBytes(L"text"), raw.bytes);
}

// ---- the codec on its own ----

TEST(SecretRegString, SetFromDataStopsAtFirstNulOrHalfTheSize) {
  CSecretRegString codec;
  EXPECT_EQ(static_cast<DWORD>(REG_SZ), codec.GetType());
  const wchar_t text[] = {L'a', L'b', 0, L'c'};
  EXPECT_EQ(6u, codec.SetFromData(text, sizeof(text), REG_EXPAND_SZ));
  EXPECT_EQ(CString(L"ab"), codec.GetString());
  EXPECT_EQ(static_cast<DWORD>(REG_EXPAND_SZ), codec.GetType());
  // Three bytes hold one character; the odd byte is not part of the string.
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
  HKEY hkey = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyExW(HKEY_CURRENT_USER, key.Path().c_str(), 0, KEY_READ, &hkey));
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
  RegCloseKey(hkey);
}
