#include "zel/core/mutex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace zel {
namespace {

bool lockableFromAnotherThread(CMutex& mutex) {
  bool locked = false;
  std::thread([&] {
    locked = mutex.tryLock();
    if (locked) mutex.unlock();
  }).join();
  return locked;
}

TEST(MutexTest, SameThreadMayLockAgainAndNeedsEveryUnlock) {
  P<CMutex> mutex = createObject<CMutex>();
  mutex->lock();
  mutex->lock();
  EXPECT_TRUE(mutex->tryLock());
  mutex->unlock();
  mutex->unlock();
  EXPECT_FALSE(lockableFromAnotherThread(*mutex));
  mutex->unlock();
  EXPECT_TRUE(lockableFromAnotherThread(*mutex));
}

TEST(MutexTest, ScopedUnlockReleasesForItsScopeOnly) {
  P<CMutex> mutex = createObject<CMutex>();
  CMutexLock lock(*mutex);
  {
    CMutexUnlock unlock(*mutex);
    EXPECT_TRUE(lockableFromAnotherThread(*mutex));
  }
  EXPECT_FALSE(lockableFromAnotherThread(*mutex));
}

TEST(MutexTest, SerialisesIncrements) {
  P<CMutex> mutex = createObject<CMutex>();
  long counter = 0;  // deliberately not atomic
  auto work = [&] {
    for (int i = 0; i < 50000; ++i) {
      CMutexLock lock(*mutex);
      ++counter;
    }
  };
  std::thread a(work), b(work);
  a.join();
  b.join();
  EXPECT_EQ(counter, 100000);
}

}  // namespace
}  // namespace zel
