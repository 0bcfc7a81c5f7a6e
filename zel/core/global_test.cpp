#include "zel/core/global.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "zel/core/error.h"
#include "zel/core/mutex.h"

namespace zel {
namespace {

// A singleton whose construction takes a while, so racing callers overlap.
class CSlowSingleton : public CBase {
 public:
  static P<CSlowSingleton> get() {
    static auto* slot = new TSafeGlobal<CSlowSingleton>(&globalInstanceGuard, &createInstance,
                                                        &disposeGlobalInstance);
    return slot->get();
  }
  static CSafeGlobalGuard& globalInstanceGuard() {
    static CSafeGlobalGuard guard;
    return guard;
  }
  static inline std::atomic<int> constructions{0};
  static inline std::atomic<int> disposals{0};
  static void disposeGlobalInstance() { get()->dispose(); }

 protected:
  static P<CSlowSingleton> createInstance() {
    ++constructions;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return createObject<CSlowSingleton>();
  }

 private:
  void dispose() { ++disposals; }
};

class CFailingSingleton : public CBase {
 public:
  static P<CFailingSingleton> get() {
    static auto* slot = new TSafeGlobal<CFailingSingleton>(&globalInstanceGuard, &createInstance,
                                                           &disposeGlobalInstance);
    return slot->get();
  }
  static CSafeGlobalGuard& globalInstanceGuard() {
    static CSafeGlobalGuard guard;
    return guard;
  }
  static inline std::atomic<int> attempts{0};

 protected:
  static P<CFailingSingleton> createInstance() {
    ++attempts;
    throw CError("disk on fire");
  }
  static void disposeGlobalInstance() {}
};

// Constructs another singleton while being constructed: the global mutex must
// let the same thread in again.
class COuterSingleton : public CBase {
 public:
  static P<COuterSingleton> get() {
    static auto* slot = new TSafeGlobal<COuterSingleton>(&globalInstanceGuard, &createInstance,
                                                         &disposeGlobalInstance);
    return slot->get();
  }
  static CSafeGlobalGuard& globalInstanceGuard() {
    static CSafeGlobalGuard guard;
    return guard;
  }
  static void disposeGlobalInstance() {}
  P<CSlowSingleton> inner;

 protected:
  static P<COuterSingleton> createInstance() {
    P<COuterSingleton> outer = createObject<COuterSingleton>();
    outer->inner = CSlowSingleton::get();
    return outer;
  }
};

TEST(SafeGlobalGuardTest, BeginInitSucceedsOnceUntilReset) {
  CSafeGlobalGuard guard;
  EXPECT_FALSE(guard.isInitStarted());
  EXPECT_TRUE(guard.beginInit());
  EXPECT_FALSE(guard.beginInit());
  EXPECT_TRUE(guard.isInitStarted());
  guard.resetInit();
  EXPECT_TRUE(guard.beginInit());
}

TEST(SafeGlobalTest, RacingFirstCallsConstructOnce) {
  std::atomic<bool> go{false};
  std::vector<CSlowSingleton*> seen(6, nullptr);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < seen.size(); ++i) {
    threads.emplace_back([&, i] {
      while (!go) std::this_thread::yield();
      seen[i] = CSlowSingleton::get().get();
    });
  }
  go = true;
  for (auto& t : threads) t.join();
  EXPECT_EQ(CSlowSingleton::constructions, 1);
  ASSERT_NE(seen[0], nullptr);
  for (CSlowSingleton* p : seen) EXPECT_EQ(p, seen[0]);
  EXPECT_EQ(CSlowSingleton::get().get(), seen[0]);
}

TEST(SafeGlobalTest, FailedConstructionIsNeverRetried) {
  for (int call = 0; call < 3; ++call) {
    try {
      CFailingSingleton::get();
      FAIL() << "get() returned after a failed construction";
    } catch (const CError& e) {
      EXPECT_EQ(e.getMessage(), "Construction of static object has failed.");
      EXPECT_TRUE(e.getErrorCodeDomain().isEmpty());
      // The original failure is kept as the cause.
      ASSERT_TRUE(e.getCause());
      EXPECT_EQ(e.getCause()->getMessage(), "disk on fire");
    }
  }
  EXPECT_EQ(CFailingSingleton::attempts, 1);
}

TEST(SafeGlobalTest, ConstructionMayUseOtherSingletons) {
  P<COuterSingleton> outer = COuterSingleton::get();
  EXPECT_EQ(outer->inner.get(), CSlowSingleton::get().get());
}

TEST(SafeGlobalTest, DisposeFunctionsAreRegisteredInConstructionOrder) {
  CSlowSingleton::get();
  COuterSingleton::get();
  auto funcs = CSafeGlobalDisposer::get().getDisposeFuncs();
  auto slow = std::find(funcs.begin(), funcs.end(), &CSlowSingleton::disposeGlobalInstance);
  auto outer = std::find(funcs.begin(), funcs.end(), &COuterSingleton::disposeGlobalInstance);
  ASSERT_NE(slow, funcs.end());
  ASSERT_NE(outer, funcs.end());
  EXPECT_LT(std::distance(funcs.begin(), slow), std::distance(funcs.begin(), outer));
  // A failed construction registers nothing.
  EXPECT_EQ(std::count(funcs.begin(), funcs.end(), &CSlowSingleton::disposeGlobalInstance), 1);

  // The registered function reaches the instance's dispose().
  int before = CSlowSingleton::disposals;
  (*slow)();
  EXPECT_EQ(CSlowSingleton::disposals, before + 1);
}

std::vector<int> g_order;

TEST(SafeGlobalDisposerTest, DisposeAllRunsFirstAddedFirstAndKeepsTheList) {
  CSafeGlobalDisposer disposer;
  g_order.clear();
  disposer.addDisposeFunc([] { g_order.push_back(1); });
  disposer.addDisposeFunc([] { g_order.push_back(2); });
  disposer.addDisposeFunc([] { g_order.push_back(3); });
  disposer.disposeAll();
  EXPECT_EQ(g_order, (std::vector<int>{1, 2, 3}));
  disposer.disposeAll();
  EXPECT_EQ(g_order, (std::vector<int>{1, 2, 3, 1, 2, 3}));
}

CSafeGlobalDisposer* g_disposer = nullptr;

TEST(SafeGlobalDisposerTest, FunctionsAddedDuringDisposalRunToo) {
  CSafeGlobalDisposer disposer;
  g_disposer = &disposer;
  g_order.clear();
  disposer.addDisposeFunc([] {
    g_order.push_back(1);
    if (g_order.size() == 1) g_disposer->addDisposeFunc([] { g_order.push_back(2); });
  });
  disposer.disposeAll();
  EXPECT_EQ(g_order, (std::vector<int>{1, 2}));
}

TEST(GlobalMutexTest, IsRecursiveAndExcludesOtherThreads) {
  CMutex& mutex = getGlobalMutex();
  CMutexLock outer(mutex);
  CMutexLock inner(mutex);
  bool otherGotIt = true;
  std::thread([&] {
    otherGotIt = mutex.tryLock();
    if (otherGotIt) mutex.unlock();
  }).join();
  EXPECT_FALSE(otherGotIt);
}

}  // namespace
}  // namespace zel
