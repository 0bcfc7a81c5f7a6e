// Lock files: a file held open with an exclusive or shared lock so that
// cooperating processes can tell whether a resource is in use.
//
// Only the lock kinds and the error are declared so far.
#pragma once

#include "zel/core/error.h"

namespace zel {

class ZEL_API CLockFile {
 public:
  enum LockType {
    LockExclusive,
    LockShared,
  };
};

// A lock file that someone else holds. No code of its own; the failure that
// revealed the conflict, if any, is the cause.
class ZEL_API CLockFileError : public CError {
 public:
  // "Cannot get <kind> file lock on '<path>'. Already locked by someone else"
  CLockFileError(const String& path, CLockFile::LockType type, const CError* cause = nullptr);
  // "Cannot get <kind> file lock. Already locked by someone else."
  explicit CLockFileError(CLockFile::LockType type, const CError* cause = nullptr);
  P<CError> clone() const override;
  [[noreturn]] void throwClone() const override;
};

}  // namespace zel
