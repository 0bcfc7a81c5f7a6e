#include "zel/core/base.h"

namespace zel {

CBase::~CBase() = default;

void* CBase::operator new(std::size_t size, const RawNew&) { return ::operator new(size); }
void* CBase::operator new(std::size_t size) { return ::operator new(size); }
void CBase::operator delete(void* p, const RawNew&) noexcept { ::operator delete(p); }
void CBase::operator delete(void* p) noexcept { ::operator delete(p); }

void CBase::addRef() const { m_refCount.fetch_add(1); }

void CBase::release() const {
  if (m_refCount.fetch_sub(1) != 1) return;
  // 0 + 0xC0000000: the count stays far below zero while the object dies, so
  // references taken and dropped by its destructor never reach zero again.
  m_refCount.fetch_add(static_cast<int32>(0xC0000000u));
  const_cast<CBase*>(this)->deleteThis();
}

void CBase::deleteThis() { delete this; }

P<IBase> CBase::cancelDeleteThisAndReturnNewReference() {
  // 0xC0000000 + 0x40000001 wraps to exactly 1: the returned P's reference.
  m_refCount.fetch_add(0x40000001);
  return P<IBase>(this, adoptRef);
}

}  // namespace zel
