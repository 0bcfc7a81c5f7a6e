#include "zel/core/utf8.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

namespace zel {
namespace {

// Wide text of code points: a pair of UTF-16 units for each one beyond the
// BMP on Windows, one wchar_t elsewhere. Lone surrogates stay single units.
std::wstring wide(std::initializer_list<uint32> codePoints) {
  std::wstring out;
  for (uint32 c : codePoints) {
    if (sizeof(wchar_t) == 2 && c >= 0x10000) {
      out += static_cast<wchar_t>(0xD800 + ((c - 0x10000) >> 10));
      out += static_cast<wchar_t>(0xDC00 + ((c - 0x10000) & 0x3FF));
    } else {
      out += static_cast<wchar_t>(c);
    }
  }
  return out;
}

std::string hex(const std::string& bytes) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char b : bytes) {
    if (!out.empty()) out += ' ';
    out += kHex[b >> 4];
    out += kHex[b & 0xF];
  }
  return out;
}

std::string hex(const std::wstring& text) {
  std::string out;
  for (wchar_t c : text) {
    if (!out.empty()) out += ' ';
    out += std::to_string(static_cast<uint32>(c));
  }
  return out;
}

struct Pattern {
  const char* what;
  std::string bytes;
  std::wstring text;
};

// Every byte outside well-formed UTF-8 becomes U+DC00 + byte, one at a time;
// decoding goes on with the next byte.
TEST(UTF8CodecTest, IllFormedBytesDecodeToEscapedBytesAndEncodeBack) {
  const Pattern patterns[] = {
      {"lone continuation", "\x80", wide({0xDC80})},
      {"continuations", "a\x80\xBF\x9Fz", wide({'a', 0xDC80, 0xDCBF, 0xDC9F, 'z'})},
      {"truncated 2-byte at the end", "x\xC3", wide({'x', 0xDCC3})},
      {"truncated 2-byte", "\xC3.", wide({0xDCC3, '.'})},
      {"truncated 3-byte", "\xE2\x82.", wide({0xDCE2, 0xDC82, '.'})},
      {"truncated 3-byte at the end", "\xE2\x82", wide({0xDCE2, 0xDC82})},
      {"truncated 4-byte", "\xF0\x9F\x98", wide({0xDCF0, 0xDC9F, 0xDC98})},
      {"bad continuation", "\xC3(", wide({0xDCC3, '('})},
      {"bad third byte", "\xE2(\xA1", wide({0xDCE2, '(', 0xDCA1})},
      {"overlong 2-byte", "\xC0\xAF", wide({0xDCC0, 0xDCAF})},
      {"overlong 2-byte, largest", "\xC1\xBF", wide({0xDCC1, 0xDCBF})},
      {"overlong 3-byte", "\xE0\x80\xAF", wide({0xDCE0, 0xDC80, 0xDCAF})},
      {"overlong 3-byte, largest", "\xE0\x9F\xBF", wide({0xDCE0, 0xDC9F, 0xDCBF})},
      {"overlong 4-byte", "\xF0\x80\x80\xAF", wide({0xDCF0, 0xDC80, 0xDC80, 0xDCAF})},
      {"encoded high surrogate", "\xED\xA0\x80", wide({0xDCED, 0xDCA0, 0xDC80})},
      {"encoded low surrogate", "\xED\xBF\xBF", wide({0xDCED, 0xDCBF, 0xDCBF})},
      {"an escaped byte's own UTF-8", "\xED\xB3\xA9", wide({0xDCED, 0xDCB3, 0xDCA9})},
      {"above U+10FFFF", "\xF4\x90\x80\x80", wide({0xDCF4, 0xDC90, 0xDC80, 0xDC80})},
      {"F5 and above", "\xF5\xF6\xF7\xF8\xF9\xFA\xFB\xFC\xFD\xFE\xFF",
       wide({0xDCF5, 0xDCF6, 0xDCF7, 0xDCF8, 0xDCF9, 0xDCFA, 0xDCFB, 0xDCFC, 0xDCFD, 0xDCFE,
             0xDCFF})},
      {"FF alone", "\xFF", wide({0xDCFF})},
      {"Latin-1", "caf\xE9", wide({'c', 'a', 'f', 0xDCE9})},
      {"mixed", "\xC3\xA9\xE9\xE2\x82\xAC\xF0\x9F\x98\x80\xFF",
       wide({0xE9, 0xDCE9, 0x20AC, 0x1F600, 0xDCFF})},
      {"lead bytes in a row", "\xE2\xF0\x9F\x98\x80", wide({0xDCE2, 0x1F600})},
  };
  for (const Pattern& p : patterns) {
    SCOPED_TRACE(p.what);
    std::wstring decoded = L"<";
    EXPECT_FALSE(decodeUTF8(p.bytes.data(), p.bytes.size(), decoded));
    EXPECT_EQ(hex(decoded), hex(L"<" + p.text));

    std::string encoded = ">";
    EXPECT_EQ(encodeUTF8(p.text.data(), p.text.size(), EscapedBytes::Restore, encoded),
              p.text.size());
    EXPECT_EQ(hex(encoded), hex(">" + p.bytes));

    // Strict: the first escaped byte stops the encoding there.
    std::string strict;
    const size_t stop = encodeUTF8(p.text.data(), p.text.size(), EscapedBytes::Refuse, strict);
    ASSERT_LT(stop, p.text.size());
    EXPECT_TRUE(isEscapedByte(p.text[stop]));
    std::string before;
    encodeUTF8(p.text.data(), stop, EscapedBytes::Refuse, before);
    EXPECT_EQ(strict, before);
  }
}

TEST(UTF8CodecTest, WellFormedTextIsUnchanged) {
  const Pattern patterns[] = {
      {"empty", "", wide({})},
      {"ASCII with a zero", std::string("a\0b\x7F", 4), wide({'a', 0, 'b', 0x7F})},
      {"smallest 2-byte", "\xC2\x80", wide({0x80})},
      {"largest 2-byte", "\xDF\xBF", wide({0x7FF})},
      {"smallest 3-byte", "\xE0\xA0\x80", wide({0x800})},
      {"below the surrogates", "\xED\x9F\xBF", wide({0xD7FF})},
      {"above the surrogates", "\xEE\x80\x80", wide({0xE000})},
      {"U+FFFF", "\xEF\xBF\xBF", wide({0xFFFF})},
      {"smallest 4-byte", "\xF0\x90\x80\x80", wide({0x10000})},
      {"largest", "\xF4\x8F\xBF\xBF", wide({0x10FFFF})},
      {"text", "Gr\xC3\xBC\xC3\x9F\x65 \xE2\x82\xAC", wide({'G', 'r', 0xFC, 0xDF, 'e', ' ', 0x20AC})},
  };
  for (const Pattern& p : patterns) {
    SCOPED_TRACE(p.what);
    std::wstring decoded;
    EXPECT_TRUE(decodeUTF8(p.bytes.data(), p.bytes.size(), decoded));
    EXPECT_EQ(hex(decoded), hex(p.text));
    for (EscapedBytes mode : {EscapedBytes::Restore, EscapedBytes::Refuse}) {
      std::string encoded;
      EXPECT_EQ(encodeUTF8(p.text.data(), p.text.size(), mode, encoded), p.text.size());
      EXPECT_EQ(hex(encoded), hex(p.bytes));
    }
  }
}

// Decoding is lossless for bytes; for texts it is not: escaped bytes that
// together are well-formed come back as the character they form.
TEST(UTF8CodecTest, EscapedBytesThatFormUTF8ReadBackAsThatCharacter) {
  const std::wstring text = wide({0xDCC3, 0xDCA9});
  std::string bytes;
  EXPECT_EQ(encodeUTF8(text.data(), text.size(), EscapedBytes::Restore, bytes), 2u);
  EXPECT_EQ(hex(bytes), "C3 A9");
  std::wstring back;
  EXPECT_TRUE(decodeUTF8(bytes.data(), bytes.size(), back));
  EXPECT_EQ(hex(back), hex(wide({0xE9})));
}

// Lone surrogates other than escaped bytes, and (with 32-bit wchar_t) values
// beyond Unicode, cannot be encoded either way.
TEST(UTF8CodecTest, OtherLoneSurrogatesCannotBeEncoded) {
  for (uint32 lone : {0xD800u, 0xDBFFu, 0xDC00u, 0xDC7Fu, 0xDD00u, 0xDFFFu}) {
    const std::wstring text = wide({'a', lone, 'b'});
    for (EscapedBytes mode : {EscapedBytes::Restore, EscapedBytes::Refuse}) {
      std::string out;
      EXPECT_EQ(encodeUTF8(text.data(), text.size(), mode, out), 1u) << lone;
      EXPECT_EQ(out, "a");
    }
  }
  if (sizeof(wchar_t) == 4) {
    const std::wstring beyond(1, static_cast<wchar_t>(0x110000));
    std::string out;
    EXPECT_EQ(encodeUTF8(beyond.data(), 1, EscapedBytes::Restore, out), 0u);
  }
}

// On Windows a high surrogate before a low one is a pair, even when the low
// one lies among the escaped bytes; decoding never makes such a pair.
TEST(UTF8CodecTest, SurrogatePairsAreOneCharacterWhereWideTextIsUTF16) {
  const std::wstring pair = {static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0xDCE9)};
  size_t index = 0;
  const uint32 first = nextCharacter(pair.data(), pair.size(), index);
  std::string out;
  const size_t stop = encodeUTF8(pair.data(), pair.size(), EscapedBytes::Restore, out);
  if (sizeof(wchar_t) == 2) {
    EXPECT_EQ(first, 0x100E9u);
    EXPECT_EQ(index, 2u);
    EXPECT_EQ(stop, 2u);
    EXPECT_EQ(hex(out), "F0 90 83 A9");
  } else {
    EXPECT_EQ(first, 0xD800u);
    EXPECT_EQ(index, 1u);
    EXPECT_EQ(stop, 0u);
  }
  // A lone high surrogate at the end stays itself.
  const std::wstring high(1, static_cast<wchar_t>(0xDBFF));
  index = 0;
  EXPECT_EQ(nextCharacter(high.data(), 1, index), 0xDBFFu);
  EXPECT_EQ(index, 1u);
}

TEST(UTF8CodecTest, EscapedByteHelpers) {
  EXPECT_FALSE(isEscapedByte(0xDC7F));
  EXPECT_TRUE(isEscapedByte(0xDC80));
  EXPECT_TRUE(isEscapedByte(0xDCFF));
  EXPECT_FALSE(isEscapedByte(0xDD00));
  EXPECT_EQ(escapedByteValue(0xDCE9), 0xE9);
  std::string out;
  appendUTF8(out, 0x1F600);
  appendUTF8(out, 0x7FF);
  EXPECT_EQ(hex(out), "F0 9F 98 80 DF BF");
}

}  // namespace
}  // namespace zel
