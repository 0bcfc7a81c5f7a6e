#include "zel/core/global.h"
#include "zel/internal/win_include.h"

namespace zel {

void threadYield(bool sleepAtLeastOneTick) { SleepEx(sleepAtLeastOneTick ? 1 : 0, FALSE); }

}  // namespace zel
