#pragma once
// The progress line broom draws on standard error while a scan runs, when
// standard error is a console: the item (every item in hand while several
// run side by side), its progress, the hits so far and the folder in hand,
// redrawn at most every 100 ms.
#include <windows.h>

#include <string>

#include "app/Session.h"

namespace host {

class CProgressLine : public IScanObserver {
 public:
  CProgressLine();
  // Removes the line.
  ~CProgressLine() override;
  CProgressLine(const CProgressLine&) = delete;
  CProgressLine& operator=(const CProgressLine&) = delete;

  void OnItem(const std::wstring& itemPath, size_t index, size_t count) override;
  void OnProgress(int position, int total) override;
  void OnFolder(const std::wstring& folder) override;
  void OnHits(unsigned __int64 files, unsigned __int64 bytes) override;
  void OnItemsInProgress(const std::vector<std::wstring>& itemPaths) override;

 private:
  void Draw(bool force);

  bool m_draw;
  DWORD m_lastDraw = 0;
  std::wstring m_item, m_folder;
  std::vector<std::wstring> m_inHand;  // items side by side, when more than one
  size_t m_index = 0, m_count = 0;
  int m_total = 0, m_position = 0;
  unsigned __int64 m_hits = 0;
};

}  // namespace host
