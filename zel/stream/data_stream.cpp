#include "zel/stream/data_stream.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "zel/stream/ieee_extended.h"

namespace zel {

namespace {

constexpr size_t kMaxTextBytes = static_cast<size_t>(std::numeric_limits<int32>::max());
// Texts up to this many characters are tried for the plain-ASCII path.
constexpr size_t kShortText = 256;

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

CDataOutStream::CDataOutStream(IOutStream* inner)
    : m_inner(inner), m_memory(dynamic_cast<CBufferStream*>(inner)) {
  if (!inner) throw CInvalidArgError("CDataOutStream::CDataOutStream", "the inner stream is null");
}

CDataOutStream::~CDataOutStream() = default;

CDataOutStream& CDataOutStream::writeDouble(double value) {
  signed char bytes[10];
  convertToIeeeExtended(value, bytes);
  return put(bytes, 10);
}

CDataOutStream& CDataOutStream::writeString(const String& value) {
  // Most texts on the wire are short and plain ASCII (names, URIs): their
  // UTF-8 is their characters narrowed, with no conversion buffer.
  const wxString& characters = value.getWxString();
  const size_t count = characters.length();
  if (count <= kShortText) {
    const wchar_t* wide = characters.wc_str();
    char narrow[kShortText];
    size_t i = 0;
    while (i < count && wide[i] > 0 && wide[i] < 0x80) {
      narrow[i] = static_cast<char>(wide[i]);
      ++i;
    }
    if (i == count) {
      writeText(narrow, count, "CDataOutStream::writeString");
      return *this;
    }
  }
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
  if (length > 0) put(text, length);
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

CDataInStream::CDataInStream(IInStream* inner)
    : m_inner(inner), m_memory(dynamic_cast<CBufferStream*>(inner)) {
  if (!inner) throw CInvalidArgError("CDataInStream::CDataInStream", "the inner stream is null");
}

CDataInStream::~CDataInStream() = default;

double CDataInStream::readDouble() {
  signed char bytes[10];
  take(bytes, 10);
  return convertFromIeeeExtended(bytes);
}

String CDataInStream::readString() {
  if (m_memory) {
    // Decoded where the bytes lie when they are all there; otherwise the
    // general path reports what is wrong.
    const int64 start = m_memory->getPosition();
    const int count = readInt32();
    if (count >= 0) {
      if (const unsigned char* bytes = m_memory->readDirectInPlace(static_cast<size_t>(count))) {
        return String::fromUTF8Lossless(reinterpret_cast<const char*>(bytes),
                                        static_cast<size_t>(count));
      }
    }
    m_memory->seek(start);
  }
  int length = 0;
  const MallocBuffer bytes(readUTF8(length));
  return String::fromUTF8Lossless(bytes.get(), static_cast<size_t>(length));
}

char* CDataInStream::readUTF8() {
  int length = 0;
  return readUTF8(length);
}

char* CDataInStream::readUTF8(int& length) {
  const int count = readInt32();
  if (count < 0) throwError(CIOError::InvalidData);
  const size_t total = static_cast<size_t>(count);

  // The length field may lie (a corrupt or hostile stream), and asking the
  // stream how much it still holds costs round trips on some streams: read
  // in chunks instead, the first of firstTextChunk() bytes, the buffer
  // doubling after each, so that what is allocated stays within about twice
  // what has really arrived. A text cut short fails with the inner stream's
  // own error.
  size_t capacity = std::min(total, static_cast<size_t>(firstTextChunk()));
  MallocBuffer buffer(static_cast<char*>(std::malloc(capacity + 1)));
  if (!buffer) throw std::bad_alloc();
  size_t done = 0;
  while (done < total) {
    if (done == capacity) {
      capacity = capacity > total - capacity ? total : capacity * 2;
      reallocate(buffer, capacity + 1);
    }
    take(buffer.get() + done, capacity - done);
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
