#include "zel/path/time.h"

#include <chrono>
#include <cstdio>

namespace zel {

namespace {

constexpr int64 kMicrosPerDay = 86400ll * 1000000;

// Days since 1970-01-01 of a proleptic Gregorian date, and back (Howard
// Hinnant's civil calendar algorithms; exact for every int64 day count the
// microsecond range can reach).
int64 daysFromCivil(int64 y, int m, int d) {
  y -= m <= 2;
  const int64 era = (y >= 0 ? y : y - 399) / 400;
  const int64 yoe = y - era * 400;
  const int64 doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int64 doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

void civilFromDays(int64 z, int64& y, int& m, int& d) {
  z += 719468;
  const int64 era = (z >= 0 ? z : z - 146096) / 146097;
  const int64 doe = z - era * 146097;
  const int64 yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64 doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64 mp = (5 * doy + 2) / 153;
  d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  y = yoe + era * 400 + (m <= 2);
}

}  // namespace

CTime CTime::now() {
  auto since = std::chrono::system_clock::now().time_since_epoch();
  return CTime(std::chrono::duration_cast<std::chrono::microseconds>(since).count());
}

CTimeFields CTime::toFields() const {
  int64 days = m_us / kMicrosPerDay;
  int64 rest = m_us % kMicrosPerDay;
  if (rest < 0) {
    rest += kMicrosPerDay;
    --days;
  }
  CTimeFields f;
  int64 year;
  civilFromDays(days, year, f.month, f.day);
  f.year = static_cast<int>(year);
  f.microsecond = static_cast<int>(rest % 1000000);
  int64 secs = rest / 1000000;
  f.second = static_cast<int>(secs % 60);
  f.minute = static_cast<int>(secs / 60 % 60);
  f.hour = static_cast<int>(secs / 3600);
  f.dayOfWeek = static_cast<int>(((days % 7) + 11) % 7);  // day 0 was a Thursday (4)
  return f;
}

CTime CTime::fromFields(const CTimeFields& f) {
  int64 days = daysFromCivil(f.year, f.month, f.day);
  int64 secs = ((days * 24 + f.hour) * 60 + f.minute) * 60 + f.second;
  return CTime(secs * 1000000 + f.microsecond);
}

String CTime::toISOString() const {
  if (!isValid()) return String("invalid");
  CTimeFields f = toFields();
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%06dZ", f.year, f.month, f.day,
                f.hour, f.minute, f.second, f.microsecond);
  return String(text);
}

}  // namespace zel
