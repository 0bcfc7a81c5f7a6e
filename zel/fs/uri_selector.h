// CURISelector: a set of URIs given by scheme, authority and a path prefix,
// as used for the shares of a file-system server and for the areas that login
// data applies to.
//
// A URI matches when all three parts match:
//   scheme     an empty selector scheme matches any scheme; otherwise the
//              schemes are equal without regard to case.
//   authority  the selector authority "*" (a bare host "*", also in a prefix
//              URI) matches any authority. Otherwise the hosts are equal after
//              normalisation (case and escapes of unreserved characters do not
//              matter), the ports are equal (no port matches only no port:
//              default ports are not known), and, when the selector names user
//              info, the user info is equal (with case). User info in the URI
//              is ignored when the selector names none. The empty authority is
//              the local one of "file:///C:/..." and matches only an empty
//              host - never every host, and not "localhost" either; a URI
//              without "//" counts as one with the empty authority.
//   path       an empty selector path matches any path. Otherwise the
//              selector's decoded segments must begin the URI's decoded
//              segments, whole segments only: "/data" matches "/data",
//              "/data/" and "/data/x", but not "/database". Both paths must be
//              absolute, or both rootless. "/" matches every absolute path.
//              Segments compare with case unless the selector was made
//              path-case-insensitive (for Windows shares), which folds case as
//              the path classes do. An escaped "/" ("%2F") stays inside its
//              segment.
// Both sides are normalised (CURI::toNormalized) before comparing, so "."
// segments do not matter. A prefix URI whose path is empty once "." segments
// are dropped ("file://srv", "urn:.") selects every path; the parts
// constructor refuses such a non-empty path ("." or "./") rather than widen
// it to all. A URI with a ".." segment anywhere in its path never matches: it
// could climb out of the selected area. Query and fragment are ignored. The
// empty selector (default constructed, or made from the empty URI) matches
// nothing.
//
// Stored form (store/load on the data streams; a wire format, never change
// it without a new version):
//   UInt32  version, 1
//   UInt32  flags: bit 0 set = not empty, bit 1 = path compare without case,
//           bit 2 = any authority; other bits must be 0
//   String  scheme (lower case; empty = any)
//   String  authority as in a URI, escaped ("" local, "*" any)
//   String  path, escaped and normalised ("" = any)
// An empty selector is stored with flags 0 and three empty strings. load()
// throws CIOError UnsupportedVersion for another version and CIOError
// InvalidData for unknown flags or texts that are not what store() writes.
//
// A value class; not synchronised.
#pragma once

#include "zel/path/uri.h"

namespace zel {

class CDataInStream;
class CDataOutStream;

class ZEL_API CURISelector {
 public:
  // The empty selector: matches nothing.
  CURISelector() = default;
  // The area below prefix: its scheme, its authority (the empty one when it
  // has none) and its path; query and fragment are ignored. The empty URI
  // gives the empty selector.
  explicit CURISelector(const CURI& prefix, bool pathCaseSensitive = true);
  // From parts, with the wildcards described above: scheme "" (any),
  // authority "*" (any), path "" (any). Throws CURIMalformedError when a part
  // is not valid URI syntax for its place (a path holding "?" or "#", an
  // authority with a path ...).
  CURISelector(const String& scheme, const String& authority, const String& path,
               bool pathCaseSensitive = true);

  bool isEmpty() const { return !m_set; }
  const String& getScheme() const { return m_scheme; }
  // "*" for any authority.
  String getAuthority() const;
  bool matchesAnyAuthority() const { return m_anyAuthority; }
  // Escaped and normalised, without "." segments and without trailing "/"
  // (except the root "/"; a rootless path keeps "./" before an empty first
  // segment); empty for any path.
  const String& getPath() const { return m_path; }
  bool isPathCaseSensitive() const { return m_pathCaseSensitive; }

  bool matches(const CURI& uri) const;
  // As matches(); on a match, remainder (when not null) receives the URI's
  // decoded segments after the selector's path (a trailing empty segment
  // dropped), the whole path for a selector without a path.
  bool matches(const CURI& uri, TArray<String>* remainder) const;
  // As matches(uri, remainder) for a URI that is normalised already (made by
  // CURI::toNormalized, or one whose CURI::isNormalized was true), which
  // saves looking at it once more.
  bool matchesNormalized(const CURI& normalized, TArray<String>* remainder) const;

  // A readable form for logs: "*" stands for any scheme or authority, and
  // " (path without case)" is added for case-insensitive selectors.
  String toString() const;

  void store(CDataOutStream& out) const;
  static CURISelector load(CDataInStream& in);

  bool operator==(const CURISelector& other) const;
  bool operator!=(const CURISelector& other) const { return !(*this == other); }

 private:
  void setAuthority(const CURI& uri);
  void setPath(const CURI& uri);
  // The path test of matches() where no escape makes a difference (a
  // case-sensitive selector, both paths without escapes, the selector's
  // absolute or empty): the texts are compared where they stand and only
  // the remainder is cut into segments. False when the general way must
  // decide; otherwise matched holds the answer.
  bool matchesPlainPath(const String& path, TArray<String>* remainder, bool& matched) const;

  bool m_set = false;
  bool m_pathCaseSensitive = true;
  String m_scheme;
  bool m_anyAuthority = false;
  bool m_hasUserInfo = false;
  String m_userInfo;
  String m_host;
  int m_port = -1;
  String m_path;
  // The decoded segments of m_path, worked out once: matching compares them
  // for every URI.
  TArray<String> m_prefix;
};

}  // namespace zel
