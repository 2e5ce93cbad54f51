#pragma once
// Codec of a registry value that carries two parts: a typed part at the start
// and, behind it, a tail of arbitrary bytes. For CSecretRegString the typed
// part is a UTF-16 string with its NUL; the tail (the secret) is stored as
// given and hidden only by lying behind that NUL.
//
// Each accessor builds one codec on the stack, reads the value, changes one
// part and writes the whole value back, so the other part is carried over.
#include <windows.h>

#include "atl/CString.h"
#include "core/Export.h"

class BROOM_API CBaseSecretRegData {
 public:
  CBaseSecretRegData() = default;
  CBaseSecretRegData(const CBaseSecretRegData&) = delete;
  CBaseSecretRegData& operator=(const CBaseSecretRegData&) = delete;

  // Takes the typed part from the start of the raw data and remembers the
  // type; returns how many bytes the typed part used.
  virtual unsigned long SetFromData(const void* data, unsigned long size, unsigned long type) = 0;
  // Points at the typed part's bytes and returns their count.
  virtual unsigned long GetData(const void** data) = 0;
  virtual unsigned long GetType() = 0;
  virtual ~CBaseSecretRegData();

  // Reads the value from a key the caller opened. On failure the object is
  // unchanged; when nothing follows the typed part the tail stays as it was.
  long Read(HKEY key, const wchar_t* name);
  // Writes the typed part followed by the tail.
  long Write(HKEY key, const wchar_t* name);

  // Replaces the tail; null data or a size of 0 removes it. False only when
  // the buffer could not be grown (the old tail is then kept).
  bool SetTail(const void* data, unsigned long size);
  const BYTE* GetTail() const { return m_tail; }
  unsigned long GetTailSize() const { return m_tail ? m_tailSize : 0; }

 protected:
  BYTE* m_tail = nullptr;
  unsigned long m_tailCapacity = 0;
  unsigned long m_tailSize = 0;
};

class BROOM_API CSecretRegString : public CBaseSecretRegData {
 public:
  CSecretRegString() = default;
  ~CSecretRegString() override;

  // The string is the data up to its first NUL, at most size / 2 characters;
  // returns the bytes of the string and its NUL.
  unsigned long SetFromData(const void* data, unsigned long size, unsigned long type) override;
  unsigned long GetData(const void** data) override;
  unsigned long GetType() override { return m_type; }

  const CString& GetString() const { return m_string; }
  void SetString(const CString& text) { m_string = text; }

 protected:
  CString m_string;
  unsigned long m_type = REG_SZ;
};
