#include "scandefs/ScanGroup.h"

#include <cwchar>
#include <utility>
#include <vector>

#include "core/Names.h"

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

CScanGroup_imp::CScanGroup_imp(const CScanGroup_imp& other) : CScanGroup(other) {
  CopyOwnFields(other);
  CopyChildren(other);
}

CScanGroup_imp& CScanGroup_imp::operator=(const CScanGroup_imp& other) {
  if (this != &other) {
    // other may lie below this group: copy it whole before anything goes
    CScanGroup_imp copy(other);
    CopyOwnFields(copy);
    m_children.swap(copy.m_children);
  }
  return *this;
}

CScanGroup_imp::~CScanGroup_imp() {
  // Each group is freed only once its children have moved to the end of
  // the pending list, so no destructor ever finds a child to free.
  std::list<CScanGroup_imp> pending;
  pending.splice(pending.end(), m_children);
  while (!pending.empty()) {
    pending.splice(pending.end(), pending.front().m_children);
    pending.pop_front();
  }
}

void CScanGroup_imp::CopyOwnFields(const CScanGroup_imp& other) {
  static_cast<CScanGroup&>(*this) = other;
  m_scanOps = other.m_scanOps;
  m_name = other.m_name;
  m_desc = other.m_desc;
  m_tip = other.m_tip;
  m_icon = other.m_icon;
  m_tabIcon = other.m_tabIcon;
  m_report = other.m_report;
}

void CScanGroup_imp::CopyChildren(const CScanGroup_imp& other) {
  // copied children keep m_parent as it was, as a plain copy would
  std::vector<std::pair<const CScanGroup_imp*, CScanGroup_imp*>> work{{&other, this}};
  while (!work.empty()) {
    auto [from, to] = work.back();
    work.pop_back();
    for (const CScanGroup_imp& child : from->m_children) {
      to->m_children.emplace_back();
      to->m_children.back().CopyOwnFields(child);
      work.emplace_back(&child, &to->m_children.back());
    }
  }
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
  // every list sorts on its own, so the order of the visits does not matter
  std::vector<CScanGroup_imp*> work{this};
  while (!work.empty()) {
    CScanGroup_imp* group = work.back();
    work.pop_back();
    group->m_children.sort([](const CScanGroup_imp& a, const CScanGroup_imp& b) {
      if (a.m_order != b.m_order) return a.m_order < b.m_order;
      return broom::CompareNoCase(a.m_name, b.m_name) < 0;
    });
    for (auto& child : group->m_children) work.push_back(&child);
  }
}
