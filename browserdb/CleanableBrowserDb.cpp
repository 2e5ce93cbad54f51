#include "browserdb/CleanableBrowserDb.h"

#include "browserdb/DbFiles.h"
#include "clean/FileSystemOps.h"
#include "clean/ProgressScope.h"

namespace {

// For an item given no keep list: an unusable one, so its clean deletes no cookie.
const CCookieKeepList& KeepAll() {
  static const CCookieKeepList unusable = [] {
    CCookieKeepList list;
    list.Parse("*\n");
    return list;
  }();
  return unusable;
}

}  // namespace

void CCleanableBrowserDb::Init(const std::wstring& database, EBrowserFamily family, EBrowserDbKind kind,
                               std::shared_ptr<const CCookieKeepList> keep, const SBrowserDbSummary& summary) {
  m_path = database;
  m_family = family;
  m_kind = kind;
  m_keep = std::move(keep);
  m_summary = summary;
  m_last = SBrowserDbCleanResult();
}

DWORD CCleanableBrowserDb::Clean(IOperationProgressNotify* progress, IOperationStatusNotify*) {
  CProgressScope scope(progress);
  m_last = CBrowserDatabase::Clean(m_path.c_str(), m_family, m_kind, m_keep ? *m_keep : KeepAll());
  return m_last.code;
}

CString CCleanableBrowserDb::GetLogEntry() const {
  CString entry;
  try {
    entry.Format(L"Database: %s\t\tSize: %I64u\r\n", m_path.c_str(), m_summary.freeable);
  } catch (...) {
  }
  return entry;
}

CString CCleanableBrowserDb::GetName() const {
  size_t slash = m_path.rfind(L'\\');
  return CString(m_path.c_str() + (slash == std::wstring::npos ? 0 : slash + 1));
}

CString CCleanableBrowserDb::GetDetails() const {
  size_t slash = m_path.rfind(L'\\');
  return CString(m_path.substr(0, slash == std::wstring::npos ? 0 : slash).c_str());
}

DWORD CCleanableBrowserDb::Move(CString destination, IOperationProgressNotify* progress, IOperationStatusNotify*,
                                bool overwrite, CPathString& newPath) {
  CProgressScope scope(progress);
  try {
    const std::wstring target(destination.GetString(), static_cast<size_t>(destination.GetLength()));
    bool taken = false;
    for (const wchar_t* suffix : broom::browserdb::kDatabaseSuffixes) {
      const std::wstring copy = target + suffix;
      if (GetFileAttributesW(copy.c_str()) == INVALID_FILE_ATTRIBUTES) continue;
      if (!overwrite) taken = true;
      else if (!DeleteFileW(copy.c_str())) return BrowserDbFileResult(GetLastError());
    }
    if (taken) {
      newPath = CPathString(destination);
      CFileSystemOps::MakeFreeName(newPath);
      return kMoveDestinationExists;
    }
    m_last = CBrowserDatabase::Clean(m_path.c_str(), m_family, m_kind, m_keep ? *m_keep : KeepAll(), target.c_str());
    return m_last.code;
  } catch (...) {
    return kMoveException;
  }
}
