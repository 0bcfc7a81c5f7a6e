// CTime, CTimeSpan and CTimeFields: the library's clock and calendar values.
//
// CTime is a signed 64-bit count of microseconds since 1970-01-01 00:00 UTC;
// the value 0x7FFFFFFFFFFFFFFF means "invalid". CTimeSpan is a signed 64-bit
// count of microseconds. Deadlines are computed on this clock.
#pragma once

#include "zel/core/string.h"

namespace zel {

class ZEL_API CTimeSpan {
 public:
  constexpr CTimeSpan() = default;
  constexpr explicit CTimeSpan(int64 microseconds) : m_us(microseconds) {}

  static constexpr CTimeSpan fromMilliseconds(int64 ms) { return CTimeSpan(ms * 1000); }
  static constexpr CTimeSpan fromSeconds(int64 s) { return CTimeSpan(s * 1000000); }

  constexpr int64 getMicroseconds() const { return m_us; }
  constexpr int64 getMilliseconds() const { return m_us / 1000; }
  constexpr int64 getSeconds() const { return m_us / 1000000; }

  constexpr CTimeSpan operator+(CTimeSpan o) const { return CTimeSpan(m_us + o.m_us); }
  constexpr CTimeSpan operator-(CTimeSpan o) const { return CTimeSpan(m_us - o.m_us); }
  constexpr CTimeSpan operator-() const { return CTimeSpan(-m_us); }
  constexpr auto operator<=>(const CTimeSpan&) const = default;

 private:
  int64 m_us = 0;
};

// A time broken down into calendar fields (proleptic Gregorian, UTC).
struct ZEL_API CTimeFields {
  int year = 1970;
  int month = 1;  // 1..12
  int day = 1;    // 1..31
  int hour = 0;
  int minute = 0;
  int second = 0;
  int microsecond = 0;
  int dayOfWeek = 4;  // 0 = Sunday; 1970-01-01 was a Thursday

  bool operator==(const CTimeFields&) const = default;
};

class ZEL_API CTime {
 public:
  static constexpr int64 kInvalid = 0x7FFFFFFFFFFFFFFFll;
  // Microseconds between 1601-01-01 (the Windows file-time base) and 1970.
  static constexpr int64 kFileTimeBaseOffset = 11644473600000000ll;

  constexpr CTime() = default;  // invalid
  constexpr explicit CTime(int64 microsecondsSince1970) : m_us(microsecondsSince1970) {}

  static CTime now();
  static CTime fromFields(const CTimeFields& fields);
  // Windows file times count 100-ns ticks since 1601-01-01 UTC.
  static constexpr CTime fromFileTime(int64 ticks) {
    return CTime(ticks / 10 - kFileTimeBaseOffset);
  }

  constexpr bool isValid() const { return m_us != kInvalid; }
  constexpr int64 getMicroseconds() const { return m_us; }
  constexpr int64 toFileTime() const { return (m_us + kFileTimeBaseOffset) * 10; }
  CTimeFields toFields() const;
  // "YYYY-MM-DDTHH:MM:SS.uuuuuuZ"; "invalid" for the invalid time.
  String toISOString() const;

  constexpr CTime operator+(CTimeSpan span) const { return CTime(m_us + span.getMicroseconds()); }
  constexpr CTime operator-(CTimeSpan span) const { return CTime(m_us - span.getMicroseconds()); }
  constexpr CTimeSpan operator-(CTime other) const { return CTimeSpan(m_us - other.m_us); }
  constexpr auto operator<=>(const CTime&) const = default;

 private:
  int64 m_us = kInvalid;
};

}  // namespace zel
