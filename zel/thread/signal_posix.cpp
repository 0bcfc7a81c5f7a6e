#include <pthread.h>
#include <time.h>

#include <cerrno>

#include "zel/core/error.h"
#include "zel/thread/signal.h"

namespace zel {

struct CSignal::CImpl {
  pthread_mutex_t mutex;
  pthread_cond_t cond;
  bool set = false;
};

namespace {

// waitResult: what the wait call returned (the error number itself for the
// pthread calls); only for waits.
[[noreturn]] void throwSignalError(int code, const char* func, const char* action, int ms,
                                   bool isWait = false) {
  CProps params;
  if (isWait) params.set("waitResult", String::fromInt64(code));
  params.set("timeout", String::fromInt64(ms));
  params.set("action", action);
  params.set("func", func);
  throwSysError(code, params);
}

}  // namespace

CSignal::CSignal() : m_impl(new CImpl) {
  pthread_mutex_init(&m_impl->mutex, nullptr);
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  int result = pthread_cond_init(&m_impl->cond, &attr);
  pthread_condattr_destroy(&attr);
  if (result != 0) {
    pthread_mutex_destroy(&m_impl->mutex);
    delete m_impl;
    throwSignalError(result, "pthread_cond_init", "CSignal::CSignal", 0);
  }
}

CSignal::~CSignal() {
  pthread_cond_destroy(&m_impl->cond);
  pthread_mutex_destroy(&m_impl->mutex);
  delete m_impl;
}

void CSignal::set() {
  pthread_mutex_lock(&m_impl->mutex);
  m_impl->set = true;
  pthread_cond_broadcast(&m_impl->cond);
  pthread_mutex_unlock(&m_impl->mutex);
}

void CSignal::reset() {
  pthread_mutex_lock(&m_impl->mutex);
  m_impl->set = false;
  pthread_mutex_unlock(&m_impl->mutex);
}

bool CSignal::wait(int ms) {
  timespec deadline{};
  if (ms > 0) {
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += ms / 1000;
    deadline.tv_nsec += static_cast<long>(ms % 1000) * 1000000;
    if (deadline.tv_nsec >= 1000000000) {
      deadline.tv_sec += 1;
      deadline.tv_nsec -= 1000000000;
    }
  }
  pthread_mutex_lock(&m_impl->mutex);
  int result = 0;
  while (!m_impl->set && ms != 0) {
    result = ms < 0 ? pthread_cond_wait(&m_impl->cond, &m_impl->mutex)
                    : pthread_cond_timedwait(&m_impl->cond, &m_impl->mutex, &deadline);
    if (result == ETIMEDOUT) break;
    if (result != 0) break;
  }
  bool isSet = m_impl->set;
  pthread_mutex_unlock(&m_impl->mutex);
  if (result != 0 && result != ETIMEDOUT) {
    throwSignalError(result, ms < 0 ? "pthread_cond_wait" : "pthread_cond_timedwait",
                     "CSignal::wait", ms, true);
  }
  return isSet;
}

}  // namespace zel
