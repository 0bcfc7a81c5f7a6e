#include "zel/fs/proxy/proxy_file_system_objects.h"

#include <algorithm>

#include "zel/log/xml_log.h"

namespace zel {

// ---------------------------------------------------------------------------
// CStream

CProxyFileSystem::CStream::CStream(CProxyFileSystem* fileSystem, int64 handle, const CURI& uri)
    : m_fs(fileSystem), m_handle(handle), m_uri(uri) {}

CProxyFileSystem::CStream::~CStream() {
  if (!m_closed) m_fs->releaseHandle(FuncStreamClose, m_handle);
}

CProps CProxyFileSystem::CStream::uriParams() const {
  CProps params;
  params.set(CIOError::paramURI(), m_uri.toString(true));
  return params;
}

void CProxyFileSystem::CStream::checkOpen() const {
  if (m_closed) throw CIOError(CIOError::StreamClosed, String(), uriParams());
}

int64 CProxyFileSystem::CStream::getLength() const {
  checkOpen();
  COp op(*m_fs, FuncStreamGetLength);
  op.request().writeInt64(m_handle);
  op.execute();
  return op.response().readInt64();
}

int64 CProxyFileSystem::CStream::getPosition() const {
  checkOpen();
  COp op(*m_fs, FuncStreamGetPosition);
  op.request().writeInt64(m_handle);
  op.execute();
  return op.response().readInt64();
}

void CProxyFileSystem::CStream::seek(int64 position) {
  checkOpen();
  COp op(*m_fs, FuncStreamSeek);
  op.request().writeInt64(m_handle).writeInt64(position);
  op.execute();
}

P<IStreamLock> CProxyFileSystem::CStream::lockRange(int64 startPos, int64 bytes, LockType type) {
  checkOpen();
  if (startPos < 0 || bytes < 0) {
    throw CInvalidArgError("CProxyFileSystem::CStream::lockRange",
                           "negative start or byte count", uriParams());
  }
  COp op(*m_fs, FuncStreamLockRange);
  op.request().writeInt64(m_handle).writeInt64(startPos).writeInt64(bytes).writeInt32(type);
  op.execute();
  return createObject<CStreamLock>(m_fs.get(), op.response().readInt64());
}

void CProxyFileSystem::CStream::close() {
  if (m_closed) return;
  m_closed = true;
  // A lost connection took the server's stream with it: nothing to close.
  if (!m_fs->isUsable()) return;
  COp op(*m_fs, FuncStreamClose);
  op.request().writeInt64(m_handle);
  op.execute();
}

int CProxyFileSystem::CStream::readChunk(FuncID func, void* buffer, int bytes) const {
  COp op(*m_fs, func);
  op.request().writeInt64(m_handle).writeInt32(bytes);
  op.setBulkResponse(buffer, bytes);
  op.execute();
  return op.getBulkResponseCount();
}

void CProxyFileSystem::CStream::read(void* buffer, int bytes) {
  if (readLax(buffer, bytes) < bytes) throw CIOError(CIOError::UnexpectedEnd, String(), uriParams());
}

int CProxyFileSystem::CStream::readLax(void* buffer, int bytes) {
  checkOpen();
  if (bytes <= 0) return 0;
  if (!buffer) throw CInvalidArgError("CProxyFileSystem::CStream::readLax", "null buffer");
  int done = 0;
  while (done < bytes) {
    const int wanted = std::min(bytes - done, kMaxDataChunk);
    const int got = readChunk(FuncStreamReadLax, static_cast<char*>(buffer) + done, wanted);
    done += got;
    if (got < wanted) break;  // the end of the stream
  }
  return done;
}

int CProxyFileSystem::CStream::readAvailable(void* buffer, int bytes) {
  checkOpen();
  if (bytes <= 0) return 0;
  if (!buffer) throw CInvalidArgError("CProxyFileSystem::CStream::readAvailable", "null buffer");
  return readChunk(FuncStreamReadAvailable, buffer, std::min(bytes, kMaxDataChunk));
}

bool CProxyFileSystem::CStream::waitReadable(int timeout) const {
  checkOpen();
  COp op(*m_fs, FuncStreamWaitReadable);
  op.request().writeInt64(m_handle).writeInt32(timeout);
  op.execute();
  return op.response().readBool();
}

bool CProxyFileSystem::CStream::isEndOfStream() const {
  checkOpen();
  COp op(*m_fs, FuncStreamIsEnd);
  op.request().writeInt64(m_handle);
  op.execute();
  return op.response().readBool();
}

int CProxyFileSystem::CStream::isEndOfStream_NonBlocking() const {
  checkOpen();
  COp op(*m_fs, FuncStreamIsEnd_NonBlocking);
  op.request().writeInt64(m_handle);
  op.execute();
  return op.response().readInt32();
}

int64 CProxyFileSystem::CStream::barrierHandle(IWriteBarrier* barrier,
                                               const char* function) const {
  if (!barrier) return 0;
  auto* own = dynamic_cast<CWriteBarrier*>(barrier);
  if (!own || own->getFileSystem() != m_fs.get()) {
    throw CInvalidArgError(function, "The write barrier was not made by this proxy file system.");
  }
  return own->getHandle();
}

void CProxyFileSystem::CStream::writeChunk(const void* buffer, int bytes, int64 barrier) {
  COp op(*m_fs, FuncStreamWrite);
  op.request().writeInt64(m_handle).writeInt64(barrier).writeInt32(bytes);
  op.setBulkRequest(buffer, bytes);
  op.execute();
}

void CProxyFileSystem::CStream::write(const void* buffer, int bytes, IWriteBarrier* barrier) {
  static const char* const kFunction = "CProxyFileSystem::CStream::write";
  checkOpen();
  if (bytes < 0) throw CInvalidArgError(kFunction, "negative byte count");
  if (bytes > 0 && !buffer) throw CInvalidArgError(kFunction, "null buffer");
  const int64 barrierID = barrierHandle(barrier, kFunction);
  const char* data = static_cast<const char*>(buffer);
  for (int done = 0; done < bytes;) {
    const int chunk = std::min(bytes - done, kMaxDataChunk);
    writeChunk(data + done, chunk, barrierID);
    done += chunk;
  }
}

void CProxyFileSystem::CStream::writeKeepBuffer(const TConstBufferSlice<unsigned char>& data,
                                                IWriteBarrier* barrier) {
  checkOpen();
  const int64 barrierID = barrierHandle(barrier, "CProxyFileSystem::CStream::writeKeepBuffer");
  const unsigned char* bytes = data.getData();
  for (size_t done = 0; done < data.getLength();) {
    const int chunk =
        static_cast<int>(std::min<size_t>(data.getLength() - done, kMaxDataChunk));
    writeChunk(bytes + done, chunk, barrierID);
    done += static_cast<size_t>(chunk);
  }
}

P<IWriteBarrier> CProxyFileSystem::CStream::createWriteBarrier(IWriteBarrier* parent) {
  checkOpen();
  const int64 parentID = barrierHandle(parent, "CProxyFileSystem::CStream::createWriteBarrier");
  COp op(*m_fs, FuncStreamCreateWriteBarrier);
  op.request().writeInt64(m_handle).writeInt64(parentID);
  op.execute();
  return createObject<CWriteBarrier>(m_fs.get(), op.response().readInt64());
}

void CProxyFileSystem::CStream::flush() {
  checkOpen();
  COp op(*m_fs, FuncStreamFlush);
  op.request().writeInt64(m_handle);
  op.execute();
}

void CProxyFileSystem::CStream::setLength(int64 length) {
  checkOpen();
  if (length < 0) {
    throw CInvalidArgError("CProxyFileSystem::CStream::setLength", "negative length", uriParams());
  }
  COp op(*m_fs, FuncStreamSetLength);
  op.request().writeInt64(m_handle).writeInt64(length);
  op.execute();
}

// ---------------------------------------------------------------------------
// CRemoteFileInfo

CProxyFileSystem::CRemoteFileInfo::CRemoteFileInfo(CProxyFileSystem* fileSystem, int64 handle)
    : m_fs(fileSystem), m_handle(handle) {}

CProxyFileSystem::CRemoteFileInfo::~CRemoteFileInfo() {
  m_fs->releaseHandle(FuncFileInfoClose, m_handle);
}

void CProxyFileSystem::CRemoteFileInfo::readFirstItems(CDataInStream& in) {
  m_received = readInfoItems(in, *this);
  m_firstMask = getCachedInfoMask();
}

void CProxyFileSystem::CRemoteFileInfo::need(uint64 item) const {
  if (m_fetchedAll || (m_received & item)) return;
  // Lazy completion of a value object: logically const.
  auto* self = const_cast<CRemoteFileInfo*>(this);
  COp op(*m_fs, FuncFileInfoGet);
  op.request().writeInt64(m_handle);
  op.execute();
  self->m_received |= readInfoItems(op.response(), *self);
  self->setCachedInfoMask(m_firstMask);
  // The server answered with all it has: asking again would not help.
  self->m_fetchedAll = true;
}

using Info = IFileInfoBase;

Info::Type CProxyFileSystem::CRemoteFileInfo::getType() {
  need(CachedType);
  return CFileInfoBase::getType();
}
int64 CProxyFileSystem::CRemoteFileInfo::getSize() const {
  need(CachedSize);
  return CFileInfoBase::getSize();
}
Info::SymLinkType CProxyFileSystem::CRemoteFileInfo::getSymLinkType() {
  need(CachedSymLinkType);
  return CFileInfoBase::getSymLinkType();
}
Info::SymLinkFlavor CProxyFileSystem::CRemoteFileInfo::getSymLinkFlavor() {
  need(CachedSymLinkFlavor);
  return CFileInfoBase::getSymLinkFlavor();
}
String CProxyFileSystem::CRemoteFileInfo::getSymLinkTargetPath() {
  need(CachedSymLinkTargetPath);
  return CFileInfoBase::getSymLinkTargetPath();
}
const CTime& CProxyFileSystem::CRemoteFileInfo::getCreatedTime() const {
  need(CachedCreatedTime);
  return CFileInfoBase::getCreatedTime();
}
const CTime& CProxyFileSystem::CRemoteFileInfo::getDataModifiedTime() const {
  need(CachedDataModifiedTime);
  return CFileInfoBase::getDataModifiedTime();
}
const CTime& CProxyFileSystem::CRemoteFileInfo::getMetaModifiedTime() const {
  need(CachedMetaModifiedTime);
  return CFileInfoBase::getMetaModifiedTime();
}
int64 CProxyFileSystem::CRemoteFileInfo::tryGetID() const {
  need(CachedID);
  return CFileInfoBase::tryGetID();
}
int64 CProxyFileSystem::CRemoteFileInfo::tryGetTemporaryVolumeID() const {
  need(CachedTemporaryVolumeID);
  return CFileInfoBase::tryGetTemporaryVolumeID();
}
bool CProxyFileSystem::CRemoteFileInfo::isHardLinked() const {
  need(CachedHardLinked);
  return CFileInfoBase::isHardLinked();
}
bool CProxyFileSystem::CRemoteFileInfo::isReadOnly() const {
  need(CachedReadOnly);
  return CFileInfoBase::isReadOnly();
}
bool CProxyFileSystem::CRemoteFileInfo::isHidden() const {
  need(CachedHidden);
  return CFileInfoBase::isHidden();
}
bool CProxyFileSystem::CRemoteFileInfo::isEncrypted() const {
  need(CachedEncrypted);
  return CFileInfoBase::isEncrypted();
}
bool CProxyFileSystem::CRemoteFileInfo::isCompressed() const {
  need(CachedCompressed);
  return CFileInfoBase::isCompressed();
}
bool CProxyFileSystem::CRemoteFileInfo::isSparse() const {
  need(CachedSparse);
  return CFileInfoBase::isSparse();
}
bool CProxyFileSystem::CRemoteFileInfo::isIndexable() const {
  need(CachedIndexable);
  return CFileInfoBase::isIndexable();
}
bool CProxyFileSystem::CRemoteFileInfo::hasWindowsInfo() const {
  need(kInfoHasWindowsInfo);
  return CFileInfoBase::hasWindowsInfo();
}
const String& CProxyFileSystem::CRemoteFileInfo::getWindowsSecurityString() const {
  need(CachedWindowsSecurityString);
  return CFileInfoBase::getWindowsSecurityString();
}
unsigned int CProxyFileSystem::CRemoteFileInfo::getWindowsAttributes() const {
  need(CachedWindowsAttributes);
  return CFileInfoBase::getWindowsAttributes();
}
bool CProxyFileSystem::CRemoteFileInfo::hasUnixInfo() const {
  need(kInfoHasUnixInfo);
  return CFileInfoBase::hasUnixInfo();
}
int64 CProxyFileSystem::CRemoteFileInfo::getUnixMode() const {
  need(CachedUnixMode);
  return CFileInfoBase::getUnixMode();
}
int64 CProxyFileSystem::CRemoteFileInfo::getUnixUserID() const {
  need(CachedUnixUserID);
  return CFileInfoBase::getUnixUserID();
}
String CProxyFileSystem::CRemoteFileInfo::getUnixUserName() {
  need(CachedUnixUserName);
  return CFileInfoBase::getUnixUserName();
}
int64 CProxyFileSystem::CRemoteFileInfo::getUnixGroupID() const {
  need(CachedUnixGroupID);
  return CFileInfoBase::getUnixGroupID();
}
String CProxyFileSystem::CRemoteFileInfo::getUnixGroupName() {
  need(CachedUnixGroupName);
  return CFileInfoBase::getUnixGroupName();
}

// ---------------------------------------------------------------------------
// CFolderContentsIterator

CProxyFileSystem::CFolderContentsIterator::~CFolderContentsIterator() = default;

void CProxyFileSystem::CFolderContentsIterator::addItem(const String& name,
                                                       const P<CFileInfoBase>& info) {
  m_names.add(name);
  m_infos.add(info);
}

bool CProxyFileSystem::CFolderContentsIterator::nextItem() {
  if (m_index < m_names.getCount()) ++m_index;
  return onItem();
}

String CProxyFileSystem::CFolderContentsIterator::getItemName() {
  if (!onItem()) {
    throw CBadStateError(
        "CProxyFileSystem::CFolderContentsIterator::getItemName called but iterator is not on an "
        "item.");
  }
  return m_names[static_cast<size_t>(m_index)];
}

P<IFileInfoBase> CProxyFileSystem::CFolderContentsIterator::getItemInfo() {
  if (!onItem()) {
    throw CBadStateError(
        "CProxyFileSystem::CFolderContentsIterator::getItemInfo called but iterator is not on an "
        "item.");
  }
  return m_infos[static_cast<size_t>(m_index)];
}

// ---------------------------------------------------------------------------
// CMetaModifier

CProxyFileSystem::CMetaModifier::CMetaModifier(CProxyFileSystem* fileSystem, int64 handle)
    : m_fs(fileSystem), m_handle(handle) {}

CProxyFileSystem::CMetaModifier::~CMetaModifier() {
  m_fs->releaseHandle(FuncMetaModifierClose, m_handle);
}

void CProxyFileSystem::CMetaModifier::applyCachedChanges() {
  COp op(*m_fs, FuncMetaModifierApplyCachedChanges);
  op.request().writeInt64(m_handle);
  op.execute();
}

void CProxyFileSystem::CMetaModifier::setTime(FuncID func, const CTime& time) {
  COp op(*m_fs, func);
  op.request().writeInt64(m_handle).writeInt64(time.getMicroseconds());
  op.execute();
}

void CProxyFileSystem::CMetaModifier::setBool(FuncID func, bool value) {
  COp op(*m_fs, func);
  op.request().writeInt64(m_handle).writeBool(value);
  op.execute();
}

void CProxyFileSystem::CMetaModifier::setUInt64(FuncID func, uint64 value) {
  COp op(*m_fs, func);
  op.request().writeInt64(m_handle).writeUInt64(value);
  op.execute();
}

void CProxyFileSystem::CMetaModifier::setCreatedTime(const CTime& time) {
  setTime(FuncMetaModifierSetCreatedTime, time);
}
void CProxyFileSystem::CMetaModifier::setDataModifiedTime(const CTime& time) {
  setTime(FuncMetaModifierSetDataModifiedTime, time);
}
void CProxyFileSystem::CMetaModifier::setIndexable(bool indexable) {
  setBool(FuncMetaModifierSetIndexable, indexable);
}
void CProxyFileSystem::CMetaModifier::setHidden(bool hidden) {
  setBool(FuncMetaModifierSetHidden, hidden);
}
void CProxyFileSystem::CMetaModifier::setReadOnly(bool readOnly) {
  setBool(FuncMetaModifierSetReadOnly, readOnly);
}
void CProxyFileSystem::CMetaModifier::setWindowsAttributes(uint64 attributes) {
  setUInt64(FuncMetaModifierSetWindowsAttributes, attributes);
}
void CProxyFileSystem::CMetaModifier::setUnixMode(uint64 mode) {
  setUInt64(FuncMetaModifierSetUnixMode, mode);
}

// ---------------------------------------------------------------------------
// CWriteBarrier, CStreamLock

CProxyFileSystem::CWriteBarrier::CWriteBarrier(CProxyFileSystem* fileSystem, int64 handle)
    : m_fs(fileSystem), m_handle(handle) {}

CProxyFileSystem::CWriteBarrier::~CWriteBarrier() {
  m_fs->releaseHandle(FuncWriteBarrierRelease, m_handle);
}

CProxyFileSystem::CStreamLock::CStreamLock(CProxyFileSystem* fileSystem, int64 handle)
    : m_fs(fileSystem), m_handle(handle) {}

CProxyFileSystem::CStreamLock::~CStreamLock() { m_fs->releaseHandle(FuncLockRelease, m_handle); }

// ---------------------------------------------------------------------------
// CBackgroundOp

CProxyFileSystem::CBackgroundOp::CBackgroundOp(CProxyFileSystem* fileSystem, int64 handle,
                                               IDoneListener* listener)
    : m_handle(handle), m_listener(listener), m_fs(fileSystem) {}

CProxyFileSystem::CBackgroundOp::~CBackgroundOp() = default;

bool CProxyFileSystem::CBackgroundOp::hasFinished() { return m_finished.isSet(); }

bool CProxyFileSystem::CBackgroundOp::waitFinished(int timeoutMs) {
  return m_finished.wait(timeoutMs);
}

void CProxyFileSystem::CBackgroundOp::throwErrorIfFailed() {
  if (!m_finished.isSet()) {
    throw CBadStateError("throwErrorIfFailed called on a background operation still running.");
  }
  P<CError> error;
  {
    CMutexLock lock(m_mutex);
    error = m_error;
  }
  if (error) error->throwClone();
}

void CProxyFileSystem::CBackgroundOp::complete(const P<CError>& error) {
  P<IDoneListener> listener;
  P<CProxyFileSystem> fileSystem;
  {
    CMutexLock lock(m_mutex);
    if (m_completed) return;
    m_completed = true;
    m_error = error;
    listener = std::move(m_listener);
    fileSystem = std::move(m_fs);
  }
  m_finished.set();
  if (listener) {
    try {
      listener->onBackgroundOpDone(this);
    } catch (...) {
      P<CError> thrown = CStdExceptionError::exceptionToError();
      logError("A background operation's done listener threw.", thrown.get());
    }
  }
  // fileSystem goes last: it may be the file system's last reference.
}

// ---------------------------------------------------------------------------
// CBackgroundOpPollThread

const char* const CProxyFileSystem::CBackgroundOpPollThread::kThreadName = "zel.proxyFsPoll";

CProxyFileSystem::CBackgroundOpPollThread::CBackgroundOpPollThread(CProxyFileSystem* fileSystem)
    : m_fs(fileSystem) {
  setThreadName(kThreadName);
}

CProxyFileSystem::CBackgroundOpPollThread::~CBackgroundOpPollThread() = default;

void CProxyFileSystem::CBackgroundOpPollThread::signalStop() {
  CThread::signalStop();
  m_stop.set();
  m_wake.set();
}

void CProxyFileSystem::CBackgroundOpPollThread::runImpl() {
  while (checkContinue()) {
    // pollOnce() may end with the file system gone (see there); it has then
    // stopped this thread, so m_fs is not touched again.
    const bool outstanding = m_fs->pollOnce(*this);
    if (!checkContinue()) break;
    m_stop.wait(kPollIntervalMs);
    if (!outstanding) m_wake.wait(-1);
  }
}

}  // namespace zel
