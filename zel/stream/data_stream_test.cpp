#include "zel/stream/data_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include "zel/stream/buffer_stream.h"

namespace zel {
namespace {

using Bytes = std::vector<unsigned char>;

std::string hex(const unsigned char* data, size_t size) {
  std::string out;
  for (size_t i = 0; i < size; ++i) {
    static const char digits[] = "0123456789ABCDEF";
    if (!out.empty()) out += ' ';
    out += digits[data[i] >> 4];
    out += digits[data[i] & 15];
  }
  return out;
}

std::string hex(const CBufferStream& stream) {
  const auto& buffer = *stream.getBuffer();
  return hex(buffer.getData(), buffer.getSize());
}

// A data stream over a fresh memory stream.
struct Writer {
  P<CBufferStream> buffer = createObject<CBufferStream>();
  P<CDataOutStream> out = createObject<CDataOutStream>(buffer.get());
  std::string bytes() const { return hex(*buffer); }
};

P<CDataInStream> readerOf(const Bytes& bytes) {
  P<CBufferStream> buffer = createObject<CBufferStream>(bytes.data(), bytes.size(), true);
  return createObject<CDataInStream>(buffer.get());
}

// An input stream that serves given bytes and records what it is asked for;
// it can hide its length, as a pipe does.
class CScriptedInStream : public CBase, public IInStream {
 public:
  CScriptedInStream(Bytes bytes, bool lengthKnown)
      : m_bytes(std::move(bytes)), m_lengthKnown(lengthKnown) {}

  std::vector<int> readSizes;  // every read() request, in order
  mutable int lengthOrPositionAsked = 0;

  int64 getLength() const override {
    ++lengthOrPositionAsked;
    return m_lengthKnown ? static_cast<int64>(m_bytes.size()) : -1;
  }
  int64 getPosition() const override {
    ++lengthOrPositionAsked;
    return static_cast<int64>(m_position);
  }
  CURI getURI() override { return m_uri; }
  void seek(int64) override { throw CNotImplementedError("CScriptedInStream::seek"); }
  P<IStreamLock> lockRange(int64, int64, LockType) override {
    throw CNotImplementedError("CScriptedInStream::lockRange");
  }
  void close() override {}
  void read(void* buffer, int bytes) override {
    readSizes.push_back(bytes);
    if (readLax(buffer, bytes) < bytes) {
      throw CIOError(CIOError::UnexpectedEnd, "Scripted stream ended.", CProps());
    }
  }
  int readLax(void* buffer, int bytes) override {
    const size_t count =
        std::min(static_cast<size_t>(std::max(bytes, 0)), m_bytes.size() - m_position);
    if (count) std::memcpy(buffer, m_bytes.data() + m_position, count);
    m_position += count;
    return static_cast<int>(count);
  }
  int readAvailable(void* buffer, int bytes) override { return readLax(buffer, bytes); }
  bool waitReadable(int) const override { return true; }
  bool isEndOfStream() const override { return m_position == m_bytes.size(); }
  int isEndOfStream_NonBlocking() const override { return isEndOfStream() ? 1 : 0; }

  void setURI(const CURI& uri) { m_uri = uri; }

 private:
  Bytes m_bytes;
  bool m_lengthKnown;
  size_t m_position = 0;
  CURI m_uri;
};

// A reader exposing the protected throwError.
class CTestDataInStream : public CDataInStream {
 public:
  using CDataInStream::CDataInStream;
  using CDataInStream::throwError;
};

Bytes lengthPrefix(uint32_t length) {
  return {static_cast<unsigned char>(length), static_cast<unsigned char>(length >> 8),
          static_cast<unsigned char>(length >> 16), static_cast<unsigned char>(length >> 24)};
}

template <class F>
CIOError expectIOError(F&& f) {
  try {
    f();
  } catch (const CIOError& e) {
    return e;
  } catch (const std::exception& e) {
    ADD_FAILURE() << "unexpected exception: " << e.what();
    return CIOError(CIOError::Unknown, "unexpected exception");
  }
  ADD_FAILURE() << "no exception";
  return CIOError(CIOError::Unknown, "no exception");
}

// --- Writing values -----------------------------------------------------------
//
// Byte patterns of single values are in the shared vectors
// (data_vectors_test.cpp); these cases cover how the operations combine.

TEST(CDataOutStreamTest, OperatorsWriteTheWidthOfTheirType) {
  Writer w;
  *w.out << 'A' << static_cast<signed char>(-3) << static_cast<unsigned char>(0xFE)
         << static_cast<short>(-2) << static_cast<unsigned short>(2) << 1 << 2u
         << static_cast<int64>(-1) << static_cast<uint64>(3) << true << false << 1.0;
  EXPECT_EQ(w.bytes(),
            "41 FD FE FE FF 02 00 01 00 00 00 02 00 00 00 FF FF FF FF FF FF FF FF "
            "03 00 00 00 00 00 00 00 01 00 3F FF 80 00 00 00 00 00 00 00");
}

template <class T>
concept Writable = requires(CDataOutStream& out, T value) {
  out << value;
};

// long is 32-bit on Windows and 64-bit on Linux; the 64-bit type that is not
// int64 here (long long on Linux, long on Windows) must not pick a width
// silently, nor may arbitrary pointers turn into bools.
using OtherWideInteger = std::conditional_t<std::is_same_v<int64, long>, long long, long>;
static_assert(!Writable<OtherWideInteger>);
static_assert(!Writable<const void*>);
static_assert(!Writable<const int*>);
static_assert(Writable<int64> && Writable<uint64> && Writable<const char*> && Writable<char*> &&
              Writable<const wchar_t*> && Writable<String>);

TEST(CDataOutStreamTest, TextEncodings) {
  Writer empty;
  empty.out->writeString(String());
  EXPECT_EQ(empty.bytes(), "00 00 00 00");

  // The one byte 0xE9: Latin-1 text through operator<<, raw through writeUTF8.
  Writer latin1;
  *latin1.out << "\xE9";
  EXPECT_EQ(latin1.bytes(), "02 00 00 00 C3 A9");
  Writer raw;
  raw.out->writeUTF8("\xE9");
  EXPECT_EQ(raw.bytes(), "01 00 00 00 E9");

  Writer wide;
  *wide.out << L"\u00e9\u20ac";
  EXPECT_EQ(wide.bytes(), "05 00 00 00 C3 A9 E2 82 AC");

  // A zero character cuts the text, as for a C string.
  Writer cut;
  cut.out->writeString(String(L"ab\0cd", 5));
  EXPECT_EQ(cut.bytes(), "02 00 00 00 61 62");

  // Null pointers are the empty text.
  Writer nulls;
  nulls.out->writeUTF8(nullptr);
  *nulls.out << static_cast<const char*>(nullptr) << static_cast<const wchar_t*>(nullptr);
  EXPECT_EQ(nulls.bytes(), "00 00 00 00 00 00 00 00 00 00 00 00");
}

// Escaped bytes (U+DC80..U+DCFF, what reading makes of bytes that are not
// UTF-8) are written as the raw bytes they stand for; no other lone surrogate
// has bytes, on either platform.
TEST(CDataOutStreamTest, EscapedBytesAreWrittenRawOtherLoneSurrogatesThrow) {
  Writer escaped;
  const wchar_t name[] = {L'c', L'a', L'f', static_cast<wchar_t>(0xDCE9), L'\u00e9', 0};
  escaped.out->writeString(String(name));
  EXPECT_EQ(escaped.bytes(), "06 00 00 00 63 61 66 E9 C3 A9");

  for (unsigned lone : {0xD800u, 0xDBFFu, 0xDC7Fu, 0xDD00u}) {
    Writer w;
    const wchar_t text[] = {L'a', static_cast<wchar_t>(lone), L'b', 0};
    EXPECT_THROW(w.out->writeString(String(text)), CUnencodableStringError) << lone;
    EXPECT_EQ(w.buffer->getLength(), 0);
  }
}

// --- Patching -----------------------------------------------------------------

TEST(CDataOutStreamTest, PatchingLeavesThePosition) {
  Writer w;
  w.buffer->setLength(100);
  w.buffer->seek(100);
  w.out->patchInt32(0, 7);
  EXPECT_EQ(w.out->getPosition(), 100);
  EXPECT_EQ(hex(w.buffer->getBuffer()->getData(), 4), "07 00 00 00");

  // Every patch writes what the matching write writes, at its position.
  w.out->writeString("xyz");  // 100..106
  w.out->patchInt8(4, -1)
      .patchUInt8(5, 0x80)
      .patchInt16(6, -2)
      .patchUInt16(8, 0x1234)
      .patchUInt32(10, 0xA1B2C3D4u)
      .patchInt64(14, -3)
      .patchUInt64(22, 0x1122334455667788ull)
      .patchBool(30, true)
      .patchDouble(31, -2.0)
      .patchString(100, "abc");
  EXPECT_EQ(w.out->getPosition(), 107);
  EXPECT_EQ(hex(w.buffer->getBuffer()->getData() + 4, 37),
            "FF 80 FE FF 34 12 D4 C3 B2 A1 FD FF FF FF FF FF FF FF 88 77 66 55 44 33 22 11 "
            "01 C0 00 80 00 00 00 00 00 00 00");
  EXPECT_EQ(hex(w.buffer->getBuffer()->getData() + 100, 7), "03 00 00 00 61 62 63");
  EXPECT_EQ(w.buffer->getLength(), 107);
}

TEST(CDataOutStreamTest, FailedPatchRestoresThePosition) {
  Writer w;
  w.out->writeInt32(1).writeInt32(2);
  const CIOError error = expectIOError([&] { w.out->patchInt32(9, 5); });
  EXPECT_EQ(error.getErrorCode(), CIOError::SeekFailed);
  EXPECT_EQ(w.out->getPosition(), 8);

  // The write itself fails on a read-only stream; the position still returns.
  w.buffer->setReadOnly(true);
  expectIOError([&] { w.out->patchInt32(0, 5); });
  EXPECT_EQ(w.out->getPosition(), 8);
  EXPECT_EQ(w.bytes(), "01 00 00 00 02 00 00 00");
}

// --- Reading values -----------------------------------------------------------

TEST(CDataInStreamTest, ReadsEveryTypeInBothForms) {
  Writer w;
  *w.out << 'z' << static_cast<unsigned char>(200) << static_cast<short>(-300)
         << static_cast<unsigned short>(60000) << -70000 << 4000000000u
         << static_cast<int64>(-5000000000LL) << static_cast<uint64>(18000000000000000000ull)
         << true << -0.125 << String(L"\u00e9t\u00e9");
  const auto& data = *w.buffer->getBuffer();
  const Bytes bytes(data.getData(), data.getData() + data.getSize());

  P<CDataInStream> in = readerOf(bytes);
  EXPECT_EQ(in->readInt8(), 'z');
  EXPECT_EQ(in->readUInt8(), 200);
  EXPECT_EQ(in->readInt16(), -300);
  EXPECT_EQ(in->readUInt16(), 60000);
  EXPECT_EQ(in->readInt32(), -70000);
  EXPECT_EQ(in->readUInt32(), 4000000000u);
  EXPECT_EQ(in->readInt64(), -5000000000LL);
  EXPECT_EQ(in->readUInt64(), 18000000000000000000ull);
  EXPECT_TRUE(in->readBool());
  EXPECT_EQ(in->readDouble(), -0.125);
  EXPECT_EQ(in->readString(), String(L"\u00e9t\u00e9"));
  EXPECT_TRUE(in->isEndOfStream());

  char c = 0;
  unsigned char uc = 0;
  short s = 0;
  unsigned short us = 0;
  int i = 0;
  unsigned int ui = 0;
  int64 i64 = 0;
  uint64 u64 = 0;
  bool b = false;
  double d = 0;
  String text;
  P<CDataInStream> byRef = readerOf(bytes);
  byRef->readInt8(c).readUInt8(uc).readInt16(s).readUInt16(us).readInt32(i).readUInt32(ui);
  byRef->readInt64(i64).readUInt64(u64).readBool(b).readDouble(d).readString(text);
  EXPECT_EQ(c, 'z');
  EXPECT_EQ(uc, 200);
  EXPECT_EQ(s, -300);
  EXPECT_EQ(us, 60000);
  EXPECT_EQ(i, -70000);
  EXPECT_EQ(ui, 4000000000u);
  EXPECT_EQ(i64, -5000000000LL);
  EXPECT_EQ(u64, 18000000000000000000ull);
  EXPECT_TRUE(b);
  EXPECT_EQ(d, -0.125);
  EXPECT_EQ(text, String(L"\u00e9t\u00e9"));

  c = 0, uc = 0, s = 0, us = 0, i = 0, ui = 0, i64 = 0, u64 = 0, b = false, d = 0;
  text = String();
  *readerOf(bytes) >> c >> uc >> s >> us >> i >> ui >> i64 >> u64 >> b >> d >> text;
  EXPECT_EQ(c, 'z');
  EXPECT_EQ(s, -300);
  EXPECT_EQ(ui, 4000000000u);
  EXPECT_EQ(u64, 18000000000000000000ull);
  EXPECT_EQ(d, -0.125);
  EXPECT_EQ(text, String(L"\u00e9t\u00e9"));
}

TEST(CDataInStreamTest, LenientValues) {
  P<CDataInStream> in = readerOf({0x02, 0x00, 0xFF});
  EXPECT_TRUE(in->readBool());
  EXPECT_FALSE(in->readBool());
  EXPECT_TRUE(in->readBool());

  // NaN and infinity both come back as +infinity; the 80-bit NaN too.
  Writer w;
  w.out->writeDouble(std::numeric_limits<double>::quiet_NaN());
  w.out->writeDouble(-std::numeric_limits<double>::infinity());
  const auto& data = *w.buffer->getBuffer();
  P<CDataInStream> doubles = readerOf(Bytes(data.getData(), data.getData() + data.getSize()));
  EXPECT_EQ(doubles->readDouble(), std::numeric_limits<double>::infinity());
  EXPECT_EQ(doubles->readDouble(), -std::numeric_limits<double>::infinity());

  // Each byte that is not part of well-formed UTF-8 reads as an escaped byte,
  // next to the well-formed text around it.
  const wchar_t latin1[] = {static_cast<wchar_t>(0xDCE9), L'A', L'\u00e9', 0};
  EXPECT_EQ(readerOf({4, 0, 0, 0, 0xE9, 0x41, 0xC3, 0xA9})->readString(), String(latin1));

  // An encoded surrogate is not UTF-8 either: as escaped bytes it gives a
  // String that is written again as the same bytes, on both platforms.
  const String surrogate = readerOf({3, 0, 0, 0, 0xED, 0xA0, 0x80})->readString();
  const wchar_t escaped[] = {static_cast<wchar_t>(0xDCED), static_cast<wchar_t>(0xDCA0),
                             static_cast<wchar_t>(0xDC80), 0};
  EXPECT_EQ(surrogate, String(escaped));
  Writer again;
  again.out->writeString(surrogate);
  EXPECT_EQ(again.bytes(), "03 00 00 00 ED A0 80");
}

TEST(CDataInStreamTest, ReadUTF8GivesAFreeableTerminatedBuffer) {
  P<CDataInStream> in = readerOf({3, 0, 0, 0, 'a', 0, 0xE9, 0, 0, 0, 0});
  int length = -1;
  char* text = in->readUTF8(length);
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(length, 3);
  EXPECT_EQ(hex(reinterpret_cast<unsigned char*>(text), 4), "61 00 E9 00");
  std::free(text);

  char* empty = in->readUTF8();
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(empty[0], 0);
  std::free(empty);
  EXPECT_TRUE(in->isEndOfStream());
}

TEST(CDataInStreamTest, TruncatedValuesFailInTheInnerStream) {
  EXPECT_EQ(expectIOError([] {
              readerOf({1, 2, 3})->readInt32();
            }).getErrorCode(),
            CIOError::UnexpectedEnd);
  EXPECT_EQ(expectIOError([] {
              readerOf({0x3F, 0xFF, 0x80})->readDouble();
            }).getErrorCode(),
            CIOError::UnexpectedEnd);
  EXPECT_EQ(expectIOError([] { readerOf({})->readBool(); }).getErrorCode(),
            CIOError::UnexpectedEnd);
  EXPECT_EQ(expectIOError([] {
              readerOf({1, 0, 0})->readString();
            }).getErrorCode(),
            CIOError::UnexpectedEnd);
}

// --- Bounded text lengths -----------------------------------------------------

TEST(CDataInStreamTest, NegativeLengthFailsWithoutReadingFurther) {
  Bytes bytes = {0xFF, 0xFF, 0xFF, 0xFF, 'a', 'b', 'c'};
  for (bool known : {true, false}) {
    P<CScriptedInStream> inner = createObject<CScriptedInStream>(bytes, known);
    P<CDataInStream> in = createObject<CDataInStream>(inner.get());
    const CIOError error = expectIOError([&] { in->readString(); });
    EXPECT_TRUE(error.isError("IO", CIOError::InvalidData)) << error.what();
    EXPECT_EQ(error.getMessage(), String("The data is invalid or corrupted."));
    EXPECT_EQ(inner->readSizes, std::vector<int>{4});
    EXPECT_EQ(in->getPosition(), 4);
  }
}

TEST(CDataInStreamTest, TextCutShortFailsWithTheStreamsOwnError) {
  // A length near 2 GiB on a stream of a few bytes, whether or not the stream
  // knows its length: the reader never asks (a round trip each on a remote
  // stream), reads one first chunk and passes the stream's error on as it is.
  for (bool known : {true, false}) {
    Bytes bytes = lengthPrefix(0x7FFFFFF0);
    bytes.insert(bytes.end(), {'a', 'b'});
    P<CScriptedInStream> inner = createObject<CScriptedInStream>(bytes, known);
    P<CDataInStream> in = createObject<CDataInStream>(inner.get());
    const CIOError error = expectIOError([&] { free(in->readUTF8()); });
    EXPECT_TRUE(error.isError("IO", CIOError::UnexpectedEnd));
    EXPECT_EQ(error.getMessage(), String("Scripted stream ended."));
    EXPECT_EQ(inner->readSizes, (std::vector<int>{4, CDataInStream::firstTextChunk()}));
    EXPECT_EQ(inner->lengthOrPositionAsked, 0);
  }

  // One byte too many on a memory stream: the memory stream's end-of-data
  // error; exactly enough is read.
  Bytes exact = lengthPrefix(2);
  exact.insert(exact.end(), {'a', 'b'});
  Bytes over = lengthPrefix(3);
  over.insert(over.end(), {'a', 'b'});
  EXPECT_EQ(readerOf(exact)->readString(), String("ab"));
  EXPECT_EQ(expectIOError([&] { readerOf(over)->readString(); }).getErrorCode(),
            CIOError::UnexpectedEnd);
}

TEST(CDataInStreamTest, UnknownLengthReadsInGrowingChunks) {
  // The length field promises 2 GiB - 1 but only 100 bytes come: the reader
  // asks for one first chunk, not for the whole, and fails at the end of data.
  Bytes lying = lengthPrefix(0x7FFFFFFF);
  lying.resize(lying.size() + 100, 'x');
  P<CScriptedInStream> inner = createObject<CScriptedInStream>(lying, false);
  P<CDataInStream> in = createObject<CDataInStream>(inner.get());
  EXPECT_EQ(expectIOError([&] { in->readString(); }).getErrorCode(), CIOError::UnexpectedEnd);
  EXPECT_EQ(inner->readSizes, (std::vector<int>{4, CDataInStream::firstTextChunk()}));

  // A real text of 300000 bytes arrives whole through chunks that double.
  const int size = 300000;
  Bytes genuine = lengthPrefix(size);
  for (int i = 0; i < size; ++i) genuine.push_back(static_cast<unsigned char>('a' + i % 26));
  genuine.push_back('!');
  P<CScriptedInStream> inner2 = createObject<CScriptedInStream>(genuine, false);
  P<CDataInStream> in2 = createObject<CDataInStream>(inner2.get());
  int length = 0;
  char* text = in2->readUTF8(length);
  ASSERT_EQ(length, size);
  EXPECT_EQ(std::memcmp(text, genuine.data() + 4, size), 0);
  EXPECT_EQ(text[size], 0);
  std::free(text);
  const int chunk = CDataInStream::firstTextChunk();
  EXPECT_EQ(inner2->readSizes, (std::vector<int>{4, chunk, chunk, 2 * chunk, size - 4 * chunk}));
  EXPECT_EQ(in2->readInt8(), '!');
}

// --- Errors and forwarding ----------------------------------------------------

TEST(CDataInStreamTest, ThrowErrorCarriesTheURIWhenThereIsOne) {
  P<CBufferStream> buffer = createObject<CBufferStream>();
  P<CTestDataInStream> in = createObject<CTestDataInStream>(buffer.get());
  CIOError plain = expectIOError([&] { in->throwError(CIOError::UnsupportedVersion); });
  EXPECT_EQ(plain.getErrorCode(), CIOError::UnsupportedVersion);
  EXPECT_EQ(plain.getMessage(), String("Unsupported or invalid data version."));
  EXPECT_FALSE(plain.getParams().has(CIOError::paramURI()));

  buffer->setURI(CURI("file:///C:/dir/f.dat"));
  CIOError withURI = expectIOError([&] { in->throwError(CIOError::InvalidData); });
  EXPECT_EQ(withURI.getParams().get(CIOError::paramURI()), String("file:///C:/dir/f.dat"));

  // A closed stream cannot tell its URI: the error comes without it.
  buffer->close();
  CIOError closed = expectIOError([&] { in->throwError(CIOError::InvalidData); });
  EXPECT_EQ(closed.getErrorCode(), CIOError::InvalidData);
  EXPECT_FALSE(closed.getParams().has(CIOError::paramURI()));
}

TEST(CDataStreamTest, NullInnerStreamIsRefused) {
  EXPECT_THROW(createObject<CDataOutStream>(nullptr), CInvalidArgError);
  EXPECT_THROW(createObject<CDataInStream>(nullptr), CInvalidArgError);
}

TEST(CDataStreamTest, PlainOperationsReachTheInnerStream) {
  Writer w;
  EXPECT_EQ(w.out->getInnerStream().get(), static_cast<IOutStream*>(w.buffer.get()));
  w.out->write("abcdef", 6);
  P<CBufferStream::Buffer> shared =
      createObject<CBufferStream::Buffer>(reinterpret_cast<const unsigned char*>("XYZ"), 3);
  w.out->writeKeepBuffer(TConstBufferSlice<unsigned char>(shared, 1, 2));
  EXPECT_EQ(w.buffer->getDataAsString(), String("abcdefYZ"));
  EXPECT_EQ(w.out->getLength(), 8);
  w.out->seek(2);
  EXPECT_EQ(w.buffer->getPosition(), 2);
  w.out->setLength(4);
  EXPECT_EQ(w.buffer->getLength(), 4);
  EXPECT_FALSE(w.out->createWriteBarrier().isNull());
  w.out->flush();
  w.buffer->setURI(CURI("file:///x"));
  EXPECT_EQ(w.out->getURI().toString(), String("file:///x"));
  EXPECT_EQ(expectIOError([&] { w.out->lockRange(0, 1, IStreamBase::Shared); }).getErrorCode(), 14);
  w.out->close();
  EXPECT_TRUE(w.buffer->isClosed());

  P<CBufferStream> source = createObject<CBufferStream>("0123456789", 10, true);
  P<CDataInStream> in = createObject<CDataInStream>(source.get());
  EXPECT_EQ(in->getInnerStream().get(), static_cast<IInStream*>(source.get()));
  char buffer[8] = {};
  in->read(buffer, 2);
  EXPECT_EQ(std::string(buffer, 2), "01");
  EXPECT_EQ(in->readLax(buffer, 3), 3);
  EXPECT_EQ(in->readAvailable(buffer, 3), 3);
  EXPECT_EQ(std::string(buffer, 3), "567");
  EXPECT_EQ(in->getPosition(), 8);
  EXPECT_EQ(in->getLength(), 10);
  EXPECT_TRUE(in->waitReadable(0));
  EXPECT_FALSE(in->isEndOfStream());
  EXPECT_EQ(in->isEndOfStream_NonBlocking(), 0);
  in->seek(10);
  EXPECT_TRUE(in->isEndOfStream());
  EXPECT_EQ(in->isEndOfStream_NonBlocking(), 1);
  EXPECT_EQ(in->readLax(buffer, 3), 0);
  in->close();
  EXPECT_EQ(expectIOError([&] { in->readInt8(); }).getErrorCode(), CIOError::StreamClosed);
}

}  // namespace
}  // namespace zel
