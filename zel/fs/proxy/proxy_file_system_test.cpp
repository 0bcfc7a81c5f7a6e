#include "zel/fs/proxy/proxy_file_system.h"

#include <gtest/gtest.h>

#ifndef _WIN32
#include <sys/stat.h>
#endif

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "zel/core/error_predicates.h"
#include "zel/fs/background_op_thread.h"
#include "zel/fs/local_file_system.h"
#include "zel/fs/proxy/proxy_file_system_server.h"
#include "zel/fs/proxy/proxy_message.h"
#include "zel/ipc/in_process_connection.h"
#include "zel/log/xml_log.h"
#include "zel/stream/buffer_stream.h"
#include "zel/stream/stored_error.h"
#include "zel/thread/signal.h"
#include "tests/support/proxy_server_test_util.h"
#include "tests/support/temp_folder.h"

namespace zel {
namespace {

using Flags = TFlags<IIOStream::Flags>;
using proxy_test::Transport;

// Runs body, expecting an error of class E, and hands it to check.
template <class E = CError, class Body, class Check>
void expectError(Body body, Check check) {
  try {
    body();
    ADD_FAILURE() << "no error thrown";
  } catch (const E& e) {
    check(e);
  }
}

// The error or the first of its causes with the message, or null.
const CError* findInChain(const CError& error, const String& message) {
  for (const CError* e = &error; e; e = e->getCause().get()) {
    if (e->getMessage() == message) return e;
  }
  return nullptr;
}

bool waitUntil(const std::function<bool()>& condition, int timeoutMs = 10000) {
  const CTime deadline = CTime::now() + CTimeSpan(int64{timeoutMs} * 1000);
  while (!condition()) {
    if (CTime::now() > deadline) return false;
    CThread::sleep(5);
  }
  return true;
}

// Counts its calls and notes whether any came on the thread that made it.
class CCountingListener : public CBase, public IDoneListener {
 public:
  std::atomic<int> count{0};
  std::atomic<bool> onCreatingThread{false};

  void onBackgroundOpDone(IBackgroundOp* op) override {
    EXPECT_TRUE(op->hasFinished());
    if (std::this_thread::get_id() == m_creator) onCreatingThread = true;
    ++count;
  }

 private:
  const std::thread::id m_creator = std::this_thread::get_id();
};

// The client's side of login data, scripted per test.
class CTestLoginManager : public CBase, public IFileSystemLoginManager {
 public:
  CProps answer;
  CURISelector answerSelector;
  bool fail = false;
  IFileSystem* callBack = nullptr;
  std::vector<String> asked;
  int updates = 0;
  CURISelector updatedSelector;
  CProps updatedProps;

  CProps getLoginInfo(const CURI& uri, CURISelector* selector) override {
    asked.push_back(uri.toString());
    if (callBack) callBack->fileExists(uri);
    if (fail) throw CIOError(CIOError::ReadFailed, "vault locked");
    if (selector) *selector = answerSelector;
    return answer;
  }
  void updateLoginInfo(const CURISelector& selector, const CProps& props) override {
    ++updates;
    if (fail) throw CIOError(CIOError::ReadFailed, "vault locked");
    updatedSelector = selector;
    updatedProps = props;
  }
};

// A share for the server with scripted behaviour, addressed as
// "test://host/area/..." (the local file system's other operations refuse
// such URIs): the last segment picks what an operation does.
//   fileExists(.../login)      asks its login manager; true for user "bob"
//   folderExists(.../update)   reports new login data
//   pathExists(.../block)      waits for the gate
//   getFileInfo                an info that gathered type and size only
//   backgroundCreateFolder     createFolder on a worker; ".../blocked" waits
//                              for the gate
// Two answers report what it saw, for tests whose server runs elsewhere:
//   getFreeSpaceInFolder       how often an info's user name was read
//   getAccountOrUserNameUsedForAccess  the last login data: props, then the
//                              selector on a line of its own
class CScriptedFileSystem : public CFileSystem {
 public:
  CSignal entered;
  CSignal gate;
  CProps lastProps;
  CURISelector lastSelector;
  std::atomic<int> userNameReads{0};

  ~CScriptedFileSystem() override {
    gate.set();
    if (m_worker) m_worker->stop(false);
  }

  void setLoginManager(IFileSystemLoginManager* manager) override { m_login = manager; }
  bool fileExists(const CURI& uri) override {
    lastSelector = CURISelector();
    lastProps = m_login->getLoginInfo(uri, &lastSelector);
    return lastProps.get("user") == "bob";
  }
  bool folderExists(const CURI&) override {
    CProps props;
    props.set("token", "t1");
    m_login->updateLoginInfo(CURISelector(CURI("test://host/area")), props);
    return true;
  }
  bool pathExists(const CURI&) override {
    entered.set();
    gate.wait(-1);
    return true;
  }

  class CInfo : public CFileInfoBase {
   public:
    explicit CInfo(std::atomic<int>& reads) : m_reads(reads) {
      setType(TypeFile);
      setSize(42);
      setHasUnixInfo(true);
      setUnixUserName("alice");
      setUnixGroupName("staff");
      setCachedInfoMask(CachedType | CachedSize);
    }
    String getUnixUserName() override {
      ++m_reads;
      return CFileInfoBase::getUnixUserName();
    }

   private:
    std::atomic<int>& m_reads;
  };
  P<IFileInfoBase> getFileInfo(const CURI&, bool) override { return createObject<CInfo>(userNameReads); }

  P<IBackgroundOp> backgroundCreateFolder(const CURI& uri, int flags, IDoneListener* listener) override {
    if (!m_worker) {
      m_worker = createObject<CBackgroundOpThread>();
      m_worker->start();
    }
    return m_worker->addCreateFolderJob(this, uri, flags, listener);
  }
  void createFolder(const CURI& uri, int) override {
    if (uri.getName() == "blocked") gate.wait(-1);
  }
  int64 getFreeSpaceInFolder(const CURI&) override { return userNameReads.load(); }
  String getAccountOrUserNameUsedForAccess(const CURI&) override {
    return lastProps.toString() + "\n" + lastSelector.toString();
  }

 private:
  P<IFileSystemLoginManager> m_login;
  P<CBackgroundOpThread> m_worker;
};

// The server's shares: folder of the local file system, and the scripted
// file system at "test://host/area".
P<CScriptedFileSystem> addShares(CProxyFileSystemServer& server, IFileSystem* local, const String& folder) {
  P<CScriptedFileSystem> scripted = createObject<CScriptedFileSystem>();
  server.addShare(CURISelector(CURI::fromNativePath(CNativePath(folder))), local);
  server.addShare(CURISelector(CURI("test://host/area")), scripted.get());
  return scripted;
}

// args: address name, shared folder.
ZEL_TEST_CHILD(proxy_fs_server) {
  const String folder = String::fromUTF8(args.at(1).c_str());
  return proxy_test::runChildServer(args.at(0), [folder](CProxyFileSystemServer& server) {
    P<CFileSystem> local = createObject<CFileSystem>();
    addShares(server, local.get(), folder);
    return P<proxy_test::CMemFileSystem>();
  });
}

// A client and a server, the server sharing a temporary folder of the local
// file system and the scripted file system. The server runs in this process
// on a thread of its own, or in a child process shared by the test suite;
// with a child, each test works in a fresh subfolder of the child's shared
// folder, and a fresh server with a fresh scripted file system serves its
// connection.
class ProxyFileSystemFixture : public ::testing::Test {
 protected:
  static void TearDownTestSuite() { s_child.reset(); }
  void SetUp() override {
    m_local = createObject<CFileSystem>();
    if (m_transport == Transport::ChildProcess) {
      if (!s_child) s_child = std::make_unique<proxy_test::CChildServer>("proxy_fs_server");
      m_shared = s_child->getFolder();
      m_folder = s_child->newTestFolder();
      m_link = std::make_unique<proxy_test::CServerLink>(*s_child);
    } else {
      m_shared = m_folder = m_temp.getPath();
      m_link = std::make_unique<proxy_test::CServerLink>([this](CProxyFileSystemServer& server) {
        m_scripted = addShares(server, m_local.get(), m_temp.getPath());
        return P<proxy_test::CMemFileSystem>();
      });
    }
    m_proxy = createObject<CProxyFileSystem>(m_link->connect().get());
  }
  void TearDown() override {
    if (m_proxy) m_proxy->close();
    if (m_scripted) m_scripted->gate.set();
    m_link.reset();
    m_local->dispose();
  }

  CURI root() const { return CURI::fromNativePath(CNativePath(m_folder)); }
  CURI uri(const String& name) const { return root().append(name); }
  static CURI scripted(const String& name) { return CURI("test://host/area/" + name); }
  // The handles the server holds for this client.
  int64 openHandles() { return m_proxy->getFileSectorSize(proxy_test::probeHandlesURI()); }

  void writeFile(const CURI& target, const std::string& bytes) {
    P<IIOStream> stream = m_local->createStream(target, IIOStream::AccessReadWrite, IIOStream::FlagTruncate);
    stream->write(bytes.data(), static_cast<int>(bytes.size()));
    stream->close();
  }
  std::string readFile(const CURI& source) {
    P<IIOStream> stream = m_local->createStream(source, IIOStream::AccessRead, Flags());
    std::string bytes(static_cast<size_t>(stream->getLength()), '\0');
    stream->read(bytes.data(), static_cast<int>(bytes.size()));
    return bytes;
  }

  static inline std::unique_ptr<proxy_test::CChildServer> s_child;
  Transport m_transport = Transport::InProcess;
  test::CTempFolder m_temp;
  String m_shared;  // the shared folder
  String m_folder;  // this test's folder in it
  P<CFileSystem> m_local;
  std::unique_ptr<proxy_test::CServerLink> m_link;
  P<CScriptedFileSystem> m_scripted;  // in process only
  P<CProxyFileSystem> m_proxy;
};

class ProxyFileSystemTest : public ProxyFileSystemFixture, public ::testing::WithParamInterface<Transport> {
 protected:
  ProxyFileSystemTest() { m_transport = GetParam(); }
};
INSTANTIATE_TEST_SUITE_P(, ProxyFileSystemTest,
                         ::testing::Values(Transport::InProcess, Transport::ChildProcess),
                         proxy_test::transportName);

// Tests that hold the server's end or its scripted file system directly.
class ProxyFileSystemInProcessTest : public ProxyFileSystemFixture {};

TEST_P(ProxyFileSystemTest, FileAndFolderCallsReachTheShare) {
  CURI folder = uri("dir"), file = uri("dir").append("f.txt");
  m_proxy->createFolder(folder, 0);
  EXPECT_FALSE(m_proxy->ensureFolderExists(folder, 0));
  EXPECT_TRUE(m_proxy->ensureFolderExists(uri("a").append("b"), IFileSystem::CreateFolderParents));
  EXPECT_TRUE(m_proxy->isFolderEmpty(folder));
  EXPECT_TRUE(m_proxy->quickCheckFolderAccessible(folder));
  m_proxy->ensureFileExists(file);
  EXPECT_TRUE(m_proxy->fileExists(file));
  EXPECT_FALSE(m_proxy->folderExists(file));
  EXPECT_FALSE(m_proxy->fileExists(folder));
  EXPECT_TRUE(m_proxy->folderExists(folder));
  EXPECT_TRUE(m_proxy->pathExists(file));
  EXPECT_FALSE(m_proxy->pathExists(uri("none")));
  EXPECT_FALSE(m_proxy->isFolderEmpty(folder));

  EXPECT_EQ(m_proxy->createUniqueFilename(folder, "f.txt"), m_local->createUniqueFilename(folder, "f.txt"));
  EXPECT_NE(m_proxy->createUniqueFilename(folder, "f.txt"), file);
  EXPECT_EQ(m_proxy->createUniqueFolderName(root(), "dir"), m_local->createUniqueFolderName(root(), "dir"));
  EXPECT_EQ(m_proxy->getVolumeRootPath(file), m_local->getVolumeRootPath(file));
  EXPECT_EQ(m_proxy->getFileSectorSize(file), m_local->getFileSectorSize(file));
  EXPECT_GT(m_proxy->getFreeSpaceInFolder(folder), 0);
  EXPECT_EQ(m_proxy->getAccountOrUserNameUsedForAccess(folder), m_local->getAccountOrUserNameUsedForAccess(folder));

  writeFile(file, "content");
  m_proxy->copyFile(file, uri("copy.txt"), false);
  EXPECT_THROW(m_proxy->copyFile(file, uri("copy.txt"), false), CFileSystemError);
  m_proxy->moveFileOrFolder(uri("copy.txt"), uri("moved.txt"), false);
  EXPECT_EQ(readFile(uri("moved.txt")), "content");
  m_proxy->createFileHardLink(uri("hard.txt"), uri("moved.txt"));
  EXPECT_TRUE(m_local->getFileInfo(uri("moved.txt"), true)->isHardLinked());
  // Folder hard links exist only where the platform has junctions.
  try {
    m_proxy->createFolderHardLink(uri("junction"), folder);
    EXPECT_TRUE(m_local->folderExists(uri("junction")));
    m_proxy->unlinkFolder(uri("junction"));
  } catch (const CFileSystemError& e) {
    EXPECT_TRUE(couldBeUnsupportedError(e)) << e.what();
  }
  m_proxy->deleteFile(uri("moved.txt"), false);
  m_proxy->deleteFile(file, true);
  m_proxy->deleteEmptyFolder(folder, false);
  EXPECT_FALSE(m_local->pathExists(uri("moved.txt")));
  EXPECT_FALSE(m_local->pathExists(folder));
}

// Both depend on the platform and on the file system under the temporary
// folder: the proxy answers as the local file system does.
TEST_P(ProxyFileSystemTest, SubDataStreamsAndNativeMetaData) {
  CURI file = uri("host.txt");
  writeFile(file, "main");
  try {
    P<IIOStream> sub = m_proxy->createSubDataStream(file, "extra", IIOStream::AccessReadWrite, Flags());
    sub->write("side", 4);
    sub->close();
    P<IIOStream> check = m_local->createSubDataStream(file, "extra", IIOStream::AccessRead, Flags());
    char buffer[4] = {};
    check->read(buffer, 4);
    EXPECT_EQ(std::string(buffer, 4), "side");
  } catch (const CFileSystemError& e) {
    if (!couldBeUnsupportedError(e)) throw;  // Wine, file systems without user attributes
    EXPECT_THROW(m_local->createSubDataStream(file, "extra", IIOStream::AccessReadWrite, Flags()), CError);
  }
  P<IFileSystem::CNativeMetaData> local;
  try {
    local = m_local->getNativeMetaData(file, true, String());
  } catch (const CError&) {
  }
  if (!local) {
    EXPECT_THROW(m_proxy->getNativeMetaData(file, true, String()), CFileSystemError);
    return;
  }
  P<IFileSystem::CNativeMetaData> meta = m_proxy->getNativeMetaData(file, true, String());
  ASSERT_TRUE(meta);
  EXPECT_TRUE(*meta == *local);
}

// The existence checks of a confined share of the local file system are
// answered by the confinement check: the answers must be the local file
// system's, for names in the shared folder and below it, through links, and
// for entries that are neither files nor folders.
TEST_P(ProxyFileSystemTest, ExistenceChecksAnswerAsTheLocalFileSystem) {
  struct Case {
    CURI uri;
    bool file;
    bool folder;
  };
  m_local->createFolder(uri("d"), 0);
  writeFile(uri("f.txt"), "x");
  writeFile(uri("d").append("g.txt"), "x");
  std::vector<Case> cases = {
      {root(), false, true},
      {uri("f.txt"), true, false},
      {uri("d"), false, true},
      {uri("d").append("g.txt"), true, false},
      {uri("none"), false, false},
      {uri("d").append("none"), false, false},
      {uri("f.txt").append("x"), false, false},
  };
#ifndef _WIN32
  m_local->createFileSymLink(uri("lf"), uri("f.txt"));
  m_local->createFolderSymLink(uri("ld"), uri("d"));
  const std::string fifo = (m_folder + "/fifo").toStdUTF8();
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0) << std::strerror(errno);
  cases.push_back({uri("lf"), true, false});
  cases.push_back({uri("ld"), false, true});
  cases.push_back({uri("ld").append("g.txt"), true, false});
  // The local file system counts anything but a folder as a file.
  cases.push_back({uri("fifo"), true, false});
#endif
  for (const Case& c : cases) {
    SCOPED_TRACE(c.uri.toString().toStdUTF8());
    EXPECT_EQ(m_local->fileExists(c.uri), c.file);
    EXPECT_EQ(m_local->folderExists(c.uri), c.folder);
    EXPECT_EQ(m_proxy->fileExists(c.uri), c.file);
    EXPECT_EQ(m_proxy->folderExists(c.uri), c.folder);
    EXPECT_EQ(m_proxy->pathExists(c.uri), c.file || c.folder);
  }
}

TEST_P(ProxyFileSystemTest, SymbolicLinks) {
  writeFile(uri("target.txt"), "data");
  try {
    m_proxy->createFileSymLink(uri("link.txt"), uri("target.txt"));
  } catch (const CError& e) {
    if (couldBePermissionDeniedError(e) || couldBeUnsupportedError(e)) {
      GTEST_SKIP() << "symbolic links cannot be created here: " << e.what();
    }
    throw;
  }
  EXPECT_EQ(m_local->getFileInfo(uri("link.txt"), false)->getSymLinkType(), IFileInfoBase::SymLinkFile);
  EXPECT_EQ(m_proxy->getFileInfo(uri("link.txt"), false)->getSymLinkType(), IFileInfoBase::SymLinkFile);
  m_proxy->deleteSymLink(uri("link.txt"));
  EXPECT_FALSE(m_local->pathExists(uri("link.txt")));

  m_local->createFolder(uri("folder"), 0);
  m_proxy->createFolderSymLink(uri("folderLink"), uri("folder"));
  EXPECT_EQ(m_proxy->getFileInfo(uri("folderLink"), false)->getSymLinkType(), IFileInfoBase::SymLinkFolder);
  m_proxy->unlinkFolder(uri("folderLink"));
  EXPECT_FALSE(m_local->pathExists(uri("folderLink")));
  EXPECT_TRUE(m_local->folderExists(uri("folder")));
}

TEST_P(ProxyFileSystemTest, StreamOperationsAndReleases) {
  CURI file = uri("s.bin");
  P<IIOStream> stream = m_proxy->createStream(file, IIOStream::AccessReadWrite, Flags());
  EXPECT_EQ(stream->getURI(), file);
  EXPECT_EQ(stream->getPositionAlign() + stream->getBufferAlign() + stream->getBestPerformancePositionAlign(), 3);

  stream->write("hello world", 11);
  EXPECT_EQ(stream->getPosition(), 11);
  P<IWriteBarrier> barrier = stream->createWriteBarrier();
  P<IWriteBarrier> child = stream->createWriteBarrier(barrier.get());
  stream->write("!", 1, child.get());
  P<CBufferStream::Buffer> shared = createObject<CBufferStream::Buffer>(
      reinterpret_cast<const unsigned char*>("??"), 2);
  stream->writeKeepBuffer(TConstBufferSlice<unsigned char>(shared), barrier.get());
  stream->flush();
  EXPECT_EQ(stream->getLength(), 14);
  EXPECT_EQ(readFile(file), "hello world!??");

  char buffer[32] = {};
  stream->seek(0);
  EXPECT_EQ(stream->readLax(buffer, 32), 14);
  EXPECT_EQ(std::string(buffer, 14), "hello world!??");
  EXPECT_TRUE(stream->isEndOfStream());
  EXPECT_EQ(stream->isEndOfStream_NonBlocking(), 1);
  EXPECT_EQ(stream->readLax(buffer, 32), 0);
  stream->seek(6);
  EXPECT_FALSE(stream->isEndOfStream());
  EXPECT_EQ(stream->isEndOfStream_NonBlocking(), 0);
  EXPECT_TRUE(stream->waitReadable(0));
  stream->read(buffer, 5);
  EXPECT_EQ(std::string(buffer, 5), "world");
  EXPECT_EQ(stream->readAvailable(buffer, 2), 2);
  EXPECT_EQ(std::string(buffer, 2), "!?");
  EXPECT_EQ(stream->readAvailable(buffer, 0), 0);
  expectError<CIOError>([&] { stream->read(buffer, 5); },
                        [](const CIOError& e) { EXPECT_EQ(e.getErrorCode(), CIOError::UnexpectedEnd); });
  stream->setLength(5);
  EXPECT_EQ(stream->getLength(), 5);
  EXPECT_EQ(readFile(file), "hello");

  // A barrier of another stream type or file system is refused here.
  P<IWriteBarrier> foreign = createObject<CImmediateWriteBarrier>();
  EXPECT_THROW(stream->write("x", 1, foreign.get()), CInvalidArgError);
  EXPECT_THROW(stream->write(buffer, -1), CInvalidArgError);

  P<IStreamLock> lock = stream->lockRange(0, 5, IStreamBase::Exclusive);
  P<IIOStream> second = m_proxy->createStream(file, IIOStream::AccessRead, Flags());
  EXPECT_THROW(second->lockRange(0, 5, IStreamBase::Shared), CFileSystemError);
  // Streams, barriers and the lock: one handle each on the server.
  EXPECT_EQ(openHandles(), 5);
  lock = nullptr;
  EXPECT_EQ(openHandles(), 4);
  P<IStreamLock> again = second->lockRange(0, 5, IStreamBase::Shared);
  again = nullptr;
  child = nullptr;
  barrier = nullptr;
  second = nullptr;  // closed on destruction
  EXPECT_EQ(openHandles(), 1);
  stream->close();
  EXPECT_EQ(openHandles(), 0);
  stream->close();
  expectError<CIOError>([&] { stream->getLength(); }, [](const CIOError& e) {
    EXPECT_EQ(e.getErrorCode(), CIOError::StreamClosed);
  });
  EXPECT_THROW(stream->read(buffer, 1), CIOError);
}

// Transfers above the largest request are split; the bytes arrive whole and
// in order across the request boundaries.
TEST_P(ProxyFileSystemTest, LargeReadsAndWritesAreSplit) {
  const int size = CProxyFileSystemBase::kMaxDataChunk + 4099;
  std::vector<unsigned char> data(static_cast<size_t>(size));
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 7 + (i >> 13));
  P<IIOStream> stream = m_proxy->createStream(uri("big.bin"), IIOStream::AccessReadWrite, Flags());
  stream->write(data.data(), size);
  EXPECT_EQ(stream->getLength(), size);
  std::vector<unsigned char> back(static_cast<size_t>(size));
  stream->seek(0);
  stream->read(back.data(), size);
  EXPECT_TRUE(back == data);
  stream->seek(size - 10);
  EXPECT_EQ(stream->readLax(back.data(), size), 10);
  EXPECT_EQ(std::memcmp(back.data(), data.data() + size - 10, 10), 0);
}

// Items the first answer lacks are fetched once, on first use.
TEST_P(ProxyFileSystemTest, FileInfoFetchesOtherItemsOnce) {
  P<IFileInfoBase> info = m_proxy->getFileInfo(scripted("x"), false);
  EXPECT_EQ(info->getSize(), 42);
  EXPECT_EQ(info->getCachedInfoMask(), uint64{IFileInfoBase::CachedType | IFileInfoBase::CachedSize});
  auto userNameReads = [&] { return m_proxy->getFreeSpaceInFolder(scripted("reads")); };
  EXPECT_EQ(userNameReads(), 0);
  EXPECT_EQ(info->getUnixUserName(), "alice");
  EXPECT_EQ(userNameReads(), 1);
  EXPECT_EQ(info->getUnixGroupName(), "staff");
  EXPECT_TRUE(info->hasUnixInfo());
  EXPECT_EQ(info->getUnixUserName(), "alice");
  EXPECT_EQ(userNameReads(), 1);
  EXPECT_EQ(info->getCachedInfoMask(), uint64{IFileInfoBase::CachedType | IFileInfoBase::CachedSize});
  EXPECT_EQ(openHandles(), 1);
  info = nullptr;
  EXPECT_EQ(openHandles(), 0);
}

TEST_P(ProxyFileSystemTest, FolderContents) {
  CURI folder = uri("list");
  m_local->createFolder(folder, 0);
  P<IFolderContentsIterator> empty = m_proxy->getFolderContents(folder);
  expectError<CBadStateError>([&] { empty->getItemName(); }, [](const CError& e) {
    EXPECT_EQ(e.getMessage(),
              "CProxyFileSystem::CFolderContentsIterator::getItemName called but iterator is not on an item.");
  });
  EXPECT_FALSE(empty->nextItem());
  expectError<CBadStateError>([&] { empty->getItemInfo(); }, [](const CError& e) {
    EXPECT_EQ(e.getMessage(),
              "CProxyFileSystem::CFolderContentsIterator::getItemInfo called but iterator is not on an item.");
  });

  writeFile(folder.append("a.txt"), "abc");
  writeFile(folder.append(L"\u00e9t\u00e9.txt"), "");
  m_local->createFolder(folder.append("sub"), 0);
  P<IFolderContentsIterator> it = m_proxy->getFolderContents(folder);
  std::map<std::string, P<IFileInfoBase>> items;
  while (it->nextItem()) items[it->getItemName().toStdUTF8()] = it->getItemInfo();
  EXPECT_FALSE(it->nextItem());
  EXPECT_THROW(it->getItemName(), CBadStateError);
  ASSERT_EQ(items.size(), 3u);
  EXPECT_EQ(items["a.txt"]->getSize(), 3);
  EXPECT_EQ(items["sub"]->getType(), IFileInfoBase::TypeFolder);
  EXPECT_EQ(items[String(L"\u00e9t\u00e9.txt").toStdUTF8()]->getType(), IFileInfoBase::TypeFile);
  // Listings hold no server handles.
  EXPECT_EQ(openHandles(), 0);
}

TEST_P(ProxyFileSystemTest, MetaModifierAppliesOnlyOnRequest) {
  CURI file = uri("meta.txt");
  writeFile(file, "x");
  const CTime before = m_local->getFileInfo(file, true)->getDataModifiedTime();
  const CTime when(int64{1500000000} * 1000000);
  P<IFileMetaModifier> modifier = m_proxy->createMetaModifier(file, true);
  modifier->setDataModifiedTime(when);
#ifdef _WIN32
  modifier->setUnixMode(0600);  // no such attribute here: ignored
#else
  modifier->setWindowsAttributes(0x2);  // no such attribute here: ignored
#endif
  EXPECT_EQ(m_local->getFileInfo(file, true)->getDataModifiedTime(), before);
  modifier->applyCachedChanges();
  EXPECT_EQ(m_local->getFileInfo(file, true)->getDataModifiedTime(), when);

  modifier = m_proxy->createMetaModifier(file, true);
  modifier->setCreatedTime(when);
  modifier->setHidden(false);
  modifier->setIndexable(true);
  modifier->setReadOnly(true);
  modifier->applyCachedChanges();
  EXPECT_TRUE(m_local->getFileInfo(file, true)->isReadOnly());
  modifier = m_proxy->createMetaModifier(file, true);  // the first one is released
  EXPECT_EQ(openHandles(), 1);
  modifier->setReadOnly(false);
  modifier->applyCachedChanges();
  EXPECT_FALSE(m_local->getFileInfo(file, true)->isReadOnly());
  modifier = nullptr;
  EXPECT_EQ(openHandles(), 0);
}

TEST_P(ProxyFileSystemTest, ServerErrorsArriveWithTheirKind) {
  CURI missing = uri("missing.txt");
  CError local("none");
  expectError([&] { m_local->deleteFile(missing, false); }, [&](const CError& e) { local = e; });
  expectError<CFileSystemError>([&] { m_proxy->deleteFile(missing, false); }, [&](const CFileSystemError& e) {
    EXPECT_EQ(e.getMessage(), local.getMessage());
    EXPECT_EQ(e.getErrorCodeDomain(), local.getErrorCodeDomain());
    EXPECT_EQ(e.getErrorCode(), local.getErrorCode());
    EXPECT_EQ(e.getParams().get("uri"), missing.toString());
    EXPECT_TRUE(isFileOrFolderNotFoundError(e));
    ASSERT_TRUE(e.getCause());
    EXPECT_EQ(e.getCause()->getMessage(), local.getMessage());
    EXPECT_EQ(e.getCause()->getErrorCode(), local.getErrorCode());
    EXPECT_EQ(e.getCause()->getParams(), local.getParams());
  });
  const CURI outside = CURI::fromNativePath(CNativePath(m_shared)).getParent().append("elsewhere");
  expectError<CFileSystemError>([&] { m_proxy->fileExists(outside); }, [](const CError& e) {
    EXPECT_EQ(e.getMessage(), "Proxy URI does not reference a shared filesystem area.");
  });

  // Decided by the client, with their own class.
  EXPECT_THROW(m_proxy->createStream(uri("new.bin"), IIOStream::AccessRead, IIOStream::FlagTruncate),
               CInvalidArgError);
  EXPECT_THROW(m_proxy->createFolder(uri("x"), 0x100), CInvalidArgError);
  EXPECT_FALSE(m_local->pathExists(uri("new.bin")));
  EXPECT_TRUE(m_proxy->isUsable());
}

TEST_P(ProxyFileSystemTest, LoginCallbacks) {
  P<CTestLoginManager> manager = createObject<CTestLoginManager>();
  manager->answer.set("user", "bob");
  manager->answer.set("password", "p\"w,x");
  manager->answerSelector = CURISelector(CURI("test://host/area"));
  m_proxy->setLoginManager(manager.get());
  // What the server's file system last got as login data.
  auto seen = [&] { return m_proxy->getAccountOrUserNameUsedForAccess(scripted("seen")); };

  // Asked for login data.
  EXPECT_TRUE(m_proxy->fileExists(scripted("login")));
  ASSERT_EQ(manager->asked.size(), 1u);
  EXPECT_EQ(manager->asked[0], scripted("login").toString());
  EXPECT_EQ(seen(), manager->answer.toString() + "\n" + manager->answerSelector.toString());
  // Told of new login data.
  EXPECT_TRUE(m_proxy->folderExists(scripted("update")));
  EXPECT_EQ(manager->updates, 1);
  EXPECT_EQ(manager->updatedProps.get("token"), "t1");
  EXPECT_EQ(manager->updatedSelector, CURISelector(CURI("test://host/area")));

  // A manager that fails: its error is the server's, and comes back.
  manager->fail = true;
  for (int round = 0; round < 2; ++round) {
    expectError<CFileSystemError>(
        [&] {
          if (round == 0) m_proxy->fileExists(scripted("login"));
          else m_proxy->folderExists(scripted("update"));
        },
        [](const CError& e) {
          const CError* original = findInChain(e, "vault locked");
          ASSERT_TRUE(original) << e.what();
          EXPECT_EQ(original->getErrorCodeDomain(), CIOError::errorCodeDomain());
          EXPECT_EQ(original->getErrorCode(), CIOError::ReadFailed);
        });
  }
  // A manager calling back into the file system is refused, not deadlocked.
  manager->fail = false;
  manager->callBack = m_proxy.get();
  expectError<CFileSystemError>([&] { m_proxy->fileExists(scripted("login")); }, [](const CError& e) {
    EXPECT_TRUE(findInChain(
        e, "CProxyFileSystem called from inside one of its own calls (a login manager callback)."))
        << e.what();
  });
  manager->callBack = nullptr;
  EXPECT_TRUE(m_proxy->fileExists(scripted("login")));

  // Without a manager: empty answers, not errors.
  m_proxy->setLoginManager(nullptr);
  EXPECT_FALSE(m_proxy->fileExists(scripted("login")));
  EXPECT_EQ(seen(), CProps().toString() + "\n" + CURISelector().toString());
  EXPECT_TRUE(m_proxy->folderExists(scripted("update")));
}

TEST_P(ProxyFileSystemTest, BackgroundOperationsCompleteOnce) {
  P<CCountingListener> listener = createObject<CCountingListener>();
  P<IBackgroundOp> op = m_proxy->backgroundCreateFolder(uri("bg"), 0, listener.get());
  ASSERT_TRUE(op->waitFinished(10000));
  op->throwErrorIfFailed();
  EXPECT_TRUE(m_local->folderExists(uri("bg")));

  P<CBufferStream> source = createObject<CBufferStream>("payload", 7);
  op = m_proxy->backgroundStore(uri("bg").append("small.bin"), 7, source.get(), false, listener.get());
  ASSERT_TRUE(op->waitFinished(10000));
  op->throwErrorIfFailed();
  EXPECT_EQ(readFile(uri("bg").append("small.bin")), "payload");

  op = m_proxy->backgroundMoveFileOrFolder(uri("bg").append("small.bin"), uri("bg").append("moved.bin"), false, listener.get());
  ASSERT_TRUE(op->waitFinished(10000));
  op->throwErrorIfFailed();
  EXPECT_TRUE(m_local->fileExists(uri("bg").append("moved.bin")));

  op = m_proxy->backgroundDeleteFile(uri("bg").append("moved.bin"), listener.get());
  ASSERT_TRUE(op->waitFinished(10000));
  op->throwErrorIfFailed();
  EXPECT_FALSE(m_local->pathExists(uri("bg").append("moved.bin")));

  // A failure travels with its kind.
  op = m_proxy->backgroundDeleteFile(uri("bg").append("moved.bin"), listener.get());
  ASSERT_TRUE(op->waitFinished(10000));
  expectError<CFileSystemError>([&] { op->throwErrorIfFailed(); }, [](const CError& e) {
    EXPECT_TRUE(isFileOrFolderNotFoundError(e)) << e.what();
    EXPECT_TRUE(e.getCause());
  });

  ASSERT_TRUE(waitUntil([&] { return listener->count.load() == 5; }));
  EXPECT_FALSE(listener->onCreatingThread.load());
  // Reported once: nothing more arrives, and the server forgot them.
  CThread::sleep(200);
  EXPECT_EQ(listener->count.load(), 5);
  EXPECT_EQ(openHandles(), 0);

  // Refused before anything is sent: failed from the start.
  op = m_proxy->backgroundCreateFolder(uri("bad"), 0x100, listener.get());
  EXPECT_TRUE(op->hasFinished());
  EXPECT_THROW(op->throwErrorIfFailed(), CInvalidArgError);
  EXPECT_EQ(listener->count.load(), 6);
}

TEST_P(ProxyFileSystemTest, LargeStoreRunsOnTheClient) {
  const int size = CProxyFileSystemBase::kMaxDataChunk + 1000;
  std::string data(static_cast<size_t>(size), '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i % 251);
  P<CBufferStream> source = createObject<CBufferStream>(data.data(), data.size());
  P<CCountingListener> listener = createObject<CCountingListener>();
  P<IBackgroundOp> op = m_proxy->backgroundStore(uri("large.bin"), size, source.get(), false, listener.get());
  ASSERT_TRUE(op->waitFinished(60000));
  op->throwErrorIfFailed();
  EXPECT_TRUE(readFile(uri("large.bin")) == data);
  EXPECT_TRUE(waitUntil([&] { return listener->count.load() == 1; }));
}

TEST_P(ProxyFileSystemTest, CloseFailsOutstandingOperations) {
  P<CCountingListener> listener = createObject<CCountingListener>();
  P<IBackgroundOp> op = m_proxy->backgroundCreateFolder(scripted("blocked"), 0, listener.get());
  EXPECT_FALSE(op->waitFinished(150));
  m_proxy->close();
  ASSERT_TRUE(op->waitFinished(5000));
  expectError<CIOError>([&] { op->throwErrorIfFailed(); }, [](const CIOError& e) {
    EXPECT_EQ(e.getErrorCode(), CIOError::StreamClosed);
  });
  ASSERT_TRUE(waitUntil([&] { return listener->count.load() == 1; }));
  expectError<CIOError>([&] { m_proxy->fileExists(uri("x")); }, [](const CIOError& e) {
    EXPECT_EQ(e.getErrorCode(), CIOError::StreamClosed);
  });
  op = m_proxy->backgroundDeleteFile(uri("x"), nullptr);
  EXPECT_TRUE(op->hasFinished());
  EXPECT_THROW(op->throwErrorIfFailed(), CIOError);
}

// An outstanding operation holds its file system; when it completes, the
// file system goes away on the polling thread and closes its connection.
TEST_F(ProxyFileSystemInProcessTest, OutstandingOperationKeepsTheFileSystemAlive) {
  P<CCountingListener> listener = createObject<CCountingListener>();
  P<IBackgroundOp> op = m_proxy->backgroundCreateFolder(scripted("blocked"), 0, listener.get());
  m_proxy = nullptr;
  EXPECT_FALSE(op->waitFinished(150));
  EXPECT_EQ(m_link->getEndedCount(), 0);
  m_scripted->gate.set();
  ASSERT_TRUE(op->waitFinished(10000));
  op->throwErrorIfFailed();
  ASSERT_TRUE(waitUntil([&] { return listener->count.load() == 1; }));
  EXPECT_TRUE(waitUntil([&] { return m_link->getEndedCount() == 1; }));
}

// The server goes away while a call waits for its answer: the call fails
// promptly, the file system stays unusable, outstanding operations fail.
// (A server process killed mid-call: ProxyProcessTest.)
TEST_F(ProxyFileSystemInProcessTest, ServerGoneMidCall) {
  P<CCountingListener> listener = createObject<CCountingListener>();
  P<IBackgroundOp> pending = m_proxy->backgroundCreateFolder(scripted("blocked"), 0, listener.get());
  std::thread closer([&] {
    if (m_scripted->entered.wait(10000)) m_link->getLastServerEnd()->close();
  });
  const CTime start = CTime::now();
  EXPECT_THROW(m_proxy->pathExists(scripted("block")), CIOError);
  EXPECT_LT((CTime::now() - start).getMicroseconds(), int64{5000000});
  closer.join();
  m_scripted->gate.set();
  EXPECT_FALSE(m_proxy->isUsable());
  expectError<CIOError>([&] { m_proxy->fileExists(uri("x")); }, [](const CIOError& e) {
    EXPECT_EQ(e.getErrorCode(), CIOError::StreamClosed);
    EXPECT_TRUE(e.getCause());
  });
  ASSERT_TRUE(pending->waitFinished(5000));
  expectError<CIOError>([&] { pending->throwErrorIfFailed(); }, [](const CIOError& e) {
    EXPECT_EQ(e.getErrorCode(), CIOError::StreamClosed);
    EXPECT_TRUE(e.getCause());
  });
  ASSERT_TRUE(waitUntil([&] { return listener->count.load() == 1; }));
}

// A server scripted by hand: answers are queued before the call (the
// connection buffers them), requests are checked afterwards.
class ProxyScriptedServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto [client, server] = CInProcessConnection::createPair();
    m_server = server;
    m_proxy = createObject<CProxyFileSystem>(client.get());
  }
  void TearDown() override { m_proxy->close(); }

  void answer(const std::function<void(CDataOutStream&)>& write) {
    P<CProxyFileSystemMessage> message = createObject<CProxyFileSystemMessage>();
    write(*message->clearAndOpenOutStream());
    message->write(*m_server->getOutStream());
  }
  P<CDataInStream> request() {
    return CProxyFileSystemMessage::read(*m_server->getInStream())->openInStream();
  }

  P<IConnection> m_server;
  P<CProxyFileSystem> m_proxy;
};

TEST_F(ProxyScriptedServerTest, InvalidResponseTypeIsLoggedAndThrown) {
  answer([](CDataOutStream& out) { out.writeInt32(7); });
  answer([](CDataOutStream& out) { out.writeInt32(1).writeBool(true); });
  CLogCapture log;
  const CURI file("file:///x/y");
  expectError<CFileSystemError>([&] { m_proxy->fileExists(file); }, [](const CFileSystemError& e) {
    EXPECT_EQ(e.getProblem(), CFileSystemError::ProblemUnknown);
    ASSERT_TRUE(e.getCause());
    EXPECT_EQ(e.getCause()->getMessage(), "Internal filesystem error");
    EXPECT_EQ(e.getCause()->getErrorCode(), -1);
  });
  bool logged = false;
  for (const CLogEntry& entry : log.getEntries()) {
    logged |= entry.level == LogLevel::Error &&
              entry.text == "Internal Error: invalid response type in CProxyFileSystem response: 7";
  }
  EXPECT_TRUE(logged);
  // The frame was read whole: the next call is in step.
  EXPECT_TRUE(m_proxy->fileExists(file));
}

TEST_F(ProxyScriptedServerTest, OpMisuseIsRefused) {
  answer([](CDataOutStream& out) { out.writeInt32(1).writeInt64(12); });
  CProxyFileSystem::COp op(*m_proxy, CProxyFileSystemBase::FuncGetFreeSpaceInFolder);
  expectError<CBadStateError>([&] { op.response(); }, [](const CError& e) {
    EXPECT_EQ(e.getMessage(), "CProxyFileSystem::COp::response called before execute.");
  });
  op.request().writeString("file:///x");
  op.execute();
  EXPECT_EQ(op.response().readInt64(), 12);
  expectError<CBadStateError>([&] { op.response(); }, [](const CError& e) {
    EXPECT_EQ(e.getMessage(), "CProxyFileSystem::COp::response called multiple times.");
  });
}

TEST_F(ProxyScriptedServerTest, FinalizeReportsUnknownHandlesAndFailures) {
  answer([](CDataOutStream& out) { out.writeInt32(1).writeInt64(5); });
  answer([](CDataOutStream& out) {
    out.writeInt32(1).writeInt64(99).writeBool(false).writeInt64(5).writeBool(true);
    CProps params;
    params.set(CFileSystemError::paramFileSysProblem(), "4");
    storeError(CError("disk full", CIOError::errorCodeDomain(), CIOError::WriteFailed, params), out);
    out.writeInt64(CProxyFileSystemBase::kHandleListEnd);
  });
  CLogCapture log;
  P<CCountingListener> listener = createObject<CCountingListener>();
  P<IBackgroundOp> op = m_proxy->backgroundDeleteFile(CURI("file:///x"), listener.get());
  ASSERT_TRUE(op->waitFinished(10000));
  expectError<CFileSystemError>([&] { op->throwErrorIfFailed(); }, [](const CFileSystemError& e) {
    EXPECT_EQ(e.getMessage(), "disk full");
    EXPECT_EQ(e.getProblem(), CFileSystemError::ProblemOutOfSpace);
    ASSERT_TRUE(e.getCause());
    EXPECT_EQ(e.getCause()->getErrorCode(), CIOError::WriteFailed);
  });
  ASSERT_TRUE(waitUntil([&] { return listener->count.load() == 1; }));
  EXPECT_TRUE(log.contains(LogLevel::Error,
                           "INTERNAL ERROR: Proxy filesystem server returned an unknown background op ID "
                           "in response to FuncBackgroundOpsFinalize. Ignoring."));
  P<CDataInStream> begin = request();
  EXPECT_EQ(begin->readInt32(), CProxyFileSystemBase::FuncBackgroundDeleteFileBegin);
  P<CDataInStream> finalize = request();
  EXPECT_EQ(finalize->readInt32(), CProxyFileSystemBase::FuncBackgroundOpsFinalize);
  EXPECT_EQ(finalize->readInt64(), 5);
  EXPECT_EQ(finalize->readInt64(), CProxyFileSystemBase::kHandleListEnd);
}

// The polling thread polls, then sleeps 50 ms: two finalize requests are
// never closer than that, however many operations start meanwhile.
TEST_F(ProxyScriptedServerTest, PollingSleepsBetweenTwoFinalizeRequests) {
  using Clock = std::chrono::steady_clock;
  std::vector<Clock::time_point> polls;
  std::thread server([&] {
    int64 next = 10;
    try {
      for (;;) {
        P<CDataInStream> in = request();
        const int func = in->readInt32();
        if (func != CProxyFileSystemBase::FuncBackgroundOpsFinalize) {
          answer([&](CDataOutStream& out) { out.writeInt32(1).writeInt64(next++); });
          continue;
        }
        polls.push_back(Clock::now());
        std::vector<int64> handles;
        for (int64 h; (h = in->readInt64()) != CProxyFileSystemBase::kHandleListEnd;) {
          handles.push_back(h);
        }
        answer([&](CDataOutStream& out) {
          out.writeInt32(1);
          // Nothing has finished for the first polls, then everything.
          if (polls.size() > 5) {
            for (int64 h : handles) out.writeInt64(h).writeBool(false);
          }
          out.writeInt64(CProxyFileSystemBase::kHandleListEnd);
        });
      }
    } catch (const CError&) {
      // The client closed the connection.
    }
  });
  std::vector<P<IBackgroundOp>> ops;
  for (int i = 0; i < 3; ++i) {
    ops.push_back(m_proxy->backgroundDeleteFile(CURI("file:///x/" + String::fromInt64(i)), nullptr));
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  for (const P<IBackgroundOp>& op : ops) ASSERT_TRUE(op->waitFinished(10000));
  m_proxy->close();
  server.join();
  ASSERT_GE(polls.size(), 6u);
  for (size_t i = 1; i < polls.size(); ++i) {
    EXPECT_GE(polls[i] - polls[i - 1], std::chrono::milliseconds(45)) << "poll " << i;
  }
}

// Counts and lengths that cannot be negative are refused before anything is
// sent; reads of a negative count read nothing, as every stream's do.
TEST_F(ProxyScriptedServerTest, NegativeCountsAreRefusedBeforeSending) {
  answer([](CDataOutStream& out) { out.writeInt32(1).writeInt64(3); });
  P<IIOStream> stream = m_proxy->createStream(CURI("file:///x"), IIOStream::AccessReadWrite, Flags());
  // Answers for requests that should not come, so that a client sending
  // them fails the checks below instead of waiting.
  for (int i = 0; i < 5; ++i) {
    answer([](CDataOutStream& out) { out.writeInt32(1).writeInt64(0).writeInt32(0); });
  }
  auto refused = [](const std::function<void()>& call, const char* message) {
    expectError<CInvalidArgError>(call, [&](const CError& e) { EXPECT_EQ(e.getMessage(), message); });
  };
  refused([&] { stream->setLength(-1); },
          "Invalid argument passed to 'CProxyFileSystem::CStream::setLength': negative length");
  refused([&] { stream->lockRange(-1, 1, IStreamBase::Shared); },
          "Invalid argument passed to 'CProxyFileSystem::CStream::lockRange': negative start or "
          "byte count");
  refused([&] { stream->lockRange(0, -1, IStreamBase::Exclusive); },
          "Invalid argument passed to 'CProxyFileSystem::CStream::lockRange': negative start or "
          "byte count");
  char buffer[4];
  EXPECT_EQ(stream->readLax(buffer, -1), 0);
  EXPECT_EQ(stream->readAvailable(buffer, -1), 0);
  EXPECT_EQ(request()->readInt32(), CProxyFileSystemBase::FuncStreamOpen);
  EXPECT_FALSE(m_server->getInStream()->waitReadable(0)) << "a request was sent";
  m_proxy->close();
}

// A read result that does not fit its request breaks the connection rather
// than writing past the caller's buffer.
TEST_F(ProxyScriptedServerTest, OversizedReadResultBreaksTheConnection) {
  answer([](CDataOutStream& out) { out.writeInt32(1).writeInt64(3); });
  answer([](CDataOutStream& out) { out.writeInt32(1).writeInt32(8).writeInt64(0); });
  P<IIOStream> stream = m_proxy->createStream(CURI("file:///x"), IIOStream::AccessRead, Flags());
  char buffer[4];
  expectError<CIOError>([&] { stream->readLax(buffer, 4); }, [](const CIOError& e) {
    EXPECT_EQ(e.getErrorCode(), CIOError::InvalidData);
  });
  EXPECT_FALSE(m_proxy->isUsable());
  stream = nullptr;  // nothing is sent on a broken connection
}

// The shared frame vectors: for each scenario the client is driven through
// the same calls with the recorded answers queued; what it sends must be the
// recorded requests byte for byte.
TEST_F(ProxyScriptedServerTest, FramesMatchTheSharedVectors) {
  std::ifstream file(ZEL_TEST_VECTORS_DIR "/proxy_frames.txt");
  ASSERT_TRUE(file) << "missing proxy_frames.txt";
  struct Scenario {
    std::vector<std::string> requests, responses;
  };
  std::map<std::string, Scenario> scenarios;
  Scenario* current = nullptr;
  std::string* frame = nullptr;
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line.substr(0, line.find('#')));
    std::string word;
    if (!(words >> word)) continue;
    if (word == "scenario") {
      words >> word;
      current = &scenarios[word];
      continue;
    }
    if (word == "end" || !current) continue;
    if (word == "request") frame = &current->requests.emplace_back();
    if (word == "response") frame = &current->responses.emplace_back();
    for (std::string hex; words >> hex;) frame->push_back(static_cast<char>(std::stoi(hex, nullptr, 16)));
  }
  const CURI a("file:///share/a.txt"), docs("file:///share/docs");
  const std::map<std::string, std::function<void(CProxyFileSystem&)>> drivers = {
      {"fileExists", [&](CProxyFileSystem& fs) {
         EXPECT_TRUE(fs.fileExists(a));
         EXPECT_FALSE(fs.fileExists(CURI("file:///share/missing")));
       }},
      {"outsideShares", [&](CProxyFileSystem& fs) {
         expectError<CFileSystemError>([&] { fs.fileExists(CURI("file:///other/x")); }, [](const CError& e) {
           EXPECT_EQ(e.getMessage(), "Proxy URI does not reference a shared filesystem area.");
           EXPECT_EQ(e.getParams().get("uri"), "file:///other/x");
         });
       }},
      {"unknownFunction", [&](CProxyFileSystem& fs) {
         expectError<CFileSystemError>([&] { CProxyFileSystem::COp(fs, CProxyFileSystemBase::FuncID(42)).execute(); },
                                       [](const CError& e) {
                                         EXPECT_EQ(e.getMessage(), "Unknown proxy filesystem function: 42");
                                       });
         EXPECT_TRUE(fs.pathExists(docs));
       }},
      {"streamRead", [&](CProxyFileSystem& fs) {
         P<IIOStream> stream = fs.createStream(a, IIOStream::AccessRead, Flags());
         char buffer[16];
         EXPECT_EQ(stream->readLax(buffer, 16), 5);
         EXPECT_EQ(std::string(buffer, 5), "hello");
         EXPECT_EQ(stream->readLax(buffer, 16), 0);
         EXPECT_EQ(stream->getLength(), 5);
         stream->close();  // a closed stream is not closed again
       }},
      {"streamWrite", [&](CProxyFileSystem& fs) {
         P<IIOStream> stream = fs.createStream(CURI("file:///share/new.bin"), IIOStream::AccessReadWrite,
                                               IIOStream::FlagFailIfAlreadyExists);
         stream->write("abc", 3);
         EXPECT_EQ(stream->getPosition(), 3);
         fs.close();  // before the stream goes: nothing more is sent
       }},
      {"fileInfo", [&](CProxyFileSystem& fs) {
         P<IFileInfoBase> info = fs.getFileInfo(a, true);
         EXPECT_EQ(info->getSize(), 5);
         EXPECT_EQ(info->getDataModifiedTime(), CTime(1700000000000000));
         EXPECT_EQ(info->getUnixMode(), 0100644);
         EXPECT_FALSE(info->hasWindowsInfo());
         P<IIOStream> stream = fs.createStream(a, IIOStream::AccessRead, Flags());
         info = nullptr;
         fs.close();
       }},
      {"folderContents", [&](CProxyFileSystem& fs) {
         P<IFolderContentsIterator> it = fs.getFolderContents(docs);
         ASSERT_TRUE(it->nextItem());
         EXPECT_EQ(it->getItemName(), "b.txt");
         EXPECT_EQ(it->getItemInfo()->getSize(), 3);
         ASSERT_TRUE(it->nextItem());
         EXPECT_EQ(it->getItemInfo()->getType(), IFileInfoBase::TypeFolder);
         EXPECT_FALSE(it->nextItem());
       }},
  };
  for (const auto& [name, drive] : drivers) {
    SCOPED_TRACE(name);
    ASSERT_TRUE(scenarios.count(name));
    // The client never closes a closed stream again, the scenario's last step.
    const size_t steps = scenarios[name].requests.size() - (name == "streamRead" ? 1 : 0);
    std::string expected;
    for (size_t i = 0; i < steps; ++i) expected += scenarios[name].requests[i];
    auto [client, server] = CInProcessConnection::createPair();
    P<CProxyFileSystem> fs = createObject<CProxyFileSystem>(client.get());
    for (const std::string& response : scenarios[name].responses) {
      server->getOutStream()->write(response.data(), static_cast<int>(response.size()));
    }
    drive(*fs);
    fs->close();
    std::string sent(expected.size() + 1, '\0');
    sent.resize(static_cast<size_t>(server->getInStream()->readLax(sent.data(), static_cast<int>(sent.size()))));
    EXPECT_TRUE(sent == expected);
  }
}

}  // namespace
}  // namespace zel
