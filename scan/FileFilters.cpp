// The filter building blocks of CBaseFileScan.
#include <shlwapi.h>

#include <cwchar>
#include <memory>

#include "scan/BaseFileScan.h"

void CBaseFileScan::_FilterList_Impl::ForEach(IFilterVisitor* visitor) {
  for (auto& filter : m_filters) {
    try {
      if (!visitor->Visit(filter)) return;
    } catch (...) {
      // one failing visit does not stop the walk over the others
    }
  }
}

bool CBaseFileScan::_FilterAnd_Impl::RejectFile(const CPathString& folder, const WIN32_FIND_DATAW& entry) {
  if (m_filters.empty()) return false;
  for (auto& filter : m_filters)
    if (!filter || !filter->RejectFile(folder, entry)) return false;
  return true;
}


bool CBaseFileScan::_FilterOr_Impl::RejectFile(const CPathString& folder, const WIN32_FIND_DATAW& entry) {
  for (auto& filter : m_filters)
    if (filter && filter->RejectFile(folder, entry)) return true;
  return false;
}


bool CBaseFileScan::_FilterNot_Impl::RejectFile(const CPathString& folder, const WIN32_FIND_DATAW& entry) {
  if (!m_filter) return false;
  return !m_filter->RejectFile(folder, entry);
}

bool CBaseFileScan::_FilterAcceptDOSPattern_Impl::RejectFile(const CPathString&, const WIN32_FIND_DATAW& entry) {
  // PathMatchSpecW wants a writable-lifetime copy of the name; short names
  // stay on the stack.
  size_t length = wcsnlen(entry.cFileName, MAX_PATH);
  wchar_t local[128];
  std::unique_ptr<wchar_t[]> heap;
  wchar_t* name = local;
  if (length + 1 > 128) {
    heap.reset(new wchar_t[length + 1]);
    name = heap.get();
  }
  wmemcpy(name, entry.cFileName, length);
  name[length] = 0;
  return !PathMatchSpecW(name, m_pattern.GetString());
}

bool CBaseFileScan::_FilterRejectSmallFiles_Impl::RejectFile(const CPathString&, const WIN32_FIND_DATAW& entry) {
  unsigned __int64 size = (static_cast<unsigned __int64>(entry.nFileSizeHigh) << 32) | entry.nFileSizeLow;
  return size < m_minSize;
}

void CBaseFileScan::_FilterRejectRecentFiles_Impl::SetAge(unsigned long days, bool byLastAccess) {
  SetAgeHours(days * 24, byLastAccess);
  m_days = days;
}

void CBaseFileScan::_FilterRejectRecentFiles_Impl::SetAgeHours(unsigned long hours, bool byLastAccess) {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  unsigned __int64 ticks = (static_cast<unsigned __int64>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
  unsigned __int64 age = static_cast<unsigned __int64>(hours) * 3600 * 10000000ull;
  m_newestKept = age < ticks ? ticks - age : 0;
  m_days = hours / 24;
  m_hours = hours;
  m_byLastAccess = byLastAccess;
}

bool CBaseFileScan::_FilterRejectRecentFiles_Impl::RejectFile(const CPathString&, const WIN32_FIND_DATAW& entry) {
  const FILETIME& time = m_byLastAccess ? entry.ftLastAccessTime : entry.ftLastWriteTime;
  unsigned __int64 ticks = (static_cast<unsigned __int64>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
  return ticks > m_newestKept;
}
