#include "zel/stream/delegating_io_stream.h"

#include "zel/core/error.h"

namespace zel {

namespace {

IIOStream* checkInner(IIOStream* inner) {
  if (!inner) {
    throw CInvalidArgError("CDelegatingIOStream::CDelegatingIOStream", "inner stream is null");
  }
  return inner;
}

}  // namespace

CDelegatingIOStream::CDelegatingIOStream(IIOStream* inner)
    : m_inner(checkInner(inner)),
      m_positionAlign(inner->getPositionAlign()),
      m_bufferAlign(inner->getBufferAlign()),
      m_bestPerformancePositionAlign(inner->getBestPerformancePositionAlign()) {}

CDelegatingIOStream::~CDelegatingIOStream() = default;

void CDelegatingIOStream::checkOpen() const {
  if (m_closed) throw CIOError(CIOError::StreamClosed);
}

int64 CDelegatingIOStream::getLength() const {
  checkOpen();
  return m_inner->getLength();
}

int64 CDelegatingIOStream::getPosition() const {
  checkOpen();
  return m_inner->getPosition();
}

CURI CDelegatingIOStream::getURI() {
  checkOpen();
  return m_inner->getURI();
}

void CDelegatingIOStream::seek(int64 position) {
  checkOpen();
  m_inner->seek(position);
}

P<IStreamLock> CDelegatingIOStream::lockRange(int64 startPos, int64 bytes, LockType type) {
  checkOpen();
  return m_inner->lockRange(startPos, bytes, type);
}

void CDelegatingIOStream::close() {
  m_closed = true;
  m_inner->close();
}

void CDelegatingIOStream::read(void* buffer, int bytes) {
  checkOpen();
  m_inner->read(buffer, bytes);
}

int CDelegatingIOStream::readLax(void* buffer, int bytes) {
  checkOpen();
  return m_inner->readLax(buffer, bytes);
}

int CDelegatingIOStream::readAvailable(void* buffer, int bytes) {
  checkOpen();
  return m_inner->readAvailable(buffer, bytes);
}

bool CDelegatingIOStream::waitReadable(int timeout) const {
  checkOpen();
  return m_inner->waitReadable(timeout);
}

bool CDelegatingIOStream::isEndOfStream() const {
  checkOpen();
  return m_inner->isEndOfStream();
}

int CDelegatingIOStream::isEndOfStream_NonBlocking() const {
  checkOpen();
  return m_inner->isEndOfStream_NonBlocking();
}

void CDelegatingIOStream::write(const void* buffer, int bytes, IWriteBarrier* barrier) {
  checkOpen();
  m_inner->write(buffer, bytes, barrier);
}

void CDelegatingIOStream::writeKeepBuffer(const TConstBufferSlice<unsigned char>& data,
                                          IWriteBarrier* barrier) {
  checkOpen();
  m_inner->writeKeepBuffer(data, barrier);
}

P<IWriteBarrier> CDelegatingIOStream::createWriteBarrier(IWriteBarrier* parent) {
  checkOpen();
  return m_inner->createWriteBarrier(parent);
}

void CDelegatingIOStream::flush() {
  checkOpen();
  m_inner->flush();
}

void CDelegatingIOStream::setLength(int64 length) {
  checkOpen();
  m_inner->setLength(length);
}

int CDelegatingIOStream::getPositionAlign() {
  checkOpen();
  return m_positionAlign;
}

int CDelegatingIOStream::getBufferAlign() {
  checkOpen();
  return m_bufferAlign;
}

int CDelegatingIOStream::getBestPerformancePositionAlign() {
  checkOpen();
  return m_bestPerformancePositionAlign;
}

}  // namespace zel
