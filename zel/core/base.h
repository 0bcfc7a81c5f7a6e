// The object model: intrusive reference counting and the smart pointers that
// own counted objects.
//
// Every shared object derives from CBase (virtually from IBase, so a class
// implementing several interfaces holds one count). A new object starts with
// count 1; the first P<T> that receives it from its creating function adopts
// that reference. P<T> is not synchronised itself, but the count is changed
// only by atomic read-modify-write operations, so copies of a P may be made and
// dropped on any thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <new>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "zel/core/export.h"
#include "zel/core/types.h"

namespace zel {

template <class T>
class P;

// The root interface of every counted object.
class IBase {
 public:
  virtual ~IBase() = default;
  virtual void addRef() const = 0;
  // Never throws: an exception escaping a release terminates the process.
  virtual void release() const = 0;
  // Lets an object refuse a checked down-cast to the given type.
  virtual bool checkCastAllowed(const std::type_info& type) const = 0;
};

// Tag that makes a P adopt the reference it is given instead of adding one.
struct AdoptRefTag {
  explicit AdoptRefTag() = default;
};
inline constexpr AdoptRefTag adoptRef{};

class ZEL_API CBase : public virtual IBase {
 public:
  // Tag of the public allocation function: `new (CBase::RawNew{}) CFoo(...)`.
  // The plain operator new is protected so that objects are made through a
  // class's create functions (or createObject below), never by accident.
  struct RawNew {};

  CBase() noexcept : m_refCount(1) {}
  // A copy is a new object with a fresh count.
  CBase(const CBase&) noexcept : m_refCount(1) {}
  CBase& operator=(const CBase&) noexcept { return *this; }
  ~CBase() override;

  static void* operator new(std::size_t size, const RawNew&);
  static void operator delete(void* p, const RawNew&) noexcept;
  static void operator delete(void* p) noexcept;

  void addRef() const override;
  // Drops one reference. The last one adds 0xC0000000 to the count, so the
  // count stays hugely negative while deleteThis() and the destructor run:
  // a P made of the dying object can never bring it back to zero.
  void release() const override;
  bool checkCastAllowed(const std::type_info&) const override { return true; }

  // The current count, as it is (a large negative number during destruction).
  int getRefCount() const { return m_refCount.load(); }

 protected:
  static void* operator new(std::size_t size);

  // Called by the last release(). The default destroys the object; an
  // override may postpone or hand off destruction, or keep the object alive
  // with cancelDeleteThisAndReturnNewReference().
  virtual void deleteThis();

  // Only valid inside deleteThis(): adds 0x40000001, which brings the count
  // from 0xC0000000 back to exactly 1, and returns a P owning that reference.
  P<IBase> cancelDeleteThisAndReturnNewReference();

  // Lets classes with their own release paths (a thread dropping its last
  // reference from inside its run) reset the count atomically.
  int exchangeRefCount(int value) const { return m_refCount.exchange(value); }

 private:
  mutable std::atomic<int32> m_refCount;
};

// Throws CCastError (defined with the errors; declared here so the pointer
// casts below need not include the error headers).
[[noreturn]] ZEL_API void throwCastError(const IBase* object, const std::type_info* target);

// Owns one reference to a T, or nothing. PC<T> is the same for a const T.
template <class T>
class P {
 public:
  using element_type = T;

  P() noexcept : m_p(nullptr) {}
  P(std::nullptr_t) noexcept : m_p(nullptr) {}
  // Adds a reference: use P(p, adoptRef) for a freshly created object.
  P(T* p) noexcept : m_p(p) {
    if (m_p) m_p->addRef();
  }
  P(T* p, AdoptRefTag) noexcept : m_p(p) {}
  P(const P& other) noexcept : P(other.m_p) {}
  P(P&& other) noexcept : m_p(std::exchange(other.m_p, nullptr)) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  P(const P<U>& other) noexcept : P(other.get()) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  P(P<U>&& other) noexcept : m_p(other.detach()) {}

  ~P() { reset(); }

  // The new target gains its reference before the old one loses its own, so
  // self-assignment is safe.
  P& operator=(const P& other) noexcept { return assign(other.m_p); }
  P& operator=(P&& other) noexcept {
    if (this != &other) {
      T* old = std::exchange(m_p, std::exchange(other.m_p, nullptr));
      if (old) old->release();
    }
    return *this;
  }
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  P& operator=(const P<U>& other) noexcept {
    return assign(other.get());
  }
  P& operator=(T* p) noexcept { return assign(p); }
  P& operator=(std::nullptr_t) noexcept {
    reset();
    return *this;
  }

  T* get() const noexcept { return m_p; }
  T* operator->() const noexcept { return m_p; }
  T& operator*() const noexcept { return *m_p; }
  explicit operator bool() const noexcept { return m_p != nullptr; }
  bool isNull() const noexcept { return m_p == nullptr; }

  void reset() noexcept {
    if (T* old = std::exchange(m_p, nullptr)) old->release();
  }
  // Gives up ownership without releasing: the caller now owns the reference.
  T* detach() noexcept { return std::exchange(m_p, nullptr); }

 private:
  P& assign(T* p) noexcept {
    if (p) p->addRef();
    if (T* old = std::exchange(m_p, p)) old->release();
    return *this;
  }

  T* m_p;
};

template <class T>
using PC = P<const T>;

template <class T, class U>
bool operator==(const P<T>& a, const P<U>& b) noexcept {
  return a.get() == b.get();
}
template <class T, class U>
bool operator==(const P<T>& a, const U* b) noexcept {
  return a.get() == b;
}
template <class T>
bool operator==(const P<T>& a, std::nullptr_t) noexcept {
  return a.get() == nullptr;
}
template <class T, class U>
bool operator<(const P<T>& a, const P<U>& b) noexcept {
  return a.get() < b.get();
}

// Creates a counted object with the public allocation function and hands its
// first reference to the returned P.
template <class T, class... Args>
P<T> createObject(Args&&... args) {
  return P<T>(new (CBase::RawNew{}) T(std::forward<Args>(args)...), adoptRef);
}

// Down-cast that yields null when the object is not a U or refuses the cast.
template <class U, class T>
P<U> dynamicCast(const P<T>& p) {
  U* target = dynamic_cast<U*>(p.get());
  if (!target || !p->checkCastAllowed(typeid(U))) return P<U>();
  return P<U>(target);
}

// Down-cast that throws CCastError when the object is not a U or refuses the
// cast. A null pointer casts to null.
template <class U, class T>
P<U> checkedCast(const P<T>& p) {
  if (!p) return P<U>();
  U* target = dynamic_cast<U*>(p.get());
  if (!target || !p->checkCastAllowed(typeid(U))) throwCastError(p.get(), &typeid(U));
  return P<U>(target);
}

// A counted box for one plain value, so that it can be shared through P.
template <class V>
class TSimpleType : public CBase {
 public:
  TSimpleType() : m_value() {}
  explicit TSimpleType(const V& value) : m_value(value) {}

  const V& getValue() const { return m_value; }
  void setValue(const V& value) { m_value = value; }
  V& value() { return m_value; }

 private:
  V m_value;
};

}  // namespace zel
