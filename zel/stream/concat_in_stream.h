// CConcatInStream: several input streams read one after another as one.
//
// Each part is read from its position 0 to its length, both taken when the
// joined stream is built; the joined length is their sum and is fixed from
// then on. A part that has become shorter since is detected when the read
// comes short inside it, and reported as a CIOError ReadFailed naming the part
// (its URI in readable form, toString(false)) and the four values bytesRead, toRead, readPosition and streamEndPos (all as
// parameters too). Every part must know its length (getLength() >= 0).
//
// Parts are positioned lazily: a part is sought only when its own position is
// not where the next read in it must start, so parts that cannot seek (pipes)
// work as long as they are read once, in order. seek() on the joined stream
// accepts 0 <= position <= length and itself touches no part.
//
// Range locks: lockRange() locks, on each part the range overlaps, the
// overlapping bytes in that part's own positions, and returns one lock
// (CConcatInStream::CLock) holding all of them. Bytes of the range beyond the
// joined length are not locked anywhere. If a part refuses its lock the locks
// already granted are released and the part's error passes on, so the range
// is locked as a whole or not at all.
//
// Alignment: getPositionAlign(), getBufferAlign() and
// getBestPerformancePositionAlign() are fixed when the stream is built: the
// least common multiple of the values of those parts that are IIOStreams
// (other parts count as 1). They describe what reads the parts prefer; the
// joined stream splits a read at part boundaries and does not enforce them.
//
// close() closes every part and drops them. The joined stream owns its
// parts: nobody else should read them or move their positions meanwhile.
#pragma once

#include "zel/core/containers.h"
#include "zel/core/export.h"
#include "zel/stream/stream.h"

namespace zel {

class ZEL_API CConcatInStream : public CBase, public IInStream {
 public:
  struct StreamInfo {
    P<IInStream> stream;
    // The position in the joined stream just after this part's last byte.
    int64 endPos = 0;
  };

  // The lock returned by lockRange(): holds the parts' own locks.
  class ZEL_API CLock : public CBase, public IStreamLock {
   public:
    explicit CLock(const TArray<P<IStreamLock>>& partLocks);
    ~CLock() override;
    int getPartLockCount() const { return m_partLocks.getCount(); }

   private:
    TArray<P<IStreamLock>> m_partLocks;
  };

  // Throws CInvalidArgError for a null part, a part of unknown length, or
  // parts whose alignments have no common multiple within int.
  CConcatInStream(const TArray<P<IInStream>>& streams, const CURI& uri);
  ~CConcatInStream() override;

  CConcatInStream(const CConcatInStream&) = delete;
  CConcatInStream& operator=(const CConcatInStream&) = delete;

  const TArray<StreamInfo>& getStreamInfos() const { return m_streams; }
  int getPositionAlign() const { return m_positionAlign; }
  int getBufferAlign() const { return m_bufferAlign; }
  int getBestPerformancePositionAlign() const { return m_bestPerformancePositionAlign; }

  // IStreamBase
  int64 getLength() const override;
  int64 getPosition() const override;
  CURI getURI() override;
  void seek(int64 position) override;
  P<IStreamLock> lockRange(int64 startPos, int64 bytes, LockType type) override;
  void close() override;

  // IInStream
  void read(void* buffer, int bytes) override;
  int readLax(void* buffer, int bytes) override;
  // Reads from the parts what they have at hand, moving on to the next part
  // only when one has given all it holds.
  int readAvailable(void* buffer, int bytes) override;
  bool waitReadable(int timeout) const override;
  bool isEndOfStream() const override;
  int isEndOfStream_NonBlocking() const override;

 private:
  void checkOpen() const;
  // The index of the part that holds the position, or -1 at the end.
  int findPart(int64 position) const;
  int64 getPartStart(int index) const;
  // Seeks the part to where the joined position lies in it, if needed.
  void positionPart(int index);
  int readImpl(void* buffer, int bytes, bool available);

  TArray<StreamInfo> m_streams;
  int64 m_length = 0;
  int64 m_position = 0;
  CURI m_uri;
  int m_positionAlign = 1;
  int m_bufferAlign = 1;
  int m_bestPerformancePositionAlign = 1;
  bool m_closed = false;
};

}  // namespace zel
