#include "zel/thread/thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <string>

#include "zel/log/xml_log.h"
#include "zel/path/time.h"
#include "zel/thread/signal.h"
#include "zel/thread/thread_list.h"

namespace zel {
namespace {

std::atomic<int> g_destroyed{0};

// Runs a function; counts destructions.
class CFuncThread : public CThread {
 public:
  explicit CFuncThread(std::function<void(CFuncThread&)> run) : m_run(std::move(run)) {}
  ~CFuncThread() override { ++g_destroyed; }
  std::atomic<int> runs{0};
  P<CThread> selfReference;

 protected:
  void runImpl() override {
    ++runs;
    m_run(*this);
  }

 private:
  std::function<void(CFuncThread&)> m_run;
};

// Waits (up to 10 s) for a condition another thread makes true.
bool eventually(const std::function<bool()>& condition) {
  for (int i = 0; i < 2000; ++i) {
    if (condition()) return true;
    CThread::sleep(5);
  }
  return condition();
}

void untilStopped(CFuncThread& self) {
  while (self.checkContinue()) CThread::sleep(1);
}

class ThreadTest : public ::testing::Test {
 protected:
  void SetUp() override { g_destroyed = 0; }
};

TEST_F(ThreadTest, RunsJoinsAndRestartsAFinishedThread) {
  std::atomic<int> sum{0};
  P<CFuncThread> thread = createObject<CFuncThread>([&](CFuncThread&) { sum += 5; });
  thread->start();
  thread->join(true);
  EXPECT_EQ(sum, 5);
  EXPECT_FALSE(thread->isAlive());
  EXPECT_FALSE(thread->getThreadError());
  thread->start();
  thread->join(true);
  EXPECT_EQ(sum, 10);
  EXPECT_EQ(thread->runs, 2);
}

TEST_F(ThreadTest, RestartOfARunningThreadStopsAndJoinsTheOldRunFirst) {
  std::atomic<int> stoppedRuns{0};
  P<CFuncThread> thread = createObject<CFuncThread>([&](CFuncThread& self) {
    untilStopped(self);
    ++stoppedRuns;
  });
  thread->start();
  ASSERT_TRUE(eventually([&] { return thread->runs == 1; }));
  thread->start();  // must not leave two runs going
  EXPECT_EQ(stoppedRuns, 1);
  ASSERT_TRUE(eventually([&] { return thread->runs == 2; }));
  EXPECT_TRUE(thread->isAlive());
  EXPECT_TRUE(thread->checkContinue());  // the new run starts without a stop request
  thread->stop(true);
  EXPECT_EQ(stoppedRuns, 2);
}

TEST_F(ThreadTest, AnErrorLeavingTheRunIsLoggedKeptAndRethrown) {
  CLogCapture capture;
  P<CFuncThread> thread = createObject<CFuncThread>([](CFuncThread& self) {
    if (self.runs == 1) throw CIOError(CIOError::ReadFailed, "disk gone");
  });
  thread->setThreadName("zel.test.failing");
  thread->start();
  thread->join(false);
  PC<CError> error = thread->getThreadError();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->getMessage(), "disk gone");
  EXPECT_TRUE(error->isError("IO", CIOError::ReadFailed));
  EXPECT_THROW(thread->join(true), CThreadError);
  EXPECT_THROW(thread->throwThreadError(), CThreadError);
  EXPECT_TRUE(capture.contains(LogLevel::Error, "zel.test.failing"));
  // A new run starts without the old error.
  thread->start();
  thread->join(true);
  EXPECT_FALSE(thread->getThreadError());
}

TEST_F(ThreadTest, JoinFromInsideTheThreadReturnsAtOnce) {
  std::atomic<bool> returned{false};
  P<CFuncThread> thread = createObject<CFuncThread>([&](CFuncThread& self) {
    self.join(false);
    returned = true;
  });
  thread->start();
  thread->join(true);
  EXPECT_TRUE(returned);
}

TEST_F(ThreadTest, DroppingTheLastReferenceInsideTheRunDeletesAfterTheRun) {
  std::atomic<bool> stopSeen{false};
  std::atomic<bool> finished{false};
  P<CSignal> handedOver = createObject<CSignal>();
  P<CFuncThread> thread = createObject<CFuncThread>([&](CFuncThread& self) {
    handedOver->wait(-1);
    self.selfReference = nullptr;  // the last reference goes here
    // The object must still be usable until the run ends.
    stopSeen = !self.checkContinue();
    EXPECT_TRUE(self.isDetachedBySelf());
    CThread::sleep(20);
    self.runs += 10;
    finished = true;
  });
  CFuncThread* raw = thread.get();
  raw->start();
  raw->selfReference = thread;
  thread = nullptr;
  handedOver->set();  // the P is the run's from here on
  EXPECT_TRUE(eventually([] { return g_destroyed == 1; }));
  EXPECT_TRUE(finished);
  EXPECT_TRUE(stopSeen);
}

TEST_F(ThreadTest, DroppingTheLastReferenceElsewhereStopsAndWaits) {
  std::atomic<bool> runEnded{false};
  P<CFuncThread> thread = createObject<CFuncThread>([&](CFuncThread& self) {
    untilStopped(self);
    CThread::sleep(20);
    runEnded = true;
  });
  thread->start();
  ASSERT_TRUE(eventually([&] { return thread->runs == 1; }));
  thread = nullptr;
  EXPECT_TRUE(runEnded);  // the release waited for the run
  EXPECT_EQ(g_destroyed, 1);
}

TEST_F(ThreadTest, DetachedThreadDeletesItselfAndCannotRestart) {
  CSignal* go = nullptr;
  P<CSignal> signal = createObject<CSignal>();
  go = signal.get();
  P<CFuncThread> thread = createObject<CFuncThread>([go](CFuncThread&) { go->wait(-1); });
  thread->start();
  thread->detach(false);
  EXPECT_TRUE(thread->isDetached());
  EXPECT_FALSE(thread->isDetachedBySelf());
  try {
    thread->start();
    FAIL() << "a detached thread restarted";
  } catch (const CError& e) {
    EXPECT_EQ(e.getMessage(), "Detached threads cannot be restarted");
    EXPECT_EQ(e.getErrorCode(), -1);
  }
  thread = nullptr;  // the run still holds its own reference
  EXPECT_EQ(g_destroyed, 0);
  go->set();
  EXPECT_TRUE(eventually([] { return g_destroyed == 1; }));
}

// Its run ends at once; onRunFinished() then waits for a signal and uses
// the object afterwards.
class CSlowFinishThread : public CThread {
 public:
  explicit CSlowFinishThread(CSignal& release) : m_release(release) {}
  ~CSlowFinishThread() override {
    destroyedBeforeFinish = destroyedBeforeFinish || !finished;
    ++g_destroyed;
  }
  static inline std::atomic<bool> finished{false};
  static inline std::atomic<bool> destroyedBeforeFinish{false};
  std::atomic<bool> inFinish{false};

 protected:
  void runImpl() override {}
  void onRunFinished() override {
    inFinish = true;
    m_release.wait(-1);
    m_uses += 1;  // touches the object after the wait
    finished = true;
  }

 private:
  CSignal& m_release;
  int m_uses = 0;
};

TEST_F(ThreadTest, DetachAfterTheRunKeepsTheObjectUntilTheThreadLeavesIt) {
  // Detached after its run finished but while onRunFinished() still runs,
  // then released elsewhere: the object must wait for the thread.
  P<CSignal> release = createObject<CSignal>();
  CSlowFinishThread::finished = false;
  CSlowFinishThread::destroyedBeforeFinish = false;
  P<CSlowFinishThread> thread = createObject<CSlowFinishThread>(*release);
  thread->start();
  ASSERT_TRUE(eventually([&] { return thread->inFinish.load(); }));
  thread->detach(false);
  thread = nullptr;
  EXPECT_EQ(g_destroyed, 0);
  release->set();
  EXPECT_TRUE(eventually([] { return g_destroyed == 1; }));
  EXPECT_TRUE(CSlowFinishThread::finished);
  EXPECT_FALSE(CSlowFinishThread::destroyedBeforeFinish);
}

TEST_F(ThreadTest, IdentityAndLiveness) {
  EXPECT_TRUE(CThread::isThreadAlive(CThread::getCurrentID()));
  std::atomic<int64> seenID{0};
  P<CFuncThread> thread =
      createObject<CFuncThread>([&](CFuncThread&) { seenID = CThread::getCurrentID(); });
  thread->start();
  int64 id = thread->getID();
  thread->join(true);
  EXPECT_EQ(seenID, id);
  EXPECT_NE(id, CThread::getCurrentID());
  EXPECT_FALSE(CThread::isThreadAlive(id));
}

#if !defined(_WIN32)
std::string commOf(int64 id) {
  std::ifstream comm("/proc/self/task/" + std::to_string(id) + "/comm");
  std::string name;
  std::getline(comm, name);
  return name;
}

TEST_F(ThreadTest, NamesAreVisibleToTheSystem) {
  P<CSignal> named = createObject<CSignal>();
  P<CSignal> done = createObject<CSignal>();
  P<CFuncThread> thread = createObject<CFuncThread>([&](CFuncThread&) {
    named->set();
    done->wait(-1);
  });
  thread->setThreadName(L"zel.deviceManager.message");
  thread->start();
  named->wait(-1);
  EXPECT_EQ(commOf(thread->getID()), "zel.deviceManag");  // the kernel keeps 15 bytes
  thread->setThreadName("renamed");
  EXPECT_EQ(commOf(thread->getID()), "renamed");
  done->set();
  thread->join(true);
}

TEST_F(ThreadTest, KillingAThreadIsRefusedOnLinux) {
  try {
    CThread::killThread(CThread::getCurrentID(), 1);
    FAIL() << "killThread returned";
  } catch (const CError& e) {
    EXPECT_TRUE(couldBeUnsupportedError(e));
    EXPECT_EQ(e.getParams().get("action"), "CThread::killThread");
  }
}
#else
TEST_F(ThreadTest, KillThreadEndsAThread) {
  P<CFuncThread> thread = createObject<CFuncThread>([](CFuncThread&) {
    for (;;) CThread::sleep(10);
  });
  thread->start();
  ASSERT_TRUE(eventually([&] { return thread->runs == 1; }));
  CThread::killThread(thread->getID(), 3);
  EXPECT_TRUE(eventually([&] { return !thread->isAlive(); }));
  thread->join(false);
}
#endif

TEST_F(ThreadTest, StopAllThreadsWaitsForCooperativeThreads) {
  std::vector<P<CFuncThread>> threads;
  for (int i = 0; i < 3; ++i) {
    threads.push_back(createObject<CFuncThread>(untilStopped));
    threads.back()->start();
  }
  EXPECT_TRUE(CThreadList::get()->stopAllThreads(-1, false));
  for (auto& t : threads) EXPECT_FALSE(t->isAlive());
}

TEST_F(ThreadTest, StopAllThreadsGivesUpOnAThreadIgnoringTheStop) {
  std::atomic<bool> release{false};
  P<CFuncThread> stubborn = createObject<CFuncThread>([&](CFuncThread&) {
    while (!release) CThread::sleep(1);
  });
  stubborn->start();
  CTime before = CTime::now();
  EXPECT_FALSE(CThreadList::get()->stopAllThreads(0, false));
  EXPECT_GE((CTime::now() - before).getMilliseconds(), 100);  // one pause
  EXPECT_FALSE(stubborn->checkContinue());                   // it was asked
  release = true;
  stubborn->join(true);
}

TEST_F(ThreadTest, StopAllThreadsCanSkipThreadsNotMarkedForExit) {
  P<CFuncThread> marked = createObject<CFuncThread>(untilStopped);
  P<CFuncThread> unmarked = createObject<CFuncThread>(untilStopped);
  marked->setStopBeforeProcessExits(true);
  marked->start();
  unmarked->start();
  EXPECT_TRUE(CThreadList::get()->stopAllThreads(-1, true));
  EXPECT_FALSE(marked->isAlive());
  EXPECT_TRUE(unmarked->checkContinue());
  unmarked->stop(true);
}

}  // namespace
}  // namespace zel
