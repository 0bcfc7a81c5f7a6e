// CSignal: a manual-reset event with a timed wait.
//
// A set signal stays set for every waiter until reset(). Windows: an event
// (CreateEventW, manual reset, initially clear). Linux: a mutex and a
// condition variable on the monotonic clock, so that changes of the wall
// clock do not stretch or cut waits.
#pragma once

#include "zel/core/base.h"

namespace zel {

class ZEL_API CSignal : public CBase {
 public:
  CSignal();
  ~CSignal() override;
  CSignal(const CSignal&) = delete;
  CSignal& operator=(const CSignal&) = delete;

  void set();
  void reset();
  // Exactly wait(0): never blocks.
  bool isSet() { return wait(0); }
  // Waits up to ms milliseconds (-1: without limit) for the signal; true
  // when it is set. A failed wait throws; a time-out does not.
  bool wait(int ms);

 private:
  struct CImpl;
  CImpl* m_impl;
};

}  // namespace zel
