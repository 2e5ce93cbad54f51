#pragma once
// The operation of one winapp2 FileKey: files whose whole long names match
// one of the rule's masks, directly in the rule's folder, in it and all its
// subfolders (RECURSE), or so and then the folders the clean leaves empty
// (REMOVESELF). Hits become CCleanableFile items with their "File:" log
// line, the folders CCleanableEmptyFolder items, reported after everything
// in them, deepest first.
//
// The walk is the engine's in everything but matching and links: folder
// wildcards in any component of a root expand at scan time, a rule never
// reaches anything through a link (a junction or symbolic link anywhere on
// its folder's path after the drive root finds nothing there, with a note;
// links a listing meets are never followed), system entries are skipped
// unless SetSystem,
// the whitelist is asked at every folder and file, cancellation before each
// file and folder, and the host's filters (AddFilter) decide last. A folder
// is reported for removal only when everything in it was reported, nothing
// of it is kept by an exclude, and the blast-radius guard allows removing it
// (a drive root, the Windows folder, a profile or a user's known folder is
// never one).
#include <memory>
#include <string>
#include <vector>

#include "core/Export.h"
#include "scan/OperationNotes.h"
#include "scan/StdFileScan.h"

class CBlastGuard;

class BROOM_API CWinapp2FileScan : public CStdFileScan, public IOperationNotes {
 public:
  enum ERecurse { recurseNone = 0, recurseAll = 1, recurseRemoveSelf = 2 };
  CWinapp2FileScan();
  ~CWinapp2FileScan() override;

  // What an ExcludeKey keeps out of its entry's rules: files whose name
  // matches one of masks in a folder matching folder (components
  // upper-cased, '*' and '?' matching within one component), or anywhere
  // below it with below.
  struct SExclude {
    std::vector<std::wstring> folder;
    std::vector<std::wstring> masks;
    bool below = false;
  };
  using Excludes = std::shared_ptr<const std::vector<SExclude>>;

  // masks: whole-name masks, upper-cased. Roots are added with AddPath (a
  // folder, whose components may hold wildcards).
  void SetRule(std::vector<std::wstring> masks, ERecurse recurse);
  void SetExcludes(Excludes excludes) { m_excludes = std::move(excludes); }
  const std::vector<std::wstring>& GetMasks() const { return m_masks; }
  ERecurse GetRecurse() const { return m_recurse; }

  // Whether an exclude keeps the file name (any case) in folder (a full
  // path, with or without trailing separator).
  bool IsExcluded(const wchar_t* folder, const wchar_t* name) const;

  // Throws CAtlException(E_FAIL), before reporting anything, without
  // notifiers, whitelist or root, as every file scan does.
  void StartScan() override;

  std::vector<CString> TakeScanNotes() override;

 protected:
  void ProcessHit(const CPathString& folder, const WIN32_FIND_DATAW& entry, unsigned int extra) override;

 private:
  struct SWalk;
  void ScanRoot(const CPathString& root);
  // False, with a note, when the folder just appended to path is a link.
  bool NotThroughLink(const CPathString& path);
  void Descend(SWalk& walk, CPathString& path, CWhiteListTree::Folder node, size_t part);
  // rootAttributes: 0 below the rule's folder, its attributes for the folder itself.
  bool ScanFolder(CPathString& path, CWhiteListTree::Folder node, DWORD rootAttributes);
  bool MatchesMask(const wchar_t* name) const;
  bool IsKeptFolder(const std::vector<std::wstring>& folder) const;
  bool ReportFolder(const CPathString& path, DWORD attributes);

  std::vector<std::wstring> m_masks;
  ERecurse m_recurse = recurseNone;
  Excludes m_excludes;
  bool m_reported = false;  // the last file handed to the filters became an item
  bool m_stopped = false;   // cancelled: no folder is reported any more
  std::vector<CString> m_notes;
  std::unique_ptr<CBlastGuard> m_guard;  // made for the first folder a scan would remove
};
