#include "app/QuarantineRegistry.h"

#include <cwchar>

#include "app/HostError.h"
#include "app/QuarantineMoves.h"
#include "app/Text.h"
#include "clean/ResultCodes.h"
#include "core/Names.h"
#include "registry/CleanableRegistry.h"
#include "registry/RegFile.h"
#include "registry/RegistryPath.h"

namespace host {

namespace {

// A file name for a registry hit's export: the key's name, with the value's
// name after it, made safe for a file system, and .reg.
std::wstring ExportName(const CRegistryPath& path) {
  const std::wstring& subkey = path.Subkey();
  std::wstring name = subkey.substr(subkey.rfind(L'\\') == std::wstring::npos ? 0 : subkey.rfind(L'\\') + 1);
  if (path.HasValue()) name += L" " + (path.ValueName().empty() ? std::wstring(L"(Default)") : path.ValueName());
  for (wchar_t& c : name)
    if (c < 0x20 || wcschr(L"<>:\"/\\|?*", c)) c = L'_';
  if (name.size() > 100) name.resize(100);
  while (!name.empty() && (name.back() == L'.' || name.back() == L' ')) name.pop_back();
  if (name.empty()) name = L"registry";
  if (IsDeviceName(name + L".reg")) name = L"_" + name;
  return name + L".reg";
}

// The whole content of a file; false when it cannot be read.
bool ReadBytes(const std::wstring& path, std::string& out) {
  broom::unique_hfile file(
      CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  LARGE_INTEGER size = {};
  if (!file || !GetFileSizeEx(file.get(), &size) || size.QuadPart > 256 * 1024 * 1024) return false;
  out.assign(static_cast<size_t>(size.QuadPart), '\0');
  DWORD read = 0;
  return out.empty() || (::ReadFile(file.get(), &out[0], static_cast<DWORD>(out.size()), &read, nullptr) &&
                         read == out.size());
}

// The export in file reads back as a fresh export of the key does.
bool SameExport(const CCleanableRegistry& key, const std::wstring& file) {
  wchar_t folder[MAX_PATH + 1], fresh[MAX_PATH + 1];
  if (!GetTempPathW(MAX_PATH + 1, folder) || !GetTempFileNameW(folder, L"brm", 0, fresh)) return false;
  auto remove = broom::scope_exit([&] { DeleteFileW(fresh); });
  std::string written, expected;
  return key.Export(fresh, true) == 0 && ReadBytes(file, written) && ReadBytes(fresh, expected) &&
         written == expected;
}

}  // namespace

DWORD ExportInto(CQuarantineManifest& manifest, const SHit& hit, SQuarantineEntry& entry) {
  auto* key = static_cast<CCleanableRegistry*>(hit.item.Get());
  entry.registry = true;
  entry.original = key->GetPath().Text();
  std::wstring destination = manifest.Child(ExportName(key->GetPath()));
  DWORD result = kRegistryExportFileExists;
  for (int attempt = 0; attempt < 5 && result == kRegistryExportFileExists; ++attempt) {
    result = key->Export(destination.c_str(), false);
    if (result == kRegistryExportFileExists && !FreeName(destination)) break;
  }
  if (result == kRegistryExportFileExists) return kMoveDestinationExists;
  if (result != 0) return result;
  // A second export must read the same: the file holds what is deleted.
  if (!SameExport(*key, destination)) {
    DeleteFileW(destination.c_str());
    return kQuarantineCopyMismatch;
  }
  entry.stored = broom::NameOf(destination);
  std::wstring error;
  if (!manifest.Record(entry, error)) {
    DeleteFileW(destination.c_str());
    throw CHostError{exitCleanFailures, error + L"; the files moved so far are in that folder, move them back by hand"};
  }
  result = key->Clean(nullptr, nullptr);
  if (result == kCleanDone) return result;
  // Nothing deleted: the export goes too. Part of a tree deleted: it stays
  // listed, and a restore writes back what is missing.
  if (key->Exists() && SameExport(*key, destination)) {
    manifest.Entries().pop_back();
    if (manifest.TrySave(error))
      DeleteFileW(destination.c_str());
    else
      manifest.Entries().push_back(entry);
  }
  return result;
}

bool ImportBack(const CQuarantineManifest& manifest, const SQuarantineEntry& entry, std::wstring& reason) {
  const std::wstring source = manifest.Child(entry.stored);
  const std::wstring kept = L"; its export stays as " + Quoted(entry.stored);
  if (!manifest.StoredReachable(entry, L"its export", reason)) return false;
  // Only the key or value the entry was made for may be written: a changed
  // export could name any key the user may write (a Run key).
  CRegistryPath within;
  if (!within.Parse(entry.original)) {
    reason = L"its original place " + Quoted(entry.original) + L" is not a registry path" + kept;
    return false;
  }
  SRegRestoreStats stats;
  const DWORD code = CRegFile::Restore(source.c_str(), false, &stats, &within);
  if (code == kRegistryRestoreOutside) {
    reason = L"its export names a key or value other than " + Quoted(entry.original) +
             L", so nothing of it was written" + kept + L" (it was changed after the clean: look at it before "
             L"merging any of it by hand)";
    return false;
  }
  if (code == kRegistryRestoreConflict) {
    reason = Plural(stats.conflicts, L"value holds", L"values hold") +
             L" other data now and was left as it is" + kept +
             L" (a registry editor file: merge it by hand to replace them)";
    return false;
  }
  if (code != 0) {
    reason = L"it cannot be written back: " + ExplainResult(code) + kept;
    return false;
  }
  SetFileAttributesW(source.c_str(), FILE_ATTRIBUTE_NORMAL);
  if (!DeleteFileW(source.c_str())) {
    reason = L"it is back in the registry, but its export cannot be removed (" + SystemMessage(GetLastError()) +
             L"); run 'broom restore' again to clear it";
    return false;
  }
  return true;
}

}  // namespace host
