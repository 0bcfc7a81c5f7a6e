// Streams that stand in where a stream is required but no data is wanted.
//
// CDummyInStream is always empty: reading gives nothing (read() of more than
// 0 bytes throws UnexpectedEnd), the length and position are 0, and seeking
// anywhere but 0 throws SeekFailed. It has nothing to release, so close()
// does nothing and the stream stays usable afterwards.
//
// CDummyOutStream discards what is written but keeps a position and a length
// as if it had stored it, so that code measuring its output (or seeking back
// to patch a header) behaves as with a real stream. Reading its length gives
// what a real stream would hold. Unlike the input stream it does honour
// close(): writing to it afterwards is a caller's mistake and throws
// StreamClosed like any closed stream.
//
// Both grant every range lock at once (there is nothing to protect) and make
// barriers that are reached at once.
#pragma once

#include "zel/core/export.h"
#include "zel/stream/stream.h"

namespace zel {

class ZEL_API CDummyInStream : public CBase, public IInStream {
 public:
  CDummyInStream();
  ~CDummyInStream() override;

  // IStreamBase
  int64 getLength() const override { return 0; }
  int64 getPosition() const override { return 0; }
  CURI getURI() override { return CURI(); }
  void seek(int64 position) override;
  P<IStreamLock> lockRange(int64 startPos, int64 bytes, LockType type) override;
  void close() override {}

  // IInStream
  void read(void* buffer, int bytes) override;
  int readLax(void*, int) override { return 0; }
  int readAvailable(void*, int) override { return 0; }
  bool waitReadable(int) const override { return true; }
  bool isEndOfStream() const override { return true; }
  int isEndOfStream_NonBlocking() const override { return 1; }
};

class ZEL_API CDummyOutStream : public CBase, public IOutStream {
 public:
  CDummyOutStream();
  ~CDummyOutStream() override;

  // IStreamBase
  int64 getLength() const override;
  int64 getPosition() const override;
  CURI getURI() override;
  // Any position from 0 to the length; beyond it SeekFailed.
  void seek(int64 position) override;
  P<IStreamLock> lockRange(int64 startPos, int64 bytes, LockType type) override;
  void close() override { m_closed = true; }

  // IOutStream: write of n bytes advances the position by n and raises the
  // length to the position if that is larger.
  void write(const void* buffer, int bytes, IWriteBarrier* barrier = nullptr) override;
  void writeKeepBuffer(const TConstBufferSlice<unsigned char>& data,
                       IWriteBarrier* barrier = nullptr) override;
  P<IWriteBarrier> createWriteBarrier(IWriteBarrier* parent = nullptr) override;
  void flush() override;
  // Sets the length; a position beyond it moves back to it.
  void setLength(int64 length) override;

 private:
  void checkOpen() const;
  void advance(int64 bytes);

  int64 m_position = 0;
  int64 m_length = 0;
  bool m_closed = false;
};

}  // namespace zel
