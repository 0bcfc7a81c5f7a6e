#include "zel/core/string.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "zel/core/error.h"

namespace zel {
namespace {

// UTF-8 copy, so that failures print readable text.
std::string u8(const String& s) { return s.toStdUTF8(); }

// length by reference: it is read only after the conversion in the same
// call expression has set it.
std::string bytes(const wxCharBuffer& buffer, const int& length) {
  return std::string(buffer.data(), static_cast<size_t>(length));
}

// U+1F600: a surrogate pair on Windows, one wchar_t elsewhere.
const String kSmiley = String::fromUTF8("\xF0\x9F\x98\x80");

// A character the current code page cannot encode, or 0 if it encodes all we
// try. A lone surrogate fails even in UTF-8 locales.
wchar_t findUnencodableInCodePage() {
  for (wchar_t c : {wchar_t(0x4E2D), wchar_t(0x0416), wchar_t(0xD800)}) {
    if (!wxConvLibc.cWC2MB(&c, 1, nullptr).data()) return c;
  }
  return 0;
}

TEST(StringTest, ConstructsFromEveryTextType) {
  EXPECT_TRUE(String().isEmpty());
  EXPECT_EQ(String("abc"), L"abc");
  EXPECT_EQ(String(L"abc"), "abc");
  EXPECT_EQ(String(std::string("abc")), String(std::wstring(L"abc")));
  EXPECT_EQ(String(wxString("abc")), "abc");
  EXPECT_EQ(String("abcdef", 3), "abc");
  EXPECT_EQ(String(L"abcdef", 3), "abc");
  // Explicit lengths keep embedded NULs.
  EXPECT_EQ(String("a\0b", 3).getLength(), 3);
  EXPECT_EQ(String(std::string("a\0b", 3)).safeAt(2), L'b');
  EXPECT_TRUE(String(static_cast<const char*>(nullptr)).isEmpty());
  EXPECT_TRUE(String(static_cast<const wchar_t*>(nullptr)).isEmpty());
  EXPECT_EQ(String("\xE9", wxConvISO8859_1), L"\u00E9");
}

TEST(StringTest, AppendsAndConcatenatesEveryTextType) {
  String s("a");
  s += L"b";
  s += "c";
  s += L'd';
  s += wxUniChar(L'e');
  EXPECT_EQ(u8("0" + s + String("f") + L"g" + L'h'), "0abcdefgh");
}

TEST(StringTest, ComparesExactlyAndOrdinally) {
  EXPECT_NE(String("abc"), "ABC");
  EXPECT_NE(String("abc"), String("abc", 2));
  EXPECT_NE(String("a"), L"a ");
  EXPECT_TRUE(String("B") < String("a"));
  EXPECT_TRUE(String("a") < String("ab"));
  EXPECT_FALSE(String("ab") < String("ab"));
  EXPECT_TRUE(String(L"\u00E9") < kSmiley);
}

TEST(StringTest, SafeAtIsZeroOutsideTheText) {
  const String s("xyz");
  EXPECT_EQ(s.safeAt(-1), 0);
  EXPECT_EQ(s.safeAt(s.getLength()), 0);
  EXPECT_EQ(s.safeAt(std::numeric_limits<int>::min()), 0);
  EXPECT_EQ(s.safeAt(0), L'x');
  EXPECT_EQ(s.safeAt(2), L'z');
  EXPECT_EQ(String().safeAt(0), 0);
}

TEST(StringTest, TrimsWhiteSpace) {
  EXPECT_EQ(String(" \t\r\n a b \v\f").trim(), "a b");
  EXPECT_EQ(String("  a  ").trimLeft(), "a  ");
  EXPECT_EQ(String("  a  ").trimRight(), "  a");
  EXPECT_TRUE(String(" \n ").trim().isEmpty());
}

TEST(StringTest, StartsWithNoCase) {
  EXPECT_TRUE(String("Hello World").startsWithNoCase(L"hELLO"));
  EXPECT_TRUE(String("abc").startsWithNoCase(L""));
  EXPECT_FALSE(String("ab").startsWithNoCase(L"abc"));
  EXPECT_FALSE(String("abc").startsWithNoCase(L"b"));
}

TEST(StringTest, CloneReplaceReplacesEveryOccurrenceAndLeavesTheOriginal) {
  const String s("a.b.c");
  EXPECT_EQ(s.cloneReplace(".", "::"), "a::b::c");
  EXPECT_EQ(s, "a.b.c");
  EXPECT_EQ(String("aaaa").cloneReplace("aa", "a"), "aa");
  EXPECT_EQ(s.cloneReplace("", "x"), s);
  EXPECT_EQ(s.cloneReplace("q", "x"), s);
}

TEST(StringTest, FromInt64) {
  EXPECT_EQ(String::fromInt64(0), "0");
  EXPECT_EQ(String::fromInt64(-17), "-17");
  EXPECT_EQ(String::fromInt64(std::numeric_limits<int64>::max()), "9223372036854775807");
  EXPECT_EQ(String::fromInt64(std::numeric_limits<int64>::min()), "-9223372036854775808");
}

TEST(StringConversionTest, UnicodeEncodingsOfANonBmpCharacter) {
  // One character outside the BMP: two units on Windows, one elsewhere.
  EXPECT_EQ(kSmiley.getLength(), sizeof(wchar_t) == 2 ? 2 : 1);
  int length = -1;
  EXPECT_EQ(bytes(kSmiley.toUTF8(&length), length), "\xF0\x9F\x98\x80");
  EXPECT_EQ(bytes(kSmiley.toUTF16(&length), length), std::string("\x3D\xD8\x00\xDE", 4));
  EXPECT_EQ(bytes(kSmiley.toUTF32(&length), length), std::string("\x00\xF6\x01\x00", 4));
  EXPECT_EQ(kSmiley.toStdUTF8(), "\xF0\x9F\x98\x80");
  EXPECT_EQ(String::fromUTF8(kSmiley.toUTF8()), kSmiley);
}

TEST(StringConversionTest, EmptyTextGivesEmptyTerminatedBuffers) {
  using Convert = wxCharBuffer (String::*)(int*) const;
  const struct {
    Convert convert;
    size_t terminator;
  } conversions[] = {
      {&String::toCP, 1},    {&String::toUTF8, 1},  {&String::toLatin1, 1},
      {&String::toUTF16, 2}, {&String::toUTF32, 4}, {&String::toFileSystemEncoding, 1},
      {&String::toCPSafe, 1}, {&String::toUTF8Lossless, 1},
  };
  const String empty;
  for (const auto& c : conversions) {
    int length = -1;
    wxCharBuffer buffer = (empty.*c.convert)(&length);
    ASSERT_NE(buffer.data(), nullptr);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(std::string(buffer.data(), c.terminator), std::string(c.terminator, '\0'));
  }
  EXPECT_EQ(empty.toStdUTF8(), "");
}

TEST(StringConversionTest, Utf16KeepsItsTwoByteTerminatorAfterSafeConversion) {
  wxMBConvUTF16LE utf16;
  int length = -1;
  wxCharBuffer buffer = String("ab").toEncodingSafe(utf16, &length);
  EXPECT_EQ(length, 4);
  EXPECT_EQ(std::string(buffer.data(), 6), std::string("a\0b\0\0\0", 6));
}

TEST(StringConversionTest, StrictLatin1) {
  int length = -1;
  EXPECT_EQ(bytes(String(L"a\u00E9\u00FFb").toLatin1(&length), length), "a\xE9\xFF" "b");
  EXPECT_EQ(length, 4);
  EXPECT_THROW(String(L"a\u0100b").toLatin1(), CUnencodableStringError);
  EXPECT_THROW(String(L"a\u4E2Db").toEncoding(wxConvISO8859_1), CUnencodableStringError);
  EXPECT_THROW(String("x" + kSmiley).toLatin1(), CUnencodableStringError);
}

TEST(StringConversionTest, SafeLatin1ReplacesEachUnencodableCharacter) {
  struct Case {
    const wchar_t* text;
    const char* expected;
  } cases[] = {
      {L"a\u4E2Db", "a?b"},            // one in the middle
      {L"\u4E2Dab", "?ab"},            // at the start
      {L"ab\u4E2D", "ab?"},            // at the end
      {L"a\u4E2D\u6587\u20ACb", "a???b"},  // a run: one mark each
      {L"\u4E2D", "?"},
      {L"\u4E2D\u6587", "??"},
      {L"\u4E2D\u00E9\u6587\u00E9x\u0100", "?\xE9?\xE9x?"},
      {L"plain \u00E9", "plain \xE9"},
  };
  for (const Case& c : cases) {
    int length = -1;
    wxCharBuffer buffer = String(c.text).toEncodingSafe(wxConvISO8859_1, &length);
    EXPECT_EQ(bytes(buffer, length), c.expected) << u8(c.text);
    EXPECT_EQ(buffer.data()[length], '\0');
  }
}

TEST(StringConversionTest, SafeConversionNeverSplitsASurrogatePair) {
  // Every position of the pair relative to the bisection points: a pair is
  // one character and becomes exactly one "?".
  for (int before = 0; before <= 6; ++before) {
    for (int after = 0; after <= 6; ++after) {
      const String text = String(std::string(before, 'a')) + kSmiley +
                          String(std::string(after, 'b'));
      const std::string expected = std::string(before, 'a') + "?" + std::string(after, 'b');
      int length = -1;
      wxCharBuffer buffer = text.toEncodingSafe(wxConvISO8859_1, &length);
      EXPECT_EQ(bytes(buffer, length), expected) << before << " " << after;
    }
  }
  EXPECT_EQ(std::string((kSmiley + kSmiley + "x" + kSmiley).toEncodingSafe(wxConvISO8859_1)),
            "??x?");
}

TEST(StringConversionTest, CurrentCodePageRoundTripsAsciiAndMarksWhatItCannotEncode) {
  int length = -1;
  EXPECT_EQ(bytes(String("plain").toCP(&length), length), "plain");
  EXPECT_EQ(String::fromCP(String("plain").toCP()), "plain");
  EXPECT_EQ(String::fromCP("plain text", 5), "plain");

  const wchar_t bad = findUnencodableInCodePage();
  if (bad == 0) GTEST_SKIP() << "the current code page encodes every character tried";
  String text("ab");
  text += bad;
  text += "cd";
  EXPECT_THROW(text.toCP(), CUnencodableStringError);
  EXPECT_EQ(bytes(text.toCPSafe(&length), length), "ab?cd");
  EXPECT_EQ(std::string(text.toEncodingSafe(wxConvLibc)), "ab?cd");
}

TEST(StringConversionTest, UndecodableBytesAreTakenAsLatin1) {
  // Invalid UTF-8: the bytes survive and come back through toLatin1().
  const String s = String::fromUTF8("a\xFF\xC3");
  EXPECT_EQ(s, L"a\u00FF\u00C3");
  int length = -1;
  EXPECT_EQ(bytes(s.toLatin1(&length), length), "a\xFF\xC3");
  EXPECT_EQ(String::fromUTF8("\xC3\xA9z", 2), L"\u00E9");
  EXPECT_EQ(String::fromUTF8("a\0b", 3).getLength(), 3);
  // An encoded surrogate is not UTF-8 either, through fromUTF8 as through the
  // converter wxConvUTF8.
  EXPECT_EQ(String::fromUTF8("\xED\xA0\x80"), L"\u00ED\u00A0\u0080");
  EXPECT_EQ(String("\xED\xA0\x80z", wxConvUTF8, 3), L"\u00ED\u00A0\u0080");
  EXPECT_EQ(String::fromFileSystemEncoding("name"), "name");
}

// A text of the escaped byte U+DCE9 between letters, as "a\xE9b" decodes.
String withEscapedByte() {
  const wchar_t units[] = {L'a', static_cast<wchar_t>(0xDCE9), L'b'};
  return String(units, 3);
}

TEST(StringConversionTest, LosslessUTF8KeepsEveryByte) {
  const std::string raw("a\xE9\xC3\xA9\xED\xA0\x80\xF0\x9F\x98\x80\xFF\0z", 14);
  const String s = String::fromUTF8Lossless(raw.data(), raw.size());
  const wchar_t expected[] = {L'a', static_cast<wchar_t>(0xDCE9), L'\u00E9',
                              static_cast<wchar_t>(0xDCED), static_cast<wchar_t>(0xDCA0),
                              static_cast<wchar_t>(0xDC80)};
  EXPECT_EQ(String(s.toWChar(), 6), String(expected, 6));
  String rest = kSmiley;
  rest += static_cast<wchar_t>(0xDCFF);
  rest += String(L"\0z", 2);
  EXPECT_EQ(String(s.toWChar() + 6, s.getLength() - 6), rest);
  int length = -1;
  EXPECT_EQ(bytes(s.toUTF8Lossless(&length), length), raw);
  EXPECT_EQ(String::fromUTF8Lossless("\xC3\xA9", 2), L"\u00E9");
  EXPECT_TRUE(String::fromUTF8Lossless(nullptr, 3).isEmpty());

  // Other lone surrogates have no bytes to stand for.
  String lone(L"a");
  lone += static_cast<wchar_t>(0xD800);
  EXPECT_THROW(lone.toUTF8Lossless(), CUnencodableStringError);
}

// Strict UTF-8 is always well-formed: an escaped byte, like any lone
// surrogate, cannot be written there (on Linux wxWidgets itself would write
// the surrogate as three bytes); the safe form puts "?" for it, and so does
// the current code page, which holds no such character.
TEST(StringConversionTest, StrictUTF8RefusesEscapedBytes) {
  const String s = withEscapedByte();
  EXPECT_THROW(s.toUTF8(), CUnencodableStringError);
  EXPECT_THROW(s.toStdUTF8(), CUnencodableStringError);
  EXPECT_THROW(s.toEncoding(wxConvUTF8), CUnencodableStringError);
  String lone(L"a");
  lone += static_cast<wchar_t>(0xDBFF);
  EXPECT_THROW(lone.toUTF8(), CUnencodableStringError);
  int length = -1;
  EXPECT_EQ(bytes(s.toEncodingSafe(wxConvUTF8, &length), length), "a?b");
  EXPECT_EQ(bytes(s.toCPSafe(&length), length), "a?b");
  EXPECT_THROW(s.toLatin1(), CUnencodableStringError);
}

TEST(StringConversionTest, FileSystemNamesOnLinuxAreLosslessUTF8) {
#if defined(_WIN32)
  GTEST_SKIP() << "Windows names are UTF-16 and need no mapping";
#else
  const String name = String::fromFileSystemEncoding("a\xE9" "b");
  EXPECT_EQ(name, withEscapedByte());
  int length = -1;
  EXPECT_EQ(bytes(name.toFileSystemEncoding(&length), length), "a\xE9" "b");
  EXPECT_EQ(String::fromFileSystemEncoding("caf\xC3\xA9"), L"caf\u00E9");
  EXPECT_TRUE(String::fromFileSystemEncoding(nullptr).isEmpty());
  String lone(L"a");
  lone += static_cast<wchar_t>(0xDFFF);
  EXPECT_THROW(lone.toFileSystemEncoding(), CUnencodableStringError);
#endif
}

}  // namespace
}  // namespace zel
