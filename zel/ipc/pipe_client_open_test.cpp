// The client open loop against a scripted system and clock.
#include "zel/ipc/pipe_client_open.h"

#include <gtest/gtest.h>

#include <deque>
#include <vector>

#include "zel/core/error.h"

namespace zel {
namespace {

using Outcome = IPipeOpenSteps::Outcome;

// Answers tryOpen() from a script (the last answer repeats) and advances a
// fake clock by what the loop waits or sleeps. Every wait "fails" (as
// WaitNamedPipeW does for a missing pipe) unless waitSucceeds is set.
class CScriptedSteps : public IPipeOpenSteps {
 public:
  explicit CScriptedSteps(std::deque<Outcome> script, int64 error = 0)
      : m_script(std::move(script)), m_error(error) {}

  Outcome tryOpen(int64& sysError) override {
    ++opens;
    Outcome outcome = m_script.front();
    if (m_script.size() > 1) m_script.pop_front();
    if (outcome == Outcome::Failed) sysError = m_error;
    return outcome;
  }
  bool waitForServer(int ms) override {
    waits.push_back(ms);
    m_nowUs += chargePerWaitUs >= 0 ? chargePerWaitUs : static_cast<int64>(ms) * 1000;
    return waitSucceeds;
  }
  void sleep(int ms) override {
    sleeps.push_back(ms);
    m_nowUs += static_cast<int64>(ms) * 1000;
  }
  CTime now() override { return CTime(m_nowUs); }
  String getOpenFunctionName() const override { return "CreateFile"; }

  int opens = 0;
  std::vector<int> waits;
  std::vector<int> sleeps;
  bool waitSucceeds = false;
  // What a wait costs on the clock; -1: all the time it was given.
  int64 chargePerWaitUs = -1;

 private:
  std::deque<Outcome> m_script;
  int64 m_error;
  int64 m_nowUs = 1700000000000000;
};

const String kPath = L"\\\\.\\pipe\\app_x";
const String kAction = "CWindowsPipeConnection constructor";

TEST(PipeClientOpenTest, BusyWithZeroTimeOutsStillMakesFiveAttemptsOfTwentyMs) {
  CScriptedSteps steps({Outcome::Busy});
  try {
    doOpenPipe(steps, kPath, true, 0, 0, kAction);
    FAIL() << "no time-out";
  } catch (const CError& error) {
    EXPECT_EQ(error.getMessage(), "pipe client connection attempts timed out");
    EXPECT_FALSE(error.hasErrorCode());
    const CProps& params = error.getParams();
    EXPECT_EQ(params.get("uri"), kPath);
    EXPECT_EQ(params.get("notFoundTimeoutMillis"), "0");
    EXPECT_EQ(params.get("busyTimeoutMillis"), "0");
    EXPECT_EQ(params.get("action"), kAction);
  }
  EXPECT_EQ(steps.waits, std::vector<int>(5, 20));
  // Each failed wait is followed by a 20 ms sleep.
  EXPECT_EQ(steps.sleeps, std::vector<int>(5, 20));
  EXPECT_EQ(steps.opens, 6);
}

TEST(PipeClientOpenTest, NotFoundWithoutWaitingReturnsAtOnce) {
  CScriptedSteps steps({Outcome::NotFound});
  EXPECT_FALSE(doOpenPipe(steps, kPath, false, 5000, 5000, kAction));
  EXPECT_EQ(steps.opens, 1);
  EXPECT_TRUE(steps.waits.empty());
  EXPECT_TRUE(steps.sleeps.empty());

  // Also after the server was busy first: a vanished server is no server.
  CScriptedSteps vanished({Outcome::Busy, Outcome::NotFound});
  EXPECT_FALSE(doOpenPipe(vanished, kPath, false, 5000, 5000, kAction));
  EXPECT_EQ(vanished.opens, 2);
}

TEST(PipeClientOpenTest, OtherErrorRaisesTheSystemErrorNamingFunctionAndPipe) {
  CScriptedSteps steps({Outcome::Busy, Outcome::Failed}, 5);
  try {
    doOpenPipe(steps, kPath, true, 1000, 1000, kAction);
    FAIL() << "no error";
  } catch (const CError& error) {
    EXPECT_EQ(error.getErrorCodeDomain(), CError::sysErrorDomain());
    EXPECT_EQ(error.getErrorCode(), 5);
    EXPECT_EQ(error.getParams().get("func"), "CreateFile");
    EXPECT_EQ(error.getParams().get("pipe"), kPath);
    EXPECT_EQ(error.getParams().get("action"), kAction);
  }
  EXPECT_EQ(steps.opens, 2);
}

TEST(PipeClientOpenTest, WaitsForAMissingServerUpToItsDeadline) {
  CScriptedSteps steps({Outcome::NotFound});
  EXPECT_THROW(doOpenPipe(steps, kPath, true, 100, 0, kAction), CError);
  // The first wait is given the whole remaining time; WaitNamedPipeW fails at
  // once for a missing pipe, but the fake clock charges the full wait, so the
  // deadline has passed and only the minimum attempts remain.
  ASSERT_EQ(steps.waits.size(), 5u);
  EXPECT_EQ(steps.waits[0], 100);
  EXPECT_EQ(steps.waits[1], 20);
  EXPECT_EQ(steps.opens, 6);
}

TEST(PipeClientOpenTest, EachErrorUsesItsOwnDeadline) {
  // Not found twice (long deadline), then busy (deadline 0, passed); every
  // wait succeeds and costs 1 ms.
  CScriptedSteps steps({Outcome::NotFound, Outcome::NotFound, Outcome::Busy});
  steps.waitSucceeds = true;
  steps.chargePerWaitUs = 1000;
  EXPECT_THROW(doOpenPipe(steps, kPath, true, 10000, 0, kAction), CError);
  EXPECT_EQ(steps.waits, (std::vector<int>{10000, 9999, 20, 20, 20}));
  EXPECT_TRUE(steps.sleeps.empty());  // successful waits need no sleep
  EXPECT_EQ(steps.opens, 6);
}

TEST(PipeClientOpenTest, SucceedsAfterRetriesAndWithoutLimit) {
  CScriptedSteps steps({Outcome::Busy, Outcome::NotFound, Outcome::Opened});
  EXPECT_TRUE(doOpenPipe(steps, kPath, true, -1, -1, kAction));
  EXPECT_EQ(steps.opens, 3);
  ASSERT_EQ(steps.waits.size(), 2u);
  // No limit: the wait is as long as an int allows.
  EXPECT_GT(steps.waits[0], 1000000);

  CScriptedSteps first({Outcome::Opened});
  EXPECT_TRUE(doOpenPipe(first, kPath, false, 0, 0, kAction));
  EXPECT_EQ(first.opens, 1);
  EXPECT_TRUE(first.waits.empty());
}

TEST(PipeClientOpenTest, KeepsTryingWhileTimeRemainsAfterFiveAttempts) {
  // Waits "fail" at once without time passing: only the clock decides.
  class CInstantSteps : public CScriptedSteps {
   public:
    CInstantSteps() : CScriptedSteps({Outcome::Busy}) {}
    bool waitForServer(int ms) override {
      waits.push_back(ms);
      return false;
    }
    void sleep(int ms) override {
      sleeps.push_back(ms);
      m_fakeUs += 10000;  // 10 ms per sleep
    }
    CTime now() override { return CTime(m_fakeUs); }
    int64 m_fakeUs = 0;
  } steps;
  EXPECT_THROW(doOpenPipe(steps, kPath, true, 0, 200, kAction), CError);
  // 200 ms at 10 ms per round: about 20 rounds, far more than five.
  EXPECT_GE(steps.opens, 20);
  EXPECT_LE(steps.opens, 22);
}

}  // namespace
}  // namespace zel
