#include "zel/stream/concat_in_stream.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <numeric>

#include "zel/core/error.h"

namespace zel {

namespace {

// Least common multiple of two alignments; values below 1 count as 1.
int combineAlign(int a, int b) {
  const int64 x = std::max(a, 1);
  const int64 y = std::max(b, 1);
  const int64 result = x / std::gcd(x, y) * y;
  if (result > std::numeric_limits<int>::max()) {
    throw CInvalidArgError("CConcatInStream::CConcatInStream",
                           "the alignments of the parts have no common multiple within int");
  }
  return static_cast<int>(result);
}

}  // namespace

CConcatInStream::CLock::CLock(const TArray<P<IStreamLock>>& partLocks) : m_partLocks(partLocks) {}

CConcatInStream::CLock::~CLock() = default;

CConcatInStream::CConcatInStream(const TArray<P<IInStream>>& streams, const CURI& uri) : m_uri(uri) {
  m_streams.reserve(streams.size());
  for (const P<IInStream>& stream : streams) {
    if (!stream) throw CInvalidArgError("CConcatInStream::CConcatInStream", "a part is null");
    const int64 length = stream->getLength();
    if (length < 0) {
      CProps params;
      const CURI partURI = stream->getURI();
      if (!partURI.isEmpty()) params.set(CIOError::paramURI(), partURI.toString());
      throw CInvalidArgError("CConcatInStream::CConcatInStream",
                             "the length of a part is not known", params);
    }
    if (length > std::numeric_limits<int64>::max() - m_length) {
      throw CInvalidArgError("CConcatInStream::CConcatInStream", "the parts are too long");
    }
    if (P<IIOStream> io = dynamicCast<IIOStream>(stream)) {
      m_positionAlign = combineAlign(m_positionAlign, io->getPositionAlign());
      m_bufferAlign = combineAlign(m_bufferAlign, io->getBufferAlign());
      m_bestPerformancePositionAlign =
          combineAlign(m_bestPerformancePositionAlign, io->getBestPerformancePositionAlign());
    }
    m_length += length;
    m_streams.add(StreamInfo{stream, m_length});
  }
  // Each part's best alignment is a multiple of its position alignment, so
  // the combined values keep that relation; make sure even for odd parts.
  m_bestPerformancePositionAlign = combineAlign(m_bestPerformancePositionAlign, m_positionAlign);
}

CConcatInStream::~CConcatInStream() = default;

void CConcatInStream::checkOpen() const {
  if (m_closed) {
    CProps params;
    if (!m_uri.isEmpty()) params.set(CIOError::paramURI(), m_uri.toString());
    throw CIOError(CIOError::StreamClosed, String(), params);
  }
}

int CConcatInStream::findPart(int64 position) const {
  // The first part ending after the position; empty parts are passed over.
  auto it = std::upper_bound(m_streams.begin(), m_streams.end(), position,
                             [](int64 pos, const StreamInfo& info) { return pos < info.endPos; });
  return it == m_streams.end() ? -1 : static_cast<int>(it - m_streams.begin());
}

int64 CConcatInStream::getPartStart(int index) const {
  return index == 0 ? 0 : m_streams[static_cast<size_t>(index) - 1].endPos;
}

void CConcatInStream::positionPart(int index) {
  IInStream* stream = m_streams[static_cast<size_t>(index)].stream.get();
  const int64 inPart = m_position - getPartStart(index);
  if (stream->getPosition() != inPart) stream->seek(inPart);
}

int64 CConcatInStream::getLength() const {
  checkOpen();
  return m_length;
}

int64 CConcatInStream::getPosition() const {
  checkOpen();
  return m_position;
}

CURI CConcatInStream::getURI() {
  checkOpen();
  return m_uri;
}

void CConcatInStream::seek(int64 position) {
  checkOpen();
  if (position < 0 || position > m_length) {
    CProps params;
    params.setInt64("position", position);
    if (!m_uri.isEmpty()) params.set(CIOError::paramURI(), m_uri.toString());
    throw CIOError(CIOError::SeekFailed, String(), params);
  }
  m_position = position;
}

P<IStreamLock> CConcatInStream::lockRange(int64 startPos, int64 bytes, LockType type) {
  checkOpen();
  if (startPos < 0 || bytes < 0) {
    throw CInvalidArgError("CConcatInStream::lockRange", "startPos and bytes must be >= 0");
  }
  const int64 end =
      bytes > m_length - std::min(startPos, m_length) ? m_length : startPos + bytes;
  TArray<P<IStreamLock>> locks;
  for (int i = findPart(startPos); i >= 0 && i < static_cast<int>(m_streams.size()); ++i) {
    const StreamInfo& info = m_streams[static_cast<size_t>(i)];
    const int64 partStart = getPartStart(i);
    if (partStart >= end) break;
    const int64 from = std::max(startPos, partStart);
    const int64 to = std::min(end, info.endPos);
    if (from < to) locks.add(info.stream->lockRange(from - partStart, to - from, type));
  }
  return createObject<CLock>(locks);
}

void CConcatInStream::close() {
  if (m_closed) return;
  m_closed = true;
  TArray<StreamInfo> streams;
  streams.swap(m_streams);
  // Close every part even if one fails; the first failure is passed on.
  std::exception_ptr failure;
  for (StreamInfo& info : streams) {
    try {
      info.stream->close();
    } catch (...) {
      if (!failure) failure = std::current_exception();
    }
  }
  if (failure) std::rethrow_exception(failure);
}

int CConcatInStream::readImpl(void* buffer, int bytes, bool available) {
  checkOpen();
  if (bytes < 1) return 0;
  unsigned char* out = static_cast<unsigned char*>(buffer);
  int total = 0;
  while (bytes > 0) {
    const int index = findPart(m_position);
    if (index < 0) break;
    positionPart(index);
    const StreamInfo& info = m_streams[static_cast<size_t>(index)];
    const int toRead = static_cast<int>(std::min<int64>(bytes, info.endPos - m_position));
    const int64 readPosition = m_position;
    const int got = available ? info.stream->readAvailable(out, toRead)
                              : info.stream->readLax(out, toRead);
    m_position += got;
    total += got;
    if (got < toRead) {
      if (available) break;
      CProps params;
      params.setInt64("bytesRead", got);
      params.setInt64("toRead", toRead);
      params.setInt64("readPosition", readPosition);
      params.setInt64("streamEndPos", info.endPos);
      // The text ends without a closing parenthesis; it is matched as it is.
      throw CIOError(CIOError::ReadFailed,
                     "Error reading in CConcatInStream. Stream '" +
                         info.stream->getURI().toString(false) +
                         "' has apparently changed its length since construction (" +
                         "bytesRead: " + String::fromInt64(got) +
                         ", toRead: " + String::fromInt64(toRead) +
                         ", readPosition: " + String::fromInt64(readPosition) +
                         ", streamEndPos: " + String::fromInt64(info.endPos),
                     params);
    }
    out += got;
    bytes -= got;
  }
  return total;
}

void CConcatInStream::read(void* buffer, int bytes) {
  if (readLax(buffer, bytes) < bytes) {
    CProps params;
    if (!m_uri.isEmpty()) params.set(CIOError::paramURI(), m_uri.toString());
    throw CIOError(CIOError::UnexpectedEnd, String(), params);
  }
}

int CConcatInStream::readLax(void* buffer, int bytes) { return readImpl(buffer, bytes, false); }

int CConcatInStream::readAvailable(void* buffer, int bytes) {
  return readImpl(buffer, bytes, true);
}

bool CConcatInStream::waitReadable(int timeout) const {
  checkOpen();
  const int index = findPart(m_position);
  return index < 0 || m_streams[static_cast<size_t>(index)].stream->waitReadable(timeout);
}

bool CConcatInStream::isEndOfStream() const {
  checkOpen();
  return m_position >= m_length;
}

int CConcatInStream::isEndOfStream_NonBlocking() const { return isEndOfStream() ? 1 : 0; }

}  // namespace zel
