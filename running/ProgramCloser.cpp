#include "running/ProgramCloser.h"

#include <algorithm>

#include "running/ImageNames.h"
#include "running/RunningPrograms.h"

namespace {

struct SWindow {
  HWND window;
  DWORD pid;
};

// Visible top-level windows without an owner: the ones a user would close.
// Owned windows (dialogs, tool windows) close with their owner.
BOOL CALLBACK CollectWindow(HWND window, LPARAM context) {
  if (IsWindowVisible(window) && !GetWindow(window, GW_OWNER)) {
    DWORD pid = 0;
    GetWindowThreadProcessId(window, &pid);
    reinterpret_cast<std::vector<SWindow>*>(context)->push_back(SWindow{window, pid});
  }
  return TRUE;
}

struct SWaited {
  size_t program;
  broom::unique_handle process;
};

std::vector<std::wstring> ProgramsOf(const std::vector<SWaited>& waited, const std::vector<std::wstring>& names) {
  std::vector<size_t> indices;
  for (const SWaited& one : waited) indices.push_back(one.program);
  std::sort(indices.begin(), indices.end());
  indices.erase(std::unique(indices.begin(), indices.end()), indices.end());
  std::vector<std::wstring> programs;
  for (size_t index : indices) programs.push_back(names[index]);
  return programs;
}

}  // namespace

CProgramCloser::CProgramCloser() : m_cancel(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}

void CProgramCloser::Cancel() {
  if (m_cancel) SetEvent(m_cancel.get());
}

bool CProgramCloser::Cancelled() const { return m_cancel && WaitForSingleObject(m_cancel.get(), 0) == WAIT_OBJECT_0; }

DWORD CProgramCloser::Close(const std::vector<std::wstring>& images, std::vector<SResult>& results, DWORD timeoutMs,
                            IProgress* progress) {
  results.clear();
  std::vector<std::wstring> names;
  for (const std::wstring& image : images)
    if (!image.empty()) CImageNames::Add(names, image);

  CRunningPrograms before;
  if (DWORD error = before.Take(names)) return error;

  // Each process is opened before any window is asked, so that its id
  // cannot pass to a new process while the closer waits.
  std::vector<SWaited> processes;
  for (size_t i = 0; i < names.size(); ++i)
    if (const CRunningPrograms::SProgram* program = before.Find(names[i]))
      for (DWORD pid : program->processIds) {
        broom::unique_handle process(OpenProcess(SYNCHRONIZE, FALSE, pid));
        // One that cannot be opened is not waited for; the new snapshot still tells whether it runs.
        if (process) processes.push_back(SWaited{i, std::move(process)});
      }

  std::vector<SWindow> windows;
  if (!before.Running().empty()) EnumWindows(CollectWindow, reinterpret_cast<LPARAM>(&windows));
  std::vector<bool> asked(names.size(), false);
  for (const SWindow& window : windows)
    for (size_t i = 0; i < names.size(); ++i) {
      const CRunningPrograms::SProgram* program = before.Find(names[i]);
      if (!program) continue;
      const std::vector<DWORD>& pids = program->processIds;
      if (std::find(pids.begin(), pids.end(), window.pid) != pids.end() && PostMessageW(window.window, WM_CLOSE, 0, 0))
        asked[i] = true;
    }

  std::vector<SWaited> waited;
  for (SWaited& process : processes)
    if (asked[process.program]) waited.push_back(std::move(process));
  processes.clear();

  DWORD status = ERROR_SUCCESS;
  std::vector<std::wstring> shown = ProgramsOf(waited, names);
  if (progress && !shown.empty()) progress->Waiting(shown);
  ULONGLONG deadline = GetTickCount64() + timeoutMs;
  while (!waited.empty()) {
    ULONGLONG now = GetTickCount64();
    if (now >= deadline) break;
    // More processes than one wait takes are waited for in turns: all of them must end.
    HANDLE handles[MAXIMUM_WAIT_OBJECTS] = {m_cancel.get()};
    DWORD count = 1;
    for (size_t i = 0; i < waited.size() && count < MAXIMUM_WAIT_OBJECTS; ++i)
      handles[count++] = waited[i].process.get();
    DWORD wait = WaitForMultipleObjects(count, handles, FALSE,
                                        static_cast<DWORD>(std::min<ULONGLONG>(deadline - now, 0x7FFFFFFF)));
    if (wait == WAIT_OBJECT_0) {
      status = ERROR_CANCELLED;
      break;
    }
    if (wait >= WAIT_OBJECT_0 + count) break;  // the time is up, or the wait failed
    waited.erase(waited.begin() + (wait - WAIT_OBJECT_0 - 1));
    std::vector<std::wstring> nowWaiting = ProgramsOf(waited, names);
    if (progress && nowWaiting != shown && !nowWaiting.empty()) progress->Waiting(nowWaiting);
    shown = std::move(nowWaiting);
  }

  waited.clear();  // an ended process whose handle is still open must not count
  CRunningPrograms after;
  if (DWORD error = after.Take(names)) return error;
  for (size_t i = 0; i < names.size(); ++i) {
    SResult result;
    result.image = names[i];
    result.before = before.Count(names[i]);
    result.after = after.Count(names[i]);
    if (result.before == 0)
      result.outcome = notRunning;
    else if (result.after == 0)
      result.outcome = closed;
    else
      result.outcome = asked[i] ? stillRunning : noWindow;
    results.push_back(std::move(result));
  }
  return status;
}
