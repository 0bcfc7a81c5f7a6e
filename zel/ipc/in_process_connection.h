// CInProcessConnection: both ends of a connection inside one process, for
// serving a file system to another thread and for tests of the protocols that
// run over connections. Behaves like a pipe between processes: bytes arrive in
// order, a read blocks until data or the end comes, and closing either end (or
// dropping its last reference) ends the other end's reads and fails its
// writes. Buffering is unbounded: a write never waits for the reader.
#pragma once

#include <utility>

#include "zel/core/export.h"
#include "zel/ipc/connection.h"

namespace zel {

class ZEL_API CInProcessConnection {
 public:
  // Two connected ends: what first writes, second reads, and back.
  static std::pair<P<IConnection>, P<IConnection>> createPair();
};

}  // namespace zel
