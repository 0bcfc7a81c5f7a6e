// The client's open loop, shared by the Windows pipe and the Unix socket
// connections. The loop decides (deadlines, attempts, errors); the transport
// does one step at a time through IPipeOpenSteps, so that tests can script
// the system's answers and the clock on every platform.
//
// doOpenPipe(steps, path, waitIfNotFound, notFoundTimeoutMillis,
//            busyTimeoutMillis, action):
//   1. Two deadlines: now + notFoundTimeoutMillis and now + busyTimeoutMillis
//      (-1: no limit). Attempts = 0.
//   2. tryOpen(): Opened ends the loop (true).
//   3. NotFound: without waitIfNotFound the loop ends at once (false: no
//      server), otherwise the not-found deadline applies. Busy: the busy
//      deadline applies. Failed: the system error is raised with "func"
//      (getOpenFunctionName()), "pipe" (the path) and "action".
//   4. Remaining = deadline - now in whole milliseconds. When it is not
//      positive and at least 5 attempts were made: CError "pipe client
//      connection attempts timed out" with "uri" (the path),
//      "notFoundTimeoutMillis", "busyTimeoutMillis" and "action". Five
//      attempts are made even with zero time-outs, so that a server that is
//      just re-creating its listening instance is not missed.
//   5. waitForServer(remaining > 0 ? remaining : 20); when that fails,
//      sleep(20). Attempts + 1; back to 2.
// So with both time-outs 0 against a busy server: six open attempts and five
// waits of 20 ms, then the time-out error.
#pragma once

#include "zel/core/export.h"
#include "zel/core/string.h"
#include "zel/core/types.h"
#include "zel/path/time.h"

namespace zel {

class ZEL_API IPipeOpenSteps {
 public:
  enum class Outcome { Opened, NotFound, Busy, Failed };

  virtual ~IPipeOpenSteps() = default;
  // One attempt to open the endpoint; on Failed, sysError receives the
  // system error code (domain CError::sysErrorDomain()).
  virtual Outcome tryOpen(int64& sysError) = 0;
  // Waits up to ms milliseconds for the server to offer a connection
  // (WaitNamedPipeW); false when the wait failed or cannot be done.
  virtual bool waitForServer(int ms) = 0;
  virtual void sleep(int ms) = 0;
  virtual CTime now() = 0;
  // The system function tryOpen() stands for ("CreateFile", "connect").
  virtual String getOpenFunctionName() const = 0;
};

// The loop described above; true when tryOpen() succeeded, false when the
// endpoint does not exist and waitIfNotFound is false.
ZEL_API bool doOpenPipe(IPipeOpenSteps& steps, const String& path, bool waitIfNotFound,
                        int notFoundTimeoutMillis, int busyTimeoutMillis, const String& action);

}  // namespace zel
