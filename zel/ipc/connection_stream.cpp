#include "zel/ipc/connection_stream.h"

#include <algorithm>
#include <cstring>

#include "zel/core/error.h"

namespace zel {

namespace {

[[noreturn]] void throwSeekRefused() {
  throw CIOError(CIOError::SeekFailed, "Seeking is not supported on pipes");
}

[[noreturn]] void throwLockRefused() {
  throw CIOError(CIOError::Unknown, "lockRange is not supported on pipes");
}

void checkCount(int bytes, const void* buffer, const char* function) {
  if (bytes > 0 && !buffer) throw CInvalidArgError(function, "null buffer");
}

}  // namespace

CConnectionInStream::~CConnectionInStream() = default;

int64 CConnectionInStream::getPosition() const {
  checkOpen();
  return m_position;
}

void CConnectionInStream::seek(int64) {
  checkOpen();
  throwSeekRefused();
}

P<IStreamLock> CConnectionInStream::lockRange(int64, int64, LockType) {
  checkOpen();
  throwLockRefused();
}

void CConnectionInStream::close() {
  if (m_closed.exchange(true)) return;
  closeTransport();
}

void CConnectionInStream::checkOpen() const {
  if (m_closed) throw CIOError(CIOError::StreamClosed);
}

void CConnectionInStream::read(void* buffer, int bytes) {
  if (readLax(buffer, bytes) < bytes) throw CIOError(CIOError::UnexpectedEnd);
}

int CConnectionInStream::takeBuffered(void* buffer, int bytes) {
  const int count = std::min(bytes, m_smallEnd - m_smallStart);
  if (count <= 0) return 0;
  std::memcpy(buffer, m_small + m_smallStart, static_cast<size_t>(count));
  m_smallStart += count;
  return count;
}

int CConnectionInStream::readLax(void* buffer, int bytes) {
  checkOpen();
  checkCount(bytes, buffer, "CConnectionInStream::readLax");
  if (bytes <= 0) return 0;
  char* out = static_cast<char*>(buffer);
  int done = takeBuffered(out, bytes);
  while (done < bytes) {
    const int want = bytes - done;
    int got;
    if (want < kSmallReadBuffer) {
      m_smallStart = m_smallEnd = 0;
      m_smallEnd = receive(m_small, kSmallReadBuffer, true);
      got = takeBuffered(out + done, want);
    } else {
      got = receive(out + done, want, true);
    }
    if (got <= 0) break;
    done += got;
  }
  m_position += done;
  return done;
}

void CConnectionInStream::readWithoutReadAhead(void* buffer, int bytes) {
  checkOpen();
  checkCount(bytes, buffer, "CConnectionInStream::readWithoutReadAhead");
  if (bytes <= 0) return;
  char* out = static_cast<char*>(buffer);
  int done = takeBuffered(out, bytes);
  while (done < bytes) {
    const int got = receive(out + done, bytes - done, true);
    if (got <= 0) break;
    done += got;
  }
  m_position += done;
  if (done < bytes) throw CIOError(CIOError::UnexpectedEnd);
}

int CConnectionInStream::readAvailable(void* buffer, int bytes) {
  checkOpen();
  checkCount(bytes, buffer, "CConnectionInStream::readAvailable");
  if (bytes <= 0) return 0;
  int got = takeBuffered(buffer, bytes);
  if (got < bytes) got += receive(static_cast<char*>(buffer) + got, bytes - got, false);
  m_position += got;
  return got;
}

bool CConnectionInStream::waitReadable(int timeout) const {
  checkOpen();
  return m_smallStart < m_smallEnd || pollReadable(timeout) != NotReady;
}

bool CConnectionInStream::isEndOfStream() const {
  checkOpen();
  return m_smallStart == m_smallEnd && pollReadable(-1) == Ended;
}

int CConnectionInStream::isEndOfStream_NonBlocking() const {
  checkOpen();
  return m_smallStart == m_smallEnd && pollReadable(0) == Ended ? 1 : 0;
}

CConnectionOutStream::~CConnectionOutStream() = default;

int64 CConnectionOutStream::getPosition() const {
  checkOpen();
  return m_position;
}

void CConnectionOutStream::seek(int64) {
  checkOpen();
  throwSeekRefused();
}

P<IStreamLock> CConnectionOutStream::lockRange(int64, int64, LockType) {
  checkOpen();
  throwLockRefused();
}

void CConnectionOutStream::close() {
  if (m_closed.exchange(true)) return;
  closeTransport();
}

void CConnectionOutStream::checkOpen() const {
  if (m_closed) throw CIOError(CIOError::StreamClosed);
}

void CConnectionOutStream::write(const void* buffer, int bytes, IWriteBarrier*) {
  checkOpen();
  if (bytes < 0) throw CInvalidArgError("CConnectionOutStream::write", "negative byte count");
  checkCount(bytes, buffer, "CConnectionOutStream::write");
  if (bytes == 0) return;
  send(buffer, bytes);
  m_position += bytes;
}

void CConnectionOutStream::writeGather(const void* first, int firstBytes, const void* second,
                                       int secondBytes) {
  checkOpen();
  if (firstBytes < 0 || secondBytes < 0) {
    throw CInvalidArgError("CConnectionOutStream::writeGather", "negative byte count");
  }
  checkCount(firstBytes, first, "CConnectionOutStream::writeGather");
  checkCount(secondBytes, second, "CConnectionOutStream::writeGather");
  if (firstBytes == 0 || secondBytes == 0) {
    if (firstBytes > 0) send(first, firstBytes);
    if (secondBytes > 0) send(second, secondBytes);
  } else {
    sendGather(first, firstBytes, second, secondBytes);
  }
  m_position += static_cast<int64>(firstBytes) + secondBytes;
}

int64 CConnectionOutStream::sendFromFile(int64 fileHandle, int64 offset, int64 count) {
  checkOpen();
  if (offset < 0 || count < 0) {
    throw CInvalidArgError("CConnectionOutStream::sendFromFile", "negative offset or count");
  }
  if (count == 0) return 0;
  const int64 sent = sendFile(fileHandle, offset, count);
  m_position += sent;
  return sent;
}

void CConnectionOutStream::sendGather(const void* first, int firstBytes, const void* second,
                                      int secondBytes) {
  send(first, firstBytes);
  send(second, secondBytes);
}

int64 CConnectionOutStream::sendFile(int64, int64, int64) {
  throw CBadStateError("CConnectionOutStream: this connection cannot send from a file");
}

void CConnectionOutStream::writeKeepBuffer(const TConstBufferSlice<unsigned char>& data,
                                           IWriteBarrier* barrier) {
  // Sending copies the bytes, so nothing of the buffer is kept.
  const unsigned char* bytes = data.getData();
  size_t left = data.getLength();
  while (left > 0) {
    const int chunk = left > (1u << 30) ? (1 << 30) : static_cast<int>(left);
    write(bytes, chunk, barrier);
    bytes += chunk;
    left -= static_cast<size_t>(chunk);
  }
}

P<IWriteBarrier> CConnectionOutStream::createWriteBarrier(IWriteBarrier* parent) {
  checkOpen();
  return createObject<CImmediateWriteBarrier>(parent);
}

void CConnectionOutStream::flush() { checkOpen(); }

void CConnectionOutStream::setLength(int64) {
  checkOpen();
  throwSeekRefused();
}

}  // namespace zel
