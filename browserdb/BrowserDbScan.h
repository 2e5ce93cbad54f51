#pragma once
// The scan operation of the "cookies" and "history" kinds: finds the
// profiles of its folder patterns (CBrowserProfiles), and reports each of
// their databases with something to remove as a CCleanableBrowserDb.
//
// A protected database (or profile folder) is never opened. A database that
// cannot be looked at (locked by its browser, an unknown layout, damaged, a
// profile whose bookmarks cannot be read) is not reported; it gets a note
// (TakeNotes, and a line in the scan log) with its code. A cookie operation
// whose keep list is unusable finds nothing and throws from PerformScan, so
// the host shows the item as failed.
#include <memory>
#include <string>
#include <vector>

#include "browserdb/BrowserDatabase.h"
#include "browserdb/CookieKeepList.h"
#include "core/Export.h"
#include "core/Handles.h"
#include "scan/ScanOperation.h"

// A database the scan left alone, and why (BrowserDbResultText).
struct SBrowserDbNote {
  std::wstring database;
  DWORD code = 0;
};

// The cookie sites of one database, for a host's list of sites.
struct SCookieDatabaseSites {
  std::wstring database;
  std::wstring profile;  // the profile folder
  DWORD code = 0;        // 0, or why the sites could not be read
  std::vector<SCookieSite> sites;
};

class BROOM_API CBrowserDbScan : public IScanOperation {
 public:
  CBrowserDbScan() = default;
  virtual ~CBrowserDbScan() = default;

  void Init(EBrowserDbKind kind, EBrowserFamily family, std::shared_ptr<const CCookieKeepList> keep);
  // A folder pattern whose matches are profiles (or hold them).
  void AddProfiles(const wchar_t* pattern) { m_patterns.emplace_back(pattern ? pattern : L""); }
  EBrowserDbKind GetKind() const { return m_kind; }
  EBrowserFamily GetFamily() const { return m_family; }
  const std::vector<std::wstring>& GetPatterns() const { return m_patterns; }

  // The databases of the operation's profiles that exist and are not protected.
  std::vector<std::wstring> FindDatabases(CWhiteListTree* whiteList) const;
  // Every site of each cookie database (an empty list for a history operation).
  std::vector<SCookieDatabaseSites> ListCookieSites(CWhiteListTree* whiteList) const;

  void PerformScan(IResultsCollector* collector, IOperationProgressNotify* progress, IOperationStatusNotify* status,
                   CWhiteListTree* whiteList) override;
  bool ReportsProgress() const override { return true; }

  // The notes of the scans so far, oldest first; taking them empties the list.
  std::vector<SBrowserDbNote> TakeNotes();

 private:
  EBrowserDbKind m_kind = EBrowserDbKind::cookies;
  EBrowserFamily m_family = EBrowserFamily::chromium;
  std::shared_ptr<const CCookieKeepList> m_keep;
  std::vector<std::wstring> m_patterns;
  broom::critical_section m_notesLock;
  std::vector<SBrowserDbNote> m_notes;
};
