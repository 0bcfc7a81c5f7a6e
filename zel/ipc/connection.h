// IConnection: one end of a bidirectional byte connection between two
// processes (a named pipe on Windows, a Unix domain socket on Linux) or, for
// tests and in-process use, between two threads.
//
// The two streams share the connection: reads take what the other end wrote,
// writes reach the other end's reads, in order, nothing lost or duplicated.
// Their lengths are unknown (-1); seeking and range locks are refused. A
// broken connection (the other end closed or died) makes a blocked or later
// read end (readLax returns what came, strict reads throw CIOError
// UnexpectedEnd) and makes writes throw CIOError; it never hangs.
//
// Threading: one thread may read while another writes; two threads must not
// read (or write) at the same time. close() may be called from any thread and
// wakes a thread blocked in a read of this end.
#pragma once

#include "zel/core/base.h"
#include "zel/core/types.h"
#include "zel/stream/stream.h"

namespace zel {

class IConnection : public virtual IBase {
 public:
  ~IConnection() override = default;

  virtual P<IInStream> getInStream() = 0;
  virtual P<IOutStream> getOutStream() = 0;
  // Ends the connection for both directions; idempotent.
  virtual void close() = 0;
  // The process ID of the other end (this process for in-process
  // connections).
  virtual int64 getPeerProcessID() = 0;
};

}  // namespace zel
