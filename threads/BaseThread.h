#pragma once
// Threads as reference-counted objects, and the message-driven worker built on
// them: other threads post numbered messages into the worker's own queue and
// the worker hands each one to ProcessThreadMessage until WM_QUIT arrives.
#include <windows.h>
#include <unknwn.h>

#include "core/Export.h"
#include "core/Handles.h"

// Thrown (as a pointer to a new object) when a thread cannot be created or resumed.
class BROOM_API CTmpExcep {
 public:
  CTmpExcep() = default;
  virtual ~CTmpExcep() = default;
};

// Messages understood by the message maps. WM_QUIT (0x0012) ends the loop
// with its wParam as the exit code.
//
// MSG_SYNC_CALL: wParam points at a MSG record (only message, wParam and
// lParam are used), lParam at a HANDLE of an event. The worker handles the
// inner message and then signals the event.
constexpr UINT MSG_SYNC_CALL = WM_APP + 0x176;
constexpr UINT MSG_LOG_STRING = WM_APP + 0x177;
constexpr UINT MSG_LOG_RESET = WM_APP + 0x178;

class BROOM_API CThreadWrapper {
 public:
  enum EThreadState : DWORD {
    tsNotStarted = 0,
    tsCreated = 1,
    tsRunning = 2,
    tsFinished = 3,
    tsTerminated = 4,
  };

  CThreadWrapper();
  // Called on the creating thread when the thread is created, and again
  // first thing on the new thread.
  virtual void OnBeforeStart();
  // Called after the thread had to be killed.
  virtual void OnTerminated();
  // Closes the thread handle; does not stop the thread: its owner does that first.
  virtual ~CThreadWrapper();

  CThreadWrapper(const CThreadWrapper&) = delete;
  CThreadWrapper& operator=(const CThreadWrapper&) = delete;

  DWORD GetState() const { return static_cast<DWORD>(m_state) & 0xF; }
  HANDLE GetThreadHandle() const { return m_hThread.get(); }
  DWORD GetThreadId() const { return m_threadId; }

 protected:
  // Replaces the low four bits of m_state, keeping the others.
  void SetState(DWORD state);
  // A second handle on the thread for waits that must outlast the object
  // (its own thread may destroy it); null when there is no thread.
  HANDLE DuplicateThreadHandle() const;

  broom::unique_thread m_hThread;
  DWORD m_threadId;
  volatile LONG m_state;
};

class BROOM_API CBaseThread : public CThreadWrapper, public IUnknown {
 public:
  // The thread's work; runs on the new thread.
  virtual unsigned long ThreadProc() = 0;
  // Stops the thread. By default: when running, waits for it to end.
  virtual void CleanUp();

  // Creates and runs the thread, which holds a reference on the object
  // until it ends. Throws CTmpExcep* when the thread cannot be created or resumed.
  void Start();

 protected:
  CBaseThread() = default;
  // Creates the thread suspended; throws CTmpExcep* on failure.
  void Create();

 private:
  static DWORD WINAPI StartRoutine(void* param);
};

class BROOM_API CSimpleThreadMessageMap : public CBaseThread {
 public:
  CSimpleThreadMessageMap();
  ~CSimpleThreadMessageMap() override;

  void OnBeforeStart() override;
  // The message loop: creates the queue, signals ready, handles thread
  // messages until WM_QUIT and returns its wParam.
  unsigned long ThreadProc() override;
  // Posts WM_QUIT when running and waits for the thread to end.
  void CleanUp() override;
  // Runs on the worker thread. Handles MSG_SYNC_CALL; ignores anything else.
  virtual void ProcessThreadMessage(UINT message, WPARAM wParam, LPARAM lParam);

  // Posts one message; callable from any thread. Waits at most 5 s for the
  // queue to exist and tries 21 times; throws textconv::exception* with
  // "message map thread never reached ready state" or
  // "PostThreadMessage failed repeatedly". Virtual so that a worker can
  // note what goes into its queue (a log notes the quit message).
  virtual void PostToThread(UINT message, WPARAM wParam, LPARAM lParam);

  // Has the worker handle a message and waits until it has: true once it
  // was handled, false when the thread ended first. Messages posted earlier
  // are handled before it. Called on the worker itself it handles the
  // message directly. Throws as PostToThread.
  bool SendToThread(UINT message, WPARAM wParam, LPARAM lParam);

  // The counter of classes that count through CCustomRef.
  LONG volatile& RefCountMember() { return m_refCount; }

 protected:
  volatile LONG m_refCount;
  broom::unique_event m_hReady;  // manual reset; set once the queue exists
};
