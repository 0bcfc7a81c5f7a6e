#include "zel/stream/delegating_io_stream.h"

#include <gtest/gtest.h>

#include <cstring>

#include "zel/core/error.h"
#include "zel/stream/buffer_stream.h"

namespace zel {
namespace {

// Alignment values that change, with a count of how often they were asked.
class CShiftingAlignStream : public CDelegatingIOStream {
 public:
  CShiftingAlignStream() : CDelegatingIOStream(createObject<CBufferStream>().get()) {}
  int getPositionAlign() override {
    ++m_asked;
    return m_align;
  }
  int getBufferAlign() override {
    ++m_asked;
    return m_align * 2;
  }
  int getBestPerformancePositionAlign() override {
    ++m_asked;
    return m_align * 4;
  }
  int m_align = 8;
  int m_asked = 0;
};

TEST(DelegatingIOStreamTest, AlignmentIsTakenOnceAtConstruction) {
  P<CShiftingAlignStream> inner = createObject<CShiftingAlignStream>();
  P<CDelegatingIOStream> s = createObject<CDelegatingIOStream>(inner.get());
  EXPECT_EQ(inner->m_asked, 3);
  inner->m_align = 64;
  EXPECT_EQ(s->getPositionAlign(), 8);
  EXPECT_EQ(s->getBufferAlign(), 16);
  EXPECT_EQ(s->getBestPerformancePositionAlign(), 32);
  EXPECT_EQ(inner->m_asked, 3);
}

TEST(DelegatingIOStreamTest, ForwardsEveryOperation) {
  P<CBufferStream> inner = createObject<CBufferStream>();
  inner->setURI(CURI("file:///mem"));
  P<CDelegatingIOStream> s = createObject<CDelegatingIOStream>(inner.get());
  EXPECT_EQ(s->getInnerStream(), inner);
  s->write("hello", 5);
  EXPECT_EQ(inner->getDataAsString(), "hello");
  EXPECT_EQ(s->getLength(), 5);
  EXPECT_EQ(s->getPosition(), 5);
  EXPECT_TRUE(s->isEndOfStream());
  EXPECT_EQ(s->isEndOfStream_NonBlocking(), 1);
  s->seek(1);
  EXPECT_EQ(inner->getPosition(), 1);
  char out[4];
  s->read(out, 2);
  EXPECT_EQ(std::memcmp(out, "el", 2), 0);
  EXPECT_EQ(s->readLax(out, 4), 2);
  s->seek(0);
  EXPECT_EQ(s->readAvailable(out, 4), 4);
  EXPECT_TRUE(s->waitReadable(10));
  s->setLength(2);
  EXPECT_EQ(inner->getLength(), 2);
  EXPECT_EQ(s->getPosition(), 2);
  s->writeKeepBuffer(TConstBufferSlice<unsigned char>(inner->getBuffer(), 0, 1));
  EXPECT_EQ(inner->getDataAsString(), "heh");
  EXPECT_TRUE(s->createWriteBarrier());
  s->flush();
  EXPECT_EQ(s->getURI(), CURI("file:///mem"));
  // The inner stream's own refusal comes through unchanged.
  try {
    s->lockRange(0, 1, IStreamBase::Shared);
    ADD_FAILURE() << "lock granted";
  } catch (const CIOError& e) {
    EXPECT_TRUE(e.isError("IO", 14));
  }
}

TEST(DelegatingIOStreamTest, CloseClosesTheInnerStream) {
  P<CBufferStream> inner = createObject<CBufferStream>("abc", 3);
  P<CDelegatingIOStream> s = createObject<CDelegatingIOStream>(inner.get());
  s->close();
  EXPECT_TRUE(inner->isClosed());
  s->close();
  char out[1];
  EXPECT_THROW(s->read(out, 1), CIOError);
  EXPECT_THROW(s->getPositionAlign(), CIOError);
  try {
    s->getLength();
    ADD_FAILURE() << "closed stream answered";
  } catch (const CIOError& e) {
    EXPECT_TRUE(e.isError("IO", CIOError::StreamClosed));
  }
}

TEST(DelegatingIOStreamTest, NeedsAnInnerStream) {
  EXPECT_THROW(createObject<CDelegatingIOStream>(nullptr), CInvalidArgError);
}

}  // namespace
}  // namespace zel
