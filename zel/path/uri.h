// CURI: the address of a file or folder in any file system (RFC 3986).
//
// A CURI is an absolute URI ("scheme:" followed by the rest) or the empty URI.
// Components are kept in their escaped form; the decoded forms are computed on
// demand. Parsing is strict about structure and lenient about characters:
//   - the scheme must be ALPHA *(ALPHA / DIGIT / "+" / "-" / ".") and at
//     least two characters long: "C:\dir" is a Windows path handed over by
//     mistake, never a URI;
//   - "%" must be followed by two hexadecimal digits;
//   - user info ends at the last "@" of the authority;
//   - a port is decimal, at most 65535 (an empty port, "host:", means none);
//   - an IP literal host is "[" IPv6 "]" or "[v" hex "." ... "]";
//   - a path after an authority starts with "/" or is empty;
//   - any other character that a component may not hold as it stands (space,
//     "[", non-ASCII, control characters ...) is percent-escaped as UTF-8, so
//     the stored text is always a valid URI. An escaped byte (U+DC80..U+DCFF,
//     a byte of a name that is not UTF-8, see zel/core/utf8.h) is escaped as
//     the raw byte it stands for: U+DCE9 becomes "%E9". Any other lone
//     surrogate becomes the escapes of U+FFFD.
// Violations throw CURIMalformedError with the offending text under "uri".
//
// Text forms:
//   toString(true)   the escaped text, parseable again to the same URI. This
//                    is the form carried by the proxy wire protocol.
//   toString(false)  a readable form for people: escapes in user info, host,
//                    path, query and fragment are decoded. It may not parse
//                    back to the same URI ("%2F" becomes "/"); never use it as
//                    an address.
// Decoded text: escapes are bytes of UTF-8, decoded by the library's codec; a
// byte that does not belong to well-formed UTF-8 becomes an escaped byte, so
// "%E9" alone decodes to U+DCE9 and "%C3%A9" to U+00E9. Escaping a decoded
// text gives the same bytes again: a Linux name "caf\xE9.txt" is the segment
// "caf%E9.txt" and comes back from the URI, through the path, as the same
// bytes on the disk.
//
// Comparison (==, <) is exact, on the components as stored: "HTTP://a/%7e" and
// "http://a/~" differ; compare toNormalized() forms to compare addresses.
// toNormalized() lower-cases scheme and host, decodes escapes of unreserved
// characters, upper-cases the hex digits of the remaining escapes and drops
// "." segments. It never resolves "..": a server must still see it and refuse.
// Where dropping dots would change how the text parses, one stays: a path
// without authority keeps "/." before a leading "//" ("urn:/.//a"), and a
// rootless path keeps "./" before a leading "/" ("urn:.//a").
//
// File URIs: "file:///C:/dir/f.txt" is the Windows path "C:\dir\f.txt",
// "file:///home/u/f" the Unix path "/home/u/f", "file://server/share/dir" the
// UNC path "\\server\share\dir". The host "localhost" counts as local.
//
// Segments: the path "/a/b/" has the segments "a", "b" and "" (empty segments
// are kept everywhere, "//" is never collapsed). getName() and getParent()
// ignore one trailing empty segment, so "/a/b/" and "/a/b" both name "b" and
// have the parent "/a".
//
// CURI is a value class; it is not synchronised.
#pragma once

#include "zel/core/containers.h"
#include "zel/core/error.h"
#include "zel/core/string.h"
#include "zel/path/path.h"

namespace zel {

class ZEL_API CURI {
 public:
  // The empty URI.
  CURI() = default;
  // Parses text; see parse().
  explicit CURI(const String& text);

  // The empty text gives the empty URI; anything else must be an absolute URI.
  static CURI parse(const String& text);

  // File URIs of local paths. The path must be absolute (CBadPathError
  // otherwise). Windows paths with a drive give "file:///C:/..." (the drive's
  // root "file:///C:/"), UNC paths give "file://server/share/..." (the share's
  // root "file://server/share"). Each component becomes one segment,
  // escaped with escapeSegment().
  static CURI fromWindowsPath(const CWindowsPath& path);
  static CURI fromUnixPath(const CUnixPath& path);
  static CURI fromNativePath(const CNativePath& path);

  // The local path of a file URI. CURIIncompatibleError when the URI is not a
  // "file" URI, has a query or fragment, user info or port, is not absolute,
  // or (Windows) has neither a drive nor a host with a share, or (Unix) has a
  // host other than "localhost". A decoded segment that is not a valid path
  // component (such as one holding "%2F") throws CBadPathError.
  CWindowsPath toWindowsPath() const;
  CUnixPath toUnixPath() const;
  CNativePath toNativePath() const;

  bool isEmpty() const { return m_scheme.isEmpty(); }

  String toString(bool escaped = true) const;
  CURI toNormalized() const;
  // True when the URI is normal as it stands - no escapes, no "."
  // segments, no upper case in scheme and host - so that toNormalized()
  // gives it unchanged; a scan of its parts, without a copy. False does not
  // mean that normalising changes it: escapes are not looked into, and a "."
  // that normalising keeps ("urn:/.//a") counts as well.
  bool isNormalized() const;

  // The scheme as written (no ":").
  const String& getScheme() const { return m_scheme; }
  bool hasAuthority() const { return m_hasAuthority; }
  // "userinfo@host:port" (escaped); empty without an authority.
  String getAuthority() const;
  bool hasUserInfo() const { return m_hasUserInfo; }
  const String& getUserInfo() const { return m_userInfo; }
  String getDecodedUserInfo() const;
  // The host as written, brackets of an IP literal included ("[::1]").
  const String& getHost() const { return m_host; }
  String getDecodedHost() const;
  // -1 when there is none.
  int getPort() const { return m_port; }
  const String& getPath() const { return m_path; }
  String getDecodedPath() const;
  // The decoded segments of the path (none for the empty path; "" for "/").
  TArray<String> getSegments() const;
  bool hasQuery() const { return m_hasQuery; }
  const String& getQuery() const { return m_query; }
  String getDecodedQuery() const;
  bool hasFragment() const { return m_hasFragment; }
  const String& getFragment() const { return m_fragment; }
  String getDecodedFragment() const;

  // The decoded last segment (a trailing empty segment ignored); empty for the
  // root and the empty path.
  String getName() const;
  // False for the empty URI, the root "/", the empty path and a rootless path
  // of one segment.
  bool hasParent() const;
  // The URI without its last segment (a trailing empty segment ignored), query
  // and fragment dropped; the parent of "/a" is "/". The empty URI when there
  // is no parent.
  CURI getParent() const;
  // The URI with one more segment, escaped as needed ("/" becomes "%2F"), query
  // and fragment dropped. A trailing empty segment is replaced, so "/a/" + "b"
  // is "/a/b". An empty segment appends "/". "." and ".." cannot be appended
  // (CInvalidArgError); nor can anything be appended to the empty URI.
  CURI append(const String& segment) const;
  // The same as appending each of segments in turn, building the path once.
  CURI append(const TArray<String>& segments) const;

  // The text of one path segment: unreserved characters, sub-delims, ":" and
  // "@" stay as they are, everything else (including "/", "%", "?", "#",
  // blanks and non-ASCII characters) is percent-escaped as UTF-8, escaped
  // bytes as their raw byte.
  static String escapeSegment(const String& segment);
  // Decodes every escape; text without escapes is returned as it is.
  static String unescape(const String& text);

  bool operator==(const CURI& other) const;
  bool operator!=(const CURI& other) const { return !(*this == other); }
  bool operator<(const CURI& other) const;

 private:
  // The common case of parse(), and the form of every URI a client sends: a
  // scheme, then (after an optional authority of a plain host) a path of
  // characters that stand as they are - no escapes, query, fragment, user
  // info, port or IP literal. Such text is its own escaped form, so its parts
  // are taken as they stand. False (uri untouched) for anything else, which
  // the general parser handles.
  static bool parsePlain(const String& text, CURI& uri);

  String m_scheme;
  bool m_hasAuthority = false;
  bool m_hasUserInfo = false;
  String m_userInfo;
  String m_host;
  int m_port = -1;
  String m_path;
  bool m_hasQuery = false;
  String m_query;
  bool m_hasFragment = false;
  String m_fragment;
};

// Text that is not a URI, or not a URI of the kind asked for. Empty domain,
// code -1; the message is the text given, and parse() puts the offending input
// under "uri".
class ZEL_API CURIMalformedError : public CError {
 public:
  explicit CURIMalformedError(const String& text, const CProps& params = CProps());
  P<CError> clone() const override;
  [[noreturn]] void throwClone() const override;
};

// A valid URI given to an operation that cannot use it (a "http" URI where a
// file path is wanted). Empty domain, code -1; the message is the text given,
// the URI's escaped text is under "uri".
class ZEL_API CURIIncompatibleError : public CError {
 public:
  CURIIncompatibleError(const CURI& uri, const String& text);
  P<CError> clone() const override;
  [[noreturn]] void throwClone() const override;
};

}  // namespace zel
