// Fuzzes CLineReader over a CConcatInStream of memory parts. The first bytes
// choose the reader's chunk size, its line length limit and where the data
// is cut into parts; the rest is the text. The lines, their end positions and
// the "line too long" refusals must match a plain reference split of the
// bytes (LF, CR LF, lone CR; a UTF-8 byte-order mark at the start skipped).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "zel/core/error.h"
#include "zel/stream/buffer_stream.h"
#include "zel/stream/concat_in_stream.h"
#include "zel/stream/line_reader.h"

namespace {

struct RefLine {
  std::string bytes;
  int64_t end;
};

std::vector<RefLine> referenceSplit(const std::string& text) {
  std::vector<RefLine> lines;
  size_t pos = text.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0;
  std::string current;
  bool pending = false;
  while (pos < text.size()) {
    const char c = text[pos++];
    if (c == '\n' || c == '\r') {
      if (c == '\r' && pos < text.size() && text[pos] == '\n') ++pos;
      lines.push_back({current, static_cast<int64_t>(pos)});
      current.clear();
      pending = false;
    } else {
      current += c;
      pending = true;
    }
  }
  if (pending) lines.push_back({current, static_cast<int64_t>(text.size())});
  return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) return 0;
  const int chunkSize = 1 + data[0] % 16;
  const int maxLineLength = data[1] < 128 ? data[1] % 32 : 1 << 20;
  const size_t cut1 = data[2], cut2 = data[3];
  const std::string text(reinterpret_cast<const char*>(data) + 4, size - 4);

  zel::TArray<zel::P<zel::IInStream>> parts;
  const size_t a = std::min(cut1, text.size());
  const size_t b = std::min(std::max(a, cut2), text.size());
  parts.add(zel::createObject<zel::CBufferStream>(text.data(), a));
  parts.add(zel::createObject<zel::CBufferStream>(text.data() + a, b - a));
  parts.add(zel::createObject<zel::CBufferStream>(text.data() + b, text.size() - b));
  zel::P<zel::CConcatInStream> stream = zel::createObject<zel::CConcatInStream>(parts, zel::CURI());

  const std::vector<RefLine> expected = referenceSplit(text);
  zel::CLineReader reader(stream.get(), chunkSize, maxLineLength);
  size_t index = 0;
  for (;;) {
    bool more;
    try {
      more = reader.nextLine();
    } catch (const zel::CIOError& e) {
      // Only a line over the limit may be refused.
      if (!e.isError("IO", zel::CIOError::InvalidData)) std::abort();
      if (index >= expected.size()) std::abort();
      if (expected[index].bytes.size() <= static_cast<size_t>(maxLineLength)) std::abort();
      return 0;
    }
    if (!more) break;
    if (index >= expected.size()) std::abort();
    const RefLine& ref = expected[index++];
    if (ref.bytes.size() > static_cast<size_t>(maxLineLength)) std::abort();
    if (reader.getLineEndPosition() != ref.end) std::abort();
    if (reader.getLine() != zel::String::fromUTF8(ref.bytes.data(), ref.bytes.size())) std::abort();
  }
  if (index != expected.size()) std::abort();
  return 0;
}
