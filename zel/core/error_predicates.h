// Questions about the kind of an error, each in three forms:
//   - on a CError: domain "sys" consults the Windows system code list and
//     domain "errno" the errno list (both on every platform); any other domain
//     consults the file-system problem in the parameters ("fileSysProblem",
//     see CFileSystemError). Predicates without a problem row are false there;
//   - on a std::exception: true only for a CError for which the first form is;
//   - on a bare code: the running platform's native code (Windows: a
//     GetLastError code; Linux: an errno value).
//
// The lists differ on purpose: a sharing violation (32) and a user-mapped
// file (1224) count as access denied and as possible file locking, while
// permission denied accepts 5 alone. The errno lists keep the same shape:
// EBUSY and ETXTBSY are access denied and locking, EAGAIN, EWOULDBLOCK and
// EDEADLK (a refused byte-range lock) locking only; permission denied is
// EACCES and EPERM alone. errno values are those of the running platform.
//
//   predicate               sys codes                  errno                  problem
//   bad disk sector         23 121 1117                EIO                    -
//   file locking            5 32 1224                  EACCES EPERM EBUSY     5
//                                                      ETXTBSY EAGAIN
//                                                      EWOULDBLOCK EDEADLK
//   network connection      51 53 54 58 59 64 66 67    ENETDOWN ENETUNREACH   8
//                           71 88 233 240 570 1201     ENETRESET ECONNABORTED
//                           1202 1203 1214 1222 1225   ECONNRESET ECONNREFUSED
//                           1226 1229 1231 1232 1233   ENOTCONN ETIMEDOUT
//                           1234 1236 1241 1245 1256   EHOSTUNREACH EHOSTDOWN
//                                                      ESHUTDOWN ESTALE EPIPE
//                                                      ENOLINK EREMOTEIO
//                                                      ECOMM ENONET
//   permission denied       5                          EACCES EPERM           5
//   unsupported             1 87 123 161 186 282 487   ENOSYS EOPNOTSUPP      6
//                           1005                       ENOTSUP ENOTTY EINVAL
//                                                      EXDEV
//   access denied           5 32 1224                  EACCES EPERM EBUSY     5
//                                                      ETXTBSY
//   already exists          80 183                     EEXIST                 2
//   not found               2 3 55                     ENOENT ENOTDIR         1
//   folder not empty        145                        ENOTEMPTY              -
//   out of space            112                        ENOSPC EDQUOT          4
//
// errno names missing on a platform (mingw lacks EDQUOT, ESTALE, EHOSTDOWN,
// ESHUTDOWN, EREMOTEIO, ECOMM, ENONET) are left out there.
#pragma once

#include <exception>

#include "zel/core/export.h"
#include "zel/core/types.h"

namespace zel {

class CError;

ZEL_API bool couldBeBadDiskSectorError(const CError& error);
ZEL_API bool couldBeBadDiskSectorError(const std::exception& exception);
ZEL_API bool couldBeBadDiskSectorErrorCode(int64 code);

ZEL_API bool couldBeFileLockingError(const CError& error);
ZEL_API bool couldBeFileLockingError(const std::exception& exception);
ZEL_API bool couldBeFileLockingSysErrorCode(int64 code);

ZEL_API bool couldBeNetworkConnectionProblemError(const CError& error);
ZEL_API bool couldBeNetworkConnectionProblemError(const std::exception& exception);
ZEL_API bool couldBeNetworkConnectionProblemSysErrorCode(int64 code);

ZEL_API bool couldBePermissionDeniedError(const CError& error);
ZEL_API bool couldBePermissionDeniedError(const std::exception& exception);
ZEL_API bool couldBePermissionDeniedSysErrorCode(int64 code);

ZEL_API bool couldBeUnsupportedError(const CError& error);
ZEL_API bool couldBeUnsupportedError(const std::exception& exception);
ZEL_API bool couldBeUnsupportedErrorCode(int64 code);

ZEL_API bool isAccessDeniedError(const CError& error);
ZEL_API bool isAccessDeniedError(const std::exception& exception);
ZEL_API bool isAccessDeniedSysErrorCode(int64 code);

ZEL_API bool isFileOrFolderAlreadyExistsError(const CError& error);
ZEL_API bool isFileOrFolderAlreadyExistsError(const std::exception& exception);
ZEL_API bool isFileOrFolderAlreadyExistsSysErrorCode(int64 code);

ZEL_API bool isFileOrFolderNotFoundError(const CError& error);
ZEL_API bool isFileOrFolderNotFoundError(const std::exception& exception);
ZEL_API bool isFileOrFolderNotFoundSysErrorCode(int64 code);

ZEL_API bool isFolderNotEmptyError(const CError& error);
ZEL_API bool isFolderNotEmptyError(const std::exception& exception);
ZEL_API bool isFolderNotEmptySysErrorCode(int64 code);

ZEL_API bool isOutOfSpaceError(const CError& error);
ZEL_API bool isOutOfSpaceError(const std::exception& exception);
ZEL_API bool isOutOfSpaceSysErrorCode(int64 code);

}  // namespace zel
