// TBuffer, the growable array of plain elements that memory streams and data
// buffers share, and TConstBufferSlice, a read-only view of part of one.
//
// A TBuffer has a used length (getSize(): the elements that count) and a
// capacity (getCapacity(): the elements allocated). Growing past the capacity
// reallocates to max(needed, capacity * growth factor), so a buffer filled by
// many small appends is copied O(log n) times. The default growth factor is
// 2.0 (defaultGrowthFactor()); a factor below 1.0 (or NaN) is taken as 1.0,
// which grows to exactly the size needed. reserve() allocates exactly what it
// is asked for and ignores the factor.
//
// Elements are copied as raw bytes. Every element that resize() adds to the
// used length reads as zero, even where it lay within the capacity and held
// data before a shrink; elements beyond the used length are never visible. Reallocation moves the data, so pointers
// from getData() are valid only until the next operation that grows the
// capacity.
//
// Allocations of 64 KiB or more start on a 4 KiB page boundary. Bulk copies
// (file reads, socket transfers, memcpy) between buffers whose addresses
// differ by a small amount modulo 4 KiB run many times slower on current x86
// cores, and the default allocator puts large blocks 16 bytes past a page
// start; page-aligned buffers keep those copies at full speed.
//
// TBuffer is a counted object (CBase) so that several owners can share one
// buffer through P<TBuffer<T>> (create it with createObject); it is also an
// ordinary value type: a copy is a new buffer with the same used content and
// growth factor, and a count of its own. Not synchronised: a buffer shared by
// several threads must not be changed while any of them uses it.
#pragma once

#include <cstddef>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "zel/core/base.h"
#include "zel/core/export.h"
#include "zel/core/types.h"

namespace zel {

// Throws CBadCollPositionError; out of line so that this header need not
// include the error headers (defined with the containers).
[[noreturn]] ZEL_API void throwBadCollPosition();

template <class T>
class TBuffer : public CBase {
  static_assert(std::is_trivially_copyable_v<T>, "TBuffer holds plain elements only");

 public:
  static constexpr double defaultGrowthFactor() { return 2.0; }
  // The most elements a buffer may hold; asking for more throws std::bad_alloc
  // before anything is allocated. 64-bit processes get at most 2^48 bytes of
  // address space on the platforms we run on (x86-64 and ARMv8 with 4-level
  // page tables), so larger sizes are refused outright rather than handed to
  // the allocator (where sanitizers abort instead of throwing).
  static constexpr size_t maxElements() {
    constexpr uint64 limit = sizeof(void*) >= 8
                                 ? uint64{1} << 48
                                 : static_cast<uint64>(std::numeric_limits<std::ptrdiff_t>::max());
    return static_cast<size_t>(limit / sizeof(T));
  }

  TBuffer() = default;
  explicit TBuffer(size_t count) { resize(count); }
  TBuffer(const T* data, size_t count) { append(data, count); }
  // Copies the used content only; the copy's capacity is its used length.
  TBuffer(const TBuffer& other) : CBase(), m_growthFactor(other.m_growthFactor) {
    append(other.getData(), other.m_size);
  }
  TBuffer(TBuffer&& other) noexcept
      : CBase(),
        m_data(std::move(other.m_data)),
        m_size(std::exchange(other.m_size, 0)),
        m_capacity(std::exchange(other.m_capacity, 0)),
        m_growthFactor(other.m_growthFactor) {}
  TBuffer& operator=(const TBuffer& other) {
    if (this != &other) {
      m_size = 0;
      m_growthFactor = other.m_growthFactor;
      append(other.getData(), other.m_size);
    }
    return *this;
  }
  TBuffer& operator=(TBuffer&& other) noexcept {
    if (this != &other) {
      m_data = std::move(other.m_data);
      m_size = std::exchange(other.m_size, 0);
      m_capacity = std::exchange(other.m_capacity, 0);
      m_growthFactor = other.m_growthFactor;
    }
    return *this;
  }
  ~TBuffer() override = default;

  // Null while nothing has been allocated.
  T* getData() { return m_data.get(); }
  const T* getData() const { return m_data.get(); }
  // The used length.
  size_t getSize() const { return m_size; }
  bool isEmpty() const { return m_size == 0; }
  size_t getCapacity() const { return m_capacity; }

  double getGrowthFactor() const { return m_growthFactor; }
  void setGrowthFactor(double factor) { m_growthFactor = factor >= 1.0 ? factor : 1.0; }

  // Sets the used length; new elements are zero. Grows the capacity by the
  // growth rule when needed, never shrinks it.
  void resize(size_t count) {
    if (count > m_size) {
      ensureCapacity(count);
      std::memset(static_cast<void*>(m_data.get() + m_size), 0, (count - m_size) * sizeof(T));
    }
    m_size = count;
  }
  // Makes the capacity at least count, exactly (no growth factor).
  void reserve(size_t count) {
    if (count > m_capacity) reallocate(count);
  }
  // Makes the capacity at least count by the growth rule:
  // max(count, capacity * growth factor), bounded by maxElements().
  void ensureCapacity(size_t count) {
    if (count > m_capacity) reallocate(grownCapacity(count));
  }
  // Empties the buffer; the capacity stays allocated.
  void clear() { m_size = 0; }

  // data may point into this buffer itself (b.append(b.getData(), n)): when
  // the buffer grows, the old block is freed only after the copy.
  void append(const T* data, size_t count) {
    if (count == 0) return;
    if (count > maxElements() - m_size) throw std::bad_alloc();
    const size_t size = m_size + count;
    if (size > m_capacity) {
      const size_t capacity = grownCapacity(size);
      Storage grown = allocate(capacity);
      if (m_size) std::memcpy(static_cast<void*>(grown.get()), m_data.get(), m_size * sizeof(T));
      std::memcpy(static_cast<void*>(grown.get() + m_size), data, count * sizeof(T));
      m_data = std::move(grown);
      m_capacity = capacity;
    } else {
      std::memmove(static_cast<void*>(m_data.get() + m_size), data, count * sizeof(T));
    }
    m_size = size;
  }
  void append(const T& value) { append(&value, 1); }
  // The elements that fit beyond the used length without reallocating.
  size_t getSpareCapacity() const { return m_capacity - m_size; }
  // Counts count more elements as used and returns where they start, for
  // the caller to fill (their content is undefined until then). count must
  // not exceed getSpareCapacity(): the fast path of small appends.
  T* extendWithinCapacity(size_t count) {
    T* room = m_data.get() + m_size;
    m_size += count;
    return room;
  }

  // Unchecked, like a plain array: index must be below getSize().
  T& operator[](size_t index) { return m_data[index]; }
  const T& operator[](size_t index) const { return m_data[index]; }
  // Compares the used content; capacity and growth factor do not count.
  bool operator==(const TBuffer& other) const {
    return m_size == other.m_size &&
           (m_size == 0 || std::memcmp(getData(), other.getData(), m_size * sizeof(T)) == 0);
  }

 private:
  size_t grownCapacity(size_t count) const {
    if (count > maxElements()) throw std::bad_alloc();
    const double grown = static_cast<double>(m_capacity) * m_growthFactor;
    if (grown <= static_cast<double>(count)) return count;
    return grown >= static_cast<double>(maxElements()) ? maxElements()
                                                       : static_cast<size_t>(grown);
  }

  void reallocate(size_t capacity) {
    if (capacity > maxElements()) throw std::bad_alloc();
    Storage data = allocate(capacity);
    if (m_size) std::memcpy(static_cast<void*>(data.get()), m_data.get(), m_size * sizeof(T));
    m_data = std::move(data);
    m_capacity = capacity;
  }

  static constexpr size_t kPageAlignFrom = 64 * 1024;
  static constexpr size_t kPageSize = 4096;

  // Frees with the alignment the block was allocated with.
  struct Deleter {
    bool pageAligned = false;
    void operator()(T* data) const {
      if (pageAligned) {
        ::operator delete[](static_cast<void*>(data), std::align_val_t{kPageSize});
      } else {
        ::operator delete[](static_cast<void*>(data));
      }
    }
  };
  using Storage = std::unique_ptr<T[], Deleter>;

  // Uninitialised storage: the bytes beyond the used length are zeroed when
  // the used length reaches them (resize), or overwritten (append).
  static Storage allocate(size_t capacity) {
    const size_t bytes = capacity * sizeof(T);
    if (bytes >= kPageAlignFrom) {
      return Storage(static_cast<T*>(::operator new[](bytes, std::align_val_t{kPageSize})),
                     Deleter{true});
    }
    return Storage(static_cast<T*>(::operator new[](bytes)), Deleter{false});
  }

  Storage m_data;
  size_t m_size = 0;
  size_t m_capacity = 0;
  double m_growthFactor = defaultGrowthFactor();
};

// A read-only view of elements [offset, offset + length) of a shared buffer.
// The slice holds a reference, so the buffer lives at least as long as the
// slice. The range is checked against the buffer's used length when the slice
// is made; whoever keeps the buffer must not shrink it below the slice's end
// while the slice lives (a growing buffer is fine: getData() is looked up on
// every call and follows a reallocation).
template <class T>
class TConstBufferSlice {
 public:
  TConstBufferSlice() = default;
  // The whole used content of buffer (empty for a null buffer).
  explicit TConstBufferSlice(const PC<TBuffer<T>>& buffer)
      : m_buffer(buffer), m_length(buffer ? buffer->getSize() : 0) {}
  // Throws CBadCollPositionError when the range does not lie within the
  // buffer's used length.
  TConstBufferSlice(const PC<TBuffer<T>>& buffer, size_t offset, size_t length)
      : m_buffer(buffer), m_offset(offset), m_length(length) {
    const size_t size = buffer ? buffer->getSize() : 0;
    if (offset > size || length > size - offset) throwBadCollPosition();
  }

  const PC<TBuffer<T>>& getBuffer() const { return m_buffer; }
  size_t getOffset() const { return m_offset; }
  size_t getLength() const { return m_length; }
  bool isEmpty() const { return m_length == 0; }
  // Null for an empty slice of a null or unallocated buffer.
  const T* getData() const {
    return m_buffer && m_buffer->getData() ? m_buffer->getData() + m_offset : nullptr;
  }
  // A slice of this slice; checked like the constructor.
  TConstBufferSlice subSlice(size_t offset, size_t length) const {
    if (offset > m_length || length > m_length - offset) throwBadCollPosition();
    return TConstBufferSlice(m_buffer, m_offset + offset, length);
  }

 private:
  PC<TBuffer<T>> m_buffer;
  size_t m_offset = 0;
  size_t m_length = 0;
};

}  // namespace zel
