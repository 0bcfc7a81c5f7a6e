// CDelegatingIOStream: passes every stream operation on to an inner stream.
//
// A base for streams that change one or two operations of another and keep
// the rest: derive and override what differs. The three alignment values are
// read from the inner stream once, when the object is built, and answered
// from the copies afterwards (the inner stream's alignment does not change
// while it is open, and asking may be costly, e.g. across processes).
//
// close() closes the inner stream; afterwards every operation of this stream
// but close() throws CIOError StreamClosed without reaching the inner stream.
// The inner stream is released only with this object, so a lock handed out
// earlier keeps working against a live stream.
#pragma once

#include "zel/core/export.h"
#include "zel/stream/stream.h"

namespace zel {

class ZEL_API CDelegatingIOStream : public CBase, public IIOStream {
 public:
  // CInvalidArgError for a null inner stream.
  explicit CDelegatingIOStream(IIOStream* inner);
  ~CDelegatingIOStream() override;

  CDelegatingIOStream(const CDelegatingIOStream&) = delete;
  CDelegatingIOStream& operator=(const CDelegatingIOStream&) = delete;

  const P<IIOStream>& getInnerStream() const { return m_inner; }

  // IStreamBase
  int64 getLength() const override;
  int64 getPosition() const override;
  CURI getURI() override;
  void seek(int64 position) override;
  P<IStreamLock> lockRange(int64 startPos, int64 bytes, LockType type) override;
  void close() override;

  // IInStream
  void read(void* buffer, int bytes) override;
  int readLax(void* buffer, int bytes) override;
  int readAvailable(void* buffer, int bytes) override;
  bool waitReadable(int timeout) const override;
  bool isEndOfStream() const override;
  int isEndOfStream_NonBlocking() const override;

  // IOutStream
  void write(const void* buffer, int bytes, IWriteBarrier* barrier = nullptr) override;
  void writeKeepBuffer(const TConstBufferSlice<unsigned char>& data,
                       IWriteBarrier* barrier = nullptr) override;
  P<IWriteBarrier> createWriteBarrier(IWriteBarrier* parent = nullptr) override;
  void flush() override;
  void setLength(int64 length) override;

  // IIOStream: the values fixed at construction.
  int getPositionAlign() override;
  int getBufferAlign() override;
  int getBestPerformancePositionAlign() override;

 protected:
  // Throws StreamClosed once close() has been called.
  void checkOpen() const;

  P<IIOStream> m_inner;
  int m_positionAlign;
  int m_bufferAlign;
  int m_bestPerformancePositionAlign;
  bool m_closed = false;
};

}  // namespace zel
