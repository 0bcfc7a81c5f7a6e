// CCachedEnvVars: the process environment, read once when the library starts,
// so that later look-ups neither race with setenv() nor see changes made
// behind the library's back.
#pragma once

#include <map>

#include "zel/core/global.h"
#include "zel/core/string.h"

namespace zel {

class ZEL_API CCachedEnvVars : public CBase {
 public:
  static P<CCachedEnvVars> get();
  static CSafeGlobalGuard& globalInstanceGuard();

  // Names compare without case on Windows and with case on Linux, as the
  // systems do.
  bool has(const String& name) const;
  String getValue(const String& name, const String& defaultValue = String()) const;
  int getCount() const { return static_cast<int>(m_vars.size()); }

 protected:
  static P<CCachedEnvVars> createInstance();
  static void disposeGlobalInstance() {}

 private:
  static String key(const String& name);
  std::map<String, String> m_vars;  // by key(name)
};

}  // namespace zel
