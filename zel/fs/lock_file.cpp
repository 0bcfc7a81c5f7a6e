#include "zel/fs/lock_file.h"

namespace zel {

namespace {

String lockKind(CLockFile::LockType type) {
  return String(type == CLockFile::LockShared ? "shared" : "exclusive");
}

}  // namespace

// The form with a path has no final full stop, the one without has: callers
// and logs match these texts as they are.
CLockFileError::CLockFileError(const String& path, CLockFile::LockType type, const CError* cause)
    : CError(String("Cannot get ") + lockKind(type) + " file lock on '" + path +
                 "'. Already locked by someone else",
             String(), -1, CProps(), cause) {}

CLockFileError::CLockFileError(CLockFile::LockType type, const CError* cause)
    : CError(String("Cannot get ") + lockKind(type) + " file lock. Already locked by someone else.",
             String(), -1, CProps(), cause) {}

P<CError> CLockFileError::clone() const { return createObject<CLockFileError>(*this); }
void CLockFileError::throwClone() const { throw CLockFileError(*this); }

}  // namespace zel
