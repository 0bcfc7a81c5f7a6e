#include "zel/thread/thread_local_storage.h"

#include <memory>
#include <unordered_map>

namespace zel {

namespace {

using ThreadValues = std::unordered_map<int, P<IBase>>;

// Created on a thread's first store; destroyed (releasing what is left) when
// the thread exits.
thread_local std::unique_ptr<ThreadValues> t_values;

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
  if (!t_values) return P<IBase>();
  auto it = t_values->find(slot);
  return it == t_values->end() ? P<IBase>() : it->second;
}

void CThreadLocalStorageManager::setThreadValue(int slot, IBase* value) {
  if (!value) {
    if (t_values) t_values->erase(slot);
    return;
  }
  if (!t_values) t_values = std::make_unique<ThreadValues>();
  (*t_values)[slot] = value;
}

void CThreadLocalStorageManager::releaseAllThreadValues() {
  // Move the map out first: releasing a value may run code that touches the
  // thread's slots again.
  std::unique_ptr<ThreadValues> values = std::move(t_values);
}

}  // namespace zel
