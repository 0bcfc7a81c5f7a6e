#include "zel/stream/enforcing_io_stream_wrapper.h"

#include <algorithm>
#include <cstdint>

#include "zel/core/error.h"

namespace zel {

namespace {

const char* const kConstruct = "CEnforcingIOStreamWrapper::construct";

}  // namespace

P<CEnforcingIOStreamWrapper> CEnforcingIOStreamWrapper::construct(
    IIOStream* inner, int positionAlign, int bufferAlign, int bestPerformancePositionAlign,
    int64 limit) {
  if (positionAlign < 1) throw CInvalidArgError(kConstruct, "positionAlign must be >=1");
  if (bufferAlign < 1) throw CInvalidArgError(kConstruct, "positionAlign must be >=1");
  if (bestPerformancePositionAlign < positionAlign) {
    throw CInvalidArgError(kConstruct, "bestPerformancePositionAlign must be >= positionAlign");
  }
  if (bestPerformancePositionAlign % positionAlign != 0) {
    throw CInvalidArgError(kConstruct,
                           "bestPerformancePositionAlign must be a multiple of positionAlign");
  }
  if (!inner) throw CInvalidArgError(kConstruct, "inner stream is null");
  if (limit < -1) throw CInvalidArgError(kConstruct, "limit must be >= -1");
  return P<CEnforcingIOStreamWrapper>(
      new (CBase::RawNew{}) CEnforcingIOStreamWrapper(inner, positionAlign, bufferAlign,
                                                      bestPerformancePositionAlign, limit),
      adoptRef);
}

CEnforcingIOStreamWrapper::CEnforcingIOStreamWrapper(IIOStream* inner, int positionAlign,
                                                     int bufferAlign,
                                                     int bestPerformancePositionAlign,
                                                     int64 limit)
    : m_inner(inner),
      m_positionAlign(positionAlign),
      m_bufferAlign(bufferAlign),
      m_bestPerformancePositionAlign(bestPerformancePositionAlign),
      m_limit(limit) {}

CEnforcingIOStreamWrapper::~CEnforcingIOStreamWrapper() = default;

void CEnforcingIOStreamWrapper::checkOpen() const {
  if (m_closed) throw CIOError(CIOError::StreamClosed);
}

void CEnforcingIOStreamWrapper::checkPositionAlign(int64 value) const {
  if (value % m_positionAlign != 0) {
    throw CIOError(CIOError::PositionNotAligned,
                   "The specified stream position or size " + String::fromInt64(value) +
                       " does not conform to the alignment requirement of " +
                       String::fromInt64(m_positionAlign));
  }
}

void CEnforcingIOStreamWrapper::checkBufferAlign(const void* buffer) const {
  if (reinterpret_cast<uintptr_t>(buffer) % static_cast<uintptr_t>(m_bufferAlign) != 0) {
    throw CIOError(CIOError::BufferNotAligned,
                   "The specified buffer for a stream operation does not conform to the buffer "
                   "alignment requirement of " +
                       String::fromInt64(m_bufferAlign));
  }
}

void CEnforcingIOStreamWrapper::resyncPosition() noexcept {
  try {
    m_position = m_inner->getPosition();
  } catch (...) {
    // The inner stream cannot tell (closed, broken): keep what we had.
  }
}

int64 CEnforcingIOStreamWrapper::getLength() const {
  checkOpen();
  return m_inner->getLength();
}

int64 CEnforcingIOStreamWrapper::getPosition() const {
  checkOpen();
  return m_position;
}

CURI CEnforcingIOStreamWrapper::getURI() {
  checkOpen();
  return m_inner->getURI();
}

void CEnforcingIOStreamWrapper::seek(int64 position) {
  checkOpen();
  checkPositionAlign(position);
  try {
    m_inner->seek(position);
  } catch (...) {
    resyncPosition();
    throw;
  }
  m_position = position;
}

P<IStreamLock> CEnforcingIOStreamWrapper::lockRange(int64 startPos, int64 bytes,
                                                    LockType type) {
  checkOpen();
  return m_inner->lockRange(startPos, bytes, type);
}

void CEnforcingIOStreamWrapper::close() {
  m_closed = true;
  m_inner->close();
}

void CEnforcingIOStreamWrapper::read(void* buffer, int bytes) {
  checkOpen();
  checkPositionAlign(bytes);
  checkBufferAlign(buffer);
  try {
    m_inner->read(buffer, bytes);
  } catch (...) {
    resyncPosition();
    throw;
  }
  if (bytes > 0) m_position += bytes;
}

int CEnforcingIOStreamWrapper::readLax(void* buffer, int bytes) {
  checkOpen();
  checkPositionAlign(bytes);
  checkBufferAlign(buffer);
  if (bytes <= 0) return 0;
  int toRead = bytes;
  if (m_limit != -1) toRead = static_cast<int>(std::clamp<int64>(m_limit - m_position, 0, bytes));
  if (toRead <= 0) return 0;
  int got;
  try {
    got = m_inner->readLax(buffer, toRead);
  } catch (...) {
    resyncPosition();
    throw;
  }
  m_position += got;
  return got;
}

int CEnforcingIOStreamWrapper::readAvailable(void* buffer, int bytes) {
  checkOpen();
  checkPositionAlign(bytes);
  checkBufferAlign(buffer);
  int got;
  try {
    got = m_inner->readAvailable(buffer, bytes);
  } catch (...) {
    resyncPosition();
    throw;
  }
  m_position += got;
  return got;
}

bool CEnforcingIOStreamWrapper::waitReadable(int timeout) const {
  checkOpen();
  return m_inner->waitReadable(timeout);
}

bool CEnforcingIOStreamWrapper::isEndOfStream() const {
  checkOpen();
  return m_inner->isEndOfStream();
}

int CEnforcingIOStreamWrapper::isEndOfStream_NonBlocking() const {
  checkOpen();
  return m_inner->isEndOfStream_NonBlocking();
}

void CEnforcingIOStreamWrapper::write(const void* buffer, int bytes, IWriteBarrier* barrier) {
  checkOpen();
  checkPositionAlign(bytes);
  checkBufferAlign(buffer);
  try {
    m_inner->write(buffer, bytes, barrier);
  } catch (...) {
    resyncPosition();
    throw;
  }
  if (bytes > 0) m_position += bytes;
}

void CEnforcingIOStreamWrapper::writeKeepBuffer(const TConstBufferSlice<unsigned char>& data,
                                                IWriteBarrier* barrier) {
  checkOpen();
  checkPositionAlign(static_cast<int64>(data.getLength()));
  checkBufferAlign(data.getData());
  try {
    m_inner->writeKeepBuffer(data, barrier);
  } catch (...) {
    resyncPosition();
    throw;
  }
  m_position += static_cast<int64>(data.getLength());
}

P<IWriteBarrier> CEnforcingIOStreamWrapper::createWriteBarrier(IWriteBarrier* parent) {
  checkOpen();
  return m_inner->createWriteBarrier(parent);
}

void CEnforcingIOStreamWrapper::flush() {
  checkOpen();
  m_inner->flush();
}

void CEnforcingIOStreamWrapper::setLength(int64 length) {
  checkOpen();
  checkPositionAlign(length);
  try {
    m_inner->setLength(length);
  } catch (...) {
    resyncPosition();
    throw;
  }
  if (m_position > length) m_position = length;
}

int CEnforcingIOStreamWrapper::getPositionAlign() {
  checkOpen();
  return m_positionAlign;
}

int CEnforcingIOStreamWrapper::getBufferAlign() {
  checkOpen();
  return m_bufferAlign;
}

int CEnforcingIOStreamWrapper::getBestPerformancePositionAlign() {
  checkOpen();
  return m_bestPerformancePositionAlign;
}

}  // namespace zel
