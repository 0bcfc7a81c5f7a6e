#include "zel/stream/ieee_extended.h"

#include <gtest/gtest.h>

#include <array>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>

namespace zel {
namespace {

using Bytes = std::array<unsigned char, 10>;

Bytes encode(double value) {
  signed char out[10];
  std::memset(out, 0x5A, sizeof out);
  convertToIeeeExtended(value, out);
  Bytes bytes;
  std::memcpy(bytes.data(), out, 10);
  return bytes;
}

double decode(const Bytes& bytes) {
  return convertFromIeeeExtended(reinterpret_cast<const signed char*>(bytes.data()));
}

double fromBits(uint64_t bits) {
  double value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

uint64_t toBits(double value) {
  uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

std::string hex(const Bytes& bytes) {
  std::string out;
  for (unsigned char b : bytes) {
    static const char digits[] = "0123456789ABCDEF";
    if (!out.empty()) out += ' ';
    out += digits[b >> 4];
    out += digits[b & 15];
  }
  return out;
}

// The x87 extended type of x86 GCC and mingw is exactly this format, stored
// little-endian: an independent reference for finite values.
constexpr bool kLongDoubleIsX87 =
    std::numeric_limits<long double>::digits == 64 && sizeof(long double) >= 10;

Bytes viaLongDouble(double value) {
  long double wide = value;
  unsigned char raw[sizeof(long double)];
  std::memcpy(raw, &wide, sizeof wide);
  Bytes bytes;
  for (int i = 0; i < 10; ++i) bytes[i] = raw[9 - i];
  return bytes;
}

TEST(IeeeExtendedTest, KnownBytePatterns) {
  struct Case {
    double value;
    const char* bytes;
  } cases[] = {
      {1.0, "3F FF 80 00 00 00 00 00 00 00"},
      {-2.0, "C0 00 80 00 00 00 00 00 00 00"},
      {0.5, "3F FE 80 00 00 00 00 00 00 00"},
      {3.0, "40 00 C0 00 00 00 00 00 00 00"},
      {-0.75, "BF FE C0 00 00 00 00 00 00 00"},
      {0.0, "00 00 00 00 00 00 00 00 00 00"},
      {-0.0, "00 00 00 00 00 00 00 00 00 00"},
      {DBL_MAX, "43 FE FF FF FF FF FF FF F8 00"},
      {-DBL_MAX, "C3 FE FF FF FF FF FF FF F8 00"},
      {DBL_MIN, "3C 01 80 00 00 00 00 00 00 00"},
      {std::numeric_limits<double>::denorm_min(), "3B CD 80 00 00 00 00 00 00 00"},
      {DBL_MIN - std::numeric_limits<double>::denorm_min(), "3C 00 FF FF FF FF FF FF F0 00"},
      {std::numeric_limits<double>::infinity(), "7F FF 00 00 00 00 00 00 00 00"},
      {-std::numeric_limits<double>::infinity(), "FF FF 00 00 00 00 00 00 00 00"},
      {std::numeric_limits<double>::quiet_NaN(), "7F FF 00 00 00 00 00 00 00 00"},
      {-std::numeric_limits<double>::quiet_NaN(), "7F FF 00 00 00 00 00 00 00 00"},
      {std::numeric_limits<double>::signaling_NaN(), "7F FF 00 00 00 00 00 00 00 00"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(hex(encode(c.value)), c.bytes) << "value " << c.value;
  }
}

TEST(IeeeExtendedTest, DecodesSpecialForms) {
  const double inf = std::numeric_limits<double>::infinity();
  EXPECT_EQ(toBits(decode({0, 0, 0, 0, 0, 0, 0, 0, 0, 0})), toBits(0.0));
  EXPECT_EQ(toBits(decode({0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0})), toBits(-0.0));
  EXPECT_EQ(decode({0x7F, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0}), inf);
  EXPECT_EQ(decode({0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0}), -inf);
  // 80-bit NaNs and pseudo-infinities all read as infinities of their sign.
  EXPECT_EQ(decode({0x7F, 0xFF, 0xC0, 0, 0, 0, 0, 0, 0, 1}), inf);
  EXPECT_EQ(decode({0xFF, 0xFF, 0x80, 0, 0, 0, 0, 0, 0, 0}), -inf);
  // Finite 80-bit values beyond a double overflow; tiny ones underflow.
  EXPECT_EQ(decode({0x7F, 0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0}), inf);
  EXPECT_EQ(decode({0x00, 0x01, 0x80, 0, 0, 0, 0, 0, 0, 0}), 0.0);
  // An 80-bit denormal (exponent 0, mantissa not zero) is tiny, not zero-coded.
  EXPECT_EQ(decode({0x00, 0x00, 0x00, 0, 0, 0, 0, 0, 0, 1}), 0.0);
  // An unnormal (integer bit clear) still stands for mantissa x 2^exponent.
  EXPECT_EQ(decode({0x3F, 0xFF, 0x40, 0, 0, 0, 0, 0, 0, 0}), 0.5);
  // The low word carries weight 2^-63 relative to the integer bit.
  EXPECT_EQ(decode({0x3F, 0xFF, 0x80, 0, 0, 0, 0, 0, 0x08, 0}), 1.0 + std::ldexp(1.0, -52));
}

TEST(IeeeExtendedTest, ExtraMantissaBitsAreRoundedPerTermThenSummed) {
  const double up = 1.0 + std::ldexp(1.0, -52);
  // Exactly half an ulp above 1.0: ties go to the even neighbour, 1.0.
  EXPECT_EQ(decode({0x3F, 0xFF, 0x80, 0, 0, 0, 0, 0, 0x04, 0}), 1.0);
  // Just above half: rounds up.
  EXPECT_EQ(decode({0x3F, 0xFF, 0x80, 0, 0, 0, 0, 0, 0x04, 1}), up);
  // Half above an odd mantissa: rounds up to the even one.
  EXPECT_EQ(decode({0x3F, 0xFF, 0x80, 0, 0, 0, 0, 0, 0x0C, 0}), 1.0 + std::ldexp(1.0, -51));
  // All 64 bits set: carries into the next power of two.
  EXPECT_EQ(decode({0x3F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}), 2.0);
  // Half of the smallest subnormal is a tie to zero. The terms are rounded
  // one by one: a low word too small for a double vanishes before the sum,
  // so a bit more than half still gives zero, while a high word above half
  // rounds up.
  const double tiny = std::numeric_limits<double>::denorm_min();
  EXPECT_EQ(decode({0x3B, 0xCC, 0x80, 0, 0, 0, 0, 0, 0, 0}), 0.0);
  EXPECT_EQ(decode({0x3B, 0xCC, 0x80, 0, 0, 0, 0, 0, 0, 1}), 0.0);
  EXPECT_EQ(decode({0xBB, 0xCC, 0xC0, 0, 0, 0, 0, 0, 0, 0}), -tiny);
}

// Every finite double survives the trip bit for bit: bit patterns drawn at
// random reach every exponent, subnormals included.
TEST(IeeeExtendedTest, RandomFiniteDoublesRoundTripExactly) {
  std::mt19937_64 random(20240611);
  int checked = 0;
  for (int i = 0; i < 200000; ++i) {
    uint64_t bits = random();
    if (i % 4 == 1) bits &= 0x800FFFFFFFFFFFFFull;  // subnormals
    if (i % 4 == 2) bits &= ~(0x7FEull << 52);      // tiny exponents
    const double value = fromBits(bits);
    if (!std::isfinite(value) || value == 0) continue;
    const Bytes bytes = encode(value);
    ASSERT_EQ(toBits(decode(bytes)), bits) << "bits 0x" << std::hex << bits << " -> " << hex(bytes);
    if constexpr (kLongDoubleIsX87) {
      ASSERT_EQ(hex(bytes), hex(viaLongDouble(value))) << "bits 0x" << std::hex << bits;
    }
    ++checked;
  }
  EXPECT_GT(checked, 190000);
}

TEST(IeeeExtendedTest, EdgeDoublesRoundTripExactly) {
  const double edges[] = {DBL_MAX,
                          -DBL_MAX,
                          DBL_MIN,
                          -DBL_MIN,
                          std::numeric_limits<double>::denorm_min(),
                          -std::numeric_limits<double>::denorm_min(),
                          DBL_MIN - std::numeric_limits<double>::denorm_min(),
                          std::nextafter(1.0, 2.0),
                          std::nextafter(1.0, 0.0),
                          DBL_EPSILON,
                          0.1,
                          -1e300,
                          123456789.123456789};
  for (double value : edges) {
    EXPECT_EQ(toBits(decode(encode(value))), toBits(value)) << value;
  }
  EXPECT_EQ(toBits(decode(encode(-0.0))), toBits(0.0));
  EXPECT_EQ(decode(encode(std::numeric_limits<double>::quiet_NaN())),
            std::numeric_limits<double>::infinity());
  EXPECT_EQ(decode(encode(-std::numeric_limits<double>::infinity())),
            -std::numeric_limits<double>::infinity());
}

}  // namespace
}  // namespace zel
