#include "zel/init/zel_init.h"

#include <clocale>
#include <cstring>

#include <wx/app.h>
#include <wx/init.h>

#include "zel/core/error.h"
#include "zel/init/zel_init_platform.h"
#include "zel/util/cached_env_vars.h"
#include "zel/core/mutex.h"
#include "zel/log/xml_log.h"
#include "zel/thread/thread_list.h"
#include "zel/core/thread_local_storage.h"

namespace zel {

namespace {
bool g_initCom = true;
}  // namespace

class CZelInit::CZelInitHelper : public CBase {
 public:
  static P<CZelInitHelper> get() {
    static auto* slot = new TSafeGlobal<CZelInitHelper>(&globalInstanceGuard, &createInstance,
                                                        &disposeGlobalInstance);
    return slot->get();
  }
  static CSafeGlobalGuard& globalInstanceGuard() {
    static CSafeGlobalGuard guard;
    return guard;
  }

 protected:
  static P<CZelInitHelper> createInstance() {
    initPlatformLibraryImpl(g_initCom);
    CThreadLocalStorageManager::get();
    CCachedEnvVars::get();
    return createObject<CZelInitHelper>();
  }
  static void disposeGlobalInstance() {}
};

class CZelInit::CWXInitHelper : public CBase {
 public:
  static P<CWXInitHelper> get() {
    static auto* slot = new TSafeGlobal<CWXInitHelper>(&globalInstanceGuard, &createInstance,
                                                       &disposeGlobalInstance);
    return slot->get();
  }
  static CSafeGlobalGuard& globalInstanceGuard() {
    static CSafeGlobalGuard guard;
    return guard;
  }

  void dispose() {
    if (m_initialized) {
      m_initialized = false;
      wxUninitialize();
    }
  }

 protected:
  static P<CWXInitHelper> createInstance() {
    if (!wxInitialize()) throw CError("wxWidgets could not be initialised (wxInitialize failed).");
    P<CWXInitHelper> helper = createObject<CWXInitHelper>();
    helper->m_initialized = true;
    return helper;
  }
  static void disposeGlobalInstance() { get()->dispose(); }

 private:
  bool m_initialized = false;
};

class CZelInit::CLocaleInitHelper : public CBase {
 public:
  static P<CLocaleInitHelper> get() {
    static auto* slot = new TSafeGlobal<CLocaleInitHelper>(&globalInstanceGuard, &createInstance,
                                                           &disposeGlobalInstance);
    return slot->get();
  }
  static CSafeGlobalGuard& globalInstanceGuard() {
    static CSafeGlobalGuard guard;
    return guard;
  }

 protected:
  static P<CLocaleInitHelper> createInstance() {
    const char* current = std::setlocale(LC_ALL, nullptr);
    if (!current || std::strcmp(current, "C") == 0) std::setlocale(LC_ALL, "");
    return createObject<CLocaleInitHelper>();
  }
  static void disposeGlobalInstance() {}
};

CZelInit::CZelInit(bool initCom) {
  {
    CMutexLock lock(getGlobalMutex());
    if (!CZelInitHelper::globalInstanceGuard().isInitStarted()) g_initCom = initCom;
  }
  CZelInitHelper::get();
  CWXInitHelper::get();
  CLocaleInitHelper::get();
  CThreadList::get();
}

CZelInit::~CZelInit() = default;

void CZelInit::onApplicationExit() {
  if (CThreadList::get()->stopAllThreads(kStopThreadsTimeoutMs, false)) {
    logInfo("All threads stopped.");
  } else {
    logWarning("Not all threads could be stopped.");
  }
  CSafeGlobalDisposer::get().disposeAll();
}

}  // namespace zel
