#include "zel/core/global.h"

#include <stdexcept>

#include "zel/core/error.h"
#include "zel/core/mutex.h"

namespace zel {

CMutex& getGlobalMutex() {
  // Never destroyed: singletons may be used until the very end of the process.
  static CMutex* mutex = new (CBase::RawNew{}) CMutex();
  return *mutex;
}

CSafeGlobalDisposer& CSafeGlobalDisposer::get() {
  static CSafeGlobalDisposer* disposer = new CSafeGlobalDisposer();
  return *disposer;
}

void CSafeGlobalDisposer::addDisposeFunc(DisposeFunc f) {
  CMutexLock lock(getGlobalMutex());
  if (m_funcs.size() >= m_funcs.max_size()) throw std::length_error("list too long");
  m_funcs.push_back(f);
}

void CSafeGlobalDisposer::disposeAll() {
  CMutexLock lock(getGlobalMutex());
  // A list iterator stays valid while functions append to the list, so
  // singletons first constructed during disposal are disposed as well.
  for (auto it = m_funcs.begin(); it != m_funcs.end(); ++it) (*it)();
}

std::list<CSafeGlobalDisposer::DisposeFunc> CSafeGlobalDisposer::getDisposeFuncs() const {
  CMutexLock lock(getGlobalMutex());
  return m_funcs;
}

CSafeGlobalSlotBase::CSafeGlobalSlotBase() = default;
CSafeGlobalSlotBase::~CSafeGlobalSlotBase() = default;

void CSafeGlobalSlotBase::initialize(GuardAccessor guard, DisposeFunc dispose,
                                     void (*construct)(void*), void* context) {
  CMutexLock lock(getGlobalMutex());
  if (!guard().beginInit()) return;
  try {
    construct(context);
    m_state.store(kConstructedTag, std::memory_order_release);
  } catch (const std::exception& e) {
    keepFailure(&e);
    return;
  } catch (...) {
    keepFailure(nullptr);
    return;
  }
  CSafeGlobalDisposer::get().addDisposeFunc(dispose);
}

void CSafeGlobalSlotBase::keepFailure(const std::exception* exception) noexcept {
  try {
    m_failure = exception ? CStdExceptionError::exceptionToError(*exception)
                          : createObject<CError>(String("Unknown exception."));
  } catch (...) {
    // The cause is a courtesy; the failed state is what matters.
  }
  m_state.store(kFailedTag, std::memory_order_release);
}

void CSafeGlobalSlotBase::waitUntilConstructed() const {
  for (;;) {
    uint64 state = getState();
    if (state == kConstructedTag) return;
    if (state == kFailedTag) {
      throw CError("Construction of static object has failed.", String(), -1, CProps(),
                   m_failure.get());
    }
    threadYield(true);
  }
}

}  // namespace zel
