// The threading primitives against the matching std:: primitive measured in
// the same run: an uncontended lock/unlock, a set/wait round trip between two
// threads, and a lock taken by two threads at once.
#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "zel/core/mutex.h"
#include "zel/thread/mutex_with_starve_protection.h"
#include "zel/thread/signal.h"

namespace {

void BM_StdMutexLockUnlock(benchmark::State& state) {
  std::mutex mutex;
  for (auto _ : state) {
    mutex.lock();
    mutex.unlock();
  }
}
BENCHMARK(BM_StdMutexLockUnlock);

void BM_StdRecursiveMutexLockUnlock(benchmark::State& state) {
  std::recursive_mutex mutex;
  for (auto _ : state) {
    mutex.lock();
    mutex.unlock();
  }
}
BENCHMARK(BM_StdRecursiveMutexLockUnlock);

void BM_CMutexLockUnlock(benchmark::State& state) {
  zel::P<zel::CMutex> mutex = zel::createObject<zel::CMutex>();
  zel::CMutex& m = *mutex;  // through the virtual functions, as the lockers call it
  for (auto _ : state) {
    m.lock();
    m.unlock();
  }
}
BENCHMARK(BM_CMutexLockUnlock);

void BM_CMutexWithStarveProtectionLockUnlock(benchmark::State& state) {
  zel::P<zel::CMutexWithStarveProtection> mutex =
      zel::createObject<zel::CMutexWithStarveProtection>();
  for (auto _ : state) {
    mutex->lock();
    mutex->unlock();
  }
  state.SetLabel("time <= 2x BM_CMutexLockUnlock");
}
BENCHMARK(BM_CMutexWithStarveProtectionLockUnlock);

// A manual-reset event built from std:: parts, the natural std:: counterpart
// of CSignal.
class StdEvent {
 public:
  void set() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_set = true;
    m_cond.notify_all();
  }
  void reset() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_set = false;
  }
  void wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_cond.wait(lock, [this] { return m_set; });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_cond;
  bool m_set = false;
};

// One iteration: main sets ping, the partner wakes, resets it and sets pong,
// main wakes and resets pong.
template <class Event, class Wait>
void pingPong(benchmark::State& state, Event& ping, Event& pong, Wait wait) {
  std::atomic<bool> stop{false};
  std::thread partner([&] {
    for (;;) {
      wait(ping);
      if (stop) return;
      ping.reset();
      pong.set();
    }
  });
  for (auto _ : state) {
    ping.set();
    wait(pong);
    pong.reset();
  }
  stop = true;
  ping.set();
  partner.join();
}

void BM_StdEventRoundTrip(benchmark::State& state) {
  StdEvent ping, pong;
  pingPong(state, ping, pong, [](StdEvent& e) { e.wait(); });
}
BENCHMARK(BM_StdEventRoundTrip)->UseRealTime();

void BM_CSignalRoundTrip(benchmark::State& state) {
  zel::P<zel::CSignal> ping = zel::createObject<zel::CSignal>();
  zel::P<zel::CSignal> pong = zel::createObject<zel::CSignal>();
  pingPong(state, *ping, *pong, [](zel::CSignal& s) { s.wait(-1); });
}
BENCHMARK(BM_CSignalRoundTrip)->UseRealTime();

// Two threads take the lock in turn, each doing a little work inside.
template <class Mutex>
void contended(benchmark::State& state, Mutex& mutex) {
  std::atomic<bool> stop{false};
  long shared = 0;
  std::thread other([&] {
    while (!stop) {
      mutex.lock();
      benchmark::DoNotOptimize(++shared);
      mutex.unlock();
    }
  });
  for (auto _ : state) {
    mutex.lock();
    benchmark::DoNotOptimize(++shared);
    mutex.unlock();
  }
  stop = true;
  other.join();
}

void BM_StdMutexContended(benchmark::State& state) {
  std::mutex mutex;
  contended(state, mutex);
}
BENCHMARK(BM_StdMutexContended)->UseRealTime();

void BM_CMutexContended(benchmark::State& state) {
  zel::P<zel::CMutex> mutex = zel::createObject<zel::CMutex>();
  contended(state, *mutex);
}
BENCHMARK(BM_CMutexContended)->UseRealTime();

void BM_CMutexWithStarveProtectionContended(benchmark::State& state) {
  zel::P<zel::CMutexWithStarveProtection> mutex =
      zel::createObject<zel::CMutexWithStarveProtection>();
  contended(state, *mutex);
  state.SetLabel("time <= 3x BM_StdMutexContended");
}
BENCHMARK(BM_CMutexWithStarveProtectionContended)->UseRealTime();

}  // namespace
