// CThread: a reference-counted thread with a cooperative stop flag, a name
// and a captured error.
//
// Subclasses put their work in runImpl(); long-running work calls
// checkContinue() and returns once it yields false. An exception leaving
// runImpl() never escapes the thread: it is logged and kept as the thread's
// CThreadError, and surfaces through getThreadError(), throwThreadError() or
// join(true) / stop(true).
//
// Life cycle: created -> started (running) -> run finished -> joined; start()
// on a finished or joined thread begins a new run on the same object. A
// detached object deletes itself when its run ends and can never be
// restarted. Dropping the last reference stops the thread safely from any
// thread, including from inside its own run (the object then lives until the
// run ends).
//
// Thread IDs are the operating system's: Windows thread IDs, Linux kernel
// thread IDs (gettid). Names reach debuggers; on Linux they appear in
// /proc/self/task/<id>/comm (cut to 15 bytes of UTF-8).
//
// Each CThread guards its flags, ID, handle and name with its own state
// mutex. Concurrent joins serialise on a join mutex; the state mutex is not
// held while waiting, because the ending thread takes it to record the end
// of its run.
#pragma once

#include "zel/core/error.h"
#include "zel/core/mutex.h"

namespace zel {

namespace thread_platform {
struct CNativeHandle;
}

class ZEL_API CThread : public CBase {
 public:
  CThread();
  ~CThread() override;
  CThread(const CThread&) = delete;
  CThread& operator=(const CThread&) = delete;

  // Starts the thread, or restarts it: a run still going is asked to stop
  // and joined first. Throws for a detached object and when the system
  // cannot create the thread (the object then stays joined and may be
  // started again).
  void start();
  // signalStop(), then join(rethrow).
  virtual void stop(bool rethrow);
  // Asks the run to end; nothing else.
  virtual void signalStop();
  // True while no stop has been requested.
  virtual bool checkContinue();
  // Waits for the run to end. Returns at once when called from the thread
  // itself or when already joined. With rethrow, a captured error is thrown
  // again (its class is CThreadError).
  void join(bool rethrow);
  // Lets the object delete itself when its run ends. The argument is kept
  // (isDetachedBySelf()): true when the thread dropped its own last
  // reference from inside its run.
  void detach(bool bySelf);
  bool isDetached();
  bool isDetachedBySelf();
  bool isAlive();
  int64 getID();

  PC<CError> getThreadError();
  void throwThreadError();

  void setThreadName(const String& name);
  String getThreadName();

  void setStopBeforeProcessExits(bool stop);
  bool getStopBeforeProcessExits();

  static int64 getCurrentID();
  static bool isThreadAlive(int64 id);
  // Windows only: terminates the thread (TerminateThread). Linux has no way
  // to end a single thread from outside, so it throws an unsupported error.
  static void killThread(int64 id, int exitCode);
  // Names a thread of this process for debuggers and tools.
  static void setThreadName(int64 id, const String& name);
  static void sleep(unsigned ms);
  // Gives up the time slice; with true, sleeps for about a millisecond.
  static void yield(bool sleepAtLeastOneTick);

 protected:
  // Last reference released: see the class comment.
  void deleteThis() override;
  virtual void runImpl() = 0;
  // Runs on the thread after the run-finished flag is set.
  virtual void onRunFinished() {}

 private:
  static void threadFunc(void* thread);
  void threadHandler();
  // Still running, judged from the OS: the handle, or the ID without one.
  bool isRunningLocked();

  CMutex m_joinMutex;
  CMutex m_stateMutex;
  bool m_joined = true;
  bool m_joinerWaiting = false;
  bool m_detached = false;
  bool m_detachedBySelf = false;
  bool m_started = false;
  bool m_runFinished = false;
  // The thread has made its last use of the object (its run finished and
  // onRunFinished() and the clean-up after it are done); only then may the
  // object go without waiting for the thread.
  bool m_threadLeft = false;
  std::atomic<bool> m_stopRequested{false};
  uint64 m_id = 0;
  thread_platform::CNativeHandle* m_handle = nullptr;
  String m_name;
  PC<CError> m_threadError;
  bool m_stopBeforeProcessExits = false;
};

}  // namespace zel
