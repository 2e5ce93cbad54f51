#pragma once
// A log file written by a thread of its own: callers copy their text into a
// buffer of waiting texts, and the log thread appends all that waits to the
// file in one write, so callers never wait for the disk. A caller posts a
// message only when the thread has no wake-up pending, and the thread keeps
// that wake-up pending while texts keep coming, so a busy log costs one copy
// per text and one post per burst. The file is held open
// exclusively while the log runs and holds raw UTF-16LE text.
#include <windows.h>

#include <vector>

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
  // Texts and resets that come after a quit message are never written, as
  // if they had been queued behind it.
  void PostToThread(UINT message, WPARAM wParam, LPARAM lParam) override;

  // Log-thread handlers; both return true. A string message without a
  // block writes everything that waits.
  bool OnLogString(WPARAM count, LPARAM block);
  bool OnLogReset(WPARAM, LPARAM);

  // Text blocks shared by every log of the process.
  static TCharArrayAlloc<wchar_t> m_alloc;

 protected:
  CLogThread() = default;

  broom::unique_hfile m_hFile;

 private:
  // Appends to the waiting texts and wakes the thread when it has no
  // wake-up pending; throws as PostToThread when the thread cannot be reached.
  void Queue(const wchar_t* text, size_t length, bool appendNewLine, bool reset);
  void WriteText(const wchar_t* text, size_t length);
  void TruncateFile();

  broom::critical_section m_waitingLock;  // the four fields below
  std::vector<wchar_t> m_waiting;         // texts in the order they were logged
  std::vector<size_t> m_resets;           // where in m_waiting a reset comes
  bool m_wakePosted = false;
  bool m_quitPosted = false;
  std::vector<wchar_t> m_writing;         // the log thread's batch, kept for its capacity
};
