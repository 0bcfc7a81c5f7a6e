#include "zel/internal/win_include.h"
#include "zel/util/system_info.h"

namespace zel {

String getPlatformDescription() {
  String description("Windows x64");
  // Wine exports wine_get_version from ntdll; Windows does not.
  using WineGetVersion = const char*(CDECL*)();
  HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
  auto wineGetVersion = ntdll ? reinterpret_cast<WineGetVersion>(
                                    reinterpret_cast<void*>(GetProcAddress(ntdll, "wine_get_version")))
                              : nullptr;
  if (wineGetVersion) description += String(" (Wine ") + String(wineGetVersion()) + ")";
  return description;
}

String getCurrentCodePageName() { return String("cp") + String::fromInt64(GetACP()); }

}  // namespace zel
