// POSIX calls that a signal can interrupt before they did anything.
#pragma once

#include <cerrno>

namespace zel {

// Calls call() again for as long as it fails with EINTR; returns its result.
template <class F>
auto retryEINTR(F&& call) -> decltype(call()) {
  decltype(call()) result;
  do {
    result = call();
  } while (result == -1 && errno == EINTR);
  return result;
}

}  // namespace zel
