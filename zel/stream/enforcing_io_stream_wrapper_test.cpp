#include "zel/stream/enforcing_io_stream_wrapper.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <vector>

#include "zel/core/error.h"
#include "zel/stream/buffer_stream.h"

namespace zel {
namespace {

// Memory aligned to 4096 bytes, without relying on over-aligned stack
// variables (not dependable with every Windows toolchain).
class AlignedBytes {
 public:
  explicit AlignedBytes(size_t size) : m_storage(size + 4096) {
    const auto address = reinterpret_cast<uintptr_t>(m_storage.data());
    m_data = m_storage.data() + (4096 - address % 4096) % 4096;
  }
  unsigned char* get() { return m_data; }

 private:
  std::vector<unsigned char> m_storage;
  unsigned char* m_data;
};

P<CBufferStream> patternStream(size_t size) {
  P<CBufferStream> s = createObject<CBufferStream>();
  for (size_t i = 0; i < size; ++i) {
    const unsigned char byte = static_cast<unsigned char>(i * 7);
    s->write(&byte, 1);
  }
  s->seek(0);
  return s;
}

String constructError(int positionAlign, int bufferAlign, int best, int64 limit = -1) {
  P<CBufferStream> inner = createObject<CBufferStream>();
  try {
    CEnforcingIOStreamWrapper::construct(inner.get(), positionAlign, bufferAlign, best, limit);
  } catch (const CInvalidArgError& e) {
    return e.getMessage();
  }
  return "accepted";
}

String invalid(const char* text) {
  return String("Invalid argument passed to 'CEnforcingIOStreamWrapper::construct': ") + text;
}

TEST(EnforcingIOStreamWrapperTest, ConstructChecksInOrder) {
  EXPECT_EQ(constructError(0, 0, 0), invalid("positionAlign must be >=1"));
  EXPECT_EQ(constructError(1, 0, 0), invalid("positionAlign must be >=1"));
  EXPECT_EQ(constructError(512, 1, 256), invalid("bestPerformancePositionAlign must be >= positionAlign"));
  EXPECT_EQ(constructError(512, 1, 1000),
            invalid("bestPerformancePositionAlign must be a multiple of positionAlign"));
  EXPECT_EQ(constructError(512, 1, 1024, -2), invalid("limit must be >= -1"));
  EXPECT_EQ(constructError(512, 4096, 1024, 0), "accepted");
  EXPECT_EQ(constructError(1, 1, 1, -1), "accepted");
  try {
    CEnforcingIOStreamWrapper::construct(nullptr, 1, 1, 1, -1);
    ADD_FAILURE() << "null inner stream accepted";
  } catch (const CInvalidArgError& e) {
    EXPECT_EQ(e.getMessage(), invalid("inner stream is null"));
  }
}

TEST(EnforcingIOStreamWrapperTest, ReportsItsOwnAlignment) {
  P<CBufferStream> inner = patternStream(0);
  P<CEnforcingIOStreamWrapper> s = CEnforcingIOStreamWrapper::construct(inner.get(), 512, 64, 4096, 1000);
  EXPECT_EQ(s->getPositionAlign(), 512);
  EXPECT_EQ(s->getBufferAlign(), 64);
  EXPECT_EQ(s->getBestPerformancePositionAlign(), 4096);
  EXPECT_EQ(s->getSubStream(), inner);
  EXPECT_EQ(s->getLimit(), 1000);
  EXPECT_EQ(s->getPosition(), 0);
}

TEST(EnforcingIOStreamWrapperTest, UnalignedSizesAndPositionsFailBeforeAnythingMoves) {
  P<CBufferStream> inner = patternStream(2048);
  P<CEnforcingIOStreamWrapper> s = CEnforcingIOStreamWrapper::construct(inner.get(), 512, 1, 512, -1);
  AlignedBytes memory(1024);
  s->read(memory.get(), 512);
  EXPECT_EQ(s->getPosition(), 512);
  EXPECT_EQ(inner->getPosition(), 512);
  EXPECT_EQ(memory.get()[1], 7);

  memory.get()[0] = 0xAA;
  try {
    s->read(memory.get(), 100);
    ADD_FAILURE() << "unaligned read passed";
  } catch (const CIOError& e) {
    EXPECT_TRUE(e.isError("IO", CIOError::PositionNotAligned));
    EXPECT_EQ(e.getMessage(),
              "The specified stream position or size 100 does not conform to the alignment "
              "requirement of 512");
  }
  EXPECT_EQ(inner->getPosition(), 512);
  EXPECT_EQ(s->getPosition(), 512);
  EXPECT_EQ(memory.get()[0], 0xAA);

  const std::function<void()> unaligned[] = {
      [&] { s->readLax(memory.get(), 513); },
      [&] { s->readAvailable(memory.get(), 1); },
      [&] { s->write(memory.get(), 10); },
      [&] {
        s->writeKeepBuffer(TConstBufferSlice<unsigned char>(
            createObject<TBuffer<unsigned char>>(size_t{3})));
      },
      [&] { s->seek(100); },
      [&] { s->setLength(1000); },
  };
  for (const auto& call : unaligned) {
    try {
      call();
      ADD_FAILURE() << "unaligned call passed";
    } catch (const CIOError& e) {
      EXPECT_TRUE(e.isError("IO", CIOError::PositionNotAligned)) << e.what();
    }
  }
  EXPECT_EQ(inner->getPosition(), 512);
  EXPECT_EQ(inner->getLength(), 2048);

  s->seek(1536);
  EXPECT_EQ(s->readLax(memory.get(), 1024), 512);
  EXPECT_EQ(s->getPosition(), 2048);
  s->setLength(1024);
  EXPECT_EQ(s->getPosition(), 1024);
  EXPECT_EQ(inner->getLength(), 1024);
  s->write(memory.get(), 512);
  EXPECT_EQ(s->getPosition(), 1536);
  EXPECT_EQ(s->getLength(), 1536);
}

TEST(EnforcingIOStreamWrapperTest, BufferAddressIsCheckedAfterTheSize) {
  P<CBufferStream> inner = patternStream(64);
  P<CEnforcingIOStreamWrapper> s = CEnforcingIOStreamWrapper::construct(inner.get(), 16, 16, 16, -1);
  AlignedBytes memory(64);
  try {
    s->read(memory.get() + 8, 16);
    ADD_FAILURE() << "misaligned buffer passed";
  } catch (const CIOError& e) {
    EXPECT_TRUE(e.isError("IO", CIOError::BufferNotAligned));
    EXPECT_EQ(e.getMessage(),
              "The specified buffer for a stream operation does not conform to the buffer "
              "alignment requirement of 16");
  }
  // A wrong size wins over a wrong buffer.
  try {
    s->write(memory.get() + 8, 3);
    ADD_FAILURE() << "misaligned write passed";
  } catch (const CIOError& e) {
    EXPECT_TRUE(e.isError("IO", CIOError::PositionNotAligned));
  }
  EXPECT_THROW(s->write(memory.get() + 1, 16), CIOError);
  EXPECT_EQ(inner->getPosition(), 0);
  s->read(memory.get() + 16, 16);
  EXPECT_EQ(s->getPosition(), 16);
}

TEST(EnforcingIOStreamWrapperTest, PositionIsRetakenWhenTheInnerStreamFails) {
  P<CBufferStream> inner = patternStream(1000);
  P<CEnforcingIOStreamWrapper> s = CEnforcingIOStreamWrapper::construct(inner.get(), 512, 1, 512, -1);
  AlignedBytes memory(1024);
  s->read(memory.get(), 512);
  // The inner read takes the 488 bytes left, then fails for want of more.
  EXPECT_THROW(s->read(memory.get(), 512), CIOError);
  EXPECT_EQ(s->getPosition(), 1000);

  inner->setReadOnly(true);
  s->seek(0);
  EXPECT_THROW(s->write(memory.get(), 512), CIOError);
  EXPECT_EQ(s->getPosition(), 0);
  // A refused seek leaves the tracked position where the inner stream is.
  s->seek(512);
  EXPECT_THROW(s->seek(1024), CIOError);
  EXPECT_EQ(s->getPosition(), 512);
}

TEST(EnforcingIOStreamWrapperTest, LimitShortensReadLaxOnly) {
  P<CBufferStream> inner = patternStream(1024);
  P<CEnforcingIOStreamWrapper> s = CEnforcingIOStreamWrapper::construct(inner.get(), 512, 1, 512, 700);
  AlignedBytes memory(1024);
  EXPECT_EQ(s->readLax(memory.get(), 512), 512);
  EXPECT_EQ(s->readLax(memory.get(), 512), 188);
  EXPECT_EQ(memory.get()[187], static_cast<unsigned char>(699 * 7));
  EXPECT_EQ(s->getPosition(), 700);
  EXPECT_EQ(inner->getPosition(), 700);
  EXPECT_EQ(s->readLax(memory.get(), 512), 0);
  EXPECT_EQ(s->readLax(memory.get(), 0), 0);

  P<CEnforcingIOStreamWrapper> unlimited =
      CEnforcingIOStreamWrapper::construct(patternStream(1024).get(), 512, 1, 512, -1);
  EXPECT_EQ(unlimited->readLax(memory.get(), 1024), 1024);
}

TEST(EnforcingIOStreamWrapperTest, CloseEndsEverything) {
  P<CBufferStream> inner = patternStream(512);
  P<CEnforcingIOStreamWrapper> s = CEnforcingIOStreamWrapper::construct(inner.get(), 512, 1, 512, -1);
  s->close();
  s->close();
  EXPECT_TRUE(inner->isClosed());
  AlignedBytes memory(512);
  try {
    s->read(memory.get(), 100);  // closed is reported before alignment
    ADD_FAILURE() << "closed stream read";
  } catch (const CIOError& e) {
    EXPECT_TRUE(e.isError("IO", CIOError::StreamClosed));
  }
  EXPECT_THROW(s->getPosition(), CIOError);
  EXPECT_THROW(s->getPositionAlign(), CIOError);
}

}  // namespace
}  // namespace zel
