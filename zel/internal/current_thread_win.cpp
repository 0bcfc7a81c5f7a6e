#include "zel/internal/current_thread.h"
#include "zel/internal/win_include.h"

namespace zel {

uint64 getCurrentOSThreadID() { return GetCurrentThreadId(); }

uint64 getCurrentThreadToken() { return GetCurrentThreadId(); }

int64 getCurrentOSProcessID() { return GetCurrentProcessId(); }

}  // namespace zel
