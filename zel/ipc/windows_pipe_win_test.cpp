// Windows specifics of the named-pipe transport: the pipe path, busy pipes,
// the synchronous out-stream and the process IDs of both ends.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "zel/core/error.h"
#include "zel/internal/win_include.h"
#include "zel/ipc/ipc_address.h"
#include "zel/ipc/windows_pipe.h"

namespace zel {
namespace {

using Clock = std::chrono::steady_clock;

String uniqueName() {
  static int counter = 0;
  return String(("zeltest_w" + std::to_string(GetCurrentProcessId()) + "_" +
                 std::to_string(counter++))
                    .c_str());
}

TEST(WindowsPipeTest, ServerCreatesThePipeUnderThePipePrefix) {
  const String name = uniqueName();
  CWindowsPipeServer server(name, false);
  EXPECT_EQ(server.getPipePath(), L"\\\\.\\pipe\\" + name);
  server.beginAcceptConnection();
  // A plain CreateFileW of the documented path reaches the server.
  HANDLE client = CreateFileW(server.getPipePath().toWChar(), GENERIC_READ | GENERIC_WRITE, 0,
                              nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(client, INVALID_HANDLE_VALUE) << GetLastError();
  P<CWindowsPipeConnection> serverEnd = server.tryAcceptConnection(5000);
  ASSERT_TRUE(serverEnd);
  EXPECT_TRUE(serverEnd->isServerEnd());
  DWORD written = 0;
  ASSERT_TRUE(WriteFile(client, "ping", 4, &written, nullptr));
  char buffer[4];
  serverEnd->getInStream()->read(buffer, 4);
  EXPECT_EQ(std::string(buffer, 4), "ping");
  CloseHandle(client);
  EXPECT_EQ(serverEnd->getInStream()->readLax(buffer, 4), 0);
}

TEST(WindowsPipeTest, GlobalServerAcceptsClients) {
  const String name = uniqueName();
  CWindowsPipeServer server(name, true);
  server.beginAcceptConnection();
  P<CWindowsPipeConnection> client = createObject<CWindowsPipeConnection>(name, 5000, 5000);
  P<CWindowsPipeConnection> serverEnd = server.tryAcceptConnection(5000);
  ASSERT_TRUE(serverEnd);
  client->getOutStream()->write("g", 1);
  char byte = 0;
  serverEnd->getInStream()->read(&byte, 1);
  EXPECT_EQ(byte, 'g');
}

TEST(WindowsPipeTest, BusyPipeIsRetriedThenTimesOut) {
  const String name = uniqueName();
  CWindowsPipeServer server(name, false);
  server.beginAcceptConnection();
  // The only instance is taken by the first client.
  P<CWindowsPipeConnection> first = createObject<CWindowsPipeConnection>(name, 5000, 5000);
  P<CWindowsPipeConnection> serverEnd = server.tryAcceptConnection(5000);
  ASSERT_TRUE(serverEnd);

  const auto start = Clock::now();
  try {
    CWindowsPipeConnection second(name, 0, 0);
    FAIL() << "connected to a busy pipe";
  } catch (const CError& error) {
    EXPECT_EQ(error.getMessage(), "pipe client connection attempts timed out");
    EXPECT_EQ(error.getParams().get("uri"), L"\\\\.\\pipe\\" + name);
    EXPECT_EQ(error.getParams().get("action"), "CWindowsPipeConnection constructor");
  }
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(95));
  // Busy is not "no server": connectIfServerAvailable times out as well.
  EXPECT_THROW(CWindowsPipeConnection::connectIfServerAvailable(name, 0), CError);
}

TEST(WindowsPipeTest, PeerProcessIDs) {
  const String name = uniqueName();
  CWindowsPipeServer server(name, false);
  server.beginAcceptConnection();
  P<CWindowsPipeConnection> client = createObject<CWindowsPipeConnection>(name, 5000, 5000);
  P<CWindowsPipeConnection> serverEnd = server.tryAcceptConnection(5000);
  ASSERT_TRUE(serverEnd);
  try {
    EXPECT_EQ(client->getPeerProcessID(), static_cast<int64>(GetCurrentProcessId()));
    EXPECT_EQ(serverEnd->getPeerProcessID(), static_cast<int64>(GetCurrentProcessId()));
  } catch (const CError& error) {
    const int64 code = error.getErrorCode();
    if (code == ERROR_CALL_NOT_IMPLEMENTED || code == ERROR_NOT_SUPPORTED ||
        code == ERROR_INVALID_FUNCTION) {
      GTEST_SKIP() << "this system cannot tell a pipe's peer: " << error.what();
    }
    throw;
  }
  // A closed end cannot tell, and says which handle it asked about.
  client->close();
  try {
    client->getPeerProcessID();
    FAIL() << "a closed end told its peer";
  } catch (const CError& error) {
    EXPECT_EQ(error.getParams().get("action"), "CWindowsPipeConnection::getPeerProcessID");
    EXPECT_TRUE(error.getParams().has("handle"));
  }
}

TEST(WindowsPipeTest, SyncOutStreamWritesToASynchronousPipe) {
  HANDLE readEnd = nullptr;
  HANDLE writeEnd = nullptr;
  ASSERT_TRUE(CreatePipe(&readEnd, &writeEnd, nullptr, 0));
  {
    P<CWindowsPipeHandle> pipe = createObject<CWindowsPipeHandle>(writeEnd, false);
    EXPECT_FALSE(pipe->isOverlapped());
    P<CWindowsPipeOutStream_Sync> out = createObject<CWindowsPipeOutStream_Sync>(pipe, "anon");
    out->write("sync!", 5);
    EXPECT_EQ(out->getPosition(), 5);
    char buffer[5];
    DWORD got = 0;
    ASSERT_TRUE(ReadFile(readEnd, buffer, 5, &got, nullptr));
    EXPECT_EQ(std::string(buffer, got), "sync!");
    EXPECT_THROW(out->seek(0), CIOError);
  }
  // The handle went with its last owner: the reader sees the end.
  char byte;
  DWORD got = 0;
  EXPECT_FALSE(ReadFile(readEnd, &byte, 1, &got, nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_BROKEN_PIPE));
  CloseHandle(readEnd);

  // Writing into a pipe whose reader is gone fails with CIOError.
  ASSERT_TRUE(CreatePipe(&readEnd, &writeEnd, nullptr, 0));
  CloseHandle(readEnd);
  P<CWindowsPipeOutStream_Sync> out =
      createObject<CWindowsPipeOutStream_Sync>(createObject<CWindowsPipeHandle>(writeEnd, false),
                                               "anon");
  try {
    out->write("x", 1);
    FAIL() << "wrote into a pipe without reader";
  } catch (const CIOError& error) {
    EXPECT_EQ(error.getErrorCode(), CIOError::WriteFailed);
  }
}

TEST(WindowsPipeTest, ProcessUserIDIsASidString) {
  const String id = CIPCAddress::getProcessUserID();
  EXPECT_TRUE(id.startsWithNoCase(L"S-1-")) << id.toStdUTF8();
}

}  // namespace
}  // namespace zel
