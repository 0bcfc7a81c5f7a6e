#include "zel/fs/background_op_thread.h"

#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "zel/fs/error_background_op.h"
#include "zel/fs/open_mode.h"
#include "zel/log/xml_log.h"
#include "zel/stream/buffer_stream.h"

namespace zel {
namespace {

using Buffer = TBuffer<unsigned char>;

const String kAbortText =
    "Background store operation aborted because "
    "CBackgroundOpThread needs to exit.";

// A file system in memory with just what the jobs call. Every call is noted
// in the journal as "<operation> <uri>". Folder creation obeys the last
// segment of its address: ".../blocked" waits for the gate, ".../fail"
// throws a CIOError.
class CFakeFileSystem : public CBase, public IFileSystem {
 public:
  CSignal gate;
  CSignal blockedEntered;

  std::vector<std::string> journal() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_journal;
  }
  void putFile(const String& uri, const std::string& content) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_files[uri.toStdUTF8()] = createObject<Buffer>(
        reinterpret_cast<const unsigned char*>(content.data()), content.size());
  }
  bool hasFile(const String& uri) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_files.count(uri.toStdUTF8()) != 0;
  }
  std::string fileContent(const String& uri) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_files.find(uri.toStdUTF8());
    if (it == m_files.end()) return "<missing>";
    return std::string(reinterpret_cast<const char*>(it->second->getData()), it->second->getSize());
  }

  P<IIOStream> createStream(const CURI& uri, IIOStream::Access access,
                            TFlags<IIOStream::Flags> flags) override {
    note("createStream", uri);
    const OpenDisposition disposition = getOpenDisposition(access, flags);
    std::lock_guard<std::mutex> lock(m_mutex);
    P<Buffer>& file = m_files[uri.toString().toStdUTF8()];
    if (file && disposition == OpenDisposition::CreateNew) {
      throw CFileSystemError(CFileSystemError::ProblemAlreadyExists,
                             CIOError(CIOError::OpenFailed));
    }
    if (!file || disposition == OpenDisposition::CreateAlways) file = createObject<Buffer>();
    return createObject<CBufferStream>(file);
  }
  void createFolder(const CURI& uri, int flags) override {
    note("createFolder", uri);
    const String text = uri.toString();
    if (text.toStdUTF8().ends_with("/blocked")) {
      blockedEntered.set();
      gate.wait(-1);
    } else if (text.toStdUTF8().ends_with("/fail")) {
      throw CIOError(CIOError::WriteFailed, "The disk refused the folder.");
    }
  }
  void deleteFile(const CURI& uri, bool force) override {
    note(force ? "deleteFile(force)" : "deleteFile", uri);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_files.erase(uri.toString().toStdUTF8()) == 0) {
      throw CFileSystemError(CFileSystemError::ProblemNotFound, CIOError(CIOError::DeleteFailed));
    }
  }
  void moveFileOrFolder(const CURI& from, const CURI& to, bool overwrite) override {
    note(overwrite ? "move(overwrite)" : "move", from);
    std::lock_guard<std::mutex> lock(m_mutex);
    auto source = m_files.find(from.toString().toStdUTF8());
    if (source == m_files.end()) {
      throw CFileSystemError(CFileSystemError::ProblemNotFound, CIOError(CIOError::MoveFailed));
    }
    const std::string target = to.toString().toStdUTF8();
    if (!overwrite && m_files.count(target)) {
      throw CFileSystemError(CFileSystemError::ProblemAlreadyExists,
                             CIOError(CIOError::MoveFailed));
    }
    P<Buffer> data = source->second;
    m_files.erase(source);
    m_files[target] = data;
  }

  // Not used by the jobs.
  void setLoginManager(IFileSystemLoginManager*) override { unused("setLoginManager"); }
  P<IBackgroundOp> backgroundStore(const CURI&, int64, IInStream*, bool, IDoneListener*) override {
    unused("backgroundStore");
  }
  P<IBackgroundOp> backgroundCreateFolder(const CURI&, int, IDoneListener*) override {
    unused("backgroundCreateFolder");
  }
  P<IBackgroundOp> backgroundMoveFileOrFolder(const CURI&, const CURI&, bool,
                                              IDoneListener*) override {
    unused("backgroundMoveFileOrFolder");
  }
  P<IBackgroundOp> backgroundDeleteFile(const CURI&, IDoneListener*) override {
    unused("backgroundDeleteFile");
  }
  P<IFileInfoBase> getFileInfo(const CURI&, bool) override { unused("getFileInfo"); }
  P<IFileMetaModifier> createMetaModifier(const CURI&, bool) override {
    unused("createMetaModifier");
  }
  int64 getFileSectorSize(const CURI&) override { unused("getFileSectorSize"); }
  P<IFolderContentsIterator> getFolderContents(const CURI&) override {
    unused("getFolderContents");
  }
  P<IIOStream> createSubDataStream(const CURI&, const String&, IIOStream::Access,
                                   TFlags<IIOStream::Flags>) override {
    unused("createSubDataStream");
  }
  bool ensureFolderExists(const CURI&, int) override { unused("ensureFolderExists"); }
  void ensureFileExists(const CURI&) override { unused("ensureFileExists"); }
  void createFileHardLink(const CURI&, const CURI&) override { unused("createFileHardLink"); }
  void createFolderHardLink(const CURI&, const CURI&) override { unused("createFolderHardLink"); }
  void createFileSymLink(const CURI&, const CURI&) override { unused("createFileSymLink"); }
  void createFolderSymLink(const CURI&, const CURI&) override { unused("createFolderSymLink"); }
  bool fileExists(const CURI&) override { unused("fileExists"); }
  bool folderExists(const CURI&) override { unused("folderExists"); }
  bool pathExists(const CURI&) override { unused("pathExists"); }
  bool quickCheckFolderAccessible(const CURI&) override { unused("quickCheckFolderAccessible"); }
  bool isFolderEmpty(const CURI&) override { unused("isFolderEmpty"); }
  void deleteSymLink(const CURI&) override { unused("deleteSymLink"); }
  void deleteEmptyFolder(const CURI&, bool) override { unused("deleteEmptyFolder"); }
  void unlinkFolder(const CURI&) override { unused("unlinkFolder"); }
  CURI getVolumeRootPath(const CURI&) override { unused("getVolumeRootPath"); }
  CURI createUniqueFilename(const CURI&, const String&) override { unused("createUniqueFilename"); }
  CURI createUniqueFolderName(const CURI&, const String&) override {
    unused("createUniqueFolderName");
  }
  void copyFile(const CURI&, const CURI&, bool) override { unused("copyFile"); }
  int64 getFreeSpaceInFolder(const CURI&) override { unused("getFreeSpaceInFolder"); }
  String getAccountOrUserNameUsedForAccess(const CURI&) override {
    unused("getAccountOrUserNameUsedForAccess");
  }
  P<CNativeMetaData> getNativeMetaData(const CURI&, bool, const String&) override {
    unused("getNativeMetaData");
  }

 private:
  void note(const char* operation, const CURI& uri) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_journal.push_back(std::string(operation) + " " + uri.toString().toStdUTF8());
  }
  [[noreturn]] static void unused(const char* name) {
    throw CNotImplementedError(String("CFakeFileSystem::") + name);
  }

  std::mutex m_mutex;
  std::vector<std::string> m_journal;
  std::map<std::string, P<Buffer>> m_files;
};

// Notes each notification with what the operation said at that moment.
class CRecordingListener : public CBase, public IDoneListener {
 public:
  struct Call {
    IBackgroundOp* op;
    bool finished;
  };
  CSignal told;

  void onBackgroundOpDone(IBackgroundOp* op) override {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_calls.push_back({op, op->hasFinished()});
    }
    told.set();
  }
  std::vector<Call> calls() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_calls;
  }

 private:
  std::mutex m_mutex;
  std::vector<Call> m_calls;
};

class CThrowingListener : public CBase, public IDoneListener {
 public:
  void onBackgroundOpDone(IBackgroundOp*) override { throw std::runtime_error("listener broke"); }
};

CURI uri(const std::string& path) { return CURI(String("mem://host/" + path)); }
String key(const std::string& path) { return uri(path).toString(); }

// The message of the error op fails with; empty when it succeeded.
String failureMessage(IBackgroundOp* op) {
  try {
    op->throwErrorIfFailed();
  } catch (const CError& e) {
    return e.getMessage();
  }
  return String();
}

std::string pattern(size_t size) {
  std::string text(size, '\0');
  for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>((i * 131 + i / 7) & 0xFF);
  return text;
}

class BackgroundOpThreadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_fs = createObject<CFakeFileSystem>();
    m_thread = createObject<CBackgroundOpThread>();
  }
  void TearDown() override {
    m_fs->gate.set();
    m_thread->stop(true);
  }

  P<CFakeFileSystem> m_fs;
  P<CBackgroundOpThread> m_thread;
};

TEST_F(BackgroundOpThreadTest, StoreCopiesExactlyLengthBytesAcrossChunks) {
  // More than two chunks and a partial one; the source holds more than asked.
  const size_t length = 2 * CBackgroundOpThread::CStoreJob::kChunkSize + 12345;
  const std::string data = pattern(length + 100);
  P<CBufferStream> source = createObject<CBufferStream>(data.data(), data.size(), true);
  P<CRecordingListener> listener = createObject<CRecordingListener>();
  m_thread->start();

  P<IBackgroundOp> op = m_thread->addStoreJob(m_fs.get(), uri("a.bin"), static_cast<int64>(length),
                                              source.get(), false, listener.get());
  ASSERT_TRUE(op->waitFinished(5000));
  EXPECT_TRUE(op->hasFinished());
  EXPECT_NO_THROW(op->throwErrorIfFailed());
  EXPECT_EQ(m_fs->fileContent(key("a.bin")), data.substr(0, length));
  EXPECT_EQ(source->getPosition(), static_cast<int64>(length));

  ASSERT_TRUE(listener->told.wait(5000));
  const auto calls = listener->calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].op, op.get());
  EXPECT_TRUE(calls[0].finished);
}

TEST_F(BackgroundOpThreadTest, StoreOverwriteFlag) {
  m_thread->start();
  m_fs->putFile(key("old.txt"), "previous, longer content");
  P<CBufferStream> source = createObject<CBufferStream>("new", 3, true);

  // Without overwrite an existing file makes the job fail and stays as it was.
  P<IBackgroundOp> refused =
      m_thread->addStoreJob(m_fs.get(), uri("old.txt"), 3, source.get(), false, nullptr);
  ASSERT_TRUE(refused->waitFinished(5000));
  try {
    refused->throwErrorIfFailed();
    ADD_FAILURE() << "an existing file was replaced without overwrite";
  } catch (const CFileSystemError& e) {
    EXPECT_EQ(e.getProblem(), CFileSystemError::ProblemAlreadyExists);
  }
  EXPECT_EQ(m_fs->fileContent(key("old.txt")), "previous, longer content");

  // With overwrite the file is emptied first: nothing of the old tail stays.
  P<IBackgroundOp> replaced =
      m_thread->addStoreJob(m_fs.get(), uri("old.txt"), 3, source.get(), true, nullptr);
  ASSERT_TRUE(replaced->waitFinished(5000));
  EXPECT_NO_THROW(replaced->throwErrorIfFailed());
  EXPECT_EQ(m_fs->fileContent(key("old.txt")), "new");

  // A store of nothing needs no source and makes an empty file.
  P<IBackgroundOp> empty =
      m_thread->addStoreJob(m_fs.get(), uri("empty"), 0, nullptr, false, nullptr);
  ASSERT_TRUE(empty->waitFinished(5000));
  EXPECT_NO_THROW(empty->throwErrorIfFailed());
  EXPECT_EQ(m_fs->fileContent(key("empty")), "");
}

TEST_F(BackgroundOpThreadTest, StoreFailsWhenTheSourceEndsEarly) {
  m_thread->start();
  P<CBufferStream> source = createObject<CBufferStream>("short", 5, true);
  P<IBackgroundOp> op =
      m_thread->addStoreJob(m_fs.get(), uri("s"), 6, source.get(), false, nullptr);
  ASSERT_TRUE(op->waitFinished(5000));
  try {
    op->throwErrorIfFailed();
    ADD_FAILURE() << "a short source went unnoticed";
  } catch (const CIOError& e) {
    EXPECT_TRUE(e.isError(CIOError::errorCodeDomain(), CIOError::UnexpectedEnd));
  }
}

TEST_F(BackgroundOpThreadTest, AddRefusesBadArguments) {
  P<CBufferStream> source = createObject<CBufferStream>("x", 1, true);
  EXPECT_THROW(m_thread->addStoreJob(nullptr, uri("f"), 1, source.get(), false, nullptr),
               CInvalidArgError);
  EXPECT_THROW(m_thread->addStoreJob(m_fs.get(), uri("f"), -1, source.get(), false, nullptr),
               CInvalidArgError);
  EXPECT_THROW(m_thread->addStoreJob(m_fs.get(), uri("f"), 1, nullptr, false, nullptr),
               CInvalidArgError);
  EXPECT_THROW(m_thread->addCreateFolderJob(nullptr, uri("d"), 0, nullptr), CInvalidArgError);
  EXPECT_THROW(m_thread->addDeleteFileJob(nullptr, uri("d"), nullptr), CInvalidArgError);
  EXPECT_THROW(m_thread->addMoveFileJob(nullptr, uri("a"), uri("b"), false, nullptr),
               CInvalidArgError);
  EXPECT_EQ(m_thread->getQueuedJobCount(), 0);
}

TEST_F(BackgroundOpThreadTest, JobAddedWhileTheWorkerWaitsStarts) {
  m_thread->start();
  for (int round = 0; round < 3; ++round) {
    // Give the worker time to find the list empty and go to sleep on the
    // signal; only the signal set by the add can wake it again.
    CThread::sleep(100);
    P<IBackgroundOp> op =
        m_thread->addCreateFolderJob(m_fs.get(), uri("idle" + std::to_string(round)), 0, nullptr);
    EXPECT_TRUE(op->waitFinished(5000)) << round;
    EXPECT_NO_THROW(op->throwErrorIfFailed());
  }
  EXPECT_EQ(m_fs->journal().size(), 3u);
}

TEST_F(BackgroundOpThreadTest, ConcurrentAddsAreNeitherLostNorReordered) {
  // Producers race the worker going idle again and again; a lost wake-up
  // leaves a job queued and its wait times out.
  m_thread->start();
  constexpr int kProducers = 4;
  constexpr int kJobs = 150;
  std::vector<std::vector<P<IBackgroundOp>>> ops(kProducers);
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([this, p, &ops] {
      for (int i = 0; i < kJobs; ++i) {
        const std::string path = "p" + std::to_string(p) + "/" + std::to_string(i);
        ops[p].push_back(m_thread->addCreateFolderJob(m_fs.get(), uri(path), 0, nullptr));
        if (i % 16 == p) CThread::sleep(1);
      }
    });
  }
  for (auto& producer : producers) producer.join();
  for (int p = 0; p < kProducers; ++p) {
    for (const auto& op : ops[p]) ASSERT_TRUE(op->waitFinished(5000)) << p;
  }
  // Each producer's jobs ran in the order that producer added them.
  const auto journal = m_fs->journal();
  ASSERT_EQ(journal.size(), static_cast<size_t>(kProducers * kJobs));
  std::vector<int> next(kProducers, 0);
  for (const auto& entry : journal) {
    const size_t at = entry.find("/p");
    ASSERT_NE(at, std::string::npos) << entry;
    const int p = entry[at + 2] - '0';
    EXPECT_EQ(entry.substr(entry.find('/', at + 2) + 1), std::to_string(next[p]++)) << entry;
  }
}

TEST_F(BackgroundOpThreadTest, JobsRunInTheOrderAdded) {
  m_thread->start();
  P<IBackgroundOp> first = m_thread->addCreateFolderJob(m_fs.get(), uri("blocked"), 0, nullptr);
  ASSERT_TRUE(m_fs->blockedEntered.wait(5000));

  m_fs->putFile(key("f0"), "0");
  m_fs->putFile(key("f1"), "1");
  std::vector<P<IBackgroundOp>> ops;
  std::vector<std::string> expected{"createFolder " + key("blocked").toStdUTF8()};
  for (int i = 0; i < 2; ++i) {
    const std::string n = std::to_string(i);
    ops.push_back(m_thread->addCreateFolderJob(m_fs.get(), uri("d" + n), 0, nullptr));
    expected.push_back("createFolder " + key("d" + n).toStdUTF8());
    ops.push_back(m_thread->addMoveFileJob(m_fs.get(), uri("f" + n), uri("g" + n), false, nullptr));
    expected.push_back("move " + key("f" + n).toStdUTF8());
    // The delete depends on the move before it having run.
    ops.push_back(m_thread->addDeleteFileJob(m_fs.get(), uri("g" + n), nullptr));
    expected.push_back("deleteFile " + key("g" + n).toStdUTF8());
  }
  // The blocked job was taken off the list; all others wait behind it.
  EXPECT_EQ(m_thread->getQueuedJobCount(), 6);
  EXPECT_FALSE(ops.front()->hasFinished());

  m_fs->gate.set();
  ASSERT_TRUE(ops.back()->waitFinished(5000));
  EXPECT_TRUE(first->hasFinished());
  for (const auto& op : ops) {
    EXPECT_TRUE(op->hasFinished());
    EXPECT_NO_THROW(op->throwErrorIfFailed());
  }
  EXPECT_EQ(m_fs->journal(), expected);
  EXPECT_FALSE(m_fs->hasFile(key("f0")));
  EXPECT_FALSE(m_fs->hasFile(key("g1")));
  EXPECT_EQ(m_thread->getQueuedJobCount(), 0);
}

TEST_F(BackgroundOpThreadTest, FailureIsKeptInTheJobAndTheWorkerGoesOn) {
  m_thread->start();
  P<CRecordingListener> listener = createObject<CRecordingListener>();
  P<IBackgroundOp> failing =
      m_thread->addCreateFolderJob(m_fs.get(), uri("fail"), 0, listener.get());
  P<IBackgroundOp> missing = m_thread->addDeleteFileJob(m_fs.get(), uri("nothing"), nullptr);
  P<IBackgroundOp> after = m_thread->addCreateFolderJob(m_fs.get(), uri("fine"), 0, nullptr);
  ASSERT_TRUE(after->waitFinished(5000));
  EXPECT_NO_THROW(after->throwErrorIfFailed());

  ASSERT_TRUE(failing->hasFinished());
  // Thrown with its class, as often as asked.
  for (int i = 0; i < 2; ++i) {
    try {
      failing->throwErrorIfFailed();
      ADD_FAILURE() << "the failure was lost";
    } catch (const CIOError& e) {
      EXPECT_EQ(e.getMessage(), "The disk refused the folder.");
      EXPECT_TRUE(e.isError(CIOError::errorCodeDomain(), CIOError::WriteFailed));
    }
  }
  EXPECT_THROW(missing->throwErrorIfFailed(), CFileSystemError);
  // The synchronous meaning of deleteFile without force.
  EXPECT_EQ(m_fs->journal()[1], "deleteFile " + key("nothing").toStdUTF8());

  const auto calls = listener->calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].op, failing.get());
  EXPECT_TRUE(calls[0].finished);
  // Nothing reached the thread itself.
  EXPECT_FALSE(m_thread->getThreadError());
}

TEST_F(BackgroundOpThreadTest, ThrowingListenerIsLoggedAndIgnored) {
  CLogCapture log;
  m_thread->start();
  P<CThrowingListener> listener = createObject<CThrowingListener>();
  P<IBackgroundOp> op = m_thread->addCreateFolderJob(m_fs.get(), uri("a"), 0, listener.get());
  P<IBackgroundOp> next = m_thread->addCreateFolderJob(m_fs.get(), uri("b"), 0, nullptr);
  ASSERT_TRUE(next->waitFinished(5000));
  EXPECT_NO_THROW(op->throwErrorIfFailed());
  EXPECT_TRUE(log.contains(LogLevel::Error, "listener"));
  EXPECT_FALSE(m_thread->getThreadError());
}

TEST_F(BackgroundOpThreadTest, UnfinishedJobAnswersWithoutWaiting) {
  m_thread->start();
  P<IBackgroundOp> running = m_thread->addCreateFolderJob(m_fs.get(), uri("blocked"), 0, nullptr);
  P<IBackgroundOp> queued = m_thread->addCreateFolderJob(m_fs.get(), uri("q"), 0, nullptr);
  ASSERT_TRUE(m_fs->blockedEntered.wait(5000));
  for (const auto& op : {running, queued}) {
    EXPECT_FALSE(op->waitFinished(0));
    EXPECT_FALSE(op->hasFinished());
    EXPECT_THROW(op->throwErrorIfFailed(), CBadStateError);
  }
  EXPECT_FALSE(running->waitFinished(50));
  m_fs->gate.set();
  EXPECT_TRUE(queued->waitFinished(5000));
  EXPECT_TRUE(running->waitFinished(0));
}

TEST_F(BackgroundOpThreadTest, StopFailsEveryQueuedJob) {
  m_thread->start();
  P<CRecordingListener> listener = createObject<CRecordingListener>();
  P<CBufferStream> source = createObject<CBufferStream>("data", 4, true);
  P<IBackgroundOp> running =
      m_thread->addCreateFolderJob(m_fs.get(), uri("blocked"), 0, listener.get());
  ASSERT_TRUE(m_fs->blockedEntered.wait(5000));
  m_fs->putFile(key("m"), "m");
  m_fs->putFile(key("gone"), "g");
  std::vector<P<IBackgroundOp>> queued{
      m_thread->addStoreJob(m_fs.get(), uri("s"), 4, source.get(), false, listener.get()),
      m_thread->addCreateFolderJob(m_fs.get(), uri("d"), 0, listener.get()),
      m_thread->addMoveFileJob(m_fs.get(), uri("m"), uri("n"), true, listener.get()),
      m_thread->addDeleteFileJob(m_fs.get(), uri("gone"), listener.get()),
  };

  // The stop arrives while a job runs: that job ends normally, the rest are
  // taken off the list and failed.
  m_thread->signalStop();
  m_fs->gate.set();
  m_thread->join(true);

  EXPECT_TRUE(running->hasFinished());
  EXPECT_NO_THROW(running->throwErrorIfFailed());
  for (const auto& op : queued) {
    ASSERT_TRUE(op->waitFinished(0));
    EXPECT_EQ(failureMessage(op.get()), kAbortText);
    try {
      op->throwErrorIfFailed();
    } catch (const CError& e) {
      EXPECT_FALSE(e.hasErrorCode());
    }
  }
  EXPECT_EQ(m_thread->getQueuedJobCount(), 0);
  EXPECT_EQ(m_fs->journal().size(), 1u);  // only the running job touched it
  EXPECT_EQ(m_fs->fileContent(key("m")), "m");
  EXPECT_TRUE(m_fs->hasFile(key("gone")));
  EXPECT_FALSE(m_fs->hasFile(key("s")));

  // Every job told its listener once, in list order.
  const auto calls = listener->calls();
  ASSERT_EQ(calls.size(), 5u);
  EXPECT_EQ(calls[0].op, running.get());
  for (size_t i = 0; i < queued.size(); ++i) {
    EXPECT_EQ(calls[i + 1].op, queued[i].get());
    EXPECT_TRUE(calls[i + 1].finished);
  }
}

TEST_F(BackgroundOpThreadTest, StopWakesAnIdleWorker) {
  m_thread->start();
  CThread::sleep(50);
  m_thread->signalStop();
  // join() would hang if the waiting worker were not woken.
  m_thread->join(true);
  EXPECT_FALSE(m_thread->isAlive());
}

TEST_F(BackgroundOpThreadTest, RestartRunsJobsAddedWhileStopped) {
  m_thread->start();
  m_thread->stop(true);
  P<IBackgroundOp> op = m_thread->addCreateFolderJob(m_fs.get(), uri("later"), 0, nullptr);
  EXPECT_FALSE(op->waitFinished(20));
  m_thread->start();
  ASSERT_TRUE(op->waitFinished(5000));
  EXPECT_NO_THROW(op->throwErrorIfFailed());
}

TEST(BackgroundOpThreadLifetimeTest, DestroyingTheThreadFailsJobsThatNeverRan) {
  P<CFakeFileSystem> fs = createObject<CFakeFileSystem>();
  P<CBackgroundOpThread> thread = createObject<CBackgroundOpThread>();
  EXPECT_EQ(thread->getThreadName(), "zel.backgroundOps");
  P<IBackgroundOp> op = thread->addCreateFolderJob(fs.get(), uri("never"), 0, nullptr);
  thread = nullptr;
  ASSERT_TRUE(op->hasFinished());
  EXPECT_EQ(failureMessage(op.get()), kAbortText);
  EXPECT_TRUE(fs->journal().empty());
}

// ---------------------------------------------------------------------------

TEST(ErrorBackgroundOpTest, FinishedAtOnceAndAlwaysThrows) {
  P<CRecordingListener> listener = createObject<CRecordingListener>();
  const CInvalidArgError error("CFileSystem::backgroundStore", "length must be >= 0");
  P<CErrorBackgroundOp> op = createObject<CErrorBackgroundOp>(error, listener.get());

  // Told from the constructor, already finished.
  const auto calls = listener->calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].op, static_cast<IBackgroundOp*>(op.get()));
  EXPECT_TRUE(calls[0].finished);

  EXPECT_TRUE(op->hasFinished());
  for (int timeout : {0, 1, 1000000, -1}) EXPECT_TRUE(op->waitFinished(timeout)) << timeout;
  for (int i = 0; i < 3; ++i) {
    try {
      op->throwErrorIfFailed();
      ADD_FAILURE() << "did not throw";
    } catch (const CInvalidArgError& e) {
      EXPECT_EQ(e.getMessage(), error.getMessage());
    }
  }
}

TEST(ErrorBackgroundOpTest, ThrowingListenerDoesNotPreventTheOperation) {
  CLogCapture log;
  P<CThrowingListener> listener = createObject<CThrowingListener>();
  P<CErrorBackgroundOp> op =
      createObject<CErrorBackgroundOp>(CError("could not start"), listener.get());
  EXPECT_TRUE(op->hasFinished());
  EXPECT_EQ(failureMessage(op.get()), "could not start");
  EXPECT_TRUE(log.contains(LogLevel::Error, "listener"));
}

TEST(ErrorBackgroundOpTest, KeepsItsOwnCopyOfTheError) {
  P<CErrorBackgroundOp> op;
  {
    CIOError error(CIOError::OpenFailed, "first text");
    op = createObject<CErrorBackgroundOp>(error, nullptr);
    error.getParams().set("later", "change");
  }
  try {
    op->throwErrorIfFailed();
    FAIL() << "did not throw";
  } catch (const CIOError& e) {
    EXPECT_EQ(e.getMessage(), "first text");
    EXPECT_TRUE(e.getParams().get("later").isEmpty());
  }
}

TEST(ErrorBackgroundOpTest, FromTheExceptionBeingHandled) {
  P<CErrorBackgroundOp> fromStd;
  P<CErrorBackgroundOp> fromError;
  try {
    throw std::runtime_error("out of luck");
  } catch (...) {
    fromStd = createObject<CErrorBackgroundOp>(nullptr);
  }
  try {
    throw CBadPathError("x:");
  } catch (...) {
    fromError = createObject<CErrorBackgroundOp>(nullptr);
  }
  try {
    fromStd->throwErrorIfFailed();
    ADD_FAILURE() << "did not throw";
  } catch (const CStdExceptionError& e) {
    EXPECT_EQ(e.getMessage(), "out of luck");
  }
  EXPECT_THROW(fromError->throwErrorIfFailed(), CBadPathError);
}

}  // namespace
}  // namespace zel
