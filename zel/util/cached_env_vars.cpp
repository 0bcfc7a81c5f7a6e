#include "zel/util/cached_env_vars.h"

#include "zel/util/environment_platform.h"

namespace zel {

P<CCachedEnvVars> CCachedEnvVars::get() {
  static auto* slot = new TSafeGlobal<CCachedEnvVars>(&globalInstanceGuard, &createInstance,
                                                      &disposeGlobalInstance);
  return slot->get();
}

CSafeGlobalGuard& CCachedEnvVars::globalInstanceGuard() {
  static CSafeGlobalGuard guard;
  return guard;
}

String CCachedEnvVars::key(const String& name) {
#if defined(_WIN32)
  return String(name.getWxString().Upper());
#else
  return name;
#endif
}

P<CCachedEnvVars> CCachedEnvVars::createInstance() {
  P<CCachedEnvVars> vars = createObject<CCachedEnvVars>();
  for (const String& entry : readEnvironmentImpl()) {
    // Windows keeps per-drive current folders as "=C:=C:\dir": the name
    // starts with "=", so the separator is searched from the second character.
    int eq = entry.getWxString().find(L'=', 1);
    if (eq == wxNOT_FOUND || eq < 0) continue;
    String name(entry.getWxString().Left(eq));
    vars->m_vars.emplace(key(name), String(entry.getWxString().Mid(eq + 1)));
  }
  return vars;
}

bool CCachedEnvVars::has(const String& name) const { return m_vars.count(key(name)) != 0; }

String CCachedEnvVars::getValue(const String& name, const String& defaultValue) const {
  auto it = m_vars.find(key(name));
  return it == m_vars.end() ? defaultValue : it->second;
}

}  // namespace zel
