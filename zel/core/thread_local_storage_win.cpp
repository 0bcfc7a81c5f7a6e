#include <cstdlib>

#include "zel/internal/win_include.h"
#include "zel/core/thread_local_storage_platform.h"

namespace zel::tls_platform {

namespace {

// Fiber-local storage, because its callback runs when any thread exits,
// whoever created the thread.
DWORD index() {
  static const DWORD i = [] {
    DWORD created =
        FlsAlloc([](void* p) { if (p) onThreadExit(static_cast<ThreadValues*>(p)); });
    if (created == FLS_OUT_OF_INDEXES) std::abort();  // only at start-up, out of indexes
    return created;
  }();
  return i;
}

}  // namespace

ThreadValues* getThreadValues() { return static_cast<ThreadValues*>(FlsGetValue(index())); }

void setThreadValues(ThreadValues* values) { FlsSetValue(index(), values); }

}  // namespace zel::tls_platform
