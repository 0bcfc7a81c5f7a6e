#include "zel/stream/ieee_extended.h"

#include <cmath>
#include <limits>

#include "zel/core/types.h"

namespace zel {

void convertToIeeeExtended(double value, signed char* bytes) {
  // The sign is taken by comparison, not from the sign bit: -0.0 and a NaN
  // with its sign bit set both count as positive.
  unsigned head = 0;
  if (value < 0) {
    head = 0x8000;
    value = -value;
  }
  uint32 high = 0;
  uint32 low = 0;
  if (value == 0) {
    head = 0;
  } else {
    int exponent = 0;
    double fraction = std::frexp(value, &exponent);
    // For an infinity or a NaN frexp returns the argument, which fails the
    // test below whatever it stores in the exponent.
    if (exponent < 16385 && fraction < 1) {
      int biased = exponent + 16382;
      if (biased < 0) {
        // Below the 80-bit normal range: a denormal with exponent 0. No double
        // is this small, but the step keeps the conversion total.
        fraction = std::ldexp(fraction, biased);
        biased = 0;
      }
      head |= static_cast<unsigned>(biased);
      const double scaled = std::ldexp(fraction, 32);
      const double highPart = std::floor(scaled);
      high = static_cast<uint32>(highPart);
      low = static_cast<uint32>(std::floor(std::ldexp(scaled - highPart, 32)));
    } else {
      head |= 0x7FFF;
    }
  }
  const unsigned char out[10] = {
      static_cast<unsigned char>(head >> 8),  static_cast<unsigned char>(head),
      static_cast<unsigned char>(high >> 24), static_cast<unsigned char>(high >> 16),
      static_cast<unsigned char>(high >> 8),  static_cast<unsigned char>(high),
      static_cast<unsigned char>(low >> 24),  static_cast<unsigned char>(low >> 16),
      static_cast<unsigned char>(low >> 8),   static_cast<unsigned char>(low),
  };
  for (int i = 0; i < 10; ++i) bytes[i] = static_cast<signed char>(out[i]);
}

double convertFromIeeeExtended(const signed char* bytes) {
  const auto* in = reinterpret_cast<const unsigned char*>(bytes);
  const int exponent = ((in[0] & 0x7F) << 8) | in[1];
  const bool negative = (in[0] & 0x80) != 0;
  const uint32 high = (uint32(in[2]) << 24) | (uint32(in[3]) << 16) | (uint32(in[4]) << 8) | in[5];
  const uint32 low = (uint32(in[6]) << 24) | (uint32(in[7]) << 16) | (uint32(in[8]) << 8) | in[9];

  double result;
  if (exponent == 0 && high == 0 && low == 0) {
    result = 0.0;
  } else if (exponent > 32766) {
    result = std::numeric_limits<double>::infinity();
  } else {
    // Each term is exact for every value that came from a double, so such
    // values read back bit for bit. Other 80-bit values are rounded per term
    // and in the sum, which peers reproduce by doing the same.
    result = std::ldexp(static_cast<double>(high), exponent - 16383 - 31) +
             std::ldexp(static_cast<double>(low), exponent - 16383 - 63);
  }
  return negative ? -result : result;
}

}  // namespace zel
