#include "zel/core/props.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "zel/core/error.h"

namespace zel {
namespace {

std::string u8(const String& s) { return s.toStdUTF8(); }

TEST(PropsTest, KeepsFirstInsertionOrderAndReplacesInPlace) {
  CProps props;
  EXPECT_TRUE(props.isEmpty());
  props.set("b", "1");
  props.set("a", "2");
  props.set("c", "3");
  props.set("b", "4");
  ASSERT_EQ(props.getCount(), 3);
  EXPECT_EQ(props.getKey(0), "b");
  EXPECT_EQ(props.getValue(0), "4");
  EXPECT_EQ(props.getKey(1), "a");
  EXPECT_TRUE(props.has("c"));
  EXPECT_FALSE(props.has("C"));
  EXPECT_EQ(props.get("a"), "2");
  EXPECT_EQ(props.get("missing", "dflt"), "dflt");
  EXPECT_TRUE(props.get("missing").isEmpty());

  EXPECT_TRUE(props.remove("a"));
  EXPECT_FALSE(props.remove("a"));
  EXPECT_EQ(props.getKey(1), "c");
  props.set("a", "5");
  EXPECT_EQ(props.getKey(2), "a");
  props.clear();
  EXPECT_EQ(props.getCount(), 0);
}

TEST(PropsTest, Int64Values) {
  CProps props;
  props.setInt64("min", std::numeric_limits<int64>::min());
  props.setInt64("max", std::numeric_limits<int64>::max());
  props.set("text", "12a");
  props.set("over", "9223372036854775808");
  props.set("under", "-9223372036854775809");
  props.set("sign", "-");
  props.set("empty", "");
  EXPECT_EQ(props.get("min"), "-9223372036854775808");
  EXPECT_EQ(props.getInt64("min", 0), std::numeric_limits<int64>::min());
  EXPECT_EQ(props.getInt64("max", 0), std::numeric_limits<int64>::max());
  for (const char* key : {"text", "over", "under", "sign", "empty", "missing"}) {
    EXPECT_EQ(props.getInt64(key, 77), 77) << key;
  }
}

TEST(PropsTest, TextFormQuotesAndEscapes) {
  EXPECT_EQ(u8(CProps().toString()), "");
  CProps props;
  props.set("key1", "value1");
  props.set("q\"b\\", "");
  EXPECT_EQ(u8(props.toString()), R"("key1"="value1","q\"b\\"="")");
}

TEST(PropsTest, TextFormRoundTripsAnyKeysAndValues) {
  CProps props;
  props.set("", "empty key");
  props.set("empty value", "");
  props.set("\"=\",\"", "\\\\\"");
  props.set("lines", "a\r\nb\n");
  props.set(String(L"nul\0inside", 10), String(L"\u00E9\u4E2D") + String::fromUTF8("\xF0\x9F\x98\x80"));
  const String text = props.toString();
  const CProps back = CProps::fromString(text);
  EXPECT_EQ(back, props);
  EXPECT_EQ(back.toString(), text);
  EXPECT_EQ(back.getKey(4).getLength(), 10);
}

TEST(PropsTest, FromStringRejectsMalformedTextNamingTheOffset) {
  struct Case {
    const char* text;
    int offset;
  } cases[] = {
      {R"(a"="b")", 0},                 // key without quotes
      {R"("a"="b)", 4},                 // value never closed
      {R"("a)", 0},                     // key never closed
      {R"("a""b")", 3},                 // no '='
      {R"("a"=b)", 4},                  // value without quotes
      {R"("a"="b""c"="d")", 7},         // no ','
      {R"("a"="b",)", 8},               // trailing comma
      {R"("a"="b" )", 7},               // trailing blank
      {R"( "a"="b")", 0},               // leading blank
      {R"("a"="b"x)", 7},               // trailing text
      {R"("a\n"="b")", 2},              // unknown escape
      {R"("a\)", 2},                    // escape at the end
      {R"("a"="b","a"="c")", 8},        // duplicate key
      {R"("a"="b",,"c"="d")", 8},       // empty entry
  };
  for (const Case& c : cases) {
    try {
      CProps::fromString(c.text);
      ADD_FAILURE() << "accepted " << c.text;
    } catch (const CParseError& e) {
      EXPECT_NE(u8(e.getMessage()).find("offset " + std::to_string(c.offset)), std::string::npos)
          << c.text << ": " << u8(e.getMessage());
      EXPECT_EQ(e.getParams().getInt64("offset", -1), c.offset) << c.text;
    }
  }
}

TEST(PropsTest, FromStringAcceptsTheEmptyText) {
  EXPECT_TRUE(CProps::fromString("").isEmpty());
  const CProps one = CProps::fromString(R"(""="")");
  ASSERT_EQ(one.getCount(), 1);
  EXPECT_TRUE(one.getKey(0).isEmpty());
}

}  // namespace
}  // namespace zel
