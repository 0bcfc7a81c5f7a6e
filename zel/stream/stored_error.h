// The stored form of an error on a data stream, version 1: how errors travel
// between processes (the proxy file system answers failed calls with it).
//
// Per error, in order:
//   version      UInt32, 1
//   message      String
//   domain       String (getErrorCodeDomain())
//   code         Int64
//   parameters   String: getParams() in the text form of CProps::toString()
//   has cause    Bool
//   cause        the cause's own stored form, all of these fields again,
//                present only when "has cause" is true
// A chain of causes is a nesting, each level with its own version field. The
// error's class and its trace list are not stored as such (the trace lines
// are a parameter, "_trace", and travel with the parameters).
//
// Depth: loadError() accepts at most storedErrorMaxDepth() errors in one
// chain (the error and its causes), so that hostile input cannot make it
// build unbounded chains. storeError() writes at most that many as well: a
// deeper chain is cut, its innermost causes dropped, so that what is stored
// can always be loaded and the outer errors, the ones that say most, arrive.
#pragma once

#include "zel/core/base.h"
#include "zel/core/error.h"
#include "zel/core/export.h"
#include "zel/stream/data_stream.h"

namespace zel {

constexpr int storedErrorMaxDepth() { return 64; }

// Writes error and its causes (see above).
ZEL_API void storeError(const CError& error, CDataOutStream& out);

// Reads one stored error with its causes. The result and every cause are of
// class CError itself, whatever class was stored: receivers tell errors apart
// by domain and code.
// Failures:
//   - a version field other than 1 (at any level): CError with the message
//     "Unsupported stored error version: " + the version in decimal, empty
//     domain, code -1, no parameters and no cause;
//   - parameter text that CProps::fromString rejects: its CParseError;
//   - more than storedErrorMaxDepth() levels: CIOError InvalidData naming the
//     limit, with the stream's URI (when it has one) under "uri";
//   - anything the stream's reads throw (end of data, a bad text length).
ZEL_API P<CError> loadError(CDataInStream& in);

}  // namespace zel
