#include "zel/core/thread_local_storage.h"

#include <memory>

#include "zel/core/thread_local_storage_platform.h"

namespace zel {

namespace {

using tls_platform::ThreadValues;

// The calling thread's map, created on its first store. The operating
// system's thread-exit hook frees what is left (C++ thread_local objects with
// destructors are avoided: mingw-w64 corrupts the heap running them for
// threads of a DLL).
ThreadValues* values() { return tls_platform::getThreadValues(); }

std::unique_ptr<ThreadValues> takeValues() {
  std::unique_ptr<ThreadValues> taken(values());
  tls_platform::setThreadValues(nullptr);
  return taken;
}

}  // namespace

P<CThreadLocalStorageManager> CThreadLocalStorageManager::get() {
  static auto* slot = new TSafeGlobal<CThreadLocalStorageManager>(
      &globalInstanceGuard, &createInstance, &disposeGlobalInstance);
  return slot->get();
}

CSafeGlobalGuard& CThreadLocalStorageManager::globalInstanceGuard() {
  static CSafeGlobalGuard guard;
  return guard;
}

P<CThreadLocalStorageManager> CThreadLocalStorageManager::createInstance() {
  return createObject<CThreadLocalStorageManager>();
}

int CThreadLocalStorageManager::createSlot() { return m_nextSlot.fetch_add(1); }

P<IBase> CThreadLocalStorageManager::getThreadValue(int slot) const {
  ThreadValues* map = values();
  if (!map) return P<IBase>();
  auto it = map->find(slot);
  return it == map->end() ? P<IBase>() : it->second;
}

void CThreadLocalStorageManager::setThreadValue(int slot, IBase* value) {
  ThreadValues* map = values();
  if (!value) {
    if (map) map->erase(slot);
    return;
  }
  if (!map) {
    map = new ThreadValues();
    tls_platform::setThreadValues(map);
  }
  (*map)[slot] = value;
}

void CThreadLocalStorageManager::releaseAllThreadValues() {
  // Take the map out first: releasing a value may run code that touches the
  // thread's slots again.
  takeValues();
}

namespace tls_platform {

void onThreadExit(ThreadValues* map) {
  // The system has already cleared the thread's slot.
  delete map;
}

}  // namespace tls_platform

}  // namespace zel
