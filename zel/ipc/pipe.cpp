#include "zel/ipc/pipe.h"

#include "zel/core/error.h"

namespace zel {

namespace {

void checkAddress(const CIPCAddress& address, const char* function) {
  if (address.isEmpty()) throw CInvalidArgError(function, "the IPC address is empty");
}

// The platform's name for the endpoint of address.
String endpointOf(const CIPCAddress& address, bool createFolder) {
#if defined(_WIN32)
  (void)createFolder;
  return address.getWindowsPipeName();
#else
  return address.getUnixSocketPath(createFolder);
#endif
}

}  // namespace

P<IConnection> connectToPipeServer(const CIPCAddress& address, int notFoundTimeoutMs,
                                   int busyTimeoutMs) {
  checkAddress(address, "connectToPipeServer");
  return createObject<CPipeConnection>(endpointOf(address, false), notFoundTimeoutMs,
                                       busyTimeoutMs);
}

P<IConnection> connectToPipeServerIfAvailable(const CIPCAddress& address, int timeoutMs) {
  checkAddress(address, "connectToPipeServerIfAvailable");
  return CPipeConnection::connectIfServerAvailable(endpointOf(address, false), timeoutMs);
}

CPipeServer::CPipeServer(const CIPCAddress& address) : m_address(address) {
  checkAddress(address, "CPipeServer constructor");
  m_server = createObject<CPlatformPipeServer>(endpointOf(address, true), address.getGlobal());
}

CPipeServer::~CPipeServer() = default;

void CPipeServer::beginAcceptConnection() { m_server->beginAcceptConnection(); }

P<IConnection> CPipeServer::tryAcceptConnection(int timeoutMs) {
  return m_server->tryAcceptConnection(timeoutMs);
}

void CPipeServer::abortAcceptConnection() { m_server->abortAcceptConnection(); }

}  // namespace zel
