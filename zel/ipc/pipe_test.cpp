// Real connections through the portable names: named pipes on Windows, Unix
// sockets on Linux, between threads and between processes.
#include "zel/ipc/pipe.h"

#include <gtest/gtest.h>
#include <wx/utils.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "zel/core/error.h"

namespace zel {
namespace {

using Clock = std::chrono::steady_clock;

int64 ownProcessID() { return static_cast<int64>(wxGetProcessId()); }

// A fresh per-user address for each use, so tests (and test runs) never meet.
CIPCAddress uniqueAddress() {
  static std::atomic<int> counter{0};
  const std::string name = "t" + std::to_string(ownProcessID()) + "_" + std::to_string(counter++);
  return CIPCAddress("zeltest", String(name), false);
}

std::vector<unsigned char> pattern(size_t size, unsigned seed) {
  std::vector<unsigned char> bytes(size);
  unsigned value = seed;
  for (auto& byte : bytes) {
    value = value * 1103515245u + 12345u;
    byte = static_cast<unsigned char>(value >> 16);
  }
  return bytes;
}

void writeText(const P<IConnection>& connection, const std::string& text) {
  connection->getOutStream()->write(text.data(), static_cast<int>(text.size()));
}

std::string readText(const P<IConnection>& connection, int bytes) {
  std::string text(static_cast<size_t>(bytes), '\0');
  connection->getInStream()->read(text.data(), bytes);
  return text;
}

// The peer's process ID, or -1 when the system cannot tell (Wine lacks some
// of the pipe queries).
int64 peerProcessIDOrUnknown(const P<IConnection>& connection) {
  try {
    return connection->getPeerProcessID();
  } catch (const CError& error) {
#if defined(_WIN32)
    // ERROR_CALL_NOT_IMPLEMENTED, ERROR_NOT_SUPPORTED, ERROR_INVALID_FUNCTION
    const int64 code = error.getErrorCode();
    if (code == 120 || code == 50 || code == 1) return -1;
#endif
    throw;
  }
}

// For writer threads: an error is reported, not thrown out of the thread.
void writeAll(const P<IConnection>& connection, const std::vector<unsigned char>& data) {
  try {
    connection->getOutStream()->write(data.data(), static_cast<int>(data.size()));
  } catch (const CError& error) {
    ADD_FAILURE() << "write failed: " << error.what();
  }
}

void readAll(const P<IConnection>& connection, std::vector<unsigned char>& data) {
  try {
    connection->getInStream()->read(data.data(), static_cast<int>(data.size()));
  } catch (const CError& error) {
    ADD_FAILURE() << "read failed: " << error.what();
  }
}

// connectToPipeServer for client threads: an error is reported, not thrown
// out of the thread.
P<IConnection> connectOrNull(const CIPCAddress& address, int timeoutMs) {
  try {
    return connectToPipeServer(address, timeoutMs, timeoutMs);
  } catch (const CError& error) {
    ADD_FAILURE() << "connect failed: " << error.what();
    return nullptr;
  }
}

// A server with one accepted connection and its client.
struct CConnectedPair {
  P<CPipeServer> server;
  P<IConnection> serverEnd;
  P<IConnection> clientEnd;
};

// Begins an accept on server and connects a client to it from a thread.
CConnectedPair acceptClient(const P<CPipeServer>& server) {
  CConnectedPair pair;
  pair.server = server;
  server->beginAcceptConnection();
  std::thread client([&] { pair.clientEnd = connectOrNull(server->getAddress(), 10000); });
  pair.serverEnd = server->tryAcceptConnection(10000);
  client.join();
  return pair;
}

CConnectedPair connectPair() { return acceptClient(createObject<CPipeServer>(uniqueAddress())); }

TEST(PipeTest, RoundTripBetweenThreads) {
  CConnectedPair pair = connectPair();
  ASSERT_TRUE(pair.serverEnd);
  ASSERT_TRUE(pair.clientEnd);

  writeText(pair.clientEnd, "hello");
  EXPECT_EQ(readText(pair.serverEnd, 5), "hello");
  writeText(pair.serverEnd, "world!");
  EXPECT_EQ(readText(pair.clientEnd, 6), "world!");
  EXPECT_EQ(pair.serverEnd->getInStream()->getPosition(), 5);
  EXPECT_EQ(pair.serverEnd->getOutStream()->getPosition(), 6);

  // Both ends are in this process.
  const int64 fromServer = peerProcessIDOrUnknown(pair.serverEnd);
  const int64 fromClient = peerProcessIDOrUnknown(pair.clientEnd);
  if (fromServer != -1) {
    EXPECT_EQ(fromServer, ownProcessID());
  }
  if (fromClient != -1) {
    EXPECT_EQ(fromClient, ownProcessID());
  }
}

TEST(PipeTest, LargeTransfersBothWaysAtOnce) {
  CConnectedPair pair = connectPair();
  ASSERT_TRUE(pair.serverEnd && pair.clientEnd);
  const size_t size = 3 * 1024 * 1024 + 17;
  const auto up = pattern(size, 1);
  const auto down = pattern(size, 2);
  // Each side writes all before reading: without concurrent reading this
  // would deadlock on the small pipe buffers, so the writers are threads.
  std::thread clientWriter([&] { writeAll(pair.clientEnd, up); });
  std::thread serverWriter([&] { writeAll(pair.serverEnd, down); });
  std::vector<unsigned char> gotUp(size), gotDown(size);
  std::thread serverReader([&] { readAll(pair.serverEnd, gotUp); });
  readAll(pair.clientEnd, gotDown);
  serverReader.join();
  clientWriter.join();
  serverWriter.join();
  EXPECT_TRUE(gotUp == up);
  EXPECT_TRUE(gotDown == down);
}

TEST(PipeTest, StreamsOfAConnection) {
  CConnectedPair pair = connectPair();
  ASSERT_TRUE(pair.serverEnd && pair.clientEnd);
  P<IInStream> in = pair.serverEnd->getInStream();
  EXPECT_EQ(in->getLength(), -1);
  EXPECT_FALSE(in->waitReadable(0));
  EXPECT_EQ(in->isEndOfStream_NonBlocking(), 0);
  char buffer[16];
  EXPECT_EQ(in->readAvailable(buffer, sizeof(buffer)), 0);
  try {
    in->seek(0);
    FAIL() << "seek accepted";
  } catch (const CIOError& error) {
    EXPECT_EQ(error.getMessage(), "Seeking is not supported on pipes");
  }

  writeText(pair.clientEnd, "abc");
  EXPECT_TRUE(in->waitReadable(10000));
  // The bytes may arrive in parts; readAvailable never blocks.
  std::string got;
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (got.size() < 3 && Clock::now() < deadline) {
    const int n = in->readAvailable(buffer, sizeof(buffer));
    got.append(buffer, static_cast<size_t>(n));
    if (n == 0) in->waitReadable(100);
  }
  EXPECT_EQ(got, "abc");

  // The other end closes: waiting ends and reports the end.
  pair.clientEnd->close();
  EXPECT_TRUE(in->waitReadable(10000));
  EXPECT_TRUE(in->isEndOfStream());
  EXPECT_EQ(in->isEndOfStream_NonBlocking(), 1);
  EXPECT_EQ(in->readLax(buffer, sizeof(buffer)), 0);
  EXPECT_THROW(in->read(buffer, 1), CIOError);
}

TEST(PipeTest, ClosedPeerEndsReadsAndFailsWrites) {
  CConnectedPair pair = connectPair();
  ASSERT_TRUE(pair.serverEnd && pair.clientEnd);
  writeText(pair.serverEnd, "last");
  pair.serverEnd->close();
  pair.serverEnd = nullptr;
  // What was sent before the close still arrives, then the end.
  char buffer[8];
  EXPECT_EQ(pair.clientEnd->getInStream()->readLax(buffer, sizeof(buffer)), 4);
  EXPECT_EQ(std::string(buffer, 4), "last");
  // The write must fail (and on Linux must not raise SIGPIPE, which would
  // end this test program).
  const std::string big(64 * 1024, 'x');
  try {
    for (int i = 0; i < 64; ++i) writeText(pair.clientEnd, big);
    FAIL() << "writes to a closed peer succeeded";
  } catch (const CIOError& error) {
    EXPECT_EQ(error.getErrorCode(), CIOError::WriteFailed);
  }
}

// Runs operation, which blocks, on a thread of its own and closes connection
// from this thread meanwhile; returns what the operation reported. It must
// still be blocked at the close and return within 5 s of it.
std::string outcomeOfCloseDuring(const P<IConnection>& connection,
                                 const std::function<std::string()>& operation) {
  std::atomic<bool> ended{false};
  std::string outcome;
  std::thread thread([&] {
    outcome = operation();
    ended = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_FALSE(ended);
  const auto start = Clock::now();
  connection->close();
  thread.join();
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
  return outcome;
}

TEST(PipeTest, CloseFromAnotherThreadWakesABlockedRead) {
  CConnectedPair pair = connectPair();
  ASSERT_TRUE(pair.serverEnd && pair.clientEnd);
  const std::string outcome = outcomeOfCloseDuring(pair.clientEnd, [&] {
    char byte;
    try {
      pair.clientEnd->getInStream()->read(&byte, 1);
      return std::string("read a byte");
    } catch (const CIOError& error) {
      return std::string(error.getErrorCode() == CIOError::UnexpectedEnd ? "end" : "other error");
    }
  });
  EXPECT_EQ(outcome, "end");
  // The other end learns of it too.
  char byte;
  EXPECT_EQ(pair.serverEnd->getInStream()->readLax(&byte, 1), 0);
  // Closing again is harmless.
  pair.clientEnd->close();
}

TEST(PipeTest, CloseFromAnotherThreadWakesABlockedWrite) {
  CConnectedPair pair = connectPair();
  ASSERT_TRUE(pair.serverEnd && pair.clientEnd);
  // Far more than any system buffers while nobody reads: the write blocks.
  const std::vector<unsigned char> big(16 * 1024 * 1024, 'w');
  const std::string outcome = outcomeOfCloseDuring(pair.clientEnd, [&] {
    try {
      pair.clientEnd->getOutStream()->write(big.data(), static_cast<int>(big.size()));
      return std::string("wrote everything");
    } catch (const CIOError& error) {
      return std::string(error.getErrorCode() == CIOError::WriteFailed ? "write failed"
                                                                       : "other error");
    }
  });
  EXPECT_EQ(outcome, "write failed");
  // What the other end gets is a prefix of the data, then the end.
  std::vector<unsigned char> received(big.size());
  const int got = pair.serverEnd->getInStream()->readLax(received.data(),
                                                          static_cast<int>(received.size()));
  EXPECT_LT(got, static_cast<int>(big.size()));
  EXPECT_TRUE(std::all_of(received.begin(), received.begin() + got,
                          [](unsigned char byte) { return byte == 'w'; }));
}

TEST(PipeTest, PendingAcceptsDiscardedOverAndOverLeaveTheServerWorking) {
  // Each begin replaces a waiting instance whose connect is still pending;
  // each abort ends one. The next client must still get through.
  P<CPipeServer> server = createObject<CPipeServer>(uniqueAddress());
  for (int i = 0; i < 20; ++i) {
    server->beginAcceptConnection();
    if (i % 2 == 1) {
      EXPECT_FALSE(server->tryAcceptConnection(0));
      server->abortAcceptConnection();
      EXPECT_FALSE(server->tryAcceptConnection(0));
    }
  }
  CConnectedPair pair = acceptClient(server);
  ASSERT_TRUE(pair.serverEnd && pair.clientEnd);
  writeText(pair.serverEnd, "still");
  EXPECT_EQ(readText(pair.clientEnd, 5), "still");
}

TEST(PipeTest, NoServer) {
  const CIPCAddress address = uniqueAddress();
  const auto start = Clock::now();
  EXPECT_FALSE(connectToPipeServerIfAvailable(address, 5000));
  EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(1000));

  // Waiting with zero time-outs still tries five times, 20 ms apart.
  const auto waitStart = Clock::now();
  try {
    connectToPipeServer(address, 0, 0);
    FAIL() << "connected to nothing";
  } catch (const CError& error) {
    EXPECT_EQ(error.getMessage(), "pipe client connection attempts timed out");
    EXPECT_EQ(error.getParams().get("notFoundTimeoutMillis"), "0");
  }
  EXPECT_GE(Clock::now() - waitStart, std::chrono::milliseconds(95));

  EXPECT_THROW(connectToPipeServer(CIPCAddress(), 0, 0), CInvalidArgError);
  EXPECT_THROW(connectToPipeServerIfAvailable(CIPCAddress("zeltest", "", false), 0),
               CInvalidArgError);
  EXPECT_THROW(CPipeServer server{CIPCAddress()}, CInvalidArgError);
}

TEST(PipeTest, AcceptStates) {
  P<CPipeServer> server = createObject<CPipeServer>(uniqueAddress());
  EXPECT_THROW(server->tryAcceptConnection(0), CBadStateError);

  server->beginAcceptConnection();
  EXPECT_FALSE(server->tryAcceptConnection(0));
  EXPECT_FALSE(server->tryAcceptConnection(30));

  // An abort wakes a waiting accept.
  std::atomic<bool> returned{false};
  P<IConnection> accepted;
  std::thread acceptor([&] {
    accepted = server->tryAcceptConnection(-1);
    returned = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(returned);
  server->abortAcceptConnection();
  acceptor.join();
  EXPECT_FALSE(accepted);
  // After the abort: null, not an error, until the next begin.
  EXPECT_FALSE(server->tryAcceptConnection(0));

  // The server still serves after an abort.
  CConnectedPair pair = acceptClient(server);
  ASSERT_TRUE(pair.serverEnd && pair.clientEnd);
  writeText(pair.clientEnd, "ok");
  EXPECT_EQ(readText(pair.serverEnd, 2), "ok");
  // A returned connection needs a new begin before the next accept.
  EXPECT_THROW(server->tryAcceptConnection(0), CBadStateError);
}

TEST(PipeTest, ServesSeveralClientsOneAfterTheOther) {
  const CIPCAddress address = uniqueAddress();
  CPipeServer server(address);
  std::vector<P<IConnection>> clients(3), serverEnds;
  std::vector<std::thread> connectors;
  for (auto& client : clients) {
    connectors.emplace_back([&] { client = connectOrNull(address, 20000); });
  }
  while (serverEnds.size() < clients.size()) {
    server.beginAcceptConnection();
    P<IConnection> serverEnd = server.tryAcceptConnection(20000);
    EXPECT_TRUE(serverEnd);
    if (!serverEnd) break;
    serverEnds.push_back(serverEnd);
  }
  for (auto& connector : connectors) connector.join();
  ASSERT_EQ(serverEnds.size(), clients.size());
  // Each server end talks to exactly one client.
  for (size_t i = 0; i < clients.size(); ++i) {
    ASSERT_TRUE(clients[i]);
    writeText(clients[i], std::string(1, static_cast<char>('a' + i)));
  }
  std::string seen;
  for (auto& serverEnd : serverEnds) seen += readText(serverEnd, 1);
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen, "abc");
}

// --- Across processes ------------------------------------------------------

// args: application ID, name, the parent's process ID. Echoes everything of
// one client back; exit code 0 when the client was the parent.
ZEL_TEST_CHILD(echo_server) {
  if (args.size() != 3) return 20;
  CPipeServer server{CIPCAddress(String(args[0]), String(args[1]), false)};
  server.beginAcceptConnection();
  P<IConnection> connection = server.tryAcceptConnection(60000);
  if (!connection) return 21;
  const int64 peer = peerProcessIDOrUnknown(connection);
  P<IInStream> in = connection->getInStream();
  P<IOutStream> out = connection->getOutStream();
  std::vector<char> buffer(64 * 1024);
  for (;;) {
    in->waitReadable(-1);
    const int got = in->readAvailable(buffer.data(), static_cast<int>(buffer.size()));
    if (got == 0) break;  // ready but nothing: the end
    out->write(buffer.data(), got);
  }
  if (peer != -1 && peer != std::stoll(args[2])) return 22;
  return 0;
}

// args: application ID, name. Accepts one client, sends "R" and then waits
// for a minute (the test kills it long before).
ZEL_TEST_CHILD(hold_server) {
  if (args.size() != 2) return 20;
  CPipeServer server{CIPCAddress(String(args[0]), String(args[1]), false)};
  server.beginAcceptConnection();
  P<IConnection> connection = server.tryAcceptConnection(60000);
  if (!connection) return 21;
  connection->getOutStream()->write("R", 1);
  std::this_thread::sleep_for(std::chrono::seconds(60));
  return 0;
}

TEST(PipeTest, EchoServerInAnotherProcess) {
  const CIPCAddress address = uniqueAddress();
  auto child = test::startTestChild(
      "echo_server",
      {address.getAppID().toStdUTF8(), address.getName().toStdUTF8(), std::to_string(ownProcessID())});
  P<IConnection> connection = connectToPipeServer(address, 30000, 30000);
  ASSERT_TRUE(connection);
  const int64 peer = peerProcessIDOrUnknown(connection);
  if (peer != -1) {
    EXPECT_EQ(peer, child->pid());
  }

  const auto data = pattern(512 * 1024 + 3, 7);
  std::thread writer([&] { writeAll(connection, data); });
  std::vector<unsigned char> echoed(data.size());
  readAll(connection, echoed);
  writer.join();
  EXPECT_TRUE(echoed == data);
  connection->close();
  EXPECT_EQ(child->wait(30000), 0);
}

TEST(PipeTest, KilledPeerEndsReadsAndFailsWritesWithoutHanging) {
  const CIPCAddress address = uniqueAddress();
  auto child = test::startTestChild(
      "hold_server", {address.getAppID().toStdUTF8(), address.getName().toStdUTF8()});
  P<IConnection> connection = connectToPipeServer(address, 30000, 30000);
  ASSERT_TRUE(connection);
  EXPECT_EQ(readText(connection, 1), "R");

  std::string outcome;
  std::thread reader([&] {
    char byte;
    try {
      connection->getInStream()->read(&byte, 1);
      outcome = "read a byte";
    } catch (const CIOError& error) {
      outcome = error.getErrorCode() == CIOError::UnexpectedEnd ? "end" : "other error";
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  child->kill();
  EXPECT_NE(child->wait(30000), -1);
  reader.join();
  EXPECT_EQ(outcome, "end");
  EXPECT_THROW(writeText(connection, "x"), CIOError);
}

}  // namespace
}  // namespace zel
