// The stream interfaces: every byte the library moves goes through them.
//
//   IStreamBase   position, length, address, range locks, closing
//   IInStream     reading            (derives virtually from IStreamBase)
//   IOutStream    writing            (derives virtually from IStreamBase)
//   IIOStream     both, plus the alignment a stream requires
//
// Because IInStream and IOutStream share IStreamBase virtually, a stream that
// is both has exactly one position and one length. The order of the virtual
// operations is part of the interface (implementations and the cross-process
// protocol follow it): append new operations at the end only.
//
// Contract shared by all streams:
//   - Positions and lengths are byte counts from the start, 0-based.
//   - getLength() is -1 when the stream does not know its length (a pipe, a
//     socket, a stream still being produced). Any value >= 0 is the real
//     length, and callers may rely on it to bound what they read or allocate
//     (for example, a length prefix larger than getLength() - getPosition()
//     cannot be satisfied). -1 means no such bound is known; it never means
//     "empty".
//   - Reading operations given a byte count <= 0 read nothing (readLax and
//     readAvailable return 0); write() given a negative count throws
//     CInvalidArgError. A null buffer is allowed with a count of 0.
//   - Every failure is thrown (CIOError and other CError subclasses); no
//     operation reports failure through its result.
//   - A closed stream throws CIOError StreamClosed from every operation except
//     close(), which may be called any number of times.
//   - Streams are not synchronised: a stream belongs to one thread at a time.
#pragma once

#include "zel/core/base.h"
#include "zel/core/buffer.h"
#include "zel/core/types.h"
#include "zel/path/uri.h"
#include "zel/stream/stream_lock.h"
#include "zel/stream/write_barrier.h"

namespace zel {

class IStreamBase : public virtual IBase {
 public:
  enum LockType {
    Shared = 0,
    Exclusive = 1,
  };

  ~IStreamBase() override = default;

  // The length in bytes, or -1 when it is not known (see above).
  virtual int64 getLength() const = 0;
  virtual int64 getPosition() const = 0;
  // The address of what the stream reads or writes; empty when there is none.
  virtual CURI getURI() = 0;
  // Seeking beyond what the stream allows throws CIOError SeekFailed.
  virtual void seek(int64 position) = 0;
  // Locks bytes [startPos, startPos + bytes). Never waits: the lock is granted
  // at once or the call throws. The range stays locked while the returned
  // object lives. Streams that cannot lock throw CIOError.
  virtual P<IStreamLock> lockRange(int64 startPos, int64 bytes, LockType type) = 0;
  // Releases the stream's resources; later operations (but close) throw.
  virtual void close() = 0;
};

class IInStream : public virtual IStreamBase {
 public:
  ~IInStream() override = default;

  // Reads exactly bytes bytes or throws (CIOError UnexpectedEnd when the
  // stream ends first). How far the position moved on failure depends on the
  // stream; callers must not rely on it.
  virtual void read(void* buffer, int bytes) = 0;
  // Reads up to bytes bytes, fewer only at the end of the stream; blocks until
  // that much has come or the end is reached. Returns the count read.
  virtual int readLax(void* buffer, int bytes) = 0;
  // Reads what is at hand without waiting, at most bytes; may return 0.
  virtual int readAvailable(void* buffer, int bytes) = 0;
  // Waits up to timeout milliseconds (-1: without limit) until data can be
  // read or the end is reached; true when a read would not block. Streams
  // whose data is all at hand return true at once.
  virtual bool waitReadable(int timeout) const = 0;
  // May block until the stream knows whether more data comes.
  virtual bool isEndOfStream() const = 0;
  // 1 at the end, 0 when not at the end; never waits. A stream that cannot
  // tell without waiting answers 0.
  virtual int isEndOfStream_NonBlocking() const = 0;
};

class IOutStream : public virtual IStreamBase {
 public:
  ~IOutStream() override = default;

  // Writes all bytes or throws. barrier may be null; when given, the write is
  // counted against it (see IWriteBarrier).
  virtual void write(const void* buffer, int bytes, IWriteBarrier* barrier = nullptr) = 0;
  // Like write(), for data in a shared buffer: the stream may keep a
  // reference to the buffer instead of copying, so the caller must not
  // change that part of the buffer afterwards.
  virtual void writeKeepBuffer(const TConstBufferSlice<unsigned char>& data,
                               IWriteBarrier* barrier = nullptr) = 0;
  // A barrier that later writes are ordered after; parent may be null.
  virtual P<IWriteBarrier> createWriteBarrier(IWriteBarrier* parent = nullptr) = 0;
  // Passes buffered data on to the medium.
  virtual void flush() = 0;
  // Truncates or extends (new bytes read as zero) the stream. A position
  // beyond the new length moves back to it.
  virtual void setLength(int64 length) = 0;
};

class IIOStream : public IInStream, public IOutStream {
 public:
  // How a file system opens a stream. AccessRead opens for reading only;
  // every other value opens for reading and writing.
  enum Access {
    AccessRead = 1,
    AccessReadWrite = 3,
  };
  // Bits of the open flags.
  enum Flags {
    // Others may only read the file while it is open; without it others may
    // read, write and delete.
    FlagExclusive = 0x1,
    // An existing file is emptied on opening; only with write access.
    FlagTruncate = 0x2,
    // A missing file is created, also for read access.
    FlagAlwaysCreateIfNotExist = 0x4,
    // Opening fails if the file exists already.
    FlagFailIfAlreadyExists = 0x8,
  };

  ~IIOStream() override = default;

  // Every position, read size and write size must be a multiple of this.
  virtual int getPositionAlign() = 0;
  // The address of every buffer passed to read or write must be a multiple
  // of this.
  virtual int getBufferAlign() = 0;
  // The alignment at which the stream is fastest; a multiple of
  // getPositionAlign(). A stream without requirements returns 1 from all
  // three.
  virtual int getBestPerformancePositionAlign() = 0;
};

}  // namespace zel
