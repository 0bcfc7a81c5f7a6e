// CMutex: a recursive mutex (a critical section on Windows, a recursive
// pthread mutex on Linux), and the scoped CMutexLock / CMutexUnlock.
#pragma once

#include "zel/core/base.h"

namespace zel {

class ZEL_API CMutex : public CBase {
 public:
  CMutex();
  ~CMutex() override;
  CMutex(const CMutex&) = delete;
  CMutex& operator=(const CMutex&) = delete;

  // The same thread may lock again; each lock() needs its unlock(). Virtual
  // so that the scoped lockers work for CMutexWithStarveProtection too.
  virtual void lock();
  virtual void unlock();
  virtual bool tryLock();

  // The OS object: a CRITICAL_SECTION* on Windows, a pthread_mutex_t* on
  // Linux.
  void* getSection() { return m_storage; }

 private:
  // Large and aligned enough for CRITICAL_SECTION (40 bytes on x64) and
  // pthread_mutex_t (40 bytes on x86-64); checked in the backends.
  alignas(8) unsigned char m_storage[40];
};

// Holds a mutex locked for a scope.
class CMutexLock {
 public:
  explicit CMutexLock(CMutex& mutex) : m_mutex(mutex) { m_mutex.lock(); }
  ~CMutexLock() { m_mutex.unlock(); }
  CMutexLock(const CMutexLock&) = delete;
  CMutexLock& operator=(const CMutexLock&) = delete;

 private:
  CMutex& m_mutex;
};

// Releases a mutex held by the caller for a scope and takes it again at the
// end of the scope.
class CMutexUnlock {
 public:
  explicit CMutexUnlock(CMutex& mutex) : m_mutex(mutex) { m_mutex.unlock(); }
  ~CMutexUnlock() { m_mutex.lock(); }
  CMutexUnlock(const CMutexUnlock&) = delete;
  CMutexUnlock& operator=(const CMutexUnlock&) = delete;

 private:
  CMutex& m_mutex;
};

}  // namespace zel
