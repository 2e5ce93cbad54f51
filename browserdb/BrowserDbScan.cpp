#include "browserdb/BrowserDbScan.h"

#include <set>

#include "browserdb/BrowserProfiles.h"
#include "browserdb/CleanableBrowserDb.h"
#include "core/PathString.h"
#include "log/ScanLogThread.h"
#include "scan/OperationNotify.h"
#include "whitelist/WhiteListTree.h"
#include "core/NameMask.h"

namespace {

bool Protected(const std::wstring& path, CWhiteListTree* whiteList) {
  if (!whiteList) return false;
  try {
    return (whiteList->CheckProtection(path.c_str()) & 0x1) != 0;
  } catch (...) {
    return true;
  }
}

std::wstring FolderOf(const std::wstring& path) {
  size_t slash = path.rfind(L'\\');
  return slash == std::wstring::npos ? std::wstring() : path.substr(0, slash);
}

// Chromium's Network\Cookies lives one folder below its profile.
std::wstring ProfileOf(const std::wstring& database) {
  std::wstring folder = FolderOf(database);
  size_t slash = folder.rfind(L'\\');
  std::wstring last = folder.substr(slash == std::wstring::npos ? 0 : slash + 1);
  return _wcsicmp(last.c_str(), L"Network") == 0 ? FolderOf(folder) : folder;
}

}  // namespace

void CBrowserDbScan::Init(EBrowserDbKind kind, EBrowserFamily family, std::shared_ptr<const CCookieKeepList> keep) {
  m_kind = kind;
  m_family = family;
  m_keep = std::move(keep);
}

std::vector<std::wstring> CBrowserDbScan::FindDatabases(CWhiteListTree* whiteList) const {
  std::vector<std::wstring> databases;
  std::set<std::wstring> seen;
  for (const std::wstring& pattern : m_patterns)
    for (const std::wstring& profile : CBrowserProfiles::Find(pattern.c_str(), m_family, whiteList))
      for (const std::wstring& database : CBrowserProfiles::Databases(profile, m_family, m_kind)) {
        // a database counts as protected with any of its files
        if (Protected(database, whiteList) || Protected(database + L"-wal", whiteList) ||
            Protected(database + L"-journal", whiteList))
          continue;
        std::wstring key = database;
        broom::UpperName(key);
        if (seen.insert(key).second) databases.push_back(database);
      }
  return databases;
}

std::vector<SCookieDatabaseSites> CBrowserDbScan::ListCookieSites(CWhiteListTree* whiteList) const {
  std::vector<SCookieDatabaseSites> lists;
  if (m_kind != EBrowserDbKind::cookies) return lists;
  static const CCookieKeepList kNone;
  for (const std::wstring& database : FindDatabases(whiteList)) {
    SCookieDatabaseSites list;
    list.database = database;
    list.profile = ProfileOf(database);
    list.code = CBrowserDatabase::ListCookieSites(database.c_str(), m_family, m_keep ? *m_keep : kNone, list.sites);
    lists.push_back(std::move(list));
  }
  return lists;
}

void CBrowserDbScan::PerformScan(IResultsCollector* collector, IOperationProgressNotify* progress,
                                 IOperationStatusNotify* status, CWhiteListTree* whiteList) {
  if (m_kind == EBrowserDbKind::cookies && (!m_keep || !m_keep->IsUsable()))
    throw Exception(L"%s", BrowserDbResultText(kBrowserDbKeepListUnusable).c_str());
  static const CCookieKeepList kNone;
  const CCookieKeepList& keep = m_keep ? *m_keep : kNone;
  CRefPtr<ILogWriter> log = CScanLogThread::GetCurrentScanLog(false);
  std::vector<std::wstring> databases = FindDatabases(whiteList);
  if (progress) progress->SetTotal(static_cast<int>(databases.size()));
  for (size_t i = 0; i < databases.size(); ++i) {
    if (status && status->IsCancelled()) break;
    const std::wstring& database = databases[i];
    if (status) status->SetCurrentFolder(CString(FolderOf(database).c_str()));
    SBrowserDbSummary summary;
    DWORD code = CBrowserDatabase::Inspect(database.c_str(), m_family, m_kind, keep, summary);
    if (code) {
      {
        broom::critical_section_lock lock(m_notesLock);
        m_notes.push_back(SBrowserDbNote{database, code});
      }
      if (log) log->WriteEntry(CString((L"Database left alone: " + database + L": " + BrowserDbResultText(code) +
                                        L"\r\n").c_str()),
                               false);
    } else if (summary.rows) {
      CRefPtr<CCleanableBrowserDb> item(new IUnknownNoQIImp<CCleanableBrowserDb>());
      item->Init(database, m_family, m_kind, m_keep, summary);
      // the log lists every reported item, even one the host later declines
      if (log) log->WriteEntry(item->GetLogEntry(), false);
      if (collector) collector->AddItem(item);
    }
    if (progress) progress->SetPosition(static_cast<int>(i + 1));
  }
  if (progress) progress->Finish();
}

std::vector<SBrowserDbNote> CBrowserDbScan::TakeNotes() {
  broom::critical_section_lock lock(m_notesLock);
  return std::move(m_notes);
}
