// A program for the running-program tests, copied under the names the
// definitions use (chrome.exe, firefox.exe) and started by them. It opens
// one top-level window and runs until that window is closed:
//   (no argument)    shows the window and ends on WM_CLOSE, as a browser does
//   --ignore-close   shows the window and ignores WM_CLOSE
//   --hidden         keeps its window hidden, so nobody can ask it to close
//   --ready NAME     sets the event NAME once its window is made
// Whatever happens to the test, it ends by itself after two minutes.
#include <windows.h>

namespace {

bool g_ignoreClose = false;
const UINT_PTR kLifetimeTimer = 1;

LRESULT CALLBACK WindowProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
  switch (message) {
    case WM_CLOSE:
      if (g_ignoreClose) return 0;
      DestroyWindow(window);
      return 0;
    case WM_TIMER:
      if (wParam == kLifetimeTimer) DestroyWindow(window);
      return 0;
    case WM_DESTROY:
      PostQuitMessage(0);
      return 0;
  }
  return DefWindowProcW(window, message, wParam, lParam);
}

// Where argument starts in the command line (as a word of its own), or null.
const wchar_t* FindArgument(const wchar_t* commandLine, const wchar_t* argument) {
  int length = lstrlenW(argument);
  for (const wchar_t* p = commandLine; *p; ++p)
    if (CompareStringOrdinal(p, length, argument, length, FALSE) == CSTR_EQUAL && (p[length] == 0 || p[length] == L' '))
      return p;
  return nullptr;
}

// Tells the test that started it that the window is made (an event, not
// WaitForInputIdle: Wine keeps a handle open in the caller for every such wait).
void SignalReady(const wchar_t* commandLine) {
  const wchar_t* ready = FindArgument(commandLine, L"--ready");
  if (!ready) return;
  wchar_t name[128] = {};
  const wchar_t* from = ready + lstrlenW(L"--ready");
  while (*from == L' ') ++from;
  for (int i = 0; i < 127 && from[i] && from[i] != L' '; ++i) name[i] = from[i];
  HANDLE event = OpenEventW(EVENT_MODIFY_STATE, FALSE, name);
  if (!event) return;
  SetEvent(event);
  CloseHandle(event);
}

}  // namespace

int WINAPI wWinMain(HINSTANCE instance, HINSTANCE, PWSTR commandLine, int) {
  g_ignoreClose = FindArgument(commandLine, L"--ignore-close") != nullptr;
  bool hidden = FindArgument(commandLine, L"--hidden") != nullptr;

  WNDCLASSW windowClass = {};
  windowClass.lpfnWndProc = WindowProc;
  windowClass.hInstance = instance;
  windowClass.lpszClassName = L"BroomTestApp";
  if (!RegisterClassW(&windowClass)) return 2;
  HWND window = CreateWindowW(L"BroomTestApp", L"Broom test program", WS_OVERLAPPEDWINDOW, 0, 0, 320, 200, nullptr,
                              nullptr, instance, nullptr);
  if (!window) return 3;
  if (!hidden) ShowWindow(window, SW_SHOWNOACTIVATE);
  SetTimer(window, kLifetimeTimer, 120000, nullptr);
  SignalReady(commandLine);

  MSG message;
  while (GetMessageW(&message, nullptr, 0, 0) > 0) {
    TranslateMessage(&message);
    DispatchMessageW(&message);
  }
  return 0;
}
