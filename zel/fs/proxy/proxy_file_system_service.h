// CProxyFileSystemService: publishes shares of local file systems at an IPC
// address, serving every client that connects with a CProxyFileSystemServer
// of its own.
//
// start() opens the pipe server (CPipeServer) and starts the accept thread,
// "zel.proxyfs.accept", which loops beginAcceptConnection /
// tryAcceptConnection(200). Each accepted connection gets a fresh server,
// with all shares added, run by a thread "zel.proxyfs.connection" until the
// connection ends (CProxyFileSystemServer::serve). Threads whose connection
// has ended are joined and dropped by the accept thread as it goes (at least
// every 200 ms). A failed accept is logged ("Exception trying to accept
// incoming named pipe IPC connection. Ignoring." with the error) and the
// loop carries on after 100 ms, so a failure that repeats cannot spin.
//
// stop() stops accepting (abortAcceptConnection wakes the accept thread),
// joins it, asks every connection's server to stop (requestStop: a request
// waiting on a served stream gives up) and closes its connection (which ends
// the reads and writes of its thread, a client that stopped reading
// included, and so its serve() loop, releasing its handles), and joins the
// connection threads; the pipe server is then dropped, which frees the
// address. stop() returns within a bounded time however its connections are
// blocked: a connection thread that has not ended kStopWaitMs after the stop
// began (a call of a served file system that does not return) is detached
// with a warning ("CProxyFileSystemService: a connection thread did not end
// in time; it finishes on its own.") and releases its server when that call
// returns. stop() is idempotent; start() after stop() begins again. The
// destructor stops.
//
// Shares: the file systems are shared by all connections at once (a served
// file system must allow calls from several threads; CFileSystem does).
// Shares added while running apply to connections accepted afterwards.
//
// Thread safety: all members may be called from any thread; start() and
// stop() serialise on one lock.
#pragma once

#include "zel/core/base.h"
#include "zel/core/containers.h"
#include "zel/core/export.h"
#include "zel/fs/file_system.h"
#include "zel/ipc/connection.h"
#include "zel/ipc/ipc_address.h"
#include "zel/path/uri.h"
#include "zel/fs/uri_selector.h"
#include "zel/core/mutex.h"

namespace zel {

class CPipeServer;

class ZEL_API CProxyFileSystemService : public CBase {
 public:
  explicit CProxyFileSystemService(const CIPCAddress& address);
  ~CProxyFileSystemService() override;

  CProxyFileSystemService(const CProxyFileSystemService&) = delete;
  CProxyFileSystemService& operator=(const CProxyFileSystemService&) = delete;

  // As CProxyFileSystemServer::addShare (identity and rebasing).
  void addShare(const CURISelector& selector, IFileSystem* fileSystem);
  void addShare(const CURISelector& selector, IFileSystem* fileSystem, const CURI& root);
  // Applied to connections accepted afterwards (see CProxyFileSystemServer).
  void setMaxFrameLength(int length);
  void setMaxOpenHandles(int count);

  // How long stop() waits for the connection threads.
  static constexpr int kStopWaitMs = 3000;

  // Throws when the address cannot be served (in use by a running server,
  // invalid) or the thread cannot start; nothing is left running then.
  // Starting a running service does nothing.
  void start();
  void stop();
  bool isRunning();

  const CIPCAddress& getAddress() const { return m_address; }
  // Connections being served now (finished ones not yet reaped included).
  int getConnectionCount();

  // The texts of the threads and of the accept failure.
  static const char* const kAcceptThreadName;
  static const char* const kConnectionThreadName;
  static const char* const kAcceptFailedMessage;
  static const char* const kStuckConnectionMessage;

 private:
  class CAcceptThread;
  class CConnectionThread;
  struct ShareEntry {
    CURISelector selector;
    P<IFileSystem> fileSystem;
    bool rebase = false;
    CURI root;
  };

  // Called on the accept thread.
  void acceptLoop(CAcceptThread& thread);
  void startConnection(const P<IConnection>& connection);
  void reapFinished();

  const CIPCAddress m_address;
  CMutex m_startStopMutex;  // serialises start() and stop()
  CMutex m_mutex;           // guards the members below
  TArray<ShareEntry> m_shares;
  int m_maxFrameLength;
  int m_maxOpenHandles;
  P<CPipeServer> m_pipeServer;
  P<CAcceptThread> m_acceptThread;
  TArray<P<CConnectionThread>> m_connections;
};

}  // namespace zel
