#pragma once
// The file walk under root patterns whose components may hold wildcards,
// with whitelist protection, filters, progress and cancellation.
#include <windows.h>

#include <list>
#include <vector>

#include "atl/CString.h"
#include "core/Export.h"
#include "core/PathString.h"
#include "core/RefCounting.h"
#include "log/ScanLogThread.h"
#include "scan/ListAhead.h"
#include "scan/OperationNotify.h"
#include "whitelist/WhiteListTree.h"

class CFolderSeeds;

class BROOM_API CBaseFileScan {
 public:
  // ---- filters: each answers whether a listed file is rejected ----
  struct IFilter : public IUnknown {
    virtual bool RejectFile(const CPathString& folder, const WIN32_FIND_DATAW& entry) = 0;
  };

  struct IFilterVisitor {
    virtual bool Visit(IFilter* filter) = 0;  // false stops the walk

   protected:
    ~IFilterVisitor() = default;
  };

  // The building blocks leave IUnknown to the class that instantiates them,
  // e.g. IUnknownNoQIImp<CBaseFileScan::_FilterAnd_Impl>. A null member or a
  // missing inner filter rejects nothing.
  // The member list the two combinators share.
  class BROOM_API _FilterList_Impl : public IFilter {
   public:
    void AddFilter(IFilter* filter) { m_filters.emplace_back(filter); }
    // Visits the members in order until the visitor answers false; a
    // visit that throws is skipped.
    void ForEach(IFilterVisitor* visitor);

   protected:
    std::list<CRefPtr<IFilter>> m_filters;
  };

  class BROOM_API _FilterAnd_Impl : public _FilterList_Impl {
   public:
    bool RejectFile(const CPathString& folder, const WIN32_FIND_DATAW& entry) override;
  };

  class BROOM_API _FilterOr_Impl : public _FilterList_Impl {
   public:
    bool RejectFile(const CPathString& folder, const WIN32_FIND_DATAW& entry) override;
  };

  class BROOM_API _FilterNot_Impl : public IFilter {
   public:
    bool RejectFile(const CPathString& folder, const WIN32_FIND_DATAW& entry) override;
    void SetFilter(IFilter* filter) { m_filter = filter; }

   protected:
    CRefPtr<IFilter> m_filter;
  };

  // Keeps the files whose names match the pattern (PathMatchSpecW: several
  // masks may be separated by semicolons; an empty pattern matches nothing).
  class BROOM_API _FilterAcceptDOSPattern_Impl : public IFilter {
   public:
    bool RejectFile(const CPathString& folder, const WIN32_FIND_DATAW& entry) override;
    void SetPattern(const wchar_t* pattern) { m_pattern = pattern ? pattern : L""; }

   protected:
    CString m_pattern;
  };

  // Rejects files smaller than the threshold; 0 until SetSize keeps every file.
  class BROOM_API _FilterRejectSmallFiles_Impl : public IFilter {
   public:
    bool RejectFile(const CPathString& folder, const WIN32_FIND_DATAW& entry) override;
    void SetSize(unsigned __int64 minSize) { m_minSize = minSize; }

   protected:
    unsigned __int64 m_minSize = 0;
  };

  // Rejects files changed (or, when asked, last opened) less than a number
  // of days ago. It reads the times the listing already holds, so it costs
  // no call into the system per file; the moment "now" is taken when the age
  // is set. Until SetAge it keeps every file.
  class BROOM_API _FilterRejectRecentFiles_Impl : public IFilter {
   public:
    bool RejectFile(const CPathString& folder, const WIN32_FIND_DATAW& entry) override;
    void SetAge(unsigned long days, bool byLastAccess);
    // The same in hours, for rules that keep what was written today.
    void SetAgeHours(unsigned long hours, bool byLastAccess);
    unsigned long GetDays() const { return m_days; }
    unsigned long GetHours() const { return m_hours; }
    bool ByLastAccess() const { return m_byLastAccess; }

   protected:
    unsigned __int64 m_newestKept = ~0ull;  // FILETIME ticks; newer files are rejected
    unsigned long m_days = 0;
    unsigned long m_hours = 0;
    bool m_byLastAccess = false;
  };

  // ---- fixed drives ----
  struct DriveInfo {
    CPathString root;  // as the system lists it, e.g. "C:\"
    unsigned __int64 totalBytes = 0;
    unsigned __int64 freeBytes = 0;
    wchar_t volumeName[261] = {};
    wchar_t fileSystemName[260] = {};
  };

  CBaseFileScan();
  CBaseFileScan(const CBaseFileScan&) = default;
  CBaseFileScan& operator=(const CBaseFileScan&) = default;
  virtual ~CBaseFileScan();

  virtual void OnFile(const CPathString& folder, const WIN32_FIND_DATAW& entry) = 0;
  virtual void ProcessHit(const CPathString& folder, const WIN32_FIND_DATAW& entry, unsigned int flags) = 0;
  // A folder the clean will leave empty (see SetRemoveEmptied); true when
  // it became an item. path: the folder's full path.
  virtual bool OnEmptiedFolder(const CPathString& path, const WIN32_FIND_DATAW& entry);

  // Runs the walk on the calling thread. Throws CAtlException(E_FAIL) before
  // reporting anything when a notifier or the whitelist is missing or no
  // root was added: a scan never runs without the caller's protection list
  // (pass an empty tree to protect nothing).
  virtual void StartScan();

  void SetSystem(bool system) { m_system = system; }
  void SetWhiteListTestBits(DWORD bits) { m_whiteListTestBits = bits; }
  // Below the root's last fixed or wildcard folder, a folder whose every
  // entry the walk reported (its subfolders so too) and that the filters
  // accept itself is handed to OnEmptiedFolder after its contents, deepest
  // first. The folders a root's path names are never handed on.
  void SetRemoveEmptied(bool remove) { m_removeEmptied = remove; }
  bool GetRemoveEmptied() const { return m_removeEmptied; }
  void AddPath(const CPathString& path) { m_paths.push_back(path); }
  void AddPaths(const std::list<CPathString>& paths);
  void AddFixedDrivesToPath();
  static bool GetFixedDriveInfo(std::list<DriveInfo>& out);
  void AddFilter(IFilter* filter) { m_filters.emplace_back(filter); }
  void ClearFilters() { m_filters.clear(); }
  void RemoveFilter(IFilter* filter) {
    m_filters.remove_if([filter](const CRefPtr<IFilter>& f) { return f.Get() == filter; });
  }
  void Initialize(IOperationProgressNotify* progress, IOperationStatusNotify* status, CWhiteListTree* whiteList);

  const std::list<CPathString>& GetPaths() const { return m_paths; }
  const std::list<CRefPtr<IFilter>>& GetFilters() const { return m_filters; }
  int GetProgressLevels() const { return m_progressLevels; }

 protected:
  struct ScanParams {
    CPathString path;
    unsigned short rootPos = 0;
    unsigned char depth = 0;
    unsigned folderValid : 1;
    CWhiteListTree::Folder folder;
    ScanParams() : folderValid(0) {}
  };

  void GetContents(const wchar_t* pattern, std::list<WIN32_FIND_DATAW>& folders,
                   std::list<WIN32_FIND_DATAW>* files);
  // False when a filter rejected the file.
  bool OnFileInternal(const CPathString& folder, const WIN32_FIND_DATAW& entry);
  void AddFoldersFromPath(const CPathString& folder, std::list<CPathString>& out);
  void CalcProgressVals(int limit);

  std::list<CPathString> m_paths;
  std::list<CRefPtr<IFilter>> m_filters;
  CPathString* m_currentRoot = nullptr;
  int m_progressLevels = 0;
  DWORD m_whiteListTestBits = 3;
  int m_progressPos = 0;
  CWhiteListTree* m_whiteList = nullptr;
  bool m_system = false;
  bool m_removeEmptied = false;
  IOperationProgressNotify* m_progress = nullptr;
  IOperationStatusNotify* m_status = nullptr;
  CRefPtr<ILogWriter> m_log;
  CString m_title;

 private:
  // True when everything the walk met below p will be gone after the clean
  // (asked only with SetRemoveEmptied, below a root's mask).
  bool RecursiveScan(ScanParams p);
  bool ProcessDirs(const std::vector<WIN32_FIND_DATAW>& folders, const ScanParams& p, bool removable);
  unsigned long AppendAndCheck(ScanParams& p, const wchar_t* part, unsigned short count);
  // AddFoldersFromPath for every folder of a pass of CalcProgressVals.
  void CountPass(const std::list<CPathString>& folders, std::list<CPathString>& out);

  // The listings ahead of the walk below the root's last component, while
  // it runs, and those the progress estimate made, while the scan runs.
  CListAhead::Walk* m_ahead = nullptr;
  CFolderSeeds* m_seeds = nullptr;
};
