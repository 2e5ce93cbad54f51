#include <windows.h>
#include <psapi.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "common/HandleCount.h"
#include "core/PathString.h"
#include "core/RefCounting.h"
#include "threads/MsgThreadSTA.h"

namespace {

struct Recorder : CNamedMsgRouter::IMsgReceiver {
  LRESULT Receive(const wchar_t* name, LPARAM param) override {
    thread = GetCurrentThreadId();
    lastName = name;
    total += static_cast<int>(param);
    ++calls;
    if (throws) throw 1;
    if (removeSelf) router->RemoveReceiver(name, this);
    return 0;
  }
  DWORD thread = 0;
  std::wstring lastName;
  int total = 0, calls = 0;
  bool throws = false, removeSelf = false;
  CNamedMsgRouter* router = nullptr;
};

class StaThread : public testing::Test {
 protected:
  void SetUp() override { broomtest::AllowHandleGrowth(); }
  static void TearDownTestSuite() { CXmlConfigGlobal::Shutdown(); }
  static HWND Window() { return CXmlConfigGlobal::GetSTAMsgThread()->GetRouterWindow(); }
};

TEST_F(StaThread, OneThreadServesEveryDelivery) {
  CMsgThreadSTA* sta = CXmlConfigGlobal::GetSTAMsgThread();
  EXPECT_EQ(CXmlConfigGlobal::GetSTAMsgThread(), sta);
  Recorder r;
  EXPECT_EQ(CNamedMsgRouter::SendDelivery(Window(), L"", 5, &r), 0);
  EXPECT_EQ(r.thread, sta->GetThreadId());
  EXPECT_NE(r.thread, GetCurrentThreadId());
  EXPECT_EQ(r.total, 5);

  r.throws = true;  // swallowed on the STA thread; the router keeps working
  EXPECT_EQ(CNamedMsgRouter::SendDelivery(Window(), L"", 1, &r), 0);
  r.throws = false;
  EXPECT_EQ(CNamedMsgRouter::SendDelivery(Window(), L"", 1, &r), 0);
  EXPECT_EQ(r.calls, 3);
}

// Private bytes of the process: a leaked name of 64 KB each is easy to see.
SIZE_T PrivateBytes() {
  PROCESS_MEMORY_COUNTERS counters = {};
  counters.cb = sizeof counters;
  GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters);
  return counters.PagefileUsage;
}

TEST_F(StaThread, DeliveryThatNeverArrivesSaysSoAndFreesItsName) {
  Recorder r;
  std::wstring name(32 * 1024, L'n');
  bool delivered = true;
  CNamedMsgRouter::SendDelivery(nullptr, name.c_str(), 1, &r, &delivered);
  EXPECT_FALSE(delivered);
  SIZE_T before = PrivateBytes();
  for (int i = 0; i < 1000; ++i) CNamedMsgRouter::SendDelivery(nullptr, name.c_str(), 1, &r);
  EXPECT_LT(PrivateBytes(), before + (16u << 20)) << "names of failed deliveries are leaked";
  EXPECT_EQ(r.calls, 0);
  CNamedMsgRouter::SendDelivery(Window(), name.c_str(), 1, &r, &delivered);
  EXPECT_TRUE(delivered);
  EXPECT_EQ(r.calls, 1);
}

TEST_F(StaThread, ManySendersNoLostResult) {
  std::atomic<int> sum{0};
  struct Adder : CNamedMsgRouter::IMsgReceiver {
    std::atomic<int>* sum;
    bool busy = false;
    LRESULT Receive(const wchar_t*, LPARAM param) override {
      *sum += static_cast<int>(param);
      return 0;
    }
  };
  std::vector<std::thread> threads;
  HWND window = Window();
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      Adder adder;
      adder.sum = &sum;
      for (int i = 1; i <= 100; ++i) CNamedMsgRouter::SendDelivery(window, L"", i, &adder);
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(sum.load(), 4 * 5050);
}

TEST_F(StaThread, ReceiversByName) {
  HWND window = Window();
  CNamedMsgRouter* router = CXmlConfigGlobal::GetSTAMsgThread()->GetRouter();
  Recorder a, b;
  a.router = b.router = router;
  auto send = [&](UINT msg, const wchar_t* name, LPARAM lParam) {
    return SendMessageW(window, msg, reinterpret_cast<WPARAM>(CNamedMsgRouter::AllocName(name)), lParam);
  };
  send(CNamedMsgRouter::msgAddReceiver, L"evt", reinterpret_cast<LPARAM>(&a));
  send(CNamedMsgRouter::msgAddReceiver, L"evt", reinterpret_cast<LPARAM>(&a));  // once only
  send(CNamedMsgRouter::msgAddReceiver, L"evt", reinterpret_cast<LPARAM>(&b));
  EXPECT_EQ(send(CNamedMsgRouter::msgBroadcast, L"evt", 2), 2);
  EXPECT_EQ(a.total, 2);
  EXPECT_EQ(b.total, 2);
  EXPECT_EQ(send(CNamedMsgRouter::msgBroadcast, L"EVT", 2), 0);  // names are case-sensitive
  a.removeSelf = true;
  send(CNamedMsgRouter::msgBroadcast, L"evt", 1);
  EXPECT_EQ(a.calls, 2);  // called exactly once in the broadcast that removed it
  send(CNamedMsgRouter::msgBroadcast, L"evt", 1);
  EXPECT_EQ(a.calls, 2);
  EXPECT_EQ(b.calls, 3);
  send(CNamedMsgRouter::msgRemoveReceiver, L"evt", reinterpret_cast<LPARAM>(&b));
  EXPECT_EQ(send(CNamedMsgRouter::msgBroadcast, L"evt", 1), 0);
  send(CNamedMsgRouter::msgRemoveAll, nullptr, 0);
  auto* owned = CNamedMsgRouter::AllocDelivery(7, &b);
  PostMessageW(window, CNamedMsgRouter::msgDeliverOwned, 0, reinterpret_cast<LPARAM>(owned));
  // sent messages overtake posted ones: wait for the posted block to be served
  for (int i = 0; i < 2000 && b.total != 2 + 1 + 1 + 7; ++i) Sleep(5);
  EXPECT_EQ(b.total, 2 + 1 + 1 + 7);
}

TEST_F(StaThread, WindowClassIsSharedAndReleasedWithItsLastWindow) {
  ASSERT_EQ(CMessageWnd::ClassUsers(CNamedMsgRouter::kClassName), 1);
  {
    CNamedMsgRouter second;  // on this thread: shares the class
    EXPECT_EQ(CMessageWnd::ClassUsers(CNamedMsgRouter::kClassName), 2);
    Recorder r;
    CNamedMsgRouter::SendDelivery(second.GetHwnd(), L"", 3, &r);
    EXPECT_EQ(r.thread, GetCurrentThreadId());
  }
  EXPECT_EQ(CMessageWnd::ClassUsers(CNamedMsgRouter::kClassName), 1);
  CFakeBaseIUnknown<CMessageWnd> window;
  window.Create(L"BroomTestClass", nullptr);
  EXPECT_THROW(window.Create(L"BroomTestClass", nullptr), Exception);
  window.Destroy();
  EXPECT_EQ(CMessageWnd::ClassUsers(L"BroomTestClass"), 0);
}

struct Counted : IUnknown {};
using CountedObject = CUnknownFoundation<Counted, CRefCount<0>, CIUnknownOnly, CDontDelete>;

TEST_F(StaThread, MarshalsInterfacesToTheThread) {
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  CMsgThreadSTA* sta = CXmlConfigGlobal::GetSTAMsgThread();
  static CountedObject object;
  IUnknown* source = static_cast<Counted*>(&object);
  source->AddRef();
  IUnknown* delivered = nullptr;
  EXPECT_EQ(sta->Marshal(source, reinterpret_cast<void**>(&delivered), IID_IUnknown), 0);
  ASSERT_NE(delivered, nullptr);  // free-threaded side: the same object comes through
  delivered->Release();

  AutoMarshal_base holder;
  holder.Set(source, IID_IUnknown);
  IUnknown* first = nullptr;
  sta->Deliver(&holder, reinterpret_cast<void**>(&first), IID_IUnknown, true);
  ASSERT_NE(first, nullptr);
  first->Release();
  EXPECT_TRUE(holder.HasStream());  // retained: deliverable again
  IUnknown* second = nullptr;
  sta->Deliver(&holder, reinterpret_cast<void**>(&second), IID_IUnknown, false);
  ASSERT_NE(second, nullptr);
  second->Release();
  IUnknown* third = reinterpret_cast<IUnknown*>(1);
  sta->Deliver(&holder, reinterpret_cast<void**>(&third), IID_IUnknown, false);
  EXPECT_EQ(third, nullptr);
  source->Release();
  CoUninitialize();
}

TEST_F(StaThread, ShutdownEndsTheThreadAndANewOneStarts) {
  CMsgThreadSTA* first = CXmlConfigGlobal::GetSTAMsgThread();
  DWORD firstId = first->GetThreadId();
  CXmlConfigGlobal::Shutdown();
  EXPECT_FALSE(CXmlConfigGlobal::IsRunning());
  CMsgThreadSTA* next = CXmlConfigGlobal::GetSTAMsgThread();
  EXPECT_NE(next->GetThreadId(), firstId);
  Recorder r;
  CNamedMsgRouter::SendDelivery(next->GetRouterWindow(), L"", 1, &r);
  EXPECT_EQ(r.thread, next->GetThreadId());
}

}  // namespace
