#include "window/ItemTree.h"

#include <windowsx.h>

#include "app/PolicyRules.h"

namespace broomw {

namespace {

template <class F>
void ForEachChild(const CScanGroup* group, F f) {
  CRefPtr<TIteratorIface<CScanGroup>> it;
  group->GetChildren(it);
  for (; it && !it->AtEnd(); it->Next()) f(it->Current());
}

const wchar_t kOffNote[] = L"  (not on this PC)";

// Whether ticking a group takes the item along.
bool GroupTakes(ECost cost) { return cost <= costHistory; }

}  // namespace

const wchar_t* CostShortWords(ECost cost) {
  switch (cost) {
    case costHistory: return L"Deletes your history";
    case costSignIn: return L"Signs you out";
    case costSaved: return L"Deletes your saved passwords or data";
    default: return L"Comes back by itself";
  }
}

void CItemTree::Create(HWND parent, int id) {
  m_tree = CreateWindowExW(WS_EX_CLIENTEDGE, WC_TREEVIEWW, L"Items",
                           WS_CHILD | WS_VISIBLE | WS_TABSTOP | TVS_HASBUTTONS | TVS_HASLINES | TVS_LINESATROOT |
                               TVS_SHOWSELALWAYS | TVS_INFOTIP,
                           0, 0, 10, 10, parent, reinterpret_cast<HMENU>(static_cast<INT_PTR>(id)),
                           GetModuleHandleW(nullptr), nullptr);
}

void CItemTree::SetDpi(int dpi) {
  const int size = Scale(16, dpi), count = 5;
  unique_imagelist images(ImageList_Create(size, size, ILC_COLOR24, count, 0));
  HDC screen = GetDC(nullptr);
  unique_memdc dc(CreateCompatibleDC(screen));
  unique_gdiobj bitmap(CreateCompatibleBitmap(screen, size * count, size));
  ReleaseDC(nullptr, screen);
  HGDIOBJ old = SelectObject(dc.get(), bitmap.get());
  RECT all = {0, 0, size * count, size};
  FillRect(dc.get(), &all, GetSysColorBrush(COLOR_WINDOW));
  // blank (no state image), off, on, some, switched off
  const UINT looks[count] = {0, DFCS_BUTTONCHECK, DFCS_BUTTONCHECK | DFCS_CHECKED,
                             DFCS_BUTTON3STATE | DFCS_CHECKED, DFCS_BUTTONCHECK | DFCS_INACTIVE};
  const int inset = Scale(2, dpi);
  for (int i = 1; i < count; ++i) {
    RECT box = {i * size + inset, inset, (i + 1) * size - inset, size - inset};
    DrawFrameControl(dc.get(), &box, DFC_BUTTON, looks[i] | DFCS_FLAT);
  }
  SelectObject(dc.get(), old);
  ImageList_Add(images.get(), static_cast<HBITMAP>(bitmap.get()), nullptr);
  TreeView_SetImageList(m_tree, images.get(), TVSIL_STATE);
  m_images = std::move(images);
}

CItemTree::SNode* CItemTree::Add(CScanGroup* group, SNode* parent) {
  m_nodes.emplace_back();
  SNode* node = &m_nodes.back();
  node->group = group;
  node->parent = parent;
  node->item = group->HasScanOps();
  node->enabled = host::IsEnabled(group);
  node->cost = host::CostOf(m_config, group);
  if (node->item && node->enabled && host::IsOn(group->IsDefaultScan()) && GroupTakes(node->cost))
    node->check = checkOn;
  group->SetUIData(node);
  if (parent) parent->children.push_back(node);

  std::wstring text = group->GetName();
  if (node->item && node->cost > costCache) text += std::wstring(L"  [") + CostName(node->cost) + L"]";
  const host::SPolicyMark* mark = host::PolicyMarkOf(group);
  if (mark && !mark->off.empty())
    text += L"  (" + std::wstring(host::kSetByOrganisation) + L")";
  else if (!node->enabled)
    text += kOffNote;
  TVINSERTSTRUCTW insert = {};
  insert.hParent = parent ? parent->handle : TVI_ROOT;
  insert.hInsertAfter = TVI_LAST;
  insert.item.mask = TVIF_TEXT | TVIF_PARAM;
  insert.item.pszText = &text[0];
  insert.item.lParam = reinterpret_cast<LPARAM>(group);
  node->handle = TreeView_InsertItem(m_tree, &insert);
  return node;
}

void CItemTree::Fill(IConfig* config) {
  SendMessageW(m_tree, WM_SETREDRAW, FALSE, 0);
  TreeView_DeleteAllItems(m_tree);
  m_nodes.clear();
  m_config = config;
  // parents before children, in the store's order
  std::vector<std::pair<CScanGroup*, SNode*>> work;
  CRefPtr<TIteratorIface<CScanGroup>> it;
  config->GetGroups(it);
  std::vector<CScanGroup*> tops;
  for (; it && !it->AtEnd(); it->Next()) tops.push_back(it->Current());
  for (auto t = tops.rbegin(); t != tops.rend(); ++t) work.emplace_back(*t, nullptr);
  while (!work.empty()) {
    auto [group, parent] = work.back();
    work.pop_back();
    SNode* node = Add(group, parent);
    std::vector<CScanGroup*> children;
    ForEachChild(group, [&](CScanGroup* child) { children.push_back(child); });
    for (auto c = children.rbegin(); c != children.rend(); ++c) work.emplace_back(*c, node);
  }
  // children come after their parents, so counting backwards settles them first
  for (auto n = m_nodes.rbegin(); n != m_nodes.rend(); ++n) {
    Recount(&*n);
    Show(&*n);
  }
  for (SNode& node : m_nodes)
    if (!node.parent) TreeView_Expand(m_tree, node.handle, TVE_EXPAND);
  if (!m_nodes.empty()) TreeView_SelectItem(m_tree, m_nodes.front().handle);
  SendMessageW(m_tree, WM_SETREDRAW, TRUE, 0);
  InvalidateRect(m_tree, nullptr, TRUE);
}

CItemTree::SNode* CItemTree::NodeOf(HTREEITEM handle) const {
  if (!handle) return nullptr;
  TVITEMW item = {};
  item.mask = TVIF_PARAM;
  item.hItem = handle;
  if (!TreeView_GetItem(m_tree, &item) || !item.lParam) return nullptr;
  return NodeOf(reinterpret_cast<const CScanGroup*>(item.lParam));
}

void CItemTree::Recount(SNode* node) {
  if (node->children.empty()) return;
  bool on = false, off = false, any = false;
  auto count = [&](ECheck check) {
    any = true;
    if (check != checkOff) on = true;
    if (check != checkOn) off = true;
  };
  if (node->item && host::IsEnabled(node->group)) count(node->check);
  for (const SNode* child : node->children)
    if (child->enabled) count(child->check);
  node->enabled = any && host::IsEnabled(node->group);
  node->check = !node->enabled ? checkOff : on && off ? checkSome : on ? checkOn : checkOff;
}

void CItemTree::Show(SNode* node) {
  TreeView_SetItemState(m_tree, node->handle, INDEXTOSTATEIMAGEMASK(node->enabled ? node->check + 1 : 4),
                        TVIS_STATEIMAGEMASK);
}

void CItemTree::SetBelow(SNode* node, ECheck check) {
  std::vector<SNode*> work{node};
  while (!work.empty()) {
    SNode* n = work.back();
    work.pop_back();
    if (!n->enabled) continue;
    if (check == checkOn && n != node && n->item && !GroupTakes(n->cost)) continue;
    n->check = check;
    Show(n);
    work.insert(work.end(), n->children.begin(), n->children.end());
  }
}

void CItemTree::Toggle(SNode* node) {
  if (!node || !node->enabled) return;
  ECheck target = node->check == checkOn ? checkOff : checkOn;
  if (target == checkOn) {
    // what the items about to be ticked warn about, before they are
    std::wstring warnings;
    size_t count = 0;
    std::vector<SNode*> work{node};
    while (!work.empty()) {
      SNode* n = work.back();
      work.pop_back();
      if (!n->enabled || (n != node && n->item && !GroupTakes(n->cost))) continue;
      const wchar_t* tip = n->group->GetTip();
      if (n->item && n->check != checkOn && tip && *tip && ++count <= 5)
        warnings += host::GroupPath(n->group) + L":\n" + tip + L"\n\n";
      work.insert(work.end(), n->children.begin(), n->children.end());
    }
    if (count > 5) warnings += L"... and " + std::to_wstring(count - 5) + L" more.\n\n";
    if (count && MessageBoxW(GetParent(m_tree), (warnings + L"Tick anyway?").c_str(), L"Warning",
                             MB_OKCANCEL | MB_ICONWARNING | MB_DEFBUTTON2) != IDOK)
      return;
  }
  SetBelow(node, target);
  // a group whose costly items stayed unticked shows it is partly ticked
  for (auto n = m_nodes.rbegin(); n != m_nodes.rend(); ++n)
    if (!n->children.empty() && n->check == checkOn) {
      Recount(&*n);
      Show(&*n);
    }
  for (SNode* p = node->parent; p; p = p->parent) {
    Recount(p);
    Show(p);
  }
}

bool CItemTree::OnNotify(NMHDR* header, LRESULT& result) {
  switch (header->code) {
    case TVN_KEYDOWN: {
      auto* key = reinterpret_cast<NMTVKEYDOWN*>(header);
      if (key->wVKey != VK_SPACE) return false;
      Toggle(NodeOf(TreeView_GetSelection(m_tree)));
      result = TRUE;  // not part of an incremental search
      return true;
    }
    case NM_CLICK: {
      DWORD pos = GetMessagePos();
      TVHITTESTINFO hit = {};
      hit.pt = {GET_X_LPARAM(pos), GET_Y_LPARAM(pos)};
      ScreenToClient(m_tree, &hit.pt);
      if (!TreeView_HitTest(m_tree, &hit) || !(hit.flags & TVHT_ONITEMSTATEICON)) return false;
      TreeView_SelectItem(m_tree, hit.hItem);
      Toggle(NodeOf(hit.hItem));
      result = TRUE;
      return true;
    }
    case TVN_GETINFOTIPW: {
      auto* tip = reinterpret_cast<NMTVGETINFOTIPW*>(header);
      const SNode* node = NodeOf(reinterpret_cast<const CScanGroup*>(tip->lParam));
      if (!node || !node->item || !tip->pszText || tip->cchTextMax <= 0) return false;
      m_tip = std::wstring(CostName(node->cost)) + L": " + CostWords(node->cost);
      lstrcpynW(tip->pszText, m_tip.c_str(), tip->cchTextMax);
      result = 0;
      return true;
    }
    case NM_CUSTOMDRAW: {
      auto* draw = reinterpret_cast<NMTVCUSTOMDRAW*>(header);
      if (draw->nmcd.dwDrawStage == CDDS_PREPAINT) {
        result = CDRF_NOTIFYITEMDRAW;
        return true;
      }
      if (draw->nmcd.dwDrawStage == CDDS_ITEMPREPAINT) {
        const SNode* node = NodeOf(reinterpret_cast<const CScanGroup*>(draw->nmcd.lItemlParam));
        if (node && !node->enabled && !(draw->nmcd.uItemState & CDIS_SELECTED))
          draw->clrText = GetSysColor(COLOR_GRAYTEXT);
        result = CDRF_DODEFAULT;
        return true;
      }
      return false;
    }
  }
  return false;
}

std::vector<host::SItem> CItemTree::Ticked() const {
  std::vector<host::SItem> items;
  for (const SNode& node : m_nodes)
    if (node.item && node.enabled && node.check == checkOn) items.push_back(host::SItem{node.group, host::GroupPath(node.group)});
  return items;
}

std::wstring CItemTree::SelectedText() const {
  const SNode* node = NodeOf(TreeView_GetSelection(m_tree));
  if (!node) return std::wstring();
  std::wstring text = node->group->GetDescription();
  const host::SPolicyMark* mark = host::PolicyMarkOf(node->group);
  if (mark && !mark->off.empty())
    text += std::wstring(text.empty() ? L"" : L"\r\n") + host::kSetByOrganisation + L": " + host::PolicyOffText(*mark) + L".";
  else if (!node->enabled)
    text += std::wstring(text.empty() ? L"" : L"\r\n") + L"Switched off: not on this PC.";
  if (mark && mark->defaultSet)
    text += std::wstring(text.empty() ? L"" : L"\r\n") + host::kSetByOrganisation + L": " +
            (mark->defaultOn ? L"ticked" : L"not ticked") + L" by default (DefaultItems).";
  if (node->item)
    text += std::wstring(text.empty() ? L"" : L"\r\n") + L"Costs: " + CostName(node->cost) + L" (" +
            CostWords(node->cost) + L")" + (GroupTakes(node->cost) ? L"." : L"; tick it on its own to clean it.");
  const wchar_t* tip = node->group->GetTip();
  if (tip && *tip) text += std::wstring(text.empty() ? L"" : L"\r\n") + L"Warning: " + tip;
  return text;
}

}  // namespace broomw
