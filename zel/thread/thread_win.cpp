#include <process.h>

#include <cerrno>

#include "zel/core/error.h"
#include "zel/internal/win_include.h"
#include "zel/thread/thread_platform.h"

namespace zel::thread_platform {

namespace {

struct CStart {
  void (*entry)(void*);
  void* arg;
};

unsigned __stdcall trampoline(void* param) {
  CStart start = *static_cast<CStart*>(param);
  delete static_cast<CStart*>(param);
  start.entry(start.arg);
  return 0;
}

[[noreturn]] void throwThreadSysError(const char* func, const char* action) {
  int64 code = getLastSysError();
  CProps params;
  params.set("action", action);
  params.set("func", func);
  throwSysError(code, params);
}

// Closes a handle on every path, keeping the last error for the caller.
class CScopedHandle {
 public:
  explicit CScopedHandle(HANDLE handle) : m_handle(handle) {}
  ~CScopedHandle() {
    if (m_handle) {
      CPreserveLastSysError preserve;
      CloseHandle(m_handle);
    }
  }
  HANDLE get() const { return m_handle; }

 private:
  HANDLE m_handle;
};

}  // namespace

struct CNativeHandle {
  HANDLE handle;
};

CNativeHandle* startThread(void (*entry)(void*), void* arg, uint64& id, int& errnoValue,
                           int64& sysError) {
  auto* start = new CStart{entry, arg};
  unsigned threadID = 0;
  errno = 0;
  SetLastError(0);
  uintptr_t handle = _beginthreadex(nullptr, 0, &trampoline, start, 0, &threadID);
  if (handle == 0) {
    errnoValue = errno;
    sysError = static_cast<int64>(GetLastError());
    delete start;
    return nullptr;
  }
  id = threadID;
  return new CNativeHandle{reinterpret_cast<HANDLE>(handle)};
}

void waitForThread(CNativeHandle* handle) { WaitForSingleObject(handle->handle, INFINITE); }

bool hasThreadEnded(CNativeHandle* handle) {
  return WaitForSingleObject(handle->handle, 0) == WAIT_OBJECT_0;
}

void closeThreadHandle(CNativeHandle* handle) {
  CloseHandle(handle->handle);
  delete handle;
}

uint64 currentThreadID() { return GetCurrentThreadId(); }

bool isThreadAlive(uint64 id) {
  HANDLE thread = OpenThread(SYNCHRONIZE, FALSE, static_cast<DWORD>(id));
  if (!thread) {
    // An ID that names no thread any more is not an error here.
    if (GetLastError() == ERROR_INVALID_PARAMETER) return false;
    throwThreadSysError("OpenThread", "CThread::isThreadAlive");
  }
  CScopedHandle owner(thread);
  return WaitForSingleObject(thread, 0) == WAIT_TIMEOUT;
}

void killThread(uint64 id, int exitCode) {
  HANDLE thread = OpenThread(THREAD_TERMINATE, FALSE, static_cast<DWORD>(id));
  if (!thread) throwThreadSysError("OpenThread", "CThread::killThread");
  CScopedHandle owner(thread);
  if (!TerminateThread(thread, static_cast<DWORD>(exitCode))) {
    throwThreadSysError("TerminateThread", "CThread::killThread");
  }
}

void setThreadName(uint64 id, const String& name) {
  // SetThreadDescription exists from Windows 10 1607 on; older systems (and
  // some Wine versions) lack it, so it is looked up at run time.
  using SetThreadDescriptionFunc = HRESULT(WINAPI*)(HANDLE, PCWSTR);
  static const auto setDescription = reinterpret_cast<SetThreadDescriptionFunc>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"),
                                             "SetThreadDescription")));
  if (!setDescription) return;
  HANDLE thread = OpenThread(THREAD_SET_LIMITED_INFORMATION, FALSE, static_cast<DWORD>(id));
  if (!thread) return;
  CScopedHandle owner(thread);
  setDescription(thread, name.toWChar());
}

void sleepMs(unsigned ms) { SleepEx(ms, FALSE); }

}  // namespace zel::thread_platform
