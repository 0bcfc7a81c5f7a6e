// CThreadList: every CThread from its start to the end of its run, so that
// all of them can be stopped when the process exits.
#pragma once

#include <list>

#include "zel/core/global.h"
#include "zel/core/mutex.h"

namespace zel {

class CThread;

class ZEL_API CThreadList : public CBase {
 public:
  static P<CThreadList> get();
  static CSafeGlobalGuard& globalInstanceGuard();

  void add(CThread* thread);
  void remove(CThread* thread);
  int getCount();

  // Asks every listed thread to stop (with onlyStopBeforeExit, only those
  // whose getStopBeforeProcessExits() is true) and waits until none of them
  // is alive, checking every 100 ms. timeoutMs -1 waits without limit.
  // Returns false when the time ran out first.
  bool stopAllThreads(int timeoutMs, bool onlyStopBeforeExit);

 protected:
  static P<CThreadList> createInstance();
  static void disposeGlobalInstance() {}

 private:
  CMutex m_mutex;
  std::list<CThread*> m_threads;
};

}  // namespace zel
