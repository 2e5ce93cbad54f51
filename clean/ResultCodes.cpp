#include "clean/ResultCodes.h"

#include <cwchar>

#include "clean/FileOverwrite.h"
#include "clean/FileSystemOps.h"
#include "core/Exceptions.h"

namespace {

std::wstring Hex(DWORD code) {
  wchar_t text[16];
  swprintf(text, 16, L"0x%08lX", static_cast<unsigned long>(code));
  return text;
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
  if ((code & 0xFFFF0000) == kRegistryFailed) {
    const DWORD error = code & 0xFFFF;
    if (code == kRegistryRefused)
      return L"the registry key is one that Broom never deletes (" + Hex(code) + L")";
    if (code == kRegistryRestoreConflict)
      return L"a registry value in the way holds other data now and was left as it is (" + Hex(code) + L")";
    if (code == kRegistryExportFileExists) return L"the export file exists already (" + Hex(code) + L")";
    if (code == kRegistryRestoreOutside)
      return L"the registry export names a key or value other than the one it was made for, so nothing of it was "
             L"written (" + Hex(code) + L")";
    if (error == ERROR_ACCESS_DENIED)
      return L"access to the registry key is denied: it or a key below it may not be changed, and nothing was (" +
             Hex(code) + L")";
    if (error == ERROR_INVALID_DATA) return L"the registry export file is damaged and was not used (" + Hex(code) + L")";
    return L"the registry refused it: " + broom::SystemMessage(error) + L" (" + Hex(code) + L")";
  }
  if (code == kQuarantineFolderAcross)
    return L"a folder that is not empty is not moved to a quarantine on another drive, since a failure half-way "
           L"would split it; it stays where it was (" + Hex(code) + L")";
  if (code == kQuarantineCopyMismatch)
    return L"its copy in quarantine did not read back the same; the copy was removed and it stays where it was (" +
           Hex(code) + L")";
  if ((code & 0xFFFF0000) == kQuarantineMoveFailed)
    return L"it could not be moved into quarantine (" + broom::SystemMessage(code & 0xFFFF) +
           L"); it stays where it was and no copy was kept (" + Hex(code) + L")";
  if (code == kRecycleBinNotMoved)
    return L"a Recycle Bin entry is never moved into a quarantine (the Recycle Bin is its own undo); it stays (" +
           Hex(code) + L")";
  if (code == kRecycleBinChanged)
    return L"the Recycle Bin entry changed since the scan, so it was left as it is (" + Hex(code) + L")";
  if (code == kRecycleBinNotInBin)
    return L"it does not lie in a Recycle Bin folder, so it was not deleted (" + Hex(code) + L")";
  if ((code & 0xFFFF0000) == kRemoveFailed)
    return L"could not be removed (" + broom::SystemMessage(code & 0xFFFF) + L"); what could not be removed stays (" +
           Hex(code) + L")";
  if ((code & 0xFFFF0000) == kOverwriteOpenFailed)
    return L"could not be opened for writing to overwrite it (" + broom::SystemMessage(code & 0xFFFF) +
           L"): it is read-only, in use or access is denied; it is untouched and was not deleted (" + Hex(code) + L")";
  if ((code & 0xFFFF0000) == kOverwriteFailed)
    return L"overwriting or deleting it failed after it was opened (" + broom::SystemMessage(code & 0xFFFF) +
           L"); it stays and may be partly overwritten (" + Hex(code) + L")";
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
