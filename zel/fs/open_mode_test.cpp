#include "zel/fs/open_mode.h"

#include <gtest/gtest.h>

#include "zel/core/error.h"

namespace zel {
namespace {

using Flags = TFlags<IIOStream::Flags>;

constexpr IIOStream::Access kRead = IIOStream::AccessRead;
constexpr IIOStream::Access kReadWrite = IIOStream::AccessReadWrite;

// The message and source of a refusal, checked together.
void expectRefused(IIOStream::Access access, Flags flags, const char* description) {
  try {
    getOpenDisposition(access, flags);
    ADD_FAILURE() << "accepted flags " << flags.getBits();
  } catch (const CInvalidArgError& e) {
    EXPECT_EQ(
        e.getMessage(),
        String("Invalid argument passed to 'CFileStream::getWindowsOpenType': ") + description);
  }
}

const char* const kTruncateRefusal = "FlagTruncate can only be used if write access is requested.";
const char* const kFailIfExistsRefusal =
    "FlagFailIfAlreadyExists can only be used with read only access if "
    "FlagAlwaysCreateIfNotExist is also set.";

TEST(OpenModeTest, ReadAccess) {
  EXPECT_EQ(getOpenDisposition(kRead, Flags()), OpenDisposition::OpenExisting);
  EXPECT_EQ(getOpenDisposition(kRead, IIOStream::FlagAlwaysCreateIfNotExist),
            OpenDisposition::OpenAlways);
  EXPECT_EQ(getOpenDisposition(kRead, Flags{IIOStream::FlagAlwaysCreateIfNotExist,
                                            IIOStream::FlagFailIfAlreadyExists}),
            OpenDisposition::CreateNew);
  // Sharing never changes how the file is found or created.
  EXPECT_EQ(getOpenDisposition(kRead, IIOStream::FlagExclusive), OpenDisposition::OpenExisting);
  EXPECT_EQ(getOpenDisposition(
                kRead, Flags{IIOStream::FlagExclusive, IIOStream::FlagAlwaysCreateIfNotExist}),
            OpenDisposition::OpenAlways);
}

TEST(OpenModeTest, ReadAccessRefusals) {
  expectRefused(kRead, IIOStream::FlagTruncate, kTruncateRefusal);
  // Truncation is refused first, whatever else is set.
  expectRefused(kRead,
                Flags{IIOStream::FlagTruncate, IIOStream::FlagAlwaysCreateIfNotExist,
                      IIOStream::FlagFailIfAlreadyExists},
                kTruncateRefusal);
  expectRefused(kRead, Flags{IIOStream::FlagTruncate, IIOStream::FlagFailIfAlreadyExists},
                kTruncateRefusal);
  expectRefused(kRead, IIOStream::FlagFailIfAlreadyExists, kFailIfExistsRefusal);
  expectRefused(kRead, Flags{IIOStream::FlagFailIfAlreadyExists, IIOStream::FlagExclusive},
                kFailIfExistsRefusal);
}

TEST(OpenModeTest, RefusalIsAnInvalidArgumentWithoutCode) {
  try {
    getOpenDisposition(kRead, IIOStream::FlagTruncate);
    FAIL() << "not refused";
  } catch (const CError& e) {
    EXPECT_NE(dynamic_cast<const CInvalidArgError*>(&e), nullptr);
    EXPECT_FALSE(e.hasErrorCode());
  }
}

TEST(OpenModeTest, ReadWriteAccess) {
  EXPECT_EQ(getOpenDisposition(kReadWrite, Flags()), OpenDisposition::OpenAlways);
  EXPECT_EQ(getOpenDisposition(kReadWrite, IIOStream::FlagExclusive), OpenDisposition::OpenAlways);
  // Creation is implied by write access: the flag adds nothing.
  EXPECT_EQ(getOpenDisposition(kReadWrite, IIOStream::FlagAlwaysCreateIfNotExist),
            OpenDisposition::OpenAlways);
  EXPECT_EQ(getOpenDisposition(kReadWrite, IIOStream::FlagTruncate), OpenDisposition::CreateAlways);
  EXPECT_EQ(getOpenDisposition(kReadWrite, IIOStream::FlagFailIfAlreadyExists),
            OpenDisposition::CreateNew);
  // Failing on an existing file wins over emptying it.
  EXPECT_EQ(getOpenDisposition(kReadWrite,
                               Flags{IIOStream::FlagTruncate, IIOStream::FlagFailIfAlreadyExists}),
            OpenDisposition::CreateNew);
  EXPECT_EQ(getOpenDisposition(kReadWrite, Flags::fromBits(0xF)), OpenDisposition::CreateNew);
}

TEST(OpenModeTest, EveryAccessButReadWrites) {
  // Only the value 1 reads; any other value (0, 2, a future one) writes.
  for (int value : {0, 2, 3, 7}) {
    const auto access = static_cast<IIOStream::Access>(value);
    EXPECT_TRUE(isWriteAccess(access)) << value;
    EXPECT_EQ(getOpenDisposition(access, IIOStream::FlagTruncate), OpenDisposition::CreateAlways)
        << value;
    EXPECT_EQ(getOpenDisposition(access, IIOStream::FlagFailIfAlreadyExists),
              OpenDisposition::CreateNew)
        << value;
  }
  EXPECT_FALSE(isWriteAccess(kRead));
}

TEST(OpenModeTest, EveryFlagCombination) {
  // All sixteen combinations for both accesses: each is either one of the
  // dispositions or one of the two refusals, and the result depends on the
  // sharing bit not at all.
  for (unsigned bits = 0; bits < 16; ++bits) {
    const Flags flags = Flags::fromBits(bits);
    const Flags shared = Flags::fromBits(bits & ~static_cast<unsigned>(IIOStream::FlagExclusive));
    const bool truncate = flags.has(IIOStream::FlagTruncate);
    const bool create = flags.has(IIOStream::FlagAlwaysCreateIfNotExist);
    const bool failIfExists = flags.has(IIOStream::FlagFailIfAlreadyExists);
    if (truncate || (failIfExists && !create)) {
      EXPECT_THROW(getOpenDisposition(kRead, flags), CInvalidArgError) << bits;
    } else {
      EXPECT_EQ(getOpenDisposition(kRead, flags), getOpenDisposition(kRead, shared)) << bits;
    }
    EXPECT_EQ(getOpenDisposition(kReadWrite, flags), getOpenDisposition(kReadWrite, shared))
        << bits;
    EXPECT_NE(getOpenDisposition(kReadWrite, flags), OpenDisposition::OpenExisting) << bits;
  }
}

}  // namespace
}  // namespace zel
