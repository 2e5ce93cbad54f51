#include "app/QuarantineMoves.h"

#include <shlobj.h>

#include "app/HostError.h"
#include "app/Text.h"
#include "clean/CleanableFolder.h"
#include "clean/FileSystemOps.h"
#include "core/Handles.h"
#include "core/Names.h"
#include "core/PathString.h"

namespace host {

namespace {

// Both paths lie on one volume, as far as Windows can tell; false when unsure.
bool SameVolume(const std::wstring& a, const std::wstring& b) {
  wchar_t rootA[MAX_PATH + 1], rootB[MAX_PATH + 1], nameA[64], nameB[64];
  return GetVolumePathNameW(a.c_str(), rootA, MAX_PATH + 1) && GetVolumePathNameW(b.c_str(), rootB, MAX_PATH + 1) &&
         GetVolumeNameForVolumeMountPointW(rootA, nameA, 64) && GetVolumeNameForVolumeMountPointW(rootB, nameB, 64) &&
         broom::SamePath(nameA, nameB);
}

// A file copied to the quarantine on another drive under a temporary name,
// compared, renamed, recorded and only then deleted at its place.
DWORD CopyAcross(CQuarantineManifest& manifest, const std::wstring& source, std::wstring& destination,
                 SQuarantineEntry& entry) {
  const DWORD attributes = GetFileAttributesW(source.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) return kQuarantineMoveFailed | (GetLastError() & 0xFFFF);
  if (attributes & FILE_ATTRIBUTE_DIRECTORY) return kQuarantineFolderAcross;
  if (attributes & FILE_ATTRIBUTE_REPARSE_POINT) return kQuarantineMoveFailed | ERROR_NOT_SUPPORTED;
  auto failed = [](DWORD error) { return kQuarantineMoveFailed | ((error ? error : ERROR_GEN_FAILURE) & 0xFFFF); };
  // Nobody may write or delete the file while it is copied: what is
  // compared is what goes, and the handle deletes that very file.
  broom::unique_hfile from(CreateFileW(source.c_str(), GENERIC_READ | DELETE | FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ,
                                       nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
  if (!from) return failed(GetLastError());
  const std::wstring temp = manifest.Child(CQuarantineManifest::kIncomingName);
  broom::unique_hfile to(
      CreateFileW(temp.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!to) return failed(GetLastError());
  std::wstring copy = temp;  // where the copy is now; removed unless kept
  bool keep = false;
  auto drop = broom::scope_exit([&] {
    if (keep) return;
    to.reset();
    SetFileAttributesW(copy.c_str(), FILE_ATTRIBUTE_NORMAL);
    DeleteFileW(copy.c_str());
  });

  std::vector<char> a(1 << 20), b(1 << 20);
  DWORD got = 0, put = 0;
  for (;;) {
    if (!::ReadFile(from.get(), a.data(), static_cast<DWORD>(a.size()), &got, nullptr)) return failed(GetLastError());
    if (got == 0) break;
    if (!WriteFile(to.get(), a.data(), got, &put, nullptr) || put != got) return failed(GetLastError());
  }
  FILETIME created, accessed, written;
  if (!FlushFileBuffers(to.get()) || !GetFileTime(from.get(), &created, &accessed, &written) ||
      !SetFileTime(to.get(), &created, &accessed, &written))
    return failed(GetLastError());
  // The copy is read back from its drive and compared with the file.
  LARGE_INTEGER zero = {};
  if (!SetFilePointerEx(from.get(), zero, nullptr, FILE_BEGIN) || !SetFilePointerEx(to.get(), zero, nullptr, FILE_BEGIN))
    return failed(GetLastError());
  for (;;) {
    DWORD gotA = 0, gotB = 0;
    if (!::ReadFile(from.get(), a.data(), static_cast<DWORD>(a.size()), &gotA, nullptr) ||
        !::ReadFile(to.get(), b.data(), static_cast<DWORD>(b.size()), &gotB, nullptr))
      return failed(GetLastError());
    if (gotA != gotB || memcmp(a.data(), b.data(), gotA) != 0) return kQuarantineCopyMismatch;
    if (gotA == 0) break;
  }
  to.reset();
  for (int attempt = 0;; ++attempt) {
    if (MoveFileExW(temp.c_str(), destination.c_str(), MOVEFILE_WRITE_THROUGH)) break;
    DWORD error = GetLastError();
    if ((error != ERROR_ALREADY_EXISTS && error != ERROR_FILE_EXISTS) || attempt == 4 || !FreeName(destination))
      return failed(error);
  }
  copy = destination;
  SetFileAttributesW(copy.c_str(), attributes & (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN |
                                                 FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE));
  entry.stored = broom::NameOf(destination);
  std::wstring error;
  if (!manifest.Record(entry, error))
    throw CHostError{exitCleanFailures, error + L"; " + Quoted(source) +
                                            L" stays where it was, the files moved before it are in that folder"};

  // Only now the file goes; a read-only one loses that bit first.
  FILE_BASIC_INFO basic = {};
  if (attributes & FILE_ATTRIBUTE_READONLY) {
    basic.FileAttributes = (attributes & ~FILE_ATTRIBUTE_READONLY) ? (attributes & ~FILE_ATTRIBUTE_READONLY)
                                                                    : FILE_ATTRIBUTE_NORMAL;
    SetFileInformationByHandle(from.get(), FileBasicInfo, &basic, sizeof basic);
  }
  FILE_DISPOSITION_INFO disposition = {TRUE};
  if (!SetFileInformationByHandle(from.get(), FileDispositionInfo, &disposition, sizeof disposition)) {
    DWORD why = GetLastError();
    if (attributes & FILE_ATTRIBUTE_READONLY) {
      basic.FileAttributes = attributes;
      SetFileInformationByHandle(from.get(), FileBasicInfo, &basic, sizeof basic);
    }
    manifest.Entries().pop_back();
    if (!manifest.TrySave(error)) {
      keep = true;  // the manifest on disk lists the copy: it stays as listed
      throw CHostError{exitCleanFailures, error + L"; " + Quoted(source) + L" could not be removed (" +
                                              SystemMessage(why) + L"), so both it and its copy exist"};
    }
    return failed(why);
  }
  from.reset();  // the file is deleted as its last handle closes
  keep = true;
  return kCleanDone;
}

// A plain folder, not a link to one.
bool IsPlainFolder(const std::wstring& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) &&
         !(attributes & FILE_ATTRIBUTE_REPARSE_POINT);
}

// Moves what the quarantined folder holds into the folder at its original
// place, which a restore of its files made again, folder by folder, never
// over a file; the quarantined folder goes once it is empty. False with the
// first thing that stays.
bool MergeBack(const std::wstring& from, const std::wstring& into, std::wstring& reason) {
  std::vector<SListed> listed;
  if (!ListFolder(from, listed)) {
    reason = L"its quarantined folder cannot be listed (" + SystemMessage(GetLastError()) + L")";
    return false;
  }
  for (const SListed& item : listed) {
    const std::wstring source = from + L"\\" + item.name, target = into + L"\\" + item.name;
    if (IsPlainFolder(source) && IsPlainFolder(target)) {
      if (!MergeBack(source, target, reason)) return false;
      continue;
    }
    if (!MoveFileExW(source.c_str(), target.c_str(), MOVEFILE_WRITE_THROUGH)) {
      const DWORD error = GetLastError();
      reason = error == ERROR_ALREADY_EXISTS || error == ERROR_FILE_EXISTS
                   ? L"its folder is back, but " + Quoted(target) + L" exists already and its quarantined copy stays"
                   : L"its folder is back, but " + Quoted(target) + L" cannot be moved into it (" +
                         SystemMessage(error) + L")";
      return false;
    }
  }
  if (!RemoveDirectoryW(from.c_str())) {
    reason = L"its folder is back, but the emptied quarantined folder cannot be removed (" +
             SystemMessage(GetLastError()) + L")";
    return false;
  }
  return true;
}

}  // namespace

bool FreeName(std::wstring& path) {
  try {
    CPathString free(path.c_str());
    CFileSystemOps::MakeFreeName(free);
    path.assign(free.GetBuffer(), free.GetLength());
    return true;
  } catch (...) {
    return false;
  }
}

bool DeleteTree(const std::wstring& path, DWORD& error) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    error = GetLastError();
    return IsMissing(error);
  }
  const bool folder = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  if (folder && !(attributes & FILE_ATTRIBUTE_REPARSE_POINT)) {
    std::vector<SListed> listed;
    if (!ListFolder(path, listed)) {
      error = GetLastError();
      return false;
    }
    for (const SListed& item : listed)
      if (!DeleteTree(path + L"\\" + item.name, error)) return false;
  }
  if (attributes & FILE_ATTRIBUTE_READONLY) SetFileAttributesW(path.c_str(), attributes & ~FILE_ATTRIBUTE_READONLY);
  if (folder ? RemoveDirectoryW(path.c_str()) : DeleteFileW(path.c_str())) return true;
  error = GetLastError();
  return false;
}

DWORD MoveInto(CQuarantineManifest& manifest, const SHit& hit, SQuarantineEntry& entry) {
  std::wstring name = broom::NameOf(hit.path);
  // The manifest's own names are never given to a quarantined file.
  if (CQuarantineManifest::IsOwnName(name)) name = L"_" + name;
  std::wstring destination = manifest.Child(name);
  // An empty folder item moves itself (it makes the destination and goes);
  // everything else is renamed, which never leaves half a move behind.
  bool engine = dynamic_cast<CCleanableEmptyFolder*>(hit.item.Get()) != nullptr;
  DWORD result = kMoveException;
  // A free name may be taken before the move, so a few are tried.
  for (int attempt = 0; attempt < 5; ++attempt) {
    if (engine) {
      CPathString proposal;
      result = hit.item->Move(CString(destination.c_str()), nullptr, nullptr, false, proposal);
      if (result != kMoveDestinationExists || proposal.GetLength() == 0) break;
      destination.assign(proposal.GetBuffer(), proposal.GetLength());
      continue;
    }
    if (MoveFileExW(hit.path.c_str(), destination.c_str(), MOVEFILE_WRITE_THROUGH)) {
      result = kCleanDone;
      break;
    }
    DWORD error = GetLastError();
    if (error == ERROR_ALREADY_EXISTS || error == ERROR_FILE_EXISTS) {
      result = kMoveDestinationExists;
      if (!FreeName(destination)) break;
      continue;
    }
    if (error == ERROR_NOT_SAME_DEVICE) return CopyAcross(manifest, hit.path, destination, entry);
    // In use or denied: on one volume the engine's move, which can ask its
    // file-operations server, renames too.
    result = kQuarantineMoveFailed | (error & 0xFFFF);
    if (!SameVolume(hit.path, manifest.Folder())) break;
    engine = true;
  }
  if (result != kCleanDone) return result;
  if (!PathExists(destination) || PathExists(hit.path)) return kMoveException;
  entry.stored = broom::NameOf(destination);
  std::wstring error;
  if (!manifest.Record(entry, error)) {
    MoveFileExW(destination.c_str(), hit.path.c_str(), MOVEFILE_WRITE_THROUGH);
    throw CHostError{exitCleanFailures, error + L"; the files moved so far are in that folder, move them back by hand"};
  }
  return kCleanDone;
}

bool MoveBack(const CQuarantineManifest& manifest, const SQuarantineEntry& entry, std::wstring& reason) {
  const std::wstring source = manifest.Child(entry.stored);
  const std::wstring kept = L"; the quarantined copy stays as " + Quoted(entry.stored);
  if (!manifest.StoredReachable(entry, L"its quarantined copy", reason)) return false;
  DWORD probe = Probe(entry.original);
  // A folder entry (a rule that removes its folder) whose folder the restore
  // of its files made again is merged into it.
  if (probe == ERROR_SUCCESS && IsPlainFolder(source) && IsPlainFolder(entry.original)) {
    if (!MergeBack(source, entry.original, reason)) {
      reason += kept;
      return false;
    }
    return true;
  }
  if (probe == ERROR_SUCCESS) {
    reason = L"a file already exists at the original place" + kept;
    return false;
  }
  if (!IsMissing(probe)) {
    reason = L"the original place cannot be checked (" + SystemMessage(probe) + L")" + kept;
    return false;
  }
  const std::wstring parent = broom::ParentOf(entry.original);
  if (parent.size() > 2 && !PathExists(parent)) {
    int rc = SHCreateDirectoryExW(nullptr, parent.c_str(), nullptr);
    if (rc != ERROR_SUCCESS && rc != ERROR_ALREADY_EXISTS && rc != ERROR_FILE_EXISTS) {
      reason = L"its folder " + Quoted(parent) + L" cannot be created (" + SystemMessage(static_cast<DWORD>(rc)) +
               L")" + kept;
      return false;
    }
  }
  // Without MOVEFILE_REPLACE_EXISTING the move fails rather than replace a
  // file that appeared since the check; the shell's move would replace it.
  if (!MoveFileExW(source.c_str(), entry.original.c_str(), MOVEFILE_WRITE_THROUGH)) {
    DWORD error = GetLastError();
    if (error != ERROR_NOT_SAME_DEVICE) {
      reason = error == ERROR_ALREADY_EXISTS || error == ERROR_FILE_EXISTS
                   ? L"a file already exists at the original place" + kept
                   : L"it cannot be moved back (" + SystemMessage(error) + L")" + kept;
      return false;
    }
    // Another drive: a copy that never replaces, then the quarantined file
    // goes; if it cannot go, the copy is taken back so one copy remains.
    if (!CopyFileExW(source.c_str(), entry.original.c_str(), nullptr, nullptr, nullptr, COPY_FILE_FAIL_IF_EXISTS)) {
      reason = L"it cannot be copied back (" + SystemMessage(GetLastError()) + L")" + kept;
      return false;
    }
    SetFileAttributesW(source.c_str(), FILE_ATTRIBUTE_NORMAL);
    if (!DeleteFileW(source.c_str())) {
      std::wstring why = SystemMessage(GetLastError());
      SetFileAttributesW(entry.original.c_str(), FILE_ATTRIBUTE_NORMAL);
      reason = DeleteFileW(entry.original.c_str())
                   ? L"its quarantined copy cannot be removed (" + why + L")" + kept
                   : L"it was copied back, but its quarantined copy cannot be removed (" + why +
                         L"); both copies exist: compare them and delete the one in quarantine";
      return false;
    }
  }
  if (!PathExists(entry.original)) {
    reason = L"the move reported success, yet nothing is at the original place" +
             (PathExists(source) ? kept : std::wstring(L"; look for the file by hand"));
    return false;
  }
  if (PathExists(source)) {
    reason = L"it is back at the original place, but its quarantined copy is still there: compare them and delete the "
             L"one in quarantine";
    return false;
  }
  return true;
}

}  // namespace host
