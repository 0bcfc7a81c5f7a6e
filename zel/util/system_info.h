// Facts about the running system, for diagnostics.
#pragma once

#include "zel/core/string.h"

namespace zel {

// "Linux x86-64", "Windows x64", or "Windows x64 (Wine 8.0)" under Wine.
ZEL_API String getPlatformDescription();

// The process's current 8-bit encoding, the one String::toCP() uses:
// "cp1252" style on Windows (the ANSI code page), the locale's codeset
// ("UTF-8", "ANSI_X3.4-1968", ...) on Linux.
ZEL_API String getCurrentCodePageName();

// The wxWidgets version the library runs with, such as "wxWidgets 3.2.2".
ZEL_API String getWxVersionString();

}  // namespace zel
