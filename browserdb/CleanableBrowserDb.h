#pragma once
// A hit of the "cookies" and "history" operations: one browser database,
// cleaned inside (see CBrowserDatabase), never deleted. Its size is what the
// clean is expected to free; GetDescription says in words what goes.
//
// Move copies the database's files to the destination (destination,
// destination-wal, destination-journal) and then cleans it, so a host can
// undo the clean with CBrowserDatabase::Restore and GetChecksumAfterClean.
// Neither Clean nor Move throws; results are 0 or kBrowserDb… codes.
#include <memory>
#include <string>
#include <vector>

#include "browserdb/BrowserDatabase.h"
#include "clean/CleanableFile.h"
#include "core/Export.h"

class BROOM_API CCleanableBrowserDb : public ICleanableItem {
 public:
  CCleanableBrowserDb() = default;
  virtual ~CCleanableBrowserDb() = default;

  void Init(const std::wstring& database, EBrowserFamily family, EBrowserDbKind kind,
            std::shared_ptr<const CCookieKeepList> keep, const SBrowserDbSummary& summary);
  const std::wstring& GetPath() const { return m_path; }
  EBrowserFamily GetFamily() const { return m_family; }
  EBrowserDbKind GetKind() const { return m_kind; }
  // What the scan counted, and in words: "1,234 cookies of 87 sites; 12 sites kept".
  const SBrowserDbSummary& GetSummary() const { return m_summary; }
  std::wstring GetDescription() const { return m_summary.Describe(); }
  // The files to copy before a clean (CBrowserDatabase::DatabaseFiles).
  std::vector<std::wstring> GetDatabaseFiles() const { return CBrowserDatabase::DatabaseFiles(m_path.c_str()); }
  // What the last Clean or Move did (its checksum once it changed the database).
  const SBrowserDbCleanResult& GetLastClean() const { return m_last; }
  const std::wstring& GetChecksumAfterClean() const { return m_last.checksum; }

  unsigned __int64 GetSize() const override { return m_summary.freeable; }
  DWORD Clean(IOperationProgressNotify* progress, IOperationStatusNotify* status) override;
  // "Database: C:\…\Network\Cookies\t\tSize: 123\r\n"
  CString GetLogEntry() const override;
  CString GetName() const override;     // the database's file name
  CString GetDetails() const override;  // its folder
  // Copies then cleans (see above). A destination that exists, without
  // overwrite, gives kMoveDestinationExists and a free name in newPath.
  DWORD Move(CString destination, IOperationProgressNotify* progress, IOperationStatusNotify* status,
             bool overwrite, CPathString& newPath) override;

 private:
  std::wstring m_path;
  EBrowserFamily m_family = EBrowserFamily::chromium;
  EBrowserDbKind m_kind = EBrowserDbKind::cookies;
  std::shared_ptr<const CCookieKeepList> m_keep;
  SBrowserDbSummary m_summary;
  SBrowserDbCleanResult m_last;
};
