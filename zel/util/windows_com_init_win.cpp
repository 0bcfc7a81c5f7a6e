#include "zel/util/windows_com_init.h"

#include "zel/internal/win_include.h"

#include <objbase.h>

#include "zel/core/error.h"
#include "zel/log/xml_log.h"

namespace zel {

P<CWindowsComInit> CWindowsComInit::get() {
  static auto* slot = new TSafeGlobal<CWindowsComInit>(&globalInstanceGuard, &createInstance,
                                                       &disposeGlobalInstance);
  return slot->get();
}

CSafeGlobalGuard& CWindowsComInit::globalInstanceGuard() {
  static CSafeGlobalGuard guard;
  return guard;
}

P<CWindowsComInit> CWindowsComInit::createInstance() {
  P<CWindowsComInit> init = createObject<CWindowsComInit>();
  HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  if (SUCCEEDED(hr)) {
    init->m_mustUninitialize = true;
  } else if (hr != RPC_E_CHANGED_MODE) {
    // RPC_E_CHANGED_MODE: the thread already has a single-threaded apartment,
    // which serves as well.
    CProps params;
    params.set("action", "CWindowsComInit::createInstance");
    params.set("func", "CoInitializeEx");
    throwSysError(static_cast<uint32>(hr), params);
  }
  return init;
}

void CWindowsComInit::dispose() {
  if (m_mustUninitialize) {
    m_mustUninitialize = false;
    CoUninitialize();
  }
}

void CWindowsComInit::disposeGlobalInstance() { get()->dispose(); }

P<CWindowsComSecurityInit> CWindowsComSecurityInit::get() {
  static auto* slot = new TSafeGlobal<CWindowsComSecurityInit>(
      &globalInstanceGuard, &createInstance, &disposeGlobalInstance);
  return slot->get();
}

CSafeGlobalGuard& CWindowsComSecurityInit::globalInstanceGuard() {
  static CSafeGlobalGuard guard;
  return guard;
}

P<CWindowsComSecurityInit> CWindowsComSecurityInit::createInstance() {
  HRESULT hr = CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT,
                                    RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE, nullptr);
  // RPC_E_TOO_LATE: the host program set the security already; its choice
  // stands. Other failures leave COM's defaults, which is worth a warning but
  // no reason to refuse to start.
  if (FAILED(hr) && hr != RPC_E_TOO_LATE) {
    logWarning(String("CoInitializeSecurity failed: ") + getSysErrorMessage(static_cast<uint32>(hr)));
  }
  return createObject<CWindowsComSecurityInit>();
}

}  // namespace zel
