#include <pthread.h>

#include <cstdlib>

#include "zel/core/thread_local_storage_platform.h"

namespace zel::tls_platform {

namespace {

pthread_key_t key() {
  static const pthread_key_t k = [] {
    pthread_key_t created;
    if (pthread_key_create(&created, [](void* p) { onThreadExit(static_cast<ThreadValues*>(p)); }) !=
        0) {
      std::abort();  // only when the process is out of keys at start-up
    }
    return created;
  }();
  return k;
}

}  // namespace

ThreadValues* getThreadValues() { return static_cast<ThreadValues*>(pthread_getspecific(key())); }

void setThreadValues(ThreadValues* values) { pthread_setspecific(key(), values); }

}  // namespace zel::tls_platform
