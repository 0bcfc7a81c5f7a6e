#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <string>

#include "zel/core/error.h"
#include "zel/core/string.h"

namespace zel {
namespace {

std::string u8(const String& s) { return s.toStdUTF8(); }

// Runs a strict formatting and returns the message of the CError it throws.
std::string formatError(const std::function<void()>& format) {
  try {
    format();
  } catch (const CError& e) {
    EXPECT_TRUE(e.getErrorCodeDomain().isEmpty());
    return u8(e.getMessage());
  }
  return "(no error)";
}

TEST(StringFormatTest, ReplacesPlaceholdersInOrder) {
  EXPECT_EQ(u8(CStringFormat("a%sb%dc%xd") << "X" << 42 << 255), "aXb42cffd");
  EXPECT_EQ(u8(CStringFormat("no placeholders")), "no placeholders");
  EXPECT_EQ(u8(CStringFormat("")), "");
  EXPECT_EQ(u8(CStringFormat("100%% of %s, %%d") << "it"), "100% of it, %d");
  // A value's own percent signs are not placeholders.
  EXPECT_EQ(u8(CStringFormat("%s|%s") << "%d" << "%"), "%d|%");
}

TEST(StringFormatTest, FormatsInt64) {
  const int64 min = std::numeric_limits<int64>::min();
  EXPECT_EQ(u8(CStringFormat("%d") << min), "-9223372036854775808");
  EXPECT_EQ(u8(CStringFormat("%x") << min), "8000000000000000");
  EXPECT_EQ(u8(CStringFormat("%x") << int64(-1)), "ffffffffffffffff");
  EXPECT_EQ(u8(CStringFormat("%x %x") << 0 << 0xABCDEF), "0 abcdef");
}

TEST(StringFormatTest, PadsOnTheLeftToTheWidth) {
  EXPECT_EQ(u8(CStringFormat("%05d") << 42), "00042");
  EXPECT_EQ(u8(CStringFormat("%5d") << 42), "   42");
  EXPECT_EQ(u8(CStringFormat("[%4s]") << "ab"), "[  ab]");
  EXPECT_EQ(u8(CStringFormat("%08x") << 0xBEEF), "0000beef");
  EXPECT_EQ(u8(CStringFormat("%2d") << 12345), "12345");
  EXPECT_EQ(u8(CStringFormat("%0d") << 7), "7");
  EXPECT_EQ(u8(CStringFormat("%99s") << "x").size(), 99u);
  EXPECT_EQ(u8(CStringFormat("%05d") << -42), "00-42");
}

TEST(StringFormatTest, StrictFormThrowsWithItsMessages) {
  EXPECT_EQ(formatError([] { String(CStringFormat("a%")); }),
            "The format string has a single '%' at the end.");
  EXPECT_EQ(formatError([] { String(CStringFormat("%123d") << 1); }),
            "The format string has a placeholder using invalid syntax.");
  EXPECT_EQ(formatError([] { String(CStringFormat("x%05")); }),
            "The format string has a placeholder using invalid syntax.");
  EXPECT_EQ(formatError([] { String(CStringFormat("%q") << 1); }), "Invalid placeholder type.");
  EXPECT_EQ(formatError([] { String(CStringFormat("%5%")); }), "Invalid placeholder type.");
  EXPECT_EQ(formatError([] { CStringFormat("%d") << "x"; }), "Expected value of type int");
  EXPECT_EQ(formatError([] { CStringFormat("%s") << 1; }), "Expected value of type string");
  EXPECT_EQ(formatError([] { CStringFormat("%s") << "a" << "b"; }),
            "All placeholders have already been replaced.");
  EXPECT_EQ(formatError([] { CStringFormat("none") << 1; }),
            "All placeholders have already been replaced.");
  EXPECT_EQ(formatError([] { String(CStringFormat("%s and %d") << "a"); }),
            "Not all placeholders have been replaced.");
  EXPECT_EQ(formatError([] { String(CStringFormat("%s")); }),
            "Not all placeholders have been replaced.");
}

TEST(StringFormatLaxTest, MarksProblemsInsteadOfThrowing) {
  EXPECT_EQ(u8(CStringFormatLax("a%")), "a?");
  EXPECT_EQ(u8(CStringFormatLax("%s%") << "v"), "v?");
  EXPECT_EQ(u8(CStringFormatLax("%d") << "x"), "?(x)");
  EXPECT_EQ(u8(CStringFormatLax("<%s>") << -5), "<?(-5)>");
  // The placeholder after a wrong value still takes the next one.
  EXPECT_EQ(u8(CStringFormatLax("%d,%s") << "x" << "y"), "?(x),y");
}

TEST(StringFormatLaxTest, CopiesBadPlaceholdersVerbatim) {
  EXPECT_EQ(u8(CStringFormatLax("%123d|%s") << "v"), "%123d|v");
  EXPECT_EQ(u8(CStringFormatLax("%q%s") << "v"), "%qv");
  EXPECT_EQ(u8(CStringFormatLax("%s %05") << "v"), "v %05");
}

TEST(StringFormatLaxTest, KeepsUnreplacedPlaceholdersAndSurplusValues) {
  EXPECT_EQ(u8(CStringFormatLax("%s and %05d %% end") << "a"), "a and %05d % end");
  EXPECT_EQ(u8(CStringFormatLax("%s%x")), "%s%x");
  EXPECT_EQ(u8(CStringFormatLax("x%s.") << "a" << "b" << 3), "xa.?(b, 3)");
  EXPECT_EQ(u8(CStringFormatLax("") << "only"), "?(only)");

  CStringFormatLax twice("%s,%s");
  twice << "a";
  EXPECT_EQ(u8(twice), "a,%s");
  EXPECT_EQ(u8(twice), "a,%s");
}

}  // namespace
}  // namespace zel
