#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "core/Handles.h"
#include "core/RefCounting.h"
#include "textconv/TextConv.h"
#include "threads/BaseThread.h"

namespace {

constexpr UINT kRecord = WM_APP + 1;  // wParam is appended to m_handled
constexpr UINT kBlock = WM_APP + 2;   // lParam is an event the handler waits for
constexpr UINT kSlow = WM_APP + 3;    // sleeps 50 ms, then sets m_slowDone

std::atomic<int> g_destroyed{0};
std::atomic<DWORD> g_destroyedOn{0};

class CWorker : public CSimpleThreadMessageMap {
 public:
  ~CWorker() override {
    g_destroyedOn = GetCurrentThreadId();
    ++g_destroyed;
  }
  void ProcessThreadMessage(UINT message, WPARAM wParam, LPARAM lParam) override {
    switch (message) {
      case kRecord:
        m_handled.push_back(static_cast<int>(wParam));
        m_handledOn = GetCurrentThreadId();
        break;
      case kBlock:
        WaitForSingleObject(reinterpret_cast<HANDLE>(lParam), INFINITE);
        break;
      case kSlow:
        Sleep(50);
        m_slowDone = true;
        break;
      default:
        CSimpleThreadMessageMap::ProcessThreadMessage(message, wParam, lParam);
    }
  }
  void OnBeforeStart() override {
    ++m_beforeStartCalls;
    CSimpleThreadMessageMap::OnBeforeStart();
  }

  std::vector<int> m_handled;
  DWORD m_handledOn = 0;
  bool m_slowDone = false;
  std::atomic<int> m_beforeStartCalls{0};
};
using Worker = CUnknownFoundation<CWorker, CCustomRef, CIUnknownOnly, CDeleteThis>;

// A thread that never runs the message loop.
class CNoLoop : public CSimpleThreadMessageMap {
 public:
  unsigned long ThreadProc() override {
    WaitForSingleObject(m_release.get(), INFINITE);
    return 3;
  }
  broom::unique_event m_release{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
};
using NoLoop = CUnknownFoundation<CNoLoop, CCustomRef, CIUnknownOnly, CDeleteThis>;

class CThrower : public CSimpleThreadMessageMap {
 public:
  unsigned long ThreadProc() override {
    if (m_byPointer) throw new textconv::exception("boom");
    throw 42;
  }
  bool m_byPointer = false;
};
using Thrower = CUnknownFoundation<CThrower, CCustomRef, CIUnknownOnly, CDeleteThis>;

broom::unique_event NewEvent() { return broom::unique_event(CreateEventW(nullptr, TRUE, FALSE, nullptr)); }

broom::unique_thread DupThread(CThreadWrapper& t) {
  HANDLE copy = nullptr;
  DuplicateHandle(GetCurrentProcess(), t.GetThreadHandle(), GetCurrentProcess(), &copy, 0, FALSE,
                  DUPLICATE_SAME_ACCESS);
  return broom::unique_thread(copy);
}

DWORD ExitCodeAfterEnd(HANDLE thread) {
  EXPECT_EQ(WaitForSingleObject(thread, 10000), WAIT_OBJECT_0);
  DWORD code = 12345;
  GetExitCodeThread(thread, &code);
  return code;
}

// Runs f, which must throw a textconv::exception*, and returns its text.
template <class F>
std::string PostFailure(F f) {
  try {
    f();
  } catch (textconv::exception* e) {
    std::string text = e->what();
    delete e;
    return text;
  }
  return "(nothing thrown)";
}

class ThreadMessageMap : public testing::Test {
 protected:
  void SetUp() override { g_destroyed = 0; }
};

TEST_F(ThreadMessageMap, FreshWrapperIsNotStartedAndHasNoThread) {
  CRefPtr<Worker> w(new Worker);
  EXPECT_EQ(w->GetState(), CThreadWrapper::tsNotStarted);
  EXPECT_EQ(w->GetThreadHandle(), nullptr);
  EXPECT_EQ(w->GetThreadId(), 0u);
  EXPECT_EQ(w->RefCountMember(), 1);
}

TEST_F(ThreadMessageMap, PostRightAfterStartIsHandledOnTheWorkerInOrder) {
  CRefPtr<Worker> w(new Worker);
  w->Start();
  // No wait between Start and the first post: PostToThread waits for the queue.
  for (int i = 0; i < 500; ++i) w->PostToThread(kRecord, static_cast<WPARAM>(i), 0);
  EXPECT_EQ(w->GetState(), CThreadWrapper::tsRunning);
  EXPECT_EQ(w->RefCountMember(), 2);  // ours and the running thread's
  ASSERT_TRUE(w->SendToThread(kRecord, 500, 0));
  ASSERT_EQ(w->m_handled.size(), 501u);
  for (int i = 0; i <= 500; ++i) ASSERT_EQ(w->m_handled[i], i);
  EXPECT_EQ(w->m_handledOn, w->GetThreadId());
  EXPECT_NE(w->m_handledOn, GetCurrentThreadId());
  // Once on the creating thread, once on the new one.
  EXPECT_EQ(w->m_beforeStartCalls, 2);

  auto thread = DupThread(*w);
  w->CleanUp();
  EXPECT_EQ(w->GetState(), CThreadWrapper::tsFinished);
  EXPECT_EQ(ExitCodeAfterEnd(thread.get()), 0u);
  EXPECT_EQ(w->RefCountMember(), 1);  // the thread gave its reference back
  w = nullptr;
  EXPECT_EQ(g_destroyed, 1);
}

TEST_F(ThreadMessageMap, SendToThreadReturnsOnlyAfterTheHandlerRan) {
  CRefPtr<Worker> w(new Worker);
  w->Start();
  EXPECT_TRUE(w->SendToThread(kSlow, 0, 0));
  EXPECT_TRUE(w->m_slowDone);
  w->CleanUp();
}

TEST_F(ThreadMessageMap, SyncCallRecordIsHandledThroughProcessThreadMessage) {
  CRefPtr<Worker> w(new Worker);
  w->Start();
  MSG record = {};
  record.message = kRecord;
  record.wParam = 77;
  auto done = NewEvent();
  HANDLE doneHandle = done.get();
  w->PostToThread(MSG_SYNC_CALL, reinterpret_cast<WPARAM>(&record), reinterpret_cast<LPARAM>(&doneHandle));
  ASSERT_EQ(WaitForSingleObject(done.get(), 10000), WAIT_OBJECT_0);
  ASSERT_EQ(w->m_handled.size(), 1u);
  EXPECT_EQ(w->m_handled[0], 77);
  w->CleanUp();
}

TEST_F(ThreadMessageMap, SendToThreadBehindQuitReportsNotHandled) {
  CRefPtr<Worker> w(new Worker);
  w->Start();
  auto gate = NewEvent();
  w->PostToThread(kBlock, 0, reinterpret_cast<LPARAM>(gate.get()));
  w->PostToThread(WM_QUIT, 0, 0);
  std::thread opener([&] {
    Sleep(100);
    SetEvent(gate.get());
  });
  EXPECT_FALSE(w->SendToThread(kRecord, 1, 0));
  opener.join();
  EXPECT_TRUE(w->m_handled.empty());
}

TEST_F(ThreadMessageMap, QuitWithSevenEndsLoopWithSevenAndDropsLaterMessages) {
  CRefPtr<Worker> w(new Worker);
  w->Start();
  auto gate = NewEvent();
  w->PostToThread(kBlock, 0, reinterpret_cast<LPARAM>(gate.get()));
  w->PostToThread(WM_QUIT, 7, 0);
  w->PostToThread(kRecord, 1, 0);
  auto thread = DupThread(*w);
  SetEvent(gate.get());
  EXPECT_EQ(ExitCodeAfterEnd(thread.get()), 7u);
  EXPECT_TRUE(w->m_handled.empty());
  EXPECT_EQ(w->GetState(), CThreadWrapper::tsFinished);
  EXPECT_EQ(w->RefCountMember(), 1);
}

TEST_F(ThreadMessageMap, RunningThreadKeepsObjectAliveAfterOwnerReleases) {
  Worker* raw = new Worker;
  raw->AddRef();
  raw->Start();
  auto gate = NewEvent();
  raw->PostToThread(kBlock, 0, reinterpret_cast<LPARAM>(gate.get()));
  raw->PostToThread(WM_QUIT, 0, 0);
  auto thread = DupThread(*raw);
  DWORD workerId = raw->GetThreadId();
  EXPECT_EQ(raw->Release(), 1u);
  EXPECT_EQ(g_destroyed, 0);
  SetEvent(gate.get());
  EXPECT_EQ(ExitCodeAfterEnd(thread.get()), 0u);
  EXPECT_EQ(g_destroyed, 1);
  EXPECT_EQ(g_destroyedOn, workerId);  // the thread's own release was the last
}

TEST_F(ThreadMessageMap, CleanUpOnMapThatIsNotRunningNeitherPostsNorWaits) {
  CRefPtr<Worker> w(new Worker);
  // Posting would wait 5 s and throw: returning quietly shows nothing was posted.
  w->CleanUp();
  EXPECT_EQ(w->GetState(), CThreadWrapper::tsNotStarted);

  w->Start();
  w->CleanUp();
  ASSERT_EQ(w->GetState(), CThreadWrapper::tsFinished);
  w->CleanUp();  // finished: again nothing posted
  EXPECT_EQ(w->GetState(), CThreadWrapper::tsFinished);
}

TEST_F(ThreadMessageMap, ThrowingThreadProcEndsWithZeroAndReleasesItsReference) {
  for (bool byPointer : {false, true}) {
    CRefPtr<Thrower> t(new Thrower);
    t->m_byPointer = byPointer;
    t->Start();
    auto thread = DupThread(*t);
    EXPECT_EQ(ExitCodeAfterEnd(thread.get()), 0u);
    EXPECT_EQ(t->GetState(), CThreadWrapper::tsFinished);
    EXPECT_EQ(t->RefCountMember(), 1);
  }
}

TEST_F(ThreadMessageMap, ThreadExitCodeIsWhatThreadProcReturned) {
  CRefPtr<NoLoop> n(new NoLoop);
  n->Start();
  auto thread = DupThread(*n);
  SetEvent(n->m_release.get());
  EXPECT_EQ(ExitCodeAfterEnd(thread.get()), 3u);
}

// Slow: each waits out the 5 seconds the poster allows.
TEST_F(ThreadMessageMap, PostToThreadWithoutLoopFailsWithNeverReady) {
  CRefPtr<NoLoop> n(new NoLoop);
  n->Start();
  ULONGLONG started = GetTickCount64();
  EXPECT_EQ(PostFailure([&] { n->PostToThread(kRecord, 0, 0); }),
            "message map thread never reached ready state");
  EXPECT_GE(GetTickCount64() - started, 4500u);
  auto thread = DupThread(*n);
  SetEvent(n->m_release.get());
  ExitCodeAfterEnd(thread.get());
}

TEST_F(ThreadMessageMap, PostToThreadNeverStartedFailsWithNeverReady) {
  CRefPtr<Worker> w(new Worker);
  EXPECT_EQ(PostFailure([&] { w->PostToThread(kRecord, 0, 0); }),
            "message map thread never reached ready state");
}

TEST_F(ThreadMessageMap, PostToEndedThreadFailsRepeatedly) {
  CRefPtr<Worker> w(new Worker);
  w->Start();
  w->CleanUp();
  ULONGLONG started = GetTickCount64();
  // The ready event stays set, so all 21 tries are made.
  EXPECT_EQ(PostFailure([&] { w->PostToThread(kRecord, 0, 0); }), "PostThreadMessage failed repeatedly");
  EXPECT_GE(GetTickCount64() - started, 4500u);
}

TEST_F(ThreadMessageMap, ManyPostersEachSeeTheirOwnOrder) {
  CRefPtr<Worker> w(new Worker);
  w->Start();
  constexpr int kThreads = 4;
  constexpr int kEach = 2000;
  std::vector<std::thread> posters;
  for (int t = 0; t < kThreads; ++t)
    posters.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) w->PostToThread(kRecord, static_cast<WPARAM>(t * kEach + i), 0);
    });
  for (auto& p : posters) p.join();
  ASSERT_TRUE(w->SendToThread(0, 0, 0));
  ASSERT_EQ(w->m_handled.size(), static_cast<size_t>(kThreads * kEach));
  std::vector<int> next(kThreads, 0);
  for (int value : w->m_handled) {
    int t = value / kEach;
    ASSERT_EQ(value % kEach, next[t]) << "poster " << t << " out of order";
    ++next[t];
  }
  w->CleanUp();
}

}  // namespace
