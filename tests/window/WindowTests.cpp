// Drives broomw.exe as a person would, on a virtual X display: finds its
// window, ticks items in the tree with Space, presses buttons, waits for the
// scan, reads the lists back (through memory in broomw's process, as list
// and tree messages carry pointers), cleans and checks the disk. Screenshots of the main states go to screenshots/ in the
// build folder.
#include <windows.h>
#include <commctrl.h>
#include <wincodec.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "common/HandleCount.h"
#include "common/TestProcess.h"
#include "common/TestFiles.h"
#include "core/Handles.h"
#include "running/TestApps.h"
#include "window/Resource.h"

using broomtest::Exists;
using broomtest::ReadFile;
using broomtest::TempDir;
using broomtest::WriteFile;

namespace {

bool WaitFor(const std::function<bool()>& done, DWORD timeout = 30000) {
  for (DWORD start = GetTickCount(); GetTickCount() - start < timeout; Sleep(20))
    if (done()) return true;
  return done();
}

// Memory in broomw's process for the messages that carry pointers.
class CRemote {
 public:
  CRemote(HANDLE process, size_t size) : m_process(process) {
    m_base = static_cast<char*>(VirtualAllocEx(process, nullptr, size, MEM_COMMIT, PAGE_READWRITE));
  }
  ~CRemote() { VirtualFreeEx(m_process, m_base, 0, MEM_RELEASE); }
  CRemote(const CRemote&) = delete;
  CRemote& operator=(const CRemote&) = delete;
  char* At(size_t offset) const { return m_base + offset; }
  template <class T>
  void Put(const T& value, size_t offset = 0) {
    WriteProcessMemory(m_process, At(offset), &value, sizeof value, nullptr);
  }
  std::wstring Text(size_t offset, size_t chars) const {
    std::wstring text(chars, L'\0');
    ReadProcessMemory(m_process, At(offset), &text[0], chars * sizeof(wchar_t), nullptr);
    return text.c_str();
  }
  template <class T>
  T Get(size_t offset = 0) const {
    T value{};
    ReadProcessMemory(m_process, At(offset), &value, sizeof value, nullptr);
    return value;
  }

 private:
  HANDLE m_process;
  char* m_base;
};

std::wstring WindowText(HWND window) {
  wchar_t text[1024] = {};
  SendMessageTimeoutW(window, WM_GETTEXT, 1024, reinterpret_cast<LPARAM>(text), SMTO_ABORTIFHUNG, 5000, nullptr);
  return text;
}

// Writes what the screen shows of a window to screenshots/NAME.png, once
// it has drawn what it was last told.
void Screenshot(HWND window, const wchar_t* name, bool settle = true) {
  for (int i = 0; settle && i < 3; ++i) {
    SendMessageTimeoutW(window, WM_NULL, 0, 0, SMTO_ABORTIFHUNG, 5000, nullptr);
    Sleep(100);
  }
  RECT r;
  GetWindowRect(window, &r);
  const int w = r.right - r.left, h = r.bottom - r.top;
  HDC screen = GetDC(nullptr);
  HDC memory = CreateCompatibleDC(screen);
  BITMAPINFO info = {};
  info.bmiHeader.biSize = sizeof(BITMAPINFOHEADER);
  info.bmiHeader.biWidth = w;
  info.bmiHeader.biHeight = -h;  // top down
  info.bmiHeader.biPlanes = 1;
  info.bmiHeader.biBitCount = 32;
  void* bits = nullptr;
  HBITMAP bitmap = CreateDIBSection(screen, &info, DIB_RGB_COLORS, &bits, nullptr, 0);
  HGDIOBJ old = SelectObject(memory, bitmap);
  BitBlt(memory, 0, 0, w, h, screen, r.left, r.top, SRCCOPY);
  SelectObject(memory, old);
  DeleteDC(memory);
  ReleaseDC(nullptr, screen);

  std::wstring folder = broomtest::ExeFolder() + L"\\..\\screenshots";
  CreateDirectoryW(folder.c_str(), nullptr);
  std::wstring path = folder + L"\\" + name + L".png";
  IWICImagingFactory* factory = nullptr;
  IWICStream* stream = nullptr;
  IWICBitmapEncoder* encoder = nullptr;
  IWICBitmapFrameEncode* frame = nullptr;
  WICPixelFormatGUID format = GUID_WICPixelFormat32bppBGR;
  HRESULT hr = CoCreateInstance(CLSID_WICImagingFactory, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&factory));
  if (SUCCEEDED(hr)) hr = factory->CreateStream(&stream);
  if (SUCCEEDED(hr)) hr = stream->InitializeFromFilename(path.c_str(), GENERIC_WRITE);
  if (SUCCEEDED(hr)) hr = factory->CreateEncoder(GUID_ContainerFormatPng, nullptr, &encoder);
  if (SUCCEEDED(hr)) hr = encoder->Initialize(stream, WICBitmapEncoderNoCache);
  if (SUCCEEDED(hr)) hr = encoder->CreateNewFrame(&frame, nullptr);
  if (SUCCEEDED(hr)) hr = frame->Initialize(nullptr);
  if (SUCCEEDED(hr)) hr = frame->SetSize(static_cast<UINT>(w), static_cast<UINT>(h));
  if (SUCCEEDED(hr)) hr = frame->SetPixelFormat(&format);
  if (SUCCEEDED(hr))
    hr = frame->WritePixels(static_cast<UINT>(h), static_cast<UINT>(w) * 4, static_cast<UINT>(w * h * 4),
                            static_cast<BYTE*>(bits));
  if (SUCCEEDED(hr)) hr = frame->Commit();
  if (SUCCEEDED(hr)) hr = encoder->Commit();
  for (IUnknown* u : std::initializer_list<IUnknown*>{frame, encoder, stream, factory})
    if (u) u->Release();
  DeleteObject(bitmap);
  EXPECT_TRUE(SUCCEEDED(hr)) << "screenshot " << broomtest::Narrow(name) << ": 0x" << std::hex << hr;
}

// One run of broomw.exe with its own LOCALAPPDATA.
class CBroomw {
 public:
  CBroomw(const std::vector<std::wstring>& args, const std::wstring& appData, bool starts = true) {
    std::wstring command = L"\"" + broomtest::ExeFolder() + L"\\broomw.exe\"";
    for (const std::wstring& a : args) command += L" \"" + a + L"\"";
    std::vector<wchar_t> env = broomtest::EnvironmentWith(L"LOCALAPPDATA", appData);
    STARTUPINFOW si = {};
    si.cb = sizeof si;
    EXPECT_TRUE(broomtest::StartProcess(nullptr, &command[0], FALSE, CREATE_UNICODE_ENVIRONMENT, env.data(),
                               nullptr, &si, &m_process));
    if (starts) WaitFor([&] { return (m_main = Find(L"BroomMainWindow", nullptr)) && IsWindowVisible(m_main); }, 15000);
  }
  ~CBroomw() {
    if (m_main) PostMessageW(m_main, WM_CLOSE, 0, 0);
    if (WaitForSingleObject(m_process.hProcess, 20000) != WAIT_OBJECT_0) TerminateProcess(m_process.hProcess, 1);
    CloseHandle(m_process.hThread);
    CloseHandle(m_process.hProcess);
  }
  CBroomw(const CBroomw&) = delete;
  CBroomw& operator=(const CBroomw&) = delete;

  HWND Main() const { return m_main; }
  HWND Control(int id) const { return GetDlgItem(m_main, id); }
  HANDLE Process() const { return m_process.hProcess; }
  void Click(int id) const { PostMessageW(Control(id), BM_CLICK, 0, 0); }
  std::wstring Status() const { return WindowText(Control(IDC_STATUS)); }
  bool Idle() const { return IsWindowEnabled(Control(IDC_PROTECTED)) != FALSE; }

  // A top-level window of this broomw by class and title (and owner).
  HWND Find(const wchar_t* cls, const wchar_t* title, HWND owner = nullptr) const {
    SFind find{m_process.dwProcessId, cls, title, owner, nullptr};
    EnumWindows(FindProc, reinterpret_cast<LPARAM>(&find));
    return find.found;
  }

  struct SNode {
    HTREEITEM handle;
    std::wstring text;
    int state;  // 1 off, 2 on, 3 some, 4 switched off
  };
  std::vector<SNode> Tree() const {
    HWND tree = Control(IDC_TREE);
    CRemote remote(Process(), 4096);
    std::vector<SNode> nodes;
    std::vector<HTREEITEM> work{reinterpret_cast<HTREEITEM>(SendMessageW(tree, TVM_GETNEXTITEM, TVGN_ROOT, 0))};
    while (!work.empty()) {
      HTREEITEM item = work.back();
      work.pop_back();
      if (!item) continue;
      TVITEMW tv = {};
      tv.mask = TVIF_TEXT | TVIF_STATE;
      tv.hItem = item;
      tv.stateMask = TVIS_STATEIMAGEMASK;
      tv.pszText = reinterpret_cast<wchar_t*>(remote.At(1024));
      tv.cchTextMax = 512;
      remote.Put(tv);
      SendMessageW(tree, TVM_GETITEMW, 0, reinterpret_cast<LPARAM>(remote.At(0)));
      nodes.push_back({item, remote.Text(1024, 512), static_cast<int>(remote.Get<TVITEMW>().state >> 12)});
      work.push_back(reinterpret_cast<HTREEITEM>(SendMessageW(tree, TVM_GETNEXTITEM, TVGN_NEXT, reinterpret_cast<LPARAM>(item))));
      work.push_back(reinterpret_cast<HTREEITEM>(SendMessageW(tree, TVM_GETNEXTITEM, TVGN_CHILD, reinterpret_cast<LPARAM>(item))));
    }
    return nodes;
  }
  int State(const std::wstring& text) const {
    for (const SNode& n : Tree())
      if (n.text == text) return n.state;
    return -1;
  }
  // Selects the node and presses Space on it.
  void Tick(const std::wstring& text) const {
    HWND tree = Control(IDC_TREE);
    for (const SNode& n : Tree())
      if (n.text == text) {
        SendMessageW(tree, TVM_SELECTITEM, TVGN_CARET, reinterpret_cast<LPARAM>(n.handle));
        SendMessageW(tree, WM_KEYDOWN, VK_SPACE, 0);
        SendMessageW(tree, WM_KEYUP, VK_SPACE, 0);
        return;
      }
    ADD_FAILURE() << "no node " << broomtest::Narrow(text);
  }

  // Every row of a list control, its columns joined with '|'.
  std::vector<std::wstring> Rows(int id, int columns) const { return Rows(Control(id), columns); }
  std::vector<std::wstring> Rows(HWND list, int columns) const {
    CRemote remote(Process(), 4096);
    std::vector<std::wstring> rows;
    int count = static_cast<int>(SendMessageW(list, LVM_GETITEMCOUNT, 0, 0));
    for (int i = 0; i < count; ++i) {
      std::wstring row;
      for (int c = 0; c < columns; ++c) {
        LVITEMW lv = {};
        lv.iSubItem = c;
        lv.pszText = reinterpret_cast<wchar_t*>(remote.At(1024));
        lv.cchTextMax = 512;
        remote.Put(lv);
        SendMessageW(list, LVM_GETITEMTEXTW, static_cast<WPARAM>(i), reinterpret_cast<LPARAM>(remote.At(0)));
        row += (c ? L"|" : L"") + remote.Text(1024, 512);
      }
      rows.push_back(row);
    }
    return rows;
  }

 private:
  struct SFind {
    DWORD pid;
    const wchar_t *cls, *title;
    HWND owner, found;
  };
  static BOOL CALLBACK FindProc(HWND w, LPARAM l) {
    auto* f = reinterpret_cast<SFind*>(l);
    DWORD pid = 0;
    GetWindowThreadProcessId(w, &pid);
    wchar_t cls[64] = {}, title[128] = {};
    GetClassNameW(w, cls, 64);
    GetWindowTextW(w, title, 128);
    if (pid != f->pid || wcscmp(cls, f->cls) != 0 || (f->title && wcscmp(title, f->title) != 0) ||
        (f->owner && GetWindow(w, GW_OWNER) != f->owner)) return TRUE;
    f->found = w;
    return FALSE;
  }

  PROCESS_INFORMATION m_process = {};
  HWND m_main = nullptr;
};

std::wstring Defs(const TempDir& dir, const std::wstring& items) {
  WriteFile(dir / L"defs\\test.xml",
            broomtest::Narrow(L"<ConfigItems>\n" + items + L"</ConfigItems>\n"));
  return dir / L"defs";
}

class Window : public testing::Test {
 protected:
  void SetUp() override {
    // Wine keeps a handle for every process a test starts
    broomtest::AllowHandleGrowth();
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  }
  void TearDown() override {
    RegDeleteTreeW(HKEY_CURRENT_USER, L"SOFTWARE\\Broom\\Window");
    HKEY engine;
    if (RegOpenKeyExW(HKEY_CURRENT_USER, L"SOFTWARE\\Broom\\Engine", 0, KEY_SET_VALUE, &engine) == 0) {
      RegDeleteValueW(engine, L"WindowDefinitionFolders");
      RegDeleteValueW(engine, L"WindowWinapp2Files");
      RegCloseKey(engine);
    }
    CoUninitialize();
  }
  TempDir m_dir;
};

TEST_F(Window, TicksScansListsAndCleans) {
  const std::wstring root = m_dir.Path();
  WriteFile(m_dir / L"work\\report.bak", 3000);
  WriteFile(m_dir / L"work\\notes.bak", 1000);
  WriteFile(m_dir / L"work\\keep.txt", 500);
  WriteFile(m_dir / L"logs\\build.log", 9000);
  std::wstring defs = Defs(m_dir,
      L"<group name=\"Demo\" order=\"1\" scan=\"yes\" clean=\"yes\" desc=\"Files made for this test\">\n"
      L" <item name=\"Editor backups\" desc=\"Backup copies an editor left behind\">"
      L"<clean kind=\"file\">" + root + L"\\work\\*.bak</clean></item>\n"
      L" <item name=\"Build logs\" scan=\"no\" desc=\"Logs of old builds, emptied\">"
      L"<clean kind=\"trunc\">" + root + L"\\logs\\*.log</clean></item>\n"
      L" <item name=\"Absent\"><check test=\"exists\" data=\"regkey\" path=\"HKCU\\Software\\BroomNoSuchKey\"/>"
      L"<clean kind=\"file\">" + root + L"\\work\\*.txt</clean></item>\n"
      L"</group>\n");
  CBroomw w({L"--defs", defs, L"--no-log"}, m_dir / L"appdata");
  ASSERT_TRUE(w.Main());

  // the engine's default states: on, off by scan="no", switched off by the check
  EXPECT_EQ(w.State(L"Editor backups"), 2);
  EXPECT_EQ(w.State(L"Build logs"), 1);
  EXPECT_EQ(w.State(L"Absent  (not on this PC)"), 4);
  EXPECT_EQ(w.State(L"Demo"), 3);
  w.Tick(L"Absent  (not on this PC)");  // cannot be ticked
  w.Tick(L"Build logs");
  EXPECT_EQ(w.State(L"Absent  (not on this PC)"), 4);
  EXPECT_EQ(w.State(L"Build logs"), 2);
  EXPECT_EQ(w.State(L"Demo"), 2);
  Screenshot(w.Main(), L"tree");

  w.Click(IDC_SCAN);
  ASSERT_TRUE(WaitFor([&] { return w.Idle() && w.Status().rfind(L"Found", 0) == 0; })) << broomtest::Narrow(w.Status());
  EXPECT_EQ(w.Status(), L"Found 3 files (12.7 KB) in 2 items. Clean (Ctrl+E) removes them.");
  // largest first; the selected item's files below
  std::vector<std::wstring> rows = w.Rows(IDC_RESULTS, 3);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0], L"Build logs|1|8.8 KB");
  EXPECT_EQ(rows[1], L"Editor backups|2|3.9 KB");
  EXPECT_EQ(w.Rows(IDC_FILES, 2), std::vector<std::wstring>{root + L"\\logs\\build.log|8.8 KB"});
  EXPECT_EQ(WindowText(w.Control(IDC_TOTAL)), L"Total: 3 files (12.7 KB)");
  Screenshot(w.Main(), L"results");

  w.Click(IDC_CLEAN);
  HWND confirm = nullptr;
  ASSERT_TRUE(WaitFor([&] { return (confirm = w.Find(L"#32770", L"Clean")) && IsWindowVisible(confirm); }));
  EXPECT_EQ(WindowText(GetDlgItem(confirm, IDC_CONFIRM_TEXT)), L"Delete 3 files (12.7 KB) for good?");
  Screenshot(confirm, L"confirmation");
  PostMessageW(GetDlgItem(confirm, IDOK), BM_CLICK, 0, 0);
  ASSERT_TRUE(WaitFor([&] { return w.Idle() && w.Status().rfind(L"Cleaned", 0) == 0; })) << broomtest::Narrow(w.Status());
  EXPECT_EQ(w.Status(), L"Cleaned 3 files, freed 12.7 KB.");
  EXPECT_FALSE(Exists(m_dir / L"work\\report.bak"));
  EXPECT_FALSE(Exists(m_dir / L"work\\notes.bak"));
  EXPECT_TRUE(Exists(m_dir / L"work\\keep.txt"));
  EXPECT_EQ(ReadFile(m_dir / L"logs\\build.log"), "");
  EXPECT_EQ(w.Rows(IDC_FILES, 3), std::vector<std::wstring>{root + L"\\logs\\build.log|8.8 KB|cleaned"});
}

TEST_F(Window, AGroupTicksItsCacheAndHistoryAndTheConfirmationNamesEveryCostlyItem) {
  const std::wstring root = m_dir.Path();
  for (const wchar_t* name : {L"cache", L"visits", L"cookies", L"passwords"})
    WriteFile(m_dir / (std::wstring(name) + L"\\f.dat"), 100);
  std::wstring items;
  // many cache items: they may be summed up, the costly ones never
  for (int i = 0; i < 8; ++i) {
    WriteFile(m_dir / (L"more\\" + std::to_wstring(i) + L"\\f.dat"), 10);
    items += L" <item name=\"Cache " + std::to_wstring(i) + L"\" cost=\"cache\"><clean kind=\"file\">" + root +
             L"\\more\\" + std::to_wstring(i) + L"\\*</clean></item>\n";
  }
  std::wstring defs = Defs(m_dir,
      L"<group name=\"Web\" scan=\"no\" clean=\"yes\" cost=\"history\">\n"
      L" <item name=\"Cache\" cost=\"cache\"><clean kind=\"file\">" + root + L"\\cache\\*</clean></item>\n"
      L" <item name=\"Visits\"><clean kind=\"file\">" + root + L"\\visits\\*</clean></item>\n"
      L" <item name=\"Cookies\" cost=\"sign-in\"><clean kind=\"file\">" + root + L"\\cookies\\*</clean></item>\n"
      L" <item name=\"Passwords\" cost=\"saved\" scan=\"yes\"><clean kind=\"file\">" + root +
      L"\\passwords\\*</clean></item>\n" + items + L"</group>\n");
  CBroomw w({L"--defs", defs, L"--no-log"}, m_dir / L"appdata");
  ASSERT_TRUE(w.Main());
  // costly items carry their class and are not ticked by default, even when on
  EXPECT_EQ(w.State(L"Passwords  [saved]"), 1);
  EXPECT_EQ(w.State(L"Cookies  [sign-in]"), 1);
  EXPECT_EQ(w.State(L"Visits  [history]"), 1);
  w.Tick(L"Web");
  const std::pair<const wchar_t*, int> ticked[] = {
      {L"Cache", 2}, {L"Visits  [history]", 2}, {L"Cookies  [sign-in]", 1}, {L"Passwords  [saved]", 1}, {L"Web", 3}};
  for (const auto& [text, state] : ticked) EXPECT_EQ(w.State(text), state) << broomtest::Narrow(text);
  // one by one it is taken
  w.Tick(L"Passwords  [saved]");
  EXPECT_EQ(w.State(L"Passwords  [saved]"), 2);
  Screenshot(w.Main(), L"costs");

  w.Click(IDC_SCAN);
  ASSERT_TRUE(WaitFor([&] { return w.Idle() && w.Status().rfind(L"Found", 0) == 0; })) << broomtest::Narrow(w.Status());
  w.Click(IDC_CLEAN);
  HWND confirm = nullptr;
  ASSERT_TRUE(WaitFor([&] { return (confirm = w.Find(L"#32770", L"Clean")) && IsWindowVisible(confirm); }));
  std::wstring marks = WindowText(GetDlgItem(confirm, IDC_CONFIRM_MARKS));
  EXPECT_EQ(marks.rfind(L"Deletes your saved passwords or data: Web/Passwords\r\nDeletes your history: Web/Visits\r\n", 0),
            0u)
      << broomtest::Narrow(marks);
  EXPECT_EQ(marks.find(L"Cookies"), std::wstring::npos);
  EXPECT_NE(marks.find(L"... and 3 more items"), std::wstring::npos) << broomtest::Narrow(marks);
  Screenshot(confirm, L"costs-confirmation");
  PostMessageW(GetDlgItem(confirm, IDOK), BM_CLICK, 0, 0);
  ASSERT_TRUE(WaitFor([&] { return w.Idle() && w.Status().rfind(L"Cleaned", 0) == 0; })) << broomtest::Narrow(w.Status());
  EXPECT_FALSE(Exists(m_dir / L"passwords\\f.dat"));
  EXPECT_FALSE(Exists(m_dir / L"visits\\f.dat"));
  EXPECT_TRUE(Exists(m_dir / L"cookies\\f.dat"));
}

TEST_F(Window, StopsAScanAndRemembersWhereItWas) {
  for (int f = 0; f < 100; ++f)
    for (int i = 0; i < 30; ++i)
      WriteFile(m_dir / (L"big\\f" + std::to_wstring(f) + L"\\file" + std::to_wstring(i) + L".tmp"), "x");
  std::wstring defs = Defs(m_dir, L"<group name=\"Caches\" scan=\"yes\"><item name=\"Temporary files\">"
                                  L"<clean kind=\"file\">" + m_dir.Path() + L"\\big\\*</clean></item></group>\n");
  const RECT placed = {40, 50, 940, 690};
  {
    CBroomw w({L"--defs", defs, L"--no-log"}, m_dir / L"appdata");
    ASSERT_TRUE(w.Main());
    // Stop right behind Scan: the scan has barely begun when it is told
    w.Click(IDC_SCAN);
    w.Click(IDC_STOP);
    ASSERT_TRUE(WaitFor([&] { return w.Idle() && w.Status().rfind(L"Stopped; found so far", 0) == 0; }))
        << broomtest::Narrow(w.Status());
    w.Click(IDC_SCAN);
    ASSERT_TRUE(WaitFor([&] { return !WindowText(w.Control(IDC_FOLDER)).empty(); }));
    Screenshot(w.Main(), L"scanning", false);
    EXPECT_TRUE(WaitFor([&] { return w.Idle() && w.Status().rfind(L"Found 3,000 files", 0) == 0; }))
        << broomtest::Narrow(w.Status());
    SetWindowPos(w.Main(), nullptr, placed.left, placed.top, placed.right - placed.left, placed.bottom - placed.top,
                 SWP_NOZORDER);
  }
  // no --defs: the folders of the last start, and the window where it was
  CBroomw again({}, m_dir / L"appdata");
  ASSERT_TRUE(again.Main());
  RECT r;
  GetWindowRect(again.Main(), &r);
  EXPECT_EQ(std::vector<LONG>({r.left, r.top, r.right, r.bottom}),
            std::vector<LONG>({placed.left, placed.top, placed.right, placed.bottom}));
  EXPECT_EQ(again.State(L"Temporary files"), 2);
}

TEST_F(Window, ProtectedPathsReachTheFileAndTheScan) {
  WriteFile(m_dir / L"work\\a.bak", 100);
  std::wstring defs = Defs(m_dir, L"<group name=\"Demo\" scan=\"yes\"><item name=\"Backups\">"
                                  L"<clean kind=\"file\">" + m_dir.Path() + L"\\work\\*.bak</clean></item></group>\n");
  const std::wstring list = m_dir / L"appdata\\Broom\\whitelist.txt";
  CBroomw w({L"--defs", defs, L"--no-log"}, m_dir / L"appdata");
  ASSERT_TRUE(w.Main());
  auto open = [&] {
    w.Click(IDC_PROTECTED);
    HWND dialog = nullptr;
    EXPECT_TRUE(WaitFor([&] { return (dialog = w.Find(L"#32770", L"Protected")) && IsWindowVisible(dialog); }));
    return dialog;
  };
  HWND dialog = open();
  ASSERT_TRUE(dialog);
  std::wstring folder = m_dir / L"work";
  SendMessageW(GetDlgItem(dialog, IDC_PROT_PATH), WM_SETTEXT, 0, reinterpret_cast<LPARAM>(folder.c_str()));
  PostMessageW(GetDlgItem(dialog, IDC_PROT_ADD), BM_CLICK, 0, 0);
  HWND paths = GetDlgItem(dialog, IDC_PROT_LIST);
  ASSERT_TRUE(WaitFor([&] { return SendMessageW(paths, LB_GETCOUNT, 0, 0) == 1; }));
  wchar_t listed[MAX_PATH + 1] = {};
  SendMessageW(paths, LB_GETTEXT, 0, reinterpret_cast<LPARAM>(listed));
  std::wstring upper = folder;
  CharUpperW(&upper[0]);
  EXPECT_EQ(std::wstring(listed), upper);
  EXPECT_EQ(ReadFile(list), broomtest::Narrow(upper) + "\r\n");
  Screenshot(dialog, L"protected");
  PostMessageW(dialog, WM_COMMAND, IDCANCEL, 0);
  ASSERT_TRUE(WaitFor([&] { return !IsWindow(dialog); }));

  w.Click(IDC_SCAN);  // the protected folder is not entered
  ASSERT_TRUE(WaitFor([&] { return w.Idle() && w.Status().rfind(L"Found", 0) == 0; }));
  EXPECT_EQ(w.Status(), L"Found 0 files (0 bytes) in 1 item.");

  dialog = open();
  paths = GetDlgItem(dialog, IDC_PROT_LIST);
  SendMessageW(paths, LB_SETCURSEL, 0, 0);
  SendMessageW(dialog, WM_COMMAND, MAKEWPARAM(IDC_PROT_LIST, LBN_SELCHANGE), reinterpret_cast<LPARAM>(paths));
  PostMessageW(GetDlgItem(dialog, IDC_PROT_REMOVE), BM_CLICK, 0, 0);
  ASSERT_TRUE(WaitFor([&] { return SendMessageW(paths, LB_GETCOUNT, 0, 0) == 0; }));
  EXPECT_EQ(ReadFile(list), "");
  PostMessageW(dialog, WM_COMMAND, IDCANCEL, 0);
}

TEST_F(Window, MovesToQuarantineAndRestores) {
  const std::wstring file = WriteFile(m_dir / L"work\\a.bak", "precious");
  std::wstring defs = Defs(m_dir, L"<group name=\"Demo\" scan=\"yes\" clean=\"yes\"><item name=\"Backups\">"
                                  L"<clean kind=\"file\">" + m_dir.Path() + L"\\work\\*.bak</clean></item></group>\n");
  CBroomw w({L"--defs", defs, L"--no-log"}, m_dir / L"appdata");
  ASSERT_TRUE(w.Main());
  auto moveAside = [&] {
    w.Click(IDC_SCAN);
    ASSERT_TRUE(WaitFor([&] { return w.Idle() && w.Status().rfind(L"Found 1 file", 0) == 0; }));
    w.Click(IDC_CLEAN);
    HWND confirm = nullptr;
    ASSERT_TRUE(WaitFor([&] { return (confirm = w.Find(L"#32770", L"Clean")) && IsWindowVisible(confirm); }));
    PostMessageW(GetDlgItem(confirm, IDC_CONFIRM_QUARANTINE), BM_CLICK, 0, 0);
    ASSERT_TRUE(WaitFor([&] { return WindowText(GetDlgItem(confirm, IDC_CONFIRM_TEXT)).rfind(L"Move 1 file", 0) == 0; }));
    PostMessageW(GetDlgItem(confirm, IDOK), BM_CLICK, 0, 0);
    ASSERT_TRUE(WaitFor([&] { return w.Idle() && w.Status() == L"Moved 1 file (8 bytes) to the quarantine."; }))
        << broomtest::Narrow(w.Status());
    EXPECT_FALSE(Exists(file));
  };
  HWND dialog = nullptr, question = nullptr;
  ASSERT_NO_FATAL_FAILURE(moveAside());
  w.Click(IDC_QUARANTINE);
  ASSERT_TRUE(WaitFor([&] { return (dialog = w.Find(L"#32770", L"Quarantine")) && IsWindowVisible(dialog); }));
  std::vector<std::wstring> rows = w.Rows(GetDlgItem(dialog, IDC_Q_LIST), 3);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_NE(rows[0].find(L"|1|8 bytes"), std::wstring::npos) << broomtest::Narrow(rows[0]);
  Screenshot(dialog, L"quarantine");
  PostMessageW(GetDlgItem(dialog, IDC_Q_RESTORE), BM_CLICK, 0, 0);
  ASSERT_TRUE(WaitFor([&] { return WindowText(GetDlgItem(dialog, IDC_Q_STATUS)).rfind(L"Restored 1 file", 0) == 0; }))
      << broomtest::Narrow(WindowText(GetDlgItem(dialog, IDC_Q_STATUS)));
  EXPECT_EQ(ReadFile(file), "precious");
  EXPECT_TRUE(w.Rows(GetDlgItem(dialog, IDC_Q_LIST), 3).empty());  // an emptied quarantine goes
  PostMessageW(dialog, WM_COMMAND, IDCANCEL, 0);
  ASSERT_TRUE(WaitFor([&] { return !IsWindow(dialog); }));

  // Purge asks first (a box of the same title, owned by the dialog), then deletes.
  ASSERT_NO_FATAL_FAILURE(moveAside());
  w.Click(IDC_QUARANTINE);
  ASSERT_TRUE(WaitFor([&] { return (dialog = w.Find(L"#32770", L"Quarantine")) && IsWindowVisible(dialog); }));
  PostMessageW(GetDlgItem(dialog, IDC_Q_PURGE), BM_CLICK, 0, 0);
  ASSERT_TRUE(WaitFor([&] { return (question = w.Find(L"#32770", L"Quarantine", dialog)) && IsWindowVisible(question); }));
  PostMessageW(question, WM_COMMAND, IDYES, 0);
  ASSERT_TRUE(WaitFor([&] { return WindowText(GetDlgItem(dialog, IDC_Q_STATUS)).rfind(L"Deleted ", 0) == 0; }));
  EXPECT_TRUE(w.Rows(GetDlgItem(dialog, IDC_Q_LIST), 3).empty());
  EXPECT_TRUE(IsWindowEnabled(GetDlgItem(dialog, IDCANCEL)));
  PostMessageW(dialog, WM_COMMAND, IDCANCEL, 0);
}

// Ticked items of a running program: the window names the program with its
// items and offers to close it, to skip its items, or to cancel.
TEST_F(Window, AsksAboutRunningProgramsThenSkipsOrClosesThem) {
  const std::wstring root = m_dir.Path();
  WriteFile(m_dir / L"chrome\\a.tmp", 3000);
  WriteFile(m_dir / L"chrome\\b.tmp", 3000);
  WriteFile(m_dir / L"plain\\c.tmp", 100);
  std::wstring defs = Defs(m_dir, L"<group name=\"Demo\" scan=\"yes\" clean=\"yes\"><item name=\"Plain\">"
                                  L"<clean kind=\"file\">" + root + L"\\plain\\*</clean></item></group>\n");
  std::wstring ini = WriteFile(m_dir / L"winapp2.ini", broomtest::Narrow(L"[Google Chrome Cache *]\r\nSection=Google "
                                                                         L"Chrome\r\nFileKey1=" + root + L"\\chrome|*.*\r\n"));
  TempDir apps;
  broomtest::TestApp chrome(apps, L"chrome.exe", broomtest::AppMode::polite);
  CBroomw w({L"--defs", defs, L"--winapp2", ini, L"--no-log"}, m_dir / L"appdata");
  ASSERT_TRUE(w.Main());
  w.Tick(L"Google Chrome Cache");
  auto askAndChoose = [&](int button) {
    w.Click(IDC_SCAN);
    ASSERT_TRUE(WaitFor([&] { return w.Idle() && w.Status().rfind(L"Found", 0) == 0; })) << broomtest::Narrow(w.Status());
    w.Click(IDC_CLEAN);
    HWND running = nullptr, confirm = nullptr;
    ASSERT_TRUE(WaitFor([&] { return (running = w.Find(L"#32770", L"Programs are running")) && IsWindowVisible(running); }));
    EXPECT_EQ(WindowText(GetDlgItem(running, IDC_RUN_LIST)),
              L"Google Chrome (chrome.exe) is running (1 process) and holds:\r\n"
              L"    winapp2/Google Chrome/Google Chrome Cache\r\n");
    if (button == IDC_RUN_SKIP) Screenshot(running, L"running");
    PostMessageW(GetDlgItem(running, button), BM_CLICK, 0, 0);
    ASSERT_TRUE(WaitFor([&] { return (confirm = w.Find(L"#32770", L"Clean")) && IsWindowVisible(confirm); }));
    if (button == IDC_RUN_SKIP) {
      EXPECT_EQ(WindowText(GetDlgItem(confirm, IDC_CONFIRM_TEXT)), L"Delete 1 file (100 bytes) for good?");
    }
    PostMessageW(GetDlgItem(confirm, IDOK), BM_CLICK, 0, 0);
    ASSERT_TRUE(WaitFor([&] { return w.Idle() && w.Status().rfind(L"Cleaned", 0) == 0; })) << broomtest::Narrow(w.Status());
  };

  ASSERT_NO_FATAL_FAILURE(askAndChoose(IDC_RUN_SKIP));
  EXPECT_EQ(w.Status(), L"Cleaned 1 file, freed 100 bytes. 1 item was skipped (see Result).");
  EXPECT_FALSE(Exists(m_dir / L"plain\\c.tmp"));
  EXPECT_TRUE(Exists(m_dir / L"chrome\\a.tmp") && Exists(m_dir / L"chrome\\b.tmp"));
  std::vector<std::wstring> rows = w.Rows(IDC_FILES, 3);  // the largest item, selected
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0], root + L"\\chrome\\a.tmp|2.9 KB|skipped: Google Chrome was running");
  EXPECT_TRUE(chrome.Running());

  ASSERT_NO_FATAL_FAILURE(askAndChoose(IDC_RUN_CLOSE));
  EXPECT_TRUE(chrome.WaitEnded(5000));
  EXPECT_EQ(w.Status(), L"Cleaned 2 files, freed 5.9 KB.");
  EXPECT_FALSE(Exists(m_dir / L"chrome\\a.tmp") || Exists(m_dir / L"chrome\\b.tmp"));
}

// A window has no standard error: the files a load left out are named in a
// message, beside the error when nothing could be loaded.
TEST_F(Window, NamesTheDefinitionFilesItLeftOut) {
  for (bool good : {true, false}) {
    TempDir dir;
    if (good) Defs(dir, L"<group name=\"Demo\" scan=\"yes\"><item name=\"Backups\"><clean kind=\"file\">C:\\x\\*.bak</clean></item></group>\n");
    WriteFile(dir / L"defs\\broken.xml", "<ConfigItems><group name=\"G\">");
    CBroomw w({L"--defs", dir / L"defs", L"--no-log"}, dir / L"appdata", good);
    HWND box = nullptr;
    ASSERT_TRUE(WaitFor([&] { return (box = w.Find(L"#32770", L"Broom")) && IsWindowVisible(box); })) << good;
    const std::wstring text = WindowText(GetDlgItem(box, 0xFFFF));
    const size_t heading = text.find(good ? L"Some definitions could not be used:\n\nskipped " : L"could be read");
    EXPECT_TRUE(heading != std::wstring::npos && text.find(L"broken.xml", heading) != std::wstring::npos) << broomtest::Narrow(text);
    PostMessageW(box, WM_COMMAND, IDOK, 0);
    if (good) EXPECT_EQ(w.State(L"Backups"), 2);  // the sound file is loaded all the same
    else EXPECT_EQ(WaitForSingleObject(w.Process(), 20000), WAIT_OBJECT_0);
  }
}

// A new user's texts: the item's own name first with its group in a column,
// a long path's file name kept, the status on lines that wrap, remembered
// definitions forgotten from the window, and a start-up note shown once.
TEST_F(Window, ShowsOwnNamesAndFileNamesForgetsSourcesAndNotesOnce) {
  const std::wstring deep = m_dir / (L"cache\\" + std::wstring(60, L'a') + L"\\" + std::wstring(60, L'b') + L"\\" +
                                     std::wstring(60, L'c'));
  WriteFile(deep + L"\\the-file-name.tmp", 100);
  std::wstring defs = Defs(m_dir, L"<group name=\"Demo\" scan=\"no\"><item name=\"Backups\"><clean kind=\"file\">"
                                  L"C:\\x\\*.bak</clean></item></group>\n");
  const std::wstring ini = WriteFile(m_dir / L"w.ini", broomtest::Narrow(
      L"[Long Cache *]\r\nLangSecRef=3021\r\nFileKey1=" + m_dir / L"cache" + L"|*.tmp|RECURSE\r\nFileKey2=bad\r\n"));
  const std::vector<std::wstring> args = {L"--defs", defs, L"--winapp2", ini, L"--no-log"};
  {
    CBroomw w(args, m_dir / L"appdata");
    ASSERT_TRUE(w.Main());
    HWND box = nullptr;  // the skipped line, noted once
    ASSERT_TRUE(WaitFor([&] { return (box = w.Find(L"#32770", L"Broom")) && IsWindowVisible(box); }));
    PostMessageW(box, WM_COMMAND, IDOK, 0);
    w.Tick(L"Long Cache");
    w.Click(IDC_SCAN);
    ASSERT_TRUE(WaitFor([&] { return w.Idle() && w.Status().rfind(L"Found", 0) == 0; })) << broomtest::Narrow(w.Status());
    std::vector<std::wstring> rows = w.Rows(IDC_RESULTS, 5);
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0], L"Long Cache|1|100 bytes||winapp2/Applications");
    const std::wstring file = w.Rows(IDC_FILES, 1).at(0);
    EXPECT_NE(file.find(L"..."), std::wstring::npos) << broomtest::Narrow(file);
    EXPECT_EQ(file.substr(file.size() - 18), L"\\the-file-name.tmp");
    RECT status, folder;
    GetWindowRect(w.Control(IDC_STATUS), &status);
    GetWindowRect(w.Control(IDC_FOLDER), &folder);
    EXPECT_GE(status.bottom - status.top, 2 * (folder.bottom - folder.top));
    EXPECT_EQ(GetWindowLongW(w.Control(IDC_STATUS), GWL_STYLE) & SS_ENDELLIPSIS, 0);
  }
  {
    // the same note again: no box (it would be up before the scan could run)
    CBroomw w({}, m_dir / L"appdata");
    ASSERT_TRUE(w.Main());
    w.Tick(L"Long Cache");
    w.Click(IDC_SCAN);
    ASSERT_TRUE(WaitFor([&] { return w.Idle() && w.Status().rfind(L"Found", 0) == 0; })) << broomtest::Narrow(w.Status());
    EXPECT_EQ(w.Find(L"#32770", L"Broom"), nullptr);

    PostMessageW(w.Main(), WM_SYSCOMMAND, IDM_FORGET_SOURCES, 0);
    HWND question = nullptr;
    ASSERT_TRUE(WaitFor([&] { return (question = w.Find(L"#32770", L"Broom")) && IsWindowVisible(question); }));
    EXPECT_NE(WindowText(GetDlgItem(question, 0xFFFF)).find(ini), std::wstring::npos);
    PostMessageW(question, WM_COMMAND, IDYES, 0);
    ASSERT_TRUE(WaitFor([&] { return w.Status().find(L"forgotten") != std::wstring::npos; }));
  }
  wchar_t data[1024] = {};
  DWORD size = sizeof data;
  EXPECT_EQ(RegGetValueW(HKEY_CURRENT_USER, L"SOFTWARE\\Broom\\Engine", L"WindowWinapp2Files", RRF_RT_REG_MULTI_SZ,
                         nullptr, data, &size), ERROR_SUCCESS);
  EXPECT_EQ(data[0], L'\0');
}

}  // namespace

// The organisation's policies, written to this prefix's machine key for one
// test: what they switch off is greyed with the reason, and the quarantine
// they force is ticked and cannot be unticked.
TEST_F(Window, GreysWhatThePoliciesSetAndSaysWhy) {
  const std::wstring root = m_dir.Path();
  WriteFile(m_dir / L"a\\one.tmp", 8);
  WriteFile(m_dir / L"b\\two.tmp", 8);
  std::wstring defs = Defs(m_dir,
      L"<group name=\"Demo\" order=\"1\" scan=\"yes\" clean=\"yes\">\n"
      L" <item name=\"Kept\"><clean kind=\"file\">" + root + L"\\a\\*</clean></item>\n"
      L" <item name=\"Moved\"><clean kind=\"file\">" + root + L"\\b\\*</clean></item>\n"
      L"</group>\n");
  const wchar_t key[] = L"SOFTWARE\\Policies\\Broom";
  broom::unique_hkey policies;
  ASSERT_EQ(0, RegCreateKeyExW(HKEY_LOCAL_MACHINE, key, 0, nullptr, 0, KEY_SET_VALUE, nullptr, policies.addressof(), nullptr));
  auto removePolicies = broom::scope_exit([&] { RegDeleteTreeW(HKEY_LOCAL_MACHINE, key); });
  const wchar_t disabled[] = L"Demo/Kept\0";
  RegSetValueExW(policies.get(), L"DisabledItems", 0, REG_MULTI_SZ, reinterpret_cast<const BYTE*>(disabled), sizeof disabled);
  DWORD on = 1;
  RegSetValueExW(policies.get(), L"AlwaysQuarantine", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&on), sizeof on);

  CBroomw w({L"--defs", defs, L"--no-log"}, m_dir / L"appdata");
  ASSERT_TRUE(w.Main());
  const std::wstring kept = L"Kept  (Set by your organisation)";
  EXPECT_EQ(w.State(kept), 4);
  w.Tick(kept);  // cannot be ticked
  EXPECT_EQ(w.State(kept), 4);
  EXPECT_EQ(w.State(L"Moved"), 2);
  for (const auto& n : w.Tree())
    if (n.text == kept) SendMessageW(w.Control(IDC_TREE), TVM_SELECTITEM, TVGN_CARET, reinterpret_cast<LPARAM>(n.handle));
  EXPECT_TRUE(WaitFor([&] {
    // the policy's reason first, then what the item costs
    return WindowText(w.Control(IDC_DESCRIPTION))
               .rfind(L"Set by your organisation: switched off by your organisation (DisabledItems).\r\nCosts: ", 0) == 0;
  })) << broomtest::Narrow(WindowText(w.Control(IDC_DESCRIPTION)));

  w.Click(IDC_SCAN);
  ASSERT_TRUE(WaitFor([&] { return w.Idle() && w.Status().rfind(L"Found", 0) == 0; })) << broomtest::Narrow(w.Status());
  w.Click(IDC_CLEAN);
  HWND confirm = nullptr;
  ASSERT_TRUE(WaitFor([&] { return (confirm = w.Find(L"#32770", L"Clean")) && IsWindowVisible(confirm); }));
  HWND box = GetDlgItem(confirm, IDC_CONFIRM_QUARANTINE);
  EXPECT_EQ(BST_CHECKED, SendMessageW(box, BM_GETCHECK, 0, 0));
  EXPECT_FALSE(IsWindowEnabled(box));
  EXPECT_EQ(WindowText(box), L"Move to quarantine (Set by your organisation)");
  Screenshot(confirm, L"confirmation-policy");
  PostMessageW(GetDlgItem(confirm, IDOK), BM_CLICK, 0, 0);
  ASSERT_TRUE(WaitFor([&] { return w.Idle() && w.Status() == L"Moved 1 file (8 bytes) to the quarantine."; }))
      << broomtest::Narrow(w.Status());
  EXPECT_TRUE(Exists(m_dir / L"a\\one.tmp"));
  EXPECT_FALSE(Exists(m_dir / L"b\\two.tmp"));
}
