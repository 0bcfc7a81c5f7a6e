// The operating system's ID of the calling thread (internal).
#pragma once

#include "zel/core/types.h"

namespace zel {

uint64 getCurrentOSThreadID();

}  // namespace zel
