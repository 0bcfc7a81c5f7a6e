#include "zel/init/zel_init_platform.h"
#include "zel/internal/win_include.h"
#include "zel/util/windows_com_init.h"

namespace zel {

void initPlatformLibraryImpl(bool initCom) {
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);  // 0x8001
  if (initCom) {
    CWindowsComInit::get();
    CWindowsComSecurityInit::get();
  }
}

}  // namespace zel
