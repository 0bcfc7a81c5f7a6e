// Test helpers for the proxy file-system tests (not part of the library):
// raw request frames, response parsing, an in-memory file system that
// counts what reaches it, and the two places a test server runs in
// (CServerLink): this process, or a child process over a real Unix socket /
// named pipe.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "temp_folder.h"
#include "zel/core/error.h"
#include "zel/fs/file_system.h"
#include "zel/fs/local_file_system.h"
#include "zel/fs/proxy/proxy_file_system_server.h"
#include "zel/fs/proxy/proxy_message.h"
#include "zel/ipc/in_process_connection.h"
#include "zel/ipc/pipe.h"
#include "zel/path/path.h"
#include "zel/stream/buffer_stream.h"
#include "zel/stream/stored_error.h"
#include "zel/core/mutex.h"

namespace zel::proxy_test {

using Bytes = std::vector<unsigned char>;

// One request payload: funcID, then the arguments as appended.
class CRequest {
 public:
  explicit CRequest(int funcID)
      : m_message(createObject<CProxyFileSystemMessage>()),
        m_out(m_message->clearAndOpenOutStream()) {
    m_out->writeInt32(funcID);
  }
  CRequest& i32(int value) {
    m_out->writeInt32(value);
    return *this;
  }
  CRequest& i64(int64 value) {
    m_out->writeInt64(value);
    return *this;
  }
  CRequest& u64(uint64 value) {
    m_out->writeUInt64(value);
    return *this;
  }
  CRequest& b(bool value) {
    m_out->writeBool(value);
    return *this;
  }
  CRequest& str(const String& value) {
    m_out->writeString(value);
    return *this;
  }
  CRequest& uri(const CURI& value) { return str(value.toString(true)); }
  CRequest& raw(const std::string& bytes) {
    m_out->write(bytes.data(), static_cast<int>(bytes.size()));
    return *this;
  }
  CProxyFileSystemMessage& message() { return *m_message; }
  // The whole frame, length field included.
  Bytes frame() const {
    P<CBufferStream> sink = createObject<CBufferStream>();
    m_message->write(*sink);
    const auto& data = *sink->getBuffer();
    return Bytes(data.getData(), data.getData() + data.getSize());
  }

 private:
  P<CProxyFileSystemMessage> m_message;
  P<CDataOutStream> m_out;
};

// A parsed response: its type and, for an error, the loaded error; results
// are read from in.
struct CResponse {
  int type = -1;
  P<CDataInStream> in;
  P<CError> error;

  bool isOK() const { return type == 1; }
  // For failure messages.
  std::string describe() const {
    if (type == 1) return "result";
    if (error) return error->getDesc().toStdUTF8();
    return "response type " + std::to_string(type);
  }
  std::string readBytes(int count) {
    std::string bytes(static_cast<size_t>(count), '\0');
    if (count > 0) in->read(bytes.data(), count);
    return bytes;
  }
  // Nothing may follow the results.
  bool atEnd() const { return in->getPosition() == in->getLength(); }
};

// Reads a copy of the payload: a message's own in-stream is not used here,
// so responses with a bulk tail are read the same way as a receiver of the
// frame reads them.
inline CResponse parseResponse(CProxyFileSystemMessage& message) {
  CResponse response;
  const auto bytes = message.getPayloadBytes();
  P<CBufferStream> payload = createObject<CBufferStream>(bytes.getData(), bytes.getSize(), true);
  response.in = createObject<CDataInStream>(payload.get());
  response.type = response.in->readInt32();
  if (response.type == CProxyFileSystemBase::ResponseError)
    response.error = loadError(*response.in);
  return response;
}

// The client end of a connection, speaking raw frames.
class CRawClient {
 public:
  explicit CRawClient(IConnection* connection) : m_connection(connection) {}
  void send(const Bytes& bytes) {
    m_connection->getOutStream()->write(bytes.data(), static_cast<int>(bytes.size()));
  }
  void send(CRequest& request) { request.message().write(*m_connection->getOutStream()); }
  P<CProxyFileSystemMessage> receiveMessage() {
    return CProxyFileSystemMessage::read(*m_connection->getInStream());
  }
  CResponse receive() {
    m_last = receiveMessage();
    return parseResponse(*m_last);
  }
  CResponse roundTrip(CRequest& request) {
    send(request);
    return receive();
  }
  void close() { m_connection->close(); }
  IConnection& connection() { return *m_connection; }

 private:
  P<IConnection> m_connection;
  P<CProxyFileSystemMessage> m_last;
};

inline Bytes payloadOf(const CProxyFileSystemMessage& message) {
  auto bytes = message.getPayloadBytes();
  return Bytes(bytes.getData(), bytes.getData() + bytes.getSize());
}

// The problem number an error response carries.
inline int problemOf(const CError& error) {
  return static_cast<int>(CFileSystemError::getProblem(error.getParams()));
}

// A finished-on-demand background operation.
class CFakeOp : public CBase, public IBackgroundOp {
 public:
  bool hasFinished() override { return m_finished.load(); }
  bool waitFinished(int) override { return m_finished.load(); }
  void throwErrorIfFailed() override {
    if (!m_finished.load()) throw CBadStateError("not finished");
    if (m_error) m_error->throwClone();
  }
  void finish(const CError* error = nullptr) {
    if (error) m_error = error->clone();
    m_finished.store(true);
  }

 private:
  std::atomic<bool> m_finished{false};
  P<CError> m_error;
};

// A stream that never becomes readable (a pipe nobody writes to): its waits
// time out, readAvailable finds nothing, and a blocking read would wait
// forever - it fails the test instead. Counts the live streams.
class CNeverReadableStream : public CBufferStream {
 public:
  explicit CNeverReadableStream(std::atomic<int>& live) : m_live(live) { ++m_live; }
  ~CNeverReadableStream() override { --m_live; }

  int64 getLength() const override { return -1; }
  bool waitReadable(int timeout) const override {
    if (timeout < 0) {
      ADD_FAILURE() << "an unlimited wait reached the served stream";
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(timeout));
    return false;
  }
  int readAvailable(void*, int) override { return 0; }
  int readLax(void*, int) override {
    ADD_FAILURE() << "a blocking read reached the served stream";
    return 0;
  }
  bool isEndOfStream() const override {
    ADD_FAILURE() << "a blocking end test reached the served stream";
    return false;
  }
  int isEndOfStream_NonBlocking() const override { return 0; }

 private:
  std::atomic<int>& m_live;
};

// An in-memory file system addressed by the decoded paths of its URIs. It
// counts every call, keeps its login manager and lets tests hook some calls.
class CMemFileSystem : public CBase, public IFileSystem {
 public:
  struct Entry {
    String path;
    bool folder = false;
    P<TBuffer<unsigned char>> data;
    int64 unixMode = 0;
  };

  static constexpr int64 kModifiedTime = 1700000000000000;

  void addFile(const String& path, const std::string& content) {
    Entry entry;
    entry.path = path;
    entry.data = createObject<TBuffer<unsigned char>>(
        reinterpret_cast<const unsigned char*>(content.data()), content.size());
    entry.unixMode = 0100644;
    m_entries.push_back(entry);
  }
  void addFolder(const String& path) {
    Entry entry;
    entry.path = path;
    entry.folder = true;
    entry.unixMode = 040755;
    m_entries.push_back(entry);
  }

  int getCallCount() const { return m_calls.load(); }
  P<IFileSystemLoginManager> getLoginManagerSet() {
    CMutexLock lock(m_mutex);
    return m_loginManager;
  }
  const std::vector<P<CFakeOp>>& getOps() const { return m_ops; }
  // The last symbolic link asked for: link and target.
  std::pair<CURI, CURI> getLastSymLink() const { return m_lastSymLink; }

  // Hooks: when set, these calls go to them instead.
  std::function<bool(const CURI&)> onFileExists;
  std::function<void(const CURI&)> onDeleteFile;
  std::function<P<IFileInfoBase>(const CURI&)> onGetFileInfo;
  std::function<P<IIOStream>(const CURI&)> onCreateStream;

  void setLoginManager(IFileSystemLoginManager* loginManager) override {
    CMutexLock lock(m_mutex);
    m_loginManager = loginManager;
  }
  P<IBackgroundOp> backgroundStore(const CURI&, int64, IInStream*, bool, IDoneListener*) override {
    return newOp();
  }
  P<IBackgroundOp> backgroundCreateFolder(const CURI&, int, IDoneListener*) override {
    return newOp();
  }
  P<IBackgroundOp> backgroundMoveFileOrFolder(const CURI&, const CURI&, bool,
                                              IDoneListener*) override {
    return newOp();
  }
  P<IBackgroundOp> backgroundDeleteFile(const CURI&, IDoneListener*) override { return newOp(); }
  P<IFileInfoBase> getFileInfo(const CURI& uri, bool) override {
    count();
    if (onGetFileInfo) return onGetFileInfo(uri);
    return infoOf(need(uri));
  }
  P<IFileMetaModifier> createMetaModifier(const CURI&, bool) override { return unsupported(); }
  int64 getFileSectorSize(const CURI&) override {
    count();
    return 512;
  }
  P<IFolderContentsIterator> getFolderContents(const CURI& uri) override;
  P<IIOStream> createStream(const CURI& uri, IIOStream::Access access,
                            TFlags<IIOStream::Flags> flags) override {
    count();
    if (onCreateStream) return onCreateStream(uri);
    Entry* entry = find(uri);
    if (entry && flags.has(IIOStream::FlagFailIfAlreadyExists)) throw CError("exists");
    if (!entry) {
      if (access == IIOStream::AccessRead) throw CError("not found");
      addFile(uri.getDecodedPath(), std::string());
      entry = &m_entries.back();
    }
    return createObject<CBufferStream>(entry->data, access == IIOStream::AccessRead);
  }
  P<IIOStream> createSubDataStream(const CURI&, const String&, IIOStream::Access,
                                   TFlags<IIOStream::Flags>) override {
    return unsupported();
  }
  void createFolder(const CURI& uri, int) override {
    count();
    addFolder(uri.getDecodedPath());
  }
  bool ensureFolderExists(const CURI&, int) override { return unsupported(); }
  void ensureFileExists(const CURI&) override { unsupported(); }
  void createFileHardLink(const CURI&, const CURI&) override { unsupported(); }
  void createFolderHardLink(const CURI&, const CURI&) override { unsupported(); }
  void createFileSymLink(const CURI& link, const CURI& target) override {
    count();
    m_lastSymLink = {link, target};
  }
  void createFolderSymLink(const CURI& link, const CURI& target) override {
    count();
    m_lastSymLink = {link, target};
  }
  bool fileExists(const CURI& uri) override {
    count();
    if (onFileExists) return onFileExists(uri);
    Entry* entry = find(uri);
    return entry && !entry->folder;
  }
  bool folderExists(const CURI& uri) override {
    count();
    Entry* entry = find(uri);
    return entry && entry->folder;
  }
  bool pathExists(const CURI& uri) override {
    count();
    return find(uri) != nullptr;
  }
  bool quickCheckFolderAccessible(const CURI& uri) override { return folderExists(uri); }
  bool isFolderEmpty(const CURI&) override { return unsupported(); }
  void deleteFile(const CURI& uri, bool) override {
    count();
    if (onDeleteFile) onDeleteFile(uri);
  }
  void deleteSymLink(const CURI&) override { unsupported(); }
  void deleteEmptyFolder(const CURI&, bool) override { unsupported(); }
  void unlinkFolder(const CURI&) override { unsupported(); }
  CURI getVolumeRootPath(const CURI&) override {
    count();
    return CURI("file:///");
  }
  CURI createUniqueFilename(const CURI& folder, const String& name) override {
    count();
    return folder.append(name);
  }
  CURI createUniqueFolderName(const CURI& folder, const String& name) override {
    count();
    return folder.append(name);
  }
  void moveFileOrFolder(const CURI&, const CURI&, bool) override { count(); }
  void copyFile(const CURI&, const CURI&, bool) override { count(); }
  int64 getFreeSpaceInFolder(const CURI&) override {
    count();
    return 1 << 20;
  }
  String getAccountOrUserNameUsedForAccess(const CURI&) override {
    count();
    return String("tester");
  }
  P<CNativeMetaData> getNativeMetaData(const CURI&, bool, const String&) override {
    return unsupported();
  }

  static P<IFileInfoBase> infoOf(const Entry& entry) {
    P<CFileInfoBase> info = createObject<CFileInfoBase>();
    info->setType(entry.folder ? IFileInfoBase::TypeFolder : IFileInfoBase::TypeFile);
    info->setSize(entry.folder ? 0 : static_cast<int64>(entry.data->getSize()));
    info->setDataModifiedTime(CTime(kModifiedTime));
    info->setHasWindowsInfo(false);
    info->setHasUnixInfo(true);
    info->setUnixMode(entry.unixMode);
    return info;
  }

  const std::vector<Entry>& getEntries() const { return m_entries; }

 private:
  void count() { ++m_calls; }
  struct CUnsupported {
    template <class T>
    operator T() const {
      throw CNotImplementedError("CMemFileSystem");
    }
  };
  CUnsupported unsupported() {
    count();
    return CUnsupported();
  }
  P<IBackgroundOp> newOp() {
    count();
    P<CFakeOp> op = createObject<CFakeOp>();
    m_ops.push_back(op);
    return op;
  }
  Entry* find(const CURI& uri) {
    const String path = uri.getDecodedPath();
    for (Entry& entry : m_entries) {
      if (entry.path == path) return &entry;
    }
    return nullptr;
  }
  Entry& need(const CURI& uri) {
    Entry* entry = find(uri);
    if (!entry) throw CError("not found");
    return *entry;
  }

  std::atomic<int> m_calls{0};
  CMutex m_mutex;
  P<IFileSystemLoginManager> m_loginManager;
  std::vector<Entry> m_entries;
  std::vector<P<CFakeOp>> m_ops;
  std::pair<CURI, CURI> m_lastSymLink;
};

class CMemFolderIterator : public CBase, public IFolderContentsIterator {
 public:
  explicit CMemFolderIterator(std::vector<CMemFileSystem::Entry> entries)
      : m_entries(std::move(entries)) {}
  bool nextItem() override { return ++m_index < static_cast<int>(m_entries.size()); }
  String getItemName() override {
    const std::wstring path = m_entries.at(static_cast<size_t>(m_index)).path.toStdWString();
    return String(path.substr(path.rfind(L'/') + 1));
  }
  P<IFileInfoBase> getItemInfo() override {
    return CMemFileSystem::infoOf(m_entries.at(static_cast<size_t>(m_index)));
  }

 private:
  std::vector<CMemFileSystem::Entry> m_entries;
  int m_index = -1;
};

inline P<IFolderContentsIterator> CMemFileSystem::getFolderContents(const CURI& uri) {
  count();
  const String folder = uri.getDecodedPath();
  std::vector<Entry> children;
  for (const Entry& entry : m_entries) {
    const std::wstring path = entry.path.toStdWString();
    const size_t slash = path.rfind(L'/');
    if (slash != std::wstring::npos && String(path.substr(0, slash)) == folder) {
      children.push_back(entry);
    }
  }
  return createObject<CMemFolderIterator>(children);
}

// ---------------------------------------------------------------------------
// Where the server runs

enum class Transport { InProcess, ChildProcess };

inline std::string transportName(const ::testing::TestParamInfo<Transport>& info) {
  return info.param == Transport::InProcess ? "InProcess" : "ChildProcess";
}

// What serves the calling thread's connection (set by serveConnection).
struct CServedConnection {
  CProxyFileSystemServer* server = nullptr;
  CMemFileSystem* watched = nullptr;
};
inline thread_local const CServedConnection* t_servedConnection = nullptr;

// Shared by every test server as "test://probe/": answers questions about
// the server side through the protocol, so that a test sees them the same
// way whichever process serves. getFileSectorSize: the open handles of the
// server of the asking connection; getFreeSpaceInFolder: the calls that
// reached its watched file system (-1 when there is none).
class CProbeFileSystem : public CMemFileSystem {
 public:
  int64 getFileSectorSize(const CURI&) override {
    return t_servedConnection ? t_servedConnection->server->getOpenHandleCount() : -1;
  }
  int64 getFreeSpaceInFolder(const CURI&) override {
    const CServedConnection* served = t_servedConnection;
    return served && served->watched ? served->watched->getCallCount() : -1;
  }
};

inline CURI probeHandlesURI() { return CURI("test://probe/handles"); }
inline CURI probeCallsURI() { return CURI("test://probe/calls"); }

// Sets up the shares of a fresh server; returns the file system whose calls
// the probe reports (may be null).
using ConnectionSetup = std::function<P<CMemFileSystem>(CProxyFileSystemServer& server)>;

// Serves server's connection on the calling thread until it ends. Frames
// are taken by handleMessageIfAvailable() whenever one has begun (a client
// sending several requests at once gets them handled that way) and by
// handleNextMessage() otherwise; serve() then does the closing and the
// release of handles.
inline void serveConnection(CProxyFileSystemServer& server, CMemFileSystem* watched) {
  const CServedConnection served{&server, watched};
  t_servedConnection = &served;
  try {
    for (;;) {
      if (!server.handleMessageIfAvailable() && !server.handleNextMessage()) break;
    }
  } catch (const CError&) {
    // A broken connection: serve() below logs it as it ends.
  }
  server.serve();
  t_servedConnection = nullptr;
}

inline CIPCAddress childServerAddress(const std::string& name) {
  return CIPCAddress("zeltest", String::fromUTF8(name.c_str()), false);
}

// The body of a child server: serves at the address named args[0] until
// killed, each connection on a thread of its own with a fresh server.
//
// Serving threads are joined once they have finished, never detached:
// mingw-w64's winpthreads hands the record of a thread detached after its
// function returned to the next new thread while the first one is still
// exiting, and that exit then wrecks the new thread, which may vanish
// before it runs (its client waits for an answer for ever).
// tests/toolchain/winpthread_detach_race.cpp shows it.
inline int runChildServer(const std::string& addressName, const ConnectionSetup& setup) {
  struct CServing {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> finished;
  };
  P<CProbeFileSystem> probe = createObject<CProbeFileSystem>();
  P<CPipeServer> pipe = createObject<CPipeServer>(childServerAddress(addressName));
  // Runs until the parent kills this process when its tests are done.
  std::list<CServing> serving;
  pipe->beginAcceptConnection();
  for (;;) {
    P<IConnection> connection = pipe->tryAcceptConnection(1000);
    for (auto it = serving.begin(); it != serving.end();) {
      if (!it->finished->load()) {
        ++it;
        continue;
      }
      it->thread.join();
      it = serving.erase(it);
    }
    if (!connection) continue;
    pipe->beginAcceptConnection();
    auto finished = std::make_shared<std::atomic<bool>>(false);
    std::thread thread([connection, setup, probe, finished] {
      {
        P<CProxyFileSystemServer> server = createObject<CProxyFileSystemServer>(connection.get());
        P<CMemFileSystem> watched = setup(*server);
        server->addShare(CURISelector(CURI("test://probe")), probe.get());
        serveConnection(*server, watched.get());
      }
      finished->store(true);
    });
    serving.push_back({std::move(thread), finished});
  }
}

// A child server kept for a whole test suite (a child costs about a second
// to start under Wine). It gets its address name and a folder of its own as
// its first two arguments; tests take fresh subfolders of that folder.
class CChildServer {
 public:
  CChildServer(const std::string& childName, const std::vector<std::string>& extraArgs = {}) {
    m_address = childName + "-" +
                std::to_string(std::chrono::steady_clock::now().time_since_epoch().count() %
                               1000000007);
    std::vector<std::string> args = {m_address, m_folder.getPath().toStdUTF8()};
    args.insert(args.end(), extraArgs.begin(), extraArgs.end());
    m_process = test::startTestChild(childName, args);
  }
  const String& getFolder() const { return m_folder.getPath(); }
  P<IConnection> connect() { return connectToPipeServer(childServerAddress(m_address), 20000, 20000); }
  // A new, empty folder inside getFolder().
  String newTestFolder() {
    const String path = m_folder.file("t" + String::fromInt64(++m_tests));
    createObject<CFileSystem>()->createFolder(CURI::fromNativePath(CNativePath(path)), 0);
    return path;
  }

 private:
  test::CTempFolder m_folder;
  std::string m_address;
  std::unique_ptr<test::CChildProcess> m_process;
  int m_tests = 0;
};

// Connections to test servers. In this process every connect() pairs a
// fresh server, set up by setup, with a thread serving it; with a child
// server, the child does the same on its side.
class CServerLink {
 public:
  explicit CServerLink(ConnectionSetup setup)
      : m_setup(std::move(setup)), m_probe(createObject<CProbeFileSystem>()) {}
  explicit CServerLink(CChildServer& child) : m_child(&child) {}
  ~CServerLink() {
    for (auto& served : m_served) {
      served.clientEnd->close();
      served.thread.join();
    }
  }
  CServerLink(const CServerLink&) = delete;
  CServerLink& operator=(const CServerLink&) = delete;

  bool inProcess() const { return m_child == nullptr; }

  P<IConnection> connect() {
    if (m_child) return m_child->connect();
    auto [client, serverEnd] = CInProcessConnection::createPair();
    P<CProxyFileSystemServer> server = createObject<CProxyFileSystemServer>(serverEnd.get());
    P<CMemFileSystem> watched = m_setup(*server);
    server->addShare(CURISelector(CURI("test://probe")), m_probe.get());
    CServed& served = m_served.emplace_back();
    served.clientEnd = client;
    served.serverEnd = serverEnd;
    served.server = server;
    served.thread = std::thread([this, server, watched] {
      serveConnection(*server, watched.get());
      ++m_ended;
    });
    return client;
  }

  // In process only: the server end of the last connection, and how many
  // servers have finished serving.
  const P<IConnection>& getLastServerEnd() const { return m_served.back().serverEnd; }
  int getEndedCount() const { return m_ended.load(); }

 private:
  struct CServed {
    P<IConnection> clientEnd, serverEnd;
    P<CProxyFileSystemServer> server;
    std::thread thread;
  };
  CChildServer* m_child = nullptr;
  ConnectionSetup m_setup;
  P<CProbeFileSystem> m_probe;
  std::list<CServed> m_served;
  std::atomic<int> m_ended{0};
};

}  // namespace zel::proxy_test
