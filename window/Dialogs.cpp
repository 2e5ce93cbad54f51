#include "window/Dialogs.h"

#include <shlobj.h>
#include <shobjidl.h>

#include <system_error>
#include <thread>

#include "app/PolicyRules.h"
#include "app/Quarantine.h"
#include "app/QuarantineStore.h"
#include "app/Text.h"
#include "app/WhiteListFile.h"
#include "core/Handles.h"
#include "core/Names.h"
#include "window/Resource.h"

namespace broomw {

namespace {

std::wstring Text(HWND dialog, int id) {
  HWND control = GetDlgItem(dialog, id);
  std::wstring text(static_cast<size_t>(GetWindowTextLengthW(control)) + 1, L'\0');
  text.resize(static_cast<size_t>(GetWindowTextW(control, &text[0], static_cast<int>(text.size()))));
  return text;
}

std::wstring ConfirmText(const SConfirm& c, bool quarantine, bool overwrite = false) {
  std::wstring what = host::Plural(c.files, L"file", L"files") + L" (" + host::FormatSize(c.bytes) + L")";
  if (!quarantine && overwrite)
    return L"Overwrite and delete " + what + L" for good? On SSDs and on copy-on-write or compressed volumes the "
           L"drive may keep copies no overwrite reaches; whole-disk encryption is the real protection there.";
  return quarantine ? L"Move " + what + L" to a new quarantine? 'Quarantine...' puts them back."
                    : L"Delete " + what + L" for good?";
}

std::wstring WindowsLines(const std::wstring& text) {
  std::wstring out;
  for (wchar_t c : text) {
    if (c == L'\n') out += L'\r';
    out += c;
  }
  return out;
}

INT_PTR CALLBACK ConfirmProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam) {
  auto* confirm = reinterpret_cast<SConfirm*>(GetWindowLongPtrW(dialog, DWLP_USER));
  switch (message) {
    case WM_INITDIALOG:
      SetWindowLongPtrW(dialog, DWLP_USER, lParam);
      confirm = reinterpret_cast<SConfirm*>(lParam);
      SetDlgItemTextW(dialog, IDC_CONFIRM_TEXT, ConfirmText(*confirm, confirm->quarantineForced).c_str());
      // a scrolling box: every costly item stays readable, however many
      SetDlgItemTextW(dialog, IDC_CONFIRM_MARKS, WindowsLines(confirm->marks).c_str());
      if (confirm->quarantineForced) {
        CheckDlgButton(dialog, IDC_CONFIRM_QUARANTINE, BST_CHECKED);
        SetDlgItemTextW(dialog, IDC_CONFIRM_QUARANTINE,
                        (L"Move to quarantine (" + std::wstring(host::kSetByOrganisation) + L")").c_str());
        EnableWindow(GetDlgItem(dialog, IDC_CONFIRM_QUARANTINE), FALSE);
        EnableWindow(GetDlgItem(dialog, IDC_CONFIRM_OVERWRITE), FALSE);  // a moved file keeps its contents
        SetDlgItemTextW(dialog, IDOK, L"&Move");
      }
      if (confirm->overwriteForbidden) {
        SetDlgItemTextW(dialog, IDC_CONFIRM_OVERWRITE,
                        (L"No overwriting (" + std::wstring(host::kSetByOrganisation) + L")").c_str());
        EnableWindow(GetDlgItem(dialog, IDC_CONFIRM_OVERWRITE), FALSE);
      }
      return TRUE;
    case WM_COMMAND:
      switch (LOWORD(wParam)) {
        case IDC_CONFIRM_QUARANTINE:
        case IDC_CONFIRM_OVERWRITE: {
          // the two exclude each other: a moved file keeps its contents
          const int other = LOWORD(wParam) == IDC_CONFIRM_QUARANTINE ? IDC_CONFIRM_OVERWRITE : IDC_CONFIRM_QUARANTINE;
          if (IsDlgButtonChecked(dialog, LOWORD(wParam)) == BST_CHECKED) CheckDlgButton(dialog, other, BST_UNCHECKED);
          bool quarantine = IsDlgButtonChecked(dialog, IDC_CONFIRM_QUARANTINE) == BST_CHECKED;
          bool overwrite = IsDlgButtonChecked(dialog, IDC_CONFIRM_OVERWRITE) == BST_CHECKED;
          SetDlgItemTextW(dialog, IDC_CONFIRM_TEXT, ConfirmText(*confirm, quarantine, overwrite).c_str());
          SetDlgItemTextW(dialog, IDOK, quarantine ? L"&Move" : L"&Clean");
          return TRUE;
        }
        case IDOK:
          confirm->quarantine =
              confirm->quarantineForced || IsDlgButtonChecked(dialog, IDC_CONFIRM_QUARANTINE) == BST_CHECKED;
          confirm->overwrite = !confirm->quarantine && !confirm->overwriteForbidden &&
                               IsDlgButtonChecked(dialog, IDC_CONFIRM_OVERWRITE) == BST_CHECKED;
          EndDialog(dialog, IDOK);
          return TRUE;
        case IDCANCEL:
          EndDialog(dialog, IDCANCEL);
          return TRUE;
      }
      break;
  }
  return FALSE;
}

// ---- running programs ----

struct SRunningAsk {
  const std::vector<host::SHolder>* holders;
  bool closeForbidden;
};

INT_PTR CALLBACK RunningProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam) {
  switch (message) {
    case WM_INITDIALOG: {
      const SRunningAsk& ask = *reinterpret_cast<const SRunningAsk*>(lParam);
      const std::vector<host::SHolder>& holders = *ask.holders;
      std::wstring list;
      for (const host::SHolder& h : holders) {
        list += host::HolderTitle(h) + L" is running" +
                (h.processes ? L" (" + host::Plural(h.processes, L"process", L"processes") + L")" : std::wstring()) +
                L" and holds:\r\n";
        for (const std::wstring& item : h.items) list += L"    " + item + L"\r\n";
      }
      SetDlgItemTextW(dialog, IDC_RUN_TEXT,
                      (host::Plural(holders.size(), L"program that holds ticked items is",
                                    L"programs that hold ticked items are") +
                       L" running. Cleaning under a running program fails or damages its files: close it first, or "
                       L"leave its items for now.")
                          .c_str());
      SetDlgItemTextW(dialog, IDC_RUN_LIST, list.c_str());
      if (ask.closeForbidden) {
        // closing them is not the user's to choose: their items wait
        EnableWindow(GetDlgItem(dialog, IDC_RUN_CLOSE), FALSE);
        SetDlgItemTextW(dialog, IDC_RUN_TEXT,
                        (host::Plural(holders.size(), L"program that holds ticked items is",
                                      L"programs that hold ticked items are") +
                         L" running. Your organisation does not allow Broom to close programs (" +
                         host::kSetByOrganisation + L"): leave their items for now, or close them yourself first.")
                            .c_str());
      }
      // not the list, which would select all its text
      SetFocus(GetDlgItem(dialog, ask.closeForbidden ? IDC_RUN_SKIP : IDC_RUN_CLOSE));
      return FALSE;
    }
    case WM_COMMAND:
      switch (LOWORD(wParam)) {
        case IDC_RUN_CLOSE:
          EndDialog(dialog, runningClose);
          return TRUE;
        case IDC_RUN_SKIP:
          EndDialog(dialog, runningSkip);
          return TRUE;
        case IDCANCEL:
          EndDialog(dialog, runningCancel);
          return TRUE;
      }
      break;
  }
  return FALSE;
}

// ---- protected paths ----

struct SProtected {
  host::CSession* session;
};

// A selected entry of the user's own list; the organisation's entries carry item data 1.
bool CanRemoveSelected(HWND list) {
  LRESULT at = SendMessageW(list, LB_GETCURSEL, 0, 0);
  return at != LB_ERR && SendMessageW(list, LB_GETITEMDATA, static_cast<WPARAM>(at), 0) != 1;
}

void FillProtected(HWND dialog, host::CSession& session, const std::wstring& select) {
  HWND list = GetDlgItem(dialog, IDC_PROT_LIST);
  SendMessageW(list, LB_RESETCONTENT, 0, 0);
  CRefPtr<IConstTArray<CString>> paths = session.WhiteList().SaveToArray(0x1);
  if (paths)
    for (const CString& path : paths->GetArray()) {
      LRESULT at = SendMessageW(list, LB_ADDSTRING, 0, reinterpret_cast<LPARAM>(path.GetString()));
      if (broom::CompareNoCase(path.GetString(), select.c_str()) == 0)
        SendMessageW(list, LB_SETCURSEL, static_cast<WPARAM>(at), 0);
    }
  // the organisation's paths are shown, marked, and cannot be removed here
  for (const std::wstring& path : host::PolicyProtectedPaths(session.Policies())) {
    std::wstring text = path + L"  (" + host::kSetByOrganisation + L")";
    LRESULT at = SendMessageW(list, LB_ADDSTRING, 0, reinterpret_cast<LPARAM>(text.c_str()));
    SendMessageW(list, LB_SETITEMDATA, static_cast<WPARAM>(at), 1);
  }
  EnableWindow(GetDlgItem(dialog, IDC_PROT_REMOVE), CanRemoveSelected(list));
}

// The shell's folder picker; the older browse dialog where it is missing.
std::wstring PickFolder(HWND owner) {
  IFileOpenDialog* open = nullptr;
  if (SUCCEEDED(CoCreateInstance(CLSID_FileOpenDialog, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&open)))) {
    auto release = broom::scope_exit([&] { open->Release(); });
    DWORD options = 0;
    open->GetOptions(&options);
    open->SetOptions(options | FOS_PICKFOLDERS | FOS_FORCEFILESYSTEM);
    open->SetTitle(L"Protect a folder");
    if (FAILED(open->Show(owner))) return std::wstring();
    IShellItem* item = nullptr;
    if (FAILED(open->GetResult(&item))) return std::wstring();
    auto releaseItem = broom::scope_exit([&] { item->Release(); });
    wchar_t* path = nullptr;
    if (FAILED(item->GetDisplayName(SIGDN_FILESYSPATH, &path))) return std::wstring();
    broom::unique_cotaskmem hold(path);
    return path;
  }
  BROWSEINFOW browse = {};
  browse.hwndOwner = owner;
  browse.lpszTitle = L"Protect a folder";
  browse.ulFlags = BIF_RETURNONLYFSDIRS | BIF_NEWDIALOGSTYLE;
  PIDLIST_ABSOLUTE chosen = SHBrowseForFolderW(&browse);
  if (!chosen) return std::wstring();
  broom::unique_cotaskmem hold(chosen);
  wchar_t path[MAX_PATH + 1] = {};
  return SHGetPathFromIDListW(chosen, path) ? std::wstring(path) : std::wstring();
}

void Fail(HWND dialog, const host::CHostError& e) {
  MessageBoxW(dialog, host::Printable(e.message).c_str(), L"Protected", MB_OK | MB_ICONERROR);
}

void AddProtected(HWND dialog, host::CSession& session) {
  std::wstring given = Text(dialog, IDC_PROT_PATH);
  if (given.empty()) return;
  std::wstring path;
  try {
    path = host::ProtectedPathText(given);
  } catch (const host::CHostError& e) {
    Fail(dialog, e);
    return;
  }
  if (!host::IsListed(session.WhiteList(), path)) {
    session.WhiteList().SafeGuardPath(path.c_str(), 0x1);
    try {
      session.SaveWhiteList();
    } catch (const host::CHostError& e) {
      session.WhiteList().RemovePath(path.c_str(), 0x1);  // as it was: nothing stored
      Fail(dialog, e);
      return;
    }
  }
  SetDlgItemTextW(dialog, IDC_PROT_PATH, L"");
  FillProtected(dialog, session, path);
}

void RemoveProtected(HWND dialog, host::CSession& session) {
  HWND list = GetDlgItem(dialog, IDC_PROT_LIST);
  LRESULT at = SendMessageW(list, LB_GETCURSEL, 0, 0);
  if (at == LB_ERR || !CanRemoveSelected(list)) return;
  std::wstring path(static_cast<size_t>(SendMessageW(list, LB_GETTEXTLEN, static_cast<WPARAM>(at), 0)) + 1, L'\0');
  path.resize(static_cast<size_t>(
      SendMessageW(list, LB_GETTEXT, static_cast<WPARAM>(at), reinterpret_cast<LPARAM>(&path[0]))));
  session.WhiteList().RemovePath(path.c_str(), 0x1);
  try {
    session.SaveWhiteList();
  } catch (const host::CHostError& e) {
    session.WhiteList().SafeGuardPath(path.c_str(), 0x1);
    Fail(dialog, e);
  }
  FillProtected(dialog, session, std::wstring());
}

INT_PTR CALLBACK ProtectedProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam) {
  auto* state = reinterpret_cast<SProtected*>(GetWindowLongPtrW(dialog, DWLP_USER));
  switch (message) {
    case WM_INITDIALOG:
      SetWindowLongPtrW(dialog, DWLP_USER, lParam);
      state = reinterpret_cast<SProtected*>(lParam);
      SendDlgItemMessageW(dialog, IDC_PROT_PATH, EM_SETLIMITTEXT, 2 * MAX_PATH, 0);
      FillProtected(dialog, *state->session, std::wstring());
      return TRUE;
    case WM_COMMAND:
      switch (LOWORD(wParam)) {
        case IDC_PROT_LIST:
          if (HIWORD(wParam) == LBN_SELCHANGE)
            EnableWindow(GetDlgItem(dialog, IDC_PROT_REMOVE), CanRemoveSelected(GetDlgItem(dialog, IDC_PROT_LIST)));
          return TRUE;
        case IDC_PROT_BROWSE: {
          std::wstring folder = PickFolder(dialog);
          if (!folder.empty()) SetDlgItemTextW(dialog, IDC_PROT_PATH, folder.c_str());
          return TRUE;
        }
        case IDC_PROT_ADD:
          AddProtected(dialog, *state->session);
          return TRUE;
        case IDC_PROT_REMOVE:
          RemoveProtected(dialog, *state->session);
          return TRUE;
        case IDOK:  // Enter in the path field adds it
          if (GetFocus() == GetDlgItem(dialog, IDC_PROT_PATH)) AddProtected(dialog, *state->session);
          return TRUE;
        case IDCANCEL:
          EndDialog(dialog, IDCANCEL);
          return TRUE;
      }
      break;
  }
  return FALSE;
}

// ---- quarantines ----

// Posted to the dialog when a restore or purge has ended.
constexpr UINT WM_QUARANTINE_DONE = WM_APP + 20;

// A restore or purge moves every file back or deletes it, which can take
// long: it runs on a thread of its own while the dialog keeps drawing, with
// its buttons off, and the dialog is not closed until it has ended.
struct SQuarantines {
  host::CSession* session = nullptr;
  std::vector<host::SManagedQuarantine> list;
  std::thread work;
  std::wstring outcome;  // written by the work, read once it has ended
};

void FillQuarantines(HWND dialog, SQuarantines& state) {
  HWND list = GetDlgItem(dialog, IDC_Q_LIST);
  state.list = host::CQuarantineStore(state.session->QuarantineRoot()).List();
  ListView_DeleteAllItems(list);
  for (size_t i = 0; i < state.list.size(); ++i) {
    const host::SManagedQuarantine& q = state.list[i];
    std::wstring texts[] = {q.name, q.damaged.empty() ? host::FormatCount(q.entries) : L"-",
                            q.damaged.empty() ? host::FormatSize(q.size) : L"-",
                            q.damaged.empty() ? std::wstring() : L"damaged: " + q.damaged};
    LVITEMW item = {};
    item.mask = LVIF_TEXT;
    item.iItem = static_cast<int>(i);
    item.pszText = &texts[0][0];
    ListView_InsertItem(list, &item);
    for (int c = 1; c < 4; ++c) ListView_SetItemText(list, static_cast<int>(i), c, &texts[c][0]);
  }
  if (!state.list.empty()) ListView_SetItemState(list, 0, LVIS_SELECTED | LVIS_FOCUSED, LVIS_SELECTED | LVIS_FOCUSED);
  EnableWindow(GetDlgItem(dialog, IDC_Q_RESTORE), !state.list.empty());
  EnableWindow(GetDlgItem(dialog, IDC_Q_PURGE), !state.list.empty());
}

const host::SManagedQuarantine* SelectedQuarantine(HWND dialog, const SQuarantines& state) {
  int row = ListView_GetNextItem(GetDlgItem(dialog, IDC_Q_LIST), -1, LVNI_SELECTED);
  return row >= 0 && static_cast<size_t>(row) < state.list.size() ? &state.list[static_cast<size_t>(row)] : nullptr;
}

std::wstring Restore(const host::SManagedQuarantine& q) {
  try {
    host::CQuarantine quarantine(q.folder, false);
    host::CQuarantine::SRestoreResult result = quarantine.RestoreAll();
    std::wstring status = L"Restored " + host::Plural(result.files, L"file", L"files") + L" (" +
                          host::FormatSize(result.bytes) + L") from " + q.name + L".";
    if (!result.failures.empty())
      status += L" " + host::Plural(result.failures.size(), L"file stays", L"files stay") + L": " +
                result.failures.front().entry.original + L": " + result.failures.front().reason;
    if (!result.stopped.empty()) status += L" Stopped: " + result.stopped;
    return status;
  } catch (const host::CHostError& e) {
    return L"Nothing was restored: " + e.message;
  }
}

std::wstring Purge(const host::SManagedQuarantine& q) {
  std::wstring reason;
  if (host::CQuarantine::DeleteFolder(q.folder, reason)) return L"Deleted " + q.name + L".";
  return L"Not deleted: " + q.name + L": " + reason;
}

// Runs one restore or purge on the selected quarantine, off this thread.
void Start(HWND dialog, SQuarantines& state, bool restore) {
  const host::SManagedQuarantine* selected = SelectedQuarantine(dialog, state);
  if (!selected || state.work.joinable()) return;
  const host::SManagedQuarantine q = *selected;
  if (!restore) {
    if (!q.damaged.empty()) {
      SetDlgItemTextW(dialog, IDC_Q_STATUS,
                      (L"Kept " + q.name + L": its manifest is damaged, so what it holds is unknown.").c_str());
      return;
    }
    std::wstring question = L"Delete the quarantine " + q.name + L" (" + host::Plural(q.entries, L"item", L"items") +
                            L", " + host::FormatSize(q.size) + L") for good?";
    if (MessageBoxW(dialog, question.c_str(), L"Quarantine", MB_YESNO | MB_ICONWARNING | MB_DEFBUTTON2) != IDYES)
      return;
  }
  for (int id : {IDC_Q_RESTORE, IDC_Q_PURGE, IDCANCEL, IDC_Q_LIST}) EnableWindow(GetDlgItem(dialog, id), FALSE);
  SetDlgItemTextW(dialog, IDC_Q_STATUS, ((restore ? L"Restoring " : L"Deleting ") + q.name + L"...").c_str());
  auto run = [dialog, &state, q, restore] {
    try {
      state.outcome = restore ? Restore(q) : Purge(q);
    } catch (const std::exception& e) {
      state.outcome = L"Stopped: " + host::Printable(host::Wide(e.what()));
    }
    PostMessageW(dialog, WM_QUARANTINE_DONE, 0, 0);
  };
  try {
    state.work = std::thread(run);
  } catch (const std::system_error&) {
    run();  // no thread to be had: here, then
  }
}

void Finish(HWND dialog, SQuarantines& state) {
  if (state.work.joinable()) state.work.join();
  for (int id : {IDCANCEL, IDC_Q_LIST}) EnableWindow(GetDlgItem(dialog, id), TRUE);
  SetDlgItemTextW(dialog, IDC_Q_STATUS, state.outcome.c_str());
  FillQuarantines(dialog, state);
  SetFocus(GetDlgItem(dialog, IDCANCEL));
}

INT_PTR CALLBACK QuarantineProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam) {
  auto* state = reinterpret_cast<SQuarantines*>(GetWindowLongPtrW(dialog, DWLP_USER));
  switch (message) {
    case WM_INITDIALOG: {
      SetWindowLongPtrW(dialog, DWLP_USER, lParam);
      state = reinterpret_cast<SQuarantines*>(lParam);
      HWND list = GetDlgItem(dialog, IDC_Q_LIST);
      ListView_SetExtendedListViewStyle(list, LVS_EX_FULLROWSELECT);
      RECT r;
      GetClientRect(list, &r);
      const wchar_t* titles[] = {L"Name", L"Items", L"Size", L"State"};
      const int shares[] = {40, 15, 20, 25};
      for (int c = 0; c < 4; ++c) {
        LVCOLUMNW column = {};
        column.mask = LVCF_TEXT | LVCF_WIDTH | LVCF_FMT;
        column.fmt = c == 1 || c == 2 ? LVCFMT_RIGHT : LVCFMT_LEFT;
        column.cx = (r.right - r.left) * shares[c] / 100;
        column.pszText = const_cast<wchar_t*>(titles[c]);
        ListView_InsertColumn(list, c, &column);
      }
      FillQuarantines(dialog, *state);
      SetDlgItemTextW(dialog, IDC_Q_STATUS,
                      (L"In " + state->session->QuarantineRoot() + L"; restore never replaces a file.").c_str());
      return TRUE;
    }
    case WM_QUARANTINE_DONE:
      Finish(dialog, *state);
      return TRUE;
    case WM_DESTROY:  // the owner may go while the work runs: it ends first
      if (state && state->work.joinable()) state->work.join();
      break;
    case WM_COMMAND:
      switch (LOWORD(wParam)) {
        case IDC_Q_RESTORE:
        case IDC_Q_PURGE:
          Start(dialog, *state, LOWORD(wParam) == IDC_Q_RESTORE);
          return TRUE;
        case IDCANCEL:  // Esc and the title bar's close as well as the button
          if (!state->work.joinable()) EndDialog(dialog, IDCANCEL);
          return TRUE;
      }
      break;
  }
  return FALSE;
}

}  // namespace

void ShowQuarantines(HWND owner, host::CSession& session) {
  SQuarantines state;
  state.session = &session;
  DialogBoxParamW(GetModuleHandleW(nullptr), MAKEINTRESOURCEW(IDD_QUARANTINE), owner, QuarantineProc,
                  reinterpret_cast<LPARAM>(&state));
}

bool ConfirmClean(HWND owner, SConfirm& confirm) {
  return DialogBoxParamW(GetModuleHandleW(nullptr), MAKEINTRESOURCEW(IDD_CONFIRM), owner, ConfirmProc,
                         reinterpret_cast<LPARAM>(&confirm)) == IDOK;
}

ERunningChoice AskRunning(HWND owner, const std::vector<host::SHolder>& holders, bool closeForbidden) {
  SRunningAsk ask{&holders, closeForbidden};
  INT_PTR choice = DialogBoxParamW(GetModuleHandleW(nullptr), MAKEINTRESOURCEW(IDD_RUNNING), owner, RunningProc,
                                   reinterpret_cast<LPARAM>(&ask));
  if (choice == runningClose && closeForbidden) return runningCancel;
  return choice == runningClose || choice == runningSkip ? static_cast<ERunningChoice>(choice) : runningCancel;
}

void ShowProtected(HWND owner, host::CSession& session) {
  SProtected state{&session};
  DialogBoxParamW(GetModuleHandleW(nullptr), MAKEINTRESOURCEW(IDD_PROTECTED), owner, ProtectedProc,
                  reinterpret_cast<LPARAM>(&state));
}

}  // namespace broomw
