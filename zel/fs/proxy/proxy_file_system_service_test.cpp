#include "zel/fs/proxy/proxy_file_system_service.h"

#include <gtest/gtest.h>
#include <wx/utils.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
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

using proxy_test::CMemFileSystem;
using proxy_test::CRawClient;
using proxy_test::CRequest;
using proxy_test::CResponse;
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
    return CRawClient(&connection).roundTrip(request);
  }
  static bool exists(IConnection& connection, const char* uri) {
    CRequest request(Server::FuncPathExists);
    request.str(uri);
    CResponse response = roundTrip(connection, request);
    if (!response.isOK()) throw CError(String::fromUTF8(response.describe().c_str()));
    return response.in->readBool();
  }
  static int64 openStream(IConnection& connection, const char* uri, std::string* error = nullptr) {
    CRequest open(Server::FuncStreamOpen);
    CResponse response = roundTrip(connection, open.str(uri).i32(IIOStream::AccessRead).i32(0));
    if (error) *error = response.isOK() ? std::string() : response.error->getMessage().toStdUTF8();
    return response.isOK() ? response.in->readInt64() : -1;
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

// The limit is applied to each connection on its own.
TEST_F(ServiceTest, HandleLimitAppliesToEachConnection) {
  m_service->setMaxOpenHandles(2);
  m_service->start();
  m_fs->ensureFileExists(m_root.append("a.txt"));
  P<IConnection> first = connect();
  P<IConnection> second = connect();
  const int64 handle = openStream(*first, "file:///share/a.txt");
  EXPECT_GT(openStream(*first, "file:///share/a.txt"), 0);
  std::string error;
  EXPECT_EQ(openStream(*first, "file:///share/a.txt", &error), -1);
  EXPECT_EQ(error,
            "Too many open handles on this proxy connection (the limit is 2); close some first.");
  EXPECT_GT(openStream(*second, "file:///share/a.txt"), 0);
  // Still usable; closing makes room.
  EXPECT_TRUE(exists(*first, "file:///share/a.txt"));
  CRequest close(Server::FuncStreamClose);
  EXPECT_TRUE(roundTrip(*first, close.i64(handle)).isOK());
  EXPECT_GT(openStream(*first, "file:///share/a.txt"), 0);
}

// stop() ends within a bounded time however the connections are blocked:
// waiting on a served stream that never becomes readable (the thread gives
// up and releases the stream), writing to a client that never reads (the
// closed connection fails the write), or inside a call of the served file
// system that does not return (the thread is left to finish on its own).
TEST_F(ServiceTest, StopEndsInBoundedTimeWhateverBlocksTheConnections) {
  auto live = std::make_shared<std::atomic<int>>(0);
  auto gate = std::make_shared<std::atomic<bool>>(false);
  auto returned = std::make_shared<std::atomic<int>>(0);
  P<CMemFileSystem> pipes = createObject<CMemFileSystem>();
  pipes->onCreateStream = [live](const CURI&) {
    return P<IIOStream>(createObject<proxy_test::CNeverReadableStream>(*live));
  };
  pipes->onFileExists = [gate, returned](const CURI&) {
    while (!gate->load()) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ++*returned;
    return true;
  };
  m_service->addShare(CURISelector(CURI("mem:///pipes")), pipes.get());
  constexpr int kReadSize = 1 << 20;
  m_fs->ensureFileExists(m_root.append("big.bin"));
  {
    P<IIOStream> big = m_fs->createStream(m_root.append("big.bin"), IIOStream::AccessReadWrite, {});
    big->write(std::string(kReadSize, 'b').data(), kReadSize);
  }
  m_service->start();

  P<IConnection> waiter = connect();
  const int64 pipe = openStream(*waiter, "mem:///pipes/p");
  ASSERT_GT(pipe, 0);
  CRequest wait(Server::FuncStreamWaitReadable);
  CRawClient(waiter.get()).send(wait.i64(pipe).i32(-1));

  P<IConnection> flooder = connect();
  const int64 big = openStream(*flooder, "file:///share/big.bin");
  ASSERT_GT(big, 0);
  std::atomic<bool> flooding{true};
  std::thread flood([&] {
    CRawClient client(flooder.get());
    try {
      while (flooding) {
        CRequest seek(Server::FuncStreamSeek);
        client.send(seek.i64(big).i64(0));
        CRequest read(Server::FuncStreamReadLax);
        client.send(read.i64(big).i32(kReadSize));
      }
    } catch (const CError&) {
      // The connection ended under the blocked write.
    }
  });

  P<IConnection> stuck = connect();
  CRequest exists(Server::FuncFileExists);
  CRawClient(stuck.get()).send(exists.str("mem:///pipes/stuck"));
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_EQ(m_service->getConnectionCount(), 3);

  CLogCapture log;
  const auto start = std::chrono::steady_clock::now();
  m_service->stop();
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_LT(took, std::chrono::milliseconds(CProxyFileSystemService::kStopWaitMs + 3000));
  EXPECT_FALSE(m_service->isRunning());
  EXPECT_EQ(live->load(), 0) << "the waiting connection's stream was not released";
  int warnings = 0;
  for (const CLogEntry& entry : log.getEntries()) {
    warnings += entry.level == LogLevel::Warning &&
                entry.text ==
                    "CProxyFileSystemService: a connection thread did not end in time; it "
                    "finishes on its own.";
  }
  EXPECT_EQ(warnings, 1) << "only the call that never returns is left behind";

  flooding = false;
  flooder->close();
  flood.join();
  // The call that was left behind ends once it returns.
  gate->store(true);
  EXPECT_TRUE(waitFor([&] { return returned->load() == 1; }));
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
