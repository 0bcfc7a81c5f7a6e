#include "zel/stream/buffer_stream.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>

#include "zel/core/error.h"

namespace zel {

namespace {

// Not a CIOError::Code of its own: only this stream reports it.
constexpr int kRangeLockUnsupported = 14;

}  // namespace

CBufferStream::CBufferStream() : m_buffer(createObject<Buffer>()) {}

CBufferStream::CBufferStream(const P<Buffer>& buffer, bool readOnly)
    : m_buffer(buffer ? buffer : createObject<Buffer>()),
      m_readOnly(readOnly),
      m_appendable(!readOnly) {}

CBufferStream::CBufferStream(const void* data, size_t bytes, bool readOnly)
    : m_buffer(createObject<Buffer>(static_cast<const unsigned char*>(data), bytes)),
      m_readOnly(readOnly),
      m_appendable(!readOnly) {}

CBufferStream::~CBufferStream() = default;

String CBufferStream::getDataAsString() const {
  return String::fromUTF8(reinterpret_cast<const char*>(m_buffer->getData()),
                          m_buffer->getSize());
}

void CBufferStream::throwIOError(int code, const String& message, CProps params) const {
  if (!m_uri.isEmpty()) params.set(CIOError::paramURI(), m_uri.toString());
  throw CIOError(static_cast<CIOError::Code>(code), message, params);
}

void CBufferStream::checkOpen() const {
  if (m_closed) throwIOError(CIOError::StreamClosed, String(), CProps());
}

void CBufferStream::checkWritable() const {
  checkOpen();
  if (m_readOnly) throwIOError(CIOError::WriteFailed, String(), CProps());
}

int64 CBufferStream::getLength() const {
  checkOpen();
  return static_cast<int64>(m_buffer->getSize());
}

int64 CBufferStream::getPosition() const {
  checkOpen();
  return static_cast<int64>(m_position);
}

CURI CBufferStream::getURI() {
  checkOpen();
  return m_uri;
}

void CBufferStream::seek(int64 position) {
  checkOpen();
  if (position < 0 || static_cast<uint64>(position) > m_buffer->getSize()) {
    CProps params;
    params.setInt64("position", position);
    throwIOError(CIOError::SeekFailed, String(), params);
  }
  m_position = static_cast<size_t>(position);
}

P<IStreamLock> CBufferStream::lockRange(int64, int64, LockType) {
  checkOpen();
  throwIOError(kRangeLockUnsupported, "Buffer stream does not support range locking.", CProps());
}

void CBufferStream::close() {
  m_closed = true;
  m_appendable = false;
}

void CBufferStream::read(void* buffer, int bytes) {
  const int got = readLax(buffer, bytes);
  if (got < bytes) throwIOError(CIOError::UnexpectedEnd, String(), CProps());
}

void CBufferStream::readShort(void* data, size_t bytes) {
  if (bytes > static_cast<size_t>(std::numeric_limits<int>::max())) {
    throw CInvalidArgError("CBufferStream::read", "bytes must fit an int");
  }
  read(data, static_cast<int>(bytes));
}

int CBufferStream::readLax(void* buffer, int bytes) {
  checkOpen();
  const size_t size = m_buffer->getSize();
  if (bytes <= 0 || m_position >= size) return 0;
  const size_t count = std::min(static_cast<size_t>(bytes), size - m_position);
  std::memcpy(buffer, m_buffer->getData() + m_position, count);
  m_position += count;
  return static_cast<int>(count);
}

int CBufferStream::readAvailable(void* buffer, int bytes) { return readLax(buffer, bytes); }

bool CBufferStream::waitReadable(int) const {
  checkOpen();
  return true;
}

bool CBufferStream::isEndOfStream() const {
  checkOpen();
  return m_position >= m_buffer->getSize();
}

int CBufferStream::isEndOfStream_NonBlocking() const { return isEndOfStream() ? 1 : 0; }

void CBufferStream::writeBytes(const unsigned char* data, size_t bytes) {
  checkWritable();
  if (bytes == 0) return;
  const size_t end = m_position + bytes;
  if (end > m_buffer->getCapacity()) {
    // The source may lie in our own storage, which growing frees: copy it
    // out first in that case.
    const auto storage = reinterpret_cast<uintptr_t>(m_buffer->getData());
    const auto source = reinterpret_cast<uintptr_t>(data);
    if (storage && source >= storage && source - storage < m_buffer->getCapacity()) {
      Buffer copy(data, bytes);
      writeBytes(copy.getData(), bytes);
      return;
    }
    m_buffer->ensureCapacity(end);
  }
  // Only the gap left by a buffer shrunk behind our back, if any, is worth
  // zeroing; resize() zeroes everything new, which the copy then overwrites.
  if (end > m_buffer->getSize()) m_buffer->resize(end);
  std::memmove(m_buffer->getData() + m_position, data, bytes);
  m_position = end;
}

void CBufferStream::write(const void* buffer, int bytes, IWriteBarrier*) {
  checkWritable();
  if (bytes < 0) throw CInvalidArgError("CBufferStream::write", "bytes must be >= 0");
  writeBytes(static_cast<const unsigned char*>(buffer), static_cast<size_t>(bytes));
}

void CBufferStream::writeKeepBuffer(const TConstBufferSlice<unsigned char>& data,
                                    IWriteBarrier*) {
  writeBytes(data.getData(), data.getLength());
}

P<IWriteBarrier> CBufferStream::createWriteBarrier(IWriteBarrier* parent) {
  checkOpen();
  return createObject<CImmediateWriteBarrier>(parent);
}

void CBufferStream::flush() { checkOpen(); }

void CBufferStream::setLength(int64 length) {
  checkWritable();
  if (length < 0) throw CInvalidArgError("CBufferStream::setLength", "length must be >= 0");
  if (static_cast<uint64>(length) > Buffer::maxElements()) {
    CProps params;
    params.setInt64("length", length);
    throwIOError(CIOError::ResizeFailed, String(), params);
  }
  const size_t newLength = static_cast<size_t>(length);
  m_buffer->ensureCapacity(newLength);
  m_buffer->resize(newLength);
  if (m_position > newLength) m_position = newLength;
}

int CBufferStream::getPositionAlign() {
  checkOpen();
  return 1;
}

int CBufferStream::getBufferAlign() {
  checkOpen();
  return 1;
}

int CBufferStream::getBestPerformancePositionAlign() {
  checkOpen();
  return 1;
}

}  // namespace zel
