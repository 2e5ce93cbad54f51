#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "scandefs/ScanGroup.h"

namespace {

std::vector<std::wstring> ChildNames(const CScanGroup& group) {
  std::vector<std::wstring> names;
  CRefPtr<TIteratorIface<CScanGroup>> it;
  group.GetChildren(it);
  for (; !it->AtEnd(); it->Next()) names.push_back(it->Current()->GetName());
  return names;
}

TEST(ScanGroup, NewGroupDefaults) {
  CScanGroup_imp root;
  CScanGroup_imp* g = CScanGroup_imp::FindOrAddGroupPath(CString(L"a"), root);
  ASSERT_NE(g, nullptr);
  EXPECT_EQ(g->GetOrder(), 999999);
  EXPECT_EQ(g->IsEnabled(), abNotSet);
  EXPECT_EQ(g->GetReport(), nullptr);
  EXPECT_STREQ(g->GetDescription(), L"");
  EXPECT_EQ(g->GetParent(), nullptr);  // top level: the root is hidden
  CScanGroup_imp* deep = CScanGroup_imp::FindOrAddGroupPath(CString(L"a/b/c"), root);
  EXPECT_EQ(deep->GetParent(), CScanGroup_imp::FindOrAddGroupPath(CString(L"a/b"), root));
  EXPECT_EQ(CScanGroup_imp::FindOrAddGroupPath(CString(L"//"), root), nullptr);
}

TEST(ScanGroup, PathResolutionSkipsEmptySegmentsAndIgnoresCase) {
  CScanGroup_imp root;
  CScanGroup_imp* first = CScanGroup_imp::FindOrAddGroupPath(CString(L"a//b/"), root);
  EXPECT_EQ(CScanGroup_imp::FindOrAddGroupPath(CString(L"a/b"), root), first);
  EXPECT_EQ(CScanGroup_imp::FindOrAddGroupPath(CString(L"A/B"), root), first);
  EXPECT_STREQ(first->GetName(), L"b");
  EXPECT_EQ(root.GetChildCount(), 1);
}

TEST(ScanGroup, SwitchesInheritFromTheParent) {
  CScanGroup_imp root;
  CScanGroup_imp* parent = CScanGroup_imp::FindOrAddGroupPath(CString(L"p"), root);
  CScanGroup_imp* child = CScanGroup_imp::FindOrAddGroupPath(CString(L"p/c"), root);
  parent->SetBoolProperty(bpSafe, abTrue);
  EXPECT_EQ(child->IsSafe(), abTrue);
  child->SetBoolProperty(bpSafe, abFalse);
  EXPECT_EQ(child->IsSafe(), abFalse);
  parent->SetBoolProperty(static_cast<EBoolProperty>(7), abTrue);  // ignored
  EXPECT_EQ(child->GetInheritedBoolProperty(static_cast<EBoolProperty>(7)), abFalse);

  child->SetBoolProperty(bpQScan, abTrue);
  EXPECT_EQ(child->GetQScan(), abTrue);  // scan and enabled not set do not stop it
  parent->SetBoolProperty(bpDefaultScan, abFalse);
  EXPECT_EQ(child->GetQScan(), abFalse);
  parent->SetBoolProperty(bpDefaultScan, abTrue);
  parent->SetBoolProperty(bpEnabled, abFalse);
  EXPECT_EQ(child->GetQScan(), abFalse);
  EXPECT_EQ(child->IsEnabled(), abFalse);
}

TEST(ScanGroup, SortIsStableByOrderThenName) {
  CScanGroup_imp root;
  const std::pair<const wchar_t*, int> children[] = {{L"b", 5}, {L"a", 999999}, {L"A", 5}, {L"z", 2}, {L"B", 5}};
  for (const auto& c : children) {
    root.m_children.emplace_back();
    root.m_children.back().m_name = c.first;
    root.m_children.back().m_order = c.second;
  }
  root.SortChildren();
  // equal keys ("b" and "B") keep their order
  EXPECT_EQ(ChildNames(root), (std::vector<std::wstring>{L"z", L"A", L"b", L"B", L"a"}));
}

TEST(ScanGroup, IteratorsWalkChildrenAndOperations) {
  CScanGroup_imp root;
  CRefPtr<TIteratorIface<CRefPtr<IScanOperation>>> ops;
  root.GetScanOps(ops);
  EXPECT_TRUE(ops->AtEnd());
  EXPECT_FALSE(ops->Next());
  CRefPtr<TIteratorIface<CScanGroup>> children;
  root.GetChildren(children);
  EXPECT_TRUE(children->AtEnd());
}

}  // namespace
