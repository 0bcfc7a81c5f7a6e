// Bringing an overlapped pipe operation to its end when its owner gives it up
// (a close, an aborted accept). Until the operation has ended, Windows may
// still write into its OVERLAPPED structure and its buffer and set its event,
// so none of them may be reused or freed before then. The decisions live
// here, portable, so that tests can script the system's answers and the clock
// on every platform; the Windows pipe code supplies the steps through
// IPendingPipeIO.
//
// endPendingPipeIO(io, options):
//   1. io.cancel(): CancelIoEx for this one operation. Nothing to cancel
//      means the operation has ended or is about to.
//   2. A cancel that failed: io.closeHandle() at once, as closing the handle
//      ends every operation on it.
//   3. Waits on the operation's event in steps of at most stepMs and asks
//      io.hasEnded() (the operation's own state, not its event) after every
//      step, so an event that is never set cannot hold the wait.
//   4. Not ended closeAfterMs after the start: io.closeHandle(), once.
//   5. Not ended giveUpAfterMs after the start (-1: never give up): the
//      result is not ended, and the caller must leave the OVERLAPPED, its
//      event and its buffer alone for ever (it leaks them on purpose).
#pragma once

#include "zel/core/export.h"
#include "zel/core/types.h"
#include "zel/path/time.h"

namespace zel {

class ZEL_API IPendingPipeIO {
 public:
  enum class CancelOutcome { Cancelled, NothingToCancel, Failed };

  virtual ~IPendingPipeIO() = default;
  // Asks the system to cancel the operation; on Failed, sysError receives
  // the system error code.
  virtual CancelOutcome cancel(int64& sysError) = 0;
  // Whether the operation has ended (completed, failed or cancelled).
  virtual bool hasEnded() = 0;
  // Waits up to ms milliseconds for the operation's event.
  virtual void waitEvent(int ms) = 0;
  // Closes the handle the operation runs on.
  virtual void closeHandle() = 0;
  virtual CTime now() = 0;
};

struct CPipeIOEndOptions {
  int stepMs = 50;
  int closeAfterMs = 2000;
  int giveUpAfterMs = -1;
};

struct CPipeIOEndResult {
  // False only when the operation was given up (giveUpAfterMs).
  bool ended = false;
  bool handleClosed = false;
  // The system error of a failed cancel; 0 when the cancel did not fail.
  int64 cancelError = 0;
};

ZEL_API CPipeIOEndResult endPendingPipeIO(IPendingPipeIO& io, const CPipeIOEndOptions& options);

}  // namespace zel
