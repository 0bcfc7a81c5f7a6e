#include "zel/fs/proxy/proxy_file_system_server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <thread>

#ifndef _WIN32
#include <dirent.h>
#include <unistd.h>
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// From the sanitizer runtime (its header is not installed with GCC).
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

#include "tests/support/proxy_server_test_util.h"
#include "tests/support/temp_folder.h"
#include "zel/core/error.h"
#include "zel/fs/local_file_system.h"
#include "zel/ipc/in_process_connection.h"
#include "zel/log/xml_log.h"
#include "zel/util/system_info.h"

namespace zel {
namespace {

using proxy_test::Bytes;
using proxy_test::CMemFileSystem;
using proxy_test::CRawClient;
using proxy_test::CRequest;
using proxy_test::CResponse;
using proxy_test::parseResponse;
using proxy_test::problemOf;
using proxy_test::Transport;
using Server = CProxyFileSystemServer;

constexpr int kRead = IIOStream::AccessRead;
constexpr int kReadWrite = IIOStream::AccessReadWrite;

// Exposes the protected parts that have contracts of their own.
class CTestServer : public CProxyFileSystemServer {
 public:
  using CProxyFileSystemServer::CProxyFileSystemServer;
  using CProxyFileSystemServer::validateAndSecurePath;
};

bool runsUnderWine() { return getPlatformDescription().getWxString().Contains("Wine"); }

#ifndef _WIN32
int countOpenDescriptors() {
  int count = 0;
  DIR* dir = ::opendir("/proc/self/fd");
  if (!dir) return -1;
  while (struct dirent* entry = ::readdir(dir)) {
    if (entry->d_name[0] != '.') ++count;
  }
  ::closedir(dir);
  return count - 1;  // the listing's own descriptor
}

std::string nativeOf(const String& path) { return path.toStdUTF8(); }
#endif

// args: address name, shared folder.
ZEL_TEST_CHILD(proxy_raw_server) {
  const CURI root = CURI::fromNativePath(CNativePath(String::fromUTF8(args.at(1).c_str())));
  return proxy_test::runChildServer(args.at(0), [root](CProxyFileSystemServer& server) {
    P<CFileSystem> local = createObject<CFileSystem>();
    server.addShare(CURISelector(root), local.get());
    return P<CMemFileSystem>();
  });
}

// A test server (m_server, on an in-process connection) to which requests
// are handed directly, or, once linkTo() was called, sent over a connection
// to a server in this process or in a child process (one per test suite).
class RawServerFixture : public ::testing::Test {
 protected:
  RawServerFixture() {
    auto ends = CInProcessConnection::createPair();
    m_serverEnd = ends.first;
    m_clientEnd = ends.second;
    m_server = createObject<CTestServer>(m_serverEnd.get());
  }
  ~RawServerFixture() override { unlink(); }

  void linkTo(Transport transport, std::unique_ptr<proxy_test::CChildServer>& child,
              const char* childName, proxy_test::ConnectionSetup setup) {
    if (transport == Transport::ChildProcess) {
      if (!child) child = std::make_unique<proxy_test::CChildServer>(childName);
      m_link = std::make_unique<proxy_test::CServerLink>(*child);
    } else {
      m_link = std::make_unique<proxy_test::CServerLink>(std::move(setup));
    }
    m_client = std::make_unique<CRawClient>(m_link->connect().get());
  }
  void unlink() {
    if (m_client) m_client->close();
    m_client.reset();
    m_link.reset();
  }

  CResponse call(CRequest& request) {
    if (m_client) return m_client->roundTrip(request);
    m_lastResponse = m_server->handleMessage(request.message());
    return parseResponse(*m_lastResponse);
  }
  // The response, which must be a result.
  CResponse ok(CRequest& request) {
    CResponse response = call(request);
    EXPECT_EQ(response.type, 1) << response.describe();
    if (!response.isOK())
      throw CError("unexpected error response: " + String::fromUTF8(response.describe().c_str()));
    return response;
  }
  // The error of the response, which must be one.
  P<CError> fails(CRequest& request) {
    CResponse response = call(request);
    EXPECT_EQ(response.type, 0);
    if (!response.error) throw CError("expected an error response");
    return response.error;
  }
  // The handles the serving server holds.
  int64 openHandles() {
    if (!m_client) return m_server->getOpenHandleCount();
    CRequest request(Server::FuncGetFileSectorSize);
    return ok(request.uri(proxy_test::probeHandlesURI())).in->readInt64();
  }

  P<IConnection> m_serverEnd;
  P<IConnection> m_clientEnd;
  P<CTestServer> m_server;
  P<CProxyFileSystemMessage> m_lastResponse;
  std::unique_ptr<proxy_test::CServerLink> m_link;
  std::unique_ptr<CRawClient> m_client;
};

// A server sharing a temporary folder of the local file system; with a child
// server, the test works in a fresh subfolder of the child's shared folder.
class ServerTest : public RawServerFixture {
 protected:
  ServerTest() {
    m_fs = createObject<CFileSystem>();
    m_folder = m_temp.getPath();
    m_root = m_shareRoot = CURI::fromNativePath(CNativePath(m_folder));
    m_server->addShare(CURISelector(m_root), m_fs.get());
  }
  ~ServerTest() override {
    unlink();
    m_server = nullptr;
    m_fs->dispose();
  }

  void link(Transport transport, std::unique_ptr<proxy_test::CChildServer>& child) {
    if (transport == Transport::ChildProcess) {
      if (!child) child = std::make_unique<proxy_test::CChildServer>("proxy_raw_server");
      m_folder = child->newTestFolder();
      m_root = CURI::fromNativePath(CNativePath(m_folder));
      m_shareRoot = CURI::fromNativePath(CNativePath(child->getFolder()));
    }
    linkTo(transport, child, "proxy_raw_server", [this](CProxyFileSystemServer& server) {
      server.addShare(CURISelector(m_root), m_fs.get());
      return P<CMemFileSystem>();
    });
  }
  String folderFile(const std::string& name) const {
    return m_folder + "/" + String::fromUTF8(name.c_str());
  }

  CURI uri(const std::string& relative) const {
    CURI result = m_root;
    std::stringstream parts(relative);
    std::string part;
    while (std::getline(parts, part, '/')) result = result.append(String::fromUTF8(part.c_str()));
    return result;
  }

  void writeFile(const std::string& relative, const std::string& bytes) {
    P<IIOStream> stream =
        m_fs->createStream(uri(relative), IIOStream::AccessReadWrite, IIOStream::FlagTruncate);
    stream->write(bytes.data(), static_cast<int>(bytes.size()));
    stream->close();
  }
  std::string readFile(const std::string& relative) {
    P<IIOStream> stream =
        m_fs->createStream(uri(relative), IIOStream::AccessRead, TFlags<IIOStream::Flags>());
    std::string bytes(static_cast<size_t>(stream->getLength()), '\0');
    if (!bytes.empty()) stream->read(bytes.data(), static_cast<int>(bytes.size()));
    return bytes;
  }

  int64 openStream(const std::string& relative, int access, int flags = 0) {
    CRequest request(Server::FuncStreamOpen);
    request.uri(uri(relative)).i32(access).i32(flags);
    return ok(request).in->readInt64();
  }

  test::CTempFolder m_temp;
  P<CFileSystem> m_fs;
  String m_folder;   // this test's folder
  CURI m_root;       // the same
  CURI m_shareRoot;  // the shared folder
};

// Every test twice: the server in this process and in a child process.
class ServerLinkTest : public ServerTest, public ::testing::WithParamInterface<Transport> {
 protected:
  ServerLinkTest() { link(GetParam(), s_child); }
  static void TearDownTestSuite() { s_child.reset(); }
  static inline std::unique_ptr<proxy_test::CChildServer> s_child;
};
INSTANTIATE_TEST_SUITE_P(, ServerLinkTest, ::testing::Values(Transport::InProcess, Transport::ChildProcess),
                         proxy_test::transportName);

// ---------------------------------------------------------------------------
// Every handler against the local file system

TEST_P(ServerLinkTest, FoldersExistenceAndDeletion) {
  CRequest create(Server::FuncCreateFolder);
  ok(create.uri(uri("d")).i32(0));
  CRequest createAgain(Server::FuncCreateFolder);
  EXPECT_TRUE(isFileOrFolderAlreadyExistsError(*fails(createAgain.uri(uri("d")).i32(0))));

  CRequest ensure(Server::FuncEnsureFolderExists);
  EXPECT_FALSE(ok(ensure.uri(uri("d")).i32(0)).in->readBool());
  CRequest ensureDeep(Server::FuncEnsureFolderExists);
  EXPECT_TRUE(ok(ensureDeep.uri(uri("e/f")).i32(IFileSystem::CreateFolderParents)).in->readBool());
  CRequest ensureFile(Server::FuncEnsureFileExists);
  ok(ensureFile.uri(uri("d/x.txt")));

  auto ask = [&](int func, const std::string& relative) {
    CRequest request(func);
    return ok(request.uri(uri(relative))).in->readBool();
  };
  EXPECT_TRUE(ask(Server::FuncFolderExists, "d"));
  EXPECT_FALSE(ask(Server::FuncFileExists, "d"));
  EXPECT_TRUE(ask(Server::FuncFileExists, "d/x.txt"));
  EXPECT_FALSE(ask(Server::FuncFolderExists, "d/x.txt"));
  EXPECT_TRUE(ask(Server::FuncPathExists, "d/x.txt"));
  EXPECT_FALSE(ask(Server::FuncPathExists, "nothing"));
  EXPECT_FALSE(ask(Server::FuncIsFolderEmpty, "d"));
  EXPECT_TRUE(ask(Server::FuncIsFolderEmpty, "e/f"));
  EXPECT_TRUE(ask(Server::FuncQuickCheckFolderAccessible, "d"));
  EXPECT_FALSE(ask(Server::FuncQuickCheckFolderAccessible, "nothing"));

  CRequest deleteFile(Server::FuncDeleteFile);
  ok(deleteFile.uri(uri("d/x.txt")).b(false));
  EXPECT_FALSE(ask(Server::FuncPathExists, "d/x.txt"));
  CRequest deleteFolder(Server::FuncDeleteEmptyFolder);
  ok(deleteFolder.uri(uri("e/f")).b(false));
  EXPECT_FALSE(ask(Server::FuncPathExists, "e/f"));
  CRequest deleteFolderAsFile(Server::FuncDeleteFile);
  EXPECT_EQ(problemOf(*fails(deleteFolderAsFile.uri(uri("d")).b(false))),
            CFileSystemError::ProblemWrongType);
}

TEST_P(ServerLinkTest, VolumeNamesSpaceAndAccount) {
  CRequest create(Server::FuncCreateFolder);
  ok(create.uri(uri("d")).i32(0));
  writeFile("d/x.txt", "x");

  CRequest free(Server::FuncGetFreeSpaceInFolder);
  EXPECT_GT(ok(free.uri(uri("d"))).in->readInt64(), 0);
  CRequest sector(Server::FuncGetFileSectorSize);
  EXPECT_GT(ok(sector.uri(uri("d/x.txt"))).in->readInt64(), 0);
  CRequest account(Server::FuncGetAccountOrUserNameUsedForAccess);
  EXPECT_EQ(ok(account.uri(uri("d"))).in->readString(),
            m_fs->getAccountOrUserNameUsedForAccess(uri("d")));
  // Identity share: the volume root is passed on as the file system gives it.
  CRequest volume(Server::FuncGetVolumeRootPath);
  EXPECT_EQ(CURI(ok(volume.uri(uri("d"))).in->readString()), m_fs->getVolumeRootPath(uri("d")));

  CRequest uniqueFile(Server::FuncCreateUniqueFilename);
  EXPECT_EQ(CURI(ok(uniqueFile.uri(uri("d")).str("x.txt")).in->readString()),
            uri("d").append("x (2).txt"));
  CRequest uniqueFolder(Server::FuncCreateUniqueFolderName);
  EXPECT_EQ(CURI(ok(uniqueFolder.uri(uri("d")).str("x.txt")).in->readString()),
            uri("d").append("x.txt (2)"));
}

TEST_P(ServerLinkTest, MoveAndCopy) {
  writeFile("a.txt", "abc");
  CRequest copy(Server::FuncCopyFile);
  ok(copy.uri(uri("a.txt")).uri(uri("b.txt")).b(false));
  EXPECT_EQ(readFile("b.txt"), "abc");
  CRequest copyAgain(Server::FuncCopyFile);
  EXPECT_TRUE(isFileOrFolderAlreadyExistsError(
      *fails(copyAgain.uri(uri("a.txt")).uri(uri("b.txt")).b(false))));

  CRequest move(Server::FuncMoveFile);
  ok(move.uri(uri("b.txt")).uri(uri("c.txt")).b(false));
  EXPECT_FALSE(m_fs->pathExists(uri("b.txt")));
  EXPECT_EQ(readFile("c.txt"), "abc");
}

TEST_P(ServerLinkTest, StreamHandlers) {
  const int64 stream = openStream("s.bin", kReadWrite);
  CRequest write(Server::FuncStreamWrite);
  ok(write.i64(stream).i64(0).i32(11).raw("hello world"));
  CRequest flush(Server::FuncStreamFlush);
  ok(flush.i64(stream));
  CRequest length(Server::FuncStreamGetLength);
  EXPECT_EQ(ok(length.i64(stream)).in->readInt64(), 11);
  CRequest position(Server::FuncStreamGetPosition);
  EXPECT_EQ(ok(position.i64(stream)).in->readInt64(), 11);

  CRequest seek(Server::FuncStreamSeek);
  ok(seek.i64(stream).i64(6));
  CRequest readLax(Server::FuncStreamReadLax);
  CResponse read = ok(readLax.i64(stream).i32(100));
  const int got = read.in->readInt32();
  EXPECT_EQ(read.readBytes(got), "world");
  EXPECT_TRUE(read.atEnd());
  CRequest isEnd(Server::FuncStreamIsEnd);
  EXPECT_TRUE(ok(isEnd.i64(stream)).in->readBool());
  CRequest isEndNow(Server::FuncStreamIsEnd_NonBlocking);
  EXPECT_EQ(ok(isEndNow.i64(stream)).in->readInt32(), 1);

  CRequest rewind(Server::FuncStreamSeek);
  ok(rewind.i64(stream).i64(0));
  CRequest readable(Server::FuncStreamWaitReadable);
  EXPECT_TRUE(ok(readable.i64(stream).i32(0)).in->readBool());
  CRequest readAvailable(Server::FuncStreamReadAvailable);
  CResponse available = ok(readAvailable.i64(stream).i32(5));
  EXPECT_EQ(available.readBytes(available.in->readInt32()), "hello");
  CRequest notAtEnd(Server::FuncStreamIsEnd_NonBlocking);
  EXPECT_EQ(ok(notAtEnd.i64(stream)).in->readInt32(), 0);
  CRequest nothing(Server::FuncStreamReadLax);
  EXPECT_EQ(ok(nothing.i64(stream).i32(0)).in->readInt32(), 0);

  CRequest setLength(Server::FuncStreamSetLength);
  ok(setLength.i64(stream).i64(5));
  CRequest newLength(Server::FuncStreamGetLength);
  EXPECT_EQ(ok(newLength.i64(stream)).in->readInt64(), 5);

  CRequest barrier(Server::FuncStreamCreateWriteBarrier);
  const int64 first = ok(barrier.i64(stream).i64(0)).in->readInt64();
  CRequest child(Server::FuncStreamCreateWriteBarrier);
  const int64 second = ok(child.i64(stream).i64(first)).in->readInt64();
  EXPECT_EQ(second, first + 1);
  CRequest end(Server::FuncStreamSeek);
  ok(end.i64(stream).i64(5));
  CRequest barrierWrite(Server::FuncStreamWrite);
  ok(barrierWrite.i64(stream).i64(second).i32(1).raw("!"));
  CRequest release(Server::FuncWriteBarrierRelease);
  ok(release.i64(second));
  CRequest releaseFirst(Server::FuncWriteBarrierRelease);
  ok(releaseFirst.i64(first));
  CRequest writeReleased(Server::FuncStreamWrite);
  EXPECT_EQ(fails(writeReleased.i64(stream).i64(second).i32(1).raw("?"))->getMessage(),
            "Invalid proxy write barrier ID: " + String::fromInt64(second));

  CRequest lock(Server::FuncStreamLockRange);
  const int64 lockHandle =
      ok(lock.i64(stream).i64(0).i64(3).i32(IStreamBase::Exclusive)).in->readInt64();
  EXPECT_EQ(openHandles(), 2);
  CRequest unlock(Server::FuncLockRelease);
  ok(unlock.i64(lockHandle));
  CRequest badLock(Server::FuncStreamLockRange);
  EXPECT_TRUE(fails(badLock.i64(stream).i64(0).i64(3).i32(7))
                  ->getMessage()
                  .getWxString()
                  .Contains("lock type"));

  CRequest close(Server::FuncStreamClose);
  ok(close.i64(stream));
  EXPECT_EQ(readFile("s.bin"), "hello!");
  CRequest closeAgain(Server::FuncStreamClose);
  P<CError> error = fails(closeAgain.i64(stream));
  EXPECT_EQ(error->getMessage(), "Invalid proxy stream ID: " + String::fromInt64(stream));
  EXPECT_EQ(error->getErrorCode(), -1);
  EXPECT_EQ(openHandles(), 0);
}

TEST_P(ServerLinkTest, StreamArgumentsAreChecked) {
  writeFile("a.txt", "abc");
  // Open modes: unknown bits refused here, bad combinations by the file system.
  CRequest unknownFlag(Server::FuncStreamOpen);
  EXPECT_TRUE(fails(unknownFlag.uri(uri("a.txt")).i32(kRead).i32(0x10))
                  ->getMessage()
                  .getWxString()
                  .Contains("unknown open flags"));
  CRequest truncateRead(Server::FuncStreamOpen);
  EXPECT_EQ(
      fails(truncateRead.uri(uri("a.txt")).i32(kRead).i32(IIOStream::FlagTruncate))->getMessage(),
      CInvalidArgError("CFileStream::getWindowsOpenType",
                       "FlagTruncate can only be used if write access is requested.")
          .getMessage());
  EXPECT_EQ(readFile("a.txt"), "abc");

  const int64 stream = openStream("a.txt", kReadWrite);
  CRequest tooMuch(Server::FuncStreamReadLax);
  fails(tooMuch.i64(stream).i32(Server::kMaxDataChunk + 1));
  // A write announcing more bytes than the request holds.
  CRequest shortWrite(Server::FuncStreamWrite);
  P<CError> error = fails(shortWrite.i64(stream).i64(0).i32(1000).raw("xy"));
  EXPECT_TRUE(error->isError("IO", CIOError::InvalidData));
  CRequest negativeWrite(Server::FuncStreamWrite);
  fails(negativeWrite.i64(stream).i64(0).i32(-1));
  EXPECT_EQ(readFile("a.txt"), "abc");

  // Unknown handles of every table.
  CRequest noStream(Server::FuncStreamGetLength);
  EXPECT_EQ(fails(noStream.i64(999))->getMessage(), "Invalid proxy stream ID: 999");
  CRequest noInfo(Server::FuncFileInfoGet);
  EXPECT_EQ(fails(noInfo.i64(998))->getMessage(), "Invalid proxy file info ID: 998");
  CRequest noModifier(Server::FuncMetaModifierApplyCachedChanges);
  EXPECT_EQ(fails(noModifier.i64(997))->getMessage(), "Invalid meta modifier ID: 997");
  CRequest noBarrier(Server::FuncStreamCreateWriteBarrier);
  EXPECT_EQ(fails(noBarrier.i64(stream).i64(996))->getMessage(),
            "Invalid proxy write barrier ID: 996");
  CRequest noOp(Server::FuncBackgroundOpsFinalize);
  EXPECT_EQ(fails(noOp.i64(995).i64(-1))->getMessage(), "Invalid background op ID: 995");
  // Releasing something unknown is harmless.
  CRequest noLock(Server::FuncLockRelease);
  ok(noLock.i64(994));
  CRequest noInfoClose(Server::FuncFileInfoClose);
  ok(noInfoClose.i64(993));
}

// Counts and lengths that cannot be negative are refused, naming the
// handler, before the stream is touched; the connection goes on.
TEST_P(ServerLinkTest, NegativeCountsAreRefused) {
  writeFile("a.txt", "abc");
  const int64 stream = openStream("a.txt", kReadWrite);
  auto refused = [&](CRequest& request, const std::string& function, const std::string& what) {
    P<CError> error = fails(request);
    EXPECT_EQ(error->getMessage().toStdUTF8(),
              "Invalid argument passed to 'CProxyFileSystemServer::" + function + "': " + what);
  };
  CRequest readLax(Server::FuncStreamReadLax);
  refused(readLax.i64(stream).i32(-1), "handler_streamReadLax", "negative byte count: -1");
  CRequest readAvailable(Server::FuncStreamReadAvailable);
  refused(readAvailable.i64(stream).i32(-7), "handler_streamReadAvailable",
          "negative byte count: -7");
  CRequest setLength(Server::FuncStreamSetLength);
  refused(setLength.i64(stream).i64(-1), "handler_streamSetLength", "negative length: -1");
  CRequest lockStart(Server::FuncStreamLockRange);
  refused(lockStart.i64(stream).i64(-1).i64(2).i32(IStreamBase::Shared), "handler_streamLockRange",
          "negative start: -1");
  CRequest lockBytes(Server::FuncStreamLockRange);
  refused(lockBytes.i64(stream).i64(0).i64(-2).i32(IStreamBase::Shared),
          "handler_streamLockRange", "negative byte count: -2");
  CRequest write(Server::FuncStreamWrite);
  refused(write.i64(stream).i64(0).i32(-1), "handler_streamWrite",
          "data length -1 is outside 0 to 16777216");
  CRequest store(Server::FuncBackgroundStoreBegin);
  refused(store.uri(uri("b.txt")).i64(-1).b(true), "handler_backgroundStoreBegin",
          "data length -1 is outside 0 to 16777216");

  CRequest position(Server::FuncStreamGetPosition);
  EXPECT_EQ(ok(position.i64(stream)).in->readInt64(), 0);
  EXPECT_EQ(readFile("a.txt"), "abc");
  EXPECT_FALSE(m_fs->pathExists(uri("b.txt")));
  EXPECT_EQ(openHandles(), 1);
}

TEST_P(ServerLinkTest, SubDataStreamOpensOrIsUnsupported) {
  writeFile("a.txt", "abc");
  CRequest open(Server::FuncSubDataStreamOpen);
  CResponse response = call(open.uri(uri("a.txt")).str("meta").i32(kReadWrite).i32(0));
  if (response.isOK()) {
    const int64 stream = response.in->readInt64();
    CRequest write(Server::FuncStreamWrite);
    ok(write.i64(stream).i64(0).i32(2).raw("md"));
    CRequest close(Server::FuncStreamClose);
    ok(close.i64(stream));
    P<IIOStream> check = m_fs->createSubDataStream(uri("a.txt"), "meta", IIOStream::AccessRead,
                                                   TFlags<IIOStream::Flags>());
    EXPECT_EQ(check->getLength(), 2);
  } else {
    ASSERT_TRUE(response.error);
    EXPECT_TRUE(couldBeUnsupportedError(*response.error)) << response.describe();
  }
  EXPECT_EQ(readFile("a.txt"), "abc");
}

TEST_P(ServerLinkTest, FileInfoHandlesAndItems) {
  writeFile("a.txt", "abcd");
  CRequest open(Server::FuncFileInfoOpen);
  CResponse response = ok(open.uri(uri("a.txt")).b(true));
  const int64 info = response.in->readInt64();
  P<CFileInfoBase> first = createObject<CFileInfoBase>();
  const uint64 mask = Server::readInfoItems(*response.in, *first);
  EXPECT_TRUE(response.atEnd());
  EXPECT_EQ(first->getType(), IFileInfoBase::TypeFile);
  EXPECT_EQ(first->getSize(), 4);
  EXPECT_NE(mask & IFileInfoBase::CachedSize, 0u);
  // The has*Info flags always come along.
  EXPECT_NE(mask & Server::kInfoHasWindowsInfo, 0u);
  EXPECT_NE(mask & Server::kInfoHasUnixInfo, 0u);
  P<IFileInfoBase> local = m_fs->getFileInfo(uri("a.txt"), true);
  EXPECT_EQ(first->hasUnixInfo(), local->hasUnixInfo());
  EXPECT_EQ(first->getDataModifiedTime(), local->getDataModifiedTime());

  CRequest get(Server::FuncFileInfoGet);
  CResponse all = ok(get.i64(info));
  P<CFileInfoBase> second = createObject<CFileInfoBase>();
  const uint64 allItems = Server::kAllInfoItems;  // a copy: the member is not exported
  EXPECT_EQ(Server::readInfoItems(*all.in, *second), allItems);
  EXPECT_EQ(second->getSize(), 4);
  EXPECT_EQ(second->getUnixUserName(), local->getUnixUserName());

  CRequest close(Server::FuncFileInfoClose);
  ok(close.i64(info));
  CRequest getClosed(Server::FuncFileInfoGet);
  EXPECT_EQ(fails(getClosed.i64(info))->getMessage(),
            "Invalid proxy file info ID: " + String::fromInt64(info));
}

TEST_P(ServerLinkTest, HandlesOfDifferentKindsAreConsecutive) {
  writeFile("a.txt", "abc");
  const int64 stream = openStream("a.txt", kRead);
  CRequest info(Server::FuncFileInfoOpen);
  const int64 infoHandle = ok(info.uri(uri("a.txt")).b(false)).in->readInt64();
  CRequest modifier(Server::FuncMetaModifierOpen);
  const int64 modifierHandle = ok(modifier.uri(uri("a.txt")).b(true)).in->readInt64();
  EXPECT_EQ(stream, 1);
  EXPECT_EQ(infoHandle, stream + 1);
  EXPECT_EQ(modifierHandle, stream + 2);
  // Closing never frees a number for reuse.
  CRequest close(Server::FuncStreamClose);
  ok(close.i64(stream));
  EXPECT_EQ(openStream("a.txt", kRead), stream + 3);
}

// The entries of a getFolderContents result by name; the type sent before
// each entry's items must be the one they carry.
std::map<std::string, P<CFileInfoBase>> readListing(CResponse& response) {
  std::map<std::string, P<CFileInfoBase>> entries;
  for (;;) {
    const String name = response.in->readString();
    if (name.isEmpty()) break;
    const int type = response.in->readInt32();
    P<CFileInfoBase> info = createObject<CFileInfoBase>();
    Server::readInfoItems(*response.in, *info);
    EXPECT_EQ(info->getType(), type) << name.toStdUTF8();
    entries[name.toStdUTF8()] = info;
  }
  EXPECT_TRUE(response.atEnd());
  return entries;
}

#ifndef _WIN32
// The items of a fileInfoOpen result, after its handle (for the link tests).
P<CFileInfoBase> readOpenedInfo(CResponse& response) {
  response.in->readInt64();
  P<CFileInfoBase> info = createObject<CFileInfoBase>();
  Server::readInfoItems(*response.in, *info);
  return info;
}
#endif

// Beyond the limit every kind of handle is refused before anything is done;
// the connection stays usable and closing a handle makes room again.
TEST_F(ServerTest, HandleLimitRefusesMoreUntilOneIsClosed) {
  writeFile("a.txt", "abc");
  m_server->setMaxOpenHandles(4);
  const int64 stream = openStream("a.txt", kReadWrite);
  CRequest info(Server::FuncFileInfoOpen);
  ok(info.uri(uri("a.txt")).b(true));
  CRequest barrier(Server::FuncStreamCreateWriteBarrier);
  ok(barrier.i64(stream).i64(0));
  CRequest lock(Server::FuncStreamLockRange);
  const int64 lockHandle =
      ok(lock.i64(stream).i64(0).i64(1).i32(IStreamBase::Shared)).in->readInt64();

  auto refused = [&](CRequest& request) {
    P<CError> error = fails(request);
    EXPECT_EQ(error->getMessage(),
              "Too many open handles on this proxy connection (the limit is 4); close some "
              "first.");
    EXPECT_EQ(problemOf(*error), CFileSystemError::ProblemOutOfSpace);
    EXPECT_EQ(error->getParams().get("maxOpenHandles"), "4");
  };
  CRequest open(Server::FuncStreamOpen);
  refused(open.uri(uri("b.txt")).i32(kReadWrite).i32(0));
  CRequest modifier(Server::FuncMetaModifierOpen);
  refused(modifier.uri(uri("a.txt")).b(true));
  CRequest secondLock(Server::FuncStreamLockRange);
  refused(secondLock.i64(stream).i64(1).i64(1).i32(IStreamBase::Shared));
  CRequest folder(Server::FuncBackgroundCreateFolderBegin);
  refused(folder.uri(uri("d")).i32(0));
  CRequest store(Server::FuncBackgroundStoreBegin);
  refused(store.uri(uri("c.txt")).i64(1).b(true).raw("c"));
  EXPECT_EQ(openHandles(), 4);
  // Nothing was started.
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(m_fs->pathExists(uri("b.txt")));
  EXPECT_FALSE(m_fs->pathExists(uri("c.txt")));
  EXPECT_FALSE(m_fs->pathExists(uri("d")));

  CRequest exists(Server::FuncFileExists);
  EXPECT_TRUE(ok(exists.uri(uri("a.txt"))).in->readBool());
  CRequest release(Server::FuncLockRelease);
  ok(release.i64(lockHandle));
  CRequest again(Server::FuncMetaModifierOpen);
  ok(again.uri(uri("a.txt")).b(true));
  CRequest full(Server::FuncFileInfoOpen);
  refused(full.uri(uri("a.txt")).b(true));
}

TEST_P(ServerLinkTest, FolderContentsListsEveryEntry) {
  writeFile("a.txt", "abc");
  CRequest create(Server::FuncCreateFolder);
  ok(create.uri(uri("d")).i32(0));
  CRequest list(Server::FuncGetFolderContents);
  CResponse response = ok(list.uri(m_root));
  std::map<std::string, int> entries;
  for (const auto& [name, info] : readListing(response)) entries[name] = info->getType();
  EXPECT_EQ(entries, (std::map<std::string, int>{{"a.txt", IFileInfoBase::TypeFile},
                                                 {"d", IFileInfoBase::TypeFolder}}));
}

TEST_P(ServerLinkTest, NativeMetaData) {
  writeFile("a.txt", "abc");
  CRequest request(Server::FuncGetNativeMetaData);
  CResponse response = call(request.uri(uri("a.txt")).b(true).str(""));
  if (!response.isOK() && runsUnderWine()) {
    GTEST_SKIP() << "Wine's BackupRead: " << response.describe();
  }
  if (!response.isOK()) {
    // A file system without extended attributes.
    ASSERT_TRUE(response.error);
    EXPECT_TRUE(couldBeUnsupportedError(*response.error)) << response.describe();
    return;
  }
#ifdef _WIN32
  EXPECT_EQ(response.in->readString(), "BackupRead");
#else
  EXPECT_EQ(response.in->readString(), "xattr");
#endif
  EXPECT_TRUE(response.in->readBool());
  const int count = response.in->readInt32();
  P<IFileSystem::CNativeMetaData> local = m_fs->getNativeMetaData(uri("a.txt"), true, "");
  EXPECT_EQ(count, static_cast<int>(local->getSize()));
  response.readBytes(count);
  EXPECT_TRUE(response.atEnd());
  CRequest unknownPart(Server::FuncGetNativeMetaData);
  fails(unknownPart.uri(uri("a.txt")).b(true).str("no such part"));
}

TEST_P(ServerLinkTest, MetaModifierHandlers) {
  writeFile("a.txt", "abc");
  CRequest open(Server::FuncMetaModifierOpen);
  const int64 modifier = ok(open.uri(uri("a.txt")).b(true)).in->readInt64();
  const CTime when(1577836800000000);  // 2020-01-01
  CRequest modified(Server::FuncMetaModifierSetDataModifiedTime);
  ok(modified.i64(modifier).i64(when.getMicroseconds()));
  CRequest created(Server::FuncMetaModifierSetCreatedTime);
  ok(created.i64(modifier).i64(when.getMicroseconds()));
  CRequest indexable(Server::FuncMetaModifierSetIndexable);
  ok(indexable.i64(modifier).b(true));
  CRequest hidden(Server::FuncMetaModifierSetHidden);
  ok(hidden.i64(modifier).b(false));
  CRequest readOnly(Server::FuncMetaModifierSetReadOnly);
  ok(readOnly.i64(modifier).b(false));
  CRequest attributes(Server::FuncMetaModifierSetWindowsAttributes);
  ok(attributes.i64(modifier).u64(0x20));  // FILE_ATTRIBUTE_ARCHIVE
  CRequest mode(Server::FuncMetaModifierSetUnixMode);
  ok(mode.i64(modifier).u64(0640));

  // Nothing reaches the file before the changes are applied.
  EXPECT_NE(m_fs->getFileInfo(uri("a.txt"), true)->getDataModifiedTime(), when);
  CRequest apply(Server::FuncMetaModifierApplyCachedChanges);
  ok(apply.i64(modifier));
  P<IFileInfoBase> info = m_fs->getFileInfo(uri("a.txt"), true);
  EXPECT_EQ(info->getDataModifiedTime(), when);
#ifndef _WIN32
  EXPECT_EQ(info->getUnixMode() & 0777, 0640);
#endif

  CRequest close(Server::FuncMetaModifierClose);
  ok(close.i64(modifier));
  CRequest applyClosed(Server::FuncMetaModifierApplyCachedChanges);
  EXPECT_EQ(fails(applyClosed.i64(modifier))->getMessage(),
            "Invalid meta modifier ID: " + String::fromInt64(modifier));
}

TEST_P(ServerLinkTest, HardLinkHandlers) {
  writeFile("a.txt", "abc");
  CRequest folder(Server::FuncCreateFolder);
  ok(folder.uri(uri("d")).i32(0));

  CRequest hardLink(Server::FuncCreateFileHardLink);
  CResponse hard = call(hardLink.uri(uri("h.txt")).uri(uri("a.txt")));
  ASSERT_TRUE(hard.isOK()) << hard.describe();
  EXPECT_EQ(readFile("h.txt"), "abc");
  EXPECT_TRUE(m_fs->getFileInfo(uri("a.txt"), true)->isHardLinked());

  CRequest folderHardLink(Server::FuncCreateFolderHardLink);
  CResponse junction = call(folderHardLink.uri(uri("j")).uri(uri("d")));
#ifndef _WIN32
  // Linux has no hard links to folders.
  ASSERT_FALSE(junction.isOK());
  EXPECT_TRUE(couldBeUnsupportedError(*junction.error)) << junction.describe();
#else
  if (!junction.isOK() && runsUnderWine()) {
    GTEST_SKIP() << "Wine has no junctions: " << junction.describe();
  }
  ASSERT_TRUE(junction.isOK()) << junction.describe();
  EXPECT_TRUE(m_fs->folderExists(uri("j")));
#endif
}

TEST_P(ServerLinkTest, SymLinkHandlers) {
#ifdef _WIN32
  GTEST_SKIP() << "Wine has no symbolic links";
#else
  writeFile("a.txt", "abc");
  CRequest folder(Server::FuncCreateFolder);
  ok(folder.uri(uri("d")).i32(0));

  CRequest fileLink(Server::FuncCreateFileSymLink);
  ok(fileLink.uri(uri("a.txt")).uri(uri("s.txt")));
  EXPECT_EQ(readFile("s.txt"), "abc");
  EXPECT_EQ(m_fs->getFileInfo(uri("s.txt"), false)->getSymLinkType(), IFileInfoBase::SymLinkFile);
  CRequest deleteLink(Server::FuncDeleteSymLink);
  ok(deleteLink.uri(uri("s.txt")));
  EXPECT_FALSE(m_fs->pathExists(uri("s.txt")));
  EXPECT_TRUE(m_fs->fileExists(uri("a.txt")));

  CRequest folderLink(Server::FuncCreateFolderSymLink);
  ok(folderLink.uri(uri("d")).uri(uri("ds")));
  EXPECT_TRUE(m_fs->folderExists(uri("ds")));
  CRequest unlink(Server::FuncUnlinkFolder);
  ok(unlink.uri(uri("ds")));
  EXPECT_FALSE(m_fs->pathExists(uri("ds")));
  EXPECT_TRUE(m_fs->folderExists(uri("d")));
#endif
}

// Asks backgroundOpsFinalize for handles until all were reported; each must
// be reported exactly once. Returns handle -> error (null: succeeded).
std::map<int64, P<CError>> finalizeAll(const std::function<CResponse(CRequest&)>& call,
                                       const std::vector<int64>& handles) {
  std::map<int64, P<CError>> reported;
  std::vector<int64> outstanding = handles;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!outstanding.empty() && std::chrono::steady_clock::now() < deadline) {
    CRequest request(Server::FuncBackgroundOpsFinalize);
    for (int64 handle : outstanding) request.i64(handle);
    request.i64(-1);
    CResponse response = call(request);
    if (!response.isOK()) {
      ADD_FAILURE() << response.describe();
      break;
    }
    for (;;) {
      const int64 handle = response.in->readInt64();
      if (handle == -1) break;
      EXPECT_EQ(reported.count(handle), 0u) << "reported twice: " << handle;
      const bool failed = response.in->readBool();
      reported[handle] = failed ? loadError(*response.in) : P<CError>();
      outstanding.erase(std::remove(outstanding.begin(), outstanding.end(), handle),
                        outstanding.end());
    }
    if (!outstanding.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_TRUE(outstanding.empty()) << "background operations never finished";
  return reported;
}

TEST_P(ServerLinkTest, BackgroundOperationsRunAndAreReportedOnce) {
  CRequest store(Server::FuncBackgroundStoreBegin);
  const int64 stored = ok(store.uri(uri("bg.txt")).i64(5).b(false).raw("hello")).in->readInt64();
  CRequest folder(Server::FuncBackgroundCreateFolderBegin);
  const int64 created = ok(folder.uri(uri("bgd")).i32(0)).in->readInt64();
  CRequest move(Server::FuncBackgroundMoveFileBegin);
  const int64 moved =
      ok(move.uri(uri("bg.txt")).uri(uri("bgd/moved.txt")).b(false)).in->readInt64();
  CRequest remove(Server::FuncBackgroundDeleteFileBegin);
  const int64 deleted = ok(remove.uri(uri("missing.txt"))).in->readInt64();
  EXPECT_EQ(openHandles(), 4);

  auto reported = finalizeAll([this](CRequest& r) { return call(r); }, {stored, created, moved, deleted});
  ASSERT_EQ(reported.size(), 4u);
  EXPECT_FALSE(reported[stored]);
  EXPECT_FALSE(reported[created]);
  EXPECT_FALSE(reported[moved]);
  ASSERT_TRUE(reported[deleted]);
  EXPECT_EQ(problemOf(*reported[deleted]), CFileSystemError::ProblemNotFound);
  EXPECT_EQ(readFile("bgd/moved.txt"), "hello");
  // Reported operations are forgotten.
  EXPECT_EQ(openHandles(), 0);
  CRequest again(Server::FuncBackgroundOpsFinalize);
  EXPECT_EQ(fails(again.i64(stored).i64(-1))->getMessage(),
            "Invalid background op ID: " + String::fromInt64(stored));

  // A store announcing more data than it carries starts nothing.
  CRequest shortStore(Server::FuncBackgroundStoreBegin);
  fails(shortStore.uri(uri("short.txt")).i64(100).b(false).raw("abc"));
  CRequest hugeStore(Server::FuncBackgroundStoreBegin);
  fails(hugeStore.uri(uri("short.txt")).i64(int64{1} << 40).b(false));
  EXPECT_EQ(openHandles(), 0);
}

// ---------------------------------------------------------------------------
// Dispatch, frames and the connection

TEST_P(ServerLinkTest, UnknownFunctionsLeaveTheConnectionUsable) {
  for (int func : {42, 43, 99, 64, -1}) {
    CRequest unknown(func);
    P<CError> error = fails(unknown);
    EXPECT_EQ(error->getMessage(), "Unknown proxy filesystem function: " + String::fromInt64(func));
    EXPECT_EQ(error->getErrorCode(), -1);
    CRequest next(Server::FuncFolderExists);
    EXPECT_TRUE(ok(next.uri(m_root)).in->readBool());
  }
}

TEST_P(ServerLinkTest, EmptyFrameIsAnErrorResponse) {
  m_client->send(Bytes{0, 0, 0, 0});
  CResponse response = m_client->receive();
  ASSERT_EQ(response.type, 0);
  EXPECT_TRUE(response.error->isError("IO", CIOError::UnexpectedEnd)) << response.describe();
  // The connection goes on.
  CRequest next(Server::FuncFolderExists);
  EXPECT_TRUE(ok(next.uri(m_root)).in->readBool());
}

// The test servers take a frame that has begun with handleMessageIfAvailable
// (proxy_server_test_util.h): a request sent together with the first 1 to 3
// bytes of the next one is answered, then the next once its rest arrives.
TEST_P(ServerLinkTest, FramesArrivingInPiecesAreAnswered) {
  CRequest first(Server::FuncFolderExists);
  const Bytes whole = first.uri(m_root).frame();
  for (size_t prefix = 1; prefix <= 3; ++prefix) {
    CRequest second(Server::FuncFileExists);
    const Bytes frame = second.uri(m_root).frame();
    Bytes start = whole;
    start.insert(start.end(), frame.begin(), frame.begin() + static_cast<ptrdiff_t>(prefix));
    m_client->send(start);
    CResponse answer = m_client->receive();
    ASSERT_TRUE(answer.isOK()) << answer.describe();
    EXPECT_TRUE(answer.in->readBool());
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    m_client->send(Bytes(frame.begin() + static_cast<ptrdiff_t>(prefix), frame.end()));
    CResponse rest = m_client->receive();
    ASSERT_TRUE(rest.isOK()) << prefix << ": " << rest.describe();
    EXPECT_FALSE(rest.in->readBool());
    EXPECT_TRUE(rest.atEnd());
  }
}

// The return value itself, on a server handled by hand.
TEST_F(ServerTest, HandleIfAvailableWaitsOnlyOnceAFrameBegan) {
  CRawClient client(m_clientEnd.get());
  EXPECT_FALSE(m_server->handleMessageIfAvailable());
  for (size_t prefix = 1; prefix <= 3; ++prefix) {
    CRequest request(Server::FuncFolderExists);
    const Bytes frame = request.uri(m_root).frame();
    client.send(Bytes(frame.begin(), frame.begin() + static_cast<ptrdiff_t>(prefix)));
    std::thread rest([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(30));
      client.send(Bytes(frame.begin() + static_cast<ptrdiff_t>(prefix), frame.end()));
    });
    const bool handled = m_server->handleMessageIfAvailable();
    rest.join();
    EXPECT_TRUE(handled) << prefix;
    CResponse response = client.receive();
    ASSERT_TRUE(response.isOK()) << response.describe();
    EXPECT_TRUE(response.in->readBool());
    EXPECT_FALSE(m_server->handleMessageIfAvailable());
  }
}

TEST_F(ServerTest, FrameLimitEndsServingWithALog) {
  m_server->setMaxFrameLength(1024);
  CRawClient client(m_clientEnd.get());
  client.send(Bytes{0x01, 0x04, 0x00, 0x00});  // 1025 bytes announced
  try {
    m_server->handleNextMessage();
    ADD_FAILURE() << "a frame above the limit was accepted";
  } catch (const CIOError& e) {
    EXPECT_EQ(e.getErrorCode(), CIOError::InvalidData);
  }

  auto ends = CInProcessConnection::createPair();
  P<Server> server = createObject<Server>(ends.first.get());
  server->setMaxFrameLength(1024);
  CRawClient other(ends.second.get());
  other.send(Bytes{0xFF, 0xFF, 0xFF, 0x7F});
  CLogCapture log;
  server->serve();
  EXPECT_TRUE(log.contains(LogLevel::Error, "CProxyFileSystemServer"));
  // The server closed its end: the client sees the end of the connection.
  char byte;
  EXPECT_EQ(ends.second->getInStream()->readLax(&byte, 1), 0);
}

TEST_F(ServerTest, OversizedResponseBecomesAnError) {
  writeFile("big.bin", std::string(3000, 'x'));
  m_server->setMaxFrameLength(1024);
  const int64 stream = openStream("big.bin", kRead);
  CRequest read(Server::FuncStreamReadLax);
  P<CError> error = fails(read.i64(stream).i32(2000));
  EXPECT_TRUE(error->isError("IO", CIOError::InvalidData)) << error->getDesc().toStdUTF8();
  EXPECT_LE(m_lastResponse->getPayloadLength(), 1024);
  // Smaller reads still work.
  CRequest small(Server::FuncStreamReadLax);
  EXPECT_EQ(ok(small.i64(stream).i32(100)).in->readInt32(), 100);

  for (int i = 0; i < 40; ++i) writeFile("entry-with-a-long-name-" + std::to_string(i), "");
  CRequest list(Server::FuncGetFolderContents);
  EXPECT_TRUE(fails(list.uri(m_root))->isError("IO", CIOError::InvalidData));
}

TEST_F(ServerTest, ServeEndsQuietlyWhenTheClientCloses) {
  CRawClient client(m_clientEnd.get());
  CRequest request(Server::FuncFolderExists);
  client.send(request.uri(m_root));
  CLogCapture log;
  std::thread serving([&] { m_server->serve(); });
  CResponse response = client.receive();
  EXPECT_TRUE(response.isOK());
  client.close();
  serving.join();
  EXPECT_FALSE(log.contains(LogLevel::Error, "CProxyFileSystemServer"));
}

TEST_F(ServerTest, ClientDeathReleasesEveryHandle) {
  writeFile("a.txt", "abc");
#ifndef _WIN32
  const int before = countOpenDescriptors();
#endif
  {
    auto ends = CInProcessConnection::createPair();
    P<Server> server = createObject<Server>(ends.first.get());
    server->addShare(CURISelector(m_root), m_fs.get());
    CRawClient client(ends.second.get());
    std::thread serving([&] { server->serve(); });
    for (int i = 0; i < 3; ++i) {
      CRequest open(Server::FuncStreamOpen);
      client.send(open.uri(uri("a.txt")).i32(kRead).i32(0));
      EXPECT_TRUE(client.receive().isOK());
    }
    CRequest lock(Server::FuncStreamLockRange);
    client.send(lock.i64(1).i64(0).i64(1).i32(IStreamBase::Shared));
    EXPECT_TRUE(client.receive().isOK());
#ifndef _WIN32
    EXPECT_GE(countOpenDescriptors(), before + 3);
#endif
    // Half a request, then the client is gone: a normal end, not an error.
    client.send(Bytes{100, 0, 0, 0, 7, 0, 0});
    CLogCapture log;
    client.close();
    serving.join();
    EXPECT_EQ(server->getOpenHandleCount(), 0);
    EXPECT_TRUE(log.contains(LogLevel::Info,
                             "CProxyFileSystemServer: the client disconnected; serving ends."));
    EXPECT_FALSE(log.contains(LogLevel::Error, "CProxyFileSystemServer"));
  }
#ifndef _WIN32
  EXPECT_EQ(countOpenDescriptors(), before);
#endif
  // The files are free again: an exclusive open succeeds.
  EXPECT_NO_THROW(
      m_fs->createStream(uri("a.txt"), IIOStream::AccessReadWrite, IIOStream::FlagExclusive));
}

// A client that closed between or inside frames, or before it read its
// response, ended normally: logged as information, not as an error.
TEST_F(ServerTest, ClientsThatGoAwayAreNoErrors) {
  writeFile("big.bin", std::string(10000, 'b'));
  for (const bool beforeTheResponse : {false, true}) {
    // Too small to hold the response: the server is writing when the client goes.
    auto ends = CInProcessConnection::createPair(64);
    P<Server> server = createObject<Server>(ends.first.get());
    server->addShare(CURISelector(m_root), m_fs.get());
    CRawClient client(ends.second.get());
    if (beforeTheResponse) {
      CRequest open(Server::FuncStreamOpen);
      open.uri(uri("big.bin")).i32(kRead).i32(0);
      ASSERT_TRUE(parseResponse(*server->handleMessage(open.message())).isOK());
      CRequest read(Server::FuncStreamReadLax);
      client.send(read.i64(1).i32(10000));
    } else {
      client.send(Bytes{40, 0, 0, 0, 7});
    }
    CLogCapture log;
    std::thread serving([&] { server->serve(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    client.close();
    serving.join();
    EXPECT_TRUE(log.contains(LogLevel::Info,
                             "CProxyFileSystemServer: the client disconnected; serving ends."))
        << beforeTheResponse;
    EXPECT_FALSE(log.contains(LogLevel::Error, "CProxyFileSystemServer")) << beforeTheResponse;
  }
}

// The bytes this process has allocated, where the allocator can tell (the
// sanitizer lanes); -1 elsewhere.
int64 allocatedBytes() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return static_cast<int64>(__sanitizer_get_current_allocated_bytes());
#else
  return -1;
#endif
}

// A client that sends requests (large reads among them) and never reads the
// answers stops the server at the connection's capacity: neither the
// connection nor the server buffer the answers, and closing the connection
// ends the serving.
TEST_F(ServerTest, ANonReadingClientCannotGrowTheServersMemory) {
  constexpr int kReadSize = 1 << 20;
  constexpr int kRequests = 2000;
  writeFile("big.bin", std::string(kReadSize, 'b'));
  const CURI missing = uri(std::string(1000, 'm'));
  auto ends = CInProcessConnection::createPair();
  P<Server> server = createObject<Server>(ends.first.get());
  server->addShare(CURISelector(m_root), m_fs.get());
  const int64 before = allocatedBytes();
  std::thread serving([&] { server->serve(); });
  std::atomic<int> sent{0};
  std::thread flood([&, connection = ends.second] {
    CRawClient client(connection.get());
    try {
      CRequest open(Server::FuncStreamOpen);
      client.send(open.uri(uri("big.bin")).i32(kRead).i32(0));
      for (int i = 0; i < kRequests; ++i) {
        if (i % 10 == 0) {
          CRequest seek(Server::FuncStreamSeek);
          client.send(seek.i64(1).i64(0));
          CRequest read(Server::FuncStreamReadLax);
          client.send(read.i64(1).i32(kReadSize));
        } else {
          CRequest exists(Server::FuncFileExists);
          client.send(exists.uri(missing));
        }
        sent = i + 1;
      }
    } catch (const CError&) {
      // The connection was closed under the blocked write.
    }
  });
  // Until the flood has stalled: nothing sent for 300 ms.
  for (int last = -1; last != sent.load();) {
    last = sent.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
  }
  EXPECT_LT(sent.load(), kRequests) << "every request was taken: their answers are parked";
  const int64 capacity = CInProcessConnection::kDefaultCapacity;  // a copy: not exported data
  EXPECT_LE(CInProcessConnection::getUnreadBytes(ends.second.get()), capacity);
  if (before >= 0) {
    // 200 unread answers of 1 MiB would be 200 MiB.
    EXPECT_LT(allocatedBytes() - before, int64{32} << 20);
  }
  ends.second->close();
  flood.join();
  serving.join();
  EXPECT_EQ(server->getOpenHandleCount(), 0);
}

// A request waiting on a served stream that never becomes readable gives up
// when the server is asked to stop, or when its client has gone.
TEST_F(ServerTest, WaitsOnAServedStreamEndWithAStopOrTheClient) {
  std::atomic<int> live{0};
  P<CMemFileSystem> pipes = createObject<CMemFileSystem>();
  pipes->onCreateStream = [&live](const CURI&) {
    return P<IIOStream>(createObject<proxy_test::CNeverReadableStream>(live));
  };
  for (const bool stop : {true, false}) {
    for (const int func :
         {Server::FuncStreamWaitReadable, Server::FuncStreamIsEnd, Server::FuncStreamReadLax}) {
      SCOPED_TRACE(std::string(stop ? "stop, " : "client gone, ") +
                   Server::getFuncName(func).toStdUTF8());
      auto ends = CInProcessConnection::createPair();
      P<Server> server = createObject<Server>(ends.first.get());
      server->addShare(CURISelector(CURI("mem:///pipes")), pipes.get());
      CRawClient client(ends.second.get());
      std::thread serving([&] { server->serve(); });
      CRequest open(Server::FuncStreamOpen);
      const int64 stream = client.roundTrip(open.str("mem:///pipes/p").i32(kRead).i32(0))
                               .in->readInt64();
      CRequest wait(func);
      wait.i64(stream);
      if (func != Server::FuncStreamIsEnd) wait.i32(func == Server::FuncStreamReadLax ? 16 : -1);
      client.send(wait);
      std::this_thread::sleep_for(std::chrono::milliseconds(250));
      EXPECT_FALSE(client.connection().getInStream()->waitReadable(0)) << "answered at once";
      const auto start = std::chrono::steady_clock::now();
      if (stop) {
        server->requestStop();
        CResponse response = client.receive();
        EXPECT_EQ(response.error ? response.error->getMessage().toStdUTF8() : response.describe(),
                  "The proxy file system server is stopping.");
      }
      client.close();
      serving.join();
      EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
      EXPECT_EQ(live.load(), 0) << "the stream was not released";
    }
  }
}

TEST_F(ServerTest, DestroyingTheServerReleasesHandles) {
  writeFile("a.txt", "abc");
#ifndef _WIN32
  const int before = countOpenDescriptors();
#endif
  {
    auto ends = CInProcessConnection::createPair();
    P<Server> server = createObject<Server>(ends.first.get());
    server->addShare(CURISelector(m_root), m_fs.get());
    for (int i = 0; i < 4; ++i) {
      CRequest open(Server::FuncStreamOpen);
      open.uri(uri("a.txt")).i32(kRead).i32(0);
      ASSERT_TRUE(parseResponse(*server->handleMessage(open.message())).isOK());
    }
    EXPECT_EQ(server->getOpenHandleCount(), 4);
  }
#ifndef _WIN32
  EXPECT_EQ(countOpenDescriptors(), before);
#endif
}

// ---------------------------------------------------------------------------
// Confinement by URI

// An in-memory share at file:///share, as the frame vectors expect it.
P<CMemFileSystem> shareMemFiles(CProxyFileSystemServer& server) {
  P<CMemFileSystem> fs = createObject<CMemFileSystem>();
  fs->addFile("/share/a.txt", "hello");
  fs->addFolder("/share/docs");
  fs->addFile("/share/docs/b.txt", "abc");
  fs->addFolder("/share/docs/sub");
  server.addShare(CURISelector(CURI("file:///share")), fs.get());
  return fs;
}

// args: address name (and an unused folder).
ZEL_TEST_CHILD(proxy_mem_server) { return proxy_test::runChildServer(args.at(0), shareMemFiles); }

// The in-memory share, handled directly or over a connection; every
// connection gets a fresh server and share.
class FakeShareTest : public RawServerFixture {
 protected:
  FakeShareTest() { m_fs = shareMemFiles(*m_server); }

  void link(Transport transport, std::unique_ptr<proxy_test::CChildServer>& child) {
    linkTo(transport, child, "proxy_mem_server", shareMemFiles);
  }
  // The calls that reached the share.
  int calls() {
    if (!m_client) return m_fs->getCallCount();
    CRequest request(Server::FuncGetFreeSpaceInFolder);
    return static_cast<int>(call(request.uri(proxy_test::probeCallsURI())).in->readInt64());
  }
  CResponse callText(int func, const String& uriText) {
    CRequest request(func);
    request.str(uriText);
    return call(request);
  }

  P<CMemFileSystem> m_fs;
};

class FakeShareLinkTest : public FakeShareTest, public ::testing::WithParamInterface<Transport> {
 protected:
  FakeShareLinkTest() { link(GetParam(), s_child); }
  static void TearDownTestSuite() { s_child.reset(); }
  static inline std::unique_ptr<proxy_test::CChildServer> s_child;
};
INSTANTIATE_TEST_SUITE_P(, FakeShareLinkTest, ::testing::Values(Transport::InProcess, Transport::ChildProcess),
                         proxy_test::transportName);

TEST_P(FakeShareLinkTest, UriOutsideEverySharetouchesNothing) {
  for (const char* text : {"file:///other/a.txt", "file:///sharewide/a.txt",
                           "http://host/share/a.txt", "file://server/share/a.txt", "file:///"}) {
    CResponse response = callText(Server::FuncFileExists, text);
    ASSERT_EQ(response.type, 0) << text;
    EXPECT_EQ(response.error->getMessage(),
              "Proxy URI does not reference a shared filesystem area.");
    EXPECT_EQ(response.error->getParams().get("uri"), CURI(text).toNormalized().toString(true));
  }
  // The second URI of a two-location function is checked before anything runs.
  CRequest move(Server::FuncMoveFile);
  EXPECT_EQ(call(move.str("file:///share/a.txt").str("file:///other/b.txt").b(false)).type, 0);
  CRequest link(Server::FuncCreateFileSymLink);
  EXPECT_EQ(call(link.str("file:///other/secret").str("file:///share/l")).type, 0);
  CRequest store(Server::FuncBackgroundStoreBegin);
  EXPECT_EQ(call(store.str("file:///other/x").i64(1).b(true).raw("x")).type, 0);
  EXPECT_EQ(calls(), 0);
  // Not a URI at all.
  EXPECT_EQ(callText(Server::FuncFileExists, "C:\\share\\a.txt").type, 0);
  EXPECT_EQ(calls(), 0);

  CResponse inside = callText(Server::FuncFileExists, "file:///share/a.txt");
  ASSERT_TRUE(inside.isOK());
  EXPECT_TRUE(inside.in->readBool());
  EXPECT_EQ(calls(), 1);
}

TEST_P(FakeShareLinkTest, DotDotIsRefusedEvenInside) {
  for (const char* text :
       {"file:///share/docs/../a.txt", "file:///share/docs/%2E%2E/a.txt", "file:///share/docs/..",
        "file:///share/.../a.txt", "file:///share/docs/.. ", "file:///share/docs//b.txt",
        "file:///share/docs%2F..%2F..%2Fetc", "file:///share/a%00.txt",
        "file:///share/docs/%2E%2E%2Fa.txt"}) {
    CResponse response = callText(Server::FuncFileExists, text);
    ASSERT_EQ(response.type, 0) << text;
    EXPECT_EQ(response.error->getMessage(), "Invalid path.") << text;
    EXPECT_EQ(problemOf(*response.error), 6) << text;
    PC<CError> cause = response.error->getCause();
    ASSERT_TRUE(cause) << text;
    EXPECT_EQ(cause->getMessage(), "Invalid path.");
    EXPECT_EQ(cause->getErrorCode(), -1);
    EXPECT_TRUE(cause->getParams().has("path"));
  }
  EXPECT_EQ(calls(), 0);
  // "." segments name nothing and are fine.
  CResponse dot = callText(Server::FuncFileExists, "file:///share/./docs/./b.txt");
  ASSERT_TRUE(dot.isOK()) << dot.describe();
  EXPECT_TRUE(dot.in->readBool());
}

TEST_P(FakeShareLinkTest, EveryAssignedFunctionHasAHandler) {
  // Without arguments every handler fails reading them; only 42 and 43 are
  // not found at all.
  int handlers = 0;
  for (int func = 0; func <= Server::FuncQuickCheckFolderAccessible; ++func) {
    CRequest request(func);
    CResponse response = call(request);
    ASSERT_EQ(response.type, 0) << func;
    const bool unknown = response.error->getMessage() ==
                         "Unknown proxy filesystem function: " + String::fromInt64(func);
    EXPECT_EQ(unknown, func == 42 || func == 43) << func << ": " << response.describe();
    if (!unknown) {
      EXPECT_TRUE(response.error->isError("IO", CIOError::UnexpectedEnd)) << func;
      ++handlers;
    }
  }
  EXPECT_EQ(handlers, 62);
  EXPECT_EQ(calls(), 0);
}

TEST_P(FakeShareLinkTest, ErrorsHoldingNulCharactersStayLoadable) {
  // The parse error names the text, NUL and all; stored texts end at a NUL.
  // Written by hand: writeString stops at a NUL.
  const char raw[] = "fi\0le:///share/a";
  const std::string text(raw, sizeof raw - 1);
  CRequest request(Server::FuncFileExists);
  CResponse response = call(request.i32(static_cast<int>(text.size())).raw(text));
  ASSERT_EQ(response.type, 0);
  EXPECT_TRUE(response.atEnd());
  EXPECT_EQ(response.error->getParams().get("uri").toStdUTF8(), "fi%00le:///share/a");
  CRequest next(Server::FuncFileExists);
  ASSERT_TRUE(call(next.str("file:///share/a.txt")).isOK());
}

TEST(ProxyServerPathTest, ValidateAndSecurePath) {
  auto refused = [](const std::wstring& text, bool backslash) {
    String path(text);
    try {
      CTestServer::validateAndSecurePath(path, backslash);
      return false;
    } catch (const CFileSystemError& e) {
      EXPECT_EQ(e.getMessage(), "Invalid path.");
      return true;
    }
  };
  EXPECT_FALSE(refused(L"/a/b", false));
  EXPECT_FALSE(refused(L"/a/b/", false));
  EXPECT_FALSE(refused(L"/C:/dir/file.txt", true));
  EXPECT_FALSE(refused(L"", false));
  EXPECT_FALSE(refused(L"/a/.hidden/..b/b..", false));
  EXPECT_TRUE(refused(L"/a/../b", false));
  EXPECT_TRUE(refused(L"/a/..", false));
  EXPECT_TRUE(refused(L"/../", false));
  EXPECT_TRUE(refused(L"/a//.../b", false));
  EXPECT_TRUE(refused(L"/a/. ./b", false));
  EXPECT_TRUE(refused(L"/a//b", false));
  // A backslash separates only where asked to.
  EXPECT_FALSE(refused(L"/a\\..\\b", false));
  EXPECT_TRUE(refused(L"/a\\..\\b", true));
  String path(L"/C:\\dir\\f");
  CTestServer::validateAndSecurePath(path, true);
  EXPECT_EQ(path, "/C:/dir/f");
}

TEST_F(FakeShareTest, RelativeSymLinkTargetsPassUnchanged) {
  CRequest plain(Server::FuncCreateFileSymLink);
  ASSERT_TRUE(call(plain.str("../x").str("file:///share/l1")).isOK());
  EXPECT_EQ(m_fs->getLastSymLink().first, CURI("file:///share/l1"));
  EXPECT_EQ(m_fs->getLastSymLink().second, CURI("file:../x"));
  CRequest rootless(Server::FuncCreateFolderSymLink);
  ASSERT_TRUE(call(rootless.str("file:sub/dir").str("file:///share/l2")).isOK());
  EXPECT_EQ(m_fs->getLastSymLink().second, CURI("file:sub/dir"));
  // Absolute targets are resolved like any URI.
  CRequest absolute(Server::FuncCreateFileSymLink);
  ASSERT_TRUE(call(absolute.str("file:///share/a.txt").str("file:///share/l3")).isOK());
  EXPECT_EQ(m_fs->getLastSymLink().second, CURI("file:///share/a.txt"));
  CRequest absolutePath(Server::FuncCreateFileSymLink);
  CResponse outside = call(absolutePath.str("/etc/passwd").str("file:///share/l4"));
  ASSERT_EQ(outside.type, 0);
  EXPECT_EQ(outside.error->getMessage(), "Proxy URI does not reference a shared filesystem area.");
}

TEST_F(FakeShareTest, TwoLocationsMustShareOneFileSystem) {
  P<CMemFileSystem> other = createObject<CMemFileSystem>();
  m_server->addShare(CURISelector(CURI("file:///other")), other.get());
  CRequest move(Server::FuncMoveFile);
  CResponse response = call(move.str("file:///share/a.txt").str("file:///other/a.txt").b(false));
  ASSERT_EQ(response.type, 0);
  EXPECT_EQ(response.error->getMessage(),
            "Proxy URIs must be on same filesystem for this functionality.");
  CRequest copy(Server::FuncCopyFile);
  EXPECT_EQ(
      call(copy.str("file:///share/a.txt").str("file:///other/a.txt").b(false)).error->getMessage(),
      "Proxy URIs must be on same filesystem for this functionality.");
  CRequest link(Server::FuncCreateFileHardLink);
  EXPECT_EQ(call(link.str("file:///other/l").str("file:///share/a.txt")).type, 0);
  CRequest backgroundMove(Server::FuncBackgroundMoveFileBegin);
  EXPECT_EQ(call(backgroundMove.str("file:///share/a.txt").str("file:///other/b").b(true)).type, 0);
  EXPECT_EQ(m_fs->getCallCount() + other->getCallCount(), 0);
}

TEST_F(FakeShareTest, RemovedShareRefusesNewRequestsOnly) {
  CRequest open(Server::FuncStreamOpen);
  CResponse opened = call(open.str("file:///share/a.txt").i32(kRead).i32(0));
  ASSERT_TRUE(opened.isOK());
  const int64 stream = opened.in->readInt64();
  m_server->removeShare(CURISelector(CURI("file:///share")));
  EXPECT_EQ(callText(Server::FuncFileExists, "file:///share/a.txt").type, 0);
  CRequest read(Server::FuncStreamReadLax);
  CResponse data = call(read.i64(stream).i32(10));
  ASSERT_TRUE(data.isOK());
  EXPECT_EQ(data.readBytes(data.in->readInt32()), "hello");
}

TEST_F(FakeShareTest, BackgroundOpsAreReportedOnceAndNeverLost) {
  CRequest first(Server::FuncBackgroundCreateFolderBegin);
  const int64 a = call(first.str("file:///share/n1").i32(0)).in->readInt64();
  CRequest second(Server::FuncBackgroundDeleteFileBegin);
  const int64 b = call(second.str("file:///share/a.txt")).in->readInt64();
  ASSERT_EQ(m_fs->getOps().size(), 2u);

  auto finalize = [&](std::vector<int64> handles) {
    CRequest request(Server::FuncBackgroundOpsFinalize);
    for (int64 h : handles) request.i64(h);
    request.i64(-1);
    return call(request);
  };
  auto reports = [](CResponse& response) {
    std::vector<std::pair<int64, P<CError>>> list;
    for (;;) {
      const int64 handle = response.in->readInt64();
      if (handle == -1) break;
      list.emplace_back(handle, response.in->readBool() ? loadError(*response.in) : P<CError>());
    }
    EXPECT_TRUE(response.atEnd());
    return list;
  };

  CResponse none = finalize({a, b});
  ASSERT_TRUE(none.isOK());
  EXPECT_TRUE(reports(none).empty());

  m_fs->getOps()[0]->finish();
  CResponse one = finalize({a, b, a});
  auto firstReports = reports(one);
  ASSERT_EQ(firstReports.size(), 1u);
  EXPECT_EQ(firstReports[0].first, a);
  EXPECT_FALSE(firstReports[0].second);

  // An unknown handle fails the request; b's report is kept for later.
  const CError failure("delete failed", "errno", 13);
  m_fs->getOps()[1]->finish(&failure);
  CResponse mixed = finalize({b, 12345});
  ASSERT_EQ(mixed.type, 0);
  EXPECT_EQ(mixed.error->getMessage(), "Invalid background op ID: 12345");
  CResponse later = finalize({b});
  auto lastReports = reports(later);
  ASSERT_EQ(lastReports.size(), 1u);
  ASSERT_TRUE(lastReports[0].second);
  EXPECT_EQ(lastReports[0].second->getMessage(), "delete failed");
  EXPECT_TRUE(lastReports[0].second->isError("errno", 13));
  EXPECT_EQ(m_server->getOpenHandleCount(), 0);
}

// A request that ends as an error response - its items could not be
// written, or its response is above the frame limit - leaves no handle
// behind; handle numbers are still never reused.
TEST_F(FakeShareTest, FailedRequestsRegisterNothing) {
  class CUnreadableInfo : public CFileInfoBase {
   public:
    String getUnixUserName() override { throw CError("no user database"); }
  };
  m_fs->onGetFileInfo = [](const CURI&) {
    P<CUnreadableInfo> info = createObject<CUnreadableInfo>();
    info->setCachedInfoMask(IFileInfoBase::CachedUnixUserName);
    return P<IFileInfoBase>(info);
  };
  CRequest unreadable(Server::FuncFileInfoOpen);
  EXPECT_EQ(fails(unreadable.str("file:///share/a.txt").b(true))->getMessage(), "no user database");
  EXPECT_EQ(m_server->getOpenHandleCount(), 0);

  m_fs->onGetFileInfo = [](const CURI&) {
    P<CFileInfoBase> info = createObject<CFileInfoBase>();
    info->setSymLinkTargetPath(String(std::wstring(3000, L't')));
    return P<IFileInfoBase>(info);
  };
  m_server->setMaxFrameLength(1024);
  CRequest large(Server::FuncFileInfoOpen);
  EXPECT_TRUE(fails(large.str("file:///share/a.txt").b(false))->isError("IO", CIOError::InvalidData));
  EXPECT_EQ(m_server->getOpenHandleCount(), 0);

  m_fs->onGetFileInfo = nullptr;
  CRequest good(Server::FuncFileInfoOpen);
  EXPECT_EQ(call(good.str("file:///share/a.txt").b(true)).in->readInt64(), 3);
  EXPECT_EQ(m_server->getOpenHandleCount(), 1);
}

// A finalize answer above the frame limit would lose the reports it drops:
// the server reports what fits and keeps the rest for the next call.
TEST_F(FakeShareTest, FinalizeReportsWhatFitsAndKeepsTheRest) {
  constexpr int kLimit = 300;
  m_server->setMaxFrameLength(kLimit);
  std::vector<int64> outstanding;
  for (int i = 0; i < 6; ++i) {
    CRequest begin(Server::FuncBackgroundDeleteFileBegin);
    outstanding.push_back(call(begin.str("file:///share/a.txt")).in->readInt64());
  }
  for (int i = 0; i < 5; ++i) {
    const CError failure("delete failed " + String(std::wstring(60, L'x')) + String::fromInt64(i),
                         "errno", 13);
    m_fs->getOps()[static_cast<size_t>(i)]->finish(&failure);
  }
  CProps params;
  params.set(CFileSystemError::paramFileSysProblem(), "5");
  params.set("detail", String(std::wstring(2000, L'y')));
  const CError huge("huge", "errno", 5, params);
  m_fs->getOps()[5]->finish(&huge);

  std::map<int64, P<CError>> reported;
  int answers = 0;
  while (!outstanding.empty() && answers < 20) {
    ++answers;
    CRequest finalize(Server::FuncBackgroundOpsFinalize);
    for (int64 handle : outstanding) finalize.i64(handle);
    CResponse response = call(finalize.i64(-1));
    ASSERT_TRUE(response.isOK()) << response.describe();
    EXPECT_LE(m_lastResponse->getPayloadLength(), kLimit);
    for (int64 handle; (handle = response.in->readInt64()) != -1;) {
      EXPECT_EQ(reported.count(handle), 0u) << "reported twice: " << handle;
      reported[handle] = response.in->readBool() ? loadError(*response.in) : P<CError>();
      outstanding.erase(std::remove(outstanding.begin(), outstanding.end(), handle),
                        outstanding.end());
    }
  }
  ASSERT_EQ(reported.size(), 6u);
  EXPECT_GT(answers, 2);
  EXPECT_EQ(reported[1]->getMessage(), "delete failed " + String(std::wstring(60, L'x')) + "0");
  // Too large even alone: sent with a short error of the same kind.
  const P<CError>& shortened = reported[6];
  ASSERT_TRUE(shortened);
  EXPECT_TRUE(shortened->getMessage().getWxString().StartsWith(
      "The error of the background operation is too large to send ("));
  EXPECT_TRUE(shortened->isError("errno", 5));
  EXPECT_EQ(problemOf(*shortened), 5);
  EXPECT_EQ(m_server->getOpenHandleCount(), 0);
}

// ---------------------------------------------------------------------------
// Rebasing shares

TEST_F(ServerTest, RebasingShareMapsBothWays) {
  m_server->addShare(CURISelector(CURI("file:///backup")), m_fs.get(), m_root);
  CRequest ensure(Server::FuncEnsureFileExists);
  ASSERT_TRUE(call(ensure.str("file:///backup/a%20b.txt")).isOK());
  EXPECT_TRUE(m_fs->fileExists(uri("a b.txt")));

  CRequest unique(Server::FuncCreateUniqueFilename);
  EXPECT_EQ(ok(unique.str("file:///backup").str("a b.txt")).in->readString(),
            "file:///backup/a%20b%20(2).txt");
  CRequest create(Server::FuncCreateFolder);
  ok(create.str("file:///backup/sub").i32(0));
  EXPECT_TRUE(m_fs->folderExists(uri("sub")));
  CRequest uniqueFolder(Server::FuncCreateUniqueFolderName);
  EXPECT_EQ(ok(uniqueFolder.str("file:///backup/sub/").str("sub")).in->readString(),
            "file:///backup/sub/sub");
  // The volume root lies outside the share root: the client gets the share.
  CRequest volume(Server::FuncGetVolumeRootPath);
  EXPECT_EQ(ok(volume.str("file:///backup/sub")).in->readString(), "file:///backup");

  CRequest outside(Server::FuncFileExists);
  EXPECT_EQ(fails(outside.str("file:///backupx/a"))->getMessage(),
            "Proxy URI does not reference a shared filesystem area.");
}

// Behind a rebasing share the client sees its own URIs only: in error
// responses, in the errors of background operations, in link targets.
TEST_F(ServerTest, RebasingShareShowsNoServerPath) {
  m_server->addShare(CURISelector(CURI("file:///backup")), m_fs.get(), m_root);
  writeFile("a.txt", "abc");
  const std::vector<std::string> serverForms = {
      m_folder.toStdUTF8(), m_root.toString(true).toStdUTF8(), m_root.toString(false).toStdUTF8()};
  auto expectNoServerPath = [&](const CError& error) {
    for (const CError* level = &error; level; level = level->getCause().get()) {
      std::string texts = level->getMessage().toStdUTF8();
      const CProps& params = level->getParams();
      for (int i = 0; i < params.getCount(); ++i) texts += "\n" + params.getValue(i).toStdUTF8();
      for (const std::string& form : serverForms) {
        EXPECT_EQ(texts.find(form), std::string::npos) << texts;
      }
    }
  };

  CRequest remove(Server::FuncDeleteFile);
  P<CError> error = fails(remove.str("file:///backup/nosuch").b(false));
  EXPECT_EQ(problemOf(*error), CFileSystemError::ProblemNotFound);
  EXPECT_EQ(error->getParams().get("uri"), "file:///backup/nosuch");
  expectNoServerPath(*error);
  CRequest move(Server::FuncMoveFile);
  error = fails(move.str("file:///backup/nosuch").str("file:///backup/b%20c").b(false));
  EXPECT_EQ(error->getParams().get("from"), "file:///backup/nosuch");
  EXPECT_EQ(error->getParams().get("to"), "file:///backup/b%20c");
  expectNoServerPath(*error);
  // On a handle opened through the share.
  CRequest open(Server::FuncStreamOpen);
  const int64 stream = ok(open.str("file:///backup/a.txt").i32(kRead).i32(0)).in->readInt64();
  CRequest write(Server::FuncStreamWrite);
  error = fails(write.i64(stream).i64(0).i32(1).raw("x"));
  EXPECT_EQ(error->getParams().get("uri"), "file:///backup/a.txt");
  expectNoServerPath(*error);
  // Background operations report their errors the same way.
  CRequest background(Server::FuncBackgroundDeleteFileBegin);
  const int64 op = ok(background.str("file:///backup/gone")).in->readInt64();
  auto reported = finalizeAll([this](CRequest& r) { return call(r); }, {op});
  ASSERT_TRUE(reported[op]);
  EXPECT_EQ(reported[op]->getParams().get("uri"), "file:///backup/gone");
  expectNoServerPath(*reported[op]);
#ifndef _WIN32
  test::CTempFolder outside;
  ASSERT_EQ(::symlink(nativeOf(outside.getPath()).c_str(), nativeOf(folderFile("out")).c_str()), 0);
  ASSERT_EQ(::symlink(nativeOf(folderFile("a.txt")).c_str(), nativeOf(folderFile("abs")).c_str()), 0);
  CRequest escape(Server::FuncStreamOpen);
  error = fails(escape.str("file:///backup/out/x").i32(kRead).i32(0));
  EXPECT_EQ(error->getMessage(), "Proxy path leaves the shared filesystem area.");
  ASSERT_TRUE(error->getCause());
  EXPECT_EQ(error->getCause()->getParams().get("rootPath"), "file:///backup");
  expectNoServerPath(*error);
  // A link target inside is shown in the client's namespace, one outside not at all.
  CRequest inside(Server::FuncFileInfoOpen);
  CResponse insideInfo = ok(inside.str("file:///backup/abs").b(false));
  EXPECT_EQ(readOpenedInfo(insideInfo)->getSymLinkTargetPath(), "file:///backup/a.txt");
  CRequest out(Server::FuncFileInfoOpen);
  CResponse outInfo = ok(out.str("file:///backup/out").b(false));
  EXPECT_EQ(readOpenedInfo(outInfo)->getSymLinkTargetPath(), "");
#endif
}

// ---------------------------------------------------------------------------
// Confinement against links (Linux: Wine has no symbolic links)

#ifndef _WIN32
class LinkEscapeTest : public ServerLinkTest {
 protected:
  LinkEscapeTest() {
    writeFile("inside.txt", "inside");
    secret = m_outside.file("secret.txt");
    std::ofstream(nativeOf(secret)) << "top secret";
    link(m_outside.getPath(), "out");
    link(secret, "s.txt");
    const std::string outsideName =
        nativeOf(m_outside.getPath()).substr(nativeOf(m_outside.getPath()).rfind('/') + 1);
    // From this test's folder up to the one holding m_outside.
    const std::string up = m_root == m_shareRoot ? "../" : "../../";
    link(up + outsideName + "/secret.txt", "rel.txt");
    link(m_outside.file("new.txt"), "dangling.txt");
  }
  void link(const String& target, const std::string& name) {
    ASSERT_EQ(::symlink(nativeOf(target).c_str(), nativeOf(folderFile(name)).c_str()), 0);
  }
  bool outsideHas(const char* name) {
    return ::access(nativeOf(m_outside.file(name)).c_str(), F_OK) == 0;
  }
  void expectEscapeRefused(CResponse response, const std::string& what) {
    ASSERT_EQ(response.type, 0) << what;
    EXPECT_EQ(problemOf(*response.error), CFileSystemError::ProblemAccessDenied)
        << what << ": " << response.describe();
    EXPECT_EQ(response.error->getMessage(), "Proxy path leaves the shared filesystem area.")
        << what;
    ASSERT_TRUE(response.error->getCause()) << what;
    EXPECT_TRUE(response.error->getCause()->getParams().has("path")) << what;
  }

  test::CTempFolder m_outside;
  String secret;
};

TEST_P(LinkEscapeTest, ReadingThroughALinkOutsideIsRefused) {
  for (const char* name : {"out/secret.txt", "s.txt", "rel.txt"}) {
    CRequest open(Server::FuncStreamOpen);
    expectEscapeRefused(call(open.uri(uri(name)).i32(kRead).i32(0)), name);
    CRequest exists(Server::FuncFileExists);
    expectEscapeRefused(call(exists.uri(uri(name))), name);
    CRequest info(Server::FuncFileInfoOpen);
    expectEscapeRefused(call(info.uri(uri(name)).b(true)), name);
  }
  CRequest list(Server::FuncGetFolderContents);
  expectEscapeRefused(call(list.uri(uri("out"))), "listing");
  CRequest copy(Server::FuncCopyFile);
  expectEscapeRefused(call(copy.uri(uri("s.txt")).uri(uri("copy.txt")).b(false)), "copy");
  EXPECT_FALSE(m_fs->pathExists(uri("copy.txt")));
  EXPECT_EQ(m_server->getOpenHandleCount(), 0);

  // The link itself may be looked at (it tells nothing of its target) and
  // removed; its target stays.
  CRequest linkInfo(Server::FuncFileInfoOpen);
  CResponse response = ok(linkInfo.uri(uri("s.txt")).b(false));
  EXPECT_EQ(readOpenedInfo(response)->getSymLinkType(), IFileInfoBase::SymLinkUnknownTarget);
  CRequest remove(Server::FuncDeleteSymLink);
  ok(remove.uri(uri("s.txt")));
  EXPECT_TRUE(outsideHas("secret.txt"));
  // Links that stay inside work as usual.
  ASSERT_EQ(::symlink("inside.txt", nativeOf(folderFile("good.txt")).c_str()), 0);
  CRequest good(Server::FuncStreamOpen);
  EXPECT_GT(ok(good.uri(uri("good.txt")).i32(kRead).i32(0)).in->readInt64(), 0);
}

// What a link that leads out of the share points to stays unknown: an
// existing outside folder, an outside file and a missing target look alike,
// described or listed, and following any of them is refused alike.
TEST_P(LinkEscapeTest, LinkInformationNeverDescribesAnOutsideTarget) {
  link(m_outside.file("missing"), "gone");
  ASSERT_EQ(::symlink("inside.txt", nativeOf(folderFile("good.txt")).c_str()), 0);
  const std::vector<std::string> leading = {"out", "s.txt", "rel.txt", "dangling.txt", "gone"};
  for (const std::string& name : leading) {
    CRequest describe(Server::FuncFileInfoOpen);
    CResponse response = ok(describe.uri(uri(name)).b(false));
    P<CFileInfoBase> info = readOpenedInfo(response);
    EXPECT_EQ(info->getType(), IFileInfoBase::TypeUnknown) << name;
    EXPECT_EQ(info->getSymLinkType(), IFileInfoBase::SymLinkUnknownTarget) << name;
    EXPECT_EQ(info->getSymLinkFlavor(), IFileInfoBase::SymLinkFlavorUnix) << name;
  }
  CRequest list(Server::FuncGetFolderContents);
  CResponse listing = ok(list.uri(m_root));
  auto entries = readListing(listing);
  for (const std::string& name : leading) {
    ASSERT_TRUE(entries.count(name)) << name;
    EXPECT_EQ(entries[name]->getType(), IFileInfoBase::TypeUnknown) << name;
    EXPECT_EQ(entries[name]->getSymLinkType(), IFileInfoBase::SymLinkUnknownTarget) << name;
  }
  // Links that stay inside are described as usual.
  EXPECT_EQ(entries["good.txt"]->getType(), IFileInfoBase::TypeFile);
  EXPECT_EQ(entries["good.txt"]->getSymLinkType(), IFileInfoBase::SymLinkFile);
  EXPECT_EQ(entries["inside.txt"]->getSymLinkType(), IFileInfoBase::SymLinkNone);

  for (const char* name : {"out", "gone"}) {
    for (int func : {Server::FuncFileExists, Server::FuncFolderExists, Server::FuncPathExists,
                     Server::FuncIsFolderEmpty}) {
      CRequest exists(func);
      expectEscapeRefused(call(exists.uri(uri(name))), name);
    }
    CRequest followed(Server::FuncFileInfoOpen);
    expectEscapeRefused(call(followed.uri(uri(name)).b(true)), name);
  }
}

TEST_P(LinkEscapeTest, WritingThroughALinkOutsideIsRefused) {
  CRequest ensure(Server::FuncEnsureFileExists);
  expectEscapeRefused(call(ensure.uri(uri("dangling.txt"))), "dangling");
  CRequest create(Server::FuncStreamOpen);
  expectEscapeRefused(call(create.uri(uri("out/new.txt")).i32(kReadWrite).i32(0)),
                      "through folder");
  CRequest folder(Server::FuncCreateFolder);
  expectEscapeRefused(call(folder.uri(uri("out/made")).i32(0)), "folder");
  CRequest store(Server::FuncBackgroundStoreBegin);
  expectEscapeRefused(call(store.uri(uri("dangling.txt")).i64(1).b(true).raw("x")), "store");
  CRequest modifier(Server::FuncMetaModifierOpen);
  expectEscapeRefused(call(modifier.uri(uri("s.txt")).b(true)), "modifier");
  CRequest move(Server::FuncMoveFile);
  expectEscapeRefused(call(move.uri(uri("inside.txt")).uri(uri("out/moved.txt")).b(false)), "move");
  EXPECT_FALSE(outsideHas("new.txt"));
  EXPECT_FALSE(outsideHas("made"));
  EXPECT_FALSE(outsideHas("moved.txt"));
  EXPECT_EQ(openHandles(), 0);
}

TEST_P(LinkEscapeTest, LinkCreationCannotReachOutside) {
  // An absolute target outside every share.
  CRequest outside(Server::FuncCreateFileSymLink);
  CResponse response = call(outside.uri(CURI::fromNativePath(CNativePath(secret))).uri(uri("l1")));
  ASSERT_EQ(response.type, 0);
  EXPECT_EQ(response.error->getMessage(), "Proxy URI does not reference a shared filesystem area.");
  // A target inside the share by its text, outside by the links on the way.
  CRequest through(Server::FuncCreateFileSymLink);
  expectEscapeRefused(call(through.uri(uri("out/secret.txt")).uri(uri("l2"))), "symlink target");
  CRequest hard(Server::FuncCreateFileHardLink);
  expectEscapeRefused(call(hard.uri(uri("h1")).uri(uri("out/secret.txt"))), "hard link target");
  EXPECT_FALSE(m_fs->pathExists(uri("l1")));
  EXPECT_FALSE(m_fs->pathExists(uri("l2")));
  EXPECT_FALSE(m_fs->pathExists(uri("h1")));

  // link(2) takes a final link as it is: the new name is another link, and
  // reading through it is refused like reading through the first.
  CRequest linkToLink(Server::FuncCreateFileHardLink);
  ok(linkToLink.uri(uri("h2")).uri(uri("s.txt")));
  CRequest open(Server::FuncStreamOpen);
  expectEscapeRefused(call(open.uri(uri("h2")).i32(kRead).i32(0)), "hard link to a link");
}

TEST_P(LinkEscapeTest, TheRootCannotBeReplaced) {
  CRequest remove(Server::FuncDeleteEmptyFolder);
  expectEscapeRefused(call(remove.uri(m_shareRoot).b(true)), "delete root");
  CRequest move(Server::FuncMoveFile);
  expectEscapeRefused(call(move.uri(m_shareRoot).uri(uri("x")).b(false)), "move root");
  CRequest link(Server::FuncCreateFolderSymLink);
  expectEscapeRefused(call(link.uri(uri("inside.txt")).uri(m_shareRoot)), "link at root");
  EXPECT_TRUE(m_fs->folderExists(m_root));
}
INSTANTIATE_TEST_SUITE_P(, LinkEscapeTest, ::testing::Values(Transport::InProcess, Transport::ChildProcess),
                         proxy_test::transportName);
#endif

// ---------------------------------------------------------------------------
// Login callbacks

class LoginCallbackTest : public FakeShareTest {
 protected:
  LoginCallbackTest() : m_raw(m_clientEnd.get()) {
    m_fs->onFileExists = [this](const CURI& uri) {
      CURISelector area;
      CProps props = m_fs->getLoginManagerSet()->getLoginInfo(uri, &area);
      m_seenArea = area;
      return props.get("user") == "bob";
    };
    m_fs->onDeleteFile = [this](const CURI&) {
      CProps props;
      props.set("user", "alice");
      props.set("password", "p\"w");
      m_fs->getLoginManagerSet()->updateLoginInfo(CURISelector(CURI("file:///share/docs")), props);
    };
  }

  // Sends request, lets the server handle it on its own thread, runs answer
  // for the callback frame, and returns the final response.
  template <class Answer>
  CResponse exchange(CRequest& request, int expectedCallback, Answer answer) {
    m_raw.send(request);
    std::thread serving([this] { m_server->handleNextMessage(); });
    CResponse callback = m_raw.receive();
    EXPECT_EQ(callback.type, expectedCallback);
    answer(callback);
    CResponse result = m_raw.receive();
    serving.join();
    return result;
  }
  void answer(const std::function<void(CDataOutStream&)>& fill) {
    CProxyFileSystemMessage message;
    P<CDataOutStream> out = message.clearAndOpenOutStream();
    fill(*out);
    message.write(*m_clientEnd->getOutStream());
  }

  CRawClient m_raw;
  CURISelector m_seenArea;
};

TEST_F(LoginCallbackTest, GetLoginInfoAnswered) {
  CRequest request(Server::FuncFileExists);
  request.str("file:///share/a.txt");
  CResponse result = exchange(request, Server::ResponseGetLoginInfo, [&](CResponse& callback) {
    EXPECT_EQ(callback.in->readString(), "file:///share/a.txt");
    EXPECT_TRUE(callback.atEnd());
    answer([](CDataOutStream& out) {
      out.writeInt32(1);
      CProps props;
      props.set("user", "bob");
      out.writeString(props.toString());
      CURISelector(CURI("file:///share")).store(out);
    });
  });
  ASSERT_TRUE(result.isOK()) << result.describe();
  EXPECT_TRUE(result.in->readBool());
  EXPECT_EQ(m_seenArea, CURISelector(CURI("file:///share")));
}

TEST_F(LoginCallbackTest, GetLoginInfoRefusedByTheClient) {
  CRequest request(Server::FuncFileExists);
  request.str("file:///share/a.txt");
  CResponse result = exchange(request, Server::ResponseGetLoginInfo, [&](CResponse& callback) {
    callback.in->readString();
    answer([](CDataOutStream& out) {
      out.writeInt32(0);
      storeError(CFileSystemError(CFileSystemError::ProblemAccessDenied, CError("No credentials.")),
                 out);
    });
  });
  ASSERT_EQ(result.type, 0);
  EXPECT_EQ(result.error->getMessage(), "No credentials.");
  EXPECT_EQ(problemOf(*result.error), CFileSystemError::ProblemAccessDenied);
  ASSERT_TRUE(result.error->getCause());
  EXPECT_EQ(result.error->getCause()->getMessage(), "No credentials.");
}

TEST_F(LoginCallbackTest, UnexpectedAnswersAreErrors) {
  CRequest get(Server::FuncFileExists);
  get.str("file:///share/a.txt");
  CResponse first = exchange(get, Server::ResponseGetLoginInfo, [&](CResponse&) {
    answer([](CDataOutStream& out) { out.writeInt32(7); });
  });
  ASSERT_EQ(first.type, 0);
  EXPECT_EQ(first.error->getMessage(),
            "CProxyFileSystemServer: Unexpected message code received in response to "
            "ResponseGetLoginInfo: 7");
  EXPECT_EQ(first.error->getErrorCode(), -1);

  CRequest update(Server::FuncDeleteFile);
  update.str("file:///share/a.txt").b(false);
  CResponse second = exchange(update, Server::ResponseUpdateLoginInfo, [&](CResponse&) {
    answer([](CDataOutStream& out) { out.writeInt32(7); });
  });
  ASSERT_EQ(second.type, 0);
  EXPECT_EQ(second.error->getMessage(),
            "CProxyFileSystemServer: Unexpected message code received in response to "
            "ResponseGetLoginInfo: 7");
}

TEST_F(LoginCallbackTest, UpdateLoginInfoAnswered) {
  CRequest request(Server::FuncDeleteFile);
  request.str("file:///share/a.txt").b(false);
  CResponse result = exchange(request, Server::ResponseUpdateLoginInfo, [&](CResponse& callback) {
    EXPECT_EQ(CURISelector::load(*callback.in), CURISelector(CURI("file:///share/docs")));
    CProps props = CProps::fromString(callback.in->readString());
    EXPECT_EQ(props.get("user"), "alice");
    EXPECT_EQ(props.get("password"), "p\"w");
    EXPECT_TRUE(callback.atEnd());
    answer([](CDataOutStream& out) { out.writeInt32(1); });
  });
  EXPECT_TRUE(result.isOK()) << result.describe();
  EXPECT_TRUE(result.atEnd());
}

TEST_F(LoginCallbackTest, CallbacksGoToTheConnectionOfTheRunningRequest) {
  // A second server shares the same file system and becomes its login
  // manager; requests of the first still call back on their own connection.
  auto ends = CInProcessConnection::createPair();
  P<Server> second = createObject<Server>(ends.first.get());
  second->addShare(CURISelector(CURI("file:///share")), m_fs.get());
  EXPECT_EQ(m_fs->getLoginManagerSet().get(), second->getLoginManager().get());

  CRequest request(Server::FuncFileExists);
  request.str("file:///share/a.txt");
  CResponse result = exchange(request, Server::ResponseGetLoginInfo, [&](CResponse& callback) {
    callback.in->readString();
    answer([](CDataOutStream& out) {
      out.writeInt32(1);
      out.writeString("\"user\"=\"bob\"");
      CURISelector().store(out);
    });
  });
  ASSERT_TRUE(result.isOK()) << result.describe();
  EXPECT_TRUE(result.in->readBool());
  char byte;
  EXPECT_EQ(ends.second->getInStream()->readAvailable(&byte, 1), 0);
}

// Behind a rebasing share the questions and the areas are in the client's
// namespace, and the areas it answers with reach the file system in its own.
TEST_F(LoginCallbackTest, RebasingShareAsksInTheClientsNamespace) {
  m_server->addShare(CURISelector(CURI("zel://box")), m_fs.get(), CURI("file:///share"));
  CRequest request(Server::FuncFileExists);
  request.str("zel://box/docs/b.txt");
  CResponse result = exchange(request, Server::ResponseGetLoginInfo, [&](CResponse& callback) {
    EXPECT_EQ(callback.in->readString(), "zel://box/docs/b.txt");
    answer([](CDataOutStream& out) {
      out.writeInt32(1);
      out.writeString("\"user\"=\"bob\"");
      CURISelector(CURI("zel://box/docs")).store(out);
    });
  });
  ASSERT_TRUE(result.isOK()) << result.describe();
  EXPECT_TRUE(result.in->readBool());
  EXPECT_EQ(m_seenArea, CURISelector(CURI("file:///share/docs")));

  CRequest update(Server::FuncDeleteFile);
  update.str("zel://box/a.txt").b(false);
  CResponse updated = exchange(update, Server::ResponseUpdateLoginInfo, [&](CResponse& callback) {
    EXPECT_EQ(CURISelector::load(*callback.in), CURISelector(CURI("zel://box/docs")));
    answer([](CDataOutStream& out) { out.writeInt32(1); });
  });
  EXPECT_TRUE(updated.isOK()) << updated.describe();
}

TEST_F(LoginCallbackTest, OutsideARequestThereIsNobodyToAsk) {
  EXPECT_THROW(m_server->getLoginManager()->getLoginInfo(CURI("file:///share/a.txt"), nullptr),
               CBadStateError);
  EXPECT_THROW(m_server->getLoginManager()->updateLoginInfo(CURISelector(), CProps()),
               CBadStateError);
  // A request whose file system asks from another thread (a worker) gets the
  // same refusal as its error response.
  m_fs->onFileExists = [this](const CURI& uri) {
    bool refused = false;
    std::thread worker([&] {
      try {
        m_fs->getLoginManagerSet()->getLoginInfo(uri, nullptr);
      } catch (const CBadStateError&) {
        refused = true;
      }
    });
    worker.join();
    return refused;
  };
  CResponse response = callText(Server::FuncFileExists, "file:///share/a.txt");
  ASSERT_TRUE(response.isOK());
  EXPECT_TRUE(response.in->readBool());
}

// ---------------------------------------------------------------------------
// Byte-exact frames

struct CScenario {
  std::string name;
  std::vector<std::pair<std::string, Bytes>> frames;  // "request" / "response"
};

std::vector<CScenario> loadScenarios(const std::string& path) {
  std::ifstream file(path);
  EXPECT_TRUE(file.good()) << path;
  std::vector<CScenario> scenarios;
  std::string line;
  while (std::getline(file, line)) {
    const size_t hash = line.find('#');
    if (hash != std::string::npos) line.resize(hash);
    std::istringstream tokens(line);
    std::string word;
    if (!(tokens >> word)) continue;
    if (word == "scenario") {
      scenarios.emplace_back();
      tokens >> scenarios.back().name;
    } else if (word == "end") {
      continue;
    } else {
      if (scenarios.empty()) {
        ADD_FAILURE() << "frame outside a scenario: " << line;
        continue;
      }
      auto& frames = scenarios.back().frames;
      if (word == "request" || word == "response") {
        frames.emplace_back(word, Bytes());
      } else if (word != "more" || frames.empty()) {
        ADD_FAILURE() << "unknown line: " << line;
        continue;
      }
      std::string hex;
      while (tokens >> hex)
        frames.back().second.push_back(static_cast<unsigned char>(std::stoul(hex, nullptr, 16)));
    }
  }
  return scenarios;
}

TEST_P(FakeShareLinkTest, FramesAreByteExact) {
  const std::vector<CScenario> scenarios = loadScenarios(ZEL_TEST_VECTORS_DIR "/proxy_frames.txt");
  EXPECT_GE(scenarios.size(), 8u);
  for (const CScenario& scenario : scenarios) {
    SCOPED_TRACE(scenario.name);
    // A fresh server and share for each, as a client would see them.
    CRawClient client(m_link->connect().get());
    for (size_t i = 0; i < scenario.frames.size(); ++i) {
      const auto& [kind, bytes] = scenario.frames[i];
      ASSERT_GE(bytes.size(), 4u);
      const uint32_t length =
          bytes[0] | bytes[1] << 8 | bytes[2] << 16 | static_cast<uint32_t>(bytes[3]) << 24;
      ASSERT_EQ(length, bytes.size() - 4) << "length field of frame " << i;
      if (kind != "request") continue;
      ASSERT_LT(i + 1, scenario.frames.size());
      ASSERT_EQ(scenario.frames[i + 1].first, "response");
      client.send(bytes);
      P<CProxyFileSystemMessage> response = client.receiveMessage();
      Bytes frame = {0, 0, 0, 0};
      const Bytes payload = proxy_test::payloadOf(*response);
      frame.insert(frame.end(), payload.begin(), payload.end());
      const size_t n = payload.size();
      frame[0] = static_cast<unsigned char>(n);
      frame[1] = static_cast<unsigned char>(n >> 8);
      frame[2] = static_cast<unsigned char>(n >> 16);
      frame[3] = static_cast<unsigned char>(n >> 24);
      EXPECT_EQ(frame, scenario.frames[i + 1].second)
          << "response to frame " << i << ": " << parseResponse(*response).describe();
    }
  }
}

}  // namespace
}  // namespace zel
