#include "zel/path/time.h"

#include <gtest/gtest.h>

namespace zel {
namespace {

CTimeFields fields(int y, int mo, int d, int h, int mi, int s, int us) {
  CTimeFields f;
  f.year = y;
  f.month = mo;
  f.day = d;
  f.hour = h;
  f.minute = mi;
  f.second = s;
  f.microsecond = us;
  return f;
}

TEST(TimeTest, DefaultIsInvalid) {
  EXPECT_FALSE(CTime().isValid());
  EXPECT_EQ(CTime().getMicroseconds(), 0x7FFFFFFFFFFFFFFFll);
  EXPECT_EQ(CTime().toISOString(), "invalid");
  EXPECT_TRUE(CTime(0).isValid());
}

TEST(TimeTest, FieldsOfKnownInstants) {
  struct Case {
    int64 us;
    CTimeFields f;
    int dayOfWeek;
  } cases[] = {
      {0, fields(1970, 1, 1, 0, 0, 0, 0), 4},
      {-1, fields(1969, 12, 31, 23, 59, 59, 999999), 3},
      {951782400000000ll + 3723000004ll, fields(2000, 2, 29, 1, 2, 3, 4), 2},
      {-CTime::kFileTimeBaseOffset, fields(1601, 1, 1, 0, 0, 0, 0), 1},
      {4107542399999999ll, fields(2100, 2, 28, 23, 59, 59, 999999), 0},
  };
  for (const Case& c : cases) {
    CTimeFields f = CTime(c.us).toFields();
    CTimeFields expected = c.f;
    expected.dayOfWeek = c.dayOfWeek;
    EXPECT_EQ(f, expected) << c.us;
    EXPECT_EQ(CTime::fromFields(c.f).getMicroseconds(), c.us);
  }
}

TEST(TimeTest, FileTimeBaseLiesAtThe1601Epoch) {
  EXPECT_EQ(CTime::fromFileTime(0).getMicroseconds(), -11644473600000000ll);
  CTime t(1234567890123456ll);
  EXPECT_EQ(CTime::fromFileTime(t.toFileTime()), t);
  EXPECT_EQ(CTime(0).toFileTime(), 116444736000000000ll);
}

TEST(TimeTest, ArithmeticAndText) {
  CTime t = CTime::fromFields(fields(2026, 11, 21, 19, 55, 34, 123456));
  EXPECT_EQ(t.toISOString(), "2026-11-21T19:55:34.123456Z");
  CTime later = t + CTimeSpan::fromMilliseconds(1500);
  EXPECT_EQ((later - t).getMicroseconds(), 1500000);
  EXPECT_LT(t, later);
  EXPECT_EQ((later - CTimeSpan::fromSeconds(1)).toFields().second, 34);
  EXPECT_GT(CTime::now(), CTime::fromFields(fields(2020, 1, 1, 0, 0, 0, 0)));
}

}  // namespace
}  // namespace zel
