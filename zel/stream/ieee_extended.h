// Conversions between a double and the 10-byte, big-endian IEEE 754 80-bit
// extended precision form that the data streams use on the wire.
//
// Layout of the 10 bytes: a 16-bit head (bit 15 the sign, bits 0-14 the
// exponent biased by 16383) and a 64-bit mantissa with an explicit integer
// bit, split into a high and a low 32-bit word; everything most significant
// byte first. Every finite double fits exactly, subnormals included, so
// converting a finite double there and back gives the same double, with one
// exception: -0.0 is written as ten zero bytes (the sign of a zero is not
// kept) and reads back as +0.0.
//
// Losses, accepted on purpose because peers rely on them:
//   - NaN (of either sign) is written as +infinity: 7F FF and eight zeros.
//   - Reading: any exponent above 32766 (infinities and NaNs of the 80-bit
//     form alike) gives an infinity of the head's sign. Other values read as
//     high x 2^(exponent - 16383 - 31) + low x 2^(exponent - 16383 - 63),
//     computed in doubles, with the head's sign (a zero keeps it too). For
//     values that did not come from a double this rounds each term and the
//     sum, and may differ from the nearest double in the last bit; peers
//     compute the same formula. Such a value written again gives other
//     bytes.
#pragma once

#include "zel/core/export.h"

namespace zel {

// Writes value's 10-byte form to bytes[0..9].
ZEL_API void convertToIeeeExtended(double value, signed char* bytes);

// Reads the double that bytes[0..9] stand for.
ZEL_API double convertFromIeeeExtended(const signed char* bytes);

}  // namespace zel
