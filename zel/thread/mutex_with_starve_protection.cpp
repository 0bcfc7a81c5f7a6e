#include "zel/thread/mutex_with_starve_protection.h"

#include "zel/internal/current_thread.h"

#if defined(__x86_64__) || defined(_M_X64) || defined(__i386__)
#include <immintrin.h>
#define ZEL_CPU_RELAX() _mm_pause()
#else
#define ZEL_CPU_RELAX() ((void)0)
#endif

namespace zel {

namespace {

// About a microsecond of pauses: enough for a holder on another core to
// finish a short critical section, short against the cost of sleeping.
constexpr int kSpinRounds = 200;

}  // namespace

CMutexWithStarveProtection::CMutexWithStarveProtection() = default;

CMutexWithStarveProtection::~CMutexWithStarveProtection() = default;

void CMutexWithStarveProtection::lockSpinning(CMutex& m, const std::atomic<bool>& held) {
  for (int round = 0; round < kSpinRounds; ++round) {
    // Read before trying, so that spinning waiters do not fight over the
    // mutex's cache line.
    if (!held.load(std::memory_order_relaxed) && m.CMutex::tryLock()) return;
    ZEL_CPU_RELAX();
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
  if (m_waiters.load(std::memory_order_acquire) == 0 && CMutex::tryLock()) {
    becomeHolder(self);
    return;
  }
  m_waiters.fetch_add(1, std::memory_order_acq_rel);
  lockSpinning(m_gate, m_gateHeld);
  m_gateHeld.store(true, std::memory_order_relaxed);
  lockSpinning(*this, m_held);
  m_gateHeld.store(false, std::memory_order_relaxed);
  m_gate.CMutex::unlock();
  m_waiters.fetch_sub(1, std::memory_order_acq_rel);
  becomeHolder(self);
}

bool CMutexWithStarveProtection::tryLock() {
  const uint64 self = getCurrentThreadToken();
  if (m_holder.load(std::memory_order_relaxed) == self) {
    ++m_count;
    return true;
  }
  if (m_waiters.load(std::memory_order_acquire) != 0 || !CMutex::tryLock()) return false;
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
