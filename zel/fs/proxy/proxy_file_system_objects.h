// The objects CProxyFileSystem hands out, each standing for an object the
// server keeps under a handle (or, for folder listings, for data read at
// once). Shared by the client's sources; callers see them only through the
// IFileSystem interfaces.
//
// Each object holds a reference to its file system; dropping the last
// reference sends the matching release request (see
// CProxyFileSystem::releaseHandle). Not synchronised: one thread at a time,
// like streams.
#pragma once

#include "zel/fs/proxy/proxy_file_system.h"
#include "zel/thread/signal.h"
#include "zel/thread/thread.h"

namespace zel {

// A file opened on the server. Positions, lengths and the end of the stream
// are the server stream's (each a round trip); nothing is buffered here.
class CProxyFileSystem::CStream : public CBase, public IIOStream {
 public:
  CStream(CProxyFileSystem* fileSystem, int64 handle, const CURI& uri);
  ~CStream() override;

  int64 getHandle() const { return m_handle; }

  int64 getLength() const override;
  int64 getPosition() const override;
  CURI getURI() override { return m_uri; }
  void seek(int64 position) override;
  P<IStreamLock> lockRange(int64 startPos, int64 bytes, LockType type) override;
  void close() override;

  void read(void* buffer, int bytes) override;
  int readLax(void* buffer, int bytes) override;
  int readAvailable(void* buffer, int bytes) override;
  bool waitReadable(int timeout) const override;
  bool isEndOfStream() const override;
  int isEndOfStream_NonBlocking() const override;

  void write(const void* buffer, int bytes, IWriteBarrier* barrier = nullptr) override;
  void writeKeepBuffer(const TConstBufferSlice<unsigned char>& data,
                       IWriteBarrier* barrier = nullptr) override;
  P<IWriteBarrier> createWriteBarrier(IWriteBarrier* parent = nullptr) override;
  void flush() override;
  void setLength(int64 length) override;

  int getPositionAlign() override { return 1; }
  int getBufferAlign() override { return 1; }
  int getBestPerformancePositionAlign() override { return 1; }

 private:
  void checkOpen() const;
  CProps uriParams() const;
  int64 barrierHandle(IWriteBarrier* barrier, const char* function) const;
  // One streamReadLax / streamReadAvailable request of at most kMaxDataChunk.
  int readChunk(FuncID func, void* buffer, int bytes) const;
  void writeChunk(const void* buffer, int bytes, int64 barrier);

  P<CProxyFileSystem> m_fs;
  int64 m_handle;
  CURI m_uri;
  bool m_closed = false;
};

// File information from the server: the items of the first answer are
// filled in at once; the first getter asking for another item fetches all
// items with one fileInfoGet. getCachedInfoMask() stays what the first
// answer reported (what the server had gathered when the object was made).
class CProxyFileSystem::CRemoteFileInfo : public CFileInfoBase {
 public:
  CRemoteFileInfo(CProxyFileSystem* fileSystem, int64 handle);
  ~CRemoteFileInfo() override;

  // Reads the first answer's items.
  void readFirstItems(CDataInStream& in);

  Type getType() override;
  int64 getSize() const override;
  SymLinkType getSymLinkType() override;
  SymLinkFlavor getSymLinkFlavor() override;
  String getSymLinkTargetPath() override;
  const CTime& getCreatedTime() const override;
  const CTime& getDataModifiedTime() const override;
  const CTime& getMetaModifiedTime() const override;
  int64 tryGetID() const override;
  int64 tryGetTemporaryVolumeID() const override;
  bool isHardLinked() const override;
  bool isReadOnly() const override;
  bool isHidden() const override;
  bool isEncrypted() const override;
  bool isCompressed() const override;
  bool isSparse() const override;
  bool isIndexable() const override;
  bool hasWindowsInfo() const override;
  const String& getWindowsSecurityString() const override;
  unsigned int getWindowsAttributes() const override;
  bool hasUnixInfo() const override;
  int64 getUnixMode() const override;
  int64 getUnixUserID() const override;
  String getUnixUserName() override;
  int64 getUnixGroupID() const override;
  String getUnixGroupName() override;

 private:
  // Fetches every item unless item (an info-item bit) is known.
  void need(uint64 item) const;

  P<CProxyFileSystem> m_fs;
  int64 m_handle;
  uint64 m_received = 0;  // info-item bits received so far
  uint64 m_firstMask = 0;
  bool m_fetchedAll = false;
};

// A whole folder listing, read by getFolderContents.
class CProxyFileSystem::CFolderContentsIterator : public CBase, public IFolderContentsIterator {
 public:
  CFolderContentsIterator() = default;
  ~CFolderContentsIterator() override;

  void addItem(const String& name, const P<CFileInfoBase>& info);

  bool nextItem() override;
  String getItemName() override;
  P<IFileInfoBase> getItemInfo() override;

 private:
  bool onItem() const { return m_index >= 0 && m_index < m_names.getCount(); }

  TArray<String> m_names;
  TArray<P<CFileInfoBase>> m_infos;
  int m_index = -1;
};

// Each setter and applyCachedChanges is a request; the server's modifier
// records the changes until applyCachedChanges.
class CProxyFileSystem::CMetaModifier : public CBase, public IFileMetaModifier {
 public:
  CMetaModifier(CProxyFileSystem* fileSystem, int64 handle);
  ~CMetaModifier() override;

  void applyCachedChanges() override;
  void setCreatedTime(const CTime& time) override;
  void setDataModifiedTime(const CTime& time) override;
  void setIndexable(bool indexable) override;
  void setHidden(bool hidden) override;
  void setReadOnly(bool readOnly) override;
  void setWindowsAttributes(uint64 attributes) override;
  void setUnixMode(uint64 mode) override;

 private:
  void setTime(FuncID func, const CTime& time);
  void setBool(FuncID func, bool value);
  void setUInt64(FuncID func, uint64 value);

  P<CProxyFileSystem> m_fs;
  int64 m_handle;
};

// Server-side objects that are only held and released.
class CProxyFileSystem::CWriteBarrier : public CBase, public IWriteBarrier {
 public:
  CWriteBarrier(CProxyFileSystem* fileSystem, int64 handle);
  ~CWriteBarrier() override;

  CProxyFileSystem* getFileSystem() const { return m_fs.get(); }
  int64 getHandle() const { return m_handle; }

 private:
  P<CProxyFileSystem> m_fs;
  int64 m_handle;
};

class CProxyFileSystem::CStreamLock : public CBase, public IStreamLock {
 public:
  CStreamLock(CProxyFileSystem* fileSystem, int64 handle);
  ~CStreamLock() override;

 private:
  P<CProxyFileSystem> m_fs;
  int64 m_handle;
};

// A background operation running on the server. Completed once, by the
// polling thread (or by close() and a broken connection): the error is
// stored, the signal set, then the listener told. Until then it holds its
// file system.
class CProxyFileSystem::CBackgroundOp : public CBase, public IBackgroundOp {
 public:
  CBackgroundOp(CProxyFileSystem* fileSystem, int64 handle, IDoneListener* listener);
  ~CBackgroundOp() override;

  int64 getHandle() const { return m_handle; }

  bool hasFinished() override;
  bool waitFinished(int timeoutMs) override;
  // Throws CBadStateError while the operation runs.
  void throwErrorIfFailed() override;

  // Null error: succeeded. Later calls do nothing.
  void complete(const P<CError>& error);

 private:
  const int64 m_handle;
  CMutex m_mutex;  // guards the members below
  bool m_completed = false;
  P<CError> m_error;
  P<IDoneListener> m_listener;
  P<CProxyFileSystem> m_fs;
  CSignal m_finished;
};

// Asks the server which background operations have finished: its run loops
// "poll, then sleep kPollIntervalMs" while checkContinue() holds, so two
// polls are always at least that far apart (only a stop cuts the sleep
// short); while no operation is outstanding it waits, after that sleep,
// until one is registered (wake()).
class CProxyFileSystem::CBackgroundOpPollThread : public CThread {
 public:
  static constexpr int kPollIntervalMs = 50;
  static const char* const kThreadName;  // "zel.proxyFsPoll"

  // fileSystem owns the thread and stops it before it goes away.
  explicit CBackgroundOpPollThread(CProxyFileSystem* fileSystem);
  ~CBackgroundOpPollThread() override;

  void signalStop() override;
  // Ends the wait for outstanding operations (new operations, a broken
  // connection); the sleep between two polls runs its course.
  void wake() { m_wake.set(); }
  // Called under the operations lock before the outstanding set is read, so
  // that a later wake() is not lost.
  void resetWake() { m_wake.reset(); }

 protected:
  void runImpl() override;

 private:
  CProxyFileSystem* m_fs;
  CSignal m_wake;
  CSignal m_stop;  // set by signalStop: ends the sleep between two polls
};

}  // namespace zel
