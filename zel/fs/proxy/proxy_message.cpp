#include "zel/fs/proxy/proxy_message.h"

#include <cstring>

#include "zel/core/error.h"
#include "zel/ipc/connection_stream.h"
#include "zel/stream/buffer_stream.h"

namespace zel {

namespace {

int decodeLength(const unsigned char* field) {
  const uint32 value = static_cast<uint32>(field[0]) | static_cast<uint32>(field[1]) << 8 |
                       static_cast<uint32>(field[2]) << 16 | static_cast<uint32>(field[3]) << 24;
  return static_cast<int>(value);
}

void checkLength(int length, int maxFrameLength) {
  if (length < 0 || length > maxFrameLength) {
    throw CIOError(CIOError::InvalidData,
                   "Proxy filesystem frame length " + String::fromInt64(length) +
                       " is outside the allowed range 0 to " + String::fromInt64(maxFrameLength));
  }
}

}  // namespace

CProxyFileSystemMessage::CProxyFileSystemMessage() : m_buffer(createObject<Buffer>(kHeader)) {}

CProxyFileSystemMessage::~CProxyFileSystemMessage() = default;

P<CDataOutStream> CProxyFileSystemMessage::clearAndOpenOutStream() {
  m_buffer->resize(kHeader);
  m_bulk = TConstBufferSlice<unsigned char>();
  if (!m_out || m_outBuffer->isClosed()) {
    m_outBuffer = createObject<CBufferStream>(m_buffer);
    m_out = createObject<CDataOutStream>(m_outBuffer.get());
  }
  m_outBuffer->seek(kHeader);
  return m_out;
}

P<CDataInStream> CProxyFileSystemMessage::openInStream() {
  if (m_bulk.isEmpty()) {
    if (!m_in || m_inBuffer->isClosed()) {
      m_inBuffer = createObject<CBufferStream>(m_buffer, true);
      m_in = createObject<CDataInStream>(m_inBuffer.get());
    }
    m_inBuffer->seek(kHeader);
    return m_in;
  }
  // Receivers of bulk data read it straight from the connection; a message
  // with a tail is read back only by tests and tools, so a copy is fine.
  P<Buffer> whole = createObject<Buffer>(getPayloadBytes());
  return createObject<CDataInStream>(createObject<CBufferStream>(whole, true).get());
}

int64 CProxyFileSystemMessage::getPayloadLength() const {
  return static_cast<int64>(m_buffer->getSize() - kHeader + m_bulk.getLength());
}

CProxyFileSystemMessage::Buffer CProxyFileSystemMessage::getPayloadBytes() const {
  Buffer bytes(m_buffer->getData() + kHeader, m_buffer->getSize() - kHeader);
  bytes.append(m_bulk.getData(), m_bulk.getLength());
  return bytes;
}

void CProxyFileSystemMessage::setBulkData(const TConstBufferSlice<unsigned char>& data) {
  m_bulk = data;
}

void CProxyFileSystemMessage::write(IOutStream& out, int64 followingBytes) {
  const int64 length = getPayloadLength() + (followingBytes > 0 ? followingBytes : 0);
  if (length > 0x7FFFFFFF) {
    throw CIOError(CIOError::InvalidData, "Proxy filesystem message too large to send: " +
                                              String::fromInt64(length) + " bytes");
  }
  unsigned char* header = m_buffer->getData();
  const uint32 value = static_cast<uint32>(length);
  header[0] = static_cast<unsigned char>(value);
  header[1] = static_cast<unsigned char>(value >> 8);
  header[2] = static_cast<unsigned char>(value >> 16);
  header[3] = static_cast<unsigned char>(value >> 24);
  const int headerBytes = static_cast<int>(m_buffer->getSize());
  if (m_bulk.isEmpty()) {
    out.write(header, headerBytes);
    return;
  }
  const int bulkBytes = static_cast<int>(m_bulk.getLength());
  if (auto* connection = dynamic_cast<CConnectionOutStream*>(&out)) {
    connection->writeGather(header, headerBytes, m_bulk.getData(), bulkBytes);
  } else {
    out.write(header, headerBytes);
    out.write(m_bulk.getData(), bulkBytes);
  }
}

P<CProxyFileSystemMessage> CProxyFileSystemMessage::read(IInStream& in, int maxFrameLength) {
  unsigned char field[kHeader];
  return readInternal(in, field, 0, maxFrameLength);
}

P<CProxyFileSystemMessage> CProxyFileSystemMessage::readIfAvailable(IInStream& in,
                                                                    int maxFrameLength) {
  unsigned char field[kHeader];
  const int got = in.readAvailable(field, kHeader);
  if (got <= 0) return P<CProxyFileSystemMessage>();
  return readInternal(in, field, got, maxFrameLength);
}

int CProxyFileSystemMessage::readFrameLength(IInStream& in, int maxFrameLength) {
  unsigned char field[kHeader];
  in.read(field, kHeader);
  return decodeFrameLength(field, maxFrameLength);
}

int CProxyFileSystemMessage::decodeFrameLength(const unsigned char* field, int maxFrameLength) {
  const int length = decodeLength(field);
  checkLength(length, maxFrameLength);
  return length;
}

P<CProxyFileSystemMessage> CProxyFileSystemMessage::readInternal(IInStream& in,
                                                                 unsigned char* lengthField,
                                                                 int prefixBytes,
                                                                 int maxFrameLength) {
  if (prefixBytes < kHeader) in.read(lengthField + prefixBytes, kHeader - prefixBytes);
  const int length = decodeLength(lengthField);
  checkLength(length, maxFrameLength);
  return readPayload(in, length);
}

bool CProxyFileSystemMessage::readNext(IInStream& in, int maxFrameLength) {
  unsigned char field[kHeader];
  const int got = in.readLax(field, kHeader);
  if (got == 0) return false;
  if (got < kHeader) throw CIOError(CIOError::UnexpectedEnd);
  const int length = decodeLength(field);
  checkLength(length, maxFrameLength);
  m_bulk = TConstBufferSlice<unsigned char>();
  // Only the bytes beyond the old size are zeroed; all are overwritten.
  m_buffer->resize(kHeader + static_cast<size_t>(length));
  if (length > 0) in.read(m_buffer->getData() + kHeader, length);
  return true;
}

P<CProxyFileSystemMessage> CProxyFileSystemMessage::readPayload(IInStream& in, int length) {
  P<CProxyFileSystemMessage> message = createObject<CProxyFileSystemMessage>();
  message->m_buffer->resize(kHeader + static_cast<size_t>(length));
  if (length > 0) in.read(message->m_buffer->getData() + kHeader, length);
  return message;
}

}  // namespace zel
