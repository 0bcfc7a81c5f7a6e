// INativeFileSource (internal): a stream over a local file that lends its
// operating-system handle, so that the file-system server can send the
// file's bytes to a connection straight from the page cache instead of
// copying them through its own memory.
//
// The handle belongs to the stream: it is valid only while the stream is
// open, and users must neither close it nor move its file position (the
// streams read and write at explicit offsets and keep their own position).
#pragma once

#include "zel/core/types.h"

namespace zel {

class INativeFileSource {
 public:
  // A descriptor on Linux, a HANDLE on Windows (as fs_platform::Handle).
  virtual int64 getNativeFileHandle() const = 0;

 protected:
  ~INativeFileSource() = default;
};

}  // namespace zel
