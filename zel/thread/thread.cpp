#include "zel/thread/thread.h"

#include <cerrno>

#include "zel/log/xml_log.h"
#include "zel/thread/thread_list.h"
#include "zel/core/thread_local_storage.h"
#include "zel/thread/thread_platform.h"

namespace zel {

namespace tp = thread_platform;

CThread::CThread() = default;

CThread::~CThread() {
  // Only reached once the run is over (deleteThis waits for it), or for a
  // thread never started; the handle may still need closing. A thread ended
  // by killThread never left the thread list itself.
  if (m_handle) tp::closeThreadHandle(m_handle);
  CThreadList::get()->remove(this);
}

bool CThread::isRunningLocked() {
  if (!m_started) return false;
  if (m_handle) return !tp::hasThreadEnded(m_handle);
  return m_id != 0 && !m_runFinished && tp::isThreadAlive(m_id);
}

bool CThread::isAlive() {
  CMutexLock lock(m_stateMutex);
  return isRunningLocked();
}

void CThread::start() {
  bool running;
  {
    CMutexLock lock(m_stateMutex);
    if (m_detached) {
      throw CError("Detached threads cannot be restarted", String(), -1);
    }
    running = isRunningLocked();
  }
  if (running) signalStop();
  join(false);

  {
    CMutexLock lock(m_stateMutex);
    m_started = false;
    m_runFinished = false;
    m_threadLeft = false;
    m_stopRequested = false;
    m_id = 0;
    if (m_handle) {
      tp::closeThreadHandle(m_handle);
      m_handle = nullptr;
    }
    m_threadError = nullptr;
    m_joined = false;
  }

  // Listed before the thread exists, so that it can never end (and leave
  // the list) before it was added.
  CThreadList::get()->add(this);
  uint64 id = 0;
  int errnoValue = 0;
  int64 sysError = 0;
  {
    // Held until the ID and handle are stored; the new thread waits for it
    // before it names itself.
    CMutexLock lock(m_stateMutex);
    setLastSysError(0);
    m_handle = tp::startThread(&CThread::threadFunc, this, id, errnoValue, sysError);
    if (m_handle) {
      m_id = id;
      if (!m_name.isEmpty()) tp::setThreadName(id, m_name);
      m_started = true;
      return;
    }
    m_joined = true;  // join() must never wait for a thread that does not exist
  }
  // The list's lock is taken outside the state lock, as stopAllThreads does.
  CThreadList::get()->remove(this);
  CProps params;
  params.set("action", "CThread::start");
  params.set("func", "_beginthreadex");
  if (sysError == 0) throw CError("Error creating thread.", String(), errnoValue, params);
  params.set("errno", String::fromInt64(errnoValue));
  throwSysError(sysError, params);
}

void CThread::threadFunc(void* thread) { static_cast<CThread*>(thread)->threadHandler(); }

void CThread::threadHandler() {
  {
    CMutexLock lock(m_stateMutex);
    if (!m_name.isEmpty()) tp::setThreadName(tp::currentThreadID(), m_name);
  }
  P<CError> error;
  try {
    runImpl();
  } catch (const std::exception& e) {
    error = CStdExceptionError::exceptionToError(e);
  } catch (...) {
    error = createObject<CError>(String("Unknown exception."));
  }
  if (error) {
    logError("Thread " + getThreadName() + " ended with an error.", error.get());
    P<CError> threadError = createObject<CThreadError>(*error);
    CMutexLock lock(m_stateMutex);
    m_threadError = threadError;
  }
  {
    CMutexLock lock(m_stateMutex);
    m_runFinished = true;
  }
  onRunFinished();
  CThreadLocalStorageManager::get()->releaseAllThreadValues();
  CThreadList::get()->remove(this);
  bool detached;
  {
    // Decided together with detach(), which takes a reference for the
    // thread only while it has not left.
    CMutexLock lock(m_stateMutex);
    m_threadLeft = true;
    detached = m_detached;
  }
  // A detached thread gives up the reference taken for it; that may delete
  // this object, so nothing may touch it afterwards.
  if (detached) release();
}

void CThread::join(bool rethrow) {
  {
    CMutexLock lock(m_stateMutex);
    // Checked before the join mutex, which another joiner may hold while it
    // waits for this very thread.
    if (m_id == tp::currentThreadID()) goto joined;
  }
  {
    // Joins serialise on their own mutex; the state mutex is not held while
    // waiting, since the ending thread takes it to record the end of its run.
    CMutexLock joinLock(m_joinMutex);
    tp::CNativeHandle* handle = nullptr;
    bool detached = false;
    {
      CMutexLock lock(m_stateMutex);
      if (m_joined) goto joined;
      detached = m_detached;
      handle = m_handle;
      m_joinerWaiting = handle != nullptr;
    }
    if (detached) {
      // The handle of a detached thread is closed: poll until the thread has
      // left the object (or was ended from outside).
      for (;;) {
        {
          CMutexLock lock(m_stateMutex);
          if (!m_started || m_threadLeft || !tp::isThreadAlive(m_id)) break;
        }
        tp::sleepMs(50);
      }
    } else if (handle) {
      tp::waitForThread(handle);
    }
    {
      CMutexLock lock(m_stateMutex);
      if (handle) {
        // A detach() meanwhile left the handle to this join.
        if (m_handle == handle) m_handle = nullptr;
        tp::closeThreadHandle(handle);
        m_joinerWaiting = false;
      }
      m_joined = true;
    }
  }
joined:
  if (rethrow) throwThreadError();
}

void CThread::stop(bool rethrow) {
  signalStop();
  join(rethrow);
}

void CThread::signalStop() { m_stopRequested = true; }

bool CThread::checkContinue() { return !m_stopRequested; }

void CThread::detach(bool bySelf) {
  CMutexLock lock(m_stateMutex);
  if (m_detached || m_joined) return;
  m_detached = true;
  m_detachedBySelf = bySelf;
  // Given up by the thread when it leaves the object. Needed also after the
  // run finished: the thread may still be in onRunFinished().
  if (m_started && !m_threadLeft) addRef();
  if (m_handle) {
    if (!m_joinerWaiting) tp::closeThreadHandle(m_handle);
    m_handle = nullptr;
  }
}

bool CThread::isDetached() {
  CMutexLock lock(m_stateMutex);
  return m_detached;
}

bool CThread::isDetachedBySelf() {
  CMutexLock lock(m_stateMutex);
  return m_detachedBySelf;
}

int64 CThread::getID() {
  CMutexLock lock(m_stateMutex);
  return static_cast<int64>(m_id);
}

void CThread::deleteThis() {
  bool running;
  bool self;
  {
    CMutexLock lock(m_stateMutex);
    running = m_started && !m_runFinished;
    self = m_id == tp::currentThreadID();
  }
  if (running && self) {
    // The run holds no reference of its own: hand it the count back and let
    // the object die with the run.
    exchangeRefCount(0);
    signalStop();
    detach(true);
    return;
  }
  if (running) {
    stop(false);
  } else if (!self) {
    // A finished run may still be in its last steps (onRunFinished, leaving
    // the thread list): wait for the thread itself to end.
    join(false);
  }
  CBase::deleteThis();
}

PC<CError> CThread::getThreadError() {
  CMutexLock lock(m_stateMutex);
  return m_threadError;
}

void CThread::throwThreadError() {
  if (PC<CError> error = getThreadError()) error->throwClone();
}

void CThread::setThreadName(const String& name) {
  CMutexLock lock(m_stateMutex);
  m_name = name;
  if (m_started && !m_runFinished && m_id != 0) tp::setThreadName(m_id, name);
}

String CThread::getThreadName() {
  CMutexLock lock(m_stateMutex);
  return m_name;
}

void CThread::setStopBeforeProcessExits(bool stop) {
  CMutexLock lock(m_stateMutex);
  m_stopBeforeProcessExits = stop;
}

bool CThread::getStopBeforeProcessExits() {
  CMutexLock lock(m_stateMutex);
  return m_stopBeforeProcessExits;
}

int64 CThread::getCurrentID() { return static_cast<int64>(tp::currentThreadID()); }

bool CThread::isThreadAlive(int64 id) { return tp::isThreadAlive(static_cast<uint64>(id)); }

void CThread::killThread(int64 id, int exitCode) { tp::killThread(static_cast<uint64>(id), exitCode); }

void CThread::setThreadName(int64 id, const String& name) {
  tp::setThreadName(static_cast<uint64>(id), name);
}

void CThread::sleep(unsigned ms) { tp::sleepMs(ms); }

void CThread::yield(bool sleepAtLeastOneTick) { threadYield(sleepAtLeastOneTick); }

}  // namespace zel
