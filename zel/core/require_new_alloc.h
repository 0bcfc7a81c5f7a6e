// TRequireNewAlloc: a base for classes whose objects must live on the heap.
//
// Its allocation function raises a per-thread "allocated with new" flag, and
// its constructor takes the flag down again; an object built any other way
// (on the stack, as a member, with another allocator) finds the flag down and
// throws CError "Objects of class <name> must be allocated with new.".
//
//   class CJob : public TRequireNewAlloc<CBase, CJob> { ... };
//   P<CJob> job = createObject<CJob>();
//
// The optional second argument names the class in the error; without it the
// name is that of the object's type while the base is being constructed.
#pragma once

#include <typeinfo>

#include "zel/core/global.h"

namespace zel {

class ZEL_API CRequireNewAllocFlag {
 protected:
  // The calling thread's flag, kept by the thread-local storage manager.
  static P<TSimpleType<bool>> getAllocatedWithNew();
  static CSafeGlobalGuard& allocatedWithNewGuard();
  static void disposeGlobalAllocatedWithNew() {}

  static void raiseFlag();
  // Takes the flag down; never throws once raiseFlag() has run on the thread.
  static void lowerFlag() noexcept;
  // Reads and clears the flag; throws when it was not raised.
  static void takeFlag(const std::type_info& type);
};

template <class Base = CBase, class Derived = void>
class TRequireNewAlloc : public Base, protected CRequireNewAllocFlag {
 public:
  // The flag goes up before the memory is taken, so that nothing can fail
  // while the memory has no owner; a failed allocation takes it down again.
  static void* operator new(std::size_t size, const CBase::RawNew& raw) {
    raiseFlag();
    try {
      return Base::operator new(size, raw);
    } catch (...) {
      lowerFlag();
      throw;
    }
  }
  static void operator delete(void* p, const CBase::RawNew& raw) noexcept {
    Base::operator delete(p, raw);
  }
  static void operator delete(void* p) noexcept { Base::operator delete(p); }

 protected:
  template <class... Args>
  explicit TRequireNewAlloc(Args&&... args) : Base(std::forward<Args>(args)...) {
    if constexpr (std::is_void_v<Derived>) {
      takeFlag(typeid(*this));
    } else {
      takeFlag(typeid(Derived));
    }
  }
};

}  // namespace zel
