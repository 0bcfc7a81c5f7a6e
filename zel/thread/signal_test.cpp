#include "zel/thread/signal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "zel/path/time.h"

namespace zel {
namespace {

TEST(SignalTest, StartsClearAndStaysSetUntilReset) {
  P<CSignal> signal = createObject<CSignal>();
  EXPECT_FALSE(signal->isSet());
  EXPECT_FALSE(signal->wait(0));
  signal->set();
  EXPECT_TRUE(signal->isSet());
  EXPECT_TRUE(signal->wait(-1));  // manual reset: still set
  EXPECT_TRUE(signal->wait(10));
  signal->reset();
  EXPECT_FALSE(signal->isSet());
}

TEST(SignalTest, TimedWaitRunsOutWithoutError) {
  P<CSignal> signal = createObject<CSignal>();
  CTime before = CTime::now();
  EXPECT_FALSE(signal->wait(30));
  EXPECT_GE((CTime::now() - before).getMilliseconds(), 29);
}

TEST(SignalTest, OneSetReleasesEveryWaiter) {
  P<CSignal> signal = createObject<CSignal>();
  std::atomic<int> released{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 4; ++i) {
    waiters.emplace_back([&] {
      if (signal->wait(-1)) ++released;
    });
  }
  signal->set();
  for (auto& t : waiters) t.join();
  EXPECT_EQ(released, 4);
}

TEST(SignalTest, PingPongBetweenTwoThreads) {
  P<CSignal> ping = createObject<CSignal>();
  P<CSignal> pong = createObject<CSignal>();
  int rounds = 0;
  std::thread partner([&] {
    for (int i = 0; i < 200; ++i) {
      ping->wait(-1);
      ping->reset();
      pong->set();
    }
  });
  for (int i = 0; i < 200; ++i) {
    ping->set();
    ASSERT_TRUE(pong->wait(10000));
    pong->reset();
    ++rounds;
  }
  partner.join();
  EXPECT_EQ(rounds, 200);
}

}  // namespace
}  // namespace zel
