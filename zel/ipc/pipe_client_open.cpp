#include "zel/ipc/pipe_client_open.h"

#include <climits>

#include "zel/core/error.h"
#include "zel/core/sys_error.h"

namespace zel {

namespace {

constexpr int kMinAttempts = 5;
constexpr int kRetryWaitMs = 20;

// A deadline of "no limit" stays far enough from the end of the int64 range
// that subtracting a time from it cannot overflow.
constexpr int64 kNoDeadline = INT64_MAX / 4;

int64 deadlineOf(CTime start, int timeoutMs) {
  if (timeoutMs < 0) return kNoDeadline;
  return start.getMicroseconds() + static_cast<int64>(timeoutMs) * 1000;
}

// Whole milliseconds until deadline, clamped to the int range.
int remainingMs(int64 deadline, CTime now) {
  const int64 ms = (deadline - now.getMicroseconds()) / 1000;
  if (ms > INT_MAX) return INT_MAX;
  if (ms < INT_MIN) return INT_MIN;
  return static_cast<int>(ms);
}

}  // namespace

bool doOpenPipe(IPipeOpenSteps& steps, const String& path, bool waitIfNotFound,
                int notFoundTimeoutMillis, int busyTimeoutMillis, const String& action) {
  const CTime start = steps.now();
  const int64 notFoundDeadline = deadlineOf(start, notFoundTimeoutMillis);
  const int64 busyDeadline = deadlineOf(start, busyTimeoutMillis);
  int attempts = 0;
  for (;;) {
    int64 sysError = 0;
    int64 deadline;
    switch (steps.tryOpen(sysError)) {
      case IPipeOpenSteps::Outcome::Opened:
        return true;
      case IPipeOpenSteps::Outcome::NotFound:
        if (!waitIfNotFound) return false;
        deadline = notFoundDeadline;
        break;
      case IPipeOpenSteps::Outcome::Busy:
        deadline = busyDeadline;
        break;
      default: {
        CProps params;
        params.set("func", steps.getOpenFunctionName());
        params.set("pipe", path);
        params.set("action", action);
        throwSysError(sysError, params);
      }
    }
    const int remaining = remainingMs(deadline, steps.now());
    if (remaining <= 0 && attempts >= kMinAttempts) {
      CProps params;
      params.set("uri", path);
      params.setInt64("notFoundTimeoutMillis", notFoundTimeoutMillis);
      params.setInt64("busyTimeoutMillis", busyTimeoutMillis);
      params.set("action", action);
      throw CError("pipe client connection attempts timed out", String(), -1, params);
    }
    if (!steps.waitForServer(remaining > 0 ? remaining : kRetryWaitMs)) {
      steps.sleep(kRetryWaitMs);
    }
    ++attempts;
  }
}

}  // namespace zel
