// CUnixSocketConnection and CUnixSocketServer: local connections over Unix
// domain stream sockets, the Linux counterparts of CWindowsPipeConnection and
// CWindowsPipeServer with the same operations, time-outs and messages. A
// socket is named by its path (CIPCAddress::getUnixSocketPath).
//
// Connection:
//   - connectIfServerAvailable(path, timeoutMs): null at once when no server
//     listens there (no socket file, or a stale file whose server is gone:
//     ECONNREFUSED); a server with a full backlog (EAGAIN) is retried until
//     timeoutMs has passed (see pipe_client_open.h, at least five attempts).
//   - The connecting constructor: the same loop, also waiting for a missing
//     server up to notFoundTimeoutMs; raises its time-out error
//     ("pipe client connection attempts timed out") or the system error of
//     connect ("func" "connect", "pipe").
//   - Reads end (0 bytes) when the other end has closed, shut down or died
//     (ECONNRESET included); writes to such an end throw CIOError
//     WriteFailed with the system error as cause; writes never raise
//     SIGPIPE (MSG_NOSIGNAL). Interrupted calls (EINTR) are retried.
//   - close() shuts the socket down in both directions: the other end's
//     reads end at once, a read of this end blocked in another thread
//     returns (its stream then reports the end of the connection: reads give
//     0 bytes, writes throw CIOError). The descriptor itself is closed when
//     the connection and both streams are gone, so that no other thread can
//     ever act on a reused descriptor number.
//   - Closing only the in-stream shuts down reading (the other end's writes
//     then fail), closing only the out-stream shuts down writing (the other
//     end's reads end).
//   - Bulk transfers: every connection asks for a send buffer of
//     kSendBufferBytes (the system caps it at net.core.wmem_max), and after
//     a send of kBulkSendBytes or more the next blocking read waits in poll
//     for data first; both spare wake-ups (see unix_socket_posix.cpp).
//   - getPeerProcessID: SO_PEERCRED, the process that connected or listened;
//     failures raise with action "CUnixSocketConnection::getPeerProcessID"
//     and property "handle" (the descriptor).
//
// Server (driven by one accepting thread; abortAcceptConnection may come
// from any thread):
//   - The constructor binds and listens. A socket file already at the path is
//     probed with a connect: a live server there (connect succeeds or the
//     backlog is full) is never disturbed and the constructor throws CError
//     EADDRINUSE ("The IPC address is in use by a running server"); a stale
//     file (ECONNREFUSED) is removed and replaced. Any other kind of file
//     there is refused (EEXIST). Probe, removal, bind and listen happen under
//     an exclusive flock on the socket folder, so that two servers starting
//     at once can never remove each other's live socket.
//   - The socket file gets mode 0600 (per-user) or 0666 (global), set after
//     bind whatever the umask (the per-user folder is 0700 in any case).
//   - beginAcceptConnection / tryAcceptConnection(timeoutMs) /
//     abortAcceptConnection follow the Windows server's states: begin marks
//     the server as accepting; tryAccept waits up to timeoutMs (-1: no limit)
//     and returns the connection or null (time-out, or aborted); after a
//     returned connection the next client needs another begin. tryAccept
//     without begin throws CBadStateError, except right after an abort, when
//     it returns null. Clients that connect before begin wait in the listen
//     backlog.
//   - A per-user server accepts only peers of its own user (SO_PEERCRED uid
//     = our effective uid): a connection from another user is closed and
//     tryAccept throws CError EACCES ("Refused an IPC connection from another
//     user") for the accept loop to log.
//   - The destructor removes the socket file only while it is still the one
//     this server created (same device and inode), then stops listening.
#pragma once

#include "zel/core/base.h"
#include "zel/core/export.h"
#include "zel/core/string.h"
#include "zel/core/types.h"
#include "zel/ipc/connection.h"

namespace zel {

class CUnixSocket;
class CUnixSocketInStream;
class CUnixSocketOutStream;

class ZEL_API CUnixSocketConnection : public CBase, public IConnection {
 public:
  static P<CUnixSocketConnection> connectIfServerAvailable(const String& path, int timeoutMs);
  CUnixSocketConnection(const String& path, int notFoundTimeoutMs, int busyTimeoutMs);
  // Wraps a connected socket (used by the server and connectIfServerAvailable).
  CUnixSocketConnection(const P<CUnixSocket>& socket, const String& path, bool serverEnd);
  ~CUnixSocketConnection() override;
  CUnixSocketConnection(const CUnixSocketConnection&) = delete;
  CUnixSocketConnection& operator=(const CUnixSocketConnection&) = delete;

  P<IInStream> getInStream() override;
  P<IOutStream> getOutStream() override;
  void close() override;
  int64 getPeerProcessID() override;

  const String& getPath() const { return m_path; }
  bool isServerEnd() const { return m_serverEnd; }

  // See "Bulk transfers" above.
  static constexpr int kSendBufferBytes = 4 * 1024 * 1024;
  static constexpr int64 kBulkSendBytes = 64 * 1024;

  // Whether a per-user server lets a peer of peerUserID in; throws the
  // refusal described above when not. Global servers let everyone in.
  static void checkPeerUser(int64 peerUserID, int64 ownUserID, bool global, const String& path);

 private:
  void init(const P<CUnixSocket>& socket);

  String m_path;
  bool m_serverEnd = false;
  P<CUnixSocket> m_socket;
  P<CUnixSocketInStream> m_in;
  P<CUnixSocketOutStream> m_out;
};

class ZEL_API CUnixSocketServer : public CBase {
 public:
  CUnixSocketServer(const String& path, bool global);
  ~CUnixSocketServer() override;
  CUnixSocketServer(const CUnixSocketServer&) = delete;
  CUnixSocketServer& operator=(const CUnixSocketServer&) = delete;

  void beginAcceptConnection();
  P<CUnixSocketConnection> tryAcceptConnection(int timeoutMs);
  void abortAcceptConnection();

  const String& getPath() const { return m_path; }
  bool getGlobal() const { return m_global; }

 private:
  struct CState;

  String m_path;
  bool m_global;
  CState* m_state;
};

}  // namespace zel
