#pragma once
// The Cookies dialog: the sites whose cookies the browsers hold on one side,
// the sites kept when cookies are cleaned on the other, and buttons that
// move sites between them (the keep list of the data folder).
#include <windows.h>

#include "app/Session.h"

namespace broomw {

void ShowCookies(HWND owner, host::CSession& session);

}  // namespace broomw
