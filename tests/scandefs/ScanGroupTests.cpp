#include <gtest/gtest.h>

#include "common/TestFiles.h"

#include <string>
#include <vector>

#include "scandefs/NoCase.h"
#include "scandefs/ScanGroup.h"
#include "scan/ScanOperation.h"

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


// An operation that only counts its references.
class CountingOp : public IScanOperation {
 public:
  void PerformScan(IResultsCollector*, IOperationProgressNotify*, IOperationStatusNotify*, CWhiteListTree*) override {}
  bool ReportsProgress() const override { return false; }
  virtual ~CountingOp() { ++*m_destroyed; }
  int* m_destroyed = nullptr;
};

TEST(ScanGroup, OperationsAreCountedReferences) {
  int destroyed = 0;
  {
    CScanGroup_imp root;
    CScanGroup_imp* g = CScanGroup_imp::FindOrAddGroupPath(CString(L"g"), root);
    auto* op = new IUnknownNoQIImp<CountingOp>();
    op->m_destroyed = &destroyed;
    CScanGroup_imp::AddScanOp(*g, CRefPtr<IScanOperation>(op));
    CScanGroup_imp::AddScanOp(*g, CRefPtr<IScanOperation>(op));
    EXPECT_TRUE(g->HasScanOps());
    EXPECT_EQ(g->GetScanOpCount(), 2);
    EXPECT_EQ(op->AddRef(), 3u);
    op->Release();
    CRefPtr<TIteratorIface<CRefPtr<IScanOperation>>> ops;
    g->GetScanOps(ops);
    ASSERT_FALSE(ops->AtEnd());
    EXPECT_EQ(ops->Current()->Get(), op);
    EXPECT_EQ(ops->Current(), &g->m_scanOps.front());  // the list element itself
    ops->Next();
    ASSERT_FALSE(ops->AtEnd());
    EXPECT_FALSE(ops->Next());
    EXPECT_TRUE(ops->AtEnd());

    CScanGroup_imp copy = *g;  // deep: the copy holds its own references
    EXPECT_EQ(op->AddRef(), 5u);
    op->Release();
    EXPECT_EQ(destroyed, 0);
  }
  EXPECT_EQ(destroyed, 1);
}

TEST(ScanGroup, CopiesAndHostData) {
  CScanGroup_imp root;
  CScanGroup_imp::FindOrAddGroupPath(CString(L"g/child"), root);
  CScanGroup_imp* g = root.FindChild(L"g");
  ASSERT_NE(g, nullptr);
  int marker = 0;
  g->SetUIData(&marker);
  g->m_order = 7;
  g->m_desc = L"text";
  g->SetBoolProperty(bpSafe, abTrue);
  EXPECT_EQ(g->GetUIData(), &marker);

  CScanGroup_imp deep(*g);
  EXPECT_EQ(deep.GetOrder(), 7);
  EXPECT_EQ(deep.m_parent, &root);
  EXPECT_EQ(deep.GetUIData(), &marker);
  EXPECT_STREQ(deep.GetDescription(), L"text");
  ASSERT_EQ(deep.GetChildCount(), 1);
  EXPECT_EQ(deep.m_children.front().m_parent, g);  // children keep their old parent

  // the base part alone copies the fields it owns, not the texts or lists
  CScanGroup_imp other;
  static_cast<CScanGroup&>(other) = static_cast<const CScanGroup&>(*g);
  EXPECT_EQ(other.GetOrder(), 7);
  EXPECT_EQ(other.m_boolProps[bpSafe], abTrue);
  EXPECT_STREQ(other.GetDescription(), L"");
  EXPECT_EQ(other.GetChildCount(), 0);
}

TEST(ScanGroup, BoolStatesAndUnsetChains) {
  EXPECT_EQ(CScanGroup::MakeBoolState(false, true), abNotSet);
  EXPECT_EQ(CScanGroup::MakeBoolState(true, true), abTrue);
  EXPECT_EQ(CScanGroup::MakeBoolState(true, false), abFalse);
  CScanGroup_imp root;
  CScanGroup_imp* leaf = CScanGroup_imp::FindOrAddGroupPath(CString(L"a/b/c"), root);
  EXPECT_EQ(leaf->GetInheritedBoolProperty(bpDefaultClean), abNotSet);
  EXPECT_EQ(leaf->GetQScan(), abNotSet);
  // the hidden root takes part in inheritance
  root.SetBoolProperty(bpDefaultClean, abFalse);
  EXPECT_EQ(leaf->IsDefaultClean(), abFalse);
  EXPECT_EQ(root.IsDefaultClean(), abFalse);
  leaf->SetBoolProperty(bpDefaultClean, abTrue);
  EXPECT_EQ(leaf->IsDefaultClean(), abTrue);
  leaf->SetBoolProperty(static_cast<EBoolProperty>(5), abFalse);  // outside 0..4: ignored
  leaf->SetBoolProperty(static_cast<EBoolProperty>(-1), abFalse);
  for (auto state : leaf->m_boolProps) EXPECT_NE(state, abFalse);
  EXPECT_EQ(leaf->GetInheritedBoolProperty(static_cast<EBoolProperty>(-1)), abFalse);
}

TEST(ScanGroup, SortingReachesEveryLevel) {
  CScanGroup_imp root;
  for (const wchar_t* path : {L"b/y", L"b/x", L"a/z/2", L"a/z/1", L"a/k"})
    CScanGroup_imp::FindOrAddGroupPath(CString(path), root);
  root.SortChildren();
  EXPECT_EQ(ChildNames(root), (std::vector<std::wstring>{L"a", L"b"}));
  CScanGroup_imp* a = root.FindChild(L"a");
  EXPECT_EQ(ChildNames(*a), (std::vector<std::wstring>{L"k", L"z"}));
  EXPECT_EQ(ChildNames(*a->FindChild(L"z")), (std::vector<std::wstring>{L"1", L"2"}));
  EXPECT_EQ(ChildNames(*root.FindChild(L"B")), (std::vector<std::wstring>{L"x", L"y"}));
  // pointers stay valid: the sort relinks the nodes
  EXPECT_EQ(a->FindChild(L"z")->m_parent, a);
}

TEST(ScanGroup, NamesFoldOnlyLatinLettersLikeTheRuntimeCompare) {
  CScanGroup_imp root;
  CScanGroup_imp* upper = CScanGroup_imp::FindOrAddGroupPath(CString(L"\u00C4rger"), root);
  CScanGroup_imp* lower = CScanGroup_imp::FindOrAddGroupPath(CString(L"\u00E4rger"), root);
  EXPECT_NE(upper, lower);
  EXPECT_EQ(CScanGroup_imp::FindOrAddGroupPath(CString(L"\u00C4RGER"), root), upper);
  EXPECT_EQ(root.GetChildCount(), 2);
  // '_' sorts before letters, as it does after lower-case folding
  CScanGroup_imp sorted;
  for (const wchar_t* name : {L"b", L"_", L"A"}) CScanGroup_imp::FindOrAddGroupPath(CString(name), sorted);
  sorted.SortChildren();
  EXPECT_EQ(ChildNames(sorted), (std::vector<std::wstring>{L"_", L"A", L"b"}));
}


TEST(NoCase, OrdersAsciiNamesLikeTheRuntime) {
  const wchar_t* names[] = {L"", L"a", L"A", L"ab", L"aB", L"b", L"_", L"[", L"`", L"{", L"Z", L"z", L"item 10",
                            L"Item 9", L"ITEM", L"item", L"x/y", L"X-Y", L"0", L"~"};
  auto sign = [](int v) { return (v > 0) - (v < 0); };
  for (const wchar_t* a : names)
    for (const wchar_t* b : names) {
      int expected = sign(_wcsicmp(a, b));
      EXPECT_EQ(sign(broom::CompareNoCase(a, b)), expected) << broomtest::Narrow(a) << " / " << broomtest::Narrow(b);
      EXPECT_EQ(sign(broom::CompareNoCase(a, wcslen(a), b, wcslen(b))), expected);
      EXPECT_EQ(broom::EqualNoCase(a, wcslen(a), b, wcslen(b)), expected == 0);
    }
}

}  // namespace
