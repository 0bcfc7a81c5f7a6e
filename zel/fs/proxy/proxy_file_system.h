// CProxyFileSystem: the client of the cross-process file system. It is an
// IFileSystem whose every operation, and every operation of the objects it
// hands out, travels as one request frame to a CProxyFileSystemServer at the
// other end of an IConnection and returns with its response frame (wire
// layouts in proxy_protocol.h).
//
// Ownership: the file system holds a counted reference to the connection
// and owns it: close() (also run by the destructor) stops the polling thread,
// closes the connection and ends the background operations still
// outstanding. Every object handed out (streams, file infos, meta modifiers,
// write barriers, range locks) holds a reference to the file system, so the
// connection lives as long as any of them. Dropping the last reference to
// such an object sends its close or release request; releasing never throws
// (failures are logged, and nothing is sent once the connection is closed or
// broken: the server drops every handle of a connection when it ends).
//
// Calls: a call is one COp: the request is built in one reused buffer and
// sent with one write() (streamWrite: the header fields, then the caller's
// bytes as they are); the response is read into one reused buffer, except
// the bytes of streamReadLax and streamReadAvailable, which go straight from
// the connection into the caller's buffer, all of them: the head before them
// is read without read-ahead, so that a page-aligned buffer receives the
// bytes as aligned as the server sends them. Reads and writes larger than
// kMaxDataChunk are split into several requests.
//
// Errors: an error response is thrown as a CFileSystemError that carries the
// server error's message, domain, code and parameters (so the error
// predicates answer as they would on the server), its problem, and the
// server error itself as the cause. Errors that the client can decide alone
// (open flags, create-folder flags, a foreign write barrier, negative
// lengths, write counts and lock ranges) are thrown before anything is sent,
// with their own class; reads of a count of 0 or less read nothing and send
// nothing, as every stream's do. An answer of an unknown
// response type is logged and thrown as a CFileSystemError (problem 0, cause
// "Internal filesystem error"); its frame was read whole, so the connection
// stays usable.
//
// Broken connection: a failure while sending or receiving a frame (the
// server died, the connection was closed, a frame length out of range, a
// read result that does not fit its request)
// is thrown to the pending call as it came (a CIOError for a lost
// connection) and leaves the file system unusable: the connection is
// closed, later calls throw CIOError StreamClosed with the first failure as
// cause, and outstanding background operations fail. There is no
// reconnection.
//
// Login callbacks: while a request is running the server may ask for or
// report login data; the answers come from the login manager given to
// setLoginManager(), called on the thread of the pending call with the
// connection lock held. The manager must not call this file system (such a
// call throws CBadStateError, which is then the answer to the server).
// Without a manager a request for login data is answered with empty
// properties and the empty selector.
//
// Background operations: backgroundCreateFolder, backgroundMoveFileOrFolder,
// backgroundDeleteFile and backgroundStore of at most kMaxDataChunk bytes
// run on the server; the client's polling thread ("zel.proxyFsPoll", started
// with the first operation) asks, while operations are outstanding, which
// have finished - poll, then sleep 50 ms, so two polls are never closer -
// and completes them: the error is
// recorded, the completion signal set and the done listener called, once,
// on the polling thread. backgroundStore reads its source on the calling
// thread before it sends the request. Larger stores run on a client-side
// worker ("zel.backgroundOps") that writes through a proxy stream in 1 MiB
// chunks; their listener is called on that worker. An outstanding operation
// keeps its file system alive until it has finished, as with the local file
// system. A request that cannot even start (bad arguments, an error answer,
// a broken connection) returns an already failed operation
// (CErrorBackgroundOp) instead of throwing. Should asking for finished
// operations fail otherwise (an error answer, a reply that cannot be read),
// the failure is logged and every outstanding operation fails with it:
// nothing else could ever complete them. Operations ended by close() or a
// lost connection fail with CIOError StreamClosed.
//
// Thread safety: the file system may be used from several threads at once;
// calls are serialised on the connection by one lock (the polling thread
// shares it), so a slow call delays the others. close() may be called from
// any thread; calls in progress then fail. The objects handed out follow the
// stream rule: each is used by one thread at a time (a file info fetches its
// remaining items lazily on first use, so such a getter may throw). A login
// manager must not call close(): it runs inside a call, and close() waits for
// the polling thread, which may be waiting for that call.
#pragma once

#include <atomic>
#include <utility>

#include "zel/core/base.h"
#include "zel/core/buffer.h"
#include "zel/core/containers.h"
#include "zel/core/error.h"
#include "zel/core/export.h"
#include "zel/fs/file_system.h"
#include "zel/fs/proxy/proxy_protocol.h"
#include "zel/ipc/connection.h"
#include "zel/stream/buffer_stream.h"
#include "zel/stream/data_stream.h"
#include "zel/core/mutex.h"

namespace zel {

class CBackgroundOpThread;
class CConnectionInStream;

class ZEL_API CProxyFileSystem : public CBase, public CProxyFileSystemBase, public IFileSystem {
 public:
  // One call on the connection: one request and its response. The
  // constructor takes the connection lock and holds it until destruction, so
  // build the request, execute() and read the response within one scope.
  // A COp is executed once and its response taken once; anything else is a
  // programming error (CBadStateError).
  class ZEL_API COp {
   public:
    COp(CProxyFileSystem& fileSystem, FuncID func);
    ~COp();
    COp(const COp&) = delete;
    COp& operator=(const COp&) = delete;

    // The request's arguments go here (funcID is written already).
    CDataOutStream& request();
    // Bytes sent after the arguments, from the caller's buffer (which must
    // stay untouched until execute() returns).
    void setBulkRequest(const void* data, int bytes);
    // For streamReadLax and streamReadAvailable: the result's count and
    // bytes are read straight into buffer (at most capacity bytes).
    void setBulkResponse(void* buffer, int capacity);

    // Sends the request and reads frames until the result: answers login
    // callbacks in between, throws error answers (see the class comment).
    void execute();
    // The result, positioned after the response type.
    CDataInStream& response();
    // The byte count a bulk response delivered.
    int getBulkResponseCount() const { return m_bulkCount; }

   private:
    CProxyFileSystem& m_fs;
    CMutexLock m_lock;
    bool m_executed = false;
    bool m_succeeded = false;
    bool m_responseTaken = false;
    const void* m_bulkRequest = nullptr;
    int m_bulkRequestBytes = 0;
    void* m_bulkResponse = nullptr;
    int m_bulkCapacity = -1;
    int m_bulkCount = 0;
  };

  // The objects handed out (proxy_file_system_objects.h).
  class CStream;
  class CRemoteFileInfo;
  class CFolderContentsIterator;
  class CMetaModifier;
  class CWriteBarrier;
  class CStreamLock;
  class CBackgroundOp;
  class CBackgroundOpPollThread;

  // Holds a reference to connection (which must not be null) and uses it for
  // every call; nothing is sent before the first call.
  explicit CProxyFileSystem(IConnection* connection);
  ~CProxyFileSystem() override;
  CProxyFileSystem(const CProxyFileSystem&) = delete;
  CProxyFileSystem& operator=(const CProxyFileSystem&) = delete;

  // Stops the polling thread and the store worker, closes the connection and
  // fails outstanding background operations (CIOError StreamClosed).
  // Idempotent; later calls throw CIOError StreamClosed.
  void close();
  // False once closed or broken.
  bool isUsable() const { return m_usable.load(std::memory_order_acquire); }

  void setLoginManager(IFileSystemLoginManager* loginManager) override;
  P<IBackgroundOp> backgroundStore(const CURI& uri, int64 length, IInStream* source, bool overwrite,
                                   IDoneListener* listener) override;
  P<IBackgroundOp> backgroundCreateFolder(const CURI& uri, int flags,
                                          IDoneListener* listener) override;
  P<IBackgroundOp> backgroundMoveFileOrFolder(const CURI& from, const CURI& to, bool overwrite,
                                              IDoneListener* listener) override;
  P<IBackgroundOp> backgroundDeleteFile(const CURI& uri, IDoneListener* listener) override;
  P<IFileInfoBase> getFileInfo(const CURI& uri, bool followSymLinks) override;
  P<IFileMetaModifier> createMetaModifier(const CURI& uri, bool followSymLinks) override;
  int64 getFileSectorSize(const CURI& uri) override;
  P<IFolderContentsIterator> getFolderContents(const CURI& uri) override;
  P<IIOStream> createStream(const CURI& uri, IIOStream::Access access,
                            TFlags<IIOStream::Flags> flags) override;
  P<IIOStream> createSubDataStream(const CURI& uri, const String& name, IIOStream::Access access,
                                   TFlags<IIOStream::Flags> flags) override;
  void createFolder(const CURI& uri, int flags) override;
  bool ensureFolderExists(const CURI& uri, int flags) override;
  void ensureFileExists(const CURI& uri) override;
  void createFileHardLink(const CURI& link, const CURI& target) override;
  void createFolderHardLink(const CURI& link, const CURI& target) override;
  void createFileSymLink(const CURI& link, const CURI& target) override;
  void createFolderSymLink(const CURI& link, const CURI& target) override;
  bool fileExists(const CURI& uri) override;
  bool folderExists(const CURI& uri) override;
  bool pathExists(const CURI& uri) override;
  bool quickCheckFolderAccessible(const CURI& uri) override;
  bool isFolderEmpty(const CURI& uri) override;
  void deleteFile(const CURI& uri, bool force) override;
  void deleteSymLink(const CURI& uri) override;
  void deleteEmptyFolder(const CURI& uri, bool force) override;
  void unlinkFolder(const CURI& uri) override;
  CURI getVolumeRootPath(const CURI& uri) override;
  CURI createUniqueFilename(const CURI& folder, const String& name) override;
  CURI createUniqueFolderName(const CURI& folder, const String& name) override;
  void moveFileOrFolder(const CURI& from, const CURI& to, bool overwrite) override;
  void copyFile(const CURI& from, const CURI& to, bool overwrite) override;
  int64 getFreeSpaceInFolder(const CURI& uri) override;
  String getAccountOrUserNameUsedForAccess(const CURI& uri) override;
  P<CNativeMetaData> getNativeMetaData(const CURI& uri, bool followSymLinks,
                                       const String& which) override;

  // The error an error answer is thrown as: a CFileSystemError with
  // serverError's message, domain, code, parameters and problem, and
  // serverError as its cause.
  static CFileSystemError wrapServerError(const CError& serverError);

  // Sends the release request func for handle (writeBarrierRelease,
  // lockRelease, metaModifierClose, fileInfoClose, streamClose). Never
  // throws; failures are logged. Nothing is sent on a closed or broken
  // connection. Asked from inside a call (a login manager dropping an
  // object), the request is sent when that call has finished.
  void releaseHandle(FuncID func, int64 handle) noexcept;

 private:
  using Buffer = TBuffer<unsigned char>;

  // Connection I/O, under the connection lock. A failure marks the
  // connection broken and is rethrown.
  void sendRequest(const void* bulk, int bulkBytes);
  // Reads one frame; returns its response type. With a bulk target and a
  // result, the count goes to bulkCount and the bytes to bulkTarget;
  // otherwise the rest of the payload is in the response buffer.
  int receiveFrame(void* bulkTarget, int bulkCapacity, int& bulkCount);
  // Reads exactly bytes of the head of a frame whose bulk bytes follow,
  // taking none of those along (CConnectionInStream::readWithoutReadAhead).
  void readHead(void* buffer, int bytes);
  void answerGetLoginInfo();
  void answerUpdateLoginInfo();
  // Records the first failure, closes the connection and wakes the polling
  // thread, which fails the outstanding operations.
  void markBroken(const CError& error);
  // Fills the response buffer with prefix and then rest bytes from the
  // connection.
  void readResponsePayload(const unsigned char* prefix, int prefixBytes, int rest);
  void checkUsable();
  // Starts a request in the reused buffer.
  CDataOutStream& beginRequest(int head);
  CDataInStream& responseIn() { return *m_responseIn; }
  void flushDeferredReleases() noexcept;

  // Background operations.
  // Tracks an operation the server started; completes it at once (failed)
  // when the connection is no longer usable.
  P<IBackgroundOp> registerBackgroundOp(int64 handle, IDoneListener* listener);
  // backgroundStore of more than kMaxDataChunk bytes, on the store worker.
  P<IBackgroundOp> storeInBackground(const CURI& uri, int64 length, IInStream* source,
                                     bool overwrite, IDoneListener* listener);
  void startPolling();
  // One round of the polling thread; true while operations are outstanding.
  bool pollOnce(CBackgroundOpPollThread& thread);
  void failOutstandingOps(const CError& error);
  // The error of calls on a closed or broken connection.
  CIOError unusableError();

  // Calls with one URI argument.
  void callWithURI(FuncID func, const CURI& uri);
  bool askBool(FuncID func, const CURI& uri);
  int64 askInt64(FuncID func, const CURI& uri);
  CURI askURI(FuncID func, const CURI& uri, const String* name);
  void callWithTwoURIs(FuncID func, const CURI& first, const CURI& second, const bool* flag);
  P<IIOStream> openStream(FuncID func, const CURI& uri, const String* name,
                          IIOStream::Access access, TFlags<IIOStream::Flags> flags);

  P<IConnection> m_connection;
  P<IInStream> m_in;
  P<IOutStream> m_out;
  CConnectionInStream* m_connectionIn = nullptr;  // m_in, when it is one

  // The connection lock: one call at a time. Recursive, so that a call made
  // from inside a call can be detected (m_callDepth) rather than deadlock.
  CMutex m_callMutex;
  int m_callDepth = 0;
  TArray<std::pair<FuncID, int64>> m_deferredReleases;
  // Reused request and response buffers (guarded by m_callMutex).
  P<Buffer> m_requestBuffer;
  P<CBufferStream> m_requestStream;
  P<CDataOutStream> m_requestOut;
  P<Buffer> m_responseBuffer;
  P<CBufferStream> m_responseStream;
  P<CDataInStream> m_responseIn;

  // m_loginManager, m_closed, m_brokenError and the worker threads.
  CMutex m_stateMutex;
  P<IFileSystemLoginManager> m_loginManager;
  std::atomic<bool> m_usable{true};
  bool m_closed = false;
  P<CError> m_brokenError;
  P<CBackgroundOpPollThread> m_pollThread;
  P<CBackgroundOpThread> m_storeThread;

  // Outstanding background operations by server handle.
  CMutex m_opsMutex;
  TMap<int64, P<CBackgroundOp>> m_outstanding;
};

}  // namespace zel
