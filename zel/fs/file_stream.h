// CFileStream: an IIOStream over an open local file.
//
// The stream owns the handle and closes it in close() or on destruction. It
// keeps its own position and uses positional reads and writes, so the OS
// handle's position is never relied on. Nothing is buffered: write() reaches
// the OS before it returns, flush() asks the OS to put the data on the medium.
// All three alignments are 1.
//
// Range locks never wait: a range held by another handle fails at once with a
// CFileSystemError (ProblemAccessDenied) that satisfies
// couldBeFileLockingError. A lock may outlive the stream: closing the stream
// releases every range of its handle, and a lock released afterwards does
// nothing. Lock objects may be released on any thread.
//
// It lends its handle (INativeFileSource) to the file-system server, which
// sends file ranges from it without copying them.
//
// Errors carry the file's URI under "uri". Not synchronised otherwise: a
// stream belongs to one thread at a time.
#pragma once

#include "zel/core/export.h"
#include "zel/fs/local_file_system_platform.h"
#include "zel/fs/native_file_source.h"
#include "zel/path/uri.h"
#include "zel/stream/stream.h"

namespace zel {

class ZEL_API CFileStream : public CBase, public IIOStream, public INativeFileSource {
 public:
  // Takes ownership of handle. writable false refuses writes and setLength
  // with CIOError WriteFailed.
  CFileStream(fs_platform::Handle handle, const CURI& uri, bool writable);
  ~CFileStream() override;

  int64 getLength() const override;
  int64 getPosition() const override;
  CURI getURI() override;
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

  // INativeFileSource; checks that the stream is open.
  int64 getNativeFileHandle() const override;

  // The shared owner of the OS handle (also held by the stream's locks).
  class CHandle;

 private:
  void checkOpen(const char* action) const;
  CProps errorParams(const char* action) const;

  P<CHandle> m_handle;
  CURI m_uri;
  bool m_writable;
  int64 m_position = 0;
};

}  // namespace zel
