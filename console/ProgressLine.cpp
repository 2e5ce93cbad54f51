#include "console/ProgressLine.h"

#include <cstdio>

#include "app/Text.h"
#include "console/Console.h"

namespace host {

CProgressLine::CProgressLine() : m_draw(CConsole::ErrIsConsole()) {}

CProgressLine::~CProgressLine() { CConsole::ClearProgress(); }

void CProgressLine::OnItem(const std::wstring& itemPath, size_t index, size_t count) {
  m_item = itemPath;
  m_index = index;
  m_count = count;
  m_total = 0;
  m_position = 0;
  m_folder.clear();
  Draw(true);
}

void CProgressLine::OnProgress(int position, int total) {
  m_position = position;
  m_total = total;
  Draw(false);
}

void CProgressLine::OnFolder(const std::wstring& folder) {
  m_folder = folder;
  Draw(false);
}

void CProgressLine::OnHits(unsigned __int64 files, unsigned __int64) { m_hits = files; }

void CProgressLine::OnItemsInProgress(const std::vector<std::wstring>& itemPaths) {
  m_inHand = itemPaths;
  Draw(true);
}

void CProgressLine::Draw(bool force) {
  if (!m_draw) return;
  DWORD now = GetTickCount();
  if (!force && now - m_lastDraw < 100) return;
  m_lastDraw = now;
  int percent = m_total > 0 ? static_cast<int>(100LL * (m_position < m_total ? m_position : m_total) / m_total) : 0;
  wchar_t head[64];
  swprintf(head, 64, L"[%u/%u] ", static_cast<unsigned>(m_index + 1), static_cast<unsigned>(m_count));
  // "[3/20] A, B, C": the first item in hand is the one counted and the percentage is of
  std::wstring items = m_inHand.size() > 1 ? std::wstring() : m_item;
  if (m_inHand.size() > 1)
    for (const std::wstring& item : m_inHand) items += (items.empty() ? L"" : L", ") + item;
  CConsole::Progress(head + items + L"  " + std::to_wstring(percent) + L"%  " + FormatCount(m_hits) + L" found  " +
                     m_folder);
}

}  // namespace host
