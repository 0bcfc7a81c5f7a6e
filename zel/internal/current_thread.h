// The operating system's IDs of the calling thread and process (internal).
#pragma once

#include "zel/core/types.h"

namespace zel {

uint64 getCurrentOSThreadID();
// A cheap non-zero value that tells the calling thread from every other
// living thread (pthread_self on Linux, the thread ID on Windows); not an OS
// thread ID on Linux.
uint64 getCurrentThreadToken();
int64 getCurrentOSProcessID();

}  // namespace zel
