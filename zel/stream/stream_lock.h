// IStreamLock: a granted lock on a byte range of a stream.
#pragma once

#include "zel/core/base.h"

namespace zel {

// Has no operations of its own: the range stays locked while the object
// lives, and releasing the last reference unlocks it. A lock may outlive the
// stream's close(); the range is then released no later than the lock.
class IStreamLock : public virtual IBase {
 public:
  ~IStreamLock() override = default;
};

}  // namespace zel
