#include "zel/core/error_predicates.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <stdexcept>
#include <vector>

#include "zel/core/error.h"

namespace zel {
namespace {

using ErrorPredicate = bool (*)(const CError&);
using ExceptionPredicate = bool (*)(const std::exception&);
using CodePredicate = bool (*)(int64);

struct PredicateCase {
  const char* name;
  ErrorPredicate onError;
  ExceptionPredicate onException;
  CodePredicate onCode;
  std::set<int64> sysCodes;
  // Not the whole list, but closed under sharing: a value listed for any
  // case is listed for every case whose predicate accepts it.
  std::set<int64> errnoCodes;
  int problem;                 // 0: no file-system problem row
};

std::vector<PredicateCase> predicateCases() {
  return {
      {"badDiskSector", couldBeBadDiskSectorError, couldBeBadDiskSectorError,
       couldBeBadDiskSectorErrorCode, {23, 121, 1117}, {EIO}, 0},
      {"fileLocking", couldBeFileLockingError, couldBeFileLockingError,
       couldBeFileLockingSysErrorCode, {5, 32, 1224}, {EACCES, EPERM, EBUSY, ETXTBSY, EAGAIN}, 5},
      {"networkConnectionProblem", couldBeNetworkConnectionProblemError,
       couldBeNetworkConnectionProblemError, couldBeNetworkConnectionProblemSysErrorCode,
       {51,   53,   54,   58,   59,   64,   66,   67,   71,   88,   233,  240,  570,  1201, 1202,
        1203, 1214, 1222, 1225, 1226, 1229, 1231, 1232, 1233, 1234, 1236, 1241, 1245, 1256},
       {ENETDOWN, ENETUNREACH, ECONNRESET, ECONNABORTED, ETIMEDOUT, EHOSTUNREACH},
       8},
      {"permissionDenied", couldBePermissionDeniedError, couldBePermissionDeniedError,
       couldBePermissionDeniedSysErrorCode, {5}, {EACCES, EPERM}, 5},
      {"unsupported", couldBeUnsupportedError, couldBeUnsupportedError,
       couldBeUnsupportedErrorCode, {1, 87, 123, 161, 186, 282, 487, 1005},
       {ENOSYS, EOPNOTSUPP}, 6},
      {"accessDenied", isAccessDeniedError, isAccessDeniedError, isAccessDeniedSysErrorCode,
       {5, 32, 1224}, {EACCES, EPERM, EBUSY, ETXTBSY}, 5},
      {"alreadyExists", isFileOrFolderAlreadyExistsError, isFileOrFolderAlreadyExistsError,
       isFileOrFolderAlreadyExistsSysErrorCode, {80, 183}, {EEXIST}, 2},
      {"notFound", isFileOrFolderNotFoundError, isFileOrFolderNotFoundError,
       isFileOrFolderNotFoundSysErrorCode, {2, 3, 55}, {ENOENT, ENOTDIR}, 1},
      {"folderNotEmpty", isFolderNotEmptyError, isFolderNotEmptyError,
       isFolderNotEmptySysErrorCode, {145}, {ENOTEMPTY}, 0},
      {"outOfSpace", isOutOfSpaceError, isOutOfSpaceError, isOutOfSpaceSysErrorCode, {112},
       {ENOSPC}, 4},
  };
}

TEST(ErrorPredicatesTest, SysCodesMatchExactlyTheirList) {
  for (const PredicateCase& c : predicateCases()) {
    SCOPED_TRACE(c.name);
    // Every code up to 1300: only the listed ones match.
    for (int64 code = -1; code <= 1300; ++code) {
      const bool expected = c.sysCodes.count(code) != 0;
      EXPECT_EQ(c.onError(CError("m", "sys", code)), expected) << code;
    }
  }
}

TEST(ErrorPredicatesTest, SharingViolationIsAccessDeniedButNotPermissionDenied) {
  for (int64 code : {32, 1224}) {
    CError error("m", "sys", code);
    EXPECT_TRUE(isAccessDeniedError(error)) << code;
    EXPECT_TRUE(couldBeFileLockingError(error)) << code;
    EXPECT_FALSE(couldBePermissionDeniedError(error)) << code;
  }
  CError denied("m", "sys", 5);
  EXPECT_TRUE(couldBePermissionDeniedError(denied));
  EXPECT_TRUE(isAccessDeniedError(denied));

  // The errno lists keep the same shape.
  CError busy("m", "errno", EBUSY);
  EXPECT_TRUE(isAccessDeniedError(busy));
  EXPECT_TRUE(couldBeFileLockingError(busy));
  EXPECT_FALSE(couldBePermissionDeniedError(busy));
  CError wouldBlock("m", "errno", EAGAIN);
  EXPECT_TRUE(couldBeFileLockingError(wouldBlock));
  EXPECT_FALSE(isAccessDeniedError(wouldBlock));
}

TEST(ErrorPredicatesTest, ErrnoCodesMatchOnlyThePredicatesListingThem) {
  const std::vector<PredicateCase> cases = predicateCases();
  for (const PredicateCase& c : cases) {
    SCOPED_TRACE(c.name);
    for (int64 code : c.errnoCodes) {
      EXPECT_TRUE(c.onError(CError("m", "errno", code))) << code;
      for (const PredicateCase& other : cases) {
        if (!other.errnoCodes.count(code)) {
          EXPECT_FALSE(other.onError(CError("m", "errno", code))) << code << " " << other.name;
        }
      }
    }
  }
}

TEST(ErrorPredicatesTest, BareCodesUseTheNativeList) {
  for (const PredicateCase& c : predicateCases()) {
    SCOPED_TRACE(c.name);
#if defined(_WIN32)
    for (int64 code : c.sysCodes) EXPECT_TRUE(c.onCode(code)) << code;
#else
    for (int64 code : c.errnoCodes) EXPECT_TRUE(c.onCode(code)) << code;
#endif
  }
#if !defined(_WIN32)
  // 32 is a sharing violation on Windows but EPIPE (a broken connection) on
  // Linux: the bare code must not be read as a Windows code.
  static_assert(EPIPE == 32);
  EXPECT_FALSE(isAccessDeniedSysErrorCode(32));
  EXPECT_TRUE(couldBeNetworkConnectionProblemSysErrorCode(32));
  EXPECT_TRUE(isAccessDeniedError(CError("m", "sys", 32)));
#endif
}

TEST(ErrorPredicatesTest, OtherDomainsUseTheFileSystemProblem) {
  const std::vector<PredicateCase> cases = predicateCases();
  for (int problem = 0; problem <= 9; ++problem) {
    CFileSystemError error(static_cast<CFileSystemError::Problem>(problem),
                           CError("m", "IO", CIOError::OpenFailed));
    for (const PredicateCase& c : cases) {
      const bool expected = c.problem != 0 && c.problem == problem;
      EXPECT_EQ(c.onError(error), expected) << c.name << " problem " << problem;
    }
  }
}

TEST(ErrorPredicatesTest, SysDomainIgnoresTheProblem) {
  // A system error marked as access denied is still judged by its code.
  CFileSystemError error(CFileSystemError::ProblemAccessDenied, CError("m", "sys", 2));
  EXPECT_TRUE(isFileOrFolderNotFoundError(error));
  EXPECT_FALSE(isAccessDeniedError(error));
}

TEST(ErrorPredicatesTest, NotEmptyAndBadSectorNeedASystemDomain) {
  for (const char* domain : {"", "IO", "STDEXC", "Sys", "ERRNO"}) {
    EXPECT_FALSE(isFolderNotEmptyError(CError("m", domain, 145))) << domain;
    EXPECT_FALSE(isFolderNotEmptyError(CError("m", domain, ENOTEMPTY))) << domain;
    EXPECT_FALSE(couldBeBadDiskSectorError(CError("m", domain, 23))) << domain;
    EXPECT_FALSE(couldBeBadDiskSectorError(CError("m", domain, EIO))) << domain;
  }
}

TEST(ErrorPredicatesTest, ExceptionFormAcceptsOnlyErrors) {
  for (const PredicateCase& c : predicateCases()) {
    SCOPED_TRACE(c.name);
    const int64 code = *c.sysCodes.begin();
    const CError error("m", "sys", code);
    const std::exception& asException = error;
    EXPECT_TRUE(c.onException(asException));
    EXPECT_FALSE(c.onException(std::runtime_error("access denied")));
    EXPECT_FALSE(c.onException(CStdExceptionError(std::runtime_error("x"))));
  }
  // A subclass passed directly picks the CError overload.
  EXPECT_TRUE(isFileOrFolderNotFoundError(CSocketError(2)));
}

}  // namespace
}  // namespace zel
