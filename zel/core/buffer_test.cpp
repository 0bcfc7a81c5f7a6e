#include "zel/core/buffer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <new>

#include "zel/core/error.h"

namespace zel {
namespace {

using Bytes = TBuffer<uint8>;

TEST(BufferTest, AppendsRawElementsAndZeroesNewOnes) {
  Bytes b;
  EXPECT_TRUE(b.isEmpty());
  const uint8 bytes[] = {1, 2, 3};
  b.append(bytes, 3);
  b.append(uint8{4});
  ASSERT_EQ(b.getSize(), 4u);
  EXPECT_EQ(b[3], 4);
  b.resize(6);
  EXPECT_EQ(b[4], 0);
  EXPECT_EQ(b[5], 0);
  EXPECT_EQ(Bytes(bytes, 3), Bytes(b.getData(), 3));
  EXPECT_FALSE(Bytes(bytes, 3) == Bytes(bytes, 2));
}

TEST(BufferTest, ShrinkThenGrowReadsZeroWhereDataWas) {
  const uint8 bytes[] = {9, 8, 7, 6};
  Bytes b(bytes, 4);
  const size_t capacity = b.getCapacity();
  b.resize(1);
  b.resize(4);
  EXPECT_EQ(b.getCapacity(), capacity);
  EXPECT_EQ(b[0], 9);
  EXPECT_EQ(b[1], 0);
  EXPECT_EQ(b[3], 0);
  b.clear();
  EXPECT_EQ(b.getSize(), 0u);
  EXPECT_EQ(b.getCapacity(), capacity);
}

TEST(BufferTest, GrowsByFactorButAtLeastToWhatIsNeeded) {
  Bytes b;
  EXPECT_EQ(b.getGrowthFactor(), Bytes::defaultGrowthFactor());
  EXPECT_EQ(b.getGrowthFactor(), 2.0);
  const uint8 x = 1;
  b.append(x);
  EXPECT_EQ(b.getCapacity(), 1u);  // max(1, 0 * 2)
  b.append(x);
  EXPECT_EQ(b.getCapacity(), 2u);
  b.append(x);
  EXPECT_EQ(b.getCapacity(), 4u);
  b.append(x);
  b.append(x);
  EXPECT_EQ(b.getCapacity(), 8u);
  b.resize(100);  // needed beats 8 * 2
  EXPECT_EQ(b.getCapacity(), 100u);

  Bytes c;
  c.setGrowthFactor(1.5);
  c.reserve(10);
  EXPECT_EQ(c.getCapacity(), 10u);  // reserve is exact
  c.ensureCapacity(11);
  EXPECT_EQ(c.getCapacity(), 15u);
  c.ensureCapacity(15);
  EXPECT_EQ(c.getCapacity(), 15u);

  // Factors below 1 (and NaN) grow exactly to what is needed.
  Bytes d;
  d.setGrowthFactor(0.5);
  EXPECT_EQ(d.getGrowthFactor(), 1.0);
  d.setGrowthFactor(std::nan(""));
  EXPECT_EQ(d.getGrowthFactor(), 1.0);
  d.resize(7);
  d.ensureCapacity(8);
  EXPECT_EQ(d.getCapacity(), 8u);
}

TEST(BufferTest, RefusesImpossibleSizesBeforeAllocating) {
  Bytes b;
  EXPECT_THROW(b.ensureCapacity(Bytes::maxElements() + 1), std::bad_alloc);
  EXPECT_THROW(b.reserve(std::numeric_limits<size_t>::max()), std::bad_alloc);
  b.append(uint8{1});
  // Not a constant: GCC would warn about the copy that the check prevents.
  volatile size_t huge = std::numeric_limits<size_t>::max();
  EXPECT_THROW(b.append(b.getData(), huge), std::bad_alloc);
  EXPECT_EQ(b.getSize(), 1u);
  EXPECT_EQ(TBuffer<int64>::maxElements(), Bytes::maxElements() / 8);
}

TEST(BufferTest, AppendsItsOwnBytesWhileGrowing) {
  // Full to capacity, so both appends below must reallocate while reading
  // from the block being replaced (ASan reports a use after free otherwise).
  const uint8 bytes[] = {1, 2, 3, 4};
  Bytes b;
  b.reserve(4);
  b.append(bytes, 4);
  b.append(b.getData(), b.getSize());
  ASSERT_EQ(b.getSize(), 8u);
  const uint8 doubled[] = {1, 2, 3, 4, 1, 2, 3, 4};
  EXPECT_EQ(std::memcmp(b.getData(), doubled, 8), 0);

  b.setGrowthFactor(1.0);
  ASSERT_EQ(b.getCapacity(), b.getSize());
  b.append(b[6]);
  EXPECT_EQ(b.getSize(), 9u);
  EXPECT_EQ(b[8], 3);
  // Without growth.
  b.reserve(32);
  b.append(b.getData() + 1, 3);
  EXPECT_EQ(b[9], 2);
  EXPECT_EQ(b[11], 4);
}

TEST(BufferTest, CopiesAreIndependentValues) {
  const uint8 bytes[] = {1, 2, 3};
  Bytes a(bytes, 3);
  a.reserve(50);
  a.setGrowthFactor(3.0);
  Bytes copy(a);
  EXPECT_EQ(copy, a);
  EXPECT_EQ(copy.getCapacity(), 3u);
  EXPECT_EQ(copy.getGrowthFactor(), 3.0);
  EXPECT_EQ(copy.getRefCount(), 1);
  copy[0] = 42;
  EXPECT_EQ(a[0], 1);
  Bytes moved(std::move(copy));
  EXPECT_EQ(moved[0], 42);
  EXPECT_EQ(copy.getSize(), 0u);
  a = moved;
  EXPECT_EQ(a[0], 42);
}

TEST(BufferTest, SharedBufferOutlivesItsCreatorThroughASlice) {
  TConstBufferSlice<uint8> slice;
  {
    P<Bytes> buffer = createObject<Bytes>();
    const uint8 bytes[] = {10, 11, 12, 13, 14};
    buffer->append(bytes, 5);
    slice = TConstBufferSlice<uint8>(buffer, 1, 3);
    EXPECT_EQ(buffer->getRefCount(), 2);
  }
  ASSERT_EQ(slice.getLength(), 3u);
  EXPECT_EQ(slice.getOffset(), 1u);
  EXPECT_EQ(slice.getData()[0], 11);
  EXPECT_EQ(slice.getData()[2], 13);
  EXPECT_EQ(slice.getBuffer()->getRefCount(), 1);
}

TEST(BufferTest, SliceFollowsAGrowingBuffer) {
  P<Bytes> buffer = createObject<Bytes>();
  buffer->append(uint8{7});
  buffer->append(uint8{8});
  TConstBufferSlice<uint8> slice(buffer, 1, 1);
  for (int i = 0; i < 1000; ++i) buffer->append(uint8{0});  // reallocates
  EXPECT_EQ(slice.getData()[0], 8);
  EXPECT_EQ(TConstBufferSlice<uint8>(buffer).getLength(), 1002u);
}

TEST(BufferTest, SliceRangesAreChecked) {
  P<Bytes> buffer = createObject<Bytes>(size_t{4});
  EXPECT_NO_THROW(TConstBufferSlice<uint8>(buffer, 4, 0));
  EXPECT_NO_THROW(TConstBufferSlice<uint8>(buffer, 0, 4));
  EXPECT_THROW(TConstBufferSlice<uint8>(buffer, 5, 0), CBadCollPositionError);
  EXPECT_THROW(TConstBufferSlice<uint8>(buffer, 2, 3), CBadCollPositionError);
  // offset + length would wrap around.
  EXPECT_THROW(TConstBufferSlice<uint8>(buffer, 2, std::numeric_limits<size_t>::max()),
               CBadCollPositionError);
  EXPECT_THROW(TConstBufferSlice<uint8>(nullptr, 0, 1), CBadCollPositionError);

  TConstBufferSlice<uint8> slice(buffer, 1, 3);
  TConstBufferSlice<uint8> sub = slice.subSlice(1, 2);
  EXPECT_EQ(sub.getOffset(), 2u);
  EXPECT_EQ(sub.getLength(), 2u);
  EXPECT_THROW(slice.subSlice(2, 2), CBadCollPositionError);

  TConstBufferSlice<uint8> empty;
  EXPECT_TRUE(empty.isEmpty());
  EXPECT_EQ(empty.getData(), nullptr);
}

TEST(BufferTest, LargeAllocationsStartOnAPageBoundary) {
  // Bulk copies between addresses a few bytes apart modulo 4 KiB are slow;
  // large buffers must start on a page so I/O into them stays fast.
  TBuffer<unsigned char> large(1 << 20);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(large.getData()) % 4096, 0u);
  large.resize(3 << 20);  // regrown storage keeps the alignment and the content
  EXPECT_EQ(reinterpret_cast<uintptr_t>(large.getData()) % 4096, 0u);
  TBuffer<int64> wide(64 * 1024 / sizeof(int64));
  EXPECT_EQ(reinterpret_cast<uintptr_t>(wide.getData()) % 4096, 0u);
}

}  // namespace
}  // namespace zel
