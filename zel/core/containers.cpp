#include "zel/core/containers.h"

#include "zel/core/error.h"

namespace zel {

void throwBadCollPosition() { throw CBadCollPositionError(); }

}  // namespace zel
