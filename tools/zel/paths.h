// Addresses as users write them: remote files of a `zel serve` server and
// local files.
//
// Remote: "/SHARE/path" is a path. Its segments are taken as they are
// written, so "%", "?", "#", blanks and any other character are part of a
// name and get escaped by the tool; "." and ".." are resolved here (the
// server refuses ".." outright), without climbing above "/". "/" alone is
// the server's list of shares. A text with a scheme ("zel://SHARE/a%20b") is
// a URI and stays one. Anything else (a relative path) is a usage error.
//
// Local: "-" is standard input or output; other paths may be relative to
// the current folder.
#pragma once

#include "zel/core/string.h"
#include "zel/path/uri.h"

namespace zeltool {

// Client URIs of a share named NAME are zel://NAME/...
inline const char* kShareScheme = "zel";

struct CRemotePath {
  zel::String written;  // as the user wrote it, for messages
  zel::CURI uri;
  // The share's name; empty for the list of shares ("/", "zel:///").
  zel::String share;
  // The path names a share's root ("/docs", "zel://docs/").
  bool isShareRoot = false;
  // Written with a trailing "/": meant as a folder.
  bool endsWithSlash = false;

  bool isShareList() const { return share.isEmpty(); }
  // The same location with one more segment.
  CRemotePath child(const zel::String& name) const;
};

// Throws CUsageError for text that is neither a path from "/" nor a URI.
CRemotePath parseRemotePath(const zel::String& text);

// "-" as it is; any other path made absolute against the current folder
// (without resolving links).
zel::String absoluteLocalPath(const zel::String& path);
bool isStandardStream(const zel::String& path);
// The last component of a local path ("" for "-").
zel::String localFileName(const zel::String& path);
// Whether the local path names an existing folder.
bool isLocalFolder(const zel::String& path);
// folder + the platform's separator + name.
zel::String joinLocalPath(const zel::String& folder, const zel::String& name);

// "." + name + ".zel-" + eight random hexadecimal digits + ".part": the name
// a transfer writes under until it is complete, on either side.
zel::String temporaryNameFor(const zel::String& name);

}  // namespace zeltool
