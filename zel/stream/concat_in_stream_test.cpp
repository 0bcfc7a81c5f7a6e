#include "zel/stream/concat_in_stream.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "zel/core/error.h"
#include "zel/stream/buffer_stream.h"
#include "zel/stream/delegating_io_stream.h"
#include "zel/stream/dummy_streams.h"
#include "zel/stream/enforcing_io_stream_wrapper.h"

namespace zel {
namespace {

P<CBufferStream> part(const char* text) {
  return createObject<CBufferStream>(text, std::strlen(text));
}

TArray<P<IInStream>> partsOf(std::initializer_list<P<CBufferStream>> streams) {
  TArray<P<IInStream>> parts;
  for (const P<CBufferStream>& s : streams) parts.add(s);
  return parts;
}

std::string readAll(IInStream* s, int chunk) {
  std::string result;
  std::vector<char> buffer(static_cast<size_t>(chunk));
  while (int got = s->readLax(buffer.data(), chunk)) result.append(buffer.data(), got);
  return result;
}

TEST(ConcatInStreamTest, OneReadSpansAllParts) {
  P<CConcatInStream> s = createObject<CConcatInStream>(partsOf({part("abc"), part("defg")}), CURI());
  EXPECT_EQ(s->getLength(), 7);
  char out[10] = {};
  EXPECT_EQ(s->readLax(out, 10), 7);
  EXPECT_EQ(std::string(out, 7), "abcdefg");
  EXPECT_EQ(s->readLax(out, 10), 0);
  EXPECT_TRUE(s->isEndOfStream());
  EXPECT_EQ(s->isEndOfStream_NonBlocking(), 1);
  EXPECT_EQ(s->getPosition(), 7);
  ASSERT_EQ(s->getStreamInfos().getCount(), 2);
  EXPECT_EQ(s->getStreamInfos()[0].endPos, 3);
  EXPECT_EQ(s->getStreamInfos()[1].endPos, 7);
}

TEST(ConcatInStreamTest, EmptyPartsAndSmallReads) {
  P<CConcatInStream> s = createObject<CConcatInStream>(
      partsOf({part(""), part("ab"), part(""), part(""), part("cde"), part("")}), CURI());
  for (int chunk = 1; chunk <= 6; ++chunk) {
    s->seek(0);
    EXPECT_EQ(readAll(s.get(), chunk), "abcde") << chunk;
  }
  EXPECT_EQ(s->readLax(nullptr, 0), 0);
  EXPECT_EQ(createObject<CConcatInStream>(TArray<P<IInStream>>(), CURI())->getLength(), 0);
}

TEST(ConcatInStreamTest, SeekRepositionsTheParts) {
  P<CConcatInStream> s = createObject<CConcatInStream>(partsOf({part("abc"), part("defg")}), CURI());
  char out[4] = {};
  s->seek(5);
  s->read(out, 2);
  EXPECT_EQ(std::string(out, 2), "fg");
  s->seek(1);
  s->read(out, 4);
  EXPECT_EQ(std::string(out, 4), "bcde");
  s->seek(4);  // the second part is at 2 and must go back to 1
  s->read(out, 1);
  EXPECT_EQ(out[0], 'e');
  s->seek(7);
  EXPECT_TRUE(s->isEndOfStream());
  EXPECT_THROW(s->seek(8), CIOError);
  EXPECT_THROW(s->seek(-1), CIOError);
  s->seek(6);
  try {
    s->read(out, 2);
    ADD_FAILURE() << "read past the end succeeded";
  } catch (const CIOError& e) {
    EXPECT_TRUE(e.isError("IO", CIOError::UnexpectedEnd));
  }
}

TEST(ConcatInStreamTest, APartThatShrankIsReported) {
  P<CBufferStream> first = part("abc");
  P<CBufferStream> second = part("defg");
  second->setURI(CURI("file:///data/part%202.bin"));
  P<CConcatInStream> s = createObject<CConcatInStream>(partsOf({first, second}), CURI());
  second->setLength(2);
  char out[10];
  try {
    s->readLax(out, 10);
    ADD_FAILURE() << "short part not noticed";
  } catch (const CIOError& e) {
    EXPECT_EQ(e.getMessage(),
              "Error reading in CConcatInStream. Stream 'file:///data/part 2.bin' has apparently "
              "changed its length since construction (bytesRead: 2, toRead: 4, readPosition: 3, "
              "streamEndPos: 7");
    EXPECT_EQ(e.getParams().get("bytesRead"), "2");
    EXPECT_EQ(e.getParams().get("toRead"), "4");
    EXPECT_EQ(e.getParams().get("readPosition"), "3");
    EXPECT_EQ(e.getParams().get("streamEndPos"), "7");
  }
  EXPECT_EQ(s->getPosition(), 5);
}

// A stream over memory that grants range locks and counts the live ones.
class CLockingStream : public CDelegatingIOStream {
 public:
  struct Range {
    int64 start;
    int64 bytes;
    LockType type;
  };
  class CCountedLock : public CBase, public IStreamLock {
   public:
    explicit CCountedLock(int* live) : m_live(live) { ++*m_live; }
    ~CCountedLock() override { --*m_live; }

   private:
    int* m_live;
  };

  CLockingStream(const char* text, bool refuse = false)
      : CDelegatingIOStream(part(text).get()), m_refuse(refuse) {}

  P<IStreamLock> lockRange(int64 start, int64 bytes, LockType type) override {
    if (m_refuse) throw CIOError(CIOError::Unknown, "locked by someone else");
    m_ranges.push_back({start, bytes, type});
    return createObject<CCountedLock>(&m_live);
  }

  std::vector<Range> m_ranges;
  int m_live = 0;
  bool m_refuse;
};

TEST(ConcatInStreamTest, RangeLocksAreSplitOverTheParts) {
  P<CLockingStream> a = createObject<CLockingStream>("abc");
  P<CLockingStream> b = createObject<CLockingStream>("defg");
  P<CLockingStream> c = createObject<CLockingStream>("hijkl");
  TArray<P<IInStream>> parts{a, b, c};
  P<CConcatInStream> s = createObject<CConcatInStream>(parts, CURI());

  P<IStreamLock> lock = s->lockRange(2, 6, IStreamBase::Exclusive);
  ASSERT_EQ(a->m_ranges.size(), 1u);
  EXPECT_EQ(a->m_ranges[0].start, 2);
  EXPECT_EQ(a->m_ranges[0].bytes, 1);
  EXPECT_EQ(a->m_ranges[0].type, IStreamBase::Exclusive);
  ASSERT_EQ(b->m_ranges.size(), 1u);
  EXPECT_EQ(b->m_ranges[0].start, 0);
  EXPECT_EQ(b->m_ranges[0].bytes, 4);
  ASSERT_EQ(c->m_ranges.size(), 1u);
  EXPECT_EQ(c->m_ranges[0].start, 0);
  EXPECT_EQ(c->m_ranges[0].bytes, 1);
  ASSERT_TRUE(dynamicCast<CConcatInStream::CLock>(lock));
  EXPECT_EQ(dynamicCast<CConcatInStream::CLock>(lock)->getPartLockCount(), 3);
  EXPECT_EQ(a->m_live + b->m_live + c->m_live, 3);
  lock = nullptr;
  EXPECT_EQ(a->m_live + b->m_live + c->m_live, 0);

  // Beyond the joined length nothing is locked.
  lock = s->lockRange(10, 100, IStreamBase::Shared);
  EXPECT_EQ(c->m_ranges.back().start, 3);
  EXPECT_EQ(c->m_ranges.back().bytes, 2);
  EXPECT_EQ(dynamicCast<CConcatInStream::CLock>(lock)->getPartLockCount(), 1);
  EXPECT_EQ(dynamicCast<CConcatInStream::CLock>(s->lockRange(12, 5, IStreamBase::Shared))
                ->getPartLockCount(),
            0);
  EXPECT_THROW(s->lockRange(-1, 5, IStreamBase::Shared), CInvalidArgError);
}

TEST(ConcatInStreamTest, ARefusedPartReleasesTheOthers) {
  P<CLockingStream> a = createObject<CLockingStream>("abc");
  P<CLockingStream> b = createObject<CLockingStream>("defg");
  P<CLockingStream> c = createObject<CLockingStream>("hijkl", true);
  TArray<P<IInStream>> parts{a, b, c};
  P<CConcatInStream> s = createObject<CConcatInStream>(parts, CURI());
  EXPECT_THROW(s->lockRange(0, 12, IStreamBase::Exclusive), CIOError);
  EXPECT_EQ(a->m_ranges.size(), 1u);
  EXPECT_EQ(a->m_live + b->m_live, 0);
  P<IStreamLock> lock = s->lockRange(0, 7, IStreamBase::Exclusive);  // c not touched
  EXPECT_EQ(a->m_live + b->m_live, 2);
}

TEST(ConcatInStreamTest, AlignmentsAreTheLeastCommonMultiple) {
  P<IIOStream> a = CEnforcingIOStreamWrapper::construct(part("").get(), 512, 16, 4096, -1);
  P<IIOStream> b = CEnforcingIOStreamWrapper::construct(part("").get(), 8, 1, 24, -1);
  TArray<P<IInStream>> parts{a, b, createObject<CDummyInStream>()};
  P<CConcatInStream> s = createObject<CConcatInStream>(parts, CURI());
  EXPECT_EQ(s->getPositionAlign(), 512);
  EXPECT_EQ(s->getBufferAlign(), 16);
  EXPECT_EQ(s->getBestPerformancePositionAlign(), 12288);

  P<CConcatInStream> plain = createObject<CConcatInStream>(partsOf({part("x")}), CURI());
  EXPECT_EQ(plain->getPositionAlign(), 1);
  EXPECT_EQ(plain->getBufferAlign(), 1);
  EXPECT_EQ(plain->getBestPerformancePositionAlign(), 1);
}

class CUnknownLengthStream : public CDelegatingIOStream {
 public:
  CUnknownLengthStream() : CDelegatingIOStream(part("abc").get()) {}
  int64 getLength() const override { return -1; }
};

TEST(ConcatInStreamTest, PartsMustBePresentAndOfKnownLength) {
  TArray<P<IInStream>> withNull{part("a"), nullptr};
  EXPECT_THROW(createObject<CConcatInStream>(withNull, CURI()), CInvalidArgError);
  TArray<P<IInStream>> unknown{createObject<CUnknownLengthStream>()};
  EXPECT_THROW(createObject<CConcatInStream>(unknown, CURI()), CInvalidArgError);
}

TEST(ConcatInStreamTest, CloseClosesTheParts) {
  P<CBufferStream> a = part("abc");
  P<CConcatInStream> s =
      createObject<CConcatInStream>(partsOf({a, part("d")}), CURI("file:///joined"));
  EXPECT_EQ(s->getURI(), CURI("file:///joined"));
  EXPECT_TRUE(s->waitReadable(0));
  s->close();
  s->close();
  EXPECT_TRUE(a->isClosed());
  EXPECT_EQ(s->getStreamInfos().getCount(), 0);
  char out[1];
  try {
    s->readLax(out, 1);
    ADD_FAILURE() << "closed stream read";
  } catch (const CIOError& e) {
    EXPECT_TRUE(e.isError("IO", CIOError::StreamClosed));
    EXPECT_EQ(e.getParams().get(CIOError::paramURI()), "file:///joined");
  }
  EXPECT_THROW(s->getLength(), CIOError);
  EXPECT_THROW(s->seek(0), CIOError);
  EXPECT_THROW(s->isEndOfStream(), CIOError);
  EXPECT_THROW(s->lockRange(0, 1, IStreamBase::Shared), CIOError);
}

TEST(ConcatInStreamTest, ReadAvailableGivesWhatThePartsHold) {
  P<CConcatInStream> s = createObject<CConcatInStream>(partsOf({part("abc"), part("defg")}), CURI());
  char out[10];
  EXPECT_EQ(s->readAvailable(out, 5), 5);
  EXPECT_EQ(s->readAvailable(out, 10), 2);
  EXPECT_EQ(s->readAvailable(out, 10), 0);
}

}  // namespace
}  // namespace zel
