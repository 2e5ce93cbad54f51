#include <gtest/gtest.h>

#include "atl/CRegKey.h"
#include "common/TestRegistry.h"

namespace {

TEST(CRegKey, OpenCreateAndCloseOwnership) {
  broomtest::TestRegKey test;
  CRegKey key;
  ASSERT_EQ(key.Create(HKEY_CURRENT_USER, (test.Subkey() + L"\\child").c_str()), ERROR_SUCCESS);
  HKEY held = key;
  EXPECT_NE(held, nullptr);
  // a failing open keeps the key that was held
  EXPECT_EQ(key.Open(HKEY_CURRENT_USER, (test.Subkey() + L"\\missing").c_str()), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(static_cast<HKEY>(key), held);

  CRegKey other(key);  // copying hands the key over
  EXPECT_EQ(static_cast<HKEY>(key), nullptr);
  EXPECT_EQ(static_cast<HKEY>(other), held);
  CRegKey third;
  third = other;
  EXPECT_EQ(static_cast<HKEY>(other), nullptr);
  EXPECT_EQ(third.Close(), ERROR_SUCCESS);
  EXPECT_EQ(static_cast<HKEY>(third), nullptr);
}

TEST(CRegKey, TypedValuesRoundTrip) {
  broomtest::TestRegKey test;
  CRegKey key;
  ASSERT_EQ(key.Open(HKEY_CURRENT_USER, test.Subkey().c_str()), ERROR_SUCCESS);

  EXPECT_EQ(key.SetDWORDValue(L"d", 0xDEADBEEF), ERROR_SUCCESS);
  DWORD d = 0;
  EXPECT_EQ(key.QueryDWORDValue(L"d", d), ERROR_SUCCESS);
  EXPECT_EQ(d, 0xDEADBEEFu);

  EXPECT_EQ(key.SetStringValue(L"s", L"hello"), ERROR_SUCCESS);
  EXPECT_EQ(key.QueryDWORDValue(L"s", d), ERROR_MORE_DATA);  // larger than a DWORD
  EXPECT_EQ(key.SetBinaryValue(L"four", "abcd", 4), ERROR_SUCCESS);
  EXPECT_EQ(key.QueryDWORDValue(L"four", d), ERROR_INVALID_DATA);
  wchar_t buffer[16];
  ULONG chars = 16;
  EXPECT_EQ(key.QueryStringValue(L"s", buffer, &chars), ERROR_SUCCESS);
  EXPECT_STREQ(buffer, L"hello");
  EXPECT_EQ(chars, 6u);
  chars = 3;
  EXPECT_EQ(key.QueryStringValue(L"s", buffer, &chars), ERROR_MORE_DATA);
  EXPECT_EQ(chars, 0u);
  chars = 16;
  EXPECT_EQ(key.QueryStringValue(L"d", buffer, &chars), ERROR_INVALID_DATA);

  // a string stored without its terminator is never handed out unterminated
  // (Windows refuses it; Wine's registry adds the terminator while reading)
  EXPECT_EQ(key.SetValue(L"raw", REG_SZ, L"abc", 3 * sizeof(wchar_t)), ERROR_SUCCESS);
  chars = 16;
  wmemset(buffer, L'#', 16);
  LONG rc = key.QueryStringValue(L"raw", buffer, &chars);
  if (rc == ERROR_SUCCESS) {
    EXPECT_STREQ(buffer, L"abc");
    EXPECT_EQ(chars, 4u);
  } else {
    EXPECT_EQ(rc, ERROR_INVALID_DATA);
  }

  const wchar_t multi[] = L"one\0two\0";
  EXPECT_EQ(key.SetMultiStringValue(L"m", multi), ERROR_SUCCESS);
  DWORD type = 0;
  ULONG bytes = 0;
  EXPECT_EQ(key.QueryValue(L"m", &type, nullptr, &bytes), ERROR_SUCCESS);
  EXPECT_EQ(type, static_cast<DWORD>(REG_MULTI_SZ));
  EXPECT_EQ(bytes, sizeof(multi));  // both terminators stored

  const BYTE blob[] = {0, 1, 2, 0xFF};
  EXPECT_EQ(key.SetBinaryValue(L"b", blob, sizeof blob), ERROR_SUCCESS);
  BYTE back[8] = {};
  bytes = sizeof back;
  EXPECT_EQ(key.QueryBinaryValue(L"b", back, &bytes), ERROR_SUCCESS);
  EXPECT_EQ(bytes, sizeof blob);
  EXPECT_EQ(memcmp(back, blob, sizeof blob), 0);

  EXPECT_EQ(key.DeleteValue(L"b"), ERROR_SUCCESS);
  EXPECT_EQ(key.DeleteValue(L"b"), ERROR_FILE_NOT_FOUND);
}

TEST(CRegKey, RecurseDeleteKeyRemovesTheSubtree) {
  broomtest::TestRegKey test;
  CRegKey deep;
  ASSERT_EQ(deep.Create(HKEY_CURRENT_USER, (test.Subkey() + L"\\top\\a\\b").c_str()), ERROR_SUCCESS);
  deep.Close();
  CRegKey parent;
  ASSERT_EQ(parent.Open(HKEY_CURRENT_USER, test.Subkey().c_str()), ERROR_SUCCESS);
  EXPECT_EQ(parent.RecurseDeleteKey(L"top"), ERROR_SUCCESS);
  CRegKey gone;
  EXPECT_EQ(gone.Open(HKEY_CURRENT_USER, (test.Subkey() + L"\\top").c_str()), ERROR_FILE_NOT_FOUND);
}

}  // namespace
