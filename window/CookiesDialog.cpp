#include "window/CookiesDialog.h"

#include <string>
#include <vector>

#include "app/CookieSites.h"
#include "app/HostError.h"
#include "app/Text.h"
#include "window/Resource.h"

namespace broomw {

namespace {

struct SCookiesState {
  host::CSession* session = nullptr;
  std::vector<std::wstring> found;  // sites that hold cookies and are not kept
  std::vector<std::wstring> kept;   // the keep list's sites
};

void Fill(HWND list, const std::vector<std::wstring>& sites) {
  SendMessageW(list, LB_RESETCONTENT, 0, 0);
  for (const std::wstring& site : sites) SendMessageW(list, LB_ADDSTRING, 0, reinterpret_cast<LPARAM>(site.c_str()));
}

// Reads the keep list and the databases again; false, with the reason shown,
// when the keep list cannot be used.
bool Refresh(HWND dialog, SCookiesState& state) {
  CCookieKeepList keep;
  const std::wstring file = state.session->CookieKeepFile();
  state.found.clear();
  state.kept.clear();
  bool usable = keep.Load(file.c_str());
  std::wstring status;
  if (usable) {
    state.kept = keep.GetSites();
    try {
      host::SCookieListing listing = host::ListCookieSites(*state.session);
      for (const host::SCookieSiteRow& row : listing.sites)
        if (!keep.Keeps(row.site.c_str())) state.found.push_back(row.site);
      status = host::Plural(listing.sites.size(), L"site holds", L"sites hold") + L" cookies in " +
               host::Plural(listing.databases, L"database", L"databases") + L"; the kept sites are listed in " + file;
      if (!listing.notes.empty()) status += L"\n" + host::Printable(listing.notes.front());
    } catch (const host::CHostError& e) {
      status = e.message;
    }
  } else {
    status = L"The keep list " + file + L" cannot be used: " + keep.DescribeProblem() +
             L". No cookie is cleaned until that line is corrected or the file deleted.";
  }
  Fill(GetDlgItem(dialog, IDC_COOKIES_FOUND), state.found);
  Fill(GetDlgItem(dialog, IDC_COOKIES_KEPT), state.kept);
  EnableWindow(GetDlgItem(dialog, IDC_COOKIES_KEEP), usable);
  EnableWindow(GetDlgItem(dialog, IDC_COOKIES_UNKEEP), usable);
  SetDlgItemTextW(dialog, IDC_COOKIES_STATUS, status.c_str());
  return usable;
}

// Keeps or unkeeps the selected sites of one list, then saves the file.
void Move(HWND dialog, SCookiesState& state, bool keepThem) {
  HWND list = GetDlgItem(dialog, keepThem ? IDC_COOKIES_FOUND : IDC_COOKIES_KEPT);
  const std::vector<std::wstring>& from = keepThem ? state.found : state.kept;
  int count = static_cast<int>(SendMessageW(list, LB_GETSELCOUNT, 0, 0));
  if (count <= 0) return;
  std::vector<int> chosen(static_cast<size_t>(count));
  SendMessageW(list, LB_GETSELITEMS, static_cast<WPARAM>(count), reinterpret_cast<LPARAM>(chosen.data()));
  CCookieKeepList keep;
  const std::wstring file = state.session->CookieKeepFile();
  if (!keep.Load(file.c_str())) {
    Refresh(dialog, state);
    return;
  }
  for (int index : chosen) {
    if (index < 0 || static_cast<size_t>(index) >= from.size()) continue;
    if (keepThem)
      keep.Keep(from[static_cast<size_t>(index)].c_str());
    else
      keep.Unkeep(from[static_cast<size_t>(index)].c_str());
  }
  if (DWORD error = keep.Save(file.c_str())) {
    MessageBoxW(dialog, (L"The keep list " + file + L" could not be written: " + host::SystemMessage(error) +
                         L". Nothing was changed.").c_str(),
                L"Cookies", MB_OK | MB_ICONERROR);
  }
  Refresh(dialog, state);
}

INT_PTR CALLBACK CookiesProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam) {
  auto* state = reinterpret_cast<SCookiesState*>(GetWindowLongPtrW(dialog, DWLP_USER));
  switch (message) {
    case WM_INITDIALOG:
      SetWindowLongPtrW(dialog, DWLP_USER, lParam);
      Refresh(dialog, *reinterpret_cast<SCookiesState*>(lParam));
      return TRUE;
    case WM_COMMAND:
      switch (LOWORD(wParam)) {
        case IDC_COOKIES_KEEP:
          Move(dialog, *state, true);
          return TRUE;
        case IDC_COOKIES_UNKEEP:
          Move(dialog, *state, false);
          return TRUE;
        case IDOK:
        case IDCANCEL:
          EndDialog(dialog, IDOK);
          return TRUE;
      }
      break;
  }
  return FALSE;
}

}  // namespace

void ShowCookies(HWND owner, host::CSession& session) {
  SCookiesState state;
  state.session = &session;
  DialogBoxParamW(GetModuleHandleW(nullptr), MAKEINTRESOURCEW(IDD_COOKIES), owner, CookiesProc,
                  reinterpret_cast<LPARAM>(&state));
}

}  // namespace broomw
