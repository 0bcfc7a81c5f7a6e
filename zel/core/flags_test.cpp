#include "zel/core/flags.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace zel {
namespace {

enum Color { Red = 0x1, Green = 0x2, Blue = 0x4, RedAndBlue = Red | Blue };
enum class Wide : uint64_t { Low = 0x1, High = uint64_t{1} << 63 };

TEST(FlagsTest, BuildAndQuery) {
  TFlags<Color> none;
  EXPECT_TRUE(none.isEmpty());
  EXPECT_FALSE(none.has(Red));

  TFlags<Color> red = Red;
  EXPECT_TRUE(red.has(Red));
  EXPECT_FALSE(red.has(Green));
  // A mask is there only when all its bits are.
  EXPECT_FALSE(red.has(RedAndBlue));
  TFlags<Color> both{Red, Blue};
  EXPECT_TRUE(both.has(RedAndBlue));
  EXPECT_EQ(both.getBits(), 0x5u);
  EXPECT_TRUE(both.hasAny(TFlags<Color>{Green, Blue}));
  EXPECT_FALSE(both.hasAny(Green));
}

TEST(FlagsTest, SetClearAndCombine) {
  TFlags<Color> flags;
  flags.set(Green).set(Blue);
  EXPECT_EQ(flags, (TFlags<Color>{Green, Blue}));
  flags.set(Green, false);
  EXPECT_EQ(flags, Blue);
  flags.clear(Blue).clear(Red);
  EXPECT_TRUE(flags.isEmpty());

  TFlags<Color> a = Red;
  EXPECT_EQ((a | Green).getBits(), 0x3u);
  EXPECT_EQ((TFlags<Color>{Red, Green} & TFlags<Color>{Green, Blue}), Green);
  a |= Blue;
  EXPECT_EQ(a, RedAndBlue);
  a &= Blue;
  EXPECT_EQ(a, Blue);
}

TEST(FlagsTest, RawBitsPassThrough) {
  // Bits no enumerator names (from a newer peer) are kept.
  const auto flags = TFlags<Color>::fromBits(0xF0u | Green);
  EXPECT_TRUE(flags.has(Green));
  EXPECT_EQ(flags.getBits(), 0xF2u);
  EXPECT_NE(flags, Green);

  TFlags<Wide> wide{Wide::Low, Wide::High};
  EXPECT_EQ(wide.getBits(), (uint64_t{1} << 63) | 1u);
  wide.clear(Wide::Low);
  EXPECT_TRUE(wide.has(Wide::High));
  EXPECT_FALSE(wide.has(Wide::Low));
  static_assert(TFlags<Color>{Red, Green}.getBits() == 3u);
}

}  // namespace
}  // namespace zel
