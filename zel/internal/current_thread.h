// The operating system's IDs of the calling thread and process (internal).
#pragma once

#include "zel/core/types.h"

namespace zel {

uint64 getCurrentOSThreadID();
int64 getCurrentOSProcessID();

}  // namespace zel
