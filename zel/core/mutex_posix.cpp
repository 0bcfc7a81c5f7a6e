#include <pthread.h>

#include <cstdlib>

#include "zel/core/mutex.h"

namespace zel {

namespace {
pthread_mutex_t* native(void* storage) { return static_cast<pthread_mutex_t*>(storage); }
}  // namespace

static_assert(sizeof(pthread_mutex_t) <= 40 && alignof(pthread_mutex_t) <= 8);

CMutex::CMutex() {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  // Initialisation of a recursive mutex only fails for lack of memory; a
  // mutex that does not exist cannot be reported any other sane way.
  if (pthread_mutex_init(new (m_storage) pthread_mutex_t, &attr) != 0) std::abort();
  pthread_mutexattr_destroy(&attr);
}

CMutex::~CMutex() { pthread_mutex_destroy(native(m_storage)); }

void CMutex::lock() { pthread_mutex_lock(native(m_storage)); }
void CMutex::unlock() { pthread_mutex_unlock(native(m_storage)); }
bool CMutex::tryLock() { return pthread_mutex_trylock(native(m_storage)) == 0; }

}  // namespace zel
