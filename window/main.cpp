// broomw.exe: the window host of the cleaning engine.
#include <windows.h>
#include <commctrl.h>
#include <objbase.h>
#include <shellapi.h>

#include <string>
#include <vector>

#include "app/PolicySchedule.h"
#include "app/Text.h"
#include "app/Winapp2Files.h"
#include "core/Handles.h"
#include "threads/MsgThreadSTA.h"
#include "window/MainWindow.h"
#include "window/WindowSettings.h"

#ifndef BROOM_VERSION
#define BROOM_VERSION "0.0.0"
#endif

namespace {

const wchar_t kUsage[] =
    L"broomw [--defs DIR]... [--winapp2 FILE]... [--no-winapp2] [--no-log]\n\n"
    L"--defs DIR\tA folder of definition files (repeatable; default: defs beside broomw.exe)\n"
    L"--winapp2 FILE\tA winapp2.ini file whose entries join the definitions (repeatable)\n"
    L"--no-winapp2\tLeave out the bundled winapp2.ini (the data folder's copy, else winapp2 beside broomw.exe)\n"
    L"--no-log\tDo not write scan logs\n\n"
    L"The folders and files given are remembered for the next start without them.";

struct SArguments {
  broomw::SSources sources;
  bool given = false;  // --defs or --winapp2 on the command line
  bool noLog = false;
  bool noWinapp2 = false;
};

// Throws CHostError for what cannot be used.
SArguments Parse() {
  SArguments args;
  int argc = 0;
  broom::unique_hlocal hold(CommandLineToArgvW(GetCommandLineW(), &argc));
  auto** argv = static_cast<wchar_t**>(hold.get());
  for (int i = 1; argv && i < argc; ++i) {
    std::wstring arg = argv[i];
    if (arg == L"--defs" || arg == L"--winapp2") {
      if (i + 1 >= argc) throw host::CHostError{host::exitUsage, arg + L" needs a value"};
      (arg == L"--defs" ? args.sources.defs : args.sources.winapp2).push_back(host::FullPath(argv[++i]));
      args.given = true;
    } else if (arg == L"--no-winapp2") {
      args.noWinapp2 = true;
    } else if (arg == L"--no-log") {
      args.noLog = true;
    } else if (arg == L"--help" || arg == L"-h" || arg == L"/?") {
      throw host::CHostError{host::exitOk, kUsage};
    } else if (arg == L"--version") {
      throw host::CHostError{host::exitOk, L"broomw " BROOM_VERSION};
    } else {
      throw host::CHostError{host::exitUsage, L"unknown argument " + host::Quoted(arg) + L"\n\n" + kUsage};
    }
  }
  return args;
}

// The sources of an earlier start, without those that have gone since.
broomw::SSources Remembered(std::vector<std::wstring>& dropped) {
  broomw::SSources sources = broomw::LoadSources();
  auto keep = [&](std::vector<std::wstring>& list, bool folders) {
    std::vector<std::wstring> kept;
    for (const std::wstring& path : list) {
      DWORD attributes = GetFileAttributesW(path.c_str());
      bool there = attributes != INVALID_FILE_ATTRIBUTES && ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) == folders;
      (there ? kept : dropped).push_back(path);
    }
    list = kept;
  };
  keep(sources.defs, true);
  keep(sources.winapp2, false);
  return sources;
}

// The notes of what a load left out, one per line, the first few of many.
std::wstring Listed(const std::vector<std::wstring>& notes) {
  constexpr size_t kShown = 12;
  std::wstring text;
  for (size_t i = 0; i < notes.size() && i < kShown; ++i) text += L"\n" + host::Printable(notes[i]);
  if (notes.size() > kShown) text += L"\nand " + host::FormatCount(notes.size() - kShown) + L" more";
  return text;
}

int Run(int show) {
  SArguments args = Parse();
  std::vector<std::wstring> dropped;
  broomw::SSources sources = args.given ? args.sources : Remembered(dropped);
  if (args.given) broomw::SaveSources(sources);

  host::CSession session;
  session.Start(args.noLog);
  std::vector<std::wstring> folders = sources.defs;
  if (folders.empty()) folders.push_back(host::ExeFolder() + L"\\defs");
  // A window has no standard error: what was left out is shown with the
  // error that ends the start, or once the window is up.
  try {
    session.LoadDefinitions(folders);
    if (!args.noWinapp2) host::LoadBundledWinapp2(session, sources.winapp2);
    session.LoadWinapp2Files(sources.winapp2);
    session.ApplyPolicies();
  } catch (host::CHostError& e) {
    std::vector<std::wstring> notes = session.TakeLoadNotes();
    if (!notes.empty()) e.message += L"\n" + Listed(notes);
    throw;
  }
  std::vector<std::wstring> leftOut = session.TakeLoadNotes();
  // An installed Broom keeps the scheduled clean a machine policy asks for.
  std::wstring scheduleNote = host::KeepPolicySchedule(session.Policies());
  if (!scheduleNote.empty()) leftOut.push_back(scheduleNote);

  std::wstring whiteListError;
  try {
    session.LoadWhiteList();
  } catch (const host::CHostError& e) {
    whiteListError = e.message;
  }
  broomw::CMainWindow window(session, whiteListError);
  if (!window.Create(show)) throw host::CHostError{host::exitUsage, L"the window could not be created"};
  std::wstring text;
  if (!dropped.empty()) {
    text = L"These definitions from an earlier start are gone and were left out:\n";
    for (const std::wstring& path : dropped) text += L"\n" + path;
  }
  if (!leftOut.empty())
    text += (text.empty() ? L"" : L"\n\n") + std::wstring(L"Some definitions could not be used:\n") + Listed(leftOut);
  if (!text.empty() && broomw::NoticeIsNew(text))
    MessageBoxW(nullptr, (text + L"\n\nThis note is shown again only when it changes.").c_str(), L"Broom",
                MB_OK | MB_ICONINFORMATION);
  MSG message;
  while (GetMessageW(&message, nullptr, 0, 0) > 0) {
    if (window.PreTranslate(message)) continue;
    TranslateMessage(&message);
    DispatchMessageW(&message);
  }
  return host::exitOk;
}

}  // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, PWSTR, int show) {
  INITCOMMONCONTROLSEX controls = {sizeof controls,
                                   ICC_TREEVIEW_CLASSES | ICC_LISTVIEW_CLASSES | ICC_PROGRESS_CLASS | ICC_STANDARD_CLASSES};
  InitCommonControlsEx(&controls);
  // The folder picker, and cleaning's fallback server, need COM on this thread.
  HRESULT hr = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  int code = host::exitUsage;
  {
    broom::unique_couninitialize com(SUCCEEDED(hr));
    try {
      code = Run(show);
    } catch (const host::CHostError& e) {
      MessageBoxW(nullptr, e.message.c_str(), L"Broom",
                  MB_OK | (e.code == host::exitOk ? MB_ICONINFORMATION : MB_ICONERROR));
      code = e.code;
    } catch (const std::exception& e) {
      MessageBoxW(nullptr, host::Printable(host::Wide(e.what())).c_str(), L"Broom", MB_OK | MB_ICONERROR);
    }
    if (CXmlConfigGlobal::IsRunning()) CXmlConfigGlobal::Shutdown();
  }
  return code;
}
