#include "window/CookiesDialog.h"

#include <string>
#include <vector>

#include "app/CookieSites.h"
#include "app/HostError.h"
#include "app/PolicyRules.h"
#include "app/Text.h"
#include "window/Resource.h"

namespace broomw {

namespace {

struct SCookiesState {
  host::CSession* session = nullptr;
  std::vector<std::wstring> found;  // sites that hold cookies and are not kept
  std::vector<std::wstring> kept;   // the keep list's sites, then the organisation's
  size_t listed = 0;                // how many of kept the user's file lists
};

// sites from enforced on are the organisation's: shown as set by it
void Fill(HWND list, const std::vector<std::wstring>& sites, size_t enforced = SIZE_MAX) {
  SendMessageW(list, LB_RESETCONTENT, 0, 0);
  for (size_t i = 0; i < sites.size(); ++i) {
    const std::wstring shown = i < enforced ? sites[i] : sites[i] + L" (" + host::kSetByOrganisation + L")";
    // the list sorts what it shows: each line carries its index in sites
    const LRESULT at = SendMessageW(list, LB_ADDSTRING, 0, reinterpret_cast<LPARAM>(shown.c_str()));
    if (at >= 0) SendMessageW(list, LB_SETITEMDATA, static_cast<WPARAM>(at), static_cast<LPARAM>(i));
  }
}

// Reads the keep list and the databases again; false, with the reason shown,
// when the keep list cannot be used.
bool Refresh(HWND dialog, SCookiesState& state) {
  CCookieKeepList keep;
  const std::wstring file = state.session->CookieKeepFile();
  state.found.clear();
  state.kept.clear();
  bool usable = host::ReadCookieKeep(file, keep);
  std::wstring status;
  if (usable) {
    state.kept = keep.GetSites();
    state.listed = state.kept.size();
    for (const std::wstring& site : keep.GetEnforcedSites()) state.kept.push_back(site);
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
  Fill(GetDlgItem(dialog, IDC_COOKIES_KEPT), state.kept, state.listed);
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
  if (!host::ReadCookieKeep(file, keep)) {
    Refresh(dialog, state);
    return;
  }
  std::wstring byPolicy;
  for (int line : chosen) {
    const LRESULT index = SendMessageW(list, LB_GETITEMDATA, static_cast<WPARAM>(line), 0);
    if (index < 0 || static_cast<size_t>(index) >= from.size()) continue;
    const std::wstring& site = from[static_cast<size_t>(index)];
    if (keepThem)
      keep.Keep(site.c_str());
    else if (keep.Unkeep(site.c_str()) == CCookieKeepList::editByPolicy)
      byPolicy += (byPolicy.empty() ? L"" : L", ") + site;
  }
  if (!byPolicy.empty())
    MessageBoxW(dialog, (byPolicy + L": kept by your organisation (the KeepCookieSites policy); these cannot be "
                                    L"removed here.").c_str(),
                L"Cookies", MB_OK | MB_ICONINFORMATION);
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
