#pragma once
// broomw.exe's main window: the tree of items to tick, Scan and Stop, the
// results with their bars, Clean, and the Protected and Quarantine dialogs.
// Scans and cleans run on the worker thread; this thread only draws.
#include <windows.h>

#include <memory>
#include <string>

#include "app/Session.h"
#include "window/Gdi.h"
#include "window/ItemTree.h"
#include "window/Results.h"
#include "window/Worker.h"

namespace broomw {

constexpr wchar_t kMainWindowClass[] = L"BroomMainWindow";

class CMainWindow {
 public:
  // whiteListError: why the protected paths could not be loaded (scanning
  // and cleaning then stay off), empty when they were.
  CMainWindow(host::CSession& session, std::wstring whiteListError);
  ~CMainWindow();
  CMainWindow(const CMainWindow&) = delete;
  CMainWindow& operator=(const CMainWindow&) = delete;

  bool Create(int show);
  // Accelerators and Tab between the controls; true when the message was used.
  bool PreTranslate(MSG& message);

 private:
  static LRESULT CALLBACK Proc(HWND window, UINT message, WPARAM wParam, LPARAM lParam);
  LRESULT Handle(UINT message, WPARAM wParam, LPARAM lParam);
  void OnCreate();
  void ApplyDpi(int dpi);
  void Layout();
  void OnCommand(int id);
  void OnScan();
  void OnClean();
  void OnProtected();
  void OnForgetSources();
  void OnQuarantine();
  void OnProgress();
  void OnDone(EJob job);
  void UpdateButtons();
  void SetText(int id, const std::wstring& text);
  HWND Control(int id) const { return GetDlgItem(m_window, id); }

  host::CSession& m_session;
  std::wstring m_whiteListError;
  HWND m_window = nullptr;
  HACCEL m_accelerators = nullptr;
  int m_dpi = 96;
  unique_gdiobj m_font;
  CItemTree m_tree;
  CResultsView m_view;
  std::unique_ptr<CWorker> m_worker;
  std::unique_ptr<host::SScanResults> m_results;
  host::SGuardSummary m_guard;
  std::unique_ptr<SCleanOutcome> m_outcome;
};

}  // namespace broomw
