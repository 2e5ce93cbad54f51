#pragma once
// The dialogs of the window: the confirmation before cleaning, the
// protected paths and the quarantines.
#include <windows.h>

#include <string>

#include <vector>

#include "app/ProgramsInUse.h"
#include "app/Session.h"

namespace broomw {

struct SConfirm {
  unsigned __int64 files = 0, bytes = 0;
  std::wstring marks;       // what to look at before saying yes (warnings, hits in the user's folders)
  bool quarantine = false;  // out: move to quarantine instead
  bool overwrite = false;   // out: overwrite the contents before deleting (never with quarantine)
  bool quarantineForced = false;  // in: a policy moves every clean into quarantine; the box is ticked and greyed
  bool overwriteForbidden = false;  // in: a policy forbids overwriting; the box is greyed and stays clear
};
// True when the user chose to clean.
bool ConfirmClean(HWND owner, SConfirm& confirm);

// Before the confirmation, when ticked items belong to running programs:
// each program with the items it holds, and what to do about them.
enum ERunningChoice { runningCancel, runningClose, runningSkip };
// closeForbidden: a policy forbids closing programs; that button is greyed.
ERunningChoice AskRunning(HWND owner, const std::vector<host::SHolder>& holders, bool closeForbidden);

void ShowProtected(HWND owner, host::CSession& session);
// The managed quarantines, newest first, to restore or delete.
void ShowQuarantines(HWND owner, host::CSession& session);

}  // namespace broomw
