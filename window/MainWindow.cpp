#include "window/MainWindow.h"

#include <commctrl.h>

#include "app/Text.h"
#include "window/AboutDialog.h"
#include "window/CookiesDialog.h"
#include "window/Dialogs.h"
#include "window/Resource.h"
#include "window/WindowSettings.h"

namespace broomw {

namespace {

// GetDpiForWindow exists from Windows 10 on; older systems scale the
// process as a whole and report the screen's DPI.
int DpiOf(HWND window) {
  using Fn = UINT(WINAPI*)(HWND);
  static Fn get = reinterpret_cast<Fn>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"user32.dll"), "GetDpiForWindow")));
  if (get && window) {
    UINT dpi = get(window);
    if (dpi) return static_cast<int>(dpi);
  }
  HDC screen = GetDC(nullptr);
  int dpi = GetDeviceCaps(screen, LOGPIXELSY);
  ReleaseDC(nullptr, screen);
  return dpi ? dpi : 96;
}

struct SButton {
  int id;
  const wchar_t* text;
};
const SButton kButtons[] = {{IDC_SCAN, L"&Scan"},
                            {IDC_STOP, L"S&top"},
                            {IDC_CLEAN, L"&Clean..."},
                            {IDC_PROTECTED, L"&Protected..."},
                            {IDC_QUARANTINE, L"&Quarantine..."},
                            {IDC_COOKIES, L"Coo&kies..."},
                            {IDC_ABOUT, L"&About..."}};

std::wstring FilesAndSize(unsigned __int64 files, unsigned __int64 bytes) {
  return host::Plural(files, L"file", L"files") + L" (" + host::FormatSize(bytes) + L")";
}

}  // namespace

CMainWindow::CMainWindow(host::CSession& session, std::wstring whiteListError)
    : m_session(session), m_whiteListError(std::move(whiteListError)) {}

CMainWindow::~CMainWindow() {
  m_worker.reset();  // stops and waits for a scan or clean in progress
  if (m_window) DestroyWindow(m_window);
}

bool CMainWindow::Create(int show) {
  HINSTANCE instance = GetModuleHandleW(nullptr);
  WNDCLASSEXW wc = {};
  wc.cbSize = sizeof wc;
  wc.lpfnWndProc = Proc;
  wc.hInstance = instance;
  wc.hCursor = LoadCursorW(nullptr, IDC_ARROW);
  wc.hIcon = LoadIconW(nullptr, IDI_APPLICATION);
  wc.hbrBackground = GetSysColorBrush(COLOR_BTNFACE);
  wc.lpszClassName = kMainWindowClass;
  if (!RegisterClassExW(&wc)) return false;
  m_accelerators = LoadAcceleratorsW(instance, MAKEINTRESOURCEW(IDR_ACCELERATORS));

  int dpi = DpiOf(nullptr);
  m_window = CreateWindowExW(WS_EX_CONTROLPARENT, kMainWindowClass, L"Broom", WS_OVERLAPPEDWINDOW | WS_CLIPCHILDREN,
                             CW_USEDEFAULT, CW_USEDEFAULT, Scale(1000, dpi), Scale(700, dpi), nullptr, nullptr,
                             instance, this);
  if (!m_window) return false;
  WINDOWPLACEMENT placement = {};
  if (LoadPlacement(placement)) {
    if (placement.showCmd == SW_SHOWMINIMIZED || placement.showCmd == SW_MINIMIZE) placement.showCmd = SW_SHOWNORMAL;
    if (show == SW_SHOWMINNOACTIVE || show == SW_SHOWMINIMIZED || show == SW_MINIMIZE) placement.showCmd = show;
    SetWindowPlacement(m_window, &placement);  // moves it onto a monitor when it is off every one
  } else {
    ShowWindow(m_window, show);
  }
  UpdateWindow(m_window);
  SetFocus(m_tree.Handle());
  return true;
}

bool CMainWindow::PreTranslate(MSG& message) {
  if (!m_window || (message.hwnd != m_window && !IsChild(m_window, message.hwnd))) return false;
  if (m_accelerators && TranslateAcceleratorW(m_window, m_accelerators, &message)) return true;
  return IsDialogMessageW(m_window, &message) != FALSE;
}

LRESULT CALLBACK CMainWindow::Proc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
  if (message == WM_NCCREATE) {
    auto* self = static_cast<CMainWindow*>(reinterpret_cast<CREATESTRUCTW*>(lParam)->lpCreateParams);
    self->m_window = window;
    SetWindowLongPtrW(window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(self));
  }
  auto* self = reinterpret_cast<CMainWindow*>(GetWindowLongPtrW(window, GWLP_USERDATA));
  if (!self) return DefWindowProcW(window, message, wParam, lParam);
  return self->Handle(message, wParam, lParam);
}

void CMainWindow::OnCreate() {
  HINSTANCE instance = GetModuleHandleW(nullptr);
  m_worker.reset(new CWorker(m_window));
  for (const SButton& b : kButtons)
    CreateWindowExW(0, WC_BUTTONW, b.text, WS_CHILD | WS_VISIBLE | WS_TABSTOP | BS_PUSHBUTTON, 0, 0, 10, 10, m_window,
                    reinterpret_cast<HMENU>(static_cast<INT_PTR>(b.id)), instance, nullptr);
  m_tree.Create(m_window, IDC_TREE);
  CreateWindowExW(0, WC_EDITW, L"", WS_CHILD | WS_VISIBLE | ES_MULTILINE | ES_READONLY, 0, 0, 10, 10,
                  m_window, reinterpret_cast<HMENU>(IDC_DESCRIPTION), instance, nullptr);
  // two lines that wrap: a status is never cut
  CreateWindowExW(0, WC_STATICW, L"", WS_CHILD | WS_VISIBLE | SS_LEFT | SS_NOPREFIX | SS_EDITCONTROL, 0, 0, 10, 10,
                  m_window, reinterpret_cast<HMENU>(IDC_STATUS), instance, nullptr);
  if (HMENU menu = GetSystemMenu(m_window, FALSE)) {
    AppendMenuW(menu, MF_SEPARATOR, 0, nullptr);
    AppendMenuW(menu, MF_STRING, IDM_FORGET_SOURCES, L"&Forget remembered definitions...");
  }
  CreateWindowExW(0, WC_STATICW, L"", WS_CHILD | WS_VISIBLE | SS_LEFT | SS_NOPREFIX | SS_PATHELLIPSIS, 0, 0, 10, 10,
                  m_window, reinterpret_cast<HMENU>(IDC_FOLDER), instance, nullptr);
  HWND progress = CreateWindowExW(0, PROGRESS_CLASSW, L"", WS_CHILD | WS_VISIBLE | PBS_SMOOTH, 0, 0, 10, 10, m_window,
                                  reinterpret_cast<HMENU>(IDC_PROGRESS), instance, nullptr);
  SendMessageW(progress, PBM_SETRANGE32, 0, 1000);
  m_view.Create(m_window);
  CreateWindowExW(0, WC_STATICW, L"", WS_CHILD | WS_VISIBLE | SS_LEFT | SS_NOPREFIX, 0, 0, 10, 10, m_window,
                  reinterpret_cast<HMENU>(IDC_TOTAL), instance, nullptr);

  ApplyDpi(DpiOf(m_window));
  m_tree.Fill(m_session.Config());
  SetText(IDC_DESCRIPTION, m_tree.SelectedText());
  if (!m_whiteListError.empty())
    SetText(IDC_STATUS, L"Scanning is off: " + m_whiteListError);
  else
    SetText(IDC_STATUS, L"Tick what to look for, then Scan (F5).");
  UpdateButtons();
}

void CMainWindow::ApplyDpi(int dpi) {
  m_dpi = dpi;
  NONCLIENTMETRICSW metrics = {};
  metrics.cbSize = sizeof metrics;
  SystemParametersInfoW(SPI_GETNONCLIENTMETRICS, sizeof metrics, &metrics, 0);
  LOGFONTW font = metrics.lfMessageFont;
  HDC screen = GetDC(nullptr);
  int systemDpi = GetDeviceCaps(screen, LOGPIXELSY);
  ReleaseDC(nullptr, screen);
  font.lfHeight = MulDiv(font.lfHeight ? font.lfHeight : -12, dpi, systemDpi ? systemDpi : 96);
  unique_gdiobj created(CreateFontIndirectW(&font));
  for (HWND child = GetWindow(m_window, GW_CHILD); child; child = GetWindow(child, GW_HWNDNEXT))
    SendMessageW(child, WM_SETFONT, reinterpret_cast<WPARAM>(created.get()), FALSE);
  m_font = std::move(created);
  m_tree.SetDpi(dpi);
  m_view.SetDpi(dpi);
  Layout();
  InvalidateRect(m_window, nullptr, TRUE);
}

void CMainWindow::Layout() {
  RECT client;
  GetClientRect(m_window, &client);
  const int w = client.right, h = client.bottom;
  auto s = [this](int size) { return Scale(size, m_dpi); };
  const int m = s(8), buttonW = s(110), buttonH = s(28), line = s(20);
  HDWP defer = BeginDeferWindowPos(20);
  auto place = [&](int id, int x, int y, int cx, int cy) {
    if (HWND c = Control(id)) defer = DeferWindowPos(defer, c, nullptr, x, y, cx > 0 ? cx : 0, cy > 0 ? cy : 0, SWP_NOZORDER);
  };
  int x = m;
  for (const SButton& b : kButtons) {
    place(b.id, x, m, buttonW, buttonH);
    x += buttonW + m;
  }
  const int top = m + buttonH + m;
  const int left = std::max(s(240), w * 35 / 100), describe = s(72);
  place(IDC_TREE, m, top, left, h - top - describe - 2 * m);
  place(IDC_DESCRIPTION, m, h - m - describe, left, describe);
  const int rx = m + left + m, rw = w - rx - m;
  place(IDC_STATUS, rx, top, rw, 2 * line);
  place(IDC_FOLDER, rx, top + 2 * line, rw, line);
  place(IDC_PROGRESS, rx, top + 3 * line + s(4), rw, s(16));
  int y = top + 3 * line + s(28);
  const int rest = h - y - m - line - m;
  const int list = rest * 38 / 100, bars = std::min(s(128), rest / 4);
  place(IDC_RESULTS, rx, y, rw, list);
  y += list + m;
  place(IDC_BARS, rx, y, rw, bars);
  y += bars + m;
  place(IDC_FILES, rx, y, rw, h - y - line - 2 * m);
  place(IDC_TOTAL, rx, h - m - line, rw, line);
  EndDeferWindowPos(defer);
}

void CMainWindow::SetText(int id, const std::wstring& text) { SetWindowTextW(Control(id), text.c_str()); }

void CMainWindow::UpdateButtons() {
  const bool busy = m_worker && m_worker->Job() != jobNone;
  const bool usable = m_whiteListError.empty();
  EnableWindow(Control(IDC_SCAN), !busy && usable);
  EnableWindow(Control(IDC_STOP), busy && !m_worker->Stopping());
  EnableWindow(Control(IDC_CLEAN), !busy && usable && m_results && !m_outcome && m_guard.allowedFiles > 0);
  EnableWindow(Control(IDC_PROTECTED), !busy);
  EnableWindow(Control(IDC_QUARANTINE), !busy);
  // a disabled control must not keep the focus, or the keyboard is lost
  HWND focus = GetFocus();
  if (focus && !IsWindowEnabled(focus)) SetFocus(busy ? Control(IDC_STOP) : m_tree.Handle());
  if (busy && !IsWindowEnabled(Control(IDC_STOP)) && focus == Control(IDC_STOP)) SetFocus(m_tree.Handle());
}

void CMainWindow::OnCommand(int id) {
  const bool busy = m_worker->Job() != jobNone;
  switch (id) {
    case IDC_SCAN:
      if (!busy && IsWindowEnabled(Control(IDC_SCAN))) OnScan();
      break;
    case IDC_STOP:
      if (busy) {
        m_worker->Stop();
        SetText(IDC_STATUS, L"Stopping...");
        UpdateButtons();
      }
      break;
    case IDC_CLEAN:
      if (!busy && IsWindowEnabled(Control(IDC_CLEAN))) OnClean();
      break;
    case IDC_PROTECTED:
      if (!busy) OnProtected();
      break;
    case IDC_QUARANTINE:
      if (!busy) OnQuarantine();
      break;
    case IDC_ABOUT:
      ShowAbout(m_window, m_session);
      break;
    case IDC_COOKIES:
      if (!busy) ShowCookies(m_window, m_session);
      break;
    case IDC_FOCUS_TREE:
      SetFocus(m_tree.Handle());
      break;
    case IDC_FOCUS_RESULTS:
      SetFocus(m_view.List());
      break;
  }
}

void CMainWindow::OnScan() {
  std::vector<host::SItem> items = m_tree.Ticked();
  if (items.empty()) {
    SetText(IDC_STATUS, L"Nothing is ticked: tick an item in the tree (Space), then Scan.");
    return;
  }
  m_view.Show(nullptr, nullptr);
  std::unique_ptr<host::SScanResults> earlier = std::move(m_results);
  m_outcome.reset();
  SetText(IDC_TOTAL, L"");
  SetText(IDC_FOLDER, L"");
  SendMessageW(Control(IDC_PROGRESS), PBM_SETPOS, 0, 0);
  SetText(IDC_STATUS, L"Scanning " + host::Plural(items.size(), L"item", L"items") + L"...");
  m_worker->StartScan(m_session, std::move(items), std::move(earlier));
  UpdateButtons();
}

void CMainWindow::OnProgress() {
  SProgress p = m_worker->Snapshot();
  int permille = 0;
  if (p.count)
    permille = static_cast<int>(
        1000.0 * (static_cast<double>(p.index) +
                  (p.total > 0 ? std::min(1.0, static_cast<double>(p.position) / p.total) : 0.0)) /
        static_cast<double>(p.count));
  std::wstring status;
  if (m_worker->Job() == jobScan) {
    std::wstring items = p.inHand.size() > 1 ? std::wstring() : p.item;
    if (p.inHand.size() > 1)  // items side by side: every one in hand
      for (const std::wstring& item : p.inHand) items += (items.empty() ? L"" : L", ") + item;
    status = L"Scanning " + std::to_wstring(p.index + 1) + L" of " + std::to_wstring(p.count) + L": " + items +
             L"  \u2013  " + FilesAndSize(p.files, p.bytes) + L" found";
  } else {
    permille = p.total > 0 ? static_cast<int>(1000LL * p.position / p.total) : 0;
    status = L"Cleaning " + host::FormatCount(static_cast<unsigned __int64>(p.position)) + L" of " +
             host::Plural(static_cast<unsigned __int64>(p.total), L"file", L"files") + L"...";
  }
  if (!p.waiting.empty()) status = p.waiting;
  if (m_worker->Stopping()) status = L"Stopping...";
  SetText(IDC_STATUS, status);
  SetText(IDC_FOLDER, p.folder);
  SendMessageW(Control(IDC_PROGRESS), PBM_SETPOS, static_cast<WPARAM>(permille), 0);
}

void CMainWindow::OnDone(EJob job) {
  m_worker->Join();
  SetText(IDC_FOLDER, L"");
  if (job == jobScan) {
    m_results.reset(new host::SScanResults(m_worker->TakeScanResults()));
    m_guard = m_worker->TakeGuardSummary();
    m_outcome.reset();
    const host::SScanResults& r = *m_results;
    size_t errors = 0;
    for (const host::SItemResult& item : r.items) errors += item.errors.size();
    std::wstring status = (r.cancelled ? L"Stopped; found so far " : L"Found ") + FilesAndSize(r.files, r.size) +
                          L" in " + host::Plural(r.items.size(), L"item", L"items") + L".";
    if (errors) status += L" " + host::Plural(errors, L"operation", L"operations") + L" failed (see Note).";
    if (m_guard.refusedFiles)
      status += L" " + host::Plural(m_guard.refusedFiles, L"file is", L"files are") +
                L" refused by the safety rules and stay (see Result).";
    if (!r.cancelled && m_guard.allowedFiles) status += L" Clean (Ctrl+E) removes them.";
    SetText(IDC_STATUS, status);
    SetText(IDC_TOTAL, L"Total: " + FilesAndSize(r.files, r.size));
    SendMessageW(Control(IDC_PROGRESS), PBM_SETPOS, r.cancelled ? 0 : 1000, 0);
  } else {
    m_outcome.reset(new SCleanOutcome(m_worker->TakeCleanOutcome()));
    const SCleanOutcome& c = *m_outcome;
    const host::SCleanReport& n = c.report;
    std::wstring status;
    if (!c.error.empty()) {
      status = L"Nothing was cleaned: " + c.error;
    } else {
      status = c.quarantine ? L"Moved " + FilesAndSize(n.done, n.freed) + L" to the quarantine."
                            : L"Cleaned " + host::Plural(n.done, L"file", L"files") + L", freed " +
                                  host::FormatSize(n.freed) + L".";
      if (n.failed)
        status += L" " + host::Plural(n.failed, L"file", L"files") + L" could not be cleaned (see Result).";
      if (m_guard.refusedFiles)
        status += L" " + host::Plural(m_guard.refusedFiles, L"refused file stays", L"refused files stay") + L".";
      if (n.cancelled) status += L" Stopped; " + host::Plural(n.untouched, L"file was", L"files were") + L" left untouched.";
      if (c.skipped) status += L" " + host::Plural(c.skipped, L"item was", L"items were") + L" skipped (see Result).";
      for (const std::wstring& program : c.notClosed) status += L" " + program + L".";
    }
    SetText(IDC_STATUS, status);
    SetText(IDC_TOTAL, (c.quarantine ? L"Moved: " : L"Freed: ") + host::FormatSize(n.freed));
    SendMessageW(Control(IDC_PROGRESS), PBM_SETPOS, 1000, 0);
  }
  m_view.Show(m_results.get(), m_outcome.get());
  UpdateButtons();
}

void CMainWindow::OnClean() {
  // Programs that run now and hold ticked items: closed first, or their
  // items left whole, as the user chooses.
  for (host::SItemResult& r : m_results->items) r.skipped.clear();
  host::SGuardSummary guard = m_guard;
  std::vector<host::SHolder> holders;
  host::FindRunning(m_session, *m_results, holders);
  std::vector<std::wstring> closeFirst;
  if (!holders.empty()) {
    ERunningChoice choice = AskRunning(m_window, holders, m_session.Policies().IsOn(EPolicy::disableCloseApps));
    if (choice == runningCancel) return;
    if (choice == runningSkip) host::SkipRunning(*m_results, guard);
    if (choice == runningClose) closeFirst = host::HolderImages(holders);
    if (guard.allowedFiles == 0) {
      SetText(IDC_STATUS, L"Nothing was cleaned: every item found belongs to a running program.");
      return;
    }
  }
  SConfirm confirm;
  confirm.files = guard.allowedFiles;
  confirm.bytes = guard.allowedBytes;
  confirm.quarantineForced = m_session.Policies().IsOn(EPolicy::alwaysQuarantine);
  confirm.overwriteForbidden = m_session.Policies().IsOn(EPolicy::disableOverwrite);
  // what to look at before saying yes: the items, their warnings, the
  // files in the user's own folders, what the guard refused
  // every item that costs more than a cache first, by name, never counted away
  for (ECost cost : {costSaved, costSignIn, costHistory})
    for (const host::SItemResult& r : m_results->items)
      if (r.files && r.refusal.empty() && r.skipped.empty() && host::CostOf(m_session.Config(), r.item.group) == cost)
        confirm.marks += std::wstring(CostShortWords(cost)) + L": " + r.item.path + L"\n";
  size_t shown = 0;
  size_t left = 0;
  for (const host::SItemResult& r : m_results->items) left += !r.skipped.empty();
  if (left)
    confirm.marks += host::Plural(left, L"item of a running program stays", L"items of running programs stay") +
                     L" as it is.\n";
  if (!closeFirst.empty())
    confirm.marks += L"First asks " + host::Plural(closeFirst.size(), L"program", L"programs") +
                     L" to close; the items of one that does not close stay.\n";
  for (const host::SItemResult& r : m_results->items) {
    if (!r.files || !r.refusal.empty() || !r.skipped.empty()) continue;
    // the costly ones are named above; the rest is summed up
    bool named = host::CostOf(m_session.Config(), r.item.group) > costCache;
    if (!named && ++shown <= 6) confirm.marks += r.item.path + L": " + FilesAndSize(r.files, r.size) + L"\n";
    const wchar_t* tip = r.item.group ? r.item.group->GetTip() : nullptr;
    if (tip && *tip) confirm.marks += L"    Warning: " + std::wstring(tip) + L"\n";
  }
  if (shown > 6) confirm.marks += L"... and " + host::Plural(shown - 6, L"more item", L"more items") + L"\n";
  if (m_guard.markedFiles)
    confirm.marks += L"\n" + host::Plural(m_guard.markedFiles, L"file lies", L"files lie") +
                     L" in your own folders (Desktop, Documents, Downloads, Pictures, Music, Videos); the "
                     L"Result column names the folder.\n";
  if (m_guard.refusedFiles)
    confirm.marks += L"\n" + host::Plural(m_guard.refusedFiles, L"file is", L"files are") +
                     L" refused by the safety rules and stay where they are.\n";
  if (!ConfirmClean(m_window, confirm)) return;
  SetText(IDC_STATUS, confirm.quarantine ? L"Moving to quarantine..." : L"Cleaning...");
  SendMessageW(Control(IDC_PROGRESS), PBM_SETPOS, 0, 0);
  m_worker->StartClean(m_session, *m_results, confirm.quarantine, confirm.overwrite, closeFirst);
  UpdateButtons();
}

void CMainWindow::OnForgetSources() {
  const SSources remembered = LoadSources();
  if (remembered.defs.empty() && remembered.winapp2.empty()) {
    MessageBoxW(m_window, L"No definition folder or winapp2 file is remembered.", L"Broom", MB_OK | MB_ICONINFORMATION);
    return;
  }
  std::wstring list;
  for (const std::wstring& path : remembered.defs) list += L"\n" + host::Printable(path);
  for (const std::wstring& path : remembered.winapp2) list += L"\n" + host::Printable(path);
  const std::wstring question = L"Forget these definitions given at an earlier start?\n" + list +
                                L"\n\nThe next start without --defs or --winapp2 uses the bundled definitions; this "
                                L"window keeps what it loaded until it closes.";
  if (MessageBoxW(m_window, question.c_str(), L"Broom", MB_YESNO | MB_ICONQUESTION | MB_DEFBUTTON2) != IDYES) return;
  SaveSources(SSources());
  SetText(IDC_STATUS, L"The remembered definitions are forgotten; the next start uses the bundled ones.");
}

void CMainWindow::OnProtected() { ShowProtected(m_window, m_session); }

void CMainWindow::OnQuarantine() { ShowQuarantines(m_window, m_session); }

LRESULT CMainWindow::Handle(UINT message, WPARAM wParam, LPARAM lParam) {
  switch (message) {
    case WM_CREATE:
      OnCreate();
      return 0;
    case WM_SIZE:
      Layout();
      return 0;
    case WM_GETMINMAXINFO: {
      auto* info = reinterpret_cast<MINMAXINFO*>(lParam);
      info->ptMinTrackSize = {Scale(640, m_dpi), Scale(420, m_dpi)};
      return 0;
    }
    case WM_DPICHANGED: {
      const RECT* suggested = reinterpret_cast<const RECT*>(lParam);
      SetWindowPos(m_window, nullptr, suggested->left, suggested->top, suggested->right - suggested->left,
                   suggested->bottom - suggested->top, SWP_NOZORDER | SWP_NOACTIVATE);
      ApplyDpi(HIWORD(wParam));
      return 0;
    }
    case WM_SYSCOMMAND:
      if ((wParam & 0xFFF0) == IDM_FORGET_SOURCES) {
        OnForgetSources();
        return 0;
      }
      break;
    case WM_COMMAND:
      if (HIWORD(wParam) == BN_CLICKED || HIWORD(wParam) == 1 /* accelerator */) OnCommand(LOWORD(wParam));
      return 0;
    case WM_NOTIFY: {
      auto* header = reinterpret_cast<NMHDR*>(lParam);
      LRESULT result = 0;
      if (header->idFrom == IDC_TREE) {
        if (header->code == TVN_SELCHANGEDW) SetText(IDC_DESCRIPTION, m_tree.SelectedText());
        if (m_tree.OnNotify(header, result)) return result;
      }
      if (m_view.OnNotify(header, result)) return result;
      break;
    }
    case WM_WORKER_PROGRESS:
      OnProgress();
      return 0;
    case WM_WORKER_DONE:
      OnDone(static_cast<EJob>(wParam));
      return 0;
    case WM_CLOSE: {
      if (m_worker->Job() != jobNone) m_worker->Stop();
      WINDOWPLACEMENT placement = {};
      placement.length = sizeof placement;
      if (GetWindowPlacement(m_window, &placement)) SavePlacement(placement);
      DestroyWindow(m_window);
      return 0;
    }
    case WM_DESTROY:
      m_worker->Stop();
      m_worker->Join();  // the worker stops at its next check
      PostQuitMessage(0);
      return 0;
    case WM_NCDESTROY: {
      HWND window = m_window;
      SetWindowLongPtrW(window, GWLP_USERDATA, 0);
      m_window = nullptr;
      return DefWindowProcW(window, message, wParam, lParam);
    }
  }
  return DefWindowProcW(m_window, message, wParam, lParam);
}

}  // namespace broomw
