#pragma once
// The tree of groups and items with tri-state check boxes. Each group's
// state (its node, its tick, whether it is switched off) is kept in the
// group's UI pointer; the tree control's items point at the groups.
#include <windows.h>
#include <commctrl.h>

#include <deque>
#include <string>
#include <vector>

#include "app/Session.h"
#include "window/Gdi.h"

namespace broomw {

// What an item's class takes from its user, in a few words:
// "Deletes your saved passwords or data".
const wchar_t* CostShortWords(ECost cost);

class CItemTree {
 public:
  enum ECheck { checkOff = 0, checkOn = 1, checkSome = 2 };

  void Create(HWND parent, int id);
  HWND Handle() const { return m_tree; }
  void SetDpi(int dpi);  // draws the check boxes for dpi

  // Builds the tree of the session's definitions: ticks follow the
  // engine's scan-by-default states, switched-off items are greyed. An item
  // that costs more than a cache is marked with its class; one that costs
  // more than history is never ticked by default nor by ticking its group.
  void Fill(IConfig* config);

  // The parent's WM_NOTIFY for the tree; true when handled, with result.
  bool OnNotify(NMHDR* header, LRESULT& result);

  // Ticked items that are not switched off, in the tree's order.
  std::vector<host::SItem> Ticked() const;
  // What to show below the tree for the selected group.
  std::wstring SelectedText() const;

 private:
  struct SNode {
    CScanGroup* group = nullptr;
    HTREEITEM handle = nullptr;
    SNode* parent = nullptr;
    std::vector<SNode*> children;
    ECheck check = checkOff;
    bool enabled = true;
    bool item = false;  // has operations of its own
    ECost cost = costCache;
  };
  static SNode* NodeOf(const CScanGroup* group) { return static_cast<SNode*>(group->GetUIData()); }
  SNode* NodeOf(HTREEITEM handle) const;
  SNode* Add(CScanGroup* group, SNode* parent);
  void Toggle(SNode* node);
  // Ticks or unticks node and what is below it; a group ticks only the
  // items below it that cost no more than history.
  void SetBelow(SNode* node, ECheck check);
  void Recount(SNode* node);  // a group's tick from its children
  void Show(SNode* node);     // the node's state image

  HWND m_tree = nullptr;
  IConfig* m_config = nullptr;  // the tree's, while it is filled with it
  std::wstring m_tip;           // the text of the tooltip being shown
  unique_imagelist m_images;
  std::deque<SNode> m_nodes;  // in the tree's order; stable addresses for the UI pointers
};

}  // namespace broomw
