#include <sys/syscall.h>
#include <unistd.h>

#include "zel/internal/current_thread.h"

namespace zel {

uint64 getCurrentOSThreadID() { return static_cast<uint64>(syscall(SYS_gettid)); }

int64 getCurrentOSProcessID() { return getpid(); }

}  // namespace zel
