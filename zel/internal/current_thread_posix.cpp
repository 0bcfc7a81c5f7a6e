#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "zel/internal/current_thread.h"

namespace zel {

uint64 getCurrentOSThreadID() { return static_cast<uint64>(syscall(SYS_gettid)); }

uint64 getCurrentThreadToken() { return reinterpret_cast<uint64>(pthread_self()); }

int64 getCurrentOSProcessID() { return getpid(); }

}  // namespace zel
