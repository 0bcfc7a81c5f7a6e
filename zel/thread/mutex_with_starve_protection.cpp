#include "zel/thread/mutex_with_starve_protection.h"

#include "zel/internal/current_thread.h"

namespace zel {

namespace {

// A microsecond or two of reads: enough for a holder on another core to
// finish a short critical section, short against the cost of sleeping. No
// pause instruction between the reads: on current cores one pause lasts
// long enough to add noticeably to every hand-over under contention.
constexpr int kSpinRounds = 2000;

}  // namespace

CMutexWithStarveProtection::CMutexWithStarveProtection() = default;

CMutexWithStarveProtection::~CMutexWithStarveProtection() = default;

void CMutexWithStarveProtection::lockSpinning(CMutex& m, const std::atomic<bool>& held) {
  for (int round = 0; round < kSpinRounds; ++round) {
    // Read before trying, so that spinning waiters do not fight over the
    // mutex's cache line.
    if (!held.load(std::memory_order_relaxed) && m.CMutex::tryLock()) return;
  }
  m.CMutex::lock();
}

void CMutexWithStarveProtection::becomeHolder(uint64 self) {
  m_held.store(true, std::memory_order_relaxed);
  m_holder.store(self, std::memory_order_relaxed);
  m_count = 1;
}

void CMutexWithStarveProtection::lock() {
  const uint64 self = getCurrentThreadToken();
  // Only this thread ever stores its own token, so seeing it means we hold
  // the lock.
  if (m_holder.load(std::memory_order_relaxed) == self) {
    ++m_count;
    return;
  }
  // Nobody queues while the gate is free: no one to queue behind.
  if (!m_gateHeld.load(std::memory_order_acquire) && CMutex::tryLock()) {
    becomeHolder(self);
    return;
  }
  lockSpinning(m_gate, m_gateHeld);
  m_gateHeld.store(true, std::memory_order_release);
  lockSpinning(*this, m_held);
  m_gateHeld.store(false, std::memory_order_release);
  m_gate.CMutex::unlock();
  becomeHolder(self);
}

bool CMutexWithStarveProtection::tryLock() {
  const uint64 self = getCurrentThreadToken();
  if (m_holder.load(std::memory_order_relaxed) == self) {
    ++m_count;
    return true;
  }
  if (m_gateHeld.load(std::memory_order_acquire) || !CMutex::tryLock()) return false;
  becomeHolder(self);
  return true;
}

void CMutexWithStarveProtection::unlock() {
  if (m_holder.load(std::memory_order_relaxed) != getCurrentThreadToken()) return;
  if (--m_count > 0) return;
  m_holder.store(0, std::memory_order_relaxed);
  m_held.store(false, std::memory_order_relaxed);
  CMutex::unlock();
}

}  // namespace zel
