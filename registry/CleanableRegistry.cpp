#include "registry/CleanableRegistry.h"

#include <string>
#include <vector>

#include "clean/FileSystemOps.h"
#include "clean/ProgressScope.h"
#include "core/Handles.h"
#include "registry/RegKeyReader.h"
#include "registry/RegistrySafety.h"

namespace {

constexpr REGSAM kDeleteRights = DELETE | KEY_ENUMERATE_SUB_KEYS | KEY_QUERY_VALUE | KEY_SET_VALUE;

// Opens every key below key with the rights deleting it takes; the first refusal.
LONG CheckTreeDeletable(HKEY key, REGSAM view) {
  std::vector<std::wstring> names;
  LONG rc = broom::reg::ReadSubkeyNames(key, names);
  if (rc != ERROR_SUCCESS) return rc;
  for (const std::wstring& name : names) {
    broom::unique_hkey child;
    rc = RegOpenKeyExW(key, name.c_str(), 0, kDeleteRights | view, child.addressof());
    if (rc == ERROR_FILE_NOT_FOUND) continue;
    if (rc != ERROR_SUCCESS) return rc;
    rc = CheckTreeDeletable(child.get(), view);
    if (rc != ERROR_SUCCESS) return rc;
  }
  return ERROR_SUCCESS;
}

LONG DeleteKey(const CRegistryPath& path, REGSAM view, bool& changed) {
  broom::unique_hkey key;
  LONG rc = RegOpenKeyExW(path.Hive(), path.Subkey().c_str(), 0, kDeleteRights | view, key.addressof());
  if (rc == ERROR_SUCCESS) rc = CheckTreeDeletable(key.get(), view);
  if (rc != ERROR_SUCCESS) return rc;
  changed = true;
  rc = RegDeleteTreeW(key.get(), nullptr);
  key.reset();
  if (rc != ERROR_SUCCESS && rc != ERROR_FILE_NOT_FOUND) return rc;
  return RegDeleteKeyExW(path.Hive(), path.Subkey().c_str(), view, 0);
}

LONG DeleteValue(const CRegistryPath& path, REGSAM view, bool& changed) {
  broom::unique_hkey key;
  LONG rc = RegOpenKeyExW(path.Hive(), path.Subkey().c_str(), 0, KEY_SET_VALUE | view, key.addressof());
  if (rc != ERROR_SUCCESS) return rc;
  rc = RegDeleteValueW(key.get(), path.ValueName().c_str());
  changed = rc == ERROR_SUCCESS;
  return rc;
}

// The item's deletion; whether anything was removed goes to changed.
DWORD Delete(const CRegistryPath& path, REGSAM view, bool& changed) {
  changed = false;
  try {
    // items made by hand are held to the same table as scanned ones
    if (path.HasValue() ? CRegistrySafety::IsRefusedValueKey(path) : CRegistrySafety::IsRefusedKey(path))
      return kRegistryRefused;
    LONG rc = path.HasValue() ? DeleteValue(path, view, changed) : DeleteKey(path, view, changed);
    return rc == ERROR_FILE_NOT_FOUND ? 0 : RegistryResult(rc);  // already gone
  } catch (...) {
    return RegistryResult(ERROR_NOT_ENOUGH_MEMORY);
  }
}

}  // namespace

void CCleanableRegistry::Init(const CRegistryPath& path, REGSAM view, unsigned __int64 size) {
  m_path = path;
  m_view = view;
  m_size = size;
}

bool CCleanableRegistry::Exists() const {
  broom::unique_hkey key;
  if (RegOpenKeyExW(m_path.Hive(), m_path.Subkey().c_str(), 0, KEY_QUERY_VALUE | m_view, key.addressof()) !=
      ERROR_SUCCESS)
    return false;
  return !IsValue() ||
         RegQueryValueExW(key.get(), m_path.ValueName().c_str(), nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
}

DWORD CCleanableRegistry::Clean(IOperationProgressNotify* progress, IOperationStatusNotify*) {
  CProgressScope scope(progress);
  bool changed = false;
  return Delete(m_path, m_view, changed);
}

CString CCleanableRegistry::GetLogEntry() const {
  CString entry;
  try {
    entry.Format(L"Registry: %s\t\tSize: %I64u\r\n", m_path.Text().c_str(), m_size);
  } catch (...) {
  }
  return entry;
}

CString CCleanableRegistry::GetName() const {
  if (IsValue()) return m_path.ValueName().empty() ? CString(L"(Default)") : CString(m_path.ValueName().c_str());
  size_t slash = m_path.Subkey().rfind(L'\\');
  return CString(m_path.Subkey().c_str() + (slash == std::wstring::npos ? 0 : slash + 1));
}

CString CCleanableRegistry::GetDetails() const {
  std::wstring key = m_path.KeyText();
  if (!IsValue()) {
    size_t slash = key.rfind(L'\\');
    key.resize(slash == std::wstring::npos ? 0 : slash);
  }
  return CString(key.c_str());
}

DWORD CCleanableRegistry::Move(CString destination, IOperationProgressNotify* progress, IOperationStatusNotify*,
                               bool overwrite, CPathString& newPath) {
  CProgressScope scope(progress);
  try {
    CPathString target(destination);
    DWORD result = overwrite || GetFileAttributesW(target.c_str()) == INVALID_FILE_ATTRIBUTES
                       ? CRegFile::Export(m_path, m_view, target.c_str(), overwrite)
                       : kRegistryExportFileExists;
    if (result == kRegistryExportFileExists) {
      newPath = target;
      CFileSystemOps::MakeFreeName(newPath);
      return kMoveDestinationExists;
    }
    if (result != 0) return result;
    bool changed = false;
    result = Delete(m_path, m_view, changed);
    // the export is the only copy of whatever a failed deletion removed
    if (result != 0 && !changed) DeleteFileW(target.c_str());
    return result;
  } catch (...) {
    return kMoveException;
  }
}
