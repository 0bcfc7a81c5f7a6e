// CMutexWithStarveProtection: a recursive mutex that a thread releasing and
// re-taking it in a loop cannot use to starve the others.
//
// Every first acquisition by a thread that finds the lock taken queues on a
// gate mutex before it takes the lock proper (the CMutex this class is), and
// the gate is held by at most one waiter while it waits: a thread that
// releases and at once re-takes the lock must queue behind the thread already
// waiting. Recursive acquisitions by the holder never touch the gate. While
// no waiter holds the gate, a free lock is taken directly: there is no one to
// queue behind, and an uncontended lock then costs about what a CMutex costs.
//
// Each thread's recursion count: only the holder's can be above zero, so the
// mutex keeps the holder's identity and count itself instead of a record per
// thread in thread-local storage (which cost a hash lookup on every lock).
// unlock() by a thread that does not hold the mutex does nothing.
//
// Waiting spins briefly before it blocks: under contention the lock changes
// hands on every acquisition, and a waiter on another core that is still
// spinning takes it without the cost of being woken.
#pragma once

#include <atomic>

#include "zel/core/mutex.h"

namespace zel {

class ZEL_API CMutexWithStarveProtection : public CMutex {
 public:
  CMutexWithStarveProtection();
  ~CMutexWithStarveProtection() override;

  void lock() override;
  void unlock() override;
  // Takes the lock only if that needs no waiting: never while others queue.
  bool tryLock() override;

 private:
  // Takes m (the gate or the lock proper), spinning a little first.
  static void lockSpinning(CMutex& m, const std::atomic<bool>& held);
  void becomeHolder(uint64 self);

  CMutex m_gate;
  // Whether a waiter holds the gate (first acquisitions then queue), and
  // whether the lock proper is taken (a hint for spinning).
  std::atomic<bool> m_gateHeld{false};
  std::atomic<bool> m_held{false};
  // The holder's thread token (0: none) and its recursion count; the count
  // is touched only by the holder.
  std::atomic<uint64> m_holder{0};
  int64 m_count = 0;
};

}  // namespace zel
