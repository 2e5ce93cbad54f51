#include "recyclebin/RecycleBinItem.h"

#include <shlobj.h>

#include "atl/CAtlException.h"
#include "clean/FileOverwrite.h"
#include "clean/FileSystemOps.h"
#include "clean/ProgressScope.h"
#include "core/Handles.h"

namespace {

unsigned __int64 Ticks(const FILETIME& time) {
  return (static_cast<unsigned __int64>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

FILETIME Time(unsigned __int64 ticks) {
  FILETIME time;
  time.dwLowDateTime = static_cast<DWORD>(ticks);
  time.dwHighDateTime = static_cast<DWORD>(ticks >> 32);
  return time;
}

bool SameText(const std::wstring& a, const std::wstring& b) {
  return CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b.c_str(), static_cast<int>(b.size()), TRUE) ==
         CSTR_EQUAL;
}

bool PathExists(const std::wstring& path) {
  return GetFileAttributesW(CFileSystemOps::ExtendedPath(path.c_str()).c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::wstring NameOf(const std::wstring& path) {
  size_t slash = path.find_last_of(L'\\');
  return slash == std::wstring::npos ? path : path.substr(slash + 1);
}

// The other part of an entry: $R<suffix> for $I<suffix> and back.
std::wstring PartnerOf(const std::wstring& path) {
  std::wstring partner = path;
  size_t at = partner.find_last_of(L'\\') + 1;
  if (at + 1 < partner.size()) partner[at + 1] = (partner[at + 1] == L'I' || partner[at + 1] == L'i') ? L'R' : L'I';
  return partner;
}

// The newest of the entry's own times, the change time included (moving a
// file into the bin sets it); 0 when none can be read.
unsigned __int64 LatestOwnTime(const std::wstring& path, const WIN32_FIND_DATAW& entry) {
  unsigned __int64 latest = Ticks(entry.ftCreationTime) > Ticks(entry.ftLastWriteTime) ? Ticks(entry.ftCreationTime)
                                                                                       : Ticks(entry.ftLastWriteTime);
  broom::unique_hfile file(CreateFileW(CFileSystemOps::ExtendedPath(path.c_str()).c_str(), FILE_READ_ATTRIBUTES,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                       FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  FILE_BASIC_INFO basic = {};
  if (file && GetFileInformationByHandleEx(file.get(), FileBasicInfo, &basic, sizeof basic) &&
      static_cast<unsigned __int64>(basic.ChangeTime.QuadPart) > latest)
    latest = static_cast<unsigned __int64>(basic.ChangeTime.QuadPart);
  return latest;
}

}  // namespace

bool CRecycleBinItem::IsBinFolder(const std::wstring& folder) {
  static const wchar_t kBin[] = L"$Recycle.Bin";
  const size_t binLength = sizeof kBin / sizeof kBin[0] - 1;
  if (folder.size() < 3 + binLength + 2 || folder[1] != L':' || folder[2] != L'\\' ||
      !SameText(folder.substr(3, binLength), kBin) || folder[3 + binLength] != L'\\')
    return false;
  std::wstring user = folder.substr(3 + binLength + 1);
  if (user.empty() || user.find_first_of(L"\\/:*?") != std::wstring::npos || user == L"." || user == L"..") return false;
  for (const std::wstring& level : {folder.substr(0, 3 + binLength), folder}) {
    DWORD attributes = GetFileAttributesW(level.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_DIRECTORY) ||
        (attributes & FILE_ATTRIBUTE_REPARSE_POINT))
      return false;
  }
  return true;
}

void CRecycleBinItem::InitEntry(const std::wstring& binFolder, const WIN32_FIND_DATAW* record,
                                const SRecycleBinRecord* parsed, const WIN32_FIND_DATAW* data) {
  if (!data && !(record && parsed)) AtlThrow(E_INVALIDARG);
  m_binFolder = binFolder;
  m_kind = !data ? kindRecordOnly : record ? kindEntry : kindDataOnly;
  m_recordPath = record ? binFolder + L"\\" + record->cFileName : std::wstring();
  m_dataPath = data ? binFolder + L"\\" + data->cFileName : std::wstring();
  m_record = record ? *parsed : SRecycleBinRecord();
  const WIN32_FIND_DATAW& main = data ? *data : *record;
  const std::wstring& mainPath = data ? m_dataPath : m_recordPath;
  m_path = CPathString(mainPath.c_str());
  m_attributes = main.dwFileAttributes;
  m_size = CFileSystemOps::GetTreeSizeOnDisk(mainPath.c_str());
  m_deleted = record ? parsed->deleted : Time(LatestOwnTime(m_dataPath, *data));
  m_ageEntry = main;
  m_ageEntry.ftCreationTime = m_ageEntry.ftLastAccessTime = m_ageEntry.ftLastWriteTime = m_deleted;
  m_ageEntry.nFileSizeHigh = static_cast<DWORD>(m_size >> 32);
  m_ageEntry.nFileSizeLow = static_cast<DWORD>(m_size);
}

DWORD CRecycleBinItem::CleanWith(bool overwrite, IOperationProgressNotify* progress, IOperationStatusNotify*) {
  CProgressScope scope(progress);
  try {
    // an item is held to its bin, whoever made it
    auto inBin = [this](const std::wstring& path) {
      std::wstring name = NameOf(path);
      return path.size() > m_binFolder.size() + 1 && SameText(path.substr(0, m_binFolder.size()), m_binFolder) &&
             path[m_binFolder.size()] == L'\\' && name.size() >= 2 && name[0] == L'$' &&
             path.find(L'\\', m_binFolder.size() + 1) == std::wstring::npos;
    };
    if (!IsBinFolder(m_binFolder) || (!m_dataPath.empty() && !inBin(m_dataPath)) ||
        (!m_recordPath.empty() && !inBin(m_recordPath)))
      return kRecycleBinNotInBin;
    // What the scan saw must still be what is there: the same record, and
    // no part that was missing has turned up.
    if (m_kind == kindDataOnly && PathExists(PartnerOf(m_dataPath))) return kRecycleBinChanged;
    if (m_kind == kindRecordOnly && PathExists(PartnerOf(m_recordPath))) return kRecycleBinChanged;
    if (!m_recordPath.empty() && PathExists(m_recordPath)) {
      SRecycleBinRecord now;
      std::wstring why;
      if (!CRecycleBinRecord::Read(m_recordPath.c_str(), now, why) || Ticks(now.deleted) != Ticks(m_record.deleted) ||
          now.originalPath != m_record.originalPath)
        return kRecycleBinChanged;
    }
    if (!m_dataPath.empty()) {
      DWORD result = CFileSystemOps::RemoveTree(m_dataPath.c_str(), overwrite);
      if (result != 0) return result;
      SHChangeNotify(IsDirectory() ? SHCNE_RMDIR : SHCNE_DELETE, SHCNF_PATHW | SHCNF_FLUSHNOWAIT, m_dataPath.c_str(),
                     nullptr);
    }
    if (!m_recordPath.empty()) {
      DWORD result = overwrite ? CFileOverwrite::OverwriteAndDelete(m_recordPath.c_str())
                               : CFileSystemOps::RemoveTree(m_recordPath.c_str(), false);
      if (result != 0) return result;
      SHChangeNotify(SHCNE_DELETE, SHCNF_PATHW | SHCNF_FLUSHNOWAIT, m_recordPath.c_str(), nullptr);
    }
    SHChangeNotify(SHCNE_UPDATEDIR, SHCNF_PATHW | SHCNF_FLUSHNOWAIT, m_binFolder.c_str(), nullptr);
    return kCleanDone;
  } catch (...) {
    return kRemoveFailed | ERROR_NOT_ENOUGH_MEMORY;
  }
}

CString CRecycleBinItem::GetLogEntry() const {
  CString entry;
  try {
    std::wstring original = m_kind == kindDataOnly     ? std::wstring(L"unknown, its record is missing")
                            : m_kind == kindRecordOnly ? m_record.originalPath + L" (its data is missing)"
                                                       : m_record.originalPath;
    entry.Format(L"Recycle Bin: %s\t\tOriginal: %s\t\tSize: %I64u\r\n", m_path.c_str(), original.c_str(), m_size);
  } catch (...) {
  }
  return entry;
}

CString CRecycleBinItem::GetName() const {
  if (m_kind == kindDataOnly) return CString(NameOf(m_dataPath).c_str());
  return CString(NameOf(m_record.originalPath).c_str());
}

CString CRecycleBinItem::GetDetails() const {
  if (m_kind == kindDataOnly) return CString(m_binFolder.c_str());
  const std::wstring& original = m_record.originalPath;
  size_t slash = original.find_last_of(L'\\');
  if (slash == std::wstring::npos) return CString();
  // "C:\" rather than "C:" for a file that lay in a drive root
  return CString(original.substr(0, slash == 2 && original[1] == L':' ? 3 : slash).c_str());
}

DWORD CRecycleBinItem::Move(CString, IOperationProgressNotify* progress, IOperationStatusNotify*, bool,
                            CPathString&) {
  CProgressScope scope(progress);
  return kRecycleBinNotMoved;
}
