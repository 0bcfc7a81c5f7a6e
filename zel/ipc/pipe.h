// The portable names of local inter-process connections: everything above
// the IPC layer uses these and never the platform classes directly.
//
//   CPipeConnection      CWindowsPipeConnection / CUnixSocketConnection
//   CPlatformPipeServer  CWindowsPipeServer / CUnixSocketServer
//   CPipeServer          a server at a CIPCAddress, over the platform server
//
// An address becomes the Windows pipe name (getWindowsPipeName) or the Unix
// socket path (getUnixSocketPath; the server creates the socket folder, a
// client never does). An empty address is refused with CInvalidArgError.
// Time-outs are in milliseconds, -1 meaning no limit.
//
// Typical serving loop (one accepting thread):
//   CPipeServer server(address);
//   server.beginAcceptConnection();
//   while (running) {
//     P<IConnection> c = server.tryAcceptConnection(200);  // null: none yet
//     if (c) { hand c to a worker; server.beginAcceptConnection(); }
//   }
// and from another thread, to stop: server.abortAcceptConnection().
#pragma once

#include "zel/core/base.h"
#include "zel/core/export.h"
#include "zel/ipc/connection.h"
#include "zel/ipc/ipc_address.h"

#if defined(_WIN32)
#include "zel/ipc/windows_pipe.h"
#else
#include "zel/ipc/unix_socket.h"
#endif

namespace zel {

#if defined(_WIN32)
using CPipeConnection = CWindowsPipeConnection;
using CPlatformPipeServer = CWindowsPipeServer;
#else
using CPipeConnection = CUnixSocketConnection;
using CPlatformPipeServer = CUnixSocketServer;
#endif

// Connects to the server at address, waiting up to notFoundTimeoutMs for it
// to appear and up to busyTimeoutMs while it is busy (at least five attempts
// in any case); raises "pipe client connection attempts timed out" or the
// system's error.
ZEL_API P<IConnection> connectToPipeServer(const CIPCAddress& address, int notFoundTimeoutMs,
                                           int busyTimeoutMs);
// Null at once when no server is there; a busy server is retried up to
// timeoutMs.
ZEL_API P<IConnection> connectToPipeServerIfAvailable(const CIPCAddress& address, int timeoutMs);

// Listens at an address. See CWindowsPipeServer / CUnixSocketServer for the
// states: beginAcceptConnection() before each client, tryAcceptConnection()
// returns the connection or null (time-out, abort), abortAcceptConnection()
// (any thread) wakes a waiting tryAcceptConnection.
class ZEL_API CPipeServer : public CBase {
 public:
  explicit CPipeServer(const CIPCAddress& address);
  ~CPipeServer() override;
  CPipeServer(const CPipeServer&) = delete;
  CPipeServer& operator=(const CPipeServer&) = delete;

  void beginAcceptConnection();
  P<IConnection> tryAcceptConnection(int timeoutMs);
  void abortAcceptConnection();

  const CIPCAddress& getAddress() const { return m_address; }
  // The platform server, for what is not portable.
  const P<CPlatformPipeServer>& getPlatformServer() const { return m_server; }

 private:
  CIPCAddress m_address;
  P<CPlatformPipeServer> m_server;
};

}  // namespace zel
