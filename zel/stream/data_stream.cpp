#include "zel/stream/data_stream.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "zel/stream/ieee_extended.h"

namespace zel {

namespace {

constexpr size_t kMaxTextBytes = static_cast<size_t>(std::numeric_limits<int32>::max());

template <class U>
void putLittleEndian(unsigned char* out, U value) {
  for (size_t i = 0; i < sizeof(U); ++i) out[i] = static_cast<unsigned char>(value >> (8 * i));
}

template <class U>
U getLittleEndian(const unsigned char* in) {
  U value = 0;
  for (size_t i = 0; i < sizeof(U); ++i) value = static_cast<U>(value | (U(in[i]) << (8 * i)));
  return value;
}

struct FreeDeleter {
  void operator()(char* p) const { std::free(p); }
};
using MallocBuffer = std::unique_ptr<char, FreeDeleter>;

// Grows buffer to capacity bytes; the old block stays owned by buffer if
// this fails.
void reallocate(MallocBuffer& buffer, size_t capacity) {
  char* grown = static_cast<char*>(std::realloc(buffer.get(), capacity));
  if (!grown) throw std::bad_alloc();
  (void)buffer.release();
  buffer.reset(grown);
}

}  // namespace

// --- CDataOutStream -----------------------------------------------------------

CDataOutStream::CDataOutStream(IOutStream* inner) : m_inner(inner) {
  if (!inner) throw CInvalidArgError("CDataOutStream::CDataOutStream", "the inner stream is null");
}

CDataOutStream::~CDataOutStream() = default;

CDataOutStream& CDataOutStream::writeInt8(char value) {
  return writeUInt8(static_cast<unsigned char>(value));
}

CDataOutStream& CDataOutStream::writeUInt8(unsigned char value) {
  m_inner->write(&value, 1);
  return *this;
}

CDataOutStream& CDataOutStream::writeInt16(short value) {
  return writeUInt16(static_cast<unsigned short>(value));
}

CDataOutStream& CDataOutStream::writeUInt16(unsigned short value) {
  unsigned char bytes[2];
  putLittleEndian<uint16>(bytes, value);
  m_inner->write(bytes, 2);
  return *this;
}

CDataOutStream& CDataOutStream::writeInt32(int value) {
  return writeUInt32(static_cast<unsigned int>(value));
}

CDataOutStream& CDataOutStream::writeUInt32(unsigned int value) {
  unsigned char bytes[4];
  putLittleEndian<uint32>(bytes, value);
  m_inner->write(bytes, 4);
  return *this;
}

CDataOutStream& CDataOutStream::writeInt64(int64 value) {
  return writeUInt64(static_cast<uint64>(value));
}

CDataOutStream& CDataOutStream::writeUInt64(uint64 value) {
  unsigned char bytes[8];
  putLittleEndian<uint64>(bytes, value);
  m_inner->write(bytes, 8);
  return *this;
}

CDataOutStream& CDataOutStream::writeBool(bool value) { return writeUInt8(value ? 1 : 0); }

CDataOutStream& CDataOutStream::writeDouble(double value) {
  signed char bytes[10];
  convertToIeeeExtended(value, bytes);
  m_inner->write(bytes, 10);
  return *this;
}

CDataOutStream& CDataOutStream::writeString(const String& value) {
  int length = 0;
  // Escaped bytes go out as the raw bytes they stand for: a file name that is
  // not UTF-8 reaches the other side as it is on the disk.
  const wxCharBuffer utf8 = value.toUTF8Lossless(&length);
  // Cut at the first zero character, as for a C string.
  const char* text = utf8.data();
  const auto* zero = static_cast<const char*>(std::memchr(text, 0, static_cast<size_t>(length)));
  const size_t bytes = zero ? static_cast<size_t>(zero - text) : static_cast<size_t>(length);
  writeText(text, bytes, "CDataOutStream::writeString");
  return *this;
}

CDataOutStream& CDataOutStream::writeUTF8(const char* value) {
  writeText(value, value ? std::strlen(value) : 0, "CDataOutStream::writeUTF8");
  return *this;
}

CDataOutStream& CDataOutStream::operator<<(const char* value) {
  return writeString(String(value, wxConvISO8859_1));
}

CDataOutStream& CDataOutStream::operator<<(const wchar_t* value) {
  return writeString(String(value));
}

void CDataOutStream::writeText(const char* text, size_t length, const char* function) {
  if (length > kMaxTextBytes) {
    throw CInvalidArgError(function, "a text of " + String::fromInt64(static_cast<int64>(length)) +
                                         " bytes exceeds the limit of " +
                                         String::fromInt64(static_cast<int64>(kMaxTextBytes)) +
                                         " bytes");
  }
  writeInt32(static_cast<int>(length));
  if (length > 0) m_inner->write(text, static_cast<int>(length));
}

template <class Write>
CDataOutStream& CDataOutStream::patch(int64 position, Write&& write) {
  const int64 saved = m_inner->getPosition();
  m_inner->seek(position);
  try {
    write();
  } catch (...) {
    // The write's failure is the one to report; a failing seek back only
    // loses the position, which the caller cannot rely on after a failure.
    try {
      m_inner->seek(saved);
    } catch (...) {
    }
    throw;
  }
  m_inner->seek(saved);
  return *this;
}

CDataOutStream& CDataOutStream::patchInt8(int64 position, char value) {
  return patch(position, [&] { writeInt8(value); });
}

CDataOutStream& CDataOutStream::patchUInt8(int64 position, unsigned char value) {
  return patch(position, [&] { writeUInt8(value); });
}

CDataOutStream& CDataOutStream::patchInt16(int64 position, short value) {
  return patch(position, [&] { writeInt16(value); });
}

CDataOutStream& CDataOutStream::patchUInt16(int64 position, unsigned short value) {
  return patch(position, [&] { writeUInt16(value); });
}

CDataOutStream& CDataOutStream::patchInt32(int64 position, int value) {
  return patch(position, [&] { writeInt32(value); });
}

CDataOutStream& CDataOutStream::patchUInt32(int64 position, unsigned int value) {
  return patch(position, [&] { writeUInt32(value); });
}

CDataOutStream& CDataOutStream::patchInt64(int64 position, int64 value) {
  return patch(position, [&] { writeInt64(value); });
}

CDataOutStream& CDataOutStream::patchUInt64(int64 position, uint64 value) {
  return patch(position, [&] { writeUInt64(value); });
}

CDataOutStream& CDataOutStream::patchBool(int64 position, bool value) {
  return patch(position, [&] { writeBool(value); });
}

CDataOutStream& CDataOutStream::patchDouble(int64 position, double value) {
  return patch(position, [&] { writeDouble(value); });
}

CDataOutStream& CDataOutStream::patchString(int64 position, const String& value) {
  return patch(position, [&] { writeString(value); });
}

int64 CDataOutStream::getLength() const { return m_inner->getLength(); }
int64 CDataOutStream::getPosition() const { return m_inner->getPosition(); }
CURI CDataOutStream::getURI() { return m_inner->getURI(); }
void CDataOutStream::seek(int64 position) { m_inner->seek(position); }
P<IStreamLock> CDataOutStream::lockRange(int64 startPos, int64 bytes, LockType type) {
  return m_inner->lockRange(startPos, bytes, type);
}
void CDataOutStream::close() { m_inner->close(); }

void CDataOutStream::write(const void* buffer, int bytes, IWriteBarrier* barrier) {
  m_inner->write(buffer, bytes, barrier);
}
void CDataOutStream::writeKeepBuffer(const TConstBufferSlice<unsigned char>& data,
                                     IWriteBarrier* barrier) {
  m_inner->writeKeepBuffer(data, barrier);
}
P<IWriteBarrier> CDataOutStream::createWriteBarrier(IWriteBarrier* parent) {
  return m_inner->createWriteBarrier(parent);
}
void CDataOutStream::flush() { m_inner->flush(); }
void CDataOutStream::setLength(int64 length) { m_inner->setLength(length); }

// --- CDataInStream ------------------------------------------------------------

CDataInStream::CDataInStream(IInStream* inner) : m_inner(inner) {
  if (!inner) throw CInvalidArgError("CDataInStream::CDataInStream", "the inner stream is null");
}

CDataInStream::~CDataInStream() = default;

char CDataInStream::readInt8() { return static_cast<char>(readUInt8()); }

unsigned char CDataInStream::readUInt8() {
  unsigned char value;
  m_inner->read(&value, 1);
  return value;
}

short CDataInStream::readInt16() { return static_cast<short>(readUInt16()); }

unsigned short CDataInStream::readUInt16() {
  unsigned char bytes[2];
  m_inner->read(bytes, 2);
  return getLittleEndian<uint16>(bytes);
}

int CDataInStream::readInt32() { return static_cast<int>(readUInt32()); }

unsigned int CDataInStream::readUInt32() {
  unsigned char bytes[4];
  m_inner->read(bytes, 4);
  return getLittleEndian<uint32>(bytes);
}

int64 CDataInStream::readInt64() { return static_cast<int64>(readUInt64()); }

uint64 CDataInStream::readUInt64() {
  unsigned char bytes[8];
  m_inner->read(bytes, 8);
  return getLittleEndian<uint64>(bytes);
}

bool CDataInStream::readBool() { return readUInt8() != 0; }

double CDataInStream::readDouble() {
  signed char bytes[10];
  m_inner->read(bytes, 10);
  return convertFromIeeeExtended(bytes);
}

String CDataInStream::readString() {
  int length = 0;
  const MallocBuffer bytes(readUTF8(length));
  return String::fromUTF8Lossless(bytes.get(), static_cast<size_t>(length));
}

CDataInStream& CDataInStream::readInt8(char& value) {
  value = readInt8();
  return *this;
}
CDataInStream& CDataInStream::readUInt8(unsigned char& value) {
  value = readUInt8();
  return *this;
}
CDataInStream& CDataInStream::readInt16(short& value) {
  value = readInt16();
  return *this;
}
CDataInStream& CDataInStream::readUInt16(unsigned short& value) {
  value = readUInt16();
  return *this;
}
CDataInStream& CDataInStream::readInt32(int& value) {
  value = readInt32();
  return *this;
}
CDataInStream& CDataInStream::readUInt32(unsigned int& value) {
  value = readUInt32();
  return *this;
}
CDataInStream& CDataInStream::readInt64(int64& value) {
  value = readInt64();
  return *this;
}
CDataInStream& CDataInStream::readUInt64(uint64& value) {
  value = readUInt64();
  return *this;
}
CDataInStream& CDataInStream::readBool(bool& value) {
  value = readBool();
  return *this;
}
CDataInStream& CDataInStream::readDouble(double& value) {
  value = readDouble();
  return *this;
}
CDataInStream& CDataInStream::readString(String& value) {
  value = readString();
  return *this;
}

char* CDataInStream::readUTF8() {
  int length = 0;
  return readUTF8(length);
}

char* CDataInStream::readUTF8(int& length) {
  const int count = readInt32();
  if (count < 0) throwError(CIOError::InvalidData);
  const size_t total = static_cast<size_t>(count);

  // A stream that knows its length tells at once whether the text can be
  // there; then one block of the exact size is enough.
  const int64 streamLength = m_inner->getLength();
  size_t capacity = total;
  if (streamLength >= 0) {
    const int64 remaining = streamLength - m_inner->getPosition();
    if (count > 0 && count > remaining) {
      throwError(CIOError::InvalidData, "Text length of " + String::fromInt64(count) +
                                            " bytes exceeds the " +
                                            String::fromInt64(remaining < 0 ? 0 : remaining) +
                                            " bytes left in the stream.");
    }
  } else if (capacity > static_cast<size_t>(firstTextChunk())) {
    capacity = static_cast<size_t>(firstTextChunk());
  }

  MallocBuffer buffer(static_cast<char*>(std::malloc(capacity + 1)));
  if (!buffer) throw std::bad_alloc();
  // Of unknown length: each chunk fills the buffer, which then doubles, so
  // what is allocated stays within about twice what has arrived.
  size_t done = 0;
  while (done < total) {
    if (done == capacity) {
      capacity = capacity > total - capacity ? total : capacity * 2;
      reallocate(buffer, capacity + 1);
    }
    m_inner->read(buffer.get() + done, static_cast<int>(capacity - done));
    done = capacity;
  }
  buffer.get()[total] = 0;
  length = count;
  return buffer.release();
}

void CDataInStream::throwError(CIOError::Code code) { throwError(code, String()); }

void CDataInStream::throwError(CIOError::Code code, const String& message) {
  CProps params;
  try {
    const CURI uri = getURI();
    if (!uri.isEmpty()) params.set(CIOError::paramURI(), uri.toString());
  } catch (const CError&) {
    // The error being reported matters more than its address.
  }
  throw CIOError(code, message, params);
}

int64 CDataInStream::getLength() const { return m_inner->getLength(); }
int64 CDataInStream::getPosition() const { return m_inner->getPosition(); }
CURI CDataInStream::getURI() { return m_inner->getURI(); }
void CDataInStream::seek(int64 position) { m_inner->seek(position); }
P<IStreamLock> CDataInStream::lockRange(int64 startPos, int64 bytes, LockType type) {
  return m_inner->lockRange(startPos, bytes, type);
}
void CDataInStream::close() { m_inner->close(); }

void CDataInStream::read(void* buffer, int bytes) { m_inner->read(buffer, bytes); }
int CDataInStream::readLax(void* buffer, int bytes) { return m_inner->readLax(buffer, bytes); }
int CDataInStream::readAvailable(void* buffer, int bytes) {
  return m_inner->readAvailable(buffer, bytes);
}
bool CDataInStream::waitReadable(int timeout) const { return m_inner->waitReadable(timeout); }
bool CDataInStream::isEndOfStream() const { return m_inner->isEndOfStream(); }
int CDataInStream::isEndOfStream_NonBlocking() const {
  return m_inner->isEndOfStream_NonBlocking();
}

}  // namespace zel
