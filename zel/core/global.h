// Process-wide singletons: created lazily and exactly once by a static get(),
// disposed at application exit in the order in which they were constructed.
//
// Every service class X uses the same mechanism:
//
//   class CFoo : public CBase {
//    public:
//     static P<CFoo> get() {
//       static auto* slot = new TSafeGlobal<CFoo>(&globalInstanceGuard, &createInstance,
//                                                  &disposeGlobalInstance);
//       return slot->get();
//     }
//     static CSafeGlobalGuard& globalInstanceGuard() {
//       static CSafeGlobalGuard guard;
//       return guard;
//     }
//    protected:
//     static P<CFoo> createInstance() { return createObject<CFoo>(); }
//     static void disposeGlobalInstance() { get()->dispose(); }
//   };
//
// (get() and globalInstanceGuard() are usually defined in the .cpp file.)
// The slot is never destroyed: the instance stays referenced until the
// process ends, and its resources are freed by its dispose().
#pragma once

#include <atomic>
#include <exception>
#include <list>

#include "zel/core/base.h"

namespace zel {

class CError;
class CMutex;

// The process-wide recursive mutex under which singletons are constructed and
// dispose functions registered and run. Never destroyed.
ZEL_API CMutex& getGlobalMutex();

// Gives up the rest of the calling thread's time slice; with
// sleepAtLeastOneTick the thread sleeps for about a millisecond instead, which
// lets lower-priority threads run.
ZEL_API void threadYield(bool sleepAtLeastOneTick);

// One flag byte, set once the guarded instance is being or has been built.
class ZEL_API CSafeGlobalGuard {
 public:
  constexpr CSafeGlobalGuard() noexcept : m_flag(0) {}
  // Sets the flag; true only for the caller that found it clear.
  bool beginInit() noexcept { return m_flag.exchange(1) == 0; }
  void resetInit() noexcept { m_flag.store(0); }
  bool isInitStarted() const noexcept { return m_flag.load() != 0; }

 private:
  std::atomic<uint8> m_flag;
};

// The dispose functions of all constructed singletons, in registration order.
class ZEL_API CSafeGlobalDisposer {
 public:
  using DisposeFunc = void (*)();

  // The process's disposer. Not itself registered anywhere; never destroyed.
  static CSafeGlobalDisposer& get();

  CSafeGlobalDisposer() = default;

  // Appends f under the global mutex; throws std::length_error("list too
  // long") if the list cannot grow.
  void addDisposeFunc(DisposeFunc f);
  // Calls every function from the first added to the last, under the global
  // mutex, and keeps the list: a second call disposes everything again.
  // Functions added while it runs are called too.
  void disposeAll();

  // The registered functions, in order (for diagnostics and tests).
  std::list<DisposeFunc> getDisposeFuncs() const;

 private:
  std::list<DisposeFunc> m_funcs;
};

// The part of a singleton's slot that does not depend on its type: the state
// word and the common construction routine.
class ZEL_API CSafeGlobalSlotBase {
 public:
  static constexpr uint64 kConstructedTag = 0x47A592FE710A82BCull;
  static constexpr uint64 kFailedTag = 0xFE3493AD1F6783BDull;

  using GuardAccessor = CSafeGlobalGuard& (*)();
  using DisposeFunc = void (*)();

  uint64 getState() const noexcept { return m_state.load(std::memory_order_acquire); }

 protected:
  // Out of line: the members need the complete CError.
  CSafeGlobalSlotBase();
  ~CSafeGlobalSlotBase();
  CSafeGlobalSlotBase(const CSafeGlobalSlotBase&) = delete;
  CSafeGlobalSlotBase& operator=(const CSafeGlobalSlotBase&) = delete;

  // Under the global mutex: if the guard's beginInit() succeeds, calls
  // construct(context) to build and store the instance, marks the slot
  // constructed and registers dispose. A throwing construction marks the
  // slot failed for good (the error is kept as the cause of what get()
  // throws later).
  void initialize(GuardAccessor guard, DisposeFunc dispose, void (*construct)(void*),
                  void* context);

  // Waits (yielding) until the slot is constructed or failed; throws
  // "Construction of static object has failed." for a failed slot.
  void waitUntilConstructed() const;

 private:
  void keepFailure(const std::exception* exception) noexcept;

  std::atomic<uint64> m_state{0};
  P<CError> m_failure;
};

template <class X>
class TSafeGlobal : public CSafeGlobalSlotBase {
 public:
  using Factory = P<X> (*)();

  TSafeGlobal(GuardAccessor guard, Factory factory, DisposeFunc dispose) : m_factory(factory) {
    initialize(guard, dispose, &TSafeGlobal::construct, this);
  }

  // One comparison of the state word on the fast path.
  const P<X>& get() const {
    if (getState() != kConstructedTag) waitUntilConstructed();
    return m_instance;
  }

 private:
  static void construct(void* self) {
    auto* slot = static_cast<TSafeGlobal*>(self);
    slot->m_instance = slot->m_factory();
  }

  Factory m_factory;
  P<X> m_instance;
};

}  // namespace zel
