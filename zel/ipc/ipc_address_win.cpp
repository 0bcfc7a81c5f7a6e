// Windows part of CIPCAddress: the process owner's SID string. The pipe
// server builds its security descriptor from the same text.
#include <mutex>
#include <string>
#include <vector>

#include "zel/core/error.h"
#include "zel/core/sys_error.h"
#include "zel/internal/win_include.h"
#include "zel/ipc/ipc_address.h"

#include <sddl.h>

namespace zel {

namespace {

[[noreturn]] void failUserID(const char* func) {
  const int64 code = static_cast<int64>(GetLastError());
  throwSysError(func, "CIPCAddress::getProcessUserID", code);
}

std::wstring readProcessUserSID() {
  HANDLE token = nullptr;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) failUserID("OpenProcessToken");
  DWORD size = 0;
  GetTokenInformation(token, TokenUser, nullptr, 0, &size);
  std::vector<unsigned char> buffer(size > 0 ? size : sizeof(TOKEN_USER));
  if (!GetTokenInformation(token, TokenUser, buffer.data(), static_cast<DWORD>(buffer.size()),
                           &size)) {
    CPreserveLastSysError preserve;
    CloseHandle(token);
    failUserID("GetTokenInformation");
  }
  CloseHandle(token);
  const auto* user = reinterpret_cast<const TOKEN_USER*>(buffer.data());
  wchar_t* text = nullptr;
  if (!ConvertSidToStringSidW(user->User.Sid, &text)) failUserID("ConvertSidToStringSidW");
  std::wstring result(text);
  LocalFree(text);
  return result;
}

}  // namespace

String CIPCAddress::getProcessUserID() {
  // The owner of a process never changes: ask once.
  static std::once_flag once;
  static std::wstring sid;
  std::call_once(once, [] { sid = readProcessUserSID(); });
  return String(sid);
}

void checkUnixSocketFolder(const String&, bool, bool) {
  throw CNotImplementedError("checkUnixSocketFolder");
}

String CIPCAddress::getUnixSocketPath(bool createFolder) const {
  if (createFolder) throw CNotImplementedError("CIPCAddress::getUnixSocketPath");
  return formatUnixSocketPath(chooseUnixSocketFolder(m_global, String(), getProcessUserID()));
}

}  // namespace zel
