#include "app/Quarantine.h"

#include <shlobj.h>

#include "app/HostError.h"
#include "app/QuarantineDatabase.h"
#include "app/QuarantineMoves.h"
#include "app/QuarantineRegistry.h"
#include "app/Text.h"
#include "browserdb/CleanableBrowserDb.h"
#include "clean/ResultCodes.h"
#include "core/Names.h"
#include "registry/CleanableRegistry.h"
#include "registry/RegistryPath.h"

namespace host {

CQuarantine::CQuarantine(const std::wstring& folder, bool create) : m_manifest(folder) {
  if (create) {
    int rc = SHCreateDirectoryExW(nullptr, folder.c_str(), nullptr);
    m_created = rc == ERROR_SUCCESS;
    if (rc != ERROR_SUCCESS && rc != ERROR_ALREADY_EXISTS && rc != ERROR_FILE_EXISTS)
      throw CHostError{exitUsage, L"cannot create the quarantine folder " + Quoted(folder) + L"; choose a writable folder"};
    DWORD attributes = GetFileAttributesW(folder.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_DIRECTORY))
      throw CHostError{exitUsage, Quoted(folder) + L" is not a folder; give --quarantine a new or an empty folder"};
  }
  if (m_manifest.Load()) return;
  const std::wstring name = CQuarantineManifest::kName;
  if (!create) {
    std::wstring left = PathExists(ManifestPath() + L".tmp")
                            ? L" (a list was left in " + name + L".tmp: rename it to " + name + L" to use it)"
                            : std::wstring();
    throw CHostError{exitUsage, Quoted(folder) + L" holds no quarantine manifest (" + name + L")" + left +
                                    L"; give the folder passed to 'broom clean --quarantine'"};
  }
  // A new quarantine starts empty, so that everything in it is listed.
  std::vector<SListed> listed;
  if (ListFolder(folder, listed) && !listed.empty())
    throw CHostError{exitUsage, Quoted(folder) + L" already holds " + Quoted(listed[0].name) +
                                    L" and no quarantine manifest; give --quarantine an empty or a new folder"};
}

CQuarantine::~CQuarantine() {
  if (!m_created || !m_manifest.Entries().empty()) return;
  // Only the manifest (and its .tmp) may be left in a folder that is removed.
  std::vector<SListed> listed;
  if (!ListFolder(Folder(), listed)) return;
  const std::wstring name = CQuarantineManifest::kName;
  for (const SListed& item : listed)
    if (!broom::SamePath(item.name, name) && !broom::SamePath(item.name, name + L".tmp")) return;
  DeleteFileW(ManifestPath().c_str());
  DeleteFileW((ManifestPath() + L".tmp").c_str());
  RemoveDirectoryW(Folder().c_str());
}

std::wstring CQuarantine::CannotHold(const std::wstring& path) const {
  std::wstring why = m_manifest.WhyNotOriginal(path, CRegistryPath::StartsWithHive(path.c_str()));
  if (why.empty()) return why;
  return L"left in place: 'broom restore' could not put it back, since its path " + why;
}

DWORD CQuarantine::Add(const SHit& hit, const std::wstring& itemPath, const SOperationSource* source) {
  if (!hit.item) return kMoveException;
  SQuarantineEntry entry;
  entry.original = hit.path;
  entry.size = hit.size;
  entry.item = itemPath;
  if (source) {
    entry.hasSource = true;
    entry.source = *source;
  }
  // a browser database is cleaned inside, never moved: its copy from before is kept
  if (dynamic_cast<CCleanableBrowserDb*>(hit.item.Get())) return CopyDatabaseInto(m_manifest, hit, entry);
  return dynamic_cast<CCleanableRegistry*>(hit.item.Get()) ? ExportInto(m_manifest, hit, entry)
                                                           : MoveInto(m_manifest, hit, entry);
}

CQuarantine::SRestoreResult CQuarantine::RestoreAll() {
  SRestoreResult result;
  std::vector<SQuarantineEntry>& entries = m_manifest.Entries();
  const std::vector<SQuarantineEntry> pending = entries;
  for (const SQuarantineEntry& entry : pending) {
    if (IsCancelRequested()) break;
    std::wstring reason;
    const bool back = entry.database   ? PutDatabaseBack(m_manifest, entry, reason)
                      : entry.registry ? ImportBack(m_manifest, entry, reason)
                                       : MoveBack(m_manifest, entry, reason);
    if (!back) {
      result.failures.push_back(SRestoreFailure{entry, reason});
      continue;
    }
    ++result.files;
    result.bytes += entry.size;
    for (size_t i = 0; i < entries.size(); ++i) {
      if (entries[i].stored == entry.stored) {
        entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(i));
        break;
      }
    }
    std::wstring error;
    if (!m_manifest.TrySave(error)) {
      result.stopped = error + L"; it still lists " + Quoted(entry.original) +
                       L", which was restored, and nothing more was moved";
      return result;
    }
  }
  if (entries.empty() && !IsCancelRequested()) {
    DeleteFileW(ManifestPath().c_str());
    RemoveDirectoryW(Folder().c_str());  // only when nothing else is left in it
  }
  return result;
}

bool CQuarantine::DeleteFolder(const std::wstring& folder, std::wstring& reason) {
  try {
    return CQuarantine(folder, false).DeleteAll(reason);
  } catch (const CHostError& e) {
    reason = e.message;
    return false;
  }
}

bool CQuarantine::DeleteAll(std::wstring& reason) {
  std::vector<SQuarantineEntry>& entries = m_manifest.Entries();
  while (!entries.empty()) {
    const SQuarantineEntry& entry = entries.back();
    DWORD error = ERROR_SUCCESS;
    bool deleted = DeleteTree(m_manifest.Child(entry.stored), error);
    for (const wchar_t* suffix : kDatabaseCompanions)
      deleted = deleted && (!entry.database || DeleteTree(m_manifest.Child(entry.stored + suffix), error));
    if (!deleted) {
      reason = Quoted(entry.stored) + L" in it cannot be deleted (" + SystemMessage(error) + L")";
      std::wstring ignored;
      m_manifest.TrySave(ignored);  // what is gone is no longer listed
      return false;
    }
    entries.pop_back();
  }
  DeleteFileW(ManifestPath().c_str());
  DeleteFileW((ManifestPath() + L".tmp").c_str());
  if (!RemoveDirectoryW(Folder().c_str())) {
    reason = L"the folder itself cannot be removed (" + SystemMessage(GetLastError()) + L")";
    return false;
  }
  return true;
}

}  // namespace host
