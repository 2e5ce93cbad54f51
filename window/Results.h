#pragma once
// The results of a scan: a sortable list of items (files, size, notes), the
// files of the selected item in a second list, a bar per category showing
// where the space goes. Both lists are virtual, so an item with 100,000
// files costs no more to show than one with ten.
#include <windows.h>
#include <commctrl.h>

#include <string>
#include <vector>

#include "app/Session.h"
#include "window/Worker.h"

namespace broomw {

class CResultsView {
 public:
  void Create(HWND parent);
  HWND List() const { return m_list; }
  HWND Files() const { return m_files; }
  HWND Bars() const { return m_bars; }
  void SetDpi(int dpi);

  // Shows results (kept by the caller while shown) with the guard's
  // verdicts and, after a clean, what became of each hit; null results clear
  // the view.
  void Show(const host::SScanResults* results, const SCleanOutcome* outcome);
  bool OnNotify(NMHDR* header, LRESULT& result);

 private:
  struct SCategory {
    std::wstring name;
    unsigned __int64 bytes = 0, files = 0;
  };
  static LRESULT CALLBACK BarsProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam);
  void PaintBars(HDC dc, const RECT& area) const;
  void Sort();
  void ShowFiles(int row);
  std::wstring ListText(int row, int column) const;
  std::wstring FileText(int row, int column) const;
  // A path as wide as the file column, its middle elided.
  std::wstring Elided(const std::wstring& path) const;

  HWND m_list = nullptr, m_files = nullptr, m_bars = nullptr;
  int m_dpi = 96;
  HFONT m_font = nullptr;  // the window's, given with WM_SETFONT
  const host::SScanResults* m_results = nullptr;
  const SCleanOutcome* m_outcome = nullptr;
  std::vector<size_t> m_order;  // rows of the item list, as sorted
  int m_sortColumn = 2;         // by size, largest first
  bool m_descending = true;
  size_t m_shown = SIZE_MAX;    // the item whose files are listed
  std::vector<SCategory> m_categories;
};

}  // namespace broomw
