// CConnectionInStream and CConnectionOutStream: the stream halves of an
// IConnection, written once for every transport. A transport implements the
// few hooks that move bytes (receive, pollReadable, send, closeTransport); the
// rest of the stream contract lives here:
//   - the length is unknown (-1); the position counts the bytes moved;
//   - seeking, range locks and setLength are refused ("Seeking is not
//     supported on pipes", "lockRange is not supported on pipes");
//   - writes complete on return, so a write barrier is immediate;
//   - after close() every operation but close() throws StreamClosed.
//
// Reading is buffered for small reads only: a read of less than
// kSmallReadBuffer bytes receives whatever is there (up to that size) into a
// small buffer, so a frame's length field and a short payload that arrived
// together cost one system call; larger reads go straight into the caller's
// buffer, so bulk data is never copied twice. readWithoutReadAhead() reads a
// header that bulk data follows without taking any of that data: the bulk
// read then receives all of it, from its first byte, into the caller's
// buffer (whose alignment then matches the sender's).
//
// Writing offers two optional paths for senders of large frames: a gather
// write (a frame's header and its bulk tail from two buffers in one system
// call where the transport has one; two sends otherwise), and, where
// canSendFromFile() says so (Linux Unix sockets), sending a range of an open
// local file straight from the page cache (sendfile), so that a file server
// never copies the bytes through its own memory.
#pragma once

#include <atomic>

#include "zel/core/base.h"
#include "zel/core/export.h"
#include "zel/core/types.h"
#include "zel/stream/stream.h"

namespace zel {

class ZEL_API CConnectionInStream : public CBase, public IInStream {
 public:
  ~CConnectionInStream() override;

  int64 getLength() const override { return -1; }
  int64 getPosition() const override;
  CURI getURI() override { return CURI(); }
  void seek(int64 position) override;
  P<IStreamLock> lockRange(int64 startPos, int64 bytes, LockType type) override;
  void close() override;

  // Reads exactly bytes; an end of the connection before that is CIOError
  // UnexpectedEnd.
  void read(void* buffer, int bytes) override;
  // As read(), but receives nothing beyond the bytes asked for (see above).
  void readWithoutReadAhead(void* buffer, int bytes);
  int readLax(void* buffer, int bytes) override;
  int readAvailable(void* buffer, int bytes) override;
  bool waitReadable(int timeout) const override;
  bool isEndOfStream() const override;
  int isEndOfStream_NonBlocking() const override;

 protected:
  enum Readiness { NotReady = 0, DataReady = 1, Ended = 2 };

  CConnectionInStream() = default;

  // Blocking (wait true): waits until at least one byte has come and returns
  // how many were stored (at most bytes), or 0 when the other end closed.
  // Non-blocking: returns what is there now, 0 when nothing is (an end seen
  // then is reported by pollReadable). Failures throw.
  virtual int receive(void* buffer, int bytes, bool wait) = 0;
  // Waits up to timeoutMs (-1: without limit, 0: not at all) for data or the
  // end; never consumes anything.
  virtual Readiness pollReadable(int timeoutMs) const = 0;
  // Releases this half's hold on the transport; called once.
  virtual void closeTransport() = 0;

  void checkOpen() const;
  bool isClosed() const { return m_closed; }

 private:
  static constexpr int kSmallReadBuffer = 4096;

  // Takes up to bytes from the small buffer; returns the count taken.
  int takeBuffered(void* buffer, int bytes);

  unsigned char m_small[kSmallReadBuffer];
  int m_smallStart = 0;
  int m_smallEnd = 0;
  int64 m_position = 0;
  // Atomic: IConnection::close() may close the streams from another thread
  // while their owner reads or writes.
  std::atomic<bool> m_closed{false};
};

class ZEL_API CConnectionOutStream : public CBase, public IOutStream {
 public:
  ~CConnectionOutStream() override;

  int64 getLength() const override { return -1; }
  int64 getPosition() const override;
  CURI getURI() override { return CURI(); }
  void seek(int64 position) override;
  P<IStreamLock> lockRange(int64 startPos, int64 bytes, LockType type) override;
  void close() override;

  void write(const void* buffer, int bytes, IWriteBarrier* barrier = nullptr) override;
  void writeKeepBuffer(const TConstBufferSlice<unsigned char>& data,
                       IWriteBarrier* barrier = nullptr) override;
  P<IWriteBarrier> createWriteBarrier(IWriteBarrier* parent = nullptr) override;
  void flush() override;
  void setLength(int64 length) override;

  // Writes first then second (either count may be 0), as one system call
  // where the transport can.
  void writeGather(const void* first, int firstBytes, const void* second, int secondBytes);
  // Whether sendFromFile() works on this transport.
  virtual bool canSendFromFile() const { return false; }
  // Sends up to count bytes of the local file fileHandle (a descriptor of
  // the file-system layer) from offset, without moving the file's own
  // position. Returns the bytes sent: fewer than count only when the file
  // ended first. Refused (CBadStateError) where canSendFromFile() is false.
  int64 sendFromFile(int64 fileHandle, int64 offset, int64 count);

 protected:
  CConnectionOutStream() = default;

  // Sends all bytes (bytes > 0) or throws.
  virtual void send(const void* buffer, int bytes) = 0;
  // Sends both buffers (counts > 0) or throws; the default sends them in
  // turn.
  virtual void sendGather(const void* first, int firstBytes, const void* second,
                          int secondBytes);
  // See sendFromFile (count > 0).
  virtual int64 sendFile(int64 fileHandle, int64 offset, int64 count);
  virtual void closeTransport() = 0;

  void checkOpen() const;

 private:
  int64 m_position = 0;
  std::atomic<bool> m_closed{false};
};

}  // namespace zel
