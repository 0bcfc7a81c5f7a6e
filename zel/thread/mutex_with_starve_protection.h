// CMutexWithStarveProtection: a recursive mutex that a thread releasing and
// re-taking it in a loop cannot use to starve the others.
//
// Every first acquisition by a thread queues on a gate mutex before it takes
// the lock proper, and the gate is held by at most one waiter while it waits:
// a thread that releases and at once re-takes the lock must queue behind the
// thread already waiting. Recursive acquisitions by the holder never touch
// the gate. Each thread keeps its recursion count in a thread-local slot.
// unlock() by a thread that does not hold the mutex does nothing.
#pragma once

#include "zel/core/mutex.h"
#include "zel/core/thread_local_storage.h"

namespace zel {

class ZEL_API CMutexWithStarveProtection : public CMutex {
 public:
  CMutexWithStarveProtection();
  ~CMutexWithStarveProtection() override;

  void lock() override;
  void unlock() override;
  // Takes the lock only if that needs no waiting, gate included.
  bool tryLock() override;

 private:
  class CRecord;
  P<CRecord> getRecord(bool create);

  CMutex m_gate;
  P<CThreadLocalStorageManager> m_tls;
  int m_slot;
};

}  // namespace zel
