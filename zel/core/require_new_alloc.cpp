#include "zel/core/require_new_alloc.h"

#include "zel/core/error.h"
#include "zel/core/type_name.h"
#include "zel/core/thread_local_storage.h"

namespace zel {

namespace {

// The slot number under which each thread keeps its flag.
class CAllocatedWithNewSlot : public CBase {
 public:
  CAllocatedWithNewSlot() : slot(CThreadLocalStorageManager::get()->createSlot()) {}
  const int slot;
};

}  // namespace

CSafeGlobalGuard& CRequireNewAllocFlag::allocatedWithNewGuard() {
  static CSafeGlobalGuard guard;
  return guard;
}

P<TSimpleType<bool>> CRequireNewAllocFlag::getAllocatedWithNew() {
  static auto* global = new TSafeGlobal<CAllocatedWithNewSlot>(
      &allocatedWithNewGuard, [] { return createObject<CAllocatedWithNewSlot>(); },
      &disposeGlobalAllocatedWithNew);
  int slot = global->get()->slot;
  P<CThreadLocalStorageManager> tls = CThreadLocalStorageManager::get();
  P<TSimpleType<bool>> flag = dynamicCast<TSimpleType<bool>>(tls->getThreadValue(slot));
  if (!flag) {
    flag = createObject<TSimpleType<bool>>(false);
    tls->setThreadValue(slot, flag.get());
  }
  return flag;
}

void CRequireNewAllocFlag::raiseFlag() { getAllocatedWithNew()->setValue(true); }

void CRequireNewAllocFlag::lowerFlag() noexcept {
  try {
    getAllocatedWithNew()->setValue(false);
  } catch (...) {
    // The flag exists once raiseFlag() succeeded, so this cannot fail.
  }
}

void CRequireNewAllocFlag::takeFlag(const std::type_info& type) {
  P<TSimpleType<bool>> flag = getAllocatedWithNew();
  bool raised = flag->getValue();
  flag->setValue(false);
  if (!raised) {
    throw CError(String("Objects of class ") + getTypeName(type) +
                 " must be allocated with new.");
  }
}

}  // namespace zel
