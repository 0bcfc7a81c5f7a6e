// CShareMapping: how a rebasing share of a file-system server shows the
// served file system's locations to its client. The share's root (a URI of
// the served file system, such as "file:///srv/store") appears to the client
// as a prefix of its own namespace (such as "zel://backup"); every location at
// or below the root has exactly one client URI, and the client must never
// learn the server's own paths.
//
// Besides URIs the mapping rewrites texts (error messages and parameters,
// link targets): each whole occurrence of the root, written as an escaped
// URI, as a readable URI (CURI::toString(false)) or as the native path of a
// "file" root, becomes the client prefix (escaped or readable). "Whole" means
// the occurrence does not continue a longer name: it starts the text or
// follows a blank, a quote or one of "([{<=,;:", and it ends the text or is
// followed by a separator, a blank, a quote or one of ")]}>,;:". A root that
// is the whole disk ("file:///", "/") is matched as URI only.
//
// A value class behind a reference; immutable and so usable from any thread.
#pragma once

#include <string>

#include "zel/core/base.h"
#include "zel/core/containers.h"
#include "zel/core/export.h"
#include "zel/core/string.h"
#include "zel/fs/uri_selector.h"
#include "zel/path/uri.h"

namespace zel {

class ZEL_API CShareMapping : public CBase {
 public:
  // serverRoot: the share's root in the served file system; clientPrefix:
  // the URI by which the client names it. pathCaseSensitive: how paths
  // compare (that of the share's selector).
  CShareMapping(const CURI& serverRoot, const CURI& clientPrefix, bool pathCaseSensitive);
  ~CShareMapping() override;

  const CURI& getServerRoot() const { return m_serverRoot; }
  const CURI& getClientPrefix() const { return m_clientPrefix; }

  // A URI of the served file system as the client names it; the empty URI
  // when it is neither the root nor below it.
  CURI toClient(const CURI& serverURI) const;
  // The reverse: a client URI at or below the prefix in the served file
  // system; the empty URI otherwise.
  CURI toServer(const CURI& clientURI) const;

  // Areas (of login data): an area that holds the whole share becomes the
  // share's own area on the other side, an area inside the share is mapped,
  // and any other area becomes the empty selector (it names nothing the
  // other side may know).
  CURISelector areaToClient(const CURISelector& serverArea) const;
  CURISelector areaToServer(const CURISelector& clientArea) const;

  // text with every whole occurrence of the root replaced (see above);
  // *replaced (when not null) tells whether there was one.
  String mapText(const String& text, bool* replaced = nullptr) const;

  // The URI a selector names as a prefix (scheme, authority and path all
  // given); the empty URI for a selector with a wildcard or without a path.
  static CURI prefixOf(const CURISelector& selector);

 private:
  struct Pattern {
    std::wstring from;
    std::wstring to;
  };

  CURI m_serverRoot;
  CURI m_clientPrefix;
  bool m_pathCaseSensitive;
  TArray<Pattern> m_patterns;  // longest first
};

}  // namespace zel
