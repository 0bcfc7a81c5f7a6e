// Linux specifics of the Unix socket transport: the socket file's life (stale
// files replaced, live ones never touched), modes, the busy backlog and the
// peer's user.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "temp_folder.h"
#include "zel/core/error.h"
#include "zel/ipc/unix_socket.h"

namespace zel {
namespace {

using Clock = std::chrono::steady_clock;

std::string native(const String& path) { return path.toStdUTF8(); }

struct stat statOf(const String& path) {
  struct stat st {};
  EXPECT_EQ(::lstat(native(path).c_str(), &st), 0) << native(path);
  return st;
}

sockaddr_un addressOf(const String& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, native(path).c_str(), sizeof(address.sun_path) - 1);
  return address;
}

// Leaves a socket file whose server is gone, as a crashed server does.
void makeStaleSocket(const String& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_un address = addressOf(path);
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(::listen(fd, 1), 0);
  ::close(fd);
}

// Accepts a connection and checks that a byte written by the client arrives.
void expectServes(CUnixSocketServer& server, const String& path) {
  server.beginAcceptConnection();
  P<CUnixSocketConnection> client = createObject<CUnixSocketConnection>(path, 5000, 5000);
  P<CUnixSocketConnection> serverEnd = server.tryAcceptConnection(5000);
  ASSERT_TRUE(serverEnd);
  EXPECT_TRUE(serverEnd->isServerEnd());
  EXPECT_FALSE(client->isServerEnd());
  client->getOutStream()->write("k", 1);
  char byte = 0;
  serverEnd->getInStream()->read(&byte, 1);
  EXPECT_EQ(byte, 'k');
  EXPECT_EQ(serverEnd->getPeerProcessID(), getpid());
  EXPECT_EQ(client->getPeerProcessID(), getpid());
}

TEST(UnixSocketTest, StaleSocketIsReplaced) {
  test::CTempFolder temp;
  const String path = temp.file("stale.sock");
  makeStaleSocket(path);
  // A second name keeps the stale inode alive, so its number cannot be
  // reused for the new socket.
  const String keep = temp.file("stale.keep");
  ASSERT_EQ(::link(native(path).c_str(), native(keep).c_str()), 0);
  const ino_t staleInode = statOf(path).st_ino;

  // No server: null at once, the stale file counts as none.
  const auto start = Clock::now();
  EXPECT_FALSE(CUnixSocketConnection::connectIfServerAvailable(path, 5000));
  EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(1000));

  CUnixSocketServer server(path, false);
  EXPECT_NE(statOf(path).st_ino, staleInode);
  expectServes(server, path);
}

TEST(UnixSocketTest, LiveSocketIsNeverRemoved) {
  test::CTempFolder temp;
  const String path = temp.file("live.sock");
  CUnixSocketServer first(path, false);
  const ino_t inode = statOf(path).st_ino;
  try {
    CUnixSocketServer second(path, false);
    FAIL() << "a second server took a live address";
  } catch (const CError& error) {
    EXPECT_EQ(error.getErrorCodeDomain(), "errno");
    EXPECT_EQ(error.getErrorCode(), EADDRINUSE);
    EXPECT_EQ(error.getParams().get("pipe"), path);
  }
  EXPECT_EQ(statOf(path).st_ino, inode);

  // The refused server's probe reached the first server as a connection that
  // ends at once; after it, the first server works normally.
  first.beginAcceptConnection();
  P<CUnixSocketConnection> probe = first.tryAcceptConnection(5000);
  ASSERT_TRUE(probe);
  char byte;
  EXPECT_EQ(probe->getInStream()->readLax(&byte, 1), 0);
  expectServes(first, path);
}

TEST(UnixSocketTest, OtherFilesInTheWayAreRefused) {
  test::CTempFolder temp;
  const String path = temp.file("file.sock");
  FILE* file = std::fopen(native(path).c_str(), "w");
  ASSERT_NE(file, nullptr);
  std::fputs("data", file);
  std::fclose(file);
  try {
    CUnixSocketServer server(path, false);
    FAIL() << "a regular file was replaced";
  } catch (const CError& error) {
    EXPECT_EQ(error.getErrorCode(), EEXIST);
  }
  EXPECT_EQ(test::readFileBytes(path), "data");
}

TEST(UnixSocketTest, DestructorRemovesOnlyItsOwnFile) {
  test::CTempFolder temp;
  const String path = temp.file("own.sock");
  {
    CUnixSocketServer server(path, false);
    EXPECT_TRUE(S_ISSOCK(statOf(path).st_mode));
  }
  EXPECT_EQ(::access(native(path).c_str(), F_OK), -1);

  {
    CUnixSocketServer server(path, false);
    // Someone replaced the file: it is not ours to remove any more.
    ASSERT_EQ(::unlink(native(path).c_str()), 0);
    FILE* file = std::fopen(native(path).c_str(), "w");
    ASSERT_NE(file, nullptr);
    std::fclose(file);
  }
  EXPECT_EQ(::access(native(path).c_str(), F_OK), 0);
}

TEST(UnixSocketTest, SocketFileModesIgnoreTheUmask) {
  test::CTempFolder temp;
  const mode_t old = ::umask(0);
  {
    CUnixSocketServer perUser(temp.file("user.sock"), false);
    EXPECT_EQ(statOf(temp.file("user.sock")).st_mode & 0777, 0600u);
  }
  ::umask(0077);
  {
    CUnixSocketServer global(temp.file("global.sock"), true);
    EXPECT_EQ(statOf(temp.file("global.sock")).st_mode & 0777, 0666u);
  }
  ::umask(old);
}

TEST(UnixSocketTest, FullBacklogIsBusyNotMissing) {
  test::CTempFolder temp;
  const String path = temp.file("busy.sock");
  // A listener that never accepts, with its backlog filled up.
  const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(listener, 0);
  sockaddr_un address = addressOf(path);
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(::listen(listener, 0), 0);
  std::vector<int> fillers;
  for (int i = 0; i < 64; ++i) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
      ASSERT_EQ(errno, EAGAIN);
      ::close(fd);
      break;
    }
    fillers.push_back(fd);
  }
  const auto start = Clock::now();
  try {
    CUnixSocketConnection connection(path, 0, 0);
    FAIL() << "connected through a full backlog";
  } catch (const CError& error) {
    EXPECT_EQ(error.getMessage(), "pipe client connection attempts timed out");
    EXPECT_EQ(error.getParams().get("action"), "CUnixSocketConnection constructor");
  }
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(95));
  // A busy server is a server: not "none available", but a time-out.
  EXPECT_THROW(CUnixSocketConnection::connectIfServerAvailable(path, 0), CError);
  for (int fd : fillers) ::close(fd);
  ::close(listener);
}

TEST(UnixSocketTest, PathChecks) {
  const String tooLong = L"/tmp/" + String(std::wstring(103, L'x').c_str());  // 108 bytes
  EXPECT_THROW(CUnixSocketServer(tooLong, false), CInvalidArgError);
  EXPECT_THROW(CUnixSocketConnection(tooLong, 0, 0), CInvalidArgError);
  EXPECT_THROW(CUnixSocketConnection::connectIfServerAvailable("", 0), CInvalidArgError);

  // A missing folder means no server (ENOENT): the loop times out.
  try {
    CUnixSocketConnection connection("/nonexistent-zel/x/y.sock", 0, 0);
    FAIL() << "connected";
  } catch (const CError& error) {
    EXPECT_EQ(error.getMessage(), "pipe client connection attempts timed out");
  }
  // A path through a regular file is an error of connect itself (ENOTDIR).
  test::CTempFolder temp;
  const String file = temp.file("plain");
  FILE* handle = std::fopen(native(file).c_str(), "w");
  ASSERT_NE(handle, nullptr);
  std::fclose(handle);
  try {
    CUnixSocketConnection connection(file + L"/y.sock", 0, 0);
    FAIL() << "connected";
  } catch (const CError& error) {
    EXPECT_EQ(error.getErrorCode(), ENOTDIR);
    EXPECT_EQ(error.getParams().get("func"), "connect");
    EXPECT_EQ(error.getParams().get("pipe"), file + L"/y.sock");
  }
}

TEST(UnixSocketTest, PeerUserCheck) {
  const String path = "/tmp/x.sock";
  EXPECT_NO_THROW(CUnixSocketConnection::checkPeerUser(1000, 1000, false, path));
  EXPECT_NO_THROW(CUnixSocketConnection::checkPeerUser(1001, 1000, true, path));
  try {
    CUnixSocketConnection::checkPeerUser(1001, 1000, false, path);
    FAIL() << "a foreign user was let in";
  } catch (const CError& error) {
    EXPECT_EQ(error.getMessage(), "Refused an IPC connection from another user");
    EXPECT_EQ(error.getErrorCode(), EACCES);
    EXPECT_EQ(error.getParams().get("peerUserID"), "1001");
  }
}

// args: socket path. Becomes the unprivileged user "nobody" and connects.
ZEL_TEST_CHILD(connect_as_nobody) {
  if (args.size() != 1) return 20;
  if (::setgid(65534) != 0 || ::setuid(65534) != 0) return 21;
  try {
    P<CUnixSocketConnection> connection =
        createObject<CUnixSocketConnection>(String(args[0]), 10000, 10000);
    char byte;
    // The server refuses us: the connection ends without a byte.
    return connection->getInStream()->readLax(&byte, 1) == 0 ? 0 : 22;
  } catch (const CError&) {
    return 23;
  }
}

TEST(UnixSocketTest, PeerOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to run a peer as another user";
  test::CTempFolder temp;
  // Let the other user reach the socket; the server's own check must stop it.
  ASSERT_EQ(::chmod(native(temp.getPath()).c_str(), 0711), 0);
  const String path = temp.file("foreign.sock");
  CUnixSocketServer server(path, false);
  ASSERT_EQ(::chmod(native(path).c_str(), 0666), 0);
  server.beginAcceptConnection();
  auto child = test::startTestChild("connect_as_nobody", {native(path)});
  try {
    P<CUnixSocketConnection> connection = server.tryAcceptConnection(20000);
    FAIL() << (connection ? "the foreign peer was accepted" : "no connection came");
  } catch (const CError& error) {
    EXPECT_EQ(error.getErrorCode(), EACCES);
  }
  EXPECT_EQ(child->wait(20000), 0);
  // The same user still gets in.
  expectServes(server, path);
}

}  // namespace
}  // namespace zel
