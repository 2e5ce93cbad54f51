#include <gtest/gtest.h>

#include <string>

#include "core/Exceptions.h"

namespace {

std::wstring SystemText(DWORD code, DWORD lang) {
  wchar_t* text = nullptr;
  DWORD n = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM, nullptr, code, lang,
                           reinterpret_cast<wchar_t*>(&text), 0, nullptr);
  std::wstring result = n && text ? std::wstring(text, n) : std::wstring();
  LocalFree(text);
  return result;
}

constexpr DWORD kUnknownCode = 0x2000FFFF;  // customer bit set: the system has no text for it

TEST(CWin32Exception, TakesLastErrorAtConstruction) {
  HANDLE h = CreateFileW(L"C:\\broom-no-such-file.txt", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_EQ(h, INVALID_HANDLE_VALUE);
  CWin32Exception e(CString(L"opening the file"));
  EXPECT_EQ(e.GetError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  CString text = e.GetErrorMessage();
  EXPECT_FALSE(text.IsEmpty());
  EXPECT_EQ(std::wstring(text.GetString()), SystemText(ERROR_FILE_NOT_FOUND, 0));
  EXPECT_EQ(text.Find(L"opening the file"), -1);
}

TEST(CWin32Exception, CodeZeroAndUnknownCodes) {
  CWin32Exception zero(CString(L"app"), 0);
  EXPECT_EQ(std::wstring(zero.GetErrorMessage().GetString()), SystemText(0, 0));
  CWin32Exception unknown(CString(L"app"), kUnknownCode);
  EXPECT_TRUE(unknown.GetErrorMessage().IsEmpty());
}

TEST(CWin32Exception, CopiesBothFields) {
  CWin32Exception a(CString(L"first"), ERROR_ACCESS_DENIED);
  CWin32Exception b(CString(L"second"), 0);
  b = a;
  EXPECT_EQ(b.GetError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  EXPECT_STREQ(b.GetAppMessage().GetString(), L"first");
  CWin32Exception c(a);
  EXPECT_EQ(c.GetError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
}

TEST(CInternalException, MessageIsACopyOfTheAppMessage) {
  CInternalException e(CString(L"internal trouble"));
  CString message = e.GetErrorMessage();
  EXPECT_STREQ(message.GetString(), L"internal trouble");
  message += L" changed";
  EXPECT_STREQ(e.GetAppMessage().GetString(), L"internal trouble");
  e.GetAppMessage() = L"now different";
  EXPECT_STREQ(e.GetErrorMessage().GetString(), L"now different");

  CBaseException& base = e;  // through the base, the virtual answers
  EXPECT_STREQ(base.GetErrorMessage().GetString(), L"now different");
}

TEST(Win32Exception, AppendsLabelAndSystemText) {
  SetLastError(ERROR_ACCESS_DENIED);
  Win32Exception e(L"CreateWindowEx failed");
  std::wstring expected = L"CreateWindowEx failed\r\nError: " +
                          SystemText(ERROR_ACCESS_DENIED, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT));
  EXPECT_EQ(e.m_message, expected);
  EXPECT_GT(e.m_message.size(), std::wstring(L"CreateWindowEx failed\r\nError: ").size());
}

TEST(Win32Exception, FormatsArgumentsAndEndsWithLabelForUnknownCode) {
  SetLastError(kUnknownCode);
  Win32Exception e(L"%s #%d", L"step", 7);
  EXPECT_EQ(e.m_message, L"step #7\r\nError: ");
}

TEST(Win32Exception, CaughtAsException) {
  bool caught = false;
  try {
    SetLastError(ERROR_INVALID_PARAMETER);
    throw Win32Exception(L"IsWow64Process");
  } catch (const Exception& e) {
    caught = e.m_message.rfind(L"IsWow64Process\r\nError: ", 0) == 0;
  }
  EXPECT_TRUE(caught);
}

}  // namespace
