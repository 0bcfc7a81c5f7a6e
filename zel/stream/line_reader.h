// CLineReader: splits the bytes of an input stream into text lines.
//
// Line ends: LF, CR LF and a CR not followed by LF each end a line. The line
// text excludes its terminator. A terminator at the very end of the stream
// does not start another line, so "a\n" is one line and "a\n\n" is "a" and
// ""; the last line needs no terminator ("a\nb" is "a" and "b"); an empty
// stream has no lines. A CR that is the last byte read so far makes the
// reader read on until it knows whether an LF follows, so that CR LF split
// across two reads still counts as one line end.
//
// Text: each line's bytes are decoded as UTF-8. A line that is not valid
// UTF-8 is taken as Latin-1 as a whole, byte for byte (so no byte is lost and
// String::toLatin1() gives the bytes back). A UTF-8 byte-order mark at the
// very start of the stream (when the reader starts at position 0) is skipped.
//
// Positions: getLineEndPosition() is the stream position just after the last
// line's terminator (just after its last byte when it had none), i.e. where
// the next line starts. It counts from the stream's position when the reader
// was made; the reader reads ahead, so the stream's own position is usually
// further on and must not be relied on while the reader is in use.
//
// Reading: the reader takes what the stream has at hand (readAvailable) and,
// when there is nothing, waits for one byte (readLax), so it returns a line
// as soon as its terminator has come even from a pipe. Buffering is bounded:
// a line longer than maxLineLength bytes throws CIOError InvalidData
// ("Line too long."), with the limit and the line's start position as
// parameters. Errors of the stream pass on; the reader is then unusable.
//
// Not synchronised; the reader must be the only user of its stream.
#pragma once

#include "zel/core/buffer.h"
#include "zel/core/export.h"
#include "zel/core/string.h"
#include "zel/stream/stream.h"

namespace zel {

class ZEL_API CLineReader {
 public:
  static constexpr int defaultChunkSize() { return 4096; }
  static constexpr int defaultMaxLineLength() { return 1 << 20; }

  // chunkSize is the most the reader asks the stream for at once. Throws
  // CInvalidArgError for a null stream, chunkSize < 1 or maxLineLength < 0.
  explicit CLineReader(IInStream* stream, int chunkSize = defaultChunkSize(),
                       int maxLineLength = defaultMaxLineLength());
  ~CLineReader();

  CLineReader(const CLineReader&) = delete;
  CLineReader& operator=(const CLineReader&) = delete;

  // Moves to the next line; false (and an empty line) at the end of the
  // stream. Once false, it stays false without touching the stream again.
  bool nextLine();
  // The current line without its terminator.
  String getLine() const { return m_line; }
  int64 getLineEndPosition() const { return m_lineEndPosition; }
  // Whether the last nextLine() call read from the stream (false when the
  // line was already buffered).
  bool wasStreamAccessedInLastNextLineCall() const { return m_streamAccessed; }

 private:
  // Reads more bytes behind the buffered ones; false at the end of the stream.
  bool fill();
  // Makes the current line of bytes [m_start, end), and drops the terminator
  // up to next.
  void takeLine(size_t end, size_t next);
  [[noreturn]] void throwLineTooLong() const;

  P<IInStream> m_stream;
  int m_chunkSize;
  int m_maxLineLength;
  // Buffered bytes are [m_start, m_buffer.getSize()).
  TBuffer<char> m_buffer;
  size_t m_start = 0;
  int64 m_lineEndPosition;
  String m_line;
  bool m_streamAccessed = false;
  bool m_endOfStream = false;
  bool m_checkedByteOrderMark = false;
};

}  // namespace zel
