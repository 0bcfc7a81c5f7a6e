#include "zel/stream/stored_error.h"

#include <vector>

namespace zel {

namespace {

constexpr unsigned int kStoredErrorVersion = 1;

struct StoredLevel {
  String message;
  String domain;
  int64 code = -1;
  CProps params;
};

[[noreturn]] void throwTooDeep(CDataInStream& in) {
  CProps params;
  try {
    const CURI uri = in.getURI();
    if (!uri.isEmpty()) params.set(CIOError::paramURI(), uri.toString());
  } catch (const CError&) {
    // The error being reported matters more than its address.
  }
  throw CIOError(CIOError::InvalidData,
                 "The stored error nests its causes deeper than the limit of " +
                     String::fromInt64(storedErrorMaxDepth()) + " levels.",
                 params);
}

}  // namespace

void storeError(const CError& error, CDataOutStream& out) {
  // The cause comes last in each level, so the nesting is written as a flat
  // sequence of levels.
  PC<CError> holder;
  const CError* current = &error;
  for (int depth = 1;; ++depth) {
    out.writeUInt32(kStoredErrorVersion);
    out.writeString(current->getMessage());
    out.writeString(current->getErrorCodeDomain());
    out.writeInt64(current->getErrorCode());
    out.writeString(current->getParams().toString());
    PC<CError> cause = current->getCause();
    const bool more = cause && depth < storedErrorMaxDepth();
    out.writeBool(more);
    if (!more) return;
    holder = std::move(cause);
    current = holder.get();
  }
}

P<CError> loadError(CDataInStream& in) {
  // Read the levels in order, then link them innermost first: every CError
  // takes its cause at construction.
  std::vector<StoredLevel> levels;
  for (;;) {
    const unsigned int version = in.readUInt32();
    if (version != kStoredErrorVersion) {
      throw CError("Unsupported stored error version: " + String::fromInt64(version));
    }
    StoredLevel level;
    level.message = in.readString();
    level.domain = in.readString();
    level.code = in.readInt64();
    level.params = CProps::fromString(in.readString());
    levels.push_back(std::move(level));
    if (!in.readBool()) break;
    if (static_cast<int>(levels.size()) >= storedErrorMaxDepth()) throwTooDeep(in);
  }

  P<CError> result;
  for (auto it = levels.rbegin(); it != levels.rend(); ++it) {
    result = createObject<CError>(it->message, it->domain, it->code, it->params, result.get());
  }
  return result;
}

}  // namespace zel
