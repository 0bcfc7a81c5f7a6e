#include "zel/core/utf8.h"

namespace zel {

namespace {

constexpr bool kWideIsUtf16 = sizeof(wchar_t) == 2;

bool isSurrogate(uint32 c) { return c >= 0xD800 && c <= 0xDFFF; }

// The length of the well-formed sequence that starts at p[i], or 0 when
// none does; c receives its code point. The ranges of the second byte rule
// out overlong forms, encoded surrogates and values above U+10FFFF, so that
// every accepted sequence is the only encoding of its character.
size_t sequenceAt(const unsigned char* p, size_t n, size_t i, uint32& c) {
  const unsigned char b = p[i];
  size_t length = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (b >= 0xC2 && b <= 0xDF) {
    length = 2;
  } else if (b >= 0xE0 && b <= 0xEF) {
    length = 3;
    if (b == 0xE0) low = 0xA0;
    if (b == 0xED) high = 0x9F;
  } else if (b >= 0xF0 && b <= 0xF4) {
    length = 4;
    if (b == 0xF0) low = 0x90;
    if (b == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (n - i < length || p[i + 1] < low || p[i + 1] > high) return 0;
  c = b & (0x7Fu >> length);
  for (size_t k = 1; k < length; ++k) {
    const unsigned char next = p[i + k];
    if ((next & 0xC0) != 0x80) return 0;
    c = (c << 6) | (next & 0x3Fu);
  }
  return length;
}

void appendWide(std::wstring& out, uint32 c) {
  if (kWideIsUtf16 && c >= 0x10000) {
    c -= 0x10000;
    out += static_cast<wchar_t>(0xD800 + (c >> 10));
    out += static_cast<wchar_t>(0xDC00 + (c & 0x3FF));
    return;
  }
  out += static_cast<wchar_t>(c);
}

}  // namespace

bool decodeUTF8(const char* bytes, size_t length, std::wstring& out) {
  const auto* p = reinterpret_cast<const unsigned char*>(bytes);
  out.reserve(out.size() + length);
  bool wellFormed = true;
  size_t i = 0;
  while (i < length) {
    const unsigned char b = p[i];
    if (b < 0x80) {
      // A run of ASCII (most text is one) is widened in one step.
      size_t end = i + 1;
      while (end < length && p[end] < 0x80) ++end;
      const size_t at = out.size();
      out.resize(at + (end - i));
      wchar_t* wide = out.data() + at;
      for (size_t k = i; k < end; ++k) *wide++ = static_cast<wchar_t>(p[k]);
      i = end;
      continue;
    }
    uint32 c = 0;
    const size_t n = sequenceAt(p, length, i, c);
    if (n == 0) {
      out += static_cast<wchar_t>(0xDC00 + b);
      wellFormed = false;
      ++i;
    } else {
      appendWide(out, c);
      i += n;
    }
  }
  return wellFormed;
}

size_t encodeUTF8(const wchar_t* text, size_t length, EscapedBytes escapes, std::string& out) {
  out.reserve(out.size() + length);
  size_t i = 0;
  while (i < length) {
    // A run of ASCII is narrowed in one step.
    size_t end = i;
    while (end < length && static_cast<uint32>(text[end]) < 0x80) ++end;
    if (end > i) {
      const size_t at = out.size();
      out.resize(at + (end - i));
      char* narrow = out.data() + at;
      for (size_t k = i; k < end; ++k) *narrow++ = static_cast<char>(text[k]);
      i = end;
      continue;
    }
    const size_t start = i;
    const uint32 c = nextCharacter(text, length, i);
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (isEscapedByte(c)) {
      if (escapes == EscapedBytes::Refuse) return start;
      out += static_cast<char>(escapedByteValue(c));
    } else if (isSurrogate(c) || c > 0x10FFFF) {
      return start;
    } else {
      appendUTF8(out, c);
    }
  }
  return length;
}

uint32 nextCharacter(const wchar_t* text, size_t length, size_t& index) {
  uint32 c = static_cast<uint32>(text[index++]);
  if constexpr (kWideIsUtf16) {
    c &= 0xFFFFu;
    if (c >= 0xD800 && c <= 0xDBFF && index < length) {
      const uint32 low = static_cast<uint32>(text[index]) & 0xFFFFu;
      if (low >= 0xDC00 && low <= 0xDFFF) {
        ++index;
        return 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
      }
    }
  }
  return c;
}

void appendUTF8(std::string& out, uint32 c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

}  // namespace zel
