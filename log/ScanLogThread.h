#pragma once
// Shared scan logs: one log thread per log file, found by path in a
// process-wide map and handed out as ILogWriter. The last user's release
// stops the thread; the thread's own last release removes the log. When
// logging is off or a file cannot be opened, callers get a writer that does
// nothing. Scan logs are "scan1.log" (current) to "scan5.log" in the "Logs"
// folder below the user data folder.
#include <windows.h>

#include <map>

#include "core/Export.h"
#include "core/Handles.h"
#include "core/Names.h"
#include "core/PathString.h"
#include "core/RefCounting.h"
#include "log/LogThread.h"
#include "log/LogWriter.h"

struct CaseInsensitiveCStringLess {
  bool operator()(const CPathString& a, const CPathString& b) const { return broom::CompareNoCase(a.c_str(), b.c_str()) < 0; }
};

class BROOM_API CScanLogThread : public CLogThread, public ILogWriter {
 public:
  // The writer that does nothing.
  class CBogusLog : public ILogWriter {
   public:
    void WriteEntry(const CString&, bool) override {}

   protected:
    virtual ~CBogusLog() = default;
  };
  using Object =
      CUnknownFoundation<CScanLogThread, CCustomRef, CChainIFace<ILogWriter, CIUnknownOnly>, CCustomRelease>;

  // The writer of the log file at path, started when needed; m_bogusLog
  // when logging is off (state bit 0x20000) or the file cannot be opened.
  static CRefPtr<ILogWriter> GetLog(const CPathString& path);
  // The running scan log, or a new "scan1.log" (the older ones shifted
  // first when rotate is true and logging is on).
  static CRefPtr<ILogWriter> GetCurrentScanLog(bool rotate);
  // While set (null ends it), GetCurrentScanLog on the calling thread hands
  // out this writer instead: a host that scans items on several threads
  // holds each item's entries there and writes them to the log in order.
  static void SetThreadScanLog(ILogWriter* writer);
  // The "Logs" folder below the user data folder, fixed at its first use.
  static void GetLogsPath(CPathString& out);
  // Whether a log for path is in the map of running logs.
  static bool HasRunningLog(const CPathString& path);

  void WriteEntry(const CString& text, bool newLine) override;
  // Release policy: the last user's release (to 1) stops the thread, the
  // thread's own (to 0) ends the object.
  void OnCustomRelease(LONG count);
  unsigned long ThreadProc() override;

  const CPathString& GetPath() const { return m_path; }

  static CFakeSimpleIUnknownWithRef<CBogusLog, ILogWriter> m_bogusLog;

 protected:
  CScanLogThread();
  ~CScanLogThread() override;
  void _FinalRelease();

 private:
  using LogMap = std::map<CPathString, CScanLogThread*, CaseInsensitiveCStringLess>;

  static void GetNumberedLogPath(wchar_t digit, CPathString& out);
  static void RotateLogs();
  static LogMap::iterator RetireStoppingLog(LogMap::iterator it);
  // A new reference for a writer, unless the log is stopping or stopped.
  bool TakeWriterRef();

  CPathString m_path;
  broom::unique_event m_hStopped;  // set once the thread has closed the file

  static broom::critical_section m_cs;
  static LogMap m_logs;
};
