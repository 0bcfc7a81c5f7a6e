#include "zel/init/zel_init_platform.h"

namespace zel {

// Linux has no process error mode and no COM.
void initPlatformLibraryImpl(bool /*initCom*/) {}

}  // namespace zel
