#pragma once
// Which of the programs a host asks about run now: one snapshot of the
// processes per question, taken once per command, never once per item.
//
// Only processes of the user who runs Broom count: another user's browser
// on a shared machine does not hold this user's files. The owner is the
// user in the process's token; a process whose owner cannot be read counts
// as running, the safe answer for a cleaner.
#include <windows.h>

#include <string>
#include <vector>

#include "core/Export.h"

class BROOM_API CRunningPrograms {
 public:
  struct SProgram {
    std::wstring image;             // as the host spelled it (first spelling when asked twice)
    std::vector<DWORD> processIds;  // its processes that count, as the snapshot found them
    unsigned Count() const { return static_cast<unsigned>(processIds.size()); }
  };

  // Takes one snapshot of the processes and keeps, of the image names asked
  // (chrome.exe; matched whatever their case, a name asked twice counts
  // once), those that have processes of this user now. Returns
  // ERROR_SUCCESS, or the Windows error of the snapshot: nothing is known
  // then, and Running() is empty.
  DWORD Take(const std::vector<std::wstring>& images);

  // The programs found running, in the order asked; empty before Take.
  const std::vector<SProgram>& Running() const { return m_running; }
  // Its entry in Running(), or null when it does not run (or was not asked).
  const SProgram* Find(const std::wstring& image) const;
  // Number of its processes that count; 0 when it does not run.
  unsigned Count(const std::wstring& image) const;
  bool IsRunning(const std::wstring& image) const { return Count(image) != 0; }

 private:
  std::vector<SProgram> m_running;
};
