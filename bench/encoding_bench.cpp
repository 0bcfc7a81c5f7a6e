// The binary encoding's typed writes and reads into and out of a memory
// stream, each against memcpy of the same bytes measured in the same run (the
// floor: what placing those bytes costs with no encoder at all).
//
// Every iteration handles a batch of values, so that per-batch set-up (a
// rewind) is shared out; the byte rate is that of the encoded bytes.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "zel/core/string.h"
#include "zel/stream/buffer_stream.h"
#include "zel/stream/data_stream.h"

namespace {

using zel::CBufferStream;
using zel::CDataInStream;
using zel::CDataOutStream;
using zel::P;

constexpr int kValues = 1024;
constexpr size_t kShortText = 24;  // a file name
constexpr size_t kLongText = 64 * 1024;

// A stream to write into, emptied before each batch (capacity kept).
struct Writer {
  P<CBufferStream> buffer = zel::createObject<CBufferStream>();
  P<CDataOutStream> out = zel::createObject<CDataOutStream>(buffer.get());
  void rewind() {
    buffer->getBuffer()->clear();
    buffer->seek(0);
  }
};

// A stream over bytes encoded once, read again in each batch.
struct Reader {
  explicit Reader(const P<CBufferStream>& encoded)
      : buffer(zel::createObject<CBufferStream>(encoded->getBuffer(), true)),
        in(zel::createObject<CDataInStream>(buffer.get())) {}
  P<CBufferStream> buffer;
  P<CDataInStream> in;
};

// memcpy of each value's bytes to its place, one value after the other as an
// encoder must place them. The compiler would otherwise merge the loop into
// one bulk copy of the whole batch (or vectorise it), which no encoder of
// single values can match and which is not the cost of placing a value.
template <size_t Width>
#if defined(__GNUC__) && !defined(__clang__)
__attribute__((optimize("no-tree-loop-distribute-patterns", "no-tree-vectorize")))
#endif
void rawCopyOut(benchmark::State& state) {
  std::vector<unsigned char> values(kValues * Width, 0x5A);
  std::vector<unsigned char> out(kValues * Width);
  for (auto _ : state) {
    unsigned char* p = out.data();
    for (int i = 0; i < kValues; ++i) {
      std::memcpy(p, &values[size_t(i) * Width], Width);
      p += Width;
    }
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * kValues * int64_t(Width));
}

template <class Write>
void encode(benchmark::State& state, size_t bytesPerValue, Write write) {
  Writer w;
  for (auto _ : state) {
    w.rewind();
    for (int i = 0; i < kValues; ++i) write(*w.out, i);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * kValues * int64_t(bytesPerValue));
}

template <class Write, class Read>
void decode(benchmark::State& state, size_t bytesPerValue, Write write, Read read) {
  Writer w;
  for (int i = 0; i < kValues; ++i) write(*w.out, i);
  Reader r(w.buffer);
  for (auto _ : state) {
    r.buffer->seek(0);
    for (int i = 0; i < kValues; ++i) read(*r.in);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * kValues * int64_t(bytesPerValue));
}

// --- int32 ---------------------------------------------------------------------

void BM_RawInt32(benchmark::State& state) { rawCopyOut<4>(state); }
BENCHMARK(BM_RawInt32);

void BM_WriteInt32(benchmark::State& state) {
  encode(state, 4, [](CDataOutStream& out, int i) { out.writeInt32(i); });
  state.SetLabel("time <= 4x raw");
}
BENCHMARK(BM_WriteInt32);

void BM_ReadInt32(benchmark::State& state) {
  decode(state, 4, [](CDataOutStream& out, int i) { out.writeInt32(i); },
         [](CDataInStream& in) { benchmark::DoNotOptimize(in.readInt32()); });
}
BENCHMARK(BM_ReadInt32);

// --- int64 ---------------------------------------------------------------------

void BM_RawInt64(benchmark::State& state) { rawCopyOut<8>(state); }
BENCHMARK(BM_RawInt64);

void BM_WriteInt64(benchmark::State& state) {
  encode(state, 8, [](CDataOutStream& out, int i) { out.writeInt64(int64_t(i) << 20); });
  state.SetLabel("time <= 4x raw");
}
BENCHMARK(BM_WriteInt64);

void BM_ReadInt64(benchmark::State& state) {
  decode(state, 8, [](CDataOutStream& out, int i) { out.writeInt64(int64_t(i) << 20); },
         [](CDataInStream& in) { benchmark::DoNotOptimize(in.readInt64()); });
}
BENCHMARK(BM_ReadInt64);

// --- double (10 bytes: the 80-bit form) ------------------------------------------

void BM_RawDouble(benchmark::State& state) { rawCopyOut<10>(state); }
BENCHMARK(BM_RawDouble);

void BM_WriteDouble(benchmark::State& state) {
  encode(state, 10, [](CDataOutStream& out, int i) { out.writeDouble(i * 0.37); });
}
BENCHMARK(BM_WriteDouble);

void BM_ReadDouble(benchmark::State& state) {
  decode(state, 10, [](CDataOutStream& out, int i) { out.writeDouble(i * 0.37); },
         [](CDataInStream& in) { benchmark::DoNotOptimize(in.readDouble()); });
}
BENCHMARK(BM_ReadDouble);

// --- texts: a short name and a 64 KiB text ---------------------------------------

zel::String makeText(size_t length) {
  std::string ascii(length, 'x');
  for (size_t i = 0; i < length; ++i) ascii[i] = char('a' + i % 26);
  return zel::String(ascii);
}

void BM_RawShortText(benchmark::State& state) { rawCopyOut<4 + kShortText>(state); }
BENCHMARK(BM_RawShortText);

void BM_WriteShortText(benchmark::State& state) {
  const zel::String text = makeText(kShortText);
  encode(state, 4 + kShortText, [&](CDataOutStream& out, int) { out.writeString(text); });
}
BENCHMARK(BM_WriteShortText);

void BM_ReadShortText(benchmark::State& state) {
  const zel::String text = makeText(kShortText);
  decode(state, 4 + kShortText, [&](CDataOutStream& out, int) { out.writeString(text); },
         [](CDataInStream& in) { benchmark::DoNotOptimize(in.readString()); });
}
BENCHMARK(BM_ReadShortText);

void BM_RawLongText(benchmark::State& state) {
  // One copy per text: a text's bytes are contiguous on both sides.
  std::vector<unsigned char> text(4 + kLongText, 'x');
  std::vector<unsigned char> out(text.size() * 16);
  for (auto _ : state) {
    for (int i = 0; i < 16; ++i) std::memcpy(&out[size_t(i) * text.size()], text.data(), text.size());
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * 16 * int64_t(text.size()));
}
BENCHMARK(BM_RawLongText);

void BM_WriteLongText(benchmark::State& state) {
  const zel::String text = makeText(kLongText);
  Writer w;
  for (auto _ : state) {
    w.rewind();
    for (int i = 0; i < 16; ++i) w.out->writeString(text);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * 16 * int64_t(4 + kLongText));
}
BENCHMARK(BM_WriteLongText);

void BM_ReadLongText(benchmark::State& state) {
  const zel::String text = makeText(kLongText);
  Writer w;
  for (int i = 0; i < 16; ++i) w.out->writeString(text);
  Reader r(w.buffer);
  for (auto _ : state) {
    r.buffer->seek(0);
    for (int i = 0; i < 16; ++i) benchmark::DoNotOptimize(r.in->readString());
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * 16 * int64_t(4 + kLongText));
}
BENCHMARK(BM_ReadLongText);

}  // namespace
