#pragma once
// The exported exception family offered to the host, and Win32Exception,
// which the engine throws with the system's text for the last error.
#include <windows.h>

#include "atl/CString.h"
#include "core/Export.h"
#include "core/PathString.h"

class BROOM_API CBaseException {
 public:
  explicit CBaseException(const CString& appMessage) : m_appMessage(appMessage) {}
  CBaseException(const CBaseException&) = default;
  CBaseException& operator=(const CBaseException&) = default;
  ~CBaseException() = default;

  virtual CString GetErrorMessage() = 0;
  CString& GetAppMessage() { return m_appMessage; }

 protected:
  CString m_appMessage;
};

class BROOM_API CWin32Exception : public CBaseException {
 public:
  // takes GetLastError() at construction
  explicit CWin32Exception(const CString& appMessage);
  CWin32Exception(const CString& appMessage, DWORD error) : CBaseException(appMessage), m_error(error) {}
  CWin32Exception(const CWin32Exception&) = default;
  CWin32Exception& operator=(const CWin32Exception&) = default;

  // The system's text for the stored code; empty when the system has none.
  CString GetErrorMessage() override;
  DWORD GetError() const { return m_error; }

 protected:
  DWORD m_error;
};

class BROOM_API CInternalException : public CBaseException {
 public:
  explicit CInternalException(const CString& appMessage) : CBaseException(appMessage) {}
  CInternalException(const CInternalException&) = default;
  CInternalException& operator=(const CInternalException&) = default;

  CString GetErrorMessage() override { return m_appMessage; }
};

// The formatted message, then "\r\nError: " and the system's text for the
// last error read after formatting.
class BROOM_API Win32Exception : public Exception {
 public:
  Win32Exception(const wchar_t* format, ...);
};

namespace broom {

// What a Win32 error code means, with its number: "Access is denied (error 5)".
BROOM_API std::wstring SystemMessage(DWORD error);

}  // namespace broom
