#pragma once
// The About box: the versions, the licences of every component that ships,
// the credits of the community rules, and whether they load at start.
#include <windows.h>

#include "app/Session.h"

namespace broomw {

void ShowAbout(HWND owner, host::CSession& session);

}  // namespace broomw
