#include "zel/core/error_predicates.h"

#include <cerrno>
#include <initializer_list>

#include "zel/core/error.h"

namespace zel {

namespace {

// One predicate: its Windows system codes, its errno values and the
// file-system problem it accepts (0 for none; problem 0 is "unknown" and never
// matches).
struct PredicateTable {
  std::initializer_list<int64> sysCodes;
  std::initializer_list<int> errnoCodes;
  int problem;
};

bool contains(std::initializer_list<int64> list, int64 code) {
  for (int64 entry : list) {
    if (entry == code) return true;
  }
  return false;
}

bool contains(std::initializer_list<int> list, int64 code) {
  for (int entry : list) {
    if (entry == code) return true;
  }
  return false;
}

bool matchesNativeCode(const PredicateTable& table, int64 code) {
#if defined(_WIN32)
  return contains(table.sysCodes, code);
#else
  return contains(table.errnoCodes, code);
#endif
}

bool matchesError(const PredicateTable& table, const CError& error) {
  const String& domain = error.getErrorCodeDomain();
  if (domain == CError::winSysErrorDomain()) return contains(table.sysCodes, error.getErrorCode());
  if (domain == CError::errnoErrorDomain()) {
    return contains(table.errnoCodes, error.getErrorCode());
  }
  if (table.problem == CFileSystemError::ProblemUnknown) return false;
  return CFileSystemError::getProblem(error.getParams()) == table.problem;
}

bool matchesException(const PredicateTable& table, const std::exception& exception) {
  const auto* error = dynamic_cast<const CError*>(&exception);
  return error && matchesError(table, *error);
}

// The lists are documented in the header.

const PredicateTable kBadDiskSector{
    {23, 121, 1117},
    {EIO},
    CFileSystemError::ProblemUnknown,
};

const PredicateTable kFileLocking{
    {5, 32, 1224},
    {EACCES, EPERM, EBUSY, ETXTBSY, EAGAIN, EWOULDBLOCK, EDEADLK},
    CFileSystemError::ProblemAccessDenied,
};

const PredicateTable kNetworkConnectionProblem{
    {51,   53,   54,   58,   59,   64,   66,   67,   71,   88,   233,  240,  570,  1201, 1202,
     1203, 1214, 1222, 1225, 1226, 1229, 1231, 1232, 1233, 1234, 1236, 1241, 1245, 1256},
    {
        ENETDOWN, ENETUNREACH, ENETRESET, ECONNABORTED, ECONNRESET, ECONNREFUSED, ENOTCONN,
        ETIMEDOUT, EHOSTUNREACH, EPIPE, ENOLINK,
#ifdef EHOSTDOWN
        EHOSTDOWN,
#endif
#ifdef ESHUTDOWN
        ESHUTDOWN,
#endif
#ifdef ESTALE
        ESTALE,
#endif
#ifdef EREMOTEIO
        EREMOTEIO,
#endif
#ifdef ECOMM
        ECOMM,
#endif
#ifdef ENONET
        ENONET,
#endif
    },
    CFileSystemError::ProblemNetworkConnection,
};

const PredicateTable kPermissionDenied{
    {5},
    {EACCES, EPERM},
    CFileSystemError::ProblemAccessDenied,
};

const PredicateTable kUnsupported{
    {1, 87, 123, 161, 186, 282, 487, 1005},
    {ENOSYS, EOPNOTSUPP, ENOTSUP, ENOTTY, EINVAL, EXDEV},
    CFileSystemError::ProblemUnsupported,
};

const PredicateTable kAccessDenied{
    {5, 32, 1224},
    {EACCES, EPERM, EBUSY, ETXTBSY},
    CFileSystemError::ProblemAccessDenied,
};

const PredicateTable kAlreadyExists{
    {80, 183},
    {EEXIST},
    CFileSystemError::ProblemAlreadyExists,
};

const PredicateTable kNotFound{
    {2, 3, 55},
    {ENOENT, ENOTDIR},
    CFileSystemError::ProblemNotFound,
};

const PredicateTable kFolderNotEmpty{
    {145},
    {ENOTEMPTY},
    CFileSystemError::ProblemUnknown,
};

const PredicateTable kOutOfSpace{
    {112},
    {
        ENOSPC,
#ifdef EDQUOT
        EDQUOT,
#endif
    },
    CFileSystemError::ProblemOutOfSpace,
};

}  // namespace

#define ZEL_DEFINE_ERROR_PREDICATE(errorName, codeName, table)                                     \
  bool errorName(const CError& error) { return matchesError(table, error); }                       \
  bool errorName(const std::exception& exception) { return matchesException(table, exception); } \
  bool codeName(int64 code) { return matchesNativeCode(table, code); }

ZEL_DEFINE_ERROR_PREDICATE(couldBeBadDiskSectorError, couldBeBadDiskSectorErrorCode,
                           kBadDiskSector)
ZEL_DEFINE_ERROR_PREDICATE(couldBeFileLockingError, couldBeFileLockingSysErrorCode, kFileLocking)
ZEL_DEFINE_ERROR_PREDICATE(couldBeNetworkConnectionProblemError,
                           couldBeNetworkConnectionProblemSysErrorCode,
                           kNetworkConnectionProblem)
ZEL_DEFINE_ERROR_PREDICATE(couldBePermissionDeniedError, couldBePermissionDeniedSysErrorCode,
                           kPermissionDenied)
ZEL_DEFINE_ERROR_PREDICATE(couldBeUnsupportedError, couldBeUnsupportedErrorCode, kUnsupported)
ZEL_DEFINE_ERROR_PREDICATE(isAccessDeniedError, isAccessDeniedSysErrorCode, kAccessDenied)
ZEL_DEFINE_ERROR_PREDICATE(isFileOrFolderAlreadyExistsError,
                           isFileOrFolderAlreadyExistsSysErrorCode, kAlreadyExists)
ZEL_DEFINE_ERROR_PREDICATE(isFileOrFolderNotFoundError, isFileOrFolderNotFoundSysErrorCode,
                           kNotFound)
ZEL_DEFINE_ERROR_PREDICATE(isFolderNotEmptyError, isFolderNotEmptySysErrorCode, kFolderNotEmpty)
ZEL_DEFINE_ERROR_PREDICATE(isOutOfSpaceError, isOutOfSpaceSysErrorCode, kOutOfSpace)

#undef ZEL_DEFINE_ERROR_PREDICATE

}  // namespace zel
