#include "winapp2/Winapp2FileScan.h"

#include <cwchar>

#include "atl/CAtlException.h"
#include "clean/CleanableFolder.h"
#include "core/Handles.h"
#include "guard/BlastGuard.h"
#include "core/NameMask.h"

using broom::HasWildcard;
using broom::MatchUpper;
using broom::SplitPath;
using broom::UpperName;

namespace {

std::vector<std::wstring> UpperParts(const wchar_t* path) {
  std::vector<std::wstring> parts = SplitPath(path, wcslen(path));
  for (std::wstring& part : parts) UpperName(part);
  return parts;
}

bool MatchFolder(const std::vector<std::wstring>& pattern, const std::vector<std::wstring>& folder, bool below) {
  if (below ? pattern.size() > folder.size() : pattern.size() != folder.size()) return false;
  for (size_t i = 0; i < pattern.size(); ++i)
    if (!MatchUpper(pattern[i], folder[i])) return false;
  return true;
}

void AppendFolder(CPathString& path, const wchar_t* name) {
  path.Append(name, static_cast<unsigned short>(wcsnlen(name, MAX_PATH)));
  path.AppendChar(L'\\');
}

// The entries of a folder (path ends with '\'); skipped is set when an
// entry is left out of the walk (a reparse point, a system entry without
// SetSystem). False when the folder cannot be listed.
bool ListFolder(const CPathString& folder, bool system, std::vector<WIN32_FIND_DATAW>& files,
                std::vector<WIN32_FIND_DATAW>& folders, bool& skipped) {
  CPathString pattern(folder);
  pattern.AppendChar(L'*');
  WIN32_FIND_DATAW data;
  broom::unique_hfind find(FindFirstFileExW(pattern.c_str(), FindExInfoBasic, &data, FindExSearchNameMatch, nullptr,
                                            FIND_FIRST_EX_LARGE_FETCH));
  if (!find) return GetLastError() == ERROR_FILE_NOT_FOUND;
  do {
    if (wcscmp(data.cFileName, L".") == 0 || wcscmp(data.cFileName, L"..") == 0) continue;
    if ((data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) ||
        ((data.dwFileAttributes & FILE_ATTRIBUTE_SYSTEM) && !system)) {
      skipped = true;
      continue;
    }
    (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY ? folders : files).push_back(data);
  } while (FindNextFileW(find.get(), &data));
  return true;
}

}  // namespace

struct CWinapp2FileScan::SWalk {
  std::vector<std::wstring> parts;
};

CWinapp2FileScan::CWinapp2FileScan() = default;
CWinapp2FileScan::~CWinapp2FileScan() = default;

std::vector<CString> CWinapp2FileScan::TakeScanNotes() { return std::move(m_notes); }

bool CWinapp2FileScan::NotThroughLink(const CPathString& path) {
  // asked without the trailing separator, which would make the system look through a link
  CString folder = path.ToCString();
  if (folder.GetLength() > 3 && folder[folder.GetLength() - 1] == L'\\') folder.Truncate(folder.GetLength() - 1);
  DWORD attributes = GetFileAttributesW(folder.GetString());
  if (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_REPARSE_POINT)) return true;
  m_notes.push_back(folder + L" is a link (a junction or symbolic link); a rule never reaches anything through a "
                             L"link, so this one finds nothing there");
  return false;
}

void CWinapp2FileScan::SetRule(std::vector<std::wstring> masks, ERecurse recurse) {
  m_masks = std::move(masks);
  m_recurse = recurse;
}

void CWinapp2FileScan::StartScan() {
  if (!m_progress || !m_status || !m_whiteList || m_paths.empty()) AtlThrow(E_FAIL);
  m_progress->SetTotal(static_cast<int>(m_paths.size()));
  m_progressPos = 0;
  m_stopped = false;
  m_notes.clear();
  m_log = CScanLogThread::GetCurrentScanLog(!m_title.IsEmpty());
  auto release = broom::scope_exit([this] {
    m_log.Reset();
    m_guard.reset();
  });
  if (!m_title.IsEmpty()) m_log->WriteEntry(m_title, true);
  for (const CPathString& root : m_paths) {
    if (m_stopped || m_status->IsCancelled()) break;
    try {
      ScanRoot(root);
    } catch (...) {
      // a root that cannot be walked ends only its own part of the scan
    }
    m_progress->SetPosition(++m_progressPos);
  }
  m_progress->Finish();
}

void CWinapp2FileScan::ScanRoot(const CPathString& root) {
  SWalk walk{SplitPath(root.c_str(), root.GetLength())};
  size_t fixed = 0;
  while (fixed < walk.parts.size() && !HasWildcard(walk.parts[fixed])) ++fixed;
  if (fixed == 0) return;
  CPathString path;
  for (size_t i = 0; i < fixed; ++i) {
    AppendFolder(path, walk.parts[i].c_str());
    // every folder after the drive root, asked on its own: none may be a link
    if (i > 0 && !NotThroughLink(path)) return;
  }
  unsigned long flags = 0;
  CWhiteListTree::Folder node = m_whiteList->GetFolder(path.c_str(), flags);
  if (flags & m_whiteListTestBits) return;
  Descend(walk, path, node, fixed);
}

void CWinapp2FileScan::Descend(SWalk& walk, CPathString& path, CWhiteListTree::Folder node, size_t part) {
  if (part == walk.parts.size() || !HasWildcard(walk.parts[part])) {
    if (part < walk.parts.size()) {
      node = node.GetSubFolder(walk.parts[part].c_str());
      if (node.GetFlags() & m_whiteListTestBits) return;
      AppendFolder(path, walk.parts[part].c_str());
      if (!NotThroughLink(path)) return;
      Descend(walk, path, node, part + 1);
      return;
    }
    // every folder of the root was asked on the way down: none is a link
    DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY))
      ScanFolder(path, node, attributes & ~FILE_ATTRIBUTE_REPARSE_POINT);
    return;
  }
  std::wstring mask = walk.parts[part];
  UpperName(mask);
  std::vector<WIN32_FIND_DATAW> files, folders;
  bool skipped = false;
  if (!ListFolder(path, m_system, files, folders, skipped)) return;
  for (const WIN32_FIND_DATAW& folder : folders) {
    if (m_stopped || m_status->IsCancelled()) {
      m_stopped = true;
      return;
    }
    std::wstring name(folder.cFileName);
    UpperName(name);
    if (!MatchUpper(mask, name)) continue;
    m_status->OnItem(folder.cFileName, IOperationStatusNotify::itemFolder);
    CWhiteListTree::Folder sub = node.GetSubFolder(folder.cFileName);
    if (sub.GetFlags() & m_whiteListTestBits) continue;
    try {
      CPathString next(path);
      AppendFolder(next, folder.cFileName);
      Descend(walk, next, sub, part + 1);
    } catch (...) {
      // a path past 260 characters ends only its own branch
    }
  }
}

bool CWinapp2FileScan::ScanFolder(CPathString& path, CWhiteListTree::Folder node, DWORD rootAttributes) {
  const bool isRoot = rootAttributes != 0;
  m_status->SetCurrentFolder(path.ToCString());
  std::vector<WIN32_FIND_DATAW> files, folders;
  bool skipped = false;
  if (!ListFolder(path, m_system, files, folders, skipped)) return false;
  // whether the items reported leave the folder empty once cleaned
  bool empties = !skipped;
  for (const WIN32_FIND_DATAW& file : files) {
    if (m_stopped || m_status->IsCancelled()) {
      m_stopped = true;
      return false;
    }
    if (!MatchesMask(file.cFileName) || IsExcluded(path.c_str(), file.cFileName) ||
        (node.TestItem(file.cFileName) & m_whiteListTestBits)) {
      empties = false;
      continue;
    }
    m_reported = false;
    try {
      OnFileInternal(path, file);
    } catch (...) {
      // one file that cannot be handled never stops the scan
    }
    empties = empties && m_reported;
  }
  if (m_recurse == recurseNone) return false;
  for (const WIN32_FIND_DATAW& folder : folders) {
    if (m_stopped || m_status->IsCancelled()) {
      m_stopped = true;
      return false;
    }
    m_status->OnItem(folder.cFileName, IOperationStatusNotify::itemFolder);
    CWhiteListTree::Folder sub = node.GetSubFolder(folder.cFileName);
    bool emptied = false;
    if (!(sub.GetFlags() & m_whiteListTestBits)) {
      try {
        CPathString next(path);
        AppendFolder(next, folder.cFileName);
        emptied = ScanFolder(next, sub, 0) && ReportFolder(next, folder.dwFileAttributes);
      } catch (...) {
        // a path past 260 characters ends only its own branch
      }
    }
    if (m_stopped) return false;
    empties = empties && emptied;
  }
  if (isRoot && empties) ReportFolder(path, rootAttributes);
  return empties;
}

bool CWinapp2FileScan::ReportFolder(const CPathString& path, DWORD attributes) {
  if (m_recurse != recurseRemoveSelf || m_stopped || !m_collector) return false;
  // a link is left alone: removing it would not remove what was cleaned
  if (attributes & FILE_ATTRIBUTE_REPARSE_POINT) return false;
  if (IsKeptFolder(UpperParts(path.c_str()))) return false;
  if (!m_guard) m_guard.reset(new CBlastGuard());
  if (!m_guard->CheckPath(path.c_str(), true, nullptr).allowed) return false;
  CRefPtr<CCleanableEmptyFolder> item(new IUnknownNoQIImp<CCleanableEmptyFolder>());
  item->InitFolder(path, attributes);
  m_log->WriteEntry(item->GetLogEntry(), false);
  m_collector->AddItem(item);
  return true;
}

void CWinapp2FileScan::ProcessHit(const CPathString& folder, const WIN32_FIND_DATAW& entry, unsigned int extra) {
  CStdFileScan::ProcessHit(folder, entry, extra);
  m_reported = true;
}

bool CWinapp2FileScan::MatchesMask(const wchar_t* name) const {
  wchar_t upper[MAX_PATH];
  size_t length = wcsnlen(name, MAX_PATH - 1);
  wmemcpy(upper, name, length);
  UpperName(upper, length);
  for (const std::wstring& mask : m_masks)
    if (MatchUpper(mask.data(), mask.size(), upper, length)) return true;
  return false;
}

bool CWinapp2FileScan::IsExcluded(const wchar_t* folder, const wchar_t* name) const {
  if (!m_excludes || m_excludes->empty()) return false;
  std::vector<std::wstring> parts = UpperParts(folder);
  std::wstring upper(name);
  UpperName(upper);
  for (const SExclude& exclude : *m_excludes)
    if (MatchFolder(exclude.folder, parts, exclude.below))
      for (const std::wstring& mask : exclude.masks)
        if (MatchUpper(mask, upper)) return true;
  return false;
}

bool CWinapp2FileScan::IsKeptFolder(const std::vector<std::wstring>& folder) const {
  if (!m_excludes) return false;
  for (const SExclude& exclude : *m_excludes)
    if (exclude.below && MatchFolder(exclude.folder, folder, true)) return true;
  return false;
}
