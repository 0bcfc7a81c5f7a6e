#include "zel/stream/dummy_streams.h"

#include <gtest/gtest.h>

#include "zel/core/error.h"

namespace zel {
namespace {

TEST(DummyStreamsTest, InStreamIsAlwaysEmpty) {
  P<CDummyInStream> s = createObject<CDummyInStream>();
  char out[4];
  s->read(out, 0);
  try {
    s->read(out, 1);
    ADD_FAILURE() << "read from nothing succeeded";
  } catch (const CIOError& e) {
    EXPECT_TRUE(e.isError("IO", CIOError::UnexpectedEnd));
  }
  EXPECT_EQ(s->readLax(out, 4), 0);
  EXPECT_EQ(s->readAvailable(out, 4), 0);
  EXPECT_TRUE(s->isEndOfStream());
  EXPECT_EQ(s->isEndOfStream_NonBlocking(), 1);
  EXPECT_TRUE(s->waitReadable(-1));
  EXPECT_EQ(s->getLength(), 0);
  EXPECT_EQ(s->getPosition(), 0);
  EXPECT_TRUE(s->getURI().isEmpty());
  s->seek(0);
  EXPECT_THROW(s->seek(1), CIOError);
  EXPECT_TRUE(s->lockRange(0, 10, IStreamBase::Exclusive));
  // close() does nothing: the stream stays usable.
  s->close();
  EXPECT_EQ(s->readLax(out, 4), 0);
  EXPECT_TRUE(s->isEndOfStream());
}

TEST(DummyStreamsTest, OutStreamCountsWhatItDiscards) {
  P<CDummyOutStream> s = createObject<CDummyOutStream>();
  s->write("abcdef", 6);
  EXPECT_EQ(s->getPosition(), 6);
  EXPECT_EQ(s->getLength(), 6);
  s->seek(2);
  s->write("xy", 2);
  EXPECT_EQ(s->getPosition(), 4);
  EXPECT_EQ(s->getLength(), 6);  // overwriting does not grow
  s->write("0123", 4);
  EXPECT_EQ(s->getLength(), 8);
  s->writeKeepBuffer(TConstBufferSlice<unsigned char>(
      createObject<TBuffer<unsigned char>>(size_t{5})));
  EXPECT_EQ(s->getLength(), 13);

  s->setLength(20);
  EXPECT_EQ(s->getPosition(), 13);
  s->seek(20);
  try {
    s->seek(21);
    ADD_FAILURE() << "seek past the length succeeded";
  } catch (const CIOError& e) {
    EXPECT_TRUE(e.isError("IO", CIOError::SeekFailed));
    EXPECT_EQ(e.getMessage(), "Error seeking to new position.");
  }
  EXPECT_THROW(s->seek(-1), CIOError);
  s->setLength(3);
  EXPECT_EQ(s->getPosition(), 3);
  EXPECT_EQ(s->getLength(), 3);
  EXPECT_THROW(s->setLength(-1), CInvalidArgError);
  EXPECT_THROW(s->write("x", -1), CInvalidArgError);
  EXPECT_TRUE(s->createWriteBarrier());
  EXPECT_TRUE(s->lockRange(0, 1, IStreamBase::Shared));
  s->flush();
}

TEST(DummyStreamsTest, ClosedOutStreamRefusesWork) {
  P<CDummyOutStream> s = createObject<CDummyOutStream>();
  s->close();
  s->close();
  try {
    s->write("x", 1);
    ADD_FAILURE() << "closed stream written";
  } catch (const CIOError& e) {
    EXPECT_TRUE(e.isError("IO", CIOError::StreamClosed));
  }
  EXPECT_THROW(s->getLength(), CIOError);
  EXPECT_THROW(s->setLength(0), CIOError);
  EXPECT_THROW(s->flush(), CIOError);
}

}  // namespace
}  // namespace zel
