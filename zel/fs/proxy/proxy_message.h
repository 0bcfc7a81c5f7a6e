// CProxyFileSystemMessage: one frame of the cross-process file-system
// protocol (proxy_protocol.h), its payload and an optional bulk tail.
//
// The payload lives in one growable buffer, preceded by room for the 4-byte
// length, so that write() sends a frame with one call. Bulk data (the bytes
// of a read result or a write request) may be attached as a separate tail
// (setBulkData): it is sent from its own buffer, which keeps large transfers
// page-aligned and avoids copying them into the payload. On the wire the tail
// is simply the end of the payload; openInStream() reads both in turn.
//
// Not synchronised.
#pragma once

#include "zel/core/base.h"
#include "zel/core/buffer.h"
#include "zel/core/export.h"
#include "zel/fs/proxy/proxy_protocol.h"
#include "zel/stream/buffer_stream.h"
#include "zel/stream/data_stream.h"
#include "zel/stream/stream.h"

namespace zel {

class ZEL_API CProxyFileSystemMessage : public CBase {
 public:
  using Buffer = TBuffer<unsigned char>;

  CProxyFileSystemMessage();
  ~CProxyFileSystemMessage() override;

  // Empties the message (payload and tail) and returns a stream that appends
  // to the payload. The stream is the message's own, made once: every call
  // returns it again.
  P<CDataOutStream> clearAndOpenOutStream();
  // A stream reading the payload, then the tail, from the start. Without a
  // tail the stream is the message's own, made once: every call returns it
  // again, positioned at the start.
  P<CDataInStream> openInStream();

  // The payload length including the tail.
  int64 getPayloadLength() const;
  // A copy of the payload with its tail, for tests and tools.
  Buffer getPayloadBytes() const;

  // Attaches data as the payload's tail (replacing an earlier one). The
  // message keeps a reference to the buffer; the caller must not change that
  // part of it while the message lives.
  void setBulkData(const TConstBufferSlice<unsigned char>& data);

  // Writes the 4-byte length, then the payload and the tail (on a
  // connection, as one gather write). A payload above the largest frame
  // (CProxyFileSystemBase::kDefaultMaxFrameLength is not a sender's limit;
  // 2^31 - 1 bytes is) throws CIOError InvalidData. followingBytes: bytes of
  // the frame that the caller sends itself right after (a file range sent
  // from the page cache); the length field counts them.
  void write(IOutStream& out, int64 followingBytes = 0);

  // Reads one frame, blocking until all of it has come. A length below 0 or
  // above maxFrameLength throws CIOError InvalidData before anything is
  // allocated; an end of the stream inside the frame throws CIOError
  // UnexpectedEnd.
  static P<CProxyFileSystemMessage> read(
      IInStream& in, int maxFrameLength = CProxyFileSystemBase::kDefaultMaxFrameLength);
  // As read(), but returns null at once when no byte of a frame is pending.
  // Once the first byte is there the rest is read blocking.
  static P<CProxyFileSystemMessage> readIfAvailable(
      IInStream& in, int maxFrameLength = CProxyFileSystemBase::kDefaultMaxFrameLength);
  // Reads a frame's 4-byte length field (blocking) and checks it against
  // maxFrameLength as read() does; for receivers that read the payload
  // themselves.
  static int readFrameLength(IInStream& in,
                             int maxFrameLength = CProxyFileSystemBase::kDefaultMaxFrameLength);
  // The value of a 4-byte length field read by the caller, checked as
  // readFrameLength() does.
  static int decodeFrameLength(const unsigned char* field,
                               int maxFrameLength = CProxyFileSystemBase::kDefaultMaxFrameLength);
  // Reads a payload of length bytes (already checked) into a new message.
  static P<CProxyFileSystemMessage> readPayload(IInStream& in, int length);
  // Reads the next frame into this message, reusing its buffer (a server
  // reads every request of a connection into one message). Blocks in the
  // read itself; false when the stream ended cleanly before the frame's
  // first byte. Otherwise as read().
  bool readNext(IInStream& in, int maxFrameLength = CProxyFileSystemBase::kDefaultMaxFrameLength);

 protected:
  // Completes a frame of which prefixBytes (0 to 4) bytes of the length
  // field have been read into lengthField.
  static P<CProxyFileSystemMessage> readInternal(IInStream& in, unsigned char* lengthField,
                                                 int prefixBytes, int maxFrameLength);

 private:
  static constexpr int kHeader = 4;

  P<Buffer> m_buffer;  // kHeader bytes of room for the length, then the payload
  TConstBufferSlice<unsigned char> m_bulk;
  // The streams over m_buffer, made on first use: a server reads and writes
  // one message per request with them.
  P<CBufferStream> m_outBuffer;
  P<CDataOutStream> m_out;
  P<CBufferStream> m_inBuffer;
  P<CDataInStream> m_in;
};

}  // namespace zel
