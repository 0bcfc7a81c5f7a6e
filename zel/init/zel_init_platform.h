// The operating-system steps of library start-up (internal).
#pragma once

namespace zel {

// Windows: sets the process error mode to 0x8001 and, if initCom, gets the
// COM and COM security initialisers. Nothing to do on Linux.
void initPlatformLibraryImpl(bool initCom);

}  // namespace zel
