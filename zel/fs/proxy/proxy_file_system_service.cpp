#include "zel/fs/proxy/proxy_file_system_service.h"

#include <atomic>

#include "zel/core/error.h"
#include "zel/fs/proxy/proxy_file_system_server.h"
#include "zel/ipc/pipe.h"
#include "zel/log/xml_log.h"
#include "zel/path/time.h"
#include "zel/thread/thread.h"

namespace zel {

const char* const CProxyFileSystemService::kAcceptThreadName = "zel.proxyfs.accept";
const char* const CProxyFileSystemService::kConnectionThreadName = "zel.proxyfs.connection";
const char* const CProxyFileSystemService::kAcceptFailedMessage =
    "Exception trying to accept incoming named pipe IPC connection. Ignoring.";
const char* const CProxyFileSystemService::kStuckConnectionMessage =
    "CProxyFileSystemService: a connection thread did not end in time; it finishes on its own.";

namespace {

constexpr int kAcceptWaitMs = 200;
constexpr unsigned kAcceptRetryDelayMs = 100;

}  // namespace

class CProxyFileSystemService::CAcceptThread : public CThread {
 public:
  explicit CAcceptThread(CProxyFileSystemService& service) : m_service(service) {
    setThreadName(kAcceptThreadName);
  }

 protected:
  void runImpl() override { m_service.acceptLoop(*this); }

 private:
  // The service outlives the thread: stop() joins it first.
  CProxyFileSystemService& m_service;
};

class CProxyFileSystemService::CConnectionThread : public CThread {
 public:
  CConnectionThread(const P<IConnection>& connection, const P<CProxyFileSystemServer>& server)
      : m_connection(connection), m_server(server) {
    setThreadName(kConnectionThreadName);
  }

  // Asks the server to stop and closes the connection; any thread.
  void stopServing() {
    {
      // Under the lock the server cannot be released meanwhile.
      CMutexLock lock(m_serverMutex);
      if (m_server) m_server->requestStop();
    }
    try {
      m_connection->close();
    } catch (const CError& e) {
      logWarning("CProxyFileSystemService: closing a connection failed.", &e);
    }
  }
  bool hasFinished() const { return m_finished.load(); }

 protected:
  void runImpl() override {
    P<CProxyFileSystemServer> server;
    {
      CMutexLock lock(m_serverMutex);
      server = m_server;
    }
    server->serve();
    {
      CMutexLock lock(m_serverMutex);
      m_server = nullptr;
    }
    // The server goes with the run: its handles are released here, on this
    // thread, and not whenever the thread object is reaped.
    server = nullptr;
    m_finished.store(true);
  }

 private:
  P<IConnection> m_connection;
  CMutex m_serverMutex;  // guards m_server
  P<CProxyFileSystemServer> m_server;
  std::atomic<bool> m_finished{false};
};

CProxyFileSystemService::CProxyFileSystemService(const CIPCAddress& address)
    : m_address(address),
      m_maxFrameLength(CProxyFileSystemBase::kDefaultMaxFrameLength),
      m_maxOpenHandles(CProxyFileSystemServer::kDefaultMaxOpenHandles) {}

CProxyFileSystemService::~CProxyFileSystemService() {
  try {
    stop();
  } catch (...) {
    // A destructor cannot report; stop() is the place to see its errors.
  }
}

void CProxyFileSystemService::addShare(const CURISelector& selector, IFileSystem* fileSystem) {
  if (fileSystem == nullptr) {
    throw CInvalidArgError("CProxyFileSystemService::addShare", "the file system is null");
  }
  CMutexLock lock(m_mutex);
  m_shares.add(ShareEntry{selector, P<IFileSystem>(fileSystem), false, CURI()});
}

void CProxyFileSystemService::addShare(const CURISelector& selector, IFileSystem* fileSystem,
                                       const CURI& root) {
  if (fileSystem == nullptr || root.isEmpty()) {
    throw CInvalidArgError("CProxyFileSystemService::addShare",
                           "the file system is null or the root empty");
  }
  CMutexLock lock(m_mutex);
  m_shares.add(ShareEntry{selector, P<IFileSystem>(fileSystem), true, root});
}

void CProxyFileSystemService::setMaxFrameLength(int length) {
  CMutexLock lock(m_mutex);
  m_maxFrameLength = length;
}

void CProxyFileSystemService::setMaxOpenHandles(int count) {
  CMutexLock lock(m_mutex);
  m_maxOpenHandles = count;
}

void CProxyFileSystemService::start() {
  CMutexLock startStop(m_startStopMutex);
  {
    CMutexLock lock(m_mutex);
    if (m_acceptThread) return;
  }
  P<CPipeServer> pipeServer = createObject<CPipeServer>(m_address);
  P<CAcceptThread> thread = createObject<CAcceptThread>(*this);
  {
    CMutexLock lock(m_mutex);
    m_pipeServer = pipeServer;
    m_acceptThread = thread;
  }
  try {
    thread->start();
  } catch (...) {
    CMutexLock lock(m_mutex);
    m_pipeServer = nullptr;
    m_acceptThread = nullptr;
    throw;
  }
}

void CProxyFileSystemService::stop() {
  CMutexLock startStop(m_startStopMutex);
  P<CAcceptThread> acceptThread;
  P<CPipeServer> pipeServer;
  {
    CMutexLock lock(m_mutex);
    acceptThread = m_acceptThread;
    pipeServer = m_pipeServer;
  }
  if (!acceptThread) return;
  acceptThread->signalStop();
  pipeServer->abortAcceptConnection();
  acceptThread->join(false);

  // No connection can be added any more: the accept thread has ended.
  TArray<P<CConnectionThread>> connections;
  {
    CMutexLock lock(m_mutex);
    connections.swap(m_connections);
  }
  const CTime deadline = CTime::now() + CTimeSpan(int64{kStopWaitMs} * 1000);
  for (const P<CConnectionThread>& connection : connections) connection->stopServing();
  for (const P<CConnectionThread>& connection : connections) {
    while (!connection->hasFinished() && CTime::now() < deadline) CThread::sleep(10);
    if (connection->hasFinished()) {
      connection->join(false);
    } else {
      logWarning(kStuckConnectionMessage);
      connection->detach(false);
    }
  }
  connections.clear();

  CMutexLock lock(m_mutex);
  m_acceptThread = nullptr;
  m_pipeServer = nullptr;
}

bool CProxyFileSystemService::isRunning() {
  CMutexLock lock(m_mutex);
  return !m_acceptThread.isNull();
}

int CProxyFileSystemService::getConnectionCount() {
  CMutexLock lock(m_mutex);
  return m_connections.getCount();
}

void CProxyFileSystemService::acceptLoop(CAcceptThread& thread) {
  P<CPipeServer> pipeServer;
  {
    CMutexLock lock(m_mutex);
    pipeServer = m_pipeServer;
  }
  bool accepting = false;
  while (thread.checkContinue()) {
    try {
      if (!accepting) {
        pipeServer->beginAcceptConnection();
        accepting = true;
      }
      P<IConnection> connection = pipeServer->tryAcceptConnection(kAcceptWaitMs);
      reapFinished();
      if (!connection) continue;
      accepting = false;
      startConnection(connection);
    } catch (const CError& e) {
      logError(kAcceptFailedMessage, &e);
      accepting = false;
      CThread::sleep(kAcceptRetryDelayMs);
    } catch (const std::exception& e) {
      P<CError> error = CStdExceptionError::exceptionToError(e);
      logError(kAcceptFailedMessage, error.get());
      accepting = false;
      CThread::sleep(kAcceptRetryDelayMs);
    }
  }
  reapFinished();
}

void CProxyFileSystemService::startConnection(const P<IConnection>& connection) {
  TArray<ShareEntry> shares;
  int maxFrameLength;
  int maxOpenHandles;
  {
    CMutexLock lock(m_mutex);
    shares = m_shares;
    maxFrameLength = m_maxFrameLength;
    maxOpenHandles = m_maxOpenHandles;
  }
  P<CProxyFileSystemServer> server;
  try {
    server = createObject<CProxyFileSystemServer>(connection.get());
    server->setMaxFrameLength(maxFrameLength);
    server->setMaxOpenHandles(maxOpenHandles);
    for (const ShareEntry& share : shares) {
      if (share.rebase) {
        server->addShare(share.selector, share.fileSystem.get(), share.root);
      } else {
        server->addShare(share.selector, share.fileSystem.get());
      }
    }
  } catch (...) {
    connection->close();
    throw;
  }
  P<CConnectionThread> thread = createObject<CConnectionThread>(connection, server);
  server = nullptr;  // the thread owns it now
  {
    CMutexLock lock(m_mutex);
    m_connections.add(thread);
  }
  try {
    thread->start();
  } catch (...) {
    CMutexLock lock(m_mutex);
    m_connections.removeAt(m_connections.indexOf(thread));
    connection->close();
    throw;
  }
}

void CProxyFileSystemService::reapFinished() {
  TArray<P<CConnectionThread>> finished;
  {
    CMutexLock lock(m_mutex);
    for (int i = m_connections.getCount() - 1; i >= 0; --i) {
      if (m_connections[i]->hasFinished()) {
        finished.add(m_connections[i]);
        m_connections.removeAt(i);
      }
    }
  }
  for (const P<CConnectionThread>& thread : finished) thread->join(false);
}

}  // namespace zel
