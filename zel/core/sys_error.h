// The calling thread's last system error, and throwing it as a CError.
//
// Windows: GetLastError/SetLastError codes, domain "sys", texts from
// FormatMessageW. Linux: errno values, domain "errno", texts from strerror_r.
// CError::sysErrorDomain() names the running platform's domain.
#pragma once

#include "zel/core/props.h"
#include "zel/core/string.h"
#include "zel/core/types.h"

namespace zel {

ZEL_API int64 getLastSysError();
ZEL_API void setLastSysError(int64 code);
// The system's text for a code, without trailing line breaks; a generic text
// naming the number when the system has none. Leaves the last error as it is.
ZEL_API String getSysErrorMessage(int64 code);

// Throws CError(getSysErrorMessage(code), CError::sysErrorDomain(), code,
// params).
[[noreturn]] ZEL_API void throwSysError(int64 code, const CProps& params);
// As above with the parameters "func" (the failing system function) and
// "action" (class and method, such as "CThread::start"). The default code is
// read when the call is made; arguments that convert text (char* literals
// into String) may run before it, so where that could disturb the last error
// read the code into a variable first.
[[noreturn]] ZEL_API void throwSysError(const String& func, const String& action,
                                        int64 code = getLastSysError());

// Saves the thread's last system error on construction and restores it on
// destruction, so that logging or clean-up in between does not hide the error
// a caller is about to read.
class ZEL_API CPreserveLastSysError {
 public:
  CPreserveLastSysError() : m_code(getLastSysError()) {}
  ~CPreserveLastSysError() { setLastSysError(m_code); }
  CPreserveLastSysError(const CPreserveLastSysError&) = delete;
  CPreserveLastSysError& operator=(const CPreserveLastSysError&) = delete;

  int64 getSavedCode() const { return m_code; }

 private:
  int64 m_code;
};

}  // namespace zel
