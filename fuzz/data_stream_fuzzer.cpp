// Fuzzes CDataInStream and loadError with arbitrary bytes.
//
// Input layout: byte 0 holds the number of reads minus one (bits 0-3) and
// whether the stream hides its length (bit 7: a pipe-like stream, so texts
// are read in chunks instead of being checked against the length); the next
// bytes choose one read each (value % 13 the type, value / 16 % 3 the form:
// returning, by reference, operator>>); the rest is the data they decode.
//
// Every read either fails with one of the documented errors (end of data and
// invalid data from the stream, an unsupported version or bad parameter text
// from loadError) or yields a value. A value is written again and must give
// back the bytes it came from, except where the encoding is lossy by design;
// there the value must survive a second trip unchanged:
//   - bool: any non-zero byte reads true and is written as 01;
//   - double: 80-bit values that no double encodes to (extra mantissa bits,
//     NaNs, out of range, unnormals) read as a nearby double;
//   - text: a zero byte cuts a text when it is written (any other bytes,
//     UTF-8 or not, are written back as they were read);
//   - stored errors: the texts inside them as above, and any non-zero
//     has-cause byte.
// Allocations stay bounded by the input: run with -malloc_limit_mb to check.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "zel/core/error.h"
#include "zel/stream/buffer_stream.h"
#include "zel/stream/data_stream.h"
#include "zel/stream/stored_error.h"

namespace {

using zel::CBase;
using zel::CDataInStream;
using zel::CDataOutStream;
using zel::CError;
using zel::CIOError;
using zel::createObject;
using zel::int64;
using zel::P;
using zel::PC;
using zel::String;
using zel::uint64;
using Bytes = std::vector<unsigned char>;

// An input stream that does not know its length, like a pipe.
class CUnknownLengthInStream : public CBase, public zel::IInStream {
 public:
  explicit CUnknownLengthInStream(zel::IInStream* inner) : m_inner(inner) {}
  int64 getLength() const override { return -1; }
  int64 getPosition() const override { return m_inner->getPosition(); }
  zel::CURI getURI() override { return m_inner->getURI(); }
  void seek(int64 position) override { m_inner->seek(position); }
  P<zel::IStreamLock> lockRange(int64 start, int64 bytes, LockType type) override {
    return m_inner->lockRange(start, bytes, type);
  }
  void close() override { m_inner->close(); }
  void read(void* buffer, int bytes) override { m_inner->read(buffer, bytes); }
  int readLax(void* buffer, int bytes) override { return m_inner->readLax(buffer, bytes); }
  int readAvailable(void* buffer, int bytes) override {
    return m_inner->readAvailable(buffer, bytes);
  }
  bool waitReadable(int timeout) const override { return m_inner->waitReadable(timeout); }
  bool isEndOfStream() const override { return m_inner->isEndOfStream(); }
  int isEndOfStream_NonBlocking() const override { return m_inner->isEndOfStream_NonBlocking(); }

 private:
  P<zel::IInStream> m_inner;
};

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "data_stream_fuzzer: %s\n", what);
  std::abort();
}

void check(bool condition, const char* what) {
  if (!condition) fail(what);
}

template <class Fill>
Bytes encode(Fill&& fill) {
  P<zel::CBufferStream> buffer = createObject<zel::CBufferStream>();
  P<CDataOutStream> out = createObject<CDataOutStream>(buffer.get());
  fill(*out);
  const auto& data = *buffer->getBuffer();
  return Bytes(data.getData(), data.getData() + data.getSize());
}

P<CDataInStream> readerOf(const Bytes& bytes) {
  P<zel::CBufferStream> buffer = createObject<zel::CBufferStream>(bytes.data(), bytes.size(), true);
  return createObject<CDataInStream>(buffer.get());
}

// A text as written: the bytes up to the first zero character.
String cutAtZero(const String& text) {
  const wchar_t* p = text.toWChar();
  const size_t length = static_cast<size_t>(text.getLength());
  size_t n = 0;
  while (n < length && p[n]) ++n;
  return String(p, n);
}

// Whether the text field at data[0..) (length prefix included) is in the form
// the encoder writes; advances pos past it. Assumes it was read successfully.
bool canonicalTextAt(const Bytes& data, size_t& pos) {
  const uint32_t n = uint32_t(data[pos]) | uint32_t(data[pos + 1]) << 8 |
                     uint32_t(data[pos + 2]) << 16 | uint32_t(data[pos + 3]) << 24;
  pos += 4;
  const unsigned char* text = data.data() + pos;
  pos += n;
  return std::memchr(text, 0, n) == nullptr;
}

// Whether a stored error read from data is exactly what storeError writes:
// only then must its bytes come back unchanged.
bool canonicalStoredError(const Bytes& data) {
  size_t pos = 0;
  bool canonical = true;
  for (;;) {
    pos += 4;  // version
    canonical &= canonicalTextAt(data, pos);
    canonical &= canonicalTextAt(data, pos);
    pos += 8;  // code
    canonical &= canonicalTextAt(data, pos);
    const unsigned char hasCause = data[pos++];
    canonical &= hasCause <= 1;
    if (!hasCause) return canonical;
  }
}

bool hasZero(const String& text) { return cutAtZero(text).getLength() != text.getLength(); }

// Whether some level's parameter text holds a zero character: writing cuts
// it there, and the cut text no longer parses, so such an error cannot make a
// second trip.
bool paramsHoldZero(const PC<CError>& error) {
  for (PC<CError> e = error; e; e = e->getCause()) {
    if (hasZero(e->getParams().toString())) return true;
  }
  return false;
}

// again is what 'loaded' stored to; 'reloaded' what came back from it.
void checkSameChain(const PC<CError>& reloaded, const PC<CError>& loaded) {
  PC<CError> x = reloaded, y = loaded;
  for (; x && y; x = x->getCause(), y = y->getCause()) {
    check(x->getMessage() == cutAtZero(y->getMessage()), "stored error: message changed");
    check(x->getErrorCodeDomain() == cutAtZero(y->getErrorCodeDomain()),
          "stored error: domain changed");
    check(x->getErrorCode() == y->getErrorCode(), "stored error: code changed");
    check(x->getParams() == y->getParams(), "stored error: parameters changed");
  }
  check(!x && !y, "stored error: depth changed");
}

uint64_t bitsOf(double value) {
  uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

enum Op {
  OpInt8,
  OpUInt8,
  OpInt16,
  OpUInt16,
  OpInt32,
  OpUInt32,
  OpInt64,
  OpUInt64,
  OpBool,
  OpDouble,
  OpString,
  OpUTF8,
  OpLoadError,
  OpCount
};

// Reads a value of type T in one of the three forms.
template <class T>
T readIn(CDataInStream& in, int form, T (CDataInStream::*byValue)(),
         CDataInStream& (CDataInStream::*byRef)(T&)) {
  T value{};
  if (form == 0) {
    value = (in.*byValue)();
  } else if (form == 1) {
    (in.*byRef)(value);
  } else {
    in >> value;
  }
  return value;
}

template <class T>
void integerTrip(CDataInStream& in, int form, const Bytes& data, int64 start,
                 T (CDataInStream::*byValue)(), CDataInStream& (CDataInStream::*byRef)(T&)) {
  const T value = readIn<T>(in, form, byValue, byRef);
  const Bytes again = encode([&](CDataOutStream& out) { out << value; });
  check(again.size() == sizeof(T) && std::memcmp(again.data(), data.data() + start, sizeof(T)) == 0,
        "integer does not round-trip");
}

void runOp(int op, int form, CDataInStream& in, const Bytes& data) {
  const int64 start = in.getPosition();
  auto consumed = [&] {
    const int64 end = in.getPosition();
    return Bytes(data.begin() + start, data.begin() + end);
  };
  switch (op) {
    case OpInt8:
      integerTrip<char>(in, form, data, start, &CDataInStream::readInt8, &CDataInStream::readInt8);
      break;
    case OpUInt8:
      integerTrip<unsigned char>(in, form, data, start, &CDataInStream::readUInt8,
                                 &CDataInStream::readUInt8);
      break;
    case OpInt16:
      integerTrip<short>(in, form, data, start, &CDataInStream::readInt16,
                         &CDataInStream::readInt16);
      break;
    case OpUInt16:
      integerTrip<unsigned short>(in, form, data, start, &CDataInStream::readUInt16,
                                  &CDataInStream::readUInt16);
      break;
    case OpInt32:
      integerTrip<int>(in, form, data, start, &CDataInStream::readInt32, &CDataInStream::readInt32);
      break;
    case OpUInt32:
      integerTrip<unsigned int>(in, form, data, start, &CDataInStream::readUInt32,
                                &CDataInStream::readUInt32);
      break;
    case OpInt64:
      integerTrip<int64>(in, form, data, start, &CDataInStream::readInt64,
                         &CDataInStream::readInt64);
      break;
    case OpUInt64:
      integerTrip<uint64>(in, form, data, start, &CDataInStream::readUInt64,
                          &CDataInStream::readUInt64);
      break;
    case OpBool: {
      const bool value = readIn<bool>(in, form, &CDataInStream::readBool, &CDataInStream::readBool);
      check(value == (data[start] != 0), "bool: wrong value");
      const Bytes again = encode([&](CDataOutStream& out) { out << value; });
      check(again.size() == 1 && again[0] == (value ? 1 : 0), "bool: not written as 0 or 1");
      break;
    }
    case OpDouble: {
      const double value =
          readIn<double>(in, form, &CDataInStream::readDouble, &CDataInStream::readDouble);
      check(value == value, "double: NaN decoded");
      const Bytes again = encode([&](CDataOutStream& out) { out << value; });
      if (again != consumed()) {
        // Not the canonical form of a double: the value must be stable.
        check(bitsOf(readerOf(again)->readDouble()) == bitsOf(value == 0 ? 0.0 : value),
              "double: value changes on a second trip");
      }
      break;
    }
    case OpString: {
      const String value =
          readIn<String>(in, form, &CDataInStream::readString, &CDataInStream::readString);
      const Bytes original = consumed();
      const Bytes again = encode([&](CDataOutStream& out) { out << value; });
      size_t pos = 0;
      if (canonicalTextAt(original, pos)) {
        check(again == original, "string: canonical text does not round-trip");
      } else {
        check(readerOf(again)->readString() == cutAtZero(value),
              "string: value changes on a second trip");
      }
      break;
    }
    case OpUTF8: {
      int length = -1;
      char* value = form == 0 ? in.readUTF8() : in.readUTF8(length);
      const Bytes original = consumed();
      const size_t n = original.size() - 4;
      check(form == 0 || length == static_cast<int>(n), "utf8: wrong length");
      check(value[n] == 0, "utf8: no terminator");
      check(std::memcmp(value, original.data() + 4, n) == 0, "utf8: wrong bytes");
      const Bytes again = encode([&](CDataOutStream& out) { out.writeUTF8(value); });
      const size_t cut = std::strlen(value);
      check(again.size() == 4 + cut && std::memcmp(again.data() + 4, value, cut) == 0 &&
                again[0] == static_cast<unsigned char>(cut),
            "utf8: bytes up to the first zero do not round-trip");
      std::free(value);
      break;
    }
    case OpLoadError: {
      const P<CError> loaded = zel::loadError(in);
      const Bytes original = consumed();
      const Bytes again = encode([&](CDataOutStream& out) { zel::storeError(*loaded, out); });
      if (canonicalStoredError(original)) {
        check(again == original, "stored error: canonical form does not round-trip");
      } else if (!paramsHoldZero(loaded)) {
        P<CDataInStream> second = readerOf(again);
        checkSameChain(zel::loadError(*second), loaded);
      }
      break;
    }
    default:
      fail("unknown op");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t size) {
  if (size < 1) return 0;
  const bool hideLength = (input[0] & 0x80) != 0;
  const size_t opCount = (input[0] & 0x0F) + 1u;
  if (size < 1 + opCount) return 0;
  const Bytes data(input + 1 + opCount, input + size);

  P<zel::CBufferStream> buffer = createObject<zel::CBufferStream>(data.data(), data.size(), true);
  P<zel::IInStream> inner = buffer;
  if (hideLength) inner = createObject<CUnknownLengthInStream>(buffer.get());
  P<CDataInStream> in = createObject<CDataInStream>(inner.get());

  for (size_t i = 0; i < opCount; ++i) {
    const int op = input[1 + i] % OpCount;
    const int form = input[1 + i] / 16 % 3;
    try {
      runOp(op, form, *in, data);
    } catch (const CIOError& e) {
      check(
          e.getErrorCode() == CIOError::UnexpectedEnd || e.getErrorCode() == CIOError::InvalidData,
          "unexpected I/O error code");
      return 0;
    } catch (const zel::CParseError&) {
      check(op == OpLoadError, "parse error outside loadError");
      return 0;
    } catch (const CError& e) {
      check(op == OpLoadError && e.getErrorCode() == -1 && e.getErrorCodeDomain().isEmpty() &&
                e.getMessage().toStdUTF8().rfind("Unsupported stored error version: ", 0) == 0,
            "unexpected error");
      return 0;
    }
  }
  return 0;
}
