// Windows named pipes: CWindowsPipeHandle, the pipe streams,
// CWindowsPipeConnection and CWindowsPipeServer.
#include <climits>
#include <memory>
#include <string>

#include "zel/core/error.h"
#include "zel/core/sys_error.h"
#include "zel/internal/win_include.h"
#include "zel/ipc/ipc_address.h"
#include "zel/ipc/pipe_client_open.h"
#include "zel/ipc/pipe_io_end.h"
#include "zel/ipc/windows_pipe.h"
#include "zel/core/mutex.h"

#include <sddl.h>

namespace zel {

namespace {

const wchar_t kPipePrefix[] = L"\\\\.\\pipe\\";

HANDLE toHandle(void* handle) { return static_cast<HANDLE>(handle); }

// Errors that mean the other end has gone (or this end was closed).
bool isEndOfConnection(DWORD code) {
  return code == ERROR_BROKEN_PIPE || code == ERROR_PIPE_NOT_CONNECTED || code == ERROR_NO_DATA ||
         code == ERROR_OPERATION_ABORTED;
}

HANDLE createManualResetEvent(const char* action) {
  HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (!event) throwSysError("CreateEvent", action);
  return event;
}

CError makeSysError(DWORD code, const char* func, const char* action, const String& name) {
  CProps params;
  params.set("func", func);
  params.set("action", action);
  params.set("pipeName", name);
  return CError(getSysErrorMessage(code), CError::sysErrorDomain(), code, params);
}

[[noreturn]] void throwWriteError(DWORD code, const char* func, const String& name) {
  CError cause = makeSysError(code, func, "CWindowsPipeConnection::write", name);
  CProps params;
  params.set("pipe", name);
  throw CIOError(CIOError::WriteFailed,
                 isEndOfConnection(code) ? String("The connection is closed") : String(), params,
                 &cause);
}

[[noreturn]] void throwClosedForWrite(const String& name) {
  CProps params;
  params.set("pipe", name);
  throw CIOError(CIOError::WriteFailed, "The connection is closed", params);
}

// Registers one use of a pipe handle for a scope.
class COperation {
 public:
  explicit COperation(CWindowsPipeHandle& pipe) : m_pipe(pipe), m_active(pipe.beginOperation()) {}
  ~COperation() {
    if (m_active) m_pipe.endOperation();
  }
  COperation(const COperation&) = delete;
  COperation& operator=(const COperation&) = delete;

  bool isActive() const { return m_active; }

 private:
  CWindowsPipeHandle& m_pipe;
  bool m_active;
};

// Steps of a normal wait: an operation's own state is looked at again after
// each, so an event that is not set cannot hold a read or write for ever.
constexpr DWORD kWaitStepMs = 1000;

bool operationEnded(const OVERLAPPED& ov) { return HasOverlappedIoCompleted(&ov); }

// One overlapped operation on a handle, for endPendingPipeIO.
class CPendingIO : public IPendingPipeIO {
 public:
  CPendingIO(HANDLE handle, OVERLAPPED& ov) : m_handle(handle), m_ov(ov) {}

  CancelOutcome cancel(int64& sysError) override {
    if (CancelIoEx(m_handle, &m_ov)) return CancelOutcome::Cancelled;
    const DWORD code = GetLastError();
    if (code == ERROR_NOT_FOUND) return CancelOutcome::NothingToCancel;
    sysError = code;
    return CancelOutcome::Failed;
  }
  bool hasEnded() override { return operationEnded(m_ov); }
  void waitEvent(int ms) override {
    if (WaitForSingleObject(m_ov.hEvent, static_cast<DWORD>(ms)) == WAIT_FAILED) {
      SleepEx(static_cast<DWORD>(ms), FALSE);
    }
  }
  CTime now() override { return CTime::now(); }

 protected:
  HANDLE handle() const { return m_handle; }

 private:
  HANDLE m_handle;
  OVERLAPPED& m_ov;
};

// A stream's operation: closing its handle goes through the shared owner.
class CStreamIO : public CPendingIO {
 public:
  CStreamIO(CWindowsPipeHandle& pipe, OVERLAPPED& ov)
      : CPendingIO(toHandle(pipe.getHandle()), ov), m_pipe(pipe) {}
  void closeHandle() override { m_pipe.closeNow(); }

 private:
  CWindowsPipeHandle& m_pipe;
};

// The outcome of waiting for one overlapped operation.
enum class WaitResult { Completed, Closed };

// Waits for the operation of ov or for the pipe's close. The operation's state
// decides, not its event: a signal left on the event by an earlier operation
// is cleared and waited past. On close the operation is cancelled and awaited
// without giving up (the buffer is the caller's), so that ov and the buffer
// are free when this returns.
WaitResult waitOverlapped(CWindowsPipeHandle& pipe, OVERLAPPED& ov) {
  HANDLE events[2] = {ov.hEvent, toHandle(pipe.getClosedEvent())};
  for (;;) {
    if (operationEnded(ov)) return WaitResult::Completed;
    const DWORD result = WaitForMultipleObjects(2, events, FALSE, kWaitStepMs);
    if (result == WAIT_OBJECT_0 + 1 || result == WAIT_FAILED) break;
    // Set, but not by this operation: an earlier one set it late.
    if (result == WAIT_OBJECT_0 && !operationEnded(ov)) ResetEvent(ov.hEvent);
  }
  CPreserveLastSysError preserve;
  CStreamIO io(pipe, ov);
  endPendingPipeIO(io, CPipeIOEndOptions{});
  return WaitResult::Closed;
}

}  // namespace

// ---------------------------------------------------------------------------
// CWindowsPipeHandle

struct CWindowsPipeHandle::CState {
  CMutex mutex;
  int active = 0;
  int halvesClosed = 0;
  bool closing = false;
  bool handleClosed = false;
};

CWindowsPipeHandle::CWindowsPipeHandle(void* handle, bool overlapped)
    : m_handle(handle), m_closedEvent(nullptr), m_overlapped(overlapped), m_state(nullptr) {
  m_closedEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (!m_closedEvent) {
    const int64 code = static_cast<int64>(GetLastError());
    CloseHandle(toHandle(handle));
    throwSysError("CreateEvent", "CWindowsPipeHandle constructor", code);
  }
  m_state = new CState;
}

CWindowsPipeHandle::~CWindowsPipeHandle() {
  if (!m_state->handleClosed) CloseHandle(toHandle(m_handle));
  CloseHandle(toHandle(m_closedEvent));
  delete m_state;
}

bool CWindowsPipeHandle::beginOperation() {
  CMutexLock lock(m_state->mutex);
  if (m_state->closing) return false;
  ++m_state->active;
  return true;
}

void CWindowsPipeHandle::endOperation() {
  CMutexLock lock(m_state->mutex);
  if (--m_state->active == 0 && m_state->closing && !m_state->handleClosed) {
    CloseHandle(toHandle(m_handle));
    m_state->handleClosed = true;
  }
}

void CWindowsPipeHandle::close() {
  CMutexLock lock(m_state->mutex);
  if (m_state->closing) return;
  m_state->closing = true;
  SetEvent(toHandle(m_closedEvent));
  if (m_state->active == 0) {
    CloseHandle(toHandle(m_handle));
    m_state->handleClosed = true;
  }
}

void CWindowsPipeHandle::closeNow() {
  CMutexLock lock(m_state->mutex);
  if (!m_state->closing) {
    m_state->closing = true;
    SetEvent(toHandle(m_closedEvent));
  }
  if (!m_state->handleClosed) {
    CloseHandle(toHandle(m_handle));
    m_state->handleClosed = true;
  }
}

void CWindowsPipeHandle::closeHalf() {
  bool both;
  {
    CMutexLock lock(m_state->mutex);
    both = ++m_state->halvesClosed >= 2;
  }
  if (both) close();
}

bool CWindowsPipeHandle::isClosing() const {
  CMutexLock lock(m_state->mutex);
  return m_state->closing;
}

// ---------------------------------------------------------------------------
// Streams

CWindowsPipeInStream_Async::CWindowsPipeInStream_Async(const P<CWindowsPipeHandle>& pipe,
                                                       const String& name)
    : m_pipe(pipe), m_name(name), m_event(createManualResetEvent("CWindowsPipeInStream_Async")) {}

CWindowsPipeInStream_Async::~CWindowsPipeInStream_Async() { CloseHandle(toHandle(m_event)); }

void CWindowsPipeInStream_Async::throwReadError(int64 code, const char* func) const {
  CError cause =
      makeSysError(static_cast<DWORD>(code), func, "CWindowsPipeConnection::read", m_name);
  CProps params;
  params.set("pipe", m_name);
  throw CIOError(CIOError::ReadFailed, String(), params, &cause);
}

int CWindowsPipeInStream_Async::readOverlapped(void* buffer, int bytes) {
  COperation operation(*m_pipe);
  if (!operation.isActive()) return 0;
  const HANDLE handle = toHandle(m_pipe->getHandle());
  for (;;) {
    OVERLAPPED ov{};
    ov.hEvent = toHandle(m_event);
    ResetEvent(ov.hEvent);
    DWORD got = 0;
    if (!ReadFile(handle, buffer, static_cast<DWORD>(bytes), nullptr, &ov)) {
      const DWORD code = GetLastError();
      if (isEndOfConnection(code)) return 0;
      if (code != ERROR_IO_PENDING) throwReadError(code, "ReadFile");
      if (waitOverlapped(*m_pipe, ov) == WaitResult::Closed) return 0;
    }
    if (!GetOverlappedResult(handle, &ov, &got, FALSE)) {
      const DWORD code = GetLastError();
      if (isEndOfConnection(code)) return 0;
      throwReadError(code, "GetOverlappedResult");
    }
    // A zero-byte write of the other end completes a read with nothing in
    // it; that is not the end of the connection.
    if (got > 0) return static_cast<int>(got);
  }
}

int CWindowsPipeInStream_Async::peekAvailable() const {
  COperation operation(*m_pipe);
  if (!operation.isActive()) return -1;
  DWORD available = 0;
  if (!PeekNamedPipe(toHandle(m_pipe->getHandle()), nullptr, 0, nullptr, &available, nullptr)) {
    const DWORD code = GetLastError();
    if (isEndOfConnection(code)) return -1;
    throwReadError(code, "PeekNamedPipe");
  }
  return available > INT_MAX ? INT_MAX : static_cast<int>(available);
}

int CWindowsPipeInStream_Async::receive(void* buffer, int bytes, bool wait) {
  if (!wait) {
    const int available = peekAvailable();
    if (available <= 0) return 0;
    if (bytes > available) bytes = available;
  }
  return readOverlapped(buffer, bytes);
}

CConnectionInStream::Readiness CWindowsPipeInStream_Async::pollReadable(int timeoutMs) const {
  const ULONGLONG start = GetTickCount64();
  DWORD step = 1;
  for (;;) {
    const int available = peekAvailable();
    if (available > 0) return DataReady;
    if (available < 0) return Ended;
    if (timeoutMs == 0) return NotReady;
    DWORD wait = step;
    if (timeoutMs > 0) {
      const ULONGLONG elapsed = GetTickCount64() - start;
      if (elapsed >= static_cast<ULONGLONG>(timeoutMs)) return NotReady;
      const ULONGLONG left = static_cast<ULONGLONG>(timeoutMs) - elapsed;
      if (left < wait) wait = static_cast<DWORD>(left);
    }
    // Wakes early when the connection is closed.
    WaitForSingleObject(toHandle(m_pipe->getClosedEvent()), wait);
    if (step < 10) step = step * 2 > 10 ? 10 : step * 2;
  }
}

void CWindowsPipeInStream_Async::closeTransport() { m_pipe->closeHalf(); }

CWindowsPipeOutStream_Async::CWindowsPipeOutStream_Async(const P<CWindowsPipeHandle>& pipe,
                                                         const String& name)
    : m_pipe(pipe), m_name(name), m_event(createManualResetEvent("CWindowsPipeOutStream_Async")) {}

CWindowsPipeOutStream_Async::~CWindowsPipeOutStream_Async() { CloseHandle(toHandle(m_event)); }

void CWindowsPipeOutStream_Async::send(const void* buffer, int bytes) {
  COperation operation(*m_pipe);
  if (!operation.isActive()) throwClosedForWrite(m_name);
  const HANDLE handle = toHandle(m_pipe->getHandle());
  const char* data = static_cast<const char*>(buffer);
  DWORD left = static_cast<DWORD>(bytes);
  while (left > 0) {
    OVERLAPPED ov{};
    ov.hEvent = toHandle(m_event);
    ResetEvent(ov.hEvent);
    DWORD put = 0;
    if (!WriteFile(handle, data, left, nullptr, &ov)) {
      const DWORD code = GetLastError();
      if (code != ERROR_IO_PENDING) throwWriteError(code, "WriteFile", m_name);
      if (waitOverlapped(*m_pipe, ov) == WaitResult::Closed) throwClosedForWrite(m_name);
    }
    if (!GetOverlappedResult(handle, &ov, &put, FALSE)) {
      throwWriteError(GetLastError(), "GetOverlappedResult", m_name);
    }
    data += put;
    left -= put;
  }
}

void CWindowsPipeOutStream_Async::closeTransport() { m_pipe->closeHalf(); }

CWindowsPipeOutStream_Sync::CWindowsPipeOutStream_Sync(const P<CWindowsPipeHandle>& pipe,
                                                       const String& name)
    : m_pipe(pipe), m_name(name) {}

CWindowsPipeOutStream_Sync::~CWindowsPipeOutStream_Sync() = default;

void CWindowsPipeOutStream_Sync::send(const void* buffer, int bytes) {
  COperation operation(*m_pipe);
  if (!operation.isActive()) throwClosedForWrite(m_name);
  const char* data = static_cast<const char*>(buffer);
  DWORD left = static_cast<DWORD>(bytes);
  while (left > 0) {
    DWORD put = 0;
    if (!WriteFile(toHandle(m_pipe->getHandle()), data, left, &put, nullptr)) {
      throwWriteError(GetLastError(), "WriteFile", m_name);
    }
    data += put;
    left -= put;
  }
}

void CWindowsPipeOutStream_Sync::closeTransport() { m_pipe->closeHalf(); }

// ---------------------------------------------------------------------------
// CWindowsPipeConnection

namespace {

class CCreateFileSteps : public IPipeOpenSteps {
 public:
  explicit CCreateFileSteps(const String& path) : m_path(path.toStdWString()) {}
  ~CCreateFileSteps() override {
    if (m_handle != INVALID_HANDLE_VALUE) CloseHandle(m_handle);
  }

  Outcome tryOpen(int64& sysError) override {
    m_handle = CreateFileW(m_path.c_str(), GENERIC_READ | GENERIC_WRITE,
                           FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                           FILE_FLAG_OVERLAPPED | FILE_ATTRIBUTE_NORMAL, nullptr);
    if (m_handle != INVALID_HANDLE_VALUE) return Outcome::Opened;
    const DWORD code = GetLastError();
    if (code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND) return Outcome::NotFound;
    if (code == ERROR_PIPE_BUSY) return Outcome::Busy;
    sysError = code;
    return Outcome::Failed;
  }

  bool waitForServer(int ms) override {
    return WaitNamedPipeW(m_path.c_str(), static_cast<DWORD>(ms)) != 0;
  }
  void sleep(int ms) override { SleepEx(static_cast<DWORD>(ms), FALSE); }
  CTime now() override { return CTime::now(); }
  String getOpenFunctionName() const override { return "CreateFile"; }

  HANDLE takeHandle() {
    HANDLE handle = m_handle;
    m_handle = INVALID_HANDLE_VALUE;
    return handle;
  }

 private:
  std::wstring m_path;
  HANDLE m_handle = INVALID_HANDLE_VALUE;
};

const char kConstructorAction[] = "CWindowsPipeConnection constructor";

}  // namespace

P<CWindowsPipeConnection> CWindowsPipeConnection::connectIfServerAvailable(const String& name,
                                                                           int timeoutMs) {
  const String path = kPipePrefix + name;
  CCreateFileSteps steps(path);
  if (!doOpenPipe(steps, path, false, timeoutMs, timeoutMs, kConstructorAction)) return nullptr;
  return createObject<CWindowsPipeConnection>(
      createObject<CWindowsPipeHandle>(steps.takeHandle(), true), name, false);
}

CWindowsPipeConnection::CWindowsPipeConnection(const String& name, int notFoundTimeoutMs,
                                               int busyTimeoutMs)
    : m_name(name) {
  const String path = kPipePrefix + name;
  CCreateFileSteps steps(path);
  doOpenPipe(steps, path, true, notFoundTimeoutMs, busyTimeoutMs, kConstructorAction);
  init(createObject<CWindowsPipeHandle>(steps.takeHandle(), true));
}

CWindowsPipeConnection::CWindowsPipeConnection(const P<CWindowsPipeHandle>& pipe,
                                               const String& name, bool serverEnd)
    : m_name(name), m_serverEnd(serverEnd) {
  init(pipe);
}

void CWindowsPipeConnection::init(const P<CWindowsPipeHandle>& pipe) {
  m_pipe = pipe;
  m_in = createObject<CWindowsPipeInStream_Async>(pipe, m_name);
  m_out = createObject<CWindowsPipeOutStream_Async>(pipe, m_name);
}

CWindowsPipeConnection::~CWindowsPipeConnection() { close(); }

P<IInStream> CWindowsPipeConnection::getInStream() { return m_in; }

P<IOutStream> CWindowsPipeConnection::getOutStream() { return m_out; }

void CWindowsPipeConnection::close() { m_pipe->close(); }

int64 CWindowsPipeConnection::getPeerProcessID() {
  const char* func =
      m_serverEnd ? "GetNamedPipeClientProcessId" : "GetNamedPipeServerProcessId";
  COperation operation(*m_pipe);
  ULONG processID = 0;
  BOOL ok = FALSE;
  DWORD code = ERROR_PIPE_NOT_CONNECTED;
  if (operation.isActive()) {
    const HANDLE handle = toHandle(m_pipe->getHandle());
    ok = m_serverEnd ? GetNamedPipeClientProcessId(handle, &processID)
                     : GetNamedPipeServerProcessId(handle, &processID);
    if (!ok) code = GetLastError();
  }
  if (!ok) {
    CProps params;
    params.set("func", func);
    params.set("action", "CWindowsPipeConnection::getPeerProcessID");
    params.setInt64("handle", static_cast<int64>(reinterpret_cast<intptr_t>(m_pipe->getHandle())));
    throwSysError(code, params);
  }
  return processID;
}

// ---------------------------------------------------------------------------
// CWindowsPipeServer

namespace {

// One overlapped ConnectNamedPipe: its OVERLAPPED and its own event. Shared,
// because tryAcceptConnection waits on the event without the lock while
// abortAcceptConnection may discard the instance; and on the heap, because a
// connect that never ends is left alone for good rather than reused.
struct CConnectOp {
  OVERLAPPED ov{};

  CConnectOp() { ov.hEvent = createManualResetEvent("CWindowsPipeServer::beginAcceptConnection"); }
  ~CConnectOp() { CloseHandle(ov.hEvent); }
  CConnectOp(const CConnectOp&) = delete;
  CConnectOp& operator=(const CConnectOp&) = delete;
};

// The pending connect of an instance being discarded; closing the handle
// ends the connect.
class CConnectIO : public CPendingIO {
 public:
  CConnectIO(HANDLE instance, CConnectOp& op) : CPendingIO(instance, op.ov) {}
  void closeHandle() override { CloseHandle(handle()); }
};

// How long a discarded connect may take to end after its cancel before its
// handle is closed, and before it is given up.
constexpr CPipeIOEndOptions kDiscardOptions{50, 2000, 10000};

}  // namespace

struct CWindowsPipeServer::CState {
  CMutex mutex;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  SECURITY_ATTRIBUTES attributes{};
  HANDLE instance = nullptr;
  // The connect of instance; it is still running while pending is set.
  std::shared_ptr<CConnectOp> connect;
  HANDLE abortEvent = nullptr;
  bool pending = false;
  bool aborted = false;

  ~CState() {
    if (abortEvent) CloseHandle(abortEvent);
    if (descriptor) LocalFree(descriptor);
  }
};

namespace {

[[noreturn]] void throwServerError(DWORD code, const char* func, const char* action,
                                   const String& name, const String& path) {
  CProps params;
  params.set("func", func);
  params.set("action", action);
  params.set("pipeName", name);
  params.set("pipePath", path);
  throwSysError(code, params);
}

enum class ConnectWait { Connected, TimedOut, Aborted, Failed };

// Waits up to timeoutMs (-1: no limit) for op's connect or the abort event.
// The connect's own state decides, looked at again after every step.
ConnectWait waitForConnect(const CConnectOp& op, HANDLE abortEvent, int timeoutMs) {
  HANDLE events[2] = {op.ov.hEvent, abortEvent};
  const ULONGLONG start = GetTickCount64();
  for (;;) {
    if (operationEnded(op.ov)) return ConnectWait::Connected;
    DWORD step = kWaitStepMs;
    if (timeoutMs >= 0) {
      const ULONGLONG elapsed = GetTickCount64() - start;
      if (elapsed >= static_cast<ULONGLONG>(timeoutMs)) return ConnectWait::TimedOut;
      const ULONGLONG left = static_cast<ULONGLONG>(timeoutMs) - elapsed;
      if (left < step) step = static_cast<DWORD>(left);
    }
    const DWORD result = WaitForMultipleObjects(2, events, FALSE, step);
    if (result == WAIT_OBJECT_0 + 1) return ConnectWait::Aborted;
    if (result == WAIT_FAILED) return ConnectWait::Failed;
  }
}

}  // namespace

CWindowsPipeServer::CWindowsPipeServer(const String& name, bool global)
    : m_pipeName(name), m_pipePath(kPipePrefix + name), m_global(global), m_state(new CState) {
  const char* action = "CWindowsPipeServer constructor";
  try {
    const String sid = CIPCAddress::getProcessUserID();
    String sddl = L"D:P(A;;GA;;;" + sid + L")";
    if (global) sddl += L"(A;;0x12019b;;;WD)";
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(
            sddl.toStdWString().c_str(), SDDL_REVISION_1, &m_state->descriptor, nullptr)) {
      throwServerError(GetLastError(), "ConvertStringSecurityDescriptorToSecurityDescriptor",
                       action, m_pipeName, m_pipePath);
    }
    m_state->attributes.nLength = sizeof(SECURITY_ATTRIBUTES);
    m_state->attributes.lpSecurityDescriptor = m_state->descriptor;
    m_state->attributes.bInheritHandle = FALSE;
    m_state->abortEvent = createManualResetEvent(action);
  } catch (...) {
    delete m_state;
    throw;
  }
}

CWindowsPipeServer::~CWindowsPipeServer() {
  {
    CMutexLock lock(m_state->mutex);
    try {
      discardInstance("CWindowsPipeServer destructor");
    } catch (const CError&) {
      // The instance is closed in any case.
    }
  }
  delete m_state;
}

void CWindowsPipeServer::discardInstance(const char* action) {
  CState& state = *m_state;
  if (!state.instance) return;
  const HANDLE instance = state.instance;
  std::shared_ptr<CConnectOp> connect = std::move(state.connect);
  const bool pending = state.pending;
  state.instance = nullptr;
  state.pending = false;
  CPipeIOEndResult ended;
  if (pending) {
    // The OVERLAPPED may be written and its event set until the connect has
    // ended, even after a failed cancel.
    CConnectIO io(instance, *connect);
    ended = endPendingPipeIO(io, kDiscardOptions);
    if (!ended.ended) {
      // Still running after all this: the system may write into it at any
      // time, so it is never freed.
      new std::shared_ptr<CConnectOp>(std::move(connect));
    }
  }
  if (!ended.handleClosed) CloseHandle(instance);
  if (ended.cancelError != 0) {
    throwServerError(static_cast<DWORD>(ended.cancelError), "CancelIoEx", action, m_pipeName,
                     m_pipePath);
  }
}

void CWindowsPipeServer::beginAcceptConnection() {
  const char* action = "CWindowsPipeServer::beginAcceptConnection";
  CState& state = *m_state;
  CMutexLock lock(state.mutex);
  discardInstance(action);
  state.aborted = false;
  ResetEvent(state.abortEvent);
  std::shared_ptr<CConnectOp> connect = std::make_shared<CConnectOp>();
  const HANDLE instance = CreateNamedPipeW(
      m_pipePath.toStdWString().c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
      PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT, PIPE_UNLIMITED_INSTANCES, 4000, 4000, 10000,
      &state.attributes);
  if (instance == INVALID_HANDLE_VALUE) {
    throwServerError(GetLastError(), "CreateNamedPipe", action, m_pipeName, m_pipePath);
  }
  bool pending = false;
  if (!ConnectNamedPipe(instance, &connect->ov)) {
    const DWORD code = GetLastError();
    if (code == ERROR_IO_PENDING) {
      pending = true;
    } else if (code != ERROR_PIPE_CONNECTED) {
      // The connect did not start: nothing can write into its OVERLAPPED.
      CloseHandle(instance);
      throwServerError(code, "ConnectNamedPipe", action, m_pipeName, m_pipePath);
    }
  }
  state.instance = instance;
  state.connect = std::move(connect);
  state.pending = pending;
}

P<CWindowsPipeConnection> CWindowsPipeServer::tryAcceptConnection(int timeoutMs) {
  const char* action = "CWindowsPipeServer::tryAcceptConnection";
  CState& state = *m_state;
  CMutexLock lock(state.mutex);
  if (!state.instance) {
    if (state.aborted) return nullptr;
    CProps params;
    params.set("pipeName", m_pipeName);
    throw CBadStateError("tryAcceptConnection without beginAcceptConnection", params);
  }
  if (state.pending) {
    // Kept alive across the wait: an abort meanwhile discards the instance.
    const std::shared_ptr<CConnectOp> connect = state.connect;
    ConnectWait result;
    DWORD code = 0;
    {
      // abortAcceptConnection takes the lock while this waits.
      CMutexUnlock unlock(state.mutex);
      result = waitForConnect(*connect, state.abortEvent, timeoutMs);
      if (result == ConnectWait::Failed) code = GetLastError();
    }
    if (result == ConnectWait::Failed) {
      throwServerError(code, "WaitForMultipleObjects", action, m_pipeName, m_pipePath);
    }
    if (result != ConnectWait::Connected || state.connect != connect) return nullptr;
    DWORD ignored = 0;
    if (!GetOverlappedResult(state.instance, &connect->ov, &ignored, FALSE)) {
      const DWORD failure = GetLastError();
      if (failure != ERROR_PIPE_CONNECTED) {
        // The connect has ended (failed): instance and OVERLAPPED are free.
        CloseHandle(state.instance);
        state.instance = nullptr;
        state.connect.reset();
        state.pending = false;
        throwServerError(failure, "GetOverlappedResult", action, m_pipeName, m_pipePath);
      }
    }
  }
  const HANDLE instance = state.instance;
  state.instance = nullptr;
  state.connect.reset();
  state.pending = false;
  return createObject<CWindowsPipeConnection>(createObject<CWindowsPipeHandle>(instance, true),
                                              m_pipeName, true);
}

void CWindowsPipeServer::abortAcceptConnection() {
  CState& state = *m_state;
  CMutexLock lock(state.mutex);
  state.aborted = true;
  SetEvent(state.abortEvent);
  // This action text is matched by callers as it stands, spelling included.
  discardInstance("CWindowsPipeServer::abortAccessConnection");
}

}  // namespace zel
