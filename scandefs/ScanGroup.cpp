#include "scandefs/ScanGroup.h"

#include <cwchar>

#include "scandefs/NoCase.h"

CScanGroup::CScanGroup() : m_order(999999), m_parent(nullptr), m_uiData(nullptr) {
  for (auto& p : m_boolProps) p = abNotSet;
}

CScanGroup* CScanGroup::GetParent() const {
  if (!m_parent || !m_parent->m_parent) return nullptr;
  return m_parent;
}

AttributeBoolState CScanGroup::GetInheritedBoolProperty(EBoolProperty p) const {
  if (p < 0 || p > 4) return abFalse;
  AttributeBoolState state = abNotSet;
  for (const CScanGroup* g = this; g; g = g->m_parent) {
    state = g->m_boolProps[p];
    if (state != abNotSet) return state;
  }
  return state;
}

AttributeBoolState CScanGroup::Effective(EBoolProperty p) const {
  if (m_boolProps[p] != abNotSet || !m_parent) return m_boolProps[p];
  return m_parent->GetInheritedBoolProperty(p);
}

AttributeBoolState CScanGroup::GetQScan() const {
  if (IsDefaultScan() == abFalse || IsEnabled() == abFalse) return abFalse;
  return Effective(bpQScan);
}

void CScanGroup::SetBoolProperty(EBoolProperty p, AttributeBoolState s) {
  if (p >= 0 && p <= 4) m_boolProps[p] = s;
}

void CScanGroup_imp::GetChildren(CRefPtr<TIteratorIface<CScanGroup>>& out) const {
  using It = TIteratorIface_impl<CScanGroup, std::list<CScanGroup_imp>::const_iterator>;
  out = new IUnknownNoQIImp<It>(m_children.cbegin(), m_children.cend());
}

void CScanGroup_imp::GetScanOps(CRefPtr<TIteratorIface<CRefPtr<IScanOperation>>>& out) const {
  using It = TIteratorIface_impl<CRefPtr<IScanOperation>, std::list<CRefPtr<IScanOperation>>::const_iterator>;
  out = new IUnknownNoQIImp<It>(m_scanOps.cbegin(), m_scanOps.cend());
}

CScanGroup_imp* CScanGroup_imp::FindChild(const wchar_t* name) { return FindChild(name, wcslen(name)); }

CScanGroup_imp* CScanGroup_imp::FindChild(const wchar_t* name, size_t length) {
  for (auto& child : m_children)
    if (broom::EqualNoCase(child.m_name.GetString(), static_cast<size_t>(child.m_name.GetLength()), name, length))
      return &child;
  return nullptr;
}

CScanGroup_imp* CScanGroup_imp::FindOrAddGroupPath(const CString& path, CScanGroup_imp& start) {
  return FindOrAddGroupPath(path.GetString(), static_cast<size_t>(path.GetLength()), start);
}

CScanGroup_imp* CScanGroup_imp::FindOrAddGroupPath(const wchar_t* path, size_t length, CScanGroup_imp& start) {
  return ResolvePath(path, length, start, [](CScanGroup_imp& parent, const wchar_t* name, size_t nameLength) {
    return parent.FindChild(name, nameLength);
  });
}

void CScanGroup_imp::AddScanOp(CScanGroup_imp& group, CRefPtr<IScanOperation> op) {
  group.m_scanOps.push_back(op);
}

void CScanGroup_imp::SortChildren() {
  if (m_children.empty()) return;
  m_children.sort([](const CScanGroup_imp& a, const CScanGroup_imp& b) {
    if (a.m_order != b.m_order) return a.m_order < b.m_order;
    return broom::CompareNoCase(a.m_name, b.m_name) < 0;
  });
  for (auto& child : m_children) child.SortChildren();
}
