// The cross-process file system between real processes: a server process and
// a client process over a real Unix socket (Linux) or named pipe (Windows).
// Each test runs one side itself and starts the other as a child process
// (child_process.h).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "child_process.h"
#include "proxy_server_test_util.h"
#include "temp_folder.h"
#include "zel/core/error.h"
#include "zel/fs/local_file_system.h"
#include "zel/fs/proxy/proxy_file_system.h"
#include "zel/fs/proxy/proxy_file_system_service.h"
#include "zel/ipc/pipe.h"
#include "zel/path/path.h"

#ifdef _WIN32
#include "zel/internal/win_include.h"
#else
#include <dirent.h>
#endif

namespace zel {
namespace {

using Clock = std::chrono::steady_clock;
using test::CChildProcess;

CIPCAddress testAddress(const std::string& name) { return CIPCAddress("zeltest", String(name), false); }

// A fresh address name per test, so runs never meet each other's servers.
std::string uniqueName(const char* what) {
  return std::string(what) + "-" +
         std::to_string(Clock::now().time_since_epoch().count() % 1000000007);
}

// Publishes folder as zel://t/ and an in-memory share zel://slow/ whose
// fileExists takes a minute (a call that is certain to be in flight).
P<CProxyFileSystemService> startService(const std::string& name, const String& folder,
                                        P<CFileSystem>& local,
                                        P<proxy_test::CMemFileSystem>& slow) {
  P<CProxyFileSystemService> service = createObject<CProxyFileSystemService>(testAddress(name));
  local = createObject<CFileSystem>();
  service->addShare(CURISelector("zel", "t", "/"), local.get(),
                    CURI::fromNativePath(CNativePath(folder)));
  slow = createObject<proxy_test::CMemFileSystem>();
  slow->onFileExists = [](const CURI&) {
    std::this_thread::sleep_for(std::chrono::seconds(60));
    return true;
  };
  service->addShare(CURISelector("zel", "slow", "/"), slow.get(), CURI("mem:///"));
  service->start();
  return service;
}

P<CProxyFileSystem> connectClient(const std::string& name) {
  P<IConnection> connection = connectToPipeServer(testAddress(name), 20000, 20000);
  return createObject<CProxyFileSystem>(connection.get());
}

// Serves until killed. args: address name, shared folder.
ZEL_TEST_CHILD(proxy_server) {
  if (args.size() != 2) return 2;
  P<CFileSystem> local;
  P<proxy_test::CMemFileSystem> slow;
  P<CProxyFileSystemService> service = startService(args[0], String::fromUTF8(args[1].c_str()), local, slow);
  for (;;) std::this_thread::sleep_for(std::chrono::seconds(1));
}

// Opens 100 handles on the server (streams, range locks, file infos, meta
// modifiers), then says so by creating "ready" and waits to be killed.
// args: address name.
ZEL_TEST_CHILD(proxy_handle_holder) {
  if (args.size() != 1) return 2;
  P<CProxyFileSystem> fs = connectClient(args[0]);
  std::vector<P<IBase>> held;
  for (int i = 0; i < 25; ++i) {
    const CURI uri("zel://t/held-" + String::fromInt64(i));
    P<IIOStream> stream = fs->createStream(uri, IIOStream::AccessReadWrite,
                                           IIOStream::FlagAlwaysCreateIfNotExist);
    stream->write("x", 1);
    held.push_back(stream->lockRange(0, 1, IStreamBase::Exclusive));
    held.push_back(fs->getFileInfo(uri, false));
    held.push_back(fs->createMetaModifier(uri, false));
    held.push_back(stream);
  }
  fs->ensureFileExists(CURI("zel://t/ready"));
  for (;;) std::this_thread::sleep_for(std::chrono::seconds(1));
}

// How many descriptors (Linux) or handles (Windows) this process holds.
int countOpenHandles() {
#ifdef _WIN32
  DWORD count = 0;
  GetProcessHandleCount(GetCurrentProcess(), &count);
  return static_cast<int>(count);
#else
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  if (!dir) return -1;
  while (readdir(dir)) ++count;
  closedir(dir);
  return count;
#endif
}

bool waitUntil(const std::function<bool()>& condition, int timeoutMs) {
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition()) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

TEST(ProxyProcessTest, ClientSessionAgainstAServerProcess) {
  test::CTempFolder folder;
  const std::string name = uniqueName("session");
  std::unique_ptr<CChildProcess> server =
      test::startTestChild("proxy_server", {name, folder.getPath().toUTF8().data()});
  P<CProxyFileSystem> fs = connectClient(name);

  fs->createFolder(CURI("zel://t/docs"), 0);
  P<IIOStream> out = fs->createStream(CURI("zel://t/docs/a.bin"), IIOStream::AccessReadWrite,
                                      IIOStream::FlagAlwaysCreateIfNotExist);
  std::string data(3 << 20, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + i / 4096);
  out->write(data.data(), static_cast<int>(data.size()));
  out->close();
  const std::string onDisk = test::readFileBytes(folder.getPath() + "/docs/a.bin");
  ASSERT_EQ(onDisk.size(), data.size());
  EXPECT_TRUE(onDisk == data) << "the file differs from what was written";

  P<IIOStream> in = fs->createStream(CURI("zel://t/docs/a.bin"), IIOStream::AccessRead, {});
  std::string back(data.size(), '\0');
  in->read(back.data(), static_cast<int>(back.size()));
  EXPECT_TRUE(in->isEndOfStream());
  EXPECT_TRUE(back == data) << "the bytes read differ from those written";
  in->close();

  P<IFolderContentsIterator> it = fs->getFolderContents(CURI("zel://t/docs"));
  ASSERT_TRUE(it->nextItem());
  EXPECT_EQ(it->getItemName(), "a.bin");
  EXPECT_EQ(it->getItemInfo()->getSize(), static_cast<int64>(data.size()));
  EXPECT_FALSE(it->nextItem());

  // Errors cross the process boundary with their kind intact.
  try {
    fs->deleteFile(CURI("zel://t/missing"), false);
    ADD_FAILURE() << "deleting a missing file succeeded";
  } catch (const CFileSystemError& e) {
    EXPECT_EQ(e.getProblem(), CFileSystemError::ProblemNotFound) << e.getDesc().toUTF8().data();
  }
  // The peer is the server process.
  fs->moveFileOrFolder(CURI("zel://t/docs/a.bin"), CURI("zel://t/docs/b.bin"), false);
  EXPECT_TRUE(fs->fileExists(CURI("zel://t/docs/b.bin")));
  fs->deleteFile(CURI("zel://t/docs/b.bin"), false);
  fs->deleteEmptyFolder(CURI("zel://t/docs"), false);
  EXPECT_FALSE(fs->pathExists(CURI("zel://t/docs")));
}

TEST(ProxyProcessTest, ServerKilledMidCallMakesTheClientThrowPromptly) {
  test::CTempFolder folder;
  const std::string name = uniqueName("killed");
  std::unique_ptr<CChildProcess> server =
      test::startTestChild("proxy_server", {name, folder.getPath().toUTF8().data()});
  P<CProxyFileSystem> fs = connectClient(name);
  ASSERT_FALSE(fs->fileExists(CURI("zel://t/nothing")));

  std::atomic<int64> killedAt{0};
  std::thread killer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    killedAt = Clock::now().time_since_epoch().count();
    server->kill();
  });
  bool threw = false;
  try {
    fs->fileExists(CURI("zel://slow/anything"));  // would take a minute
  } catch (const CError& e) {
    threw = true;
    EXPECT_TRUE(e.isError(CIOError::errorCodeDomain(), CIOError::UnexpectedEnd) ||
                e.getErrorCodeDomain() == CIOError::errorCodeDomain())
        << e.getDesc().toUTF8().data();
  }
  const int64 threwAt = Clock::now().time_since_epoch().count();
  killer.join();
  EXPECT_TRUE(threw);
  const auto delay = std::chrono::duration_cast<std::chrono::milliseconds>(
      Clock::duration(threwAt - killedAt.load()));
  EXPECT_LT(delay.count(), 2000);
  // The connection stays broken: no hang on the next call either.
  EXPECT_THROW(fs->fileExists(CURI("zel://t/x")), CError);
}

TEST(ProxyProcessTest, ClientKilledHoldingHandlesLeavesTheServerAsBefore) {
  test::CTempFolder folder;
  const std::string name = uniqueName("holder");
  P<CFileSystem> local;
  P<proxy_test::CMemFileSystem> slow;
  P<CProxyFileSystemService> service = startService(name, folder.getPath(), local, slow);
  // A first connection warms up what the serving machinery keeps for good
  // (thread stacks, the log), so the baseline counts only what a connection
  // owns.
  {
    P<CProxyFileSystem> warm = connectClient(name);
    ASSERT_FALSE(warm->fileExists(CURI("zel://t/ready")));
    warm->close();
  }
  ASSERT_TRUE(waitUntil([&] { return service->getConnectionCount() == 0; }, 5000));
  // Wine's GetProcessHandleCount reports 0; the range locks below still show
  // that every server-side object of the dead client was released.
  const int before = countOpenHandles();
  const bool canCount = before > 0;

  std::unique_ptr<CChildProcess> client = test::startTestChild("proxy_handle_holder", {name});
  const String ready = folder.file("ready");
  ASSERT_TRUE(waitUntil([&] { return local->fileExists(CURI::fromNativePath(CNativePath(ready))); },
                        30000));
  if (canCount) {
    EXPECT_GE(countOpenHandles(), before + 25);  // the streams, at least
  }
  client->kill();
  client->wait(10000);
  EXPECT_TRUE(waitUntil([&] { return service->getConnectionCount() == 0; }, 10000));
  if (canCount) {
    EXPECT_TRUE(waitUntil([&] { return countOpenHandles() == before; }, 10000))
        << "before " << before << ", now " << countOpenHandles();
  }
  // The dead client's exclusive range locks are gone with its streams.
  for (int i = 0; i < 25; ++i) {
    const CURI held = CURI::fromNativePath(CNativePath(folder.file("held-" + String::fromInt64(i))));
    P<IIOStream> stream = local->createStream(held, IIOStream::AccessReadWrite, {});
    EXPECT_NO_THROW(stream->lockRange(0, 1, IStreamBase::Exclusive)) << "file " << i;
  }
  service->stop();
}

}  // namespace
}  // namespace zel
