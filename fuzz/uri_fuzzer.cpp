// Fuzzes CURI::parse with UTF-8 input (bytes that are not UTF-8 decode as
// escaped bytes, as file names do). A text either is refused with
// CURIMalformedError or yields a URI whose escaped form parses back to the
// same components and prints the same text; normalising is idempotent and
// stays parseable; every decoded segment escapes back to a segment that
// decodes to it again; the path helpers and the file-path conversions never
// fail with anything but their documented errors.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "zel/core/error.h"
#include "zel/path/uri.h"

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

template <class Path>
void checkPathRoundTrip(const Path& path, zel::CURI (*fromPath)(const Path&),
                        Path (zel::CURI::*toPath)() const) {
  zel::CURI back = fromPath(path);
  check((back.*toPath)() == path);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const zel::String text = zel::String::fromUTF8Lossless(reinterpret_cast<const char*>(data), size);
  zel::CURI uri;
  try {
    uri = zel::CURI::parse(text);
  } catch (const zel::CURIMalformedError& e) {
    check(e.getParams().get(zel::String("uri")) == text);
    return 0;
  }
  check(uri.isEmpty() == text.isEmpty());

  const zel::String printed = uri.toString(true);
  const zel::CURI reparsed = zel::CURI::parse(printed);
  check(reparsed == uri);
  check(reparsed.getScheme() == uri.getScheme() && reparsed.getHost() == uri.getHost() &&
        reparsed.getPort() == uri.getPort() && reparsed.getPath() == uri.getPath() &&
        reparsed.getQuery() == uri.getQuery() && reparsed.getFragment() == uri.getFragment());
  check(reparsed.toString(true) == printed);

  const zel::CURI normalized = uri.toNormalized();
  check(normalized.toNormalized() == normalized);
  check(zel::CURI::parse(normalized.toString(true)) == normalized);
  // ".." is never resolved away (escaped dots decode to it as well).
  int dotDots = 0;
  for (const zel::String& s : uri.getSegments()) {
    dotDots += s == L"..";
    // Decoded text escapes as the bytes it was decoded from.
    check(zel::CURI::unescape(zel::CURI::escapeSegment(s)) == s);
  }
  for (const zel::String& s : normalized.getSegments()) dotDots -= s == L"..";
  check(dotDots == 0);

  (void)uri.toString(false);
  (void)uri.getName();
  if (uri.hasParent()) check(!uri.getParent().isEmpty());
  if (!uri.isEmpty()) {
    const zel::String segment(L"a b%/\u00e9");
    zel::CURI child = uri.append(segment);
    check(child.getName() == segment);
    check(zel::CURI::parse(child.toString(true)) == child);
  }

  try {
    checkPathRoundTrip(uri.toWindowsPath(), &zel::CURI::fromWindowsPath, &zel::CURI::toWindowsPath);
  } catch (const zel::CURIIncompatibleError&) {
  } catch (const zel::CBadPathError&) {
  }
  try {
    checkPathRoundTrip(uri.toUnixPath(), &zel::CURI::fromUnixPath, &zel::CURI::toUnixPath);
  } catch (const zel::CURIIncompatibleError&) {
  } catch (const zel::CBadPathError&) {
  }
  return 0;
}
