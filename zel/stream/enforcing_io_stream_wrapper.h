// CEnforcingIOStreamWrapper: makes any stream demand alignment of its callers.
//
// Wraps an IIOStream (typically a memory stream in a test) and behaves like a
// stream with the given alignment requirements, such as an unbuffered disk
// file: every read and write size, seek position and new length must be a
// multiple of positionAlign, and every buffer address a multiple of
// bufferAlign. Violations throw before the inner stream is touched:
//   size or position: CIOError PositionNotAligned, "The specified stream
//     position or size <value> does not conform to the alignment requirement
//     of <positionAlign>"
//   buffer address:   CIOError BufferNotAligned, "The specified buffer for a
//     stream operation does not conform to the buffer alignment requirement
//     of <bufferAlign>"
// The size is checked before the buffer. readAvailable() is checked like
// read(); lockRange() and the queries are passed on unchecked.
//
// The wrapper keeps its own copy of the position, advanced by what each
// transfer moved. When the inner stream throws, the copy is taken again from
// the inner stream's getPosition() (if that answers) and the error passes on.
//
// limit, when not -1, emulates a file whose length is not aligned: readLax()
// asks the inner stream for at most limit - position bytes, so the last
// aligned block of such a file reads short, as it would from the disk. The
// other operations ignore it.
//
// close() closes the inner stream; afterwards every operation but close()
// throws StreamClosed.
#pragma once

#include "zel/core/export.h"
#include "zel/stream/stream.h"

namespace zel {

class ZEL_API CEnforcingIOStreamWrapper : public CBase, public IIOStream {
 public:
  // Checks, in this order, throwing CInvalidArgError from
  // "CEnforcingIOStreamWrapper::construct":
  //   positionAlign < 1                              "positionAlign must be >=1"
  //   bufferAlign < 1                                "positionAlign must be >=1"
  //     (the same text for both, kept for compatibility)
  //   bestPerformancePositionAlign < positionAlign
  //     "bestPerformancePositionAlign must be >= positionAlign"
  //   bestPerformancePositionAlign % positionAlign != 0
  //     "bestPerformancePositionAlign must be a multiple of positionAlign"
  //   inner is null                                  "inner stream is null"
  //   limit < -1                                     "limit must be >= -1"
  // The wrapper starts at tracked position 0 (the inner stream is expected to
  // be there as well).
  static P<CEnforcingIOStreamWrapper> construct(IIOStream* inner, int positionAlign,
                                                int bufferAlign,
                                                int bestPerformancePositionAlign, int64 limit);
  ~CEnforcingIOStreamWrapper() override;

  CEnforcingIOStreamWrapper(const CEnforcingIOStreamWrapper&) = delete;
  CEnforcingIOStreamWrapper& operator=(const CEnforcingIOStreamWrapper&) = delete;

  const P<IIOStream>& getSubStream() const { return m_inner; }
  int64 getLimit() const { return m_limit; }

  // IStreamBase
  int64 getLength() const override;
  // The tracked position.
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

  // IIOStream: the wrapper's own values.
  int getPositionAlign() override;
  int getBufferAlign() override;
  int getBestPerformancePositionAlign() override;

 private:
  CEnforcingIOStreamWrapper(IIOStream* inner, int positionAlign, int bufferAlign,
                            int bestPerformancePositionAlign, int64 limit);

  void checkOpen() const;
  void checkPositionAlign(int64 value) const;
  void checkBufferAlign(const void* buffer) const;
  // Re-reads the position after the inner stream failed; keeps the old value
  // if even that fails.
  void resyncPosition() noexcept;

  P<IIOStream> m_inner;
  int m_positionAlign;
  int m_bufferAlign;
  int m_bestPerformancePositionAlign;
  int64 m_limit;
  int64 m_position = 0;
  bool m_closed = false;
};

}  // namespace zel
