// IWriteBarrier: a point in the sequence of writes to an output stream.
//
// A barrier is made by IOutStream::createWriteBarrier and passed with later
// writes. A stream that writes in the background uses it to tell when all
// data written before the barrier has reached the medium; a barrier may have
// a parent barrier that it is ordered after. The operations that ask about
// and wait for a barrier belong to the file systems that write in the
// background; here it is a counted marker.
#pragma once

#include "zel/core/base.h"
#include "zel/core/export.h"

namespace zel {

class IWriteBarrier : public virtual IBase {
 public:
  ~IWriteBarrier() override = default;
};

// The barrier of streams whose writes are complete when write() returns
// (memory, discarding and forwarding streams): everything written before it
// has already arrived, so it only keeps its parent alive.
class ZEL_API CImmediateWriteBarrier : public CBase, public IWriteBarrier {
 public:
  explicit CImmediateWriteBarrier(IWriteBarrier* parent = nullptr) : m_parent(parent) {}
  ~CImmediateWriteBarrier() override;

  const P<IWriteBarrier>& getParent() const { return m_parent; }

 private:
  P<IWriteBarrier> m_parent;
};

}  // namespace zel
