// The object model's hot paths against their floor: a bare atomic increment
// (and increment plus decrement) measured in the same run.
#include <benchmark/benchmark.h>

#include <atomic>

#include "zel/core/base.h"
#include "zel/core/global.h"
#include "zel/core/thread_local_storage.h"

namespace {

class CObject : public zel::CBase {};

void BM_AtomicIncrement(benchmark::State& state) {
  std::atomic<int> count{1};
  for (auto _ : state) {
    count.fetch_add(1);
    benchmark::DoNotOptimize(count);
  }
}
BENCHMARK(BM_AtomicIncrement);

void BM_AddRefRelease(benchmark::State& state) {
  zel::P<CObject> object = zel::createObject<CObject>();
  zel::IBase* base = object.get();  // through the vtable, as callers do
  for (auto _ : state) {
    base->addRef();
    base->release();
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_AddRefRelease);

void BM_PointerCopy(benchmark::State& state) {
  zel::P<CObject> object = zel::createObject<CObject>();
  for (auto _ : state) {
    zel::P<CObject> copy = object;
    benchmark::DoNotOptimize(copy.get());
  }
}
BENCHMARK(BM_PointerCopy);

// get() of a constructed singleton returns P by value: one comparison of the
// state word and one reference increment (and the copy's release).
void BM_SingletonGet(benchmark::State& state) {
  zel::CThreadLocalStorageManager::get();
  for (auto _ : state) {
    zel::P<zel::CThreadLocalStorageManager> tls = zel::CThreadLocalStorageManager::get();
    benchmark::DoNotOptimize(tls.get());
  }
}
BENCHMARK(BM_SingletonGet);

// The floor of a reference copy made and dropped: increment and decrement.
void BM_AtomicIncrementDecrement(benchmark::State& state) {
  std::atomic<int> count{1};
  for (auto _ : state) {
    count.fetch_add(1);
    if (count.fetch_sub(1) == 1) benchmark::DoNotOptimize(count);
    benchmark::DoNotOptimize(count);
  }
}
BENCHMARK(BM_AtomicIncrementDecrement);

}  // namespace
