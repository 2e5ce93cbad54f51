#pragma once
// Listing ahead: while a file scan walks a folder tree on the calling thread,
// the folders below it are listed on the threads of a small pool the engine
// owns, in the order the walk will visit them, and the walk takes each
// listing when it gets there. What the scan reports, and in which order, is
// what the walk gives on its own; only the waits for the system change.
//
// The pool starts on first use and is shared by every scan of the process,
// on whatever threads they run. Its size is an engine setting: CAppInfo::Init
// reads the DWORD "ScanThreads" of the host's settings key (HKCU before
// HKLM; 0 or missing for the default), and a host may set it here at any
// time. A scan that starts afterwards uses the new size.
#include <cstddef>

#include "core/Export.h"

class BROOM_API CListAhead {
 public:
  static constexpr unsigned kMaxThreads = 8;

  // Threads that list ahead of a scan: 0 for the default (the processor
  // count, at most kMaxThreads); 1 switches listing ahead off, so every scan
  // lists its folders on its own thread; more than kMaxThreads counts as
  // kMaxThreads.
  static void SetThreads(unsigned threads);
  // The size in force (1 when listing ahead is off).
  static unsigned GetThreads();
  static unsigned DefaultThreads();

  // At most this many listed entries (files and folders) wait, over all
  // scans together, for their walk to take them; the threads list no
  // further folder until walks have taken some. At least 1; 0 restores the
  // default (8192, about 5 MB).
  static void SetEntriesAhead(size_t entries);
  static size_t GetEntriesAhead();
  // The most entries that waited at one time since the last call.
  static size_t TakePeakEntriesAhead();

  class Walk;  // one walk's listings ahead (ListAheadWalk.h, internal)
};
