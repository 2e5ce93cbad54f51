#include "window/Results.h"

#include <shlwapi.h>

#include <algorithm>

#include "app/Text.h"
#include "core/Names.h"
#include "window/Gdi.h"
#include "window/Resource.h"

namespace broomw {

namespace {

const wchar_t kBarsClass[] = L"BroomCategoryBars";

HWND MakeList(HWND parent, int id, const wchar_t* title) {
  HWND list = CreateWindowExW(WS_EX_CLIENTEDGE, WC_LISTVIEWW, title,
                              WS_CHILD | WS_VISIBLE | WS_TABSTOP | LVS_REPORT | LVS_OWNERDATA | LVS_SHOWSELALWAYS |
                                  LVS_SINGLESEL,
                              0, 0, 10, 10, parent, reinterpret_cast<HMENU>(static_cast<INT_PTR>(id)),
                              GetModuleHandleW(nullptr), nullptr);
  ListView_SetExtendedListViewStyle(list, LVS_EX_FULLROWSELECT | LVS_EX_DOUBLEBUFFER | LVS_EX_INFOTIP);
  return list;
}

void AddColumns(HWND list, std::initializer_list<std::pair<const wchar_t*, bool>> columns) {
  int i = 0;
  for (const auto& c : columns) {
    LVCOLUMNW column = {};
    column.mask = LVCF_TEXT | LVCF_FMT | LVCF_WIDTH;
    column.fmt = c.second ? LVCFMT_RIGHT : LVCFMT_LEFT;
    column.cx = 100;
    column.pszText = const_cast<wchar_t*>(c.first);
    ListView_InsertColumn(list, i++, &column);
  }
}

std::wstring ItemNote(const host::SItemResult& r, const std::vector<std::wstring>* outcome) {
  std::wstring note = r.refusal.empty() ? std::wstring() : L"refused: " + r.refusal;
  for (const std::wstring& e : r.errors) note += (note.empty() ? L"" : L"; ") + e;
  for (const std::wstring& n : r.notes) note += (note.empty() ? L"" : L"; ") + n;
  if (outcome) {
    size_t failed = 0, done = 0;
    for (const std::wstring& o : *outcome)
      if (o == L"cleaned" || o == L"moved to quarantine")
        ++done;
      else if (!o.empty() && o.rfind(L"refused", 0) != 0)
        ++failed;
    if (done || failed)
      note = host::FormatCount(done) + L" done" + (failed ? L", " + host::FormatCount(failed) + L" failed" : L"") +
             (note.empty() ? L"" : L"; " + note);
  }
  return note;
}

}  // namespace

void CResultsView::Create(HWND parent) {
  m_list = MakeList(parent, IDC_RESULTS, L"Results");
  // the item's own name first; its group, which many items share, last
  AddColumns(m_list, {{L"Item", false}, {L"Files", true}, {L"Size", true}, {L"Note", false}, {L"Group", false}});
  m_files = MakeList(parent, IDC_FILES, L"Files");
  AddColumns(m_files, {{L"File", false}, {L"Size", true}, {L"Result", false}});

  WNDCLASSEXW wc = {};
  wc.cbSize = sizeof wc;
  if (!GetClassInfoExW(GetModuleHandleW(nullptr), kBarsClass, &wc)) {
    wc.lpfnWndProc = BarsProc;
    wc.hInstance = GetModuleHandleW(nullptr);
    wc.hCursor = LoadCursorW(nullptr, IDC_ARROW);
    wc.hbrBackground = GetSysColorBrush(COLOR_WINDOW);
    wc.lpszClassName = kBarsClass;
    RegisterClassExW(&wc);
  }
  m_bars = CreateWindowExW(WS_EX_CLIENTEDGE, kBarsClass, L"Categories", WS_CHILD | WS_VISIBLE, 0, 0, 10, 10, parent,
                           reinterpret_cast<HMENU>(static_cast<INT_PTR>(IDC_BARS)), GetModuleHandleW(nullptr), this);
  SetWindowLongPtrW(m_bars, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
}

void CResultsView::SetDpi(int dpi) {
  m_dpi = dpi;
  const int list[] = {200, 70, 80, 200, 260}, files[] = {420, 80, 220};
  for (int i = 0; i < 5; ++i) ListView_SetColumnWidth(m_list, i, Scale(list[i], dpi));
  for (int i = 0; i < 3; ++i) ListView_SetColumnWidth(m_files, i, Scale(files[i], dpi));
  InvalidateRect(m_bars, nullptr, TRUE);
}

void CResultsView::Show(const host::SScanResults* results, const SCleanOutcome* outcome) {
  m_results = results;
  m_outcome = outcome;
  m_order.clear();
  m_categories.clear();
  if (results) {
    for (size_t i = 0; i < results->items.size(); ++i) {
      const host::SItemResult& r = results->items[i];
      if (!r.item.group && r.errors.empty()) continue;
      m_order.push_back(i);
      std::wstring category = r.item.path.substr(0, r.item.path.find(L'/'));
      auto c = std::find_if(m_categories.begin(), m_categories.end(),
                            [&](const SCategory& s) { return s.name == category; });
      if (c == m_categories.end()) c = m_categories.insert(m_categories.end(), SCategory{category});
      c->bytes += r.size;
      c->files += r.files;
    }
    std::stable_sort(m_categories.begin(), m_categories.end(),
                     [](const SCategory& a, const SCategory& b) { return a.bytes > b.bytes; });
  }
  size_t keep = m_shown;
  Sort();
  ListView_SetItemCountEx(m_list, static_cast<int>(m_order.size()), 0);
  m_shown = SIZE_MAX;
  int row = 0;
  for (size_t i = 0; i < m_order.size(); ++i)
    if (m_order[i] == keep) row = static_cast<int>(i);
  if (!m_order.empty()) {
    // the selection lists the row's files; a new count costs Wine's list
    // control time in proportion to it, so it is set once
    ListView_SetItemState(m_list, row, LVIS_SELECTED | LVIS_FOCUSED, LVIS_SELECTED | LVIS_FOCUSED);
    if (m_shown != m_order[static_cast<size_t>(row)]) ShowFiles(row);
  } else {
    ListView_SetItemCountEx(m_files, 0, 0);
  }
  InvalidateRect(m_list, nullptr, TRUE);
  InvalidateRect(m_files, nullptr, TRUE);
  InvalidateRect(m_bars, nullptr, TRUE);
}

void CResultsView::Sort() {
  if (!m_results) return;
  const auto& items = m_results->items;
  auto key = [&](size_t a, size_t b) {
    const host::SItemResult &x = items[a], &y = items[b];
    switch (m_sortColumn) {
      case 1:
        return x.files < y.files;
      case 2:
        return x.size < y.size;
      default: {
        const int byName = x.item.group && y.item.group
                               ? broom::CompareNoCase(x.item.group->GetName(), y.item.group->GetName())
                               : 0;
        return byName ? byName < 0 : broom::CompareNoCase(x.item.path.c_str(), y.item.path.c_str()) < 0;
      }
    }
  };
  std::stable_sort(m_order.begin(), m_order.end(),
                   [&](size_t a, size_t b) { return m_descending ? key(b, a) : key(a, b); });
}

void CResultsView::ShowFiles(int row) {
  m_shown = row >= 0 && static_cast<size_t>(row) < m_order.size() ? m_order[static_cast<size_t>(row)] : SIZE_MAX;
  size_t count = m_shown == SIZE_MAX ? 0 : m_results->items[m_shown].hits.size();
  ListView_SetItemCountEx(m_files, static_cast<int>(count), LVSICF_NOSCROLL);
  InvalidateRect(m_files, nullptr, TRUE);
}

std::wstring CResultsView::ListText(int row, int column) const {
  if (!m_results || row < 0 || static_cast<size_t>(row) >= m_order.size()) return std::wstring();
  size_t index = m_order[static_cast<size_t>(row)];
  const host::SItemResult& r = m_results->items[index];
  switch (column) {
    case 0:
      return r.item.group ? std::wstring(r.item.group->GetName()) : r.item.path;
    case 4: {
      if (!r.item.group) return std::wstring();
      const std::wstring name = r.item.group->GetName();
      return r.item.path.size() > name.size() ? r.item.path.substr(0, r.item.path.size() - name.size() - 1)
                                              : std::wstring();
    }
    case 1:
      return host::FormatCount(r.files);
    case 2:
      return host::FormatSize(r.size);
    default:
      return ItemNote(r, m_outcome && index < m_outcome->outcome.size() ? &m_outcome->outcome[index] : nullptr);
  }
}

std::wstring CResultsView::FileText(int row, int column) const {
  if (m_shown == SIZE_MAX || row < 0) return std::wstring();
  const auto& hits = m_results->items[m_shown].hits;
  if (static_cast<size_t>(row) >= hits.size()) return std::wstring();
  const host::SHit& hit = hits[static_cast<size_t>(row)];
  switch (column) {
    case 0:
      return hit.path;
    case 1:
      return host::FormatSize(hit.size);
    default:
      if (m_outcome && m_shown < m_outcome->outcome.size() && static_cast<size_t>(row) < m_outcome->outcome[m_shown].size())
        return m_outcome->outcome[m_shown][static_cast<size_t>(row)];
      if (!m_results->items[m_shown].refusal.empty()) return L"refused: " + m_results->items[m_shown].refusal;
      if (!hit.refusal.IsEmpty()) return L"refused: " + std::wstring(hit.refusal.GetString());
      if (!hit.userFolder.IsEmpty()) return L"in your " + std::wstring(hit.userFolder.GetString()) + L" folder";
      return std::wstring();
  }
}

std::wstring CResultsView::Elided(const std::wstring& path) const {
  // The list would cut the end, the file's name; the middle goes instead.
  const int width = ListView_GetColumnWidth(m_files, 0) - Scale(12, m_dpi);
  if (width <= 0 || path.size() >= MAX_PATH) return path;
  HDC dc = GetDC(m_files);
  if (!dc) return path;
  HGDIOBJ old = SelectObject(dc, reinterpret_cast<HFONT>(SendMessageW(m_files, WM_GETFONT, 0, 0)));
  wchar_t buffer[MAX_PATH + 1];
  lstrcpynW(buffer, path.c_str(), MAX_PATH + 1);
  PathCompactPathW(dc, buffer, static_cast<UINT>(width));
  SelectObject(dc, old);
  ReleaseDC(m_files, dc);
  return buffer;
}

bool CResultsView::OnNotify(NMHDR* header, LRESULT& result) {
  if (header->hwndFrom != m_list && header->hwndFrom != m_files) return false;
  switch (header->code) {
    case LVN_GETDISPINFOW: {
      auto* info = reinterpret_cast<NMLVDISPINFOW*>(header);
      if (!(info->item.mask & LVIF_TEXT) || !info->item.pszText || info->item.cchTextMax <= 0) return true;
      std::wstring text = header->hwndFrom == m_list ? ListText(info->item.iItem, info->item.iSubItem)
                                                     : FileText(info->item.iItem, info->item.iSubItem);
      if (header->hwndFrom == m_files && info->item.iSubItem == 0) text = Elided(text);
      lstrcpynW(info->item.pszText, text.c_str(), info->item.cchTextMax);
      result = 0;
      return true;
    }
    case LVN_GETINFOTIPW: {
      // the whole text: an item's path with its group, a file's path uncut
      auto* tip = reinterpret_cast<NMLVGETINFOTIPW*>(header);
      if (!tip->pszText || tip->cchTextMax <= 0 || tip->iItem < 0) return true;
      std::wstring text;
      if (header->hwndFrom == m_files) {
        text = FileText(tip->iItem, 0);
      } else if (m_results && static_cast<size_t>(tip->iItem) < m_order.size()) {
        text = m_results->items[m_order[static_cast<size_t>(tip->iItem)]].item.path;
      }
      lstrcpynW(tip->pszText, text.c_str(), tip->cchTextMax);
      return true;
    }
    case LVN_COLUMNCLICK: {
      if (header->hwndFrom != m_list) return false;
      int column = reinterpret_cast<NMLISTVIEW*>(header)->iSubItem;
      if (column > 2) return true;  // the note and the group are not sorted
      // a new column starts with its natural order: names up, numbers down
      m_descending = column == m_sortColumn ? !m_descending : column != 0;
      m_sortColumn = column;
      size_t shown = m_shown;
      Sort();
      for (size_t i = 0; i < m_order.size(); ++i)
        if (m_order[i] == shown) {
          ListView_SetItemState(m_list, -1, 0, LVIS_SELECTED | LVIS_FOCUSED);
          ListView_SetItemState(m_list, static_cast<int>(i), LVIS_SELECTED | LVIS_FOCUSED, LVIS_SELECTED | LVIS_FOCUSED);
          ListView_EnsureVisible(m_list, static_cast<int>(i), FALSE);
        }
      InvalidateRect(m_list, nullptr, TRUE);
      return true;
    }
    case LVN_ITEMCHANGED: {
      auto* change = reinterpret_cast<NMLISTVIEW*>(header);
      if (header->hwndFrom == m_list && (change->uNewState & LVIS_SELECTED) && change->iItem >= 0)
        ShowFiles(change->iItem);
      return true;
    }
  }
  return false;
}

LRESULT CALLBACK CResultsView::BarsProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
  auto* view = reinterpret_cast<CResultsView*>(GetWindowLongPtrW(window, GWLP_USERDATA));
  if (message == WM_SETFONT && view) {
    view->m_font = reinterpret_cast<HFONT>(wParam);
    return 0;
  }
  if (message == WM_PAINT) {
    PAINTSTRUCT paint;
    HDC dc = BeginPaint(window, &paint);
    RECT area;
    GetClientRect(window, &area);
    if (view) view->PaintBars(dc, area);
    EndPaint(window, &paint);
    return 0;
  }
  return DefWindowProcW(window, message, wParam, lParam);
}

void CResultsView::PaintBars(HDC dc, const RECT& area) const {
  HGDIOBJ oldFont = SelectObject(dc, m_font ? m_font : GetStockObject(DEFAULT_GUI_FONT));
  SetBkMode(dc, TRANSPARENT);
  SetTextColor(dc, GetSysColor(COLOR_WINDOWTEXT));
  const int pad = Scale(4, m_dpi), row = Scale(20, m_dpi);
  const int width = area.right - area.left;
  const int nameWidth = width / 4, sizeWidth = Scale(150, m_dpi);
  unsigned __int64 total = 0;
  for (const SCategory& c : m_categories) total += c.bytes;
  if (m_categories.empty()) {
    RECT text = {pad, pad, area.right - pad, area.bottom - pad};
    DrawTextW(dc, L"Where the space goes: scan to see.", -1, &text, DT_LEFT | DT_SINGLELINE | DT_NOPREFIX);
  }
  int y = pad;
  for (const SCategory& c : m_categories) {
    if (y + row > area.bottom) break;
    RECT name = {pad, y, pad + nameWidth - pad, y + row};
    DrawTextW(dc, c.name.c_str(), -1, &name, DT_LEFT | DT_VCENTER | DT_SINGLELINE | DT_END_ELLIPSIS | DT_NOPREFIX);
    const int barLeft = pad + nameWidth, barRight = area.right - pad - sizeWidth;
    RECT track = {barLeft, y + row / 5, barRight, y + row - row / 5};
    FrameRect(dc, &track, GetSysColorBrush(COLOR_BTNSHADOW));
    if (total && barRight > barLeft) {
      RECT fill = track;
      fill.right = barLeft + static_cast<int>(static_cast<double>(barRight - barLeft) * static_cast<double>(c.bytes) /
                                              static_cast<double>(total));
      InflateRect(&fill, 0, -1);
      if (fill.right > fill.left) FillRect(dc, &fill, GetSysColorBrush(COLOR_HIGHLIGHT));
    }
    int percent = total ? static_cast<int>(c.bytes * 100 / total) : 0;
    std::wstring label = host::FormatSize(c.bytes) + L"  (" + std::to_wstring(percent) + L"%)";
    RECT size = {barRight + pad, y, area.right - pad, y + row};
    DrawTextW(dc, label.c_str(), -1, &size, DT_RIGHT | DT_VCENTER | DT_SINGLELINE | DT_NOPREFIX);
    y += row;
  }
  SelectObject(dc, oldFont);
}

}  // namespace broomw
