#pragma once
// One entry of the user's Recycle Bin as a cleanable item: the $R data (a
// file, or a folder with everything in it) and the $I record of the same
// suffix in X:\$Recycle.Bin\<SID>, or either alone (an orphan).
//
// GetPath() names what goes first: the data, or the record of an entry
// without data. GetName() and GetDetails() give the original file name and
// folder (an orphan without its record: the data's own name and the bin
// folder). Cleaning deletes the data first, never following links, then the
// record, so an interrupted clean never leaves a record that looks
// restorable with its data gone; the shell is then told the bin changed.
// The Recycle Bin is its own undo: Move never moves an entry
// (kRecycleBinNotMoved), and hosts leave these items out of a quarantine.
#include <windows.h>

#include <string>

#include "clean/CleanableFile.h"
#include "clean/ResultCodes.h"
#include "core/Export.h"
#include "recyclebin/RecycleBinRecord.h"

// Its result codes (kRecycleBin*) are declared with the others in clean/ResultCodes.h.

class BROOM_API CRecycleBinItem : public CCleanableFile {
 public:
  enum EKind {
    kindEntry,       // record and data
    kindRecordOnly,  // a record whose data is gone
    kindDataOnly,    // data without its record
  };

  // binFolder: X:\$Recycle.Bin\<SID>. record: the listing of the $I file and
  // what it holds (both null for data without record); data: the listing
  // of the $R file or folder (null for a record without data). Throws
  // BufferOverflowException when a path passes 260 characters and
  // CAtlException(E_INVALIDARG) when neither part is given.
  void InitEntry(const std::wstring& binFolder, const WIN32_FIND_DATAW* record, const SRecycleBinRecord* parsed,
                 const WIN32_FIND_DATAW* data);

  EKind GetKind() const { return m_kind; }
  bool IsOrphan() const { return m_kind != kindEntry; }
  const std::wstring& GetBinFolder() const { return m_binFolder; }
  // Empty for the part that is missing.
  const std::wstring& GetDataPath() const { return m_dataPath; }
  const std::wstring& GetRecordPath() const { return m_recordPath; }
  // From the record; empty without one.
  const std::wstring& GetOriginalPath() const { return m_record.originalPath; }
  const SRecycleBinRecord& GetRecord() const { return m_record; }
  // The record's deletion time; for data without record the latest of the
  // data's own times (its change time moves when it is moved into the bin).
  FILETIME GetDeletionTime() const { return m_deleted; }
  // What age filters (CBaseFileScan::IFilter) are asked about: the data's
  // (or record's) listing with every time set to the deletion time and the
  // size to GetSize().
  const WIN32_FIND_DATAW& GetAgeEntry() const { return m_ageEntry; }

  // GetSize(): the size on disk of the data (of the record, for a record
  // without data).
  // Deletes the data (a folder whole, links removed as links), then the
  // record; with overwrite every file of the data and the record is
  // overwritten first. A record that changed since the scan stops it
  // (kRecycleBinChanged); a failure on the data keeps the record. 0 when
  // both are gone.
  DWORD CleanWith(bool overwrite, IOperationProgressNotify* progress, IOperationStatusNotify* status) override;
  // "Recycle Bin: <path>\t\tOriginal: <original path>\t\tSize: 123\r\n"; an
  // orphan says which part it lacks instead of the original.
  CString GetLogEntry() const override;
  CString GetName() const override;
  CString GetDetails() const override;
  // Nothing moves: kRecycleBinNotMoved.
  DWORD Move(CString destination, IOperationProgressNotify* progress, IOperationStatusNotify* status,
             bool overwrite, CPathString& newPath) override;

  // Whether folder is a Recycle Bin folder of a drive, X:\$Recycle.Bin\<name>,
  // whose two folders are real folders (no links) and exist now.
  static bool IsBinFolder(const std::wstring& folder);

 protected:
  EKind m_kind = kindEntry;
  std::wstring m_binFolder;
  std::wstring m_dataPath;
  std::wstring m_recordPath;
  SRecycleBinRecord m_record;
  FILETIME m_deleted = {};
  WIN32_FIND_DATAW m_ageEntry = {};
};
