#include "zel/fs/lock_file.h"

#include <gtest/gtest.h>

namespace zel {
namespace {

std::string narrow(const String& s) { return s.toStdUTF8(); }

TEST(CLockFileErrorTest, MessagesDifferInTheirFinalStop) {
  EXPECT_EQ(narrow(CLockFileError("C:\\a.lock", CLockFile::LockExclusive).getMessage()),
            "Cannot get exclusive file lock on 'C:\\a.lock'. Already locked by someone else");
  EXPECT_EQ(narrow(CLockFileError(CLockFile::LockShared).getMessage()),
            "Cannot get shared file lock. Already locked by someone else.");
}

TEST(CLockFileErrorTest, ThrowCloneKeepsTheClassAndCause) {
  CError cause("Cause.");
  P<CError> stored = CLockFileError("C:\\l", CLockFile::LockShared, &cause).clone();
  try {
    stored->throwClone();
    FAIL() << "throwClone returned";
  } catch (const CLockFileError& error) {
    ASSERT_TRUE(error.getCause());
    EXPECT_EQ(narrow(error.getCause()->getMessage()), "Cause.");
  }
}

}  // namespace
}  // namespace zel
