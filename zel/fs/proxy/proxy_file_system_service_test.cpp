#include "zel/fs/proxy/proxy_file_system_service.h"

#include <gtest/gtest.h>
#include <wx/utils.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#ifndef _WIN32
#include <dirent.h>
#endif

#include "tests/support/proxy_server_test_util.h"
#include "tests/support/temp_folder.h"
#include "zel/core/error.h"
#include "zel/fs/local_file_system.h"
#include "zel/fs/proxy/proxy_file_system_server.h"
#include "zel/ipc/pipe.h"
#include "zel/log/xml_log.h"

namespace zel {
namespace {

using proxy_test::CRequest;
using proxy_test::CResponse;
using proxy_test::parseResponse;
using Server = CProxyFileSystemServer;

CIPCAddress uniqueAddress() {
  static std::atomic<int> counter{0};
  return CIPCAddress("zeltest",
                     "proxyfs-" + String::fromInt64(static_cast<int64>(wxGetProcessId())) + "-" +
                         String::fromInt64(counter++),
                     false);
}

template <class Condition>
bool waitFor(Condition condition, int timeoutMs = 10000) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

class ServiceTest : public ::testing::Test {
 protected:
  ServiceTest() : m_service(createObject<CProxyFileSystemService>(uniqueAddress())) {
    m_root = CURI::fromNativePath(CNativePath(m_temp.getPath()));
    m_service->addShare(CURISelector(CURI("file:///share")), m_fs.get(), m_root);
  }
  ~ServiceTest() override {
    m_service->stop();
    m_fs->dispose();
  }

  P<IConnection> connect() { return connectToPipeServer(m_service->getAddress(), 5000, 5000); }

  static CResponse roundTrip(IConnection& connection, CRequest& request) {
    request.message().write(*connection.getOutStream());
    P<CProxyFileSystemMessage> response = CProxyFileSystemMessage::read(*connection.getInStream());
    return parseResponse(*response);
  }
  static bool exists(IConnection& connection, const char* uri) {
    CRequest request(Server::FuncPathExists);
    request.str(uri);
    CResponse response = roundTrip(connection, request);
    if (!response.isOK()) throw CError(String::fromUTF8(response.describe().c_str()));
    return response.in->readBool();
  }

  test::CTempFolder m_temp;
  P<CFileSystem> m_fs = createObject<CFileSystem>();
  CURI m_root;
  P<CProxyFileSystemService> m_service;
};

TEST_F(ServiceTest, ServesSeveralClientsAtOnce) {
  m_service->start();
  EXPECT_TRUE(m_service->isRunning());
  m_fs->ensureFileExists(m_root.append("a.txt"));

  P<IConnection> first = connect();
  P<IConnection> second = connect();
  EXPECT_TRUE(exists(*first, "file:///share/a.txt"));
  EXPECT_TRUE(exists(*second, "file:///share/a.txt"));
  EXPECT_FALSE(exists(*second, "file:///share/b.txt"));
  EXPECT_EQ(m_service->getConnectionCount(), 2);

  // A handle lives in its own connection only.
  CRequest open(Server::FuncStreamOpen);
  open.str("file:///share/a.txt").i32(IIOStream::AccessRead).i32(0);
  CResponse opened = roundTrip(*first, open);
  ASSERT_TRUE(opened.isOK()) << opened.describe();
  const int64 handle = opened.in->readInt64();
  CRequest length(Server::FuncStreamGetLength);
  EXPECT_FALSE(roundTrip(*second, length.i64(handle)).isOK());

  // A client that goes away is reaped.
  first->close();
  EXPECT_TRUE(waitFor([&] { return m_service->getConnectionCount() == 1; }));
  EXPECT_TRUE(exists(*second, "file:///share/a.txt"));
}

TEST_F(ServiceTest, StopEndsLiveConnectionsAndFreesTheAddress) {
  m_service->start();
  P<IConnection> client = connect();
  EXPECT_FALSE(exists(*client, "file:///share/x"));
  m_service->stop();
  EXPECT_FALSE(m_service->isRunning());
  EXPECT_EQ(m_service->getConnectionCount(), 0);
  // The server side has gone: the client's read ends.
  char byte;
  EXPECT_EQ(client->getInStream()->readLax(&byte, 1), 0);
  m_service->stop();  // idempotent

  // The address can be served again.
  m_service->start();
  P<IConnection> again = connect();
  EXPECT_FALSE(exists(*again, "file:///share/x"));
}

TEST_F(ServiceTest, TheAddressCanOnlyBeServedOnce) {
#ifdef _WIN32
  GTEST_SKIP() << "named pipes take any number of server instances of one name";
#endif
  m_service->start();
  P<CProxyFileSystemService> other = createObject<CProxyFileSystemService>(m_service->getAddress());
  EXPECT_THROW(other->start(), CError);
  EXPECT_FALSE(other->isRunning());
  P<IConnection> client = connect();
  EXPECT_FALSE(exists(*client, "file:///share/x"));
}

#ifndef _WIN32
std::vector<std::string> threadNames() {
  std::vector<std::string> names;
  DIR* dir = ::opendir("/proc/self/task");
  if (!dir) return names;
  while (struct dirent* entry = ::readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
    std::string name;
    std::getline(comm, name);
    names.push_back(name);
  }
  ::closedir(dir);
  return names;
}

int countNamed(const std::string& name) {
  int count = 0;
  for (const std::string& n : threadNames()) count += n == name;
  return count;
}

TEST_F(ServiceTest, ThreadsCarryTheirNames) {
  // Linux keeps 15 bytes of a thread's name.
  const std::string accept = std::string(CProxyFileSystemService::kAcceptThreadName).substr(0, 15);
  const std::string connection =
      std::string(CProxyFileSystemService::kConnectionThreadName).substr(0, 15);
  const int acceptBefore = countNamed(accept);
  const int connectionBefore = countNamed(connection);
  m_service->start();
  EXPECT_TRUE(waitFor([&] { return countNamed(accept) == acceptBefore + 1; }));
  P<IConnection> client = connect();
  EXPECT_FALSE(exists(*client, "file:///share/x"));
  EXPECT_EQ(countNamed(connection), connectionBefore + 1);
  client->close();
  EXPECT_TRUE(waitFor([&] { return countNamed(connection) == connectionBefore; }));
  m_service->stop();
  EXPECT_EQ(countNamed(accept), acceptBefore);
}
#endif

}  // namespace
}  // namespace zel
