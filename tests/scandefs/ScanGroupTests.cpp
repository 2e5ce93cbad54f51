// The tree of scan groups: paths, inherited switches, sorting, operations
// and copies; and the name comparison it uses.
#include <gtest/gtest.h>

#include <string>

#include "tests/scandefs/Definitions.h"

using namespace defstest;

namespace {

CScanGroup_imp* Path(CScanGroup_imp& root, const wchar_t* path) {
  return CScanGroup_imp::FindOrAddGroupPath(CString(path), root);
}

TEST(ScanGroup, NewGroupsAndPaths) {
  CScanGroup_imp root;
  CScanGroup_imp* g = Path(root, L"a");
  ASSERT_NE(g, nullptr);
  EXPECT_EQ(Props(*g), L"order=999999");
  EXPECT_EQ(g->GetParent(), nullptr);  // top level: the root is hidden
  EXPECT_EQ(Path(root, L"a/b/c")->GetParent(), Path(root, L"a/b"));
  EXPECT_EQ(Path(root, L"//"), nullptr);
  // empty segments are skipped and case is ignored
  CScanGroup_imp* b = Path(root, L"a//b/");
  EXPECT_EQ(Path(root, L"A/B"), b);
  EXPECT_EQ(root.FindChild(L"A"), g);
  EXPECT_EQ(Tree(root), L"a{b{c}}");
}

TEST(ScanGroup, SwitchesInheritFromTheParent) {
  CScanGroup_imp root;
  CScanGroup_imp* parent = Path(root, L"p");
  CScanGroup_imp* child = Path(root, L"p/c");
  EXPECT_EQ(child->GetInheritedBoolProperty(bpDefaultClean), abNotSet);
  EXPECT_EQ(child->GetQScan(), abNotSet);
  parent->SetBoolProperty(bpSafe, abTrue);
  EXPECT_EQ(child->IsSafe(), abTrue);
  child->SetBoolProperty(bpSafe, abFalse);
  EXPECT_EQ(child->IsSafe(), abFalse);
  // the hidden root takes part in inheritance
  root.SetBoolProperty(bpDefaultClean, abFalse);
  EXPECT_EQ(child->IsDefaultClean(), abFalse);
  EXPECT_EQ(root.IsDefaultClean(), abFalse);

  child->SetBoolProperty(bpQScan, abTrue);
  EXPECT_EQ(child->GetQScan(), abTrue);  // scan and enabled not set do not stop it
  parent->SetBoolProperty(bpDefaultScan, abFalse);
  EXPECT_EQ(child->GetQScan(), abFalse);
  parent->SetBoolProperty(bpDefaultScan, abTrue);
  parent->SetBoolProperty(bpEnabled, abFalse);
  EXPECT_EQ(child->GetQScan(), abFalse);
  EXPECT_EQ(child->IsEnabled(), abFalse);

  // switches outside 0..4 are ignored when set and read as false
  CScanGroup_imp* other = Path(root, L"q");
  for (int outside : {5, 7, -1}) {
    other->SetBoolProperty(static_cast<EBoolProperty>(outside), abFalse);
    EXPECT_EQ(other->GetInheritedBoolProperty(static_cast<EBoolProperty>(outside)), abFalse) << outside;
  }
  EXPECT_EQ(Props(*other), L"order=999999");
}

TEST(ScanGroup, SortIsStableByOrderThenNameOnEveryLevel) {
  CScanGroup_imp root;
  const std::pair<const wchar_t*, int> children[] = {
      {L"b", 5}, {L"a", 999999}, {L"A", 5}, {L"z", 2}, {L"B", 5}, {L"_", 5}};
  for (const auto& c : children) {
    root.m_children.emplace_back();
    root.m_children.back().m_name = c.first;
    root.m_children.back().m_order = c.second;
    root.m_children.back().m_parent = &root;
  }
  for (const wchar_t* path : {L"z/y", L"z/x", L"z/k/2", L"z/k/1"}) Path(root, path);
  root.SortChildren();
  // equal keys ("b" and "B") keep their order; '_' sorts before letters, as
  // it does after lower-case folding; the sort relinks the nodes, so
  // parent links stay valid
  EXPECT_EQ(Tree(root), L"z{k{1,2},x,y},_,A,b,B,a");
}

// An operation that only counts its references.
class CountingOp : public IScanOperation {
 public:
  void PerformScan(IResultsCollector*, IOperationProgressNotify*, IOperationStatusNotify*, CWhiteListTree*) override {}
  bool ReportsProgress() const override { return false; }
  virtual ~CountingOp() { ++*m_destroyed; }
  int* m_destroyed = nullptr;
};

TEST(ScanGroup, IteratorsAndCountedOperations) {
  int destroyed = 0;
  {
    CScanGroup_imp root;
    CRefPtr<TIteratorIface<CRefPtr<IScanOperation>>> ops;
    root.GetScanOps(ops);
    EXPECT_TRUE(ops->AtEnd());
    EXPECT_FALSE(ops->Next());
    EXPECT_EQ(Tree(root), L"");

    CScanGroup_imp* g = Path(root, L"g");
    auto* op = new IUnknownNoQIImp<CountingOp>();
    op->m_destroyed = &destroyed;
    CScanGroup_imp::AddScanOp(*g, CRefPtr<IScanOperation>(op));
    CScanGroup_imp::AddScanOp(*g, CRefPtr<IScanOperation>(op));
    EXPECT_TRUE(g->HasScanOps());
    EXPECT_EQ(g->GetScanOpCount(), 2);
    EXPECT_EQ(op->AddRef(), 3u);
    op->Release();
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
  CScanGroup_imp* g = Path(root, L"g");
  Path(root, L"g/child");
  int marker = 0;
  g->SetUIData(&marker);
  g->m_order = 7;
  g->m_desc = L"text";
  g->SetBoolProperty(bpSafe, abTrue);
  EXPECT_EQ(g->GetUIData(), &marker);

  CScanGroup_imp deep(*g);
  EXPECT_EQ(Props(deep), L"order=7 desc=text safe=y");
  EXPECT_EQ(deep.m_parent, &root);
  EXPECT_EQ(deep.GetUIData(), &marker);
  EXPECT_EQ(Tree(deep), L"child!");  // children keep their old parent
  EXPECT_EQ(deep.m_children.front().m_parent, g);

  // the base part alone copies the fields it owns, not the texts or lists
  CScanGroup_imp other;
  static_cast<CScanGroup&>(other) = static_cast<const CScanGroup&>(*g);
  EXPECT_EQ(Props(other), L"order=7 safe=y");
  EXPECT_EQ(other.GetChildCount(), 0);
}

TEST_F(Definitions, DeepTreesExpandSortCopyAndFreeWithoutRecursion) {
  // far deeper than any recursion over the tree could reach on the stack
  std::wstring path;
  for (int i = 0; i < 200000; ++i) path += L"a/";
  CScanGroup_imp* deepest = CScanGroup_imp::FindOrAddGroupPath(CString(path.c_str()), Root());
  deepest->m_desc = L"$$";
  EXPECT_FALSE(Load(L"missing"));  // the finishing step expands and sorts the whole tree
  EXPECT_STREQ(deepest->GetDescription(), L"$");
  CScanGroup_imp copy(Root());
  copy = copy.m_children.front();  // a group assigned from its own child
  size_t depth = 0;
  for (const CScanGroup_imp* g = &copy; !g->m_children.empty(); g = &g->m_children.front()) ++depth;
  EXPECT_EQ(depth, 199999u);
}

TEST(ScanGroup, NamesFoldOnlyLatinLettersLikeTheRuntimeCompare) {
  CScanGroup_imp root;
  CScanGroup_imp* upper = Path(root, L"\u00C4rger");
  EXPECT_NE(Path(root, L"\u00E4rger"), upper);
  EXPECT_EQ(Path(root, L"\u00C4RGER"), upper);
  EXPECT_EQ(root.GetChildCount(), 2);
}

}  // namespace
