// CBufferStream: a readable and writable stream over memory.
//
// The bytes live in a TBuffer<unsigned char> that the stream shares: the
// buffer's used length is the stream's length, and writing past it grows the
// buffer by its growth rule (max(needed, capacity * growth factor)). The
// buffer may be handed in and taken out (getBuffer()) without copying; whoever
// else holds it should not shrink it while the stream is in use (the stream
// copes: at a position beyond the used length it reads nothing, and a write
// there fills the gap with zeros).
//
// - seek() accepts 0 <= position <= length, anything else throws SeekFailed.
// - read() is readLax() plus a check: when fewer bytes came, it throws
//   UnexpectedEnd with the position already advanced past the bytes that came.
// - All data is at hand: readAvailable() is readLax(), waitReadable() is true
//   at once, isEndOfStream() is position == length.
// - lockRange() always throws CIOError code 14.
// - A read-only stream throws WriteFailed from write(), writeKeepBuffer() and
//   setLength().
// - After close() every operation but close() throws StreamClosed. The buffer
//   is kept: getBuffer() and getDataAsString() still work, so a stream can be
//   filled, closed and then taken apart.
// - Alignments are all 1; flush() does nothing; createWriteBarrier() gives a
//   barrier that is reached at once (writes are complete on return).
// - Failures carry the URI (when set) under CIOError::paramURI().
//
// Not synchronised, like every stream.
#pragma once

#include <cstring>

#include "zel/core/buffer.h"
#include "zel/core/export.h"
#include "zel/core/string.h"
#include "zel/stream/stream.h"

namespace zel {

class ZEL_API CBufferStream : public CBase, public IIOStream {
 public:
  using Buffer = TBuffer<unsigned char>;

  // An empty, writable stream.
  CBufferStream();
  // A stream over buffer (shared, not copied), positioned at 0. A null
  // buffer is replaced by a new empty one.
  explicit CBufferStream(const P<Buffer>& buffer, bool readOnly = false);
  // A stream over a copy of bytes [data, data + bytes).
  CBufferStream(const void* data, size_t bytes, bool readOnly = false);
  ~CBufferStream() override;

  CBufferStream(const CBufferStream&) = delete;
  CBufferStream& operator=(const CBufferStream&) = delete;

  // The shared buffer; its used length is the stream's length.
  const P<Buffer>& getBuffer() const { return m_buffer; }
  // The content as text: decoded as UTF-8, or, when it is not valid UTF-8,
  // as Latin-1 byte for byte (see String).
  String getDataAsString() const;
  void setURI(const CURI& uri) { m_uri = uri; }
  bool isReadOnly() const { return m_readOnly; }
  void setReadOnly(bool readOnly) {
    m_readOnly = readOnly;
    m_appendable = !m_readOnly && !m_closed;
  }
  bool isClosed() const { return m_closed; }

  // IStreamBase
  int64 getLength() const override;
  int64 getPosition() const override;
  CURI getURI() override;
  void seek(int64 position) override;
  // Throws CIOError code 14, "Buffer stream does not support range locking."
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
  // Copies the slice: the memory is the stream's own.
  void writeKeepBuffer(const TConstBufferSlice<unsigned char>& data,
                       IWriteBarrier* barrier = nullptr) override;
  P<IWriteBarrier> createWriteBarrier(IWriteBarrier* parent = nullptr) override;
  void flush() override;
  // A length beyond TBuffer::maxElements() throws ResizeFailed before
  // anything is allocated; a negative one throws CInvalidArgError.
  void setLength(int64 length) override;

  // IIOStream
  int getPositionAlign() override;
  int getBufferAlign() override;
  int getBestPerformancePositionAlign() override;

  // The same as write() and read() of bytes, without a virtual call on the
  // common path (appending to an open, writable stream; reading what is
  // there). The data streams use them for every value.
  void writeDirect(const void* data, size_t bytes) {
    Buffer& buffer = *m_buffer;
    if (m_position == buffer.getSize() && bytes <= buffer.getSpareCapacity() && m_appendable &&
        bytes > 0) {
      std::memcpy(buffer.extendWithinCapacity(bytes), data, bytes);
      m_position += bytes;
      return;
    }
    writeBytes(static_cast<const unsigned char*>(data), bytes);
  }
  // The next bytes in place, the position moved past them; null (and nothing
  // moved) when fewer are left or the stream is closed. Valid until the
  // stream's buffer changes.
  const unsigned char* readDirectInPlace(size_t bytes) {
    const size_t size = m_buffer->getSize();
    if (m_position > size || bytes > size - m_position || m_closed) return nullptr;
    const unsigned char* data = m_buffer->getData() + m_position;
    m_position += bytes;
    return data;
  }
  void readDirect(void* data, size_t bytes) {
    const size_t size = m_buffer->getSize();
    if (m_position <= size && bytes <= size - m_position && !m_closed) {
      if (bytes) std::memcpy(data, m_buffer->getData() + m_position, bytes);
      m_position += bytes;
    } else {
      readShort(data, bytes);
    }
  }

 private:
  void checkOpen() const;
  void checkWritable() const;
  [[noreturn]] void throwIOError(int code, const String& message, CProps params) const;
  void writeBytes(const unsigned char* data, size_t bytes);
  // read() when fewer than bytes are left (or the stream is closed).
  void readShort(void* data, size_t bytes);

  P<Buffer> m_buffer;
  size_t m_position = 0;
  bool m_readOnly = false;
  bool m_closed = false;
  // Neither read-only nor closed: one test on the fast path.
  bool m_appendable = true;
  CURI m_uri;
};

}  // namespace zel
