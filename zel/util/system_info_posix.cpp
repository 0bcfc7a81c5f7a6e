#include <langinfo.h>
#include <sys/utsname.h>

#include "zel/util/system_info.h"

namespace zel {

String getPlatformDescription() {
  utsname name;
  if (uname(&name) != 0) return String("Linux");
  String machine(name.machine);
  if (machine == "x86_64") machine = "x86-64";
  return String(name.sysname) + " " + machine + " (kernel " + String(name.release) + ")";
}

String getCurrentCodePageName() { return String(nl_langinfo(CODESET)); }

}  // namespace zel
