// CInProcessConnection: both ends of a connection inside one process, for
// serving a file system to another thread and for tests of the protocols that
// run over connections. Behaves like a pipe between processes: bytes arrive in
// order, a read blocks until data or the end comes, and closing either end (or
// dropping its last reference) ends the other end's reads and fails its
// writes.
//
// Buffering is bounded, as a pipe's is: each direction holds at most
// `capacity` unread bytes, and a write waits while they are there until the
// reader takes some or either end closes (the write then fails). A peer that
// stops reading therefore stops its writer instead of making it buffer
// without limit.
#pragma once

#include <utility>

#include "zel/core/export.h"
#include "zel/core/types.h"
#include "zel/ipc/connection.h"

namespace zel {

class ZEL_API CInProcessConnection {
 public:
  // Unread bytes one direction holds before its writer waits.
  static constexpr int kDefaultCapacity = 1 << 20;

  // Two connected ends: what first writes, second reads, and back. capacity
  // below 1 is taken as 1.
  static std::pair<P<IConnection>, P<IConnection>> createPair(int capacity = kDefaultCapacity);

  // The bytes written towards end that it has not read yet (its stream's
  // small read buffer aside); 0 for a null end or a connection of another
  // kind.
  static int64 getUnreadBytes(IConnection* end);
};

}  // namespace zel
