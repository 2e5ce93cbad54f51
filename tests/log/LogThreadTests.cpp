#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/HandleCount.h"
#include "common/TestFiles.h"
#include "core/Handles.h"
#include "core/RefCounting.h"
#include "log/LogThread.h"
#include "textconv/TextConv.h"

namespace {

constexpr UINT kBlock = WM_APP + 2;  // lParam is an event the log thread waits for

class CTestLog : public CLogThread {
 public:
  void ProcessThreadMessage(UINT message, WPARAM wParam, LPARAM lParam) override {
    if (message == kBlock) {
      WaitForSingleObject(reinterpret_cast<HANDLE>(lParam), INFINITE);
      return;
    }
    CLogThread::ProcessThreadMessage(message, wParam, lParam);
  }
  void OnTerminated() override { ++m_terminatedCalls; }
  HANDLE FileHandle() const { return m_hFile.get(); }
  // Every text posted before this call is in the file when it returns.
  void Flush() { ASSERT_TRUE(SendToThread(WM_NULL, 0, 0)); }

  std::atomic<int> m_terminatedCalls{0};
};
using TestLog = CUnknownFoundation<CTestLog, CCustomRef, CIUnknownOnly, CDeleteThis>;

// A running log on path, stopped when the holder goes.
class RunningLog {
 public:
  explicit RunningLog(const std::wstring& path) : m_log(new TestLog) {
    EXPECT_TRUE(m_log->StartLogging(path.c_str(), false));
  }
  ~RunningLog() { m_log->CleanUp(); }
  TestLog* operator->() const { return m_log.Get(); }

 private:
  CRefPtr<TestLog> m_log;
};

std::string Utf16(const std::wstring& text) {
  return std::string(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t));
}

long LiveBlocks(TCharArrayAlloc<wchar_t>& pool) {
  long live = 0;
  const wchar_t* buffer;
  size_t freeCount;
  LONG blocks;
  for (size_t i = 0; pool.GetUnitInfo(i, buffer, freeCount, blocks); ++i) live += blocks;
  return live;
}

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

// ---- the block pool ----

TEST(CharArrayAlloc, FreshUnitServesFourThousandsAndFifthOpensNewUnitInFront) {
  TCharArrayAlloc<wchar_t> pool;
  wchar_t* blocks[4];
  for (auto& b : blocks) b = pool.Alloc(1000);
  ASSERT_EQ(pool.UnitCount(), 1u);
  const wchar_t* first;
  size_t freeCount;
  LONG live;
  ASSERT_TRUE(pool.GetUnitInfo(0, first, freeCount, live));
  EXPECT_EQ(freeCount, 96u);
  EXPECT_EQ(live, 4);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(blocks[i], first + 1000 * i);

  wchar_t* fifth = pool.Alloc(1000);
  ASSERT_EQ(pool.UnitCount(), 2u);
  const wchar_t* front;
  ASSERT_TRUE(pool.GetUnitInfo(0, front, freeCount, live));
  EXPECT_NE(front, first);
  EXPECT_EQ(fifth, front);
  EXPECT_EQ(freeCount, 3096u);
  // A small request still fits the front unit first, in list order.
  EXPECT_EQ(pool.Alloc(96), front + 1000);
}

TEST(CharArrayAlloc, UnitWhoseBlocksAllCameBackIsReusedFromItsStart) {
  TCharArrayAlloc<wchar_t> pool;
  wchar_t* a = pool.Alloc(3000);
  wchar_t* b = pool.Alloc(1000);
  wchar_t* c = pool.Alloc(2000);  // second unit, now in front
  const wchar_t* buffer;
  size_t freeCount;
  LONG live;

  pool.Free(a);  // one block of the old unit still out: nothing moves
  ASSERT_TRUE(pool.GetUnitInfo(1, buffer, freeCount, live));
  EXPECT_EQ(buffer, a);
  EXPECT_EQ(live, 1);
  EXPECT_EQ(freeCount, 96u);

  pool.Free(b);  // empty: rewound and moved to the front
  ASSERT_TRUE(pool.GetUnitInfo(0, buffer, freeCount, live));
  EXPECT_EQ(buffer, a);
  EXPECT_EQ(live, 0);
  EXPECT_EQ(freeCount, 4096u);
  EXPECT_EQ(pool.Alloc(4096), a);  // a whole unit again
  pool.Free(c);
  EXPECT_EQ(pool.UnitCount(), 2u);  // units are kept
}

TEST(CharArrayAlloc, OversizedRequestGetsItsOwnBlockReleasedOnFree) {
  TCharArrayAlloc<wchar_t> pool;
  wchar_t* big = pool.Alloc(4097);
  EXPECT_EQ(pool.UnitCount(), 0u);
  EXPECT_EQ(pool.LargeBlockCount(), 1u);
  big[4096] = L'x';  // the whole block is usable
  wchar_t* exact = pool.Alloc(4096);
  EXPECT_EQ(pool.UnitCount(), 1u);
  pool.Free(big);
  EXPECT_EQ(pool.LargeBlockCount(), 0u);
  pool.Free(exact);
  EXPECT_EQ(LiveBlocks(pool), 0);
}

TEST(CharArrayAlloc, ForeignPointerIsIgnored) {
  TCharArrayAlloc<wchar_t> pool;
  wchar_t* a = pool.Alloc(10);
  wchar_t stray[4];
  pool.Free(stray);
  pool.Free(nullptr);
  EXPECT_EQ(LiveBlocks(pool), 1);
  pool.Free(a);
  EXPECT_EQ(LiveBlocks(pool), 0);
}

// ---- the log thread ----

class LogThread : public testing::Test {
 protected:
  broomtest::TempDir m_dir;
  std::wstring m_path = m_dir / L"test.log";
};

TEST_F(LogThread, AppendsRawUtf16AfterExistingContentWithCrLfOnRequest) {
  broomtest::WriteFile(m_path, Utf16(L"old\r\n"));
  {
    RunningLog log(m_path);
    log->LogString(L"first", true, 0);
    log->LogString(L"x\u00e9\u20ac", false, 0);
    log->LogString(L"abcdef", false, 3);  // only the given length
    log->LogString(L"", true, 0);
    // The file is held exclusively while the log runs.
    EXPECT_THROW(broomtest::ReadFile(m_path), std::runtime_error);
    log->LogString(L"z", false, 0);
  }
  // Stopping writes what was queued before it.
  EXPECT_EQ(broomtest::ReadFile(m_path), Utf16(L"old\r\nfirst\r\nx\u00e9\u20acabc\r\nz"));
}

TEST_F(LogThread, CreatesMissingFileWithoutByteOrderMark) {
  {
    RunningLog log(m_path);
    log->LogString(L"A", false, 0);
  }
  EXPECT_EQ(broomtest::ReadFile(m_path), std::string("A\0", 2));
}

TEST_F(LogThread, ResetThenTextLeavesOnlyThatText) {
  broomtest::WriteFile(m_path, Utf16(L"previous run"));
  {
    RunningLog log(m_path);
    log->LogString(L"before", true, 0);
    log->ResetLog();
    log->LogString(L"after", true, 0);
  }
  EXPECT_EQ(broomtest::ReadFile(m_path), Utf16(L"after\r\n"));
}

TEST_F(LogThread, StartingTwiceKeepsTheOpenFileAndSecondLogOnSamePathFails) {
  RunningLog log(m_path);
  HANDLE opened = log->FileHandle();
  EXPECT_TRUE(log->StartLogging(m_path.c_str(), false));
  EXPECT_EQ(log->FileHandle(), opened);

  CRefPtr<TestLog> second(new TestLog);
  EXPECT_FALSE(second->StartLogging(m_path.c_str(), false));
  EXPECT_FALSE(second->IsLogRunning());
  EXPECT_EQ(second->GetState(), CThreadWrapper::tsNotStarted);
  // Upper case names the same file.
  std::wstring upper = m_path;
  for (auto& ch : upper) ch = towupper(ch);
  EXPECT_FALSE(second->StartLogging(upper.c_str(), true));
}

TEST_F(LogThread, MissingFolderFailsWithoutThread) {
  CRefPtr<TestLog> log(new TestLog);
  EXPECT_FALSE(log->StartLogging((m_dir / L"no\\such\\test.log").c_str(), false));
  EXPECT_FALSE(log->IsLogRunning());
  EXPECT_EQ(log->GetState(), CThreadWrapper::tsNotStarted);
  EXPECT_EQ(log->GetThreadHandle(), nullptr);
}

TEST_F(LogThread, TextsAroundUnitSizeAreLoggedWhole) {
  // 4093 + CR LF + zero fills a unit exactly; one more character needs a block of its own.
  std::wstring exact(4093, L'e');
  std::wstring over(4094, L'o');
  std::wstring huge(20000, L'h');
  for (size_t i = 0; i < huge.size(); i += 97) huge[i] = static_cast<wchar_t>(L'0' + i % 10);
  long liveBefore = LiveBlocks(CLogThread::m_alloc);
  {
    RunningLog log(m_path);
    log->LogString(exact.c_str(), true, 0);
    log->LogString(over.c_str(), true, 0);
    log->LogString(huge.c_str(), false, static_cast<unsigned long>(huge.size()));
    log->LogString(L"tail", false, 0);
    log->Flush();
  }
  EXPECT_EQ(broomtest::ReadFile(m_path), Utf16(exact + L"\r\n" + over + L"\r\n" + huge + L"tail"));
  EXPECT_EQ(CLogThread::m_alloc.LargeBlockCount(), 0u);
  EXPECT_EQ(LiveBlocks(CLogThread::m_alloc), liveBefore);
}

TEST_F(LogThread, StoppedLogClosesItsFileAndDropsTextsQueuedBehindQuit) {
  CRefPtr<TestLog> log(new TestLog);
  ASSERT_TRUE(log->StartLogging(m_path.c_str(), false));
  broom::unique_event gate(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  log->LogString(L"kept", false, 0);
  log->PostToThread(kBlock, 0, reinterpret_cast<LPARAM>(gate.get()));
  log->PostToThread(WM_QUIT, 0, 0);
  log->LogString(L"dropped", false, 0);
  SetEvent(gate.get());
  log->CleanUp();  // the thread has already been told to end: only waits
  EXPECT_EQ(log->GetState(), CThreadWrapper::tsFinished);
  EXPECT_FALSE(log->IsLogRunning());
  EXPECT_EQ(broomtest::ReadFile(m_path), Utf16(L"kept"));
  // The dropped text's block came back to the pool too.
  EXPECT_EQ(LiveBlocks(CLogThread::m_alloc), 0);
  // The file is free again for anyone.
  broom::unique_hfile reopen(CreateFileW(m_path.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_TRUE(reopen.valid());
}

// Slow: these wait out the 5 seconds the poster allows.
TEST_F(LogThread, LoggingToNeverStartedLogThrowsNeverReadyAndReturnsBlock) {
  CRefPtr<TestLog> log(new TestLog);
  long before = LiveBlocks(CLogThread::m_alloc);
  EXPECT_EQ(PostFailure([&] { log->LogString(L"lost", true, 0); }),
            "message map thread never reached ready state");
  EXPECT_EQ(LiveBlocks(CLogThread::m_alloc), before);
}

TEST_F(LogThread, LoggingToEndedLogFailsRepeatedly) {
  CRefPtr<TestLog> log(new TestLog);
  ASSERT_TRUE(log->StartLogging(m_path.c_str(), false));
  log->CleanUp();
  EXPECT_EQ(PostFailure([&] { log->ResetLog(); }), "PostThreadMessage failed repeatedly");
}

// Slow: CleanUp waits its full 10 seconds before killing.
TEST_F(LogThread, ThreadThatDoesNotStopIsKilledAndReadsTerminated) {
  // A killed thread never runs its detach code, so the system's handle on
  // its message queue stays open for the life of the process.
  broomtest::AllowHandleGrowth();
  auto* log = new TestLog;
  log->AddRef();
  ASSERT_TRUE(log->StartLogging(m_path.c_str(), false));
  broom::unique_event gate(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  log->LogString(L"written", false, 0);
  log->PostToThread(kBlock, 0, reinterpret_cast<LPARAM>(gate.get()));
  log->CleanUp();
  EXPECT_EQ(log->GetState(), CThreadWrapper::tsTerminated);
  EXPECT_EQ(log->m_terminatedCalls, 1);
  DWORD code = 0;
  GetExitCodeThread(log->GetThreadHandle(), &code);
  EXPECT_EQ(code, 0xFFFFFFFFu);
  // A killed thread never gave its reference back; the file it owned was
  // closed by its stopper, so the path can be logged to again.
  EXPECT_EQ(log->RefCountMember(), 2);
  EXPECT_FALSE(log->IsLogRunning());
  EXPECT_EQ(broomtest::ReadFile(m_path), Utf16(L"written"));
  {
    RunningLog again(m_path);
    again->LogString(L" again", false, 0);
    again->Flush();
  }
  log->CleanUp();  // a killed thread is waited for no more
  EXPECT_EQ(log->GetState(), CThreadWrapper::tsTerminated);
  log->Release();
  log->Release();  // the dead thread's reference
  EXPECT_EQ(broomtest::ReadFile(m_path), Utf16(L"written again"));
}

}  // namespace
