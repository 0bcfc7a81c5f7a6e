#include "zel/core/thread_local_storage.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace zel {
namespace {

std::atomic<int> g_released{0};

class CTracked : public CBase {
 public:
  explicit CTracked(int id) : id(id) {}
  ~CTracked() override { ++g_released; }
  int id;
};

int valueId(int slot) {
  P<CTracked> value = dynamicCast<CTracked>(CThreadLocalStorageManager::get()->getThreadValue(slot));
  return value ? value->id : -1;
}

TEST(ThreadLocalStorageTest, SlotsAreDistinctAndValuesPerThread) {
  P<CThreadLocalStorageManager> tls = CThreadLocalStorageManager::get();
  int a = tls->createSlot();
  int b = tls->createSlot();
  EXPECT_NE(a, b);
  EXPECT_EQ(valueId(a), -1);
  tls->setThreadValue(a, createObject<CTracked>(1).get());
  tls->setThreadValue(b, createObject<CTracked>(2).get());
  std::thread([&] {
    EXPECT_EQ(valueId(a), -1);
    CThreadLocalStorageManager::get()->setThreadValue(a, createObject<CTracked>(3).get());
    EXPECT_EQ(valueId(a), 3);
  }).join();
  EXPECT_EQ(valueId(a), 1);
  EXPECT_EQ(valueId(b), 2);
  tls->setThreadValue(a, nullptr);
  EXPECT_EQ(valueId(a), -1);
  tls->setThreadValue(b, nullptr);
}

TEST(ThreadLocalStorageTest, ValuesAreReleasedOnRequestAndAtThreadExit) {
  int slot = CThreadLocalStorageManager::get()->createSlot();
  g_released = 0;
  std::thread([slot] {
    P<CThreadLocalStorageManager> tls = CThreadLocalStorageManager::get();
    tls->setThreadValue(slot, createObject<CTracked>(1).get());
    tls->releaseAllThreadValues();
    EXPECT_EQ(g_released, 1);
    EXPECT_EQ(valueId(slot), -1);
    tls->setThreadValue(slot, createObject<CTracked>(2).get());
  }).join();
  EXPECT_EQ(g_released, 2);  // released by the thread's exit
}

}  // namespace
}  // namespace zel
