// Fuzzes CURISelector. The first byte picks the mode:
//   even: the rest is lines - a selector (a prefix URI, or with mode bit 1
//         scheme, authority and path lines) and a URI to match. Matching must
//         be consistent: normalising the URI changes nothing, and a matching
//         URI with one more segment still matches. The selector must survive
//         store and load unchanged.
//   odd:  the rest is a stored selector for load(): it is refused with
//         CIOError, or it stores again to exactly the bytes it was read from.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "zel/core/error.h"
#include "zel/fs/uri_selector.h"
#include "zel/stream/buffer_stream.h"
#include "zel/stream/data_stream.h"

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

zel::P<zel::CBufferStream> store(const zel::CURISelector& selector) {
  zel::P<zel::CBufferStream> buffer = zel::createObject<zel::CBufferStream>();
  zel::P<zel::CDataOutStream> out = zel::createObject<zel::CDataOutStream>(buffer.get());
  selector.store(*out);
  return buffer;
}

void fuzzLoad(const uint8_t* data, size_t size) {
  zel::P<zel::CBufferStream> buffer = zel::createObject<zel::CBufferStream>(data, size, true);
  zel::P<zel::CDataInStream> in = zel::createObject<zel::CDataInStream>(buffer.get());
  zel::CURISelector selector;
  try {
    selector = zel::CURISelector::load(*in);
  } catch (const zel::CIOError&) {
    return;
  }
  size_t used = static_cast<size_t>(buffer->getPosition());
  zel::P<zel::CBufferStream> again = store(selector);
  check(static_cast<size_t>(again->getLength()) == used);
  check(std::memcmp(again->getBuffer()->getData(), data, used) == 0);
}

std::vector<zel::String> lines(const uint8_t* data, size_t size) {
  std::vector<zel::String> out;
  size_t start = 0;
  for (size_t i = 0; i <= size; ++i) {
    if (i == size || data[i] == '\n') {
      out.push_back(zel::String::fromUTF8(reinterpret_cast<const char*>(data + start), i - start));
      start = i + 1;
    }
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const uint8_t mode = data[0];
  if (mode & 1) {
    fuzzLoad(data + 1, size - 1);
    return 0;
  }
  std::vector<zel::String> parts = lines(data + 1, size - 1);
  parts.resize(5);
  const bool caseSensitive = (mode & 4) == 0;
  zel::CURISelector selector;
  zel::CURI uri;
  zel::String segment;
  try {
    if (mode & 2) {
      selector = zel::CURISelector(parts[0], parts[1], parts[2], caseSensitive);
      uri = zel::CURI::parse(parts[3]);
      segment = parts[4];
    } else {
      selector = zel::CURISelector(zel::CURI::parse(parts[0]), caseSensitive);
      uri = zel::CURI::parse(parts[1]);
      segment = parts[2];
    }
  } catch (const zel::CURIMalformedError&) {
    return 0;
  }

  zel::TArray<zel::String> rest;
  const bool matched = selector.matches(uri, &rest);
  check(matched == selector.matches(uri));
  check(matched == selector.matches(uri.toNormalized()));
  if (matched) {
    check(!selector.isEmpty());
    if (segment != L"." && segment != L"..") {
      zel::CURI child = uri.append(segment);
      zel::TArray<zel::String> childRest;
      check(selector.matches(child, &childRest));
      if (!segment.isEmpty()) {
        check(!childRest.isEmpty() && childRest.back() == segment);
      }
    }
  }
  (void)selector.toString();

  zel::P<zel::CBufferStream> stored = store(selector);
  stored->seek(0);
  zel::P<zel::CDataInStream> in = zel::createObject<zel::CDataInStream>(stored.get());
  const zel::CURISelector loaded = zel::CURISelector::load(*in);
  check(loaded == selector);
  check(loaded.matches(uri) == matched);
  return 0;
}
