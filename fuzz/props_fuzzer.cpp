// Fuzzes CProps::fromString with UTF-8 input. Every text is either rejected
// with CParseError or is the canonical form of the properties it yields:
// printing them gives the input back, and that re-parses to equal properties.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "zel/core/error.h"
#include "zel/core/props.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const zel::String text = zel::String::fromUTF8(input.data(), input.size());
  // Invalid UTF-8 decodes as Latin-1 and would not print back to the same
  // bytes; such input says nothing about the parser, so it is skipped.
  try {
    if (text.toStdUTF8() != input) return 0;
  } catch (const zel::CUnencodableStringError&) {
    return 0;
  }

  zel::CProps props;
  try {
    props = zel::CProps::fromString(text);
  } catch (const zel::CParseError&) {
    return 0;
  }
  const zel::String printed = props.toString();
  if (printed != text) std::abort();
  if (zel::CProps::fromString(printed) != props) std::abort();
  return 0;
}
