// Windows: the last system error is GetLastError(); texts come from
// FormatMessageW in the user's language.
#include "zel/internal/win_include.h"

#include "zel/core/sys_error.h"

namespace zel {

int64 getLastSysError() { return static_cast<int64>(::GetLastError()); }

void setLastSysError(int64 code) { ::SetLastError(static_cast<DWORD>(code)); }

String getSysErrorMessage(int64 code) {
  const DWORD saved = ::GetLastError();
  String message;
  if (code >= 0 && code <= 0xFFFFFFFFLL) {
    wchar_t* buffer = nullptr;
    const DWORD length = ::FormatMessageW(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
        nullptr, static_cast<DWORD>(code), 0, reinterpret_cast<LPWSTR>(&buffer), 0, nullptr);
    if (length > 0 && buffer) {
      DWORD end = length;
      // System texts end with "\r\n" (some with a blank before it).
      while (end > 0 && (buffer[end - 1] == L'\r' || buffer[end - 1] == L'\n' ||
                         buffer[end - 1] == L' ')) {
        --end;
      }
      message = String(buffer, end);
    }
    if (buffer) ::LocalFree(buffer);
  }
  if (message.isEmpty()) message = String("Unknown error ") + String::fromInt64(code);
  ::SetLastError(saved);
  return message;
}

}  // namespace zel
