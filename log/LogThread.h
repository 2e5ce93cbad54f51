#pragma once
// A log file written by a thread of its own: callers copy their text into a
// pooled block and post it; the log thread appends it to the file, so callers
// never wait for the disk. The file is held open exclusively while the log
// runs and holds raw UTF-16LE text.
#include <windows.h>

#include "core/Export.h"
#include "core/Handles.h"
#include "log/CharArrayAlloc.h"
#include "threads/BaseThread.h"

class BROOM_API CLogThread : public CSimpleThreadMessageMap {
 public:
  // Opens the file (created when missing, appended to otherwise) and starts
  // the thread; true when the log runs or already ran. False when the file
  // cannot be opened, in which case no thread is started.
  bool StartLogging(const wchar_t* path, bool writeThrough);
  bool IsLogRunning() const;

  // Queues a text; length is its length in characters, or 0 to measure it.
  // Throws textconv::exception* when the log thread cannot be reached.
  void LogString(const wchar_t* text, bool appendNewLine, unsigned long length);
  // Queues the emptying of the file.
  void ResetLog();

  unsigned long ThreadProc() override;
  // Posts WM_QUIT, waits at most 10 s and kills a thread that did not end.
  void CleanUp() override;
  void ProcessThreadMessage(UINT message, WPARAM wParam, LPARAM lParam) override;

  // Log-thread handlers; both return true.
  bool OnLogString(WPARAM count, LPARAM block);
  bool OnLogReset(WPARAM, LPARAM);

  // Text blocks shared by every log of the process.
  static TCharArrayAlloc<wchar_t> m_alloc;

 protected:
  CLogThread() = default;

  broom::unique_hfile m_hFile;
};
