// Windows named pipes: CWindowsPipeConnection (one end of a connection) and
// CWindowsPipeServer (hands out one server-end connection per client). Pipe
// names are those of CIPCAddress::getWindowsPipeName; the path opened or
// created is "\\.\pipe\" + name.
//
// Connection:
//   - connectIfServerAvailable(name, timeoutMs): null at once when no server
//     has created the pipe; a busy pipe (all instances taken) is retried until
//     timeoutMs has passed. The connecting constructor also waits up to
//     notFoundTimeoutMs for the pipe to appear. Both follow the open loop of
//     pipe_client_open.h with CreateFileW (GENERIC_READ | GENERIC_WRITE,
//     overlapped) and WaitNamedPipeW; their errors name the action
//     "CWindowsPipeConnection constructor".
//   - The streams of an overlapped pipe, CWindowsPipeInStream_Async and
//     CWindowsPipeOutStream_Async, start one overlapped operation at a time
//     and wait for it; a wait given up (the connection was closed) cancels the
//     operation with CancelIoEx and waits for it to end before returning
//     (pipe_io_end.h), closing the handle should the cancel not end it.
//     CWindowsPipeOutStream_Sync writes to a pipe handle opened without
//     FILE_FLAG_OVERLAPPED (for example an anonymous pipe).
//   - No OVERLAPPED structure, event or buffer is reused or freed before its
//     operation has ended. Waits look at the operation's own state again
//     every second, so an event that is never set cannot hold them.
//   - ERROR_BROKEN_PIPE and ERROR_PIPE_NOT_CONNECTED end a read (0 bytes);
//     writes to a closed or vanished end throw CIOError WriteFailed with the
//     system error as cause. Other read failures throw CIOError ReadFailed.
//   - Windows pipes offer no readiness wait: waitReadable / isEndOfStream
//     look with PeekNamedPipe, every few milliseconds (at most 10) until the
//     time-out; close() ends such a wait at once.
//   - close() (from any thread) ends the connection: waits of this end's
//     streams end at once (a read reports the end of the connection, a write
//     throws CIOError), and the handle is closed as soon as no operation uses
//     it any more, so that the other end sees the end promptly. Closing one
//     stream alone only ends that stream; the handle is closed when both are
//     closed.
//   - getPeerProcessID: GetNamedPipeServerProcessId on a client end,
//     GetNamedPipeClientProcessId on a server end; failures raise with action
//     "CWindowsPipeConnection::getPeerProcessID" and property "handle".
//
// Server (driven by one accepting thread; abortAcceptConnection may come
// from any thread):
//   - The constructor builds the security descriptor given to every pipe
//     instance: per-user pipes allow only the process owner's SID
//     ("D:P(A;;GA;;;<SID>)"); global pipes also let everyone ("WD") read and
//     write, but not create instances of the pipe
//     ("D:P(A;;GA;;;<SID>)(A;;0x12019b;;;WD)": FILE_GENERIC_READ and
//     FILE_GENERIC_WRITE less FILE_CREATE_PIPE_INSTANCE).
//   - beginAcceptConnection: CreateNamedPipeW (duplex, overlapped, byte mode,
//     unlimited instances, 4000-byte buffers, 10000 ms default time-out) and
//     an overlapped ConnectNamedPipe. A previous instance that no client took
//     is closed first.
//   - tryAcceptConnection(timeoutMs): waits up to timeoutMs (-1: no limit)
//     for the pending connect; null on time-out (the instance keeps waiting)
//     or after abortAcceptConnection; otherwise the server-end connection,
//     after which the next client needs another beginAcceptConnection.
//     Without an instance it throws CBadStateError, except right after an
//     abort, when it returns null.
//   - abortAcceptConnection: cancels the pending connect, closes the instance
//     and wakes a waiting tryAcceptConnection.
//   - Discarding an instance (abort, the next begin, the destructor) awaits
//     the end of its pending connect, after a failed CancelIoEx as well
//     (the instance is closed at once then, and the CancelIoEx error is
//     thrown afterwards). Each connect has an OVERLAPPED and event of its
//     own; one that has not ended after 10 s is left alone (leaked), never
//     reused.
#pragma once

#include "zel/core/base.h"
#include "zel/core/export.h"
#include "zel/core/string.h"
#include "zel/core/types.h"
#include "zel/ipc/connection.h"
#include "zel/ipc/connection_stream.h"

namespace zel {

// Owner of one pipe handle, shared by a connection and its streams.
// Operations register while they use the handle; close() wakes their waits,
// and the handle is closed when the last one has finished (or at once when
// none runs). Thread-safe.
class ZEL_API CWindowsPipeHandle : public CBase {
 public:
  // Takes ownership of handle (a HANDLE value).
  CWindowsPipeHandle(void* handle, bool overlapped);
  ~CWindowsPipeHandle() override;
  CWindowsPipeHandle(const CWindowsPipeHandle&) = delete;
  CWindowsPipeHandle& operator=(const CWindowsPipeHandle&) = delete;

  void* getHandle() const { return m_handle; }
  bool isOverlapped() const { return m_overlapped; }
  // The manual-reset event that close() sets (a HANDLE value).
  void* getClosedEvent() const { return m_closedEvent; }

  // False once the handle is closing; otherwise the caller may use the
  // handle until endOperation().
  bool beginOperation();
  void endOperation();
  void close();
  // Closes the handle at once, even while operations use it: for an
  // operation that outlasts its cancel (closing ends it). Their later calls
  // on the handle fail.
  void closeNow();
  // A stream's close: the handle is closed once both streams have closed.
  void closeHalf();
  bool isClosing() const;

 private:
  void* m_handle;
  void* m_closedEvent;
  bool m_overlapped;
  struct CState;
  CState* m_state;
};

class ZEL_API CWindowsPipeInStream_Async : public CConnectionInStream {
 public:
  CWindowsPipeInStream_Async(const P<CWindowsPipeHandle>& pipe, const String& name);
  ~CWindowsPipeInStream_Async() override;

 protected:
  int receive(void* buffer, int bytes, bool wait) override;
  Readiness pollReadable(int timeoutMs) const override;
  void closeTransport() override;

 private:
  // Reads with one overlapped operation; 0 at the end of the connection.
  int readOverlapped(void* buffer, int bytes);
  // Bytes waiting in the pipe, or -1 at the end of the connection.
  int peekAvailable() const;
  [[noreturn]] void throwReadError(int64 code, const char* func) const;

  P<CWindowsPipeHandle> m_pipe;
  String m_name;
  void* m_event;
};

class ZEL_API CWindowsPipeOutStream_Async : public CConnectionOutStream {
 public:
  CWindowsPipeOutStream_Async(const P<CWindowsPipeHandle>& pipe, const String& name);
  ~CWindowsPipeOutStream_Async() override;

 protected:
  void send(const void* buffer, int bytes) override;
  void closeTransport() override;

 private:
  P<CWindowsPipeHandle> m_pipe;
  String m_name;
  void* m_event;
};

class ZEL_API CWindowsPipeOutStream_Sync : public CConnectionOutStream {
 public:
  CWindowsPipeOutStream_Sync(const P<CWindowsPipeHandle>& pipe, const String& name);
  ~CWindowsPipeOutStream_Sync() override;

 protected:
  void send(const void* buffer, int bytes) override;
  void closeTransport() override;

 private:
  P<CWindowsPipeHandle> m_pipe;
  String m_name;
};

class ZEL_API CWindowsPipeConnection : public CBase, public IConnection {
 public:
  static P<CWindowsPipeConnection> connectIfServerAvailable(const String& name, int timeoutMs);
  CWindowsPipeConnection(const String& name, int notFoundTimeoutMs, int busyTimeoutMs);
  // Wraps an open overlapped pipe handle (used by the server and
  // connectIfServerAvailable).
  CWindowsPipeConnection(const P<CWindowsPipeHandle>& pipe, const String& name, bool serverEnd);
  ~CWindowsPipeConnection() override;
  CWindowsPipeConnection(const CWindowsPipeConnection&) = delete;
  CWindowsPipeConnection& operator=(const CWindowsPipeConnection&) = delete;

  P<IInStream> getInStream() override;
  P<IOutStream> getOutStream() override;
  void close() override;
  int64 getPeerProcessID() override;

  const String& getName() const { return m_name; }
  bool isServerEnd() const { return m_serverEnd; }

 private:
  void init(const P<CWindowsPipeHandle>& pipe);

  String m_name;
  bool m_serverEnd = false;
  P<CWindowsPipeHandle> m_pipe;
  P<CWindowsPipeInStream_Async> m_in;
  P<CWindowsPipeOutStream_Async> m_out;
};

class ZEL_API CWindowsPipeServer : public CBase {
 public:
  CWindowsPipeServer(const String& name, bool global);
  ~CWindowsPipeServer() override;
  CWindowsPipeServer(const CWindowsPipeServer&) = delete;
  CWindowsPipeServer& operator=(const CWindowsPipeServer&) = delete;

  void beginAcceptConnection();
  P<CWindowsPipeConnection> tryAcceptConnection(int timeoutMs);
  void abortAcceptConnection();

  const String& getPipeName() const { return m_pipeName; }
  const String& getPipePath() const { return m_pipePath; }

 private:
  struct CState;
  // Cancels a pending connect and closes the waiting instance; under the
  // state lock.
  void discardInstance(const char* action);

  String m_pipeName;
  String m_pipePath;
  bool m_global;
  CState* m_state;
};

}  // namespace zel
