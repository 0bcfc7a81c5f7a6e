#include "zel/stream/line_reader.h"

#include <cstring>

#include "zel/core/error.h"

namespace zel {

CLineReader::CLineReader(IInStream* stream, int chunkSize, int maxLineLength)
    : m_stream(stream), m_chunkSize(chunkSize), m_maxLineLength(maxLineLength) {
  if (!stream) throw CInvalidArgError("CLineReader::CLineReader", "stream is null");
  if (chunkSize < 1) throw CInvalidArgError("CLineReader::CLineReader", "chunkSize must be >= 1");
  if (maxLineLength < 0) {
    throw CInvalidArgError("CLineReader::CLineReader", "maxLineLength must be >= 0");
  }
  m_lineEndPosition = stream->getPosition();
  // A byte-order mark only means something at the start of the data.
  m_checkedByteOrderMark = m_lineEndPosition != 0;
}

CLineReader::~CLineReader() = default;

bool CLineReader::fill() {
  m_streamAccessed = true;
  const size_t kept = m_buffer.getSize() - m_start;
  if (m_start > 0) {
    std::memmove(m_buffer.getData(), m_buffer.getData() + m_start, kept);
    m_buffer.resize(kept);
    m_start = 0;
  }
  m_buffer.resize(kept + static_cast<size_t>(m_chunkSize));
  char* target = m_buffer.getData() + kept;
  int got = 0;
  try {
    got = m_stream->readAvailable(target, m_chunkSize);
    if (got == 0) {
      // Nothing at hand: wait for one byte (or the end), then take whatever
      // came with it.
      got = m_stream->readLax(target, 1);
      if (got == 1 && m_chunkSize > 1) got += m_stream->readAvailable(target + 1, m_chunkSize - 1);
    }
  } catch (...) {
    m_buffer.resize(kept);
    throw;
  }
  m_buffer.resize(kept + static_cast<size_t>(got));
  if (got == 0) m_endOfStream = true;
  return got > 0;
}

void CLineReader::takeLine(size_t end, size_t next) {
  m_line = String::fromUTF8(m_buffer.getData() + m_start, end - m_start);
  m_lineEndPosition += static_cast<int64>(next - m_start);
  m_start = next;
}

void CLineReader::throwLineTooLong() const {
  CProps params;
  params.setInt64("maxLineLength", m_maxLineLength);
  params.setInt64("lineStartPosition", m_lineEndPosition);
  throw CIOError(CIOError::InvalidData, "Line too long.", params);
}

bool CLineReader::nextLine() {
  m_streamAccessed = false;
  m_line = String();
  if (!m_checkedByteOrderMark) {
    while (m_buffer.getSize() - m_start < 3 && !m_endOfStream) fill();
    const char* d = m_buffer.getData() + m_start;
    if (m_buffer.getSize() - m_start >= 3 && d[0] == '\xEF' && d[1] == '\xBB' && d[2] == '\xBF') {
      m_start += 3;
      m_lineEndPosition += 3;
    }
    m_checkedByteOrderMark = true;
  }
  const size_t maxLength = static_cast<size_t>(m_maxLineLength);
  size_t scanned = 0;  // bytes after m_start known to hold no line end
  for (;;) {
    const size_t size = m_buffer.getSize();
    const char* d = m_buffer.getData();
    size_t i = m_start + scanned;
    while (i < size && d[i] != '\n' && d[i] != '\r') ++i;
    if (i < size) {
      if (i - m_start > maxLength) throwLineTooLong();
      if (d[i] == '\n') {
        takeLine(i, i + 1);
        return true;
      }
      if (i + 1 < size) {
        takeLine(i, d[i + 1] == '\n' ? i + 2 : i + 1);
        return true;
      }
      // A CR as the last byte so far: an LF may follow in the next read.
      scanned = i - m_start;
      if (m_endOfStream || !fill()) {
        takeLine(m_start + scanned, m_start + scanned + 1);
        return true;
      }
      continue;
    }
    scanned = size - m_start;
    if (scanned > maxLength) throwLineTooLong();
    if (m_endOfStream || !fill()) {
      if (scanned == 0) return false;
      takeLine(m_start + scanned, m_start + scanned);
      return true;
    }
  }
}

}  // namespace zel
