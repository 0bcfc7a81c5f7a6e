#include "zel/thread/thread_list.h"

#include <algorithm>

#include "zel/path/time.h"
#include "zel/thread/thread.h"

namespace zel {

P<CThreadList> CThreadList::get() {
  static auto* slot =
      new TSafeGlobal<CThreadList>(&globalInstanceGuard, &createInstance, &disposeGlobalInstance);
  return slot->get();
}

CSafeGlobalGuard& CThreadList::globalInstanceGuard() {
  static CSafeGlobalGuard guard;
  return guard;
}

P<CThreadList> CThreadList::createInstance() { return createObject<CThreadList>(); }

void CThreadList::add(CThread* thread) {
  CMutexLock lock(m_mutex);
  m_threads.push_back(thread);
}

void CThreadList::remove(CThread* thread) {
  CMutexLock lock(m_mutex);
  auto it = std::find(m_threads.begin(), m_threads.end(), thread);
  if (it != m_threads.end()) m_threads.erase(it);
}

int CThreadList::getCount() {
  CMutexLock lock(m_mutex);
  return static_cast<int>(m_threads.size());
}

bool CThreadList::stopAllThreads(int timeoutMs, bool onlyStopBeforeExit) {
  auto counts = [onlyStopBeforeExit](CThread* thread) {
    return !onlyStopBeforeExit || thread->getStopBeforeProcessExits();
  };
  CMutexLock lock(m_mutex);
  for (CThread* thread : m_threads) {
    if (counts(thread)) thread->signalStop();
  }
  const bool unlimited = timeoutMs == -1;
  const CTime deadline = CTime::now() + CTimeSpan::fromMilliseconds(timeoutMs);
  for (;;) {
    // Threads leave the list when their runs end, so the list is walked
    // afresh each round.
    auto alive = std::find_if(m_threads.begin(), m_threads.end(),
                              [&](CThread* thread) { return counts(thread) && thread->isAlive(); });
    if (alive == m_threads.end()) return true;
    {
      CMutexUnlock unlock(m_mutex);
      CThread::sleep(100);
    }
    if (!unlimited && CTime::now() > deadline) return false;
  }
}

}  // namespace zel
