#include "zel/stream/dummy_streams.h"

#include <limits>

#include "zel/core/error.h"

namespace zel {

namespace {

class CNoOpStreamLock : public CBase, public IStreamLock {};

[[noreturn]] void throwSeekFailed(int64 position) {
  CProps params;
  params.setInt64("position", position);
  throw CIOError(CIOError::SeekFailed, String(), params);
}

}  // namespace

// ---------------------------------------------------------------------------
// CDummyInStream

CDummyInStream::CDummyInStream() = default;
CDummyInStream::~CDummyInStream() = default;

void CDummyInStream::seek(int64 position) {
  if (position != 0) throwSeekFailed(position);
}

P<IStreamLock> CDummyInStream::lockRange(int64, int64, LockType) {
  return createObject<CNoOpStreamLock>();
}

void CDummyInStream::read(void*, int bytes) {
  if (bytes > 0) throw CIOError(CIOError::UnexpectedEnd);
}

// ---------------------------------------------------------------------------
// CDummyOutStream

CDummyOutStream::CDummyOutStream() = default;
CDummyOutStream::~CDummyOutStream() = default;

void CDummyOutStream::checkOpen() const {
  if (m_closed) throw CIOError(CIOError::StreamClosed);
}

int64 CDummyOutStream::getLength() const {
  checkOpen();
  return m_length;
}

int64 CDummyOutStream::getPosition() const {
  checkOpen();
  return m_position;
}

CURI CDummyOutStream::getURI() {
  checkOpen();
  return CURI();
}

void CDummyOutStream::seek(int64 position) {
  checkOpen();
  if (position < 0 || position > m_length) throwSeekFailed(position);
  m_position = position;
}

P<IStreamLock> CDummyOutStream::lockRange(int64, int64, LockType) {
  checkOpen();
  return createObject<CNoOpStreamLock>();
}

void CDummyOutStream::advance(int64 bytes) {
  if (bytes > std::numeric_limits<int64>::max() - m_position) {
    throw CIOError(CIOError::WriteFailed);
  }
  m_position += bytes;
  if (m_position > m_length) m_length = m_position;
}

void CDummyOutStream::write(const void*, int bytes, IWriteBarrier*) {
  checkOpen();
  if (bytes < 0) throw CInvalidArgError("CDummyOutStream::write", "bytes must be >= 0");
  advance(bytes);
}

void CDummyOutStream::writeKeepBuffer(const TConstBufferSlice<unsigned char>& data,
                                      IWriteBarrier*) {
  checkOpen();
  advance(static_cast<int64>(data.getLength()));
}

P<IWriteBarrier> CDummyOutStream::createWriteBarrier(IWriteBarrier* parent) {
  checkOpen();
  return createObject<CImmediateWriteBarrier>(parent);
}

void CDummyOutStream::flush() { checkOpen(); }

void CDummyOutStream::setLength(int64 length) {
  checkOpen();
  if (length < 0) throw CInvalidArgError("CDummyOutStream::setLength", "length must be >= 0");
  m_length = length;
  if (m_position > m_length) m_position = m_length;
}

}  // namespace zel
