// CThreadLocalStorageManager: numbered per-thread value slots.
//
// createSlot() hands out a process-wide slot number; each thread then keeps
// its own P<IBase> under that number. A thread's values are released when it
// calls releaseAllThreadValues() (threads of the library do so when their run
// ends) and, at the latest, when the thread exits.
#pragma once

#include "zel/core/global.h"

namespace zel {

class ZEL_API CThreadLocalStorageManager : public CBase {
 public:
  static P<CThreadLocalStorageManager> get();
  static CSafeGlobalGuard& globalInstanceGuard();

  int createSlot();
  // Null when the calling thread has no value in the slot.
  P<IBase> getThreadValue(int slot) const;
  // Stores value (adding a reference) for the calling thread; null clears it.
  void setThreadValue(int slot, IBase* value);
  // Drops every value of the calling thread.
  void releaseAllThreadValues();

 protected:
  static P<CThreadLocalStorageManager> createInstance();
  static void disposeGlobalInstance() {}

 private:
  std::atomic<int> m_nextSlot{0};
};

}  // namespace zel
