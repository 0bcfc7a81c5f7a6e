#include "zel/ipc/pipe_io_end.h"

namespace zel {

CPipeIOEndResult endPendingPipeIO(IPendingPipeIO& io, const CPipeIOEndOptions& options) {
  CPipeIOEndResult result;
  const int64 start = io.now().getMicroseconds();
  int64 sysError = 0;
  if (io.cancel(sysError) == IPendingPipeIO::CancelOutcome::Failed) {
    result.cancelError = sysError != 0 ? sysError : -1;
    io.closeHandle();
    result.handleClosed = true;
  }
  for (;;) {
    if (io.hasEnded()) {
      result.ended = true;
      return result;
    }
    const int64 elapsedMs = (io.now().getMicroseconds() - start) / 1000;
    if (options.giveUpAfterMs >= 0 && elapsedMs >= options.giveUpAfterMs) return result;
    if (!result.handleClosed && elapsedMs >= options.closeAfterMs) {
      io.closeHandle();
      result.handleClosed = true;
      continue;
    }
    io.waitEvent(options.stepMs);
  }
}

}  // namespace zel
