#include "zel/stream/stream.h"

#include "zel/core/error.h"

namespace zel {

CImmediateWriteBarrier::~CImmediateWriteBarrier() = default;

namespace {

// The readable text of the stream's address, or empty. A stream that cannot
// tell (closed, failing) gives the message without a path: building the error
// must not throw a different one.
String corruptedStreamPath(IInStream* stream) {
  if (!stream) return String();
  try {
    CURI uri = stream->getURI();
    return uri.isEmpty() ? String() : uri.toString(false);
  } catch (const CError&) {
    return String();
  }
}

String corruptedStreamMessage(IInStream* stream) {
  String path = corruptedStreamPath(stream);
  return path.isEmpty() ? CFileCorruptedError().getMessage()
                        : CFileCorruptedError(path).getMessage();
}

}  // namespace

CFileCorruptedError::CFileCorruptedError(IInStream* stream)
    : CError(corruptedStreamMessage(stream), CIOError::errorCodeDomain(), CIOError::InvalidData) {}

}  // namespace zel
