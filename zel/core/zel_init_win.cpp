#include "zel/core/zel_init_platform.h"
#include "zel/internal/win_include.h"
#include "zel/system/windows_com_init.h"

namespace zel {

void initPlatformLibraryImpl(bool initCom) {
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);  // 0x8001
  if (initCom) {
    CWindowsComInit::get();
    CWindowsComSecurityInit::get();
  }
}

}  // namespace zel
