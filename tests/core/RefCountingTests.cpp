#include <gtest/gtest.h>

#include <list>
#include <thread>
#include <vector>

#include "atl/CString.h"
#include "core/RefCounting.h"

namespace {

struct IWidget : public IUnknown {
  virtual int Value() const = 0;
};
inline constexpr IID IID_IWidget = {0x1a2b3c4d, 0x1111, 0x2222, {0x33, 0x33, 0x44, 0x44, 0x55, 0x55, 0x66, 0x66}};
inline constexpr IID IID_IOther = {0x9a2b3c4d, 0x1111, 0x2222, {0x33, 0x33, 0x44, 0x44, 0x55, 0x55, 0x66, 0x66}};

}  // namespace
BROOM_DECLARE_IID(IWidget, IID_IWidget);

namespace {

int g_destroyed = 0;

class CWidget : public IWidget {
 public:
  explicit CWidget(int value) : m_value(value) {}
  virtual ~CWidget() { ++g_destroyed; }
  int Value() const override { return m_value; }

 private:
  int m_value;
};

using Widget = IUnknownNoQIImp<CWidget>;
using FakeWidget = CFakeBaseIUnknown<CWidget>;
using StaticWidget = CFakeSimpleIUnknownWithRef<CWidget, IWidget>;
using ChainedWidget = CUnknownFoundation<CWidget, CRefCount<0>, CChainIFace<IWidget, CIUnknownOnly>, CDeleteThis>;

class RefCounting : public testing::Test {
 protected:
  void SetUp() override { g_destroyed = 0; }
};

TEST_F(RefCounting, FreshObjectCountsFromZeroAndDiesAtZero) {
  IWidget* w = new Widget(5);
  EXPECT_EQ(w->AddRef(), 1u);
  EXPECT_EQ(g_destroyed, 0);
  EXPECT_EQ(w->Release(), 0u);
  EXPECT_EQ(g_destroyed, 1);
}

TEST_F(RefCounting, IUnknownOnlyAnswersIUnknownAlone) {
  CRefPtr<IWidget> w(new Widget(1));
  void* first = nullptr;
  void* second = nullptr;
  ASSERT_EQ(w->QueryInterface(IID_IUnknown, &first), S_OK);
  ASSERT_EQ(w->QueryInterface(IID_IUnknown, &second), S_OK);
  EXPECT_EQ(first, second);
  static_cast<IUnknown*>(first)->Release();
  static_cast<IUnknown*>(second)->Release();

  void* typed = reinterpret_cast<void*>(1);
  EXPECT_EQ(w->QueryInterface(IID_IWidget, &typed), E_NOINTERFACE);
  EXPECT_EQ(typed, nullptr);
  EXPECT_EQ(w->QueryInterface(IID_IUnknown, nullptr), E_POINTER);
  EXPECT_EQ(w->AddRef(), 2u);  // the failed queries took no reference
  w->Release();
}

TEST_F(RefCounting, FakeBaseNeverCountsNorAnswers) {
  FakeWidget w(3);
  EXPECT_EQ(w.AddRef(), 1u);
  EXPECT_EQ(w.AddRef(), 1u);
  EXPECT_EQ(w.Release(), 1u);
  void* p = reinterpret_cast<void*>(1);
  EXPECT_EQ(w.QueryInterface(IID_IUnknown, &p), E_NOINTERFACE);
  EXPECT_EQ(p, nullptr);
  EXPECT_EQ(g_destroyed, 0);
}

TEST_F(RefCounting, StaticObjectStartsAtOneAndIsNeverDestroyed) {
  static StaticWidget s(9);
  EXPECT_EQ(s.AddRef(), 2u);
  EXPECT_EQ(s.Release(), 1u);
  EXPECT_EQ(s.Release(), 0u);
  EXPECT_EQ(static_cast<LONG>(s.Release()), -1);
  EXPECT_EQ(g_destroyed, 0);
  s.AddRef();
  s.AddRef();  // back to 1 for a later run in the same process
  IWidget* typed = nullptr;
  ASSERT_EQ(s.QueryInterface(IID_IWidget, reinterpret_cast<void**>(&typed)), S_OK);
  EXPECT_EQ(typed->Value(), 9);
  typed->Release();
}

TEST_F(RefCounting, ChainAnswersItsInterfaceAndIUnknown) {
  CRefPtr<IWidget> w(new ChainedWidget(4));
  IWidget* typed = nullptr;
  ASSERT_EQ(w->QueryInterface(IID_IWidget, reinterpret_cast<void**>(&typed)), S_OK);
  EXPECT_EQ(typed, w.Get());
  EXPECT_EQ(typed->Value(), 4);
  typed->Release();
  void* unk = nullptr;
  ASSERT_EQ(w->QueryInterface(IID_IUnknown, &unk), S_OK);
  static_cast<IUnknown*>(unk)->Release();
  void* other = reinterpret_cast<void*>(1);
  EXPECT_EQ(w->QueryInterface(IID_IOther, &other), E_NOINTERFACE);
  EXPECT_EQ(other, nullptr);
  w = nullptr;
  EXPECT_EQ(g_destroyed, 1);
}

TEST_F(RefCounting, RefPtrCountsCopiesAssignmentsAndSelfAssignment) {
  IWidget* raw = new Widget(2);
  {
    CRefPtr<IWidget> a(raw);
    CRefPtr<IWidget> b(a);
    CRefPtr<IWidget> c;
    c = a;
    c = raw;  // already held: unchanged count
    c = c;
    EXPECT_EQ(raw->AddRef(), 4u);
    raw->Release();
    CRefPtr<IWidget> moved(std::move(b));
    EXPECT_FALSE(b);
    EXPECT_TRUE(moved);
    EXPECT_EQ(raw->AddRef(), 4u);
    raw->Release();
  }
  EXPECT_EQ(g_destroyed, 1);
}

TEST_F(RefCounting, RefPtrReplacingReleasesTheOld) {
  CRefPtr<IWidget> p(new Widget(1));
  p = new Widget(2);
  EXPECT_EQ(g_destroyed, 1);
  EXPECT_EQ(p->Value(), 2);
  p.Reset();
  p.Reset();
  EXPECT_EQ(g_destroyed, 2);
}

TEST_F(RefCounting, FactoryPatternEndsWithOneReference) {
  auto factory = [](CRefPtr<IWidget>& out) {
    CRefPtr<IWidget> local(new Widget(7));
    out = local;
  };
  CRefPtr<IWidget> result;
  factory(result);
  EXPECT_EQ(result->AddRef(), 2u);
  result->Release();
}

TEST_F(RefCounting, ConcurrentCountingLosesNothing) {
  IWidget* raw = new Widget(1);
  CRefPtr<IWidget> keep(raw);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([raw] {
      for (int i = 0; i < 20000; ++i) {
        CRefPtr<IWidget> local(raw);
        CRefPtr<IWidget> copy(local);
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(g_destroyed, 0);
  EXPECT_EQ(raw->AddRef(), 2u);
  raw->Release();
}

TEST_F(RefCounting, ConcurrentResetOfOneHolderReleasesOnce) {
  for (int round = 0; round < 200; ++round) {
    CRefPtr<IWidget> shared(new Widget(round));
    std::thread a([&] { shared.Reset(); });
    std::thread b([&] { shared.Reset(); });
    a.join();
    b.join();
  }
  EXPECT_EQ(g_destroyed, 200);
}

TEST(Iterator, EmptyListIsAtEndAtOnce) {
  std::list<int> items;
  CRefPtr<TIteratorIface<int>> it(
      new IUnknownNoQIImp<TIteratorIface_impl<int, std::list<int>::iterator>>(items.begin(), items.end()));
  EXPECT_TRUE(it->AtEnd());
  EXPECT_FALSE(it->Next());
  EXPECT_TRUE(it->AtEnd());
}

TEST(Iterator, WalksEveryElementAndStopsAtTheEnd) {
  std::list<int> items = {10, 20, 30};
  CRefPtr<TIteratorIface<int>> it(
      new IUnknownNoQIImp<TIteratorIface_impl<int, std::list<int>::iterator>>(items.begin(), items.end()));
  std::vector<int> seen;
  for (; !it->AtEnd(); it->Next()) seen.push_back(*it->Current());
  EXPECT_EQ(seen, (std::vector<int>{10, 20, 30}));
  EXPECT_FALSE(it->Next());
  EXPECT_TRUE(it->AtEnd());

  CRefPtr<TIteratorIface<int>> again(
      new IUnknownNoQIImp<TIteratorIface_impl<int, std::list<int>::iterator>>(items.begin(), items.end()));
  EXPECT_TRUE(again->Next());
  EXPECT_TRUE(again->Next());
  EXPECT_FALSE(again->Next());  // moved onto the end
}

TEST(Iterator, ListOfRefPtrGivesTheElementItself) {
  std::list<CRefPtr<IWidget>> ops;
  ops.emplace_back(new Widget(1));
  ops.emplace_back(new Widget(2));
  using It = TIteratorIface_impl<CRefPtr<IWidget>, std::list<CRefPtr<IWidget>>::const_iterator>;
  CRefPtr<TIteratorIface<CRefPtr<IWidget>>> it(new IUnknownNoQIImp<It>(ops.cbegin(), ops.cend()));
  EXPECT_EQ(it->Current(), &ops.front());
  EXPECT_EQ((*it->Current())->Value(), 1);
  it->Next();
  EXPECT_EQ((*it->Current())->Value(), 2);
}

TEST(ConstTArray, HoldsWhatTheCreatorPutIn) {
  auto* array = new IUnknownNoQIImp<CConstTArray<CString>>();
  array->Items().push_back(CString(L"one"));
  array->Items().push_back(CString(L"two"));
  CRefPtr<IConstTArray<CString>> held(array);
  ASSERT_EQ(held->GetArray().size(), 2u);
  EXPECT_STREQ(held->GetArray()[1].GetString(), L"two");
  void* unk = nullptr;
  EXPECT_EQ(held->QueryInterface(IID_IUnknown, &unk), S_OK);
  static_cast<IUnknown*>(unk)->Release();
}

}  // namespace
