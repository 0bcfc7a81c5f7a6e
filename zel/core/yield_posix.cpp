#include <sched.h>
#include <time.h>

#include "zel/core/global.h"

namespace zel {

void threadYield(bool sleepAtLeastOneTick) {
  if (!sleepAtLeastOneTick) {
    sched_yield();
    return;
  }
  timespec oneMs{0, 1000 * 1000};
  nanosleep(&oneMs, nullptr);
}

}  // namespace zel
