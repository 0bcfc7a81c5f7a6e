#include "zel/stream/buffer_stream.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <limits>

#include "zel/core/error.h"

namespace zel {
namespace {

P<CBufferStream> streamOf(const char* text) {
  return createObject<CBufferStream>(text, std::strlen(text));
}

void expectIOError(const std::function<void()>& call, int64 code) {
  try {
    call();
    ADD_FAILURE() << "no error thrown";
  } catch (const CIOError& e) {
    EXPECT_TRUE(e.isError("IO", code)) << e.what();
  }
}

TEST(BufferStreamTest, ReadsUpToTheEndAndReadFailsShort) {
  P<CBufferStream> s = streamOf("0123456789");
  EXPECT_EQ(s->getLength(), 10);
  s->seek(8);
  char out[5] = {};
  EXPECT_EQ(s->readLax(out, 5), 2);
  EXPECT_EQ(std::memcmp(out, "89", 2), 0);
  EXPECT_EQ(s->getPosition(), 10);
  EXPECT_EQ(s->readLax(out, 5), 0);

  s->seek(8);
  try {
    s->read(out, 5);
    ADD_FAILURE() << "read past the end succeeded";
  } catch (const CIOError& e) {
    EXPECT_TRUE(e.isError("IO", CIOError::UnexpectedEnd));
    EXPECT_EQ(e.getMessage(), "Unexpected end of data.");
  }
  // The bytes that were there have been consumed.
  EXPECT_EQ(s->getPosition(), 10);

  s->seek(0);
  s->read(out, 5);
  EXPECT_EQ(std::memcmp(out, "01234", 5), 0);
  EXPECT_EQ(s->readAvailable(out, 3), 3);
  EXPECT_EQ(s->readLax(out, 0), 0);
  EXPECT_EQ(s->readLax(out, -4), 0);
  EXPECT_EQ(s->getPosition(), 8);
}

TEST(BufferStreamTest, SeekIsBoundedByTheUsedLength) {
  P<CBufferStream> s = streamOf("0123456789");
  s->getBuffer()->reserve(64);  // capacity beyond the length does not count
  EXPECT_FALSE(s->isEndOfStream());
  EXPECT_EQ(s->isEndOfStream_NonBlocking(), 0);
  s->seek(10);
  EXPECT_TRUE(s->isEndOfStream());
  EXPECT_EQ(s->isEndOfStream_NonBlocking(), 1);
  EXPECT_TRUE(s->waitReadable(0));
  expectIOError([&] { s->seek(11); }, CIOError::SeekFailed);
  expectIOError([&] { s->seek(-1); }, CIOError::SeekFailed);
  EXPECT_EQ(s->getPosition(), 10);
  s->seek(0);
  EXPECT_EQ(s->getPosition(), 0);
}

TEST(BufferStreamTest, WriteGrowsByTheBufferRule) {
  P<CBufferStream> s = createObject<CBufferStream>();
  s->write("abcd", 4);
  EXPECT_EQ(s->getBuffer()->getCapacity(), 4u);  // max(0 + 4, 0 * 2)
  s->write("e", 1);
  EXPECT_EQ(s->getBuffer()->getCapacity(), 8u);  // max(5, 4 * 2)
  s->write("0123456789", 10);
  EXPECT_EQ(s->getBuffer()->getCapacity(), 16u);  // max(15, 8 * 2)
  EXPECT_EQ(s->getLength(), 15);
  EXPECT_EQ(s->getDataAsString(), "abcde0123456789");

  // Overwriting inside the data keeps the length; running past extends it.
  s->seek(3);
  s->write("XY", 2);
  EXPECT_EQ(s->getLength(), 15);
  EXPECT_EQ(s->getPosition(), 5);
  s->seek(13);
  s->write("!!!!", 4);
  EXPECT_EQ(s->getLength(), 17);
  EXPECT_EQ(s->getDataAsString(), "abcXY01234567!!!!");
  EXPECT_EQ(s->getDataAsString().getLength(), 17);
}

TEST(BufferStreamTest, SetLengthGrowsZeroFillsAndClampsThePosition) {
  P<CBufferStream> s = streamOf("abcdef");
  s->getBuffer()->setGrowthFactor(1.0);
  s->seek(5);
  s->setLength(3);
  EXPECT_EQ(s->getLength(), 3);
  EXPECT_EQ(s->getPosition(), 3);
  EXPECT_TRUE(s->isEndOfStream());
  s->setLength(8);
  EXPECT_EQ(s->getPosition(), 3);  // a position inside stays
  EXPECT_EQ(s->getBuffer()->getCapacity(), 8u);
  s->seek(0);
  char out[8];
  s->read(out, 8);
  EXPECT_EQ(std::memcmp(out, "abc\0\0\0\0\0", 8), 0);

  try {
    s->setLength(-1);
    ADD_FAILURE() << "negative length accepted";
  } catch (const CInvalidArgError&) {
  }
  expectIOError([&] { s->setLength(std::numeric_limits<int64>::max()); }, CIOError::ResizeFailed);
  EXPECT_EQ(s->getLength(), 8);
  EXPECT_THROW(s->write("x", -1), CInvalidArgError);
}

TEST(BufferStreamTest, WritesFromItsOwnBufferSurviveReallocation) {
  P<CBufferStream> s = streamOf("abcd");
  s->seek(4);
  // The source lies in the storage that growing replaces.
  s->write(s->getBuffer()->getData(), 4);
  EXPECT_EQ(s->getDataAsString(), "abcdabcd");
  s->writeKeepBuffer(TConstBufferSlice<unsigned char>(s->getBuffer(), 2, 6));
  EXPECT_EQ(s->getDataAsString(), "abcdabcdcdabcd");
  // Overlapping copy within the capacity.
  s->seek(1);
  s->write(s->getBuffer()->getData(), 4);
  EXPECT_EQ(s->getDataAsString(), "aabcdbcdcdabcd");
}

TEST(BufferStreamTest, SharesTheBufferItIsGiven) {
  P<TBuffer<unsigned char>> buffer = createObject<TBuffer<unsigned char>>();
  P<CBufferStream> s = createObject<CBufferStream>(buffer);
  s->write("hi", 2);
  EXPECT_EQ(buffer->getSize(), 2u);
  EXPECT_EQ(s->getBuffer(), buffer);
  // A buffer shrunk behind the stream's back: reading gives nothing, writing
  // fills the gap with zeros.
  s->seek(2);
  buffer->resize(0);
  char out[2];
  EXPECT_EQ(s->readLax(out, 2), 0);
  s->write("!", 1);
  ASSERT_EQ(buffer->getSize(), 3u);
  EXPECT_EQ((*buffer)[0], 0);
  EXPECT_EQ((*buffer)[2], '!');
}

TEST(BufferStreamTest, TextIsUtf8WithLatin1Fallback) {
  P<CBufferStream> s = streamOf("Gr\xC3\xBC\xC3\x9F" "e");
  EXPECT_EQ(s->getDataAsString(), String(L"Gr\u00FC\u00DFe"));
  P<CBufferStream> latin = streamOf("caf\xE9");
  EXPECT_EQ(latin->getDataAsString(), String(L"caf\u00E9"));
  EXPECT_TRUE(createObject<CBufferStream>()->getDataAsString().isEmpty());
}

TEST(BufferStreamTest, RangeLocksAreRefused) {
  P<CBufferStream> s = streamOf("abc");
  try {
    s->lockRange(0, 1, IStreamBase::Shared);
    ADD_FAILURE() << "lock granted";
  } catch (const CIOError& e) {
    EXPECT_TRUE(e.isError("IO", 14));
    EXPECT_EQ(e.getMessage(), "Buffer stream does not support range locking.");
  }
}

TEST(BufferStreamTest, ReadOnlyStreamRefusesWrites) {
  P<CBufferStream> s = createObject<CBufferStream>("abc", 3, true);
  EXPECT_TRUE(s->isReadOnly());
  s->setURI(CURI("file:///data/ro.bin"));
  try {
    s->write("x", 1);
    ADD_FAILURE() << "write accepted";
  } catch (const CIOError& e) {
    EXPECT_TRUE(e.isError("IO", CIOError::WriteFailed));
    EXPECT_EQ(e.getMessage(), "Error writing data.");
    EXPECT_EQ(e.getParams().get(CIOError::paramURI()), "file:///data/ro.bin");
  }
  expectIOError([&] { s->setLength(1); }, CIOError::WriteFailed);
  expectIOError(
      [&] {
        s->writeKeepBuffer(TConstBufferSlice<unsigned char>(s->getBuffer()));
      },
      CIOError::WriteFailed);
  EXPECT_EQ(s->getDataAsString(), "abc");
  EXPECT_EQ(s->getPosition(), 0);
  char out[3];
  s->read(out, 3);  // reading is fine
  s->setReadOnly(false);
  s->write("d", 1);
  EXPECT_EQ(s->getDataAsString(), "abcd");
}

TEST(BufferStreamTest, ClosedStreamThrowsFromEverythingButClose) {
  P<CBufferStream> s = streamOf("abc");
  s->close();
  EXPECT_TRUE(s->isClosed());
  s->close();
  char out[1];
  const std::function<void()> calls[] = {
      [&] { s->getLength(); },
      [&] { s->getPosition(); },
      [&] { s->getURI(); },
      [&] { s->seek(0); },
      [&] { s->lockRange(0, 1, IStreamBase::Exclusive); },
      [&] { s->read(out, 1); },
      [&] { s->readLax(out, 1); },
      [&] { s->readAvailable(out, 1); },
      [&] { s->waitReadable(0); },
      [&] { s->isEndOfStream(); },
      [&] { s->isEndOfStream_NonBlocking(); },
      [&] { s->write("x", 1); },
      [&] { s->writeKeepBuffer(TConstBufferSlice<unsigned char>()); },
      [&] { s->createWriteBarrier(); },
      [&] { s->flush(); },
      [&] { s->setLength(0); },
      [&] { s->getPositionAlign(); },
      [&] { s->getBufferAlign(); },
      [&] { s->getBestPerformancePositionAlign(); },
  };
  for (const auto& call : calls) expectIOError(call, CIOError::StreamClosed);
  // The content is still there for whoever filled the stream.
  EXPECT_EQ(s->getDataAsString(), "abc");
}

TEST(BufferStreamTest, NoAlignmentAndImmediateBarriers) {
  P<CBufferStream> s = createObject<CBufferStream>();
  EXPECT_EQ(s->getPositionAlign(), 1);
  EXPECT_EQ(s->getBufferAlign(), 1);
  EXPECT_EQ(s->getBestPerformancePositionAlign(), 1);
  P<IWriteBarrier> first = s->createWriteBarrier();
  P<IWriteBarrier> second = s->createWriteBarrier(first.get());
  ASSERT_TRUE(second);
  P<CImmediateWriteBarrier> immediate = dynamicCast<CImmediateWriteBarrier>(second);
  ASSERT_TRUE(immediate);
  EXPECT_EQ(immediate->getParent(), first);
  s->write("ab", 2, second.get());
  s->flush();
  EXPECT_EQ(s->getLength(), 2);
}

TEST(BufferStreamTest, OneStreamThroughEveryInterface) {
  P<CBufferStream> s = createObject<CBufferStream>();
  IOutStream* out = s.get();
  IInStream* in = s.get();
  out->write("hello", 5);
  EXPECT_EQ(in->getPosition(), 5);
  in->seek(1);
  char text[4];
  in->read(text, 4);
  EXPECT_EQ(std::memcmp(text, "ello", 4), 0);
  EXPECT_EQ(static_cast<IStreamBase*>(out), static_cast<IStreamBase*>(in));
}

}  // namespace
}  // namespace zel
