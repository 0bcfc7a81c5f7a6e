// The library's one UTF-8 codec, with escaped bytes.
//
// Decoding takes any bytes and never fails. Well-formed UTF-8 (RFC 3629:
// shortest forms only, no encoded surrogates, nothing above U+10FFFF) decodes
// as usual. Every other byte, one at a time, becomes an escaped byte: the lone
// low surrogate U+DC00 + byte, which lies in U+DC80..U+DCFF because bytes below
// 0x80 are always well-formed. So "caf\xE9" decodes to "caf" U+DCE9, and the
// encoded surrogate ED A0 80 to U+DCED U+DCA0 U+DC80.
//
// Encoding with EscapedBytes::Restore turns each escaped byte back into the
// one raw byte it stands for, so that any byte string survives decoding and
// encoding unchanged: Linux file names, and texts on the data-stream wire,
// which carry such names. The reverse does not hold for every text: escaped
// bytes that together are well-formed (U+DCC3 U+DCA9) encode to bytes that
// decode as that character (U+00E9). With EscapedBytes::Refuse an escaped byte
// cannot be encoded, like any other lone surrogate: the output is then always
// well-formed UTF-8.
//
// Wide text is UTF-16 on Windows (a surrogate pair is one character) and
// UTF-32 elsewhere; decoding the same bytes gives the same characters on both,
// and never a high surrogate, so a decoded text never forms a pair by
// accident. Characters that cannot be encoded: lone surrogates other than the
// escaped bytes (on Windows an unpaired one, elsewhere any), values above
// U+10FFFF and, with EscapedBytes::Refuse, the escaped bytes.
//
// Which conversions use the escapes is decided where they are declared:
// String::fromUTF8Lossless / toUTF8Lossless, the file-system encoding on
// Linux (String::fromFileSystemEncoding), the data streams' text and the
// percent-escapes of CURI. Strict UTF-8 (String::toUTF8) refuses them.
#pragma once

#include <cstddef>
#include <string>

#include "zel/core/export.h"
#include "zel/core/types.h"

namespace zel {

constexpr bool isEscapedByte(uint32 c) { return c >= 0xDC80 && c <= 0xDCFF; }
// The raw byte an escaped byte stands for.
constexpr unsigned char escapedByteValue(uint32 c) { return static_cast<unsigned char>(c - 0xDC00); }

enum class EscapedBytes {
  Restore,  // each becomes the raw byte it stands for
  Refuse,   // each is a character that cannot be encoded
};

// Appends the decoding of bytes[0, length) to out. Returns true when every
// byte belonged to well-formed UTF-8, false when some became escaped bytes.
ZEL_API bool decodeUTF8(const char* bytes, size_t length, std::wstring& out);

// Appends the UTF-8 of text[0, length) to out, up to the first character that
// cannot be encoded. Returns that character's index (out then holds the
// encoding of everything before it), or length when all of it was encoded.
ZEL_API size_t encodeUTF8(const wchar_t* text, size_t length, EscapedBytes escapes,
                          std::string& out);

// The character at text[index], index moved past it: on Windows a surrogate
// pair gives its code point; a lone surrogate is returned as it is.
ZEL_API uint32 nextCharacter(const wchar_t* text, size_t length, size_t& index);

// Appends the UTF-8 of one Unicode scalar value (at most U+10FFFF, no
// surrogate).
ZEL_API void appendUTF8(std::string& out, uint32 c);

}  // namespace zel
