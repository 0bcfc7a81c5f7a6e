// Linux: the last system error is errno; texts come from strerror_r.
#include <cerrno>
#include <climits>
#include <cstring>

#include "zel/core/sys_error.h"

namespace zel {

namespace {

// glibc offers the GNU strerror_r (returns the text, which may or may not be
// in buf) or the XSI one (returns 0 on success) depending on feature macros;
// overloads accept either.
[[maybe_unused]] const char* strerrorResult(const char* text, const char*) { return text; }
[[maybe_unused]] const char* strerrorResult(int result, const char* buf) {
  return result == 0 ? buf : nullptr;
}

}  // namespace

int64 getLastSysError() { return errno; }

void setLastSysError(int64 code) { errno = static_cast<int>(code); }

String getSysErrorMessage(int64 code) {
  const int saved = errno;
  String message;
  if (code >= INT_MIN && code <= INT_MAX) {
    char buf[256] = {};
    const char* text = strerrorResult(strerror_r(static_cast<int>(code), buf, sizeof(buf)), buf);
    if (text && *text) message = String::fromCP(text);
  }
  if (message.isEmpty()) message = String("Unknown error ") + String::fromInt64(code);
  errno = saved;
  return message;
}

}  // namespace zel
