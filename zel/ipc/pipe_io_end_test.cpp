// Ending a given-up overlapped pipe operation, against a scripted system and
// clock.
#include "zel/ipc/pipe_io_end.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zel {
namespace {

using Cancel = IPendingPipeIO::CancelOutcome;

// An operation that ends when the script says so: after a number of event
// waits, or when its handle is closed. Every call is recorded in order, and
// each wait advances the fake clock by all the time it was given.
class CScriptedIO : public IPendingPipeIO {
 public:
  Cancel cancel(int64& sysError) override {
    calls.push_back("cancel");
    if (cancelAnswer == Cancel::Failed) sysError = cancelError;
    if (cancelAnswer != Cancel::Failed && endsOnCancel) m_ended = true;
    return cancelAnswer;
  }
  bool hasEnded() override {
    ++checks;
    if (waits >= endAfterWaits) m_ended = true;
    return m_ended;
  }
  void waitEvent(int ms) override {
    calls.push_back("wait " + std::to_string(ms));
    ++waits;
    m_nowUs += static_cast<int64>(ms) * 1000;
  }
  void closeHandle() override {
    calls.push_back("close");
    if (endsOnClose) m_ended = true;
  }
  CTime now() override { return CTime(m_nowUs); }

  int64 elapsedMs() const { return (m_nowUs - kStartUs) / 1000; }

  Cancel cancelAnswer = Cancel::Cancelled;
  int64 cancelError = 0;
  bool endsOnCancel = false;
  bool endsOnClose = true;
  int endAfterWaits = 1 << 30;
  std::vector<std::string> calls;
  int waits = 0;
  int checks = 0;

 private:
  static constexpr int64 kStartUs = 1700000000000000;
  int64 m_nowUs = kStartUs;
  bool m_ended = false;
};

CPipeIOEndOptions options(int closeAfterMs, int giveUpAfterMs) {
  CPipeIOEndOptions result;
  result.stepMs = 50;
  result.closeAfterMs = closeAfterMs;
  result.giveUpAfterMs = giveUpAfterMs;
  return result;
}

TEST(PipeIOEndTest, CancelledOperationIsAwaitedWithoutClosingTheHandle) {
  CScriptedIO io;
  io.endAfterWaits = 2;
  const CPipeIOEndResult result = endPendingPipeIO(io, options(2000, -1));
  EXPECT_TRUE(result.ended);
  EXPECT_FALSE(result.handleClosed);
  EXPECT_EQ(result.cancelError, 0);
  EXPECT_EQ(io.calls, (std::vector<std::string>{"cancel", "wait 50", "wait 50"}));
}

TEST(PipeIOEndTest, NothingToCancelIsNoFailureAndAnEndedOperationNeedsNoWait) {
  CScriptedIO io;
  io.cancelAnswer = Cancel::NothingToCancel;
  io.endsOnCancel = true;
  const CPipeIOEndResult result = endPendingPipeIO(io, options(2000, 5000));
  EXPECT_TRUE(result.ended);
  EXPECT_FALSE(result.handleClosed);
  EXPECT_EQ(result.cancelError, 0);
  EXPECT_EQ(io.calls, (std::vector<std::string>{"cancel"}));
}

TEST(PipeIOEndTest, FailedCancelClosesTheHandleAtOnceAndStillAwaitsTheEnd) {
  CScriptedIO io;
  io.cancelAnswer = Cancel::Failed;
  io.cancelError = 6;
  // Closing ends the operation, but the system reports it one wait later.
  io.endsOnClose = false;
  io.endAfterWaits = 1;
  const CPipeIOEndResult result = endPendingPipeIO(io, options(2000, 5000));
  EXPECT_TRUE(result.ended);
  EXPECT_TRUE(result.handleClosed);
  EXPECT_EQ(result.cancelError, 6);
  EXPECT_EQ(io.calls, (std::vector<std::string>{"cancel", "close", "wait 50"}));
}

TEST(PipeIOEndTest, AnEventThatIsNeverSetDoesNotHoldTheWait) {
  // The operation ends without its event: each wait runs out, and the state
  // is looked at again after every one.
  CScriptedIO io;
  io.endAfterWaits = 3;
  const CPipeIOEndResult result = endPendingPipeIO(io, options(2000, -1));
  EXPECT_TRUE(result.ended);
  EXPECT_EQ(io.waits, 3);
  EXPECT_EQ(io.checks, 4);
  EXPECT_EQ(io.elapsedMs(), 150);
}

TEST(PipeIOEndTest, AnOperationThatOutlastsItsCancelIsEndedByClosingTheHandle) {
  CScriptedIO io;
  const CPipeIOEndResult result = endPendingPipeIO(io, options(200, -1));
  EXPECT_TRUE(result.ended);
  EXPECT_TRUE(result.handleClosed);
  EXPECT_EQ(io.calls, (std::vector<std::string>{"cancel", "wait 50", "wait 50", "wait 50",
                                                "wait 50", "close"}));
}

TEST(PipeIOEndTest, AnOperationThatNeverEndsIsGivenUpAfterItsTimeWithOneClose) {
  CScriptedIO io;
  io.endsOnClose = false;
  const CPipeIOEndResult result = endPendingPipeIO(io, options(100, 500));
  EXPECT_FALSE(result.ended);
  EXPECT_TRUE(result.handleClosed);
  EXPECT_EQ(io.elapsedMs(), 500);
  int closes = 0;
  for (const std::string& call : io.calls) closes += call == "close" ? 1 : 0;
  EXPECT_EQ(closes, 1);
}

TEST(PipeIOEndTest, WithoutAGiveUpTimeTheWaitLastsUntilTheEnd) {
  CScriptedIO io;
  io.endsOnClose = false;
  io.endAfterWaits = 1000;
  const CPipeIOEndResult result = endPendingPipeIO(io, options(100, -1));
  EXPECT_TRUE(result.ended);
  EXPECT_EQ(io.elapsedMs(), 50000);
}

}  // namespace
}  // namespace zel
