// COM initialisers of the Windows build, as guarded singletons: getting one
// initialises COM (multithreaded apartment) or its process-wide security for
// the process; disposing the first uninitialises COM again.
#pragma once

#if defined(_WIN32)

#include "zel/core/global.h"

namespace zel {

class ZEL_API CWindowsComInit : public CBase {
 public:
  static P<CWindowsComInit> get();
  static CSafeGlobalGuard& globalInstanceGuard();
  void dispose();

 protected:
  static P<CWindowsComInit> createInstance();
  static void disposeGlobalInstance();

 private:
  bool m_mustUninitialize = false;
};

class ZEL_API CWindowsComSecurityInit : public CBase {
 public:
  static P<CWindowsComSecurityInit> get();
  static CSafeGlobalGuard& globalInstanceGuard();

 protected:
  static P<CWindowsComSecurityInit> createInstance();
  static void disposeGlobalInstance() {}
};

}  // namespace zel

#endif  // _WIN32
