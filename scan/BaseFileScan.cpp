#include "scan/BaseFileScan.h"

#include <cwchar>
#include <vector>

#include "clean/FileSystemOps.h"
#include "core/Handles.h"
#include "scan/ListAheadWalk.h"

namespace {

// Entries of a folder, "." and ".." left out, links and system entries
// counted too; SIZE_MAX when it cannot be listed.
size_t CountEntries(const CPathString& folder) {
  CPathString pattern(folder);
  pattern.AppendPath(L"*", 1);
  WIN32_FIND_DATAW data;
  broom::unique_hfind find(FindFirstFileW(pattern.c_str(), &data));
  if (!find) return SIZE_MAX;
  size_t count = 0;
  do {
    if (wcscmp(data.cFileName, L".") != 0 && wcscmp(data.cFileName, L"..") != 0) ++count;
  } while (FindNextFileW(find.get(), &data));
  return count;
}

}  // namespace

CBaseFileScan::CBaseFileScan() = default;

CBaseFileScan::~CBaseFileScan() = default;

void CBaseFileScan::AddPaths(const std::list<CPathString>& paths) {
  for (const auto& path : paths) m_paths.push_back(path);
}

void CBaseFileScan::Initialize(IOperationProgressNotify* progress, IOperationStatusNotify* status,
                               CWhiteListTree* whiteList) {
  m_progress = progress;
  m_status = status;
  m_whiteList = whiteList;
}

void CBaseFileScan::StartScan() {
  if (!m_progress || !m_status || !m_whiteList || m_paths.empty()) AtlThrow(E_FAIL);
  // With listing ahead, the listings of the progress estimate are kept for the walk.
  std::unique_ptr<CFolderSeeds> seeds;
  if (CListAhead::GetThreads() > 1) seeds.reset(new CFolderSeeds(CListAhead::GetEntriesAhead()));
  m_seeds = seeds.get();
  auto dropSeeds = broom::scope_exit([this] { m_seeds = nullptr; });
  CalcProgressVals(200);
  m_progressPos = 0;
  m_log = CScanLogThread::GetCurrentScanLog(!m_title.IsEmpty());
  if (!m_title.IsEmpty()) m_log->WriteEntry(m_title, true);
  for (auto& root : m_paths) {
    m_currentRoot = &root;
    RecursiveScan(ScanParams());
  }
  m_currentRoot = nullptr;
  m_log.Reset();
  m_progress->Finish();
}

void CBaseFileScan::GetContents(const wchar_t* pattern, std::list<WIN32_FIND_DATAW>& folders,
                                std::list<WIN32_FIND_DATAW>* files) {
  CFileSystemOps::ListDirectory(folders, files, pattern, m_system);
}

void CBaseFileScan::CalcProgressVals(int limit) {
  // Count folders breadth first; each pass lists the folders the previous
  // pass found, and the pass that reaches the limit is counted whole.
  int count = static_cast<int>(m_paths.size());
  m_progressLevels = 0;
  std::list<CPathString> previous;
  bool firstPass = true;
  while (count < limit) {
    std::list<CPathString> found;
    CountPass(firstPass ? m_paths : previous, found);
    firstPass = false;
    if (found.empty()) break;
    count += static_cast<int>(found.size());
    ++m_progressLevels;
    previous.swap(found);
  }
  m_progress->SetTotal(count);
}

void CBaseFileScan::CountPass(const std::list<CPathString>& folders, std::list<CPathString>& out) {
  // what AddFoldersFromPath does for each folder, with the listings made
  // together on the pool and kept for the walk
  std::list<CPathString> listed;
  std::vector<CWhiteListTree::Folder> nodes;
  for (const auto& folder : folders) {
    unsigned long flags = 0;
    CWhiteListTree::Folder node = m_whiteList->GetFolder(folder.c_str(), flags);
    if (flags & m_whiteListTestBits) continue;
    listed.push_back(folder);
    nodes.push_back(node);
  }
  std::vector<SFolderListing> listings;
  if (!m_seeds || !CListAhead::Walk::ListEach(listed, m_system, listings)) {
    for (const auto& folder : listed) AddFoldersFromPath(folder, out);
    return;
  }
  auto node = nodes.begin();
  auto listing = listings.begin();
  for (const auto& folder : listed) {
    for (const auto& entry : listing->folders) {
      if (*node && (node->TestItem(entry.cFileName) & m_whiteListTestBits)) continue;
      CPathString child(folder);
      child.AppendPath(entry.cFileName, static_cast<unsigned short>(wcslen(entry.cFileName)));
      out.push_back(child);
    }
    CPathString pattern(folder);
    pattern.AppendPath(L"*", 1);
    m_seeds->Put(pattern, *listing);
    ++node;
    ++listing;
  }
}

void CBaseFileScan::AddFoldersFromPath(const CPathString& folder, std::list<CPathString>& out) {
  unsigned long flags = 0;
  CWhiteListTree::Folder node = m_whiteList->GetFolder(folder.c_str(), flags);
  if (flags & m_whiteListTestBits) return;
  CPathString pattern(folder);
  pattern.AppendPath(L"*", 1);
  std::list<WIN32_FIND_DATAW> folders;
  GetContents(pattern.c_str(), folders, nullptr);
  for (const auto& entry : folders) {
    if (node && (node.TestItem(entry.cFileName) & m_whiteListTestBits)) continue;
    CPathString child(folder);
    child.AppendPath(entry.cFileName, static_cast<unsigned short>(wcslen(entry.cFileName)));
    out.push_back(child);
  }
}

unsigned long CBaseFileScan::AppendAndCheck(ScanParams& p, const wchar_t* part, unsigned short count) {
  unsigned long flags = 0;
  if (!p.folderValid) {
    p.folderValid = 1;
    CPathString absolute;
    absolute.Assign(part, count);
    p.folder = m_whiteList->GetFolder(absolute.c_str(), flags);
  } else {
    CPathString relative;
    relative.AppendChar(L'\\');
    relative.Append(part, count);
    flags = p.folder.FollowPath(relative.c_str());
  }
  p.path.AppendPath(part, count);
  return flags;
}

bool CBaseFileScan::OnEmptiedFolder(const CPathString&, const WIN32_FIND_DATAW&) { return false; }

bool CBaseFileScan::RecursiveScan(ScanParams p) {
  CPathString& root = *m_currentRoot;
  bool counted = false;
  if (p.depth <= m_progressLevels) {
    m_progress->SetPosition(++m_progressPos);
    counted = true;
  }

  int wildcard = root.FindWildcard(p.rootPos);
  const unsigned short length = root.GetLength();

  if (wildcard < 0) {
    // the rest of the root is fixed: a folder to scan whole, or one file
    if (AppendAndCheck(p, root.c_str() + p.rootPos, static_cast<unsigned short>(length - p.rootPos)) &
        m_whiteListTestBits)
      return false;
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!GetFileAttributesExW(p.path.c_str(), GetFileExInfoStandard, &data)) return false;
    if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
      // the root itself becomes "folder\*", also for later scans of this object
      root.AppendPath(L"*", 1);
      p.path.AddBackslash();
      if (counted) --m_progressPos;
      p.rootPos = static_cast<unsigned short>(root.GetLength() - 1);
      RecursiveScan(p);
      return false;
    }
    WIN32_FIND_DATAW record = {};
    record.dwFileAttributes = data.dwFileAttributes;
    record.ftCreationTime = data.ftCreationTime;
    record.ftLastAccessTime = data.ftLastAccessTime;
    record.ftLastWriteTime = data.ftLastWriteTime;
    record.nFileSizeHigh = data.nFileSizeHigh;
    record.nFileSizeLow = data.nFileSizeLow;
    CWrapperString name(record.cFileName, MAX_PATH);
    p.path.RemoveFileName(&name);
    OnFileInternal(p.path, record);
    return false;
  }

  int separator = root.ReverseFindSeparator(wildcard);
  if (separator > static_cast<int>(p.rootPos)) {
    CPathString fixed;
    root.Mid(p.rootPos, static_cast<unsigned short>(separator - p.rootPos + 1), fixed);
    if (AppendAndCheck(p, fixed.c_str(), fixed.GetLength()) & m_whiteListTestBits) return false;
    p.rootPos = static_cast<unsigned short>(separator + 1);
  }

  const wchar_t* next = wcschr(root.c_str() + p.rootPos, L'\\');
  if (!next) {
    // the last component is a file mask, also applied to the subfolders
    CPathString mask;
    root.Right(static_cast<unsigned short>(length - p.rootPos), mask);
    CPathString pattern(p.path);
    pattern.Append(mask.c_str(), mask.GetLength());
    m_status->SetCurrentFolder(p.path.ToCString());
    // the walk below this folder has its folders listed ahead
    std::unique_ptr<CListAhead::Walk> walk;
    if (!m_ahead) {
      walk = CListAhead::Walk::Begin(m_whiteList, m_whiteListTestBits, mask, m_system, m_seeds);
      m_ahead = walk.get();
    }
    auto endWalk = broom::scope_exit([&] {
      if (walk) m_ahead = nullptr;
    });
    SFolderListing listing;
    if (m_ahead)
      m_ahead->Take(p.path, p.folder, pattern, listing);
    else if (!m_seeds || !m_seeds->Take(pattern, listing) || !StillAPlainFolder(p.path)) {
      listing.Clear();
      CFileSystemOps::ListDirectory(listing.folders, &listing.files, pattern.c_str(), m_system);
    }
    bool empties = m_removeEmptied;
    for (const auto& file : listing.files) {
      if (m_status->IsCancelled()) return false;
      try {
        empties = OnFileInternal(p.path, file) && empties;
      } catch (...) {
        // one file that cannot be handled never stops the scan
        empties = false;
      }
    }
    empties = ProcessDirs(listing.folders, p, m_removeEmptied) && empties;
    // entries the listing left out (links, system files, other names) stay
    return empties && CountEntries(p.path) == listing.files.size() + listing.folders.size();
  }

  // a folder wildcard: every matching folder continues with the rest of the root
  unsigned short nextIndex = static_cast<unsigned short>(next - root.c_str());
  ScanParams q(p);
  q.rootPos = static_cast<unsigned short>(nextIndex + 1);
  CPathString pattern(p.path);
  pattern.Append(root.c_str() + p.rootPos, static_cast<unsigned short>(nextIndex - p.rootPos));
  std::vector<WIN32_FIND_DATAW> folders;
  CFileSystemOps::ListDirectory(folders, nullptr, pattern.c_str(), m_system);
  ProcessDirs(folders, q, false);
  return false;
}

bool CBaseFileScan::ProcessDirs(const std::vector<WIN32_FIND_DATAW>& folders, const ScanParams& p, bool removable) {
  // Listed ahead, a folder is named by its index in its parent's listing.
  CListAhead::Walk* const ahead = m_ahead;
  unsigned index = 0;
  bool all = true;
  for (const auto& entry : folders) {
    const unsigned at = index++;
    if (m_status->IsCancelled()) return false;
    try {
      ScanParams q(p);
      q.folder = p.folder.GetSubFolder(entry.cFileName);
      if (m_status) m_status->OnItem(entry.cFileName, IOperationStatusNotify::itemFolder);
      unsigned long flags = q.folder.IsValid() ? q.folder.GetFlags() : 0;
      if (flags & m_whiteListTestBits) {
        all = false;
        continue;
      }
      q.path.AddBackslash();
      q.path.Append(entry.cFileName, static_cast<unsigned short>(wcslen(entry.cFileName)));
      q.path.AddBackslash();
      ++q.depth;
      if (ahead) ahead->Descend(at);
      auto ascend = broom::scope_exit([ahead] {
        if (ahead) ahead->Ascend();
      });
      bool emptied = RecursiveScan(q) && removable && !m_status->IsCancelled();
      if (emptied) {
        // the folder's own times count as a file's do: one written lately stays
        for (auto& filter : m_filters)
          if (filter && filter->RejectFile(p.path, entry)) emptied = false;
      }
      all = (emptied && OnEmptiedFolder(q.path, entry)) && all;
    } catch (...) {
      // a folder that cannot be walked (a path past 260 characters, a
      // pattern that ends early) ends only its own branch
      all = false;
    }
  }
  return all;
}

bool CBaseFileScan::OnFileInternal(const CPathString& folder, const WIN32_FIND_DATAW& entry) {
  if (m_status) m_status->OnItem(entry.cFileName, IOperationStatusNotify::itemFile);
  for (auto& filter : m_filters)
    if (filter && filter->RejectFile(folder, entry)) return false;
  OnFile(folder, entry);
  return true;
}

bool CBaseFileScan::GetFixedDriveInfo(std::list<DriveInfo>& out) {
  std::vector<wchar_t> buffer(104);
  DWORD n = GetLogicalDriveStringsW(static_cast<DWORD>(buffer.size()), buffer.data());
  if (n == 0) return false;
  if (n > buffer.size()) {
    // more roots than the usual buffer holds: read the list again at the size asked for
    buffer.assign(n + 1, 0);
    n = GetLogicalDriveStringsW(static_cast<DWORD>(buffer.size()), buffer.data());
    if (n == 0 || n > buffer.size()) return false;
  }
  for (const wchar_t* root = buffer.data(); *root; root += wcslen(root) + 1) {
    if (GetDriveTypeW(root) != DRIVE_FIXED) continue;
    DriveInfo info;
    ULARGE_INTEGER total, free;
    if (!GetDiskFreeSpaceExW(root, nullptr, &total, &free)) continue;
    if (!GetVolumeInformationW(root, info.volumeName, 261, nullptr, nullptr, nullptr, info.fileSystemName, 260))
      continue;
    info.root = CPathString(root);
    info.totalBytes = total.QuadPart;
    info.freeBytes = free.QuadPart;
    out.push_back(info);
  }
  return true;
}

void CBaseFileScan::AddFixedDrivesToPath() {
  std::list<DriveInfo> drives;
  if (!GetFixedDriveInfo(drives)) return;
  for (const auto& drive : drives) {
    CPathString root(drive.root);
    root.Append(L"*", 1);
    AddPath(root);
  }
}
