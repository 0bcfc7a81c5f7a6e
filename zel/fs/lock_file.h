// Lock files: a file held open with an exclusive or shared lock so that
// cooperating processes can tell whether a resource is in use.
//
// Only the lock kinds are declared so far; CLockFileError names them.
#pragma once

namespace zel {

class CLockFile {
 public:
  enum LockType {
    LockExclusive,
    LockShared,
  };
};

}  // namespace zel
