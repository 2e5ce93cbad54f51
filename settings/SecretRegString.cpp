#include "settings/SecretRegString.h"

#include <cstring>
#include <new>

#include "settings/TempBuffer.h"

CBaseSecretRegData::~CBaseSecretRegData() {
  delete[] m_tail;
}

long CBaseSecretRegData::Read(HKEY key, const wchar_t* name) {
  DWORD maxValueBytes = 0;
  LONG rc = RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                             &maxValueBytes, nullptr, nullptr);
  if (rc != ERROR_SUCCESS) return rc;

  TTempBuffer<4096> temp;
  BYTE* buffer = temp.Allocate(maxValueBytes);
  if (maxValueBytes != 0 && !buffer) return ERROR_NOT_ENOUGH_MEMORY;

  DWORD type = 0;
  DWORD size = maxValueBytes;
  rc = RegQueryValueExW(key, name, nullptr, &type, buffer, &size);
  if (rc != ERROR_SUCCESS) return rc;
  // Without a buffer the query reports the size only; the value can only have
  // grown since the key was asked, so treat that as a short buffer.
  if (!buffer && size != 0) return ERROR_MORE_DATA;

  unsigned long used = SetFromData(buffer, size, type);
  if (size > used) {
    if (!SetTail(buffer + used, size - used)) return ERROR_NOT_ENOUGH_MEMORY;
  }
  return ERROR_SUCCESS;
}

long CBaseSecretRegData::Write(HKEY key, const wchar_t* name) {
  const void* typed = nullptr;
  unsigned long count = GetData(&typed);
  const BYTE* data = static_cast<const BYTE*>(typed);
  unsigned long total = count;

  TTempBuffer<4096> temp;
  if (m_tail && m_tailSize > 0) {
    total = count + m_tailSize;
    if (total < count) return ERROR_ARITHMETIC_OVERFLOW;
    // For string types RegSetValueExW adds a terminator the caller "forgot":
    // when the last character is not NUL and the character after the data
    // is, it stores two more bytes. Two non-zero bytes behind the data keep
    // the tail exactly as it is.
    BYTE* joined = total + 2 > total ? temp.Allocate(total + 2) : nullptr;
    if (!joined) return ERROR_NOT_ENOUGH_MEMORY;
    memcpy(joined, typed, count);
    memcpy(joined + count, m_tail, m_tailSize);
    joined[total] = 0xFF;
    joined[total + 1] = 0xFF;
    data = joined;
  }
  return RegSetValueExW(key, name, 0, GetType(), data, total);
}

bool CBaseSecretRegData::SetTail(const void* data, unsigned long size) {
  if (!data || size == 0) {
    m_tailSize = 0;
    return true;
  }
  if (size > m_tailCapacity || !m_tail) {
    BYTE* grown = new (std::nothrow) BYTE[size];
    if (!grown) return false;
    delete[] m_tail;
    m_tail = grown;
    m_tailCapacity = size;
  }
  // The source may lie inside the current tail only when the caller passes
  // our own buffer back; memmove keeps that safe.
  memmove(m_tail, data, size);
  m_tailSize = size;
  return true;
}

CSecretRegString::~CSecretRegString() = default;

unsigned long CSecretRegString::SetFromData(const void* data, unsigned long size, unsigned long type) {
  const wchar_t* chars = static_cast<const wchar_t*>(data);
  unsigned long maxChars = data ? size / 2 : 0;
  unsigned long length = 0;
  while (length < maxChars && chars[length] != L'\0') ++length;
  m_string.SetString(chars, static_cast<int>(length));
  m_type = type;
  return 2 * length + 2;
}

unsigned long CSecretRegString::GetData(const void** data) {
  *data = m_string.GetString();
  return 2 * static_cast<unsigned long>(m_string.GetLength()) + 2;
}
