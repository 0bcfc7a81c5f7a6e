#include "zel/internal/current_thread.h"
#include "zel/internal/win_include.h"

namespace zel {

uint64 getCurrentOSThreadID() { return GetCurrentThreadId(); }

}  // namespace zel
