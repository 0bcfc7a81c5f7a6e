// CDataOutStream and CDataInStream: the library's one binary encoding of
// values, put on and taken off a byte stream.
//
// Both are thin wrappers around an inner stream: they keep no buffer, count or
// state besides it (the position is the inner stream's), and every plain
// stream operation is passed straight to it. Each fixed-size value is one
// call of the inner stream's write() or strict read(), so it is transferred
// whole or the inner stream throws; a text is its length, then its bytes.
// When the inner stream is a CBufferStream, values go straight into and out
// of its memory (CBufferStream::writeDirect / readDirect, with the same
// results) rather than through a virtual call each: the encoding is the hot
// path of every proxy call.
//
// Encoding (no alignment, padding or type tags):
//   Int8 / UInt8          1 byte
//   Int16 / UInt16        2 bytes, little-endian
//   Int32 / UInt32        4 bytes, little-endian (two's complement)
//   Int64 / UInt64        8 bytes, little-endian (two's complement)
//   Bool                  1 byte: 0 or 1 written; any non-zero byte reads true
//   Double                10 bytes: the 80-bit extended form, big-endian
//                         (see ieee_extended.h) - the one big-endian value
//   String / UTF8         4-byte little-endian signed length N, then N bytes
//                         of UTF-8, no terminator
//
// Text:
//   - writeString() and readString() use the library's UTF-8 codec with
//     escaped bytes (zel/core/utf8.h), so that names which are not UTF-8 (a
//     Linux file called "caf\xE9.txt") cross the wire unchanged, on both
//     platforms alike:
//       - writeString() writes each escaped byte (U+DC80..U+DCFF) as the one
//         raw byte it stands for, so the String "caf" U+DCE9 is 63 61 66 E9;
//         any other lone surrogate cannot be written and throws
//         CUnencodableStringError (a Windows name holding one is not
//         carried);
//       - readString() decodes well-formed UTF-8 (RFC 3629: no overlong forms,
//         no encoded surrogates, nothing above U+10FFFF) and turns every other
//         byte into an escaped byte: E9 reads as U+DCE9 and ED A0 80 as U+DCED
//         U+DCA0 U+DC80. Reading never fails on content, and the String it
//         returns is written again as the same bytes.
//     writeUTF8() takes the bytes as given. Both write the bytes up to the
//     first zero byte, so a text holding a zero character is cut there.
//   - operator<<(const char*) takes its bytes as Latin-1 and writes them as a
//     String, so 0xE9 becomes C3 A9; writeUTF8() writes 0xE9 unchanged. A
//     null pointer is the empty text everywhere.
//   - A text of 2^31 bytes or more cannot be written (CInvalidArgError).
//   - Zero bytes inside a text are kept by reading (and cut by writing).
//
// C++ types of the values: the 64-bit operations take int64 / uint64 (the
// __int64 of the Windows API). long is 32-bit on Windows and 64-bit on Linux,
// so there is no overload for it: writing a long on Windows, or a long long on
// Linux, does not compile rather than taking a width that depends on the
// platform. On Linux int64 is long itself, so `out << 1L` writes 8 bytes
// there; portable code names the width (writeInt32 / writeInt64, or a cast).
// signed char (int8) is taken as Int8 like char, rather than being promoted
// to an Int32. Pointers other than const char* and const wchar_t* do not
// compile either, rather than silently writing a bool.
//
// Reading text is bounded by what the stream really delivers, so that a
// corrupt or hostile length field cannot make the reader allocate more than
// the data that is there, and it asks the inner stream for nothing but the
// bytes (no length or position, which cost round trips on remote streams):
//   - a negative length throws CIOError InvalidData at once;
//   - the text is read in chunks, the first of 64 KiB, each further one
//     doubling the buffer, so a length that the data does not fill fails with
//     the inner stream's own end-of-data error having allocated no more than
//     64 KiB or about twice what actually arrived, whichever is more.
// The errors thrown here carry the stream's URI under CIOError::paramURI()
// when it has one. Failures of the inner stream pass through unchanged.
//
// Patching (patchInt32(position, value) and the rest) seeks to position,
// writes the value as the matching write operation does, and seeks back to
// where the stream was, also when the write fails (as far as the inner stream
// allows). patchString() rewrites the whole length-prefixed text: the caller
// must patch with a text of the same encoded length as the one that stands
// there.
//
// Not synchronised: a data stream is as safe as its inner stream, and is used
// by one thread at a time.
#pragma once

#include <bit>

#include "zel/core/base.h"
#include "zel/core/error.h"
#include "zel/core/export.h"
#include "zel/core/string.h"
#include "zel/core/types.h"
#include "zel/stream/buffer_stream.h"
#include "zel/stream/stream.h"

namespace zel {

class ZEL_API CDataOutStream : public CBase, public IOutStream {
 public:
  // Holds a reference to inner; a null inner throws CInvalidArgError.
  explicit CDataOutStream(IOutStream* inner);
  ~CDataOutStream() override;

  CDataOutStream(const CDataOutStream&) = delete;
  CDataOutStream& operator=(const CDataOutStream&) = delete;

  P<IOutStream> getInnerStream() const { return m_inner; }

  CDataOutStream& writeInt8(char value) { return writeUInt8(static_cast<unsigned char>(value)); }
  CDataOutStream& writeUInt8(unsigned char value) { return put(&value, 1); }
  CDataOutStream& writeInt16(short value) { return writeUInt16(static_cast<unsigned short>(value)); }
  CDataOutStream& writeUInt16(unsigned short value) { return putLittleEndian<uint16>(value); }
  CDataOutStream& writeInt32(int value) { return writeUInt32(static_cast<unsigned int>(value)); }
  CDataOutStream& writeUInt32(unsigned int value) { return putLittleEndian<uint32>(value); }
  CDataOutStream& writeInt64(int64 value) { return writeUInt64(static_cast<uint64>(value)); }
  CDataOutStream& writeUInt64(uint64 value) { return putLittleEndian<uint64>(value); }
  CDataOutStream& writeBool(bool value) { return writeUInt8(value ? 1 : 0); }
  CDataOutStream& writeDouble(double value);
  CDataOutStream& writeString(const String& value);
  // The bytes up to the first zero byte, unchanged, as a text.
  CDataOutStream& writeUTF8(const char* value);

  CDataOutStream& operator<<(char value) { return writeInt8(value); }
  CDataOutStream& operator<<(signed char value) { return writeInt8(static_cast<char>(value)); }
  CDataOutStream& operator<<(unsigned char value) { return writeUInt8(value); }
  CDataOutStream& operator<<(short value) { return writeInt16(value); }
  CDataOutStream& operator<<(unsigned short value) { return writeUInt16(value); }
  CDataOutStream& operator<<(int value) { return writeInt32(value); }
  CDataOutStream& operator<<(unsigned int value) { return writeUInt32(value); }
  CDataOutStream& operator<<(int64 value) { return writeInt64(value); }
  CDataOutStream& operator<<(uint64 value) { return writeUInt64(value); }
  CDataOutStream& operator<<(bool value) { return writeBool(value); }
  CDataOutStream& operator<<(double value) { return writeDouble(value); }
  CDataOutStream& operator<<(const String& value) { return writeString(value); }
  // Latin-1 bytes, written as text (see above).
  CDataOutStream& operator<<(const char* value);
  CDataOutStream& operator<<(const wchar_t* value);
  template <class T>
  CDataOutStream& operator<<(const T* value) = delete;

  // Each overwrites the encoding at position and leaves the position as it
  // was; the result is the stream itself.
  CDataOutStream& patchInt8(int64 position, char value);
  CDataOutStream& patchUInt8(int64 position, unsigned char value);
  CDataOutStream& patchInt16(int64 position, short value);
  CDataOutStream& patchUInt16(int64 position, unsigned short value);
  CDataOutStream& patchInt32(int64 position, int value);
  CDataOutStream& patchUInt32(int64 position, unsigned int value);
  CDataOutStream& patchInt64(int64 position, int64 value);
  CDataOutStream& patchUInt64(int64 position, uint64 value);
  CDataOutStream& patchBool(int64 position, bool value);
  CDataOutStream& patchDouble(int64 position, double value);
  CDataOutStream& patchString(int64 position, const String& value);

  // IStreamBase, forwarded.
  int64 getLength() const override;
  int64 getPosition() const override;
  CURI getURI() override;
  void seek(int64 position) override;
  P<IStreamLock> lockRange(int64 startPos, int64 bytes, LockType type) override;
  void close() override;

  // IOutStream, forwarded.
  void write(const void* buffer, int bytes, IWriteBarrier* barrier = nullptr) override;
  void writeKeepBuffer(const TConstBufferSlice<unsigned char>& data,
                       IWriteBarrier* barrier = nullptr) override;
  P<IWriteBarrier> createWriteBarrier(IWriteBarrier* parent = nullptr) override;
  void flush() override;
  void setLength(int64 length) override;

 private:
  // Every value goes out through put(): straight into the memory of a
  // CBufferStream inner stream, through write() otherwise.
  CDataOutStream& put(const void* bytes, size_t count) {
    if (m_memory) {
      m_memory->writeDirect(bytes, count);
    } else {
      m_inner->write(bytes, static_cast<int>(count));
    }
    return *this;
  }
  template <class U>
  CDataOutStream& putLittleEndian(U value) {
    if constexpr (std::endian::native != std::endian::little) {
      U swapped = 0;
      for (size_t i = 0; i < sizeof(U); ++i) swapped = U(swapped << 8) | U((value >> (8 * i)) & 0xFF);
      value = swapped;
    }
    // The value's own bytes: one store of the whole value (bytes assembled
    // one by one would be read back at a store-forwarding penalty).
    return put(&value, sizeof(U));
  }
  // Writes the length prefix and the bytes [text, text + length).
  void writeText(const char* text, size_t length, const char* function);
  // Runs write at position and restores the position afterwards.
  template <class Write>
  CDataOutStream& patch(int64 position, Write&& write);

  P<IOutStream> m_inner;
  // m_inner when it is a memory stream, else null.
  CBufferStream* m_memory = nullptr;
};

class ZEL_API CDataInStream : public CBase, public IInStream {
 public:
  // Holds a reference to inner; a null inner throws CInvalidArgError.
  explicit CDataInStream(IInStream* inner);
  ~CDataInStream() override;

  CDataInStream(const CDataInStream&) = delete;
  CDataInStream& operator=(const CDataInStream&) = delete;

  P<IInStream> getInnerStream() const { return m_inner; }

  // The first chunk of a text read from a stream of unknown length.
  static constexpr int firstTextChunk() { return 64 * 1024; }

  char readInt8() { return static_cast<char>(readUInt8()); }
  unsigned char readUInt8() {
    unsigned char value;
    take(&value, 1);
    return value;
  }
  short readInt16() { return static_cast<short>(readUInt16()); }
  unsigned short readUInt16() { return takeLittleEndian<uint16>(); }
  int readInt32() { return static_cast<int>(readUInt32()); }
  unsigned int readUInt32() { return takeLittleEndian<uint32>(); }
  int64 readInt64() { return static_cast<int64>(readUInt64()); }
  uint64 readUInt64() { return takeLittleEndian<uint64>(); }
  bool readBool() { return readUInt8() != 0; }
  double readDouble();
  String readString();

  CDataInStream& readInt8(char& value) { return assign(value, readInt8()); }
  CDataInStream& readUInt8(unsigned char& value) { return assign(value, readUInt8()); }
  CDataInStream& readInt16(short& value) { return assign(value, readInt16()); }
  CDataInStream& readUInt16(unsigned short& value) { return assign(value, readUInt16()); }
  CDataInStream& readInt32(int& value) { return assign(value, readInt32()); }
  CDataInStream& readUInt32(unsigned int& value) { return assign(value, readUInt32()); }
  CDataInStream& readInt64(int64& value) { return assign(value, readInt64()); }
  CDataInStream& readUInt64(uint64& value) { return assign(value, readUInt64()); }
  CDataInStream& readBool(bool& value) { return assign(value, readBool()); }
  CDataInStream& readDouble(double& value) { return assign(value, readDouble()); }
  CDataInStream& readString(String& value) { return assign(value, readString()); }

  // A length-prefixed byte string as a new buffer of N + 1 bytes, the last
  // one zero (the N bytes may hold zeros of their own). The caller owns it and
  // frees it with free(). Nothing is left allocated when it throws.
  char* readUTF8();
  // The same, also giving N (the count without the terminator).
  char* readUTF8(int& length);

  CDataInStream& operator>>(char& value) { return readInt8(value); }
  CDataInStream& operator>>(signed char& value) {
    value = static_cast<signed char>(readInt8());
    return *this;
  }
  CDataInStream& operator>>(unsigned char& value) { return readUInt8(value); }
  CDataInStream& operator>>(short& value) { return readInt16(value); }
  CDataInStream& operator>>(unsigned short& value) { return readUInt16(value); }
  CDataInStream& operator>>(int& value) { return readInt32(value); }
  CDataInStream& operator>>(unsigned int& value) { return readUInt32(value); }
  CDataInStream& operator>>(int64& value) { return readInt64(value); }
  CDataInStream& operator>>(uint64& value) { return readUInt64(value); }
  CDataInStream& operator>>(bool& value) { return readBool(value); }
  CDataInStream& operator>>(double& value) { return readDouble(value); }
  CDataInStream& operator>>(String& value) { return readString(value); }

  // IStreamBase, forwarded.
  int64 getLength() const override;
  int64 getPosition() const override;
  CURI getURI() override;
  void seek(int64 position) override;
  P<IStreamLock> lockRange(int64 startPos, int64 bytes, LockType type) override;
  void close() override;

  // IInStream, forwarded.
  void read(void* buffer, int bytes) override;
  int readLax(void* buffer, int bytes) override;
  int readAvailable(void* buffer, int bytes) override;
  bool waitReadable(int timeout) const override;
  bool isEndOfStream() const override;
  int isEndOfStream_NonBlocking() const override;

 protected:
  // Throws CIOError of code with the default message (or the given one) and,
  // when the stream has a URI, its text under CIOError::paramURI(). A stream
  // that cannot tell its URI (closed, failing) gives the error without it.
  [[noreturn]] void throwError(CIOError::Code code);
  [[noreturn]] void throwError(CIOError::Code code, const String& message);

 private:
  // Every value comes in through take(): straight from the memory of a
  // CBufferStream inner stream, through the strict read() otherwise.
  void take(void* bytes, size_t count) {
    if (m_memory) {
      m_memory->readDirect(bytes, count);
    } else {
      m_inner->read(bytes, static_cast<int>(count));
    }
  }
  template <class U>
  U takeLittleEndian() {
    U value;
    take(&value, sizeof(U));
    if constexpr (std::endian::native != std::endian::little) {
      U swapped = 0;
      for (size_t i = 0; i < sizeof(U); ++i) swapped = U(swapped << 8) | U((value >> (8 * i)) & 0xFF);
      value = swapped;
    }
    return value;
  }
  template <class T, class V>
  CDataInStream& assign(T& target, V&& value) {
    target = static_cast<V&&>(value);
    return *this;
  }

  P<IInStream> m_inner;
  // m_inner when it is a memory stream, else null.
  CBufferStream* m_memory = nullptr;
};

}  // namespace zel
