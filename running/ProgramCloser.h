#pragma once
// Asks running programs to close the way a user would, and says which did.
//
// WM_CLOSE is posted to every visible top-level window (one with no owner)
// that a process of the program has on the caller's desktop; a program with
// no such window cannot be asked and is left alone. The closer then waits
// until the processes of the programs it asked have ended, at most the
// timeout, and takes a new snapshot. It never terminates a process: a
// program that asks its user to save something, or ignores the request,
// is reported as still running.
#include <windows.h>

#include <string>
#include <vector>

#include "core/Export.h"
#include "core/Handles.h"

class BROOM_API CProgramCloser {
 public:
  enum EOutcome {
    notRunning,    // it had no process that counts when Close began
    closed,        // none of its processes runs now
    stillRunning,  // it was asked, and some of its processes still run
    noWindow,      // it runs with no visible top-level window here, so it could not be asked
  };
  struct SResult {
    std::wstring image;  // as asked
    EOutcome outcome = notRunning;
    unsigned before = 0;  // its processes when Close began
    unsigned after = 0;   // its processes in the new snapshot
  };

  // Told, on the thread that runs Close, which programs it still waits for:
  // once before it waits, and again each time one of them has ended.
  class IProgress {
   public:
    virtual void Waiting(const std::vector<std::wstring>& images) = 0;

   protected:
    ~IProgress() = default;
  };

  static constexpr DWORD kDefaultTimeoutMs = 15000;

  CProgramCloser();
  CProgramCloser(const CProgramCloser&) = delete;
  CProgramCloser& operator=(const CProgramCloser&) = delete;

  // Asks each program of images (chrome.exe) that runs now, as
  // CRunningPrograms counts it, to close; waits; and fills results with one
  // entry per name asked (a name asked twice once), in order. Returns
  // ERROR_SUCCESS; ERROR_CANCELLED when Cancel ended the wait (the results
  // still come from a new snapshot); or the Windows error of a snapshot,
  // with results empty: nothing is known then.
  DWORD Close(const std::vector<std::wstring>& images, std::vector<SResult>& results,
              DWORD timeoutMs = kDefaultTimeoutMs, IProgress* progress = nullptr);

  // From any thread: a running Close stops waiting, and every later one
  // asks without waiting. A closer once cancelled stays cancelled.
  void Cancel();
  bool Cancelled() const;

 private:
  broom::unique_event m_cancel;
};
