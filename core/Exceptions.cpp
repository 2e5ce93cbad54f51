#include "core/Exceptions.h"

#include <cstdarg>

#include "core/Handles.h"

namespace {

// FormatMessageW with a system-allocated buffer; empty when the system has no text.
std::wstring SystemText(DWORD code, DWORD languageId, DWORD flags = 0) {
  wchar_t* text = nullptr;
  DWORD length = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | flags, nullptr, code,
                                languageId, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
  broom::unique_hlocal holder(text);
  if (length == 0 || !text) return std::wstring();
  return std::wstring(text, length);
}

}  // namespace

CWin32Exception::CWin32Exception(const CString& appMessage)
    : CBaseException(appMessage), m_error(GetLastError()) {}

CString CWin32Exception::GetErrorMessage() { return CString(SystemText(m_error, 0)); }

Win32Exception::Win32Exception(const wchar_t* format, ...) {
  va_list args;
  va_start(args, format);
  FormatMessageV(format, args);
  va_end(args);
  DWORD error = GetLastError();
  m_message += L"\r\nError: ";
  m_message += SystemText(error, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT));
}

std::wstring broom::SystemMessage(DWORD error) {
  std::wstring message = SystemText(error, 0, FORMAT_MESSAGE_IGNORE_INSERTS);
  if (message.empty()) message = L"system error";
  while (!message.empty() && (message.back() == L'\n' || message.back() == L'\r' || message.back() == L' ' ||
                              message.back() == L'.'))
    message.pop_back();
  return message + L" (error " + std::to_wstring(error) + L")";
}
