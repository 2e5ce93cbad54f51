#include "host/Quarantine.h"

#include <shlobj.h>
#include <shlwapi.h>

#include <nlohmann/json.hpp>

#include "clean/CleanableFolder.h"
#include "core/Handles.h"
#include "core/PathString.h"
#include "host/Console.h"

namespace host {

namespace {

bool PathExists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

std::wstring NameOf(const std::wstring& path) {
  size_t slash = path.find_last_of(L'\\');
  return slash == std::wstring::npos ? path : path.substr(slash + 1);
}

std::wstring ParentOf(const std::wstring& path) {
  size_t slash = path.find_last_of(L'\\');
  return slash == std::wstring::npos ? std::wstring() : path.substr(0, slash);
}

std::wstring Hex(DWORD code) {
  wchar_t text[16];
  swprintf(text, 16, L"0x%08lX", static_cast<unsigned long>(code));
  return text;
}

bool ReadWholeFile(const std::wstring& path, std::string& bytes) {
  broom::unique_hfile file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                       FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) return false;
  LARGE_INTEGER size = {};
  if (!GetFileSizeEx(file.get(), &size) || size.QuadPart > 64 * 1024 * 1024) return false;
  bytes.resize(static_cast<size_t>(size.QuadPart));
  DWORD read = 0;
  if (!bytes.empty() && (!::ReadFile(file.get(), &bytes[0], static_cast<DWORD>(bytes.size()), &read, nullptr) ||
                         read != bytes.size()))
    return false;
  return true;
}

}  // namespace

std::wstring ExplainResult(DWORD code) {
  switch (code) {
    case kCleanDone:
      return L"done";
    case kCleanAlternateRemoved:
      return L"removed by the file-operations server's second method";
    case kCleanFailed:
      return L"could not be removed: it is in use, protected by access rights, or the removal failed (" + Hex(code) + L")";
    case kTruncateOpenFailed:
      return L"could not be opened to empty it: it is read-only, in use or access is denied (" + Hex(code) + L")";
    case kMoveDestinationExists:
      return L"a file of that name already exists at the destination (" + Hex(code) + L")";
    case kMoveException:
      return L"the move failed unexpectedly, for example because a path would exceed 260 characters (" + Hex(code) + L")";
    default:
      break;
  }
  if (code == kFolderNotEmpty)
    return L"the folder is not empty (something in it was kept or not removed), so it stays (" + Hex(code) + L")";
  if ((code & 0xFFFF0000) == kFolderFailed)
    return L"the empty folder could not be removed (Windows error " + std::to_wstring(code & 0xFFFF) + L", " + Hex(code) + L")";
  if ((code & 0xF8000000) == kCleanServerUnavailable) {
    // The creation HRESULT with bit 27 set and bits 29 and 30 cleared.
    DWORD hr = (code & 0x07FFFFFF) | 0x80000000;
    std::wstring why = hr == 0x80040154 ? L"it is not installed" : L"error " + Hex(hr);
    return L"Windows could not remove it and the fallback file-operations server could not be started (" + why +
           L"); it is probably in use or access is denied (" + Hex(code) + L")";
  }
  return L"the file-operations server reported error " + Hex(code);
}

CQuarantine::CQuarantine(const std::wstring& folder, bool create) : m_folder(folder) {
  if (create) {
    int rc = SHCreateDirectoryExW(nullptr, m_folder.c_str(), nullptr);
    if (rc != ERROR_SUCCESS && rc != ERROR_ALREADY_EXISTS && rc != ERROR_FILE_EXISTS)
      throw CHostError{exitUsage, L"cannot create the quarantine folder '" + m_folder + L"'; choose a writable folder"};
  }
  std::string bytes;
  if (!ReadWholeFile(ManifestPath(), bytes)) {
    if (create && !PathExists(ManifestPath())) return;
    throw CHostError{exitUsage, L"'" + m_folder + L"' holds no quarantine manifest (" + kManifestName +
                                    L"); give the folder passed to 'broom clean --quarantine'"};
  }
  nlohmann::json manifest = nlohmann::json::parse(bytes, nullptr, false);
  bool ok = !manifest.is_discarded() && manifest.is_object() && manifest.value("format", "") == "broom-quarantine" &&
            manifest.contains("entries") && manifest["entries"].is_array();
  if (ok) {
    for (const auto& e : manifest["entries"]) {
      if (!e.is_object() || !e.contains("original") || !e["original"].is_string() || !e.contains("stored") ||
          !e["stored"].is_string()) {
        ok = false;
        break;
      }
      SQuarantineEntry entry;
      entry.original = Wide(e["original"].get<std::string>());
      entry.stored = Wide(e["stored"].get<std::string>());
      entry.size = e.value("size", 0ULL);
      // A stored name never holds a separator: a manifest that says otherwise
      // would let restore move files from outside the quarantine folder.
      if (entry.stored.empty() || entry.stored.find_first_of(L"\\/:") != std::wstring::npos) {
        ok = false;
        break;
      }
      m_entries.push_back(entry);
    }
  }
  if (!ok)
    throw CHostError{exitUsage, L"the quarantine manifest '" + ManifestPath() +
                                    L"' is damaged; restore its files by hand from that folder"};
}

void CQuarantine::Save() const {
  nlohmann::json entries = nlohmann::json::array();
  for (const SQuarantineEntry& e : m_entries)
    entries.push_back({{"original", Utf8(e.original)}, {"stored", Utf8(e.stored)}, {"size", e.size}});
  nlohmann::json manifest = {{"format", "broom-quarantine"}, {"version", 1}, {"entries", entries}};
  std::string text = manifest.dump(2) + "\n";

  std::wstring temp = ManifestPath() + L".tmp";
  {
    broom::unique_hfile file(
        CreateFileW(temp.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    if (!file || !WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) ||
        written != text.size() || !FlushFileBuffers(file.get()))
      throw CHostError{exitCleanFailures, L"cannot write the quarantine manifest in '" + m_folder +
                                              L"'; its files are listed by name there, move them back by hand"};
  }
  if (!MoveFileExW(temp.c_str(), ManifestPath().c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
    throw CHostError{exitCleanFailures, L"cannot replace the quarantine manifest in '" + m_folder +
                                            L"'; the latest list is in " + kManifestName + L".tmp"};
}

DWORD CQuarantine::Add(const SHit& hit) {
  std::wstring destination = m_folder + L"\\" + NameOf(hit.path);
  DWORD result = kMoveException;
  // The proposal is free when made; another process may take it before the
  // move, so a few proposals are tried.
  for (int attempt = 0; attempt < 5; ++attempt) {
    CPathString proposal;
    result = hit.item->Move(CString(destination.c_str()), nullptr, nullptr, false, proposal);
    if (result != kMoveDestinationExists || proposal.GetLength() == 0) break;
    destination.assign(proposal.GetBuffer(), proposal.GetLength());
  }
  if (result != kCleanDone) return result;
  if (!PathExists(destination) || PathExists(hit.path)) return kMoveException;
  m_entries.push_back(SQuarantineEntry{hit.path, NameOf(destination), hit.size});
  Save();
  return kCleanDone;
}

std::vector<CQuarantine::SRestoreFailure> CQuarantine::RestoreAll(unsigned __int64& restoredFiles,
                                                                   unsigned __int64& restoredBytes) {
  std::vector<SRestoreFailure> failures;
  std::vector<SQuarantineEntry> pending = m_entries;
  for (const SQuarantineEntry& entry : pending) {
    if (IsCancelRequested()) break;
    std::wstring source = m_folder + L"\\" + entry.stored;
    std::wstring reason;
    WIN32_FIND_DATAW data = {};
    broom::unique_hfind find(FindFirstFileW(source.c_str(), &data));
    if (!find) {
      reason = L"it is no longer in the quarantine folder";
    } else if (PathExists(entry.original)) {
      reason = L"a file already exists at the original place; the quarantined copy stays as '" + entry.stored + L"'";
    } else {
      std::wstring parent = ParentOf(entry.original);
      if (!parent.empty() && !PathExists(parent)) SHCreateDirectoryExW(nullptr, parent.c_str(), nullptr);
      DWORD result = kMoveException;
      try {
        CRefPtr<CCleanableFile> file(new IUnknownNoQIImp<CCleanableFile>());
        file->Init(CPathString(m_folder.c_str()), data);
        CPathString proposal;
        result = file->Move(CString(entry.original.c_str()), nullptr, nullptr, false, proposal);
      } catch (...) {
        result = kMoveException;
      }
      if (result == kCleanDone && PathExists(entry.original)) {
        ++restoredFiles;
        restoredBytes += entry.size;
        for (size_t i = 0; i < m_entries.size(); ++i) {
          if (m_entries[i].stored == entry.stored) {
            m_entries.erase(m_entries.begin() + static_cast<std::ptrdiff_t>(i));
            break;
          }
        }
        Save();
        continue;
      }
      reason = result == kMoveDestinationExists ? L"a file already exists at the original place" : ExplainResult(result);
    }
    failures.push_back(SRestoreFailure{entry, reason});
  }
  if (m_entries.empty() && !IsCancelRequested()) {
    DeleteFileW(ManifestPath().c_str());
    RemoveDirectoryW(m_folder.c_str());  // only when nothing else is left in it
  }
  return failures;
}

}  // namespace host
