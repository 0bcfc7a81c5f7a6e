#include "zel/fs/proxy/proxy_file_system.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>

#include "zel/fs/background_op_thread.h"
#include "zel/fs/error_background_op.h"
#include "zel/fs/open_mode.h"
#include "zel/fs/proxy/proxy_file_system_objects.h"
#include "zel/fs/proxy/proxy_message.h"
#include "zel/ipc/connection_stream.h"
#include "zel/log/xml_log.h"
#include "zel/stream/stored_error.h"

namespace zel {

namespace {

constexpr int kFrameHeader = 4;
// Reused buffers that grew beyond this for one large call are given back
// afterwards, so that a single big listing does not pin its memory.
constexpr size_t kKeptBufferCapacity = 1 << 20;

void putInt32(unsigned char* field, uint32 value) {
  field[0] = static_cast<unsigned char>(value);
  field[1] = static_cast<unsigned char>(value >> 8);
  field[2] = static_cast<unsigned char>(value >> 16);
  field[3] = static_cast<unsigned char>(value >> 24);
}

int getInt32(const unsigned char* field) {
  return static_cast<int>(static_cast<uint32>(field[0]) | static_cast<uint32>(field[1]) << 8 |
                          static_cast<uint32>(field[2]) << 16 |
                          static_cast<uint32>(field[3]) << 24);
}

void writeURI(CDataOutStream& out, const CURI& uri) { out.writeString(uri.toString(true)); }

void trimBuffer(TBuffer<unsigned char>& buffer) {
  if (buffer.getCapacity() > kKeptBufferCapacity) buffer = TBuffer<unsigned char>();
}

}  // namespace

// ---------------------------------------------------------------------------
// COp

CProxyFileSystem::COp::COp(CProxyFileSystem& fileSystem, FuncID func)
    : m_fs(fileSystem), m_lock(fileSystem.m_callMutex) {
  // The lock is recursive: a depth above 0 here means this very thread is
  // inside a call already (a login manager calling back), and a second
  // request would land in the middle of the first one's exchange.
  if (m_fs.m_callDepth > 0) {
    throw CBadStateError(
        "CProxyFileSystem called from inside one of its own calls (a login manager callback).");
  }
  m_fs.beginRequest(func);
  ++m_fs.m_callDepth;
}

CProxyFileSystem::COp::~COp() {
  if (--m_fs.m_callDepth > 0) return;
  trimBuffer(*m_fs.m_requestBuffer);
  trimBuffer(*m_fs.m_responseBuffer);
  if (!m_fs.m_deferredReleases.isEmpty()) m_fs.flushDeferredReleases();
}

CDataOutStream& CProxyFileSystem::COp::request() { return *m_fs.m_requestOut; }

void CProxyFileSystem::COp::setBulkRequest(const void* data, int bytes) {
  m_bulkRequest = data;
  m_bulkRequestBytes = bytes;
}

void CProxyFileSystem::COp::setBulkResponse(void* buffer, int capacity) {
  m_bulkResponse = buffer;
  m_bulkCapacity = capacity;
}

void CProxyFileSystem::COp::execute() {
  if (m_executed) throw CBadStateError("CProxyFileSystem::COp::execute called multiple times.");
  m_executed = true;
  m_fs.checkUsable();
  m_fs.sendRequest(m_bulkRequest, m_bulkRequestBytes);
  for (;;) {
    const int type = m_fs.receiveFrame(m_bulkResponse, m_bulkCapacity, m_bulkCount);
    switch (type) {
      case ResponseResult:
        m_succeeded = true;
        return;
      case ResponseError: {
        P<CError> error = loadError(m_fs.responseIn());
        throw wrapServerError(*error);
      }
      case ResponseGetLoginInfo:
        m_fs.answerGetLoginInfo();
        break;
      case ResponseUpdateLoginInfo:
        m_fs.answerUpdateLoginInfo();
        break;
      default:
        logError("Internal Error: invalid response type in CProxyFileSystem response: " +
                 String::fromInt64(type));
        throw wrapServerError(CError("Internal filesystem error", String(), -1));
    }
  }
}

CDataInStream& CProxyFileSystem::COp::response() {
  if (!m_succeeded) throw CBadStateError("CProxyFileSystem::COp::response called before execute.");
  if (m_responseTaken) {
    throw CBadStateError("CProxyFileSystem::COp::response called multiple times.");
  }
  m_responseTaken = true;
  return m_fs.responseIn();
}

// ---------------------------------------------------------------------------
// Connection I/O

CProxyFileSystem::CProxyFileSystem(IConnection* connection) {
  if (!connection) {
    throw CInvalidArgError("CProxyFileSystem::CProxyFileSystem", "The connection is null.");
  }
  m_connection = connection;
  m_in = connection->getInStream();
  m_out = connection->getOutStream();
  if (!m_in || !m_out) {
    throw CInvalidArgError("CProxyFileSystem::CProxyFileSystem", "The connection has no streams.");
  }
  m_connectionIn = dynamic_cast<CConnectionInStream*>(m_in.get());
  m_requestBuffer = createObject<Buffer>();
  m_requestStream = createObject<CBufferStream>(m_requestBuffer);
  m_requestOut = createObject<CDataOutStream>(m_requestStream.get());
  m_responseBuffer = createObject<Buffer>();
  m_responseStream = createObject<CBufferStream>(m_responseBuffer, true);
  m_responseIn = createObject<CDataInStream>(m_responseStream.get());
}

CProxyFileSystem::~CProxyFileSystem() {
  try {
    close();
  } catch (...) {
    P<CError> error = CStdExceptionError::exceptionToError();
    logError("Closing a proxy file system failed.", error.get());
  }
}

CDataOutStream& CProxyFileSystem::beginRequest(int head) {
  m_requestBuffer->resize(kFrameHeader);
  m_requestStream->seek(kFrameHeader);
  m_requestOut->writeInt32(head);
  return *m_requestOut;
}

void CProxyFileSystem::sendRequest(const void* bulk, int bulkBytes) {
  Buffer& frame = *m_requestBuffer;
  const size_t payload = frame.getSize() - kFrameHeader + static_cast<size_t>(bulkBytes);
  if (payload > static_cast<size_t>(INT_MAX)) {
    throw CIOError(CIOError::InvalidData, "Proxy filesystem request too large to send: " +
                                              String::fromInt64(static_cast<int64>(payload)) +
                                              " bytes");
  }
  putInt32(frame.getData(), static_cast<uint32>(payload));
  try {
    m_out->write(frame.getData(), static_cast<int>(frame.getSize()));
    if (bulkBytes > 0) m_out->write(bulk, bulkBytes);
  } catch (const CError& error) {
    markBroken(error);
    throw;
  }
}

void CProxyFileSystem::readResponsePayload(const unsigned char* prefix, int prefixBytes, int rest) {
  Buffer& payload = *m_responseBuffer;
  payload.resize(static_cast<size_t>(prefixBytes) + static_cast<size_t>(rest));
  if (prefixBytes > 0) std::memcpy(payload.getData(), prefix, static_cast<size_t>(prefixBytes));
  if (rest > 0) m_in->read(payload.getData() + prefixBytes, rest);
  m_responseStream->seek(0);
}

void CProxyFileSystem::readHead(void* buffer, int bytes) {
  if (m_connectionIn) {
    m_connectionIn->readWithoutReadAhead(buffer, bytes);
  } else {
    m_in->read(buffer, bytes);
  }
}

int CProxyFileSystem::receiveFrame(void* bulkTarget, int bulkCapacity, int& bulkCount) {
  try {
    int length = 0;
    if (bulkTarget) {
      // The bytes of a read result follow: nothing of them is taken with
      // the head, so that all of them arrive straight in the caller's buffer.
      unsigned char field[kFrameHeader];
      readHead(field, kFrameHeader);
      length = CProxyFileSystemMessage::decodeFrameLength(field);
    } else {
      length = CProxyFileSystemMessage::readFrameLength(*m_in);
    }
    if (length < 4) {
      throw CIOError(CIOError::InvalidData, "Proxy filesystem response without a response type");
    }
    if (!bulkTarget) {
      readResponsePayload(nullptr, 0, length);
      return m_responseIn->readInt32();
    }
    // A read result: type and count first, then the bytes go straight to
    // the caller. Any other answer is read whole and handled as usual.
    unsigned char head[8];
    const int headBytes = std::min(length, 8);
    readHead(head, headBytes);
    const int type = getInt32(head);
    if (type != ResponseResult) {
      readResponsePayload(head + 4, headBytes - 4, length - headBytes);
      return type;
    }
    const int count = headBytes == 8 ? getInt32(head + 4) : -1;
    if (count < 0 || count > bulkCapacity || count != length - 8) {
      throw CIOError(CIOError::InvalidData,
                     "Invalid proxy stream read result: " + String::fromInt64(count) +
                         " bytes in a frame of " + String::fromInt64(length) + " for " +
                         String::fromInt64(bulkCapacity) + " asked");
    }
    if (count > 0) m_in->read(bulkTarget, count);
    bulkCount = count;
    return type;
  } catch (const CError& error) {
    // Whatever happened, the frame boundary is lost: nothing more can be
    // read from this connection.
    markBroken(error);
    throw;
  }
}

void CProxyFileSystem::answerGetLoginInfo() {
  P<IFileSystemLoginManager> manager;
  {
    CMutexLock lock(m_stateMutex);
    manager = m_loginManager;
  }
  CProps props;
  CURISelector selector;
  P<CError> failure;
  try {
    const String uriText = m_responseIn->readString();
    if (manager) props = manager->getLoginInfo(CURI(uriText), &selector);
  } catch (...) {
    failure = CStdExceptionError::exceptionToError();
  }
  CDataOutStream& out = beginRequest(failure ? ResponseError : ResponseResult);
  if (failure) {
    storeError(*failure, out);
  } else {
    out.writeString(props.toString());
    selector.store(out);
  }
  sendRequest(nullptr, 0);
}

void CProxyFileSystem::answerUpdateLoginInfo() {
  P<IFileSystemLoginManager> manager;
  {
    CMutexLock lock(m_stateMutex);
    manager = m_loginManager;
  }
  P<CError> failure;
  try {
    const CURISelector selector = CURISelector::load(*m_responseIn);
    const CProps props = CProps::fromString(m_responseIn->readString());
    if (manager) manager->updateLoginInfo(selector, props);
  } catch (...) {
    failure = CStdExceptionError::exceptionToError();
  }
  CDataOutStream& out = beginRequest(failure ? ResponseError : ResponseResult);
  if (failure) storeError(*failure, out);
  sendRequest(nullptr, 0);
}

void CProxyFileSystem::markBroken(const CError& error) {
  P<CBackgroundOpPollThread> poll;
  bool first = false;
  {
    CMutexLock lock(m_stateMutex);
    if (!m_closed && !m_brokenError) {
      m_brokenError = error.clone();
      first = true;
    }
    m_usable.store(false, std::memory_order_release);
    poll = m_pollThread;
  }
  if (first) logWarning("The connection to the proxy file system server broke.", &error);
  try {
    m_connection->close();
  } catch (...) {
    // Closing a broken connection may fail as well; it is unusable anyway.
  }
  if (poll) poll->wake();
}

CIOError CProxyFileSystem::unusableError() {
  CMutexLock lock(m_stateMutex);
  return CIOError(CIOError::StreamClosed,
                  "The connection to the proxy file system server is closed.", CProps(),
                  m_brokenError.get());
}

void CProxyFileSystem::checkUsable() {
  if (!isUsable()) throw unusableError();
}

CFileSystemError CProxyFileSystem::wrapServerError(const CError& serverError) {
  return CFileSystemError(
      CFileSystemError::getProblem(serverError.getParams()),
      CError(serverError.getMessage(), serverError.getErrorCodeDomain(),
             serverError.getErrorCode(), serverError.getParams(), &serverError));
}

void CProxyFileSystem::releaseHandle(FuncID func, int64 handle) noexcept {
  try {
    if (!isUsable()) return;
    CMutexLock lock(m_callMutex);
    if (m_callDepth > 0) {
      m_deferredReleases.add({func, handle});
      return;
    }
    COp op(*this, func);
    op.request().writeInt64(handle);
    op.execute();
  } catch (...) {
    // A connection that broke meanwhile took the handle with it.
    if (!isUsable()) return;
    try {
      P<CError> error = CStdExceptionError::exceptionToError();
      logError("Releasing a proxy file system object failed: " + getFuncName(func) + " " +
                   String::fromInt64(handle),
               error.get());
    } catch (...) {
    }
  }
}

void CProxyFileSystem::flushDeferredReleases() noexcept {
  TArray<std::pair<FuncID, int64>> releases;
  releases.swap(m_deferredReleases);
  for (const auto& [func, handle] : releases) releaseHandle(func, handle);
}

void CProxyFileSystem::close() {
  P<CBackgroundOpPollThread> poll;
  P<CBackgroundOpThread> store;
  {
    CMutexLock lock(m_stateMutex);
    if (m_closed) return;
    m_closed = true;
    m_usable.store(false, std::memory_order_release);
    poll = std::move(m_pollThread);
    store = std::move(m_storeThread);
  }
  if (poll) poll->signalStop();
  if (store) store->signalStop();
  // Wakes a call blocked in a read; such calls fail.
  try {
    m_connection->close();
  } catch (...) {
    P<CError> error = CStdExceptionError::exceptionToError();
    logWarning("Closing the connection of a proxy file system failed.", error.get());
  }
  // Either may be the calling thread itself (the last reference dropped by
  // one of their operations); stop() then returns at once.
  if (poll) poll->stop(false);
  if (store) store->stop(false);
  failOutstandingOps(CIOError(
      CIOError::StreamClosed,
      "The proxy file system was closed before the background operation finished."));
}

void CProxyFileSystem::setLoginManager(IFileSystemLoginManager* loginManager) {
  CMutexLock lock(m_stateMutex);
  m_loginManager = loginManager;
}

// ---------------------------------------------------------------------------
// Background operations

P<IBackgroundOp> CProxyFileSystem::registerBackgroundOp(int64 handle, IDoneListener* listener) {
  P<CBackgroundOp> op = createObject<CBackgroundOp>(this, handle, listener);
  bool added = false;
  {
    // Checked under the operations lock: close() and a broken connection
    // make the file system unusable first and then fail what is registered,
    // so an operation is either failed here or found there.
    CMutexLock lock(m_opsMutex);
    if (isUsable()) {
      m_outstanding[handle] = op;
      added = true;
    }
  }
  if (!added) {
    op->complete(unusableError().clone());
    return op;
  }
  try {
    startPolling();
  } catch (...) {
    P<CError> error = CStdExceptionError::exceptionToError();
    {
      CMutexLock lock(m_opsMutex);
      m_outstanding.erase(handle);
    }
    op->complete(error);
  }
  return op;
}

void CProxyFileSystem::startPolling() {
  P<CBackgroundOpPollThread> thread;
  {
    CMutexLock lock(m_stateMutex);
    if (m_closed) return;  // close() fails what is outstanding
    if (!m_pollThread) {
      P<CBackgroundOpPollThread> created = createObject<CBackgroundOpPollThread>(this);
      created->start();
      m_pollThread = created;
    }
    thread = m_pollThread;
  }
  thread->wake();
}

bool CProxyFileSystem::pollOnce(CBackgroundOpPollThread& thread) {
  // Completed operations drop their references to this file system; when one
  // of them was the last, the file system goes away as this reference is
  // dropped, at the very end (its close() stops this thread).
  P<CProxyFileSystem> self(this);
  TArray<int64> handles;
  {
    CMutexLock lock(m_opsMutex);
    thread.resetWake();
    if (m_outstanding.empty()) return false;
    for (const auto& entry : m_outstanding) handles.add(entry.first);
  }
  if (!isUsable()) {
    failOutstandingOps(unusableError());
    return false;
  }
  struct Finished {
    P<CBackgroundOp> op;
    P<CError> error;
  };
  TArray<Finished> finished;
  P<CError> failure;
  try {
    COp op(*this, FuncBackgroundOpsFinalize);
    CDataOutStream& out = op.request();
    for (int64 handle : handles) out.writeInt64(handle);
    out.writeInt64(kHandleListEnd);
    op.execute();
    CDataInStream& in = op.response();
    for (;;) {
      const int64 handle = in.readInt64();
      if (handle == kHandleListEnd) break;
      P<CError> error;
      if (in.readBool()) {
        P<CError> loaded = loadError(in);
        error = wrapServerError(*loaded).clone();
      }
      P<CBackgroundOp> done;
      {
        CMutexLock lock(m_opsMutex);
        auto it = m_outstanding.find(handle);
        if (it != m_outstanding.end()) {
          done = std::move(it->second);
          m_outstanding.erase(it);
        }
      }
      if (done) {
        finished.add({std::move(done), std::move(error)});
      } else {
        logError(
            "INTERNAL ERROR: Proxy filesystem server returned an unknown background op ID in "
            "response to FuncBackgroundOpsFinalize. Ignoring.");
      }
    }
  } catch (...) {
    failure = CStdExceptionError::exceptionToError();
  }
  // Completed outside the connection lock: listeners may call the file
  // system.
  for (Finished& entry : finished) entry.op->complete(entry.error);
  if (failure) {
    // Without a working finalize nothing would ever complete the rest. A
    // lost connection fails them as every later call fails.
    if (!isUsable()) {
      failOutstandingOps(unusableError());
    } else {
      logError("Asking the proxy file system server for finished background operations failed.",
               failure.get());
      failOutstandingOps(*failure);
    }
    return false;
  }
  CMutexLock lock(m_opsMutex);
  return !m_outstanding.empty();
}

void CProxyFileSystem::failOutstandingOps(const CError& error) {
  TArray<P<CBackgroundOp>> ops;
  {
    CMutexLock lock(m_opsMutex);
    for (auto& entry : m_outstanding) ops.add(std::move(entry.second));
    m_outstanding.clear();
  }
  if (ops.isEmpty()) return;
  // One error object for all: it is never changed after this point.
  const P<CError> stored = error.clone();
  for (const P<CBackgroundOp>& op : ops) op->complete(stored);
}

P<IBackgroundOp> CProxyFileSystem::storeInBackground(const CURI& uri, int64 length,
                                                     IInStream* source, bool overwrite,
                                                     IDoneListener* listener) {
  P<CBackgroundOpThread> worker;
  {
    CMutexLock lock(m_stateMutex);
    if (!isUsable()) {
      throw CIOError(CIOError::StreamClosed,
                     "The connection to the proxy file system server is closed.", CProps(),
                     m_brokenError.get());
    }
    if (!m_storeThread) {
      P<CBackgroundOpThread> created = createObject<CBackgroundOpThread>();
      created->start();
      m_storeThread = created;
    }
    worker = m_storeThread;
  }
  return worker->addStoreJob(this, uri, length, source, overwrite, listener);
}

P<IBackgroundOp> CProxyFileSystem::backgroundStore(const CURI& uri, int64 length,
                                                   IInStream* source, bool overwrite,
                                                   IDoneListener* listener) {
  static const char* const kFunction = "CProxyFileSystem::backgroundStore";
  int64 handle = 0;
  try {
    if (length < 0) throw CInvalidArgError(kFunction, "The length is negative.");
    if (!source && length > 0) throw CInvalidArgError(kFunction, "The source stream is null.");
    if (length > kMaxDataChunk) {
      return storeInBackground(uri, length, source, overwrite, listener);
    }
    checkUsable();
    // Read before the connection lock is taken: the source may be slow.
    const int bytes = static_cast<int>(length);
    std::unique_ptr<unsigned char[]> data(new unsigned char[bytes > 0 ? bytes : 1]);
    if (bytes > 0) source->read(data.get(), bytes);
    COp op(*this, FuncBackgroundStoreBegin);
    CDataOutStream& out = op.request();
    writeURI(out, uri);
    out.writeInt64(length);
    out.writeBool(overwrite);
    op.setBulkRequest(data.get(), bytes);
    op.execute();
    handle = op.response().readInt64();
  } catch (...) {
    return createObject<CErrorBackgroundOp>(listener);
  }
  return registerBackgroundOp(handle, listener);
}

P<IBackgroundOp> CProxyFileSystem::backgroundCreateFolder(const CURI& uri, int flags,
                                                          IDoneListener* listener) {
  int64 handle = 0;
  try {
    checkCreateFolderFlags(flags, "CProxyFileSystem::backgroundCreateFolder");
    COp op(*this, FuncBackgroundCreateFolderBegin);
    writeURI(op.request(), uri);
    op.request().writeInt32(flags);
    op.execute();
    handle = op.response().readInt64();
  } catch (...) {
    return createObject<CErrorBackgroundOp>(listener);
  }
  return registerBackgroundOp(handle, listener);
}

P<IBackgroundOp> CProxyFileSystem::backgroundMoveFileOrFolder(const CURI& from, const CURI& to,
                                                              bool overwrite,
                                                              IDoneListener* listener) {
  int64 handle = 0;
  try {
    COp op(*this, FuncBackgroundMoveFileBegin);
    writeURI(op.request(), from);
    writeURI(op.request(), to);
    op.request().writeBool(overwrite);
    op.execute();
    handle = op.response().readInt64();
  } catch (...) {
    return createObject<CErrorBackgroundOp>(listener);
  }
  return registerBackgroundOp(handle, listener);
}

P<IBackgroundOp> CProxyFileSystem::backgroundDeleteFile(const CURI& uri,
                                                        IDoneListener* listener) {
  int64 handle = 0;
  try {
    COp op(*this, FuncBackgroundDeleteFileBegin);
    writeURI(op.request(), uri);
    op.execute();
    handle = op.response().readInt64();
  } catch (...) {
    return createObject<CErrorBackgroundOp>(listener);
  }
  return registerBackgroundOp(handle, listener);
}

// ---------------------------------------------------------------------------
// Plain calls

void CProxyFileSystem::callWithURI(FuncID func, const CURI& uri) {
  COp op(*this, func);
  writeURI(op.request(), uri);
  op.execute();
}

bool CProxyFileSystem::askBool(FuncID func, const CURI& uri) {
  COp op(*this, func);
  writeURI(op.request(), uri);
  op.execute();
  return op.response().readBool();
}

int64 CProxyFileSystem::askInt64(FuncID func, const CURI& uri) {
  COp op(*this, func);
  writeURI(op.request(), uri);
  op.execute();
  return op.response().readInt64();
}

CURI CProxyFileSystem::askURI(FuncID func, const CURI& uri, const String* name) {
  COp op(*this, func);
  writeURI(op.request(), uri);
  if (name) op.request().writeString(*name);
  op.execute();
  return CURI(op.response().readString());
}

void CProxyFileSystem::callWithTwoURIs(FuncID func, const CURI& first, const CURI& second,
                                       const bool* flag) {
  COp op(*this, func);
  writeURI(op.request(), first);
  writeURI(op.request(), second);
  if (flag) op.request().writeBool(*flag);
  op.execute();
}

P<IFileInfoBase> CProxyFileSystem::getFileInfo(const CURI& uri, bool followSymLinks) {
  COp op(*this, FuncFileInfoOpen);
  writeURI(op.request(), uri);
  op.request().writeBool(followSymLinks);
  op.execute();
  CDataInStream& in = op.response();
  P<CRemoteFileInfo> info = createObject<CRemoteFileInfo>(this, in.readInt64());
  // Should this fail, the handle is released when the call has ended.
  info->readFirstItems(in);
  return info;
}

P<IFileMetaModifier> CProxyFileSystem::createMetaModifier(const CURI& uri, bool followSymLinks) {
  COp op(*this, FuncMetaModifierOpen);
  writeURI(op.request(), uri);
  op.request().writeBool(followSymLinks);
  op.execute();
  return createObject<CMetaModifier>(this, op.response().readInt64());
}

int64 CProxyFileSystem::getFileSectorSize(const CURI& uri) {
  return askInt64(FuncGetFileSectorSize, uri);
}

P<IFolderContentsIterator> CProxyFileSystem::getFolderContents(const CURI& uri) {
  COp op(*this, FuncGetFolderContents);
  writeURI(op.request(), uri);
  op.execute();
  CDataInStream& in = op.response();
  P<CFolderContentsIterator> contents = createObject<CFolderContentsIterator>();
  for (;;) {
    String name = in.readString();
    if (name.isEmpty()) break;
    P<CFileInfoBase> info = createObject<CFileInfoBase>();
    info->setType(static_cast<IFileInfoBase::Type>(in.readInt32()));
    readInfoItems(in, *info);
    contents->addItem(name, info);
  }
  return contents;
}

P<IIOStream> CProxyFileSystem::openStream(FuncID func, const CURI& uri, const String* name,
                                          IIOStream::Access access,
                                          TFlags<IIOStream::Flags> flags) {
  // Refuses what every implementation refuses, with the error's own class.
  getOpenDisposition(access, flags);
  COp op(*this, func);
  CDataOutStream& out = op.request();
  writeURI(out, uri);
  if (name) out.writeString(*name);
  out.writeInt32(access);
  out.writeInt32(static_cast<int>(flags.getBits()));
  op.execute();
  return createObject<CStream>(this, op.response().readInt64(), uri);
}

P<IIOStream> CProxyFileSystem::createStream(const CURI& uri, IIOStream::Access access,
                                            TFlags<IIOStream::Flags> flags) {
  return openStream(FuncStreamOpen, uri, nullptr, access, flags);
}

P<IIOStream> CProxyFileSystem::createSubDataStream(const CURI& uri, const String& name,
                                                   IIOStream::Access access,
                                                   TFlags<IIOStream::Flags> flags) {
  return openStream(FuncSubDataStreamOpen, uri, &name, access, flags);
}

void CProxyFileSystem::createFolder(const CURI& uri, int flags) {
  checkCreateFolderFlags(flags, "CProxyFileSystem::createFolder");
  COp op(*this, FuncCreateFolder);
  writeURI(op.request(), uri);
  op.request().writeInt32(flags);
  op.execute();
}

bool CProxyFileSystem::ensureFolderExists(const CURI& uri, int flags) {
  checkCreateFolderFlags(flags, "CProxyFileSystem::ensureFolderExists");
  COp op(*this, FuncEnsureFolderExists);
  writeURI(op.request(), uri);
  op.request().writeInt32(flags);
  op.execute();
  return op.response().readBool();
}

void CProxyFileSystem::ensureFileExists(const CURI& uri) { callWithURI(FuncEnsureFileExists, uri); }

void CProxyFileSystem::createFileHardLink(const CURI& link, const CURI& target) {
  callWithTwoURIs(FuncCreateFileHardLink, link, target, nullptr);
}

void CProxyFileSystem::createFolderHardLink(const CURI& link, const CURI& target) {
  callWithTwoURIs(FuncCreateFolderHardLink, link, target, nullptr);
}

// Symbolic links carry the target first, as text.
void CProxyFileSystem::createFileSymLink(const CURI& link, const CURI& target) {
  callWithTwoURIs(FuncCreateFileSymLink, target, link, nullptr);
}

void CProxyFileSystem::createFolderSymLink(const CURI& link, const CURI& target) {
  callWithTwoURIs(FuncCreateFolderSymLink, target, link, nullptr);
}

bool CProxyFileSystem::fileExists(const CURI& uri) { return askBool(FuncFileExists, uri); }

bool CProxyFileSystem::folderExists(const CURI& uri) { return askBool(FuncFolderExists, uri); }

bool CProxyFileSystem::pathExists(const CURI& uri) { return askBool(FuncPathExists, uri); }

bool CProxyFileSystem::quickCheckFolderAccessible(const CURI& uri) {
  return askBool(FuncQuickCheckFolderAccessible, uri);
}

bool CProxyFileSystem::isFolderEmpty(const CURI& uri) { return askBool(FuncIsFolderEmpty, uri); }

void CProxyFileSystem::deleteFile(const CURI& uri, bool force) {
  COp op(*this, FuncDeleteFile);
  writeURI(op.request(), uri);
  op.request().writeBool(force);
  op.execute();
}

void CProxyFileSystem::deleteSymLink(const CURI& uri) { callWithURI(FuncDeleteSymLink, uri); }

void CProxyFileSystem::deleteEmptyFolder(const CURI& uri, bool force) {
  COp op(*this, FuncDeleteEmptyFolder);
  writeURI(op.request(), uri);
  op.request().writeBool(force);
  op.execute();
}

void CProxyFileSystem::unlinkFolder(const CURI& uri) { callWithURI(FuncUnlinkFolder, uri); }

CURI CProxyFileSystem::getVolumeRootPath(const CURI& uri) {
  return askURI(FuncGetVolumeRootPath, uri, nullptr);
}

CURI CProxyFileSystem::createUniqueFilename(const CURI& folder, const String& name) {
  return askURI(FuncCreateUniqueFilename, folder, &name);
}

CURI CProxyFileSystem::createUniqueFolderName(const CURI& folder, const String& name) {
  return askURI(FuncCreateUniqueFolderName, folder, &name);
}

void CProxyFileSystem::moveFileOrFolder(const CURI& from, const CURI& to, bool overwrite) {
  callWithTwoURIs(FuncMoveFile, from, to, &overwrite);
}

void CProxyFileSystem::copyFile(const CURI& from, const CURI& to, bool overwrite) {
  callWithTwoURIs(FuncCopyFile, from, to, &overwrite);
}

int64 CProxyFileSystem::getFreeSpaceInFolder(const CURI& uri) {
  return askInt64(FuncGetFreeSpaceInFolder, uri);
}

String CProxyFileSystem::getAccountOrUserNameUsedForAccess(const CURI& uri) {
  COp op(*this, FuncGetAccountOrUserNameUsedForAccess);
  writeURI(op.request(), uri);
  op.execute();
  return op.response().readString();
}

P<IFileSystem::CNativeMetaData> CProxyFileSystem::getNativeMetaData(const CURI& uri,
                                                                     bool followSymLinks,
                                                                     const String& which) {
  COp op(*this, FuncGetNativeMetaData);
  CDataOutStream& out = op.request();
  writeURI(out, uri);
  out.writeBool(followSymLinks);
  out.writeString(which);
  op.execute();
  CDataInStream& in = op.response();
  in.readString();  // the format: the server's platform decides it, callers know it
  const bool present = in.readBool();
  const int count = in.readInt32();
  if (count < 0 || count > in.getLength() - in.getPosition()) {
    throw CIOError(CIOError::InvalidData,
                   "Invalid native metadata length in a proxy response: " +
                       String::fromInt64(count));
  }
  if (!present) return P<CNativeMetaData>();
  P<CNativeMetaData> data = createObject<CNativeMetaData>(static_cast<size_t>(count));
  if (count > 0) in.read(data->getData(), count);
  return data;
}

}  // namespace zel
