#include "zel/path/uri.h"

#include <algorithm>
#include <string>
#include <tuple>

#include "zel/core/utf8.h"

namespace zel {

namespace {

using WStr = std::wstring;

bool isAlpha(wchar_t c) { return (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z'); }
bool isDigit(wchar_t c) { return c >= L'0' && c <= L'9'; }
bool isHexDigit(wchar_t c) {
  return isDigit(c) || (c >= L'a' && c <= L'f') || (c >= L'A' && c <= L'F');
}
int hexValue(wchar_t c) {
  if (isDigit(c)) return c - L'0';
  if (c >= L'a' && c <= L'f') return c - L'a' + 10;
  return c - L'A' + 10;
}
wchar_t toLowerAscii(wchar_t c) { return (c >= L'A' && c <= L'Z') ? wchar_t(c + 0x20) : c; }
wchar_t toUpperAscii(wchar_t c) { return (c >= L'a' && c <= L'z') ? wchar_t(c - 0x20) : c; }

bool isUnreserved(wchar_t c) {
  return isAlpha(c) || isDigit(c) || c == L'-' || c == L'.' || c == L'_' || c == L'~';
}
bool isSubDelim(wchar_t c) {
  switch (c) {
    case L'!':
    case L'$':
    case L'&':
    case L'\'':
    case L'(':
    case L')':
    case L'*':
    case L'+':
    case L',':
    case L';':
    case L'=':
      return true;
    default:
      return false;
  }
}
bool isPChar(wchar_t c) { return isUnreserved(c) || isSubDelim(c) || c == L':' || c == L'@'; }

// Which characters a component may hold as they stand (escapes aside).
enum class Part { UserInfo, Host, Path, QueryOrFragment, Segment };

// The ASCII characters a part may hold as they stand, as a bit per
// character: the fast path of parse() tests every character of a URI.
struct CAllowedSet {
  uint64 bits[2] = {0, 0};
  bool has(wchar_t c) const {
    const uint32 code = static_cast<uint32>(c);
    return code < 0x80 && ((bits[code >> 6] >> (code & 63)) & 1) != 0;
  }
};

bool isAllowed(Part part, wchar_t c);

CAllowedSet allowedSet(Part part) {
  CAllowedSet set;
  for (uint32 c = 0; c < 0x80; ++c) {
    if (c != L'%' && isAllowed(part, static_cast<wchar_t>(c))) {
      set.bits[c >> 6] |= uint64{1} << (c & 63);
    }
  }
  return set;
}

bool isAllowed(Part part, wchar_t c) {
  switch (part) {
    case Part::UserInfo:
      return isUnreserved(c) || isSubDelim(c) || c == L':';
    case Part::Host:
      return isUnreserved(c) || isSubDelim(c);
    case Part::Path:
      return isPChar(c) || c == L'/';
    case Part::QueryOrFragment:
      return isPChar(c) || c == L'/' || c == L'?';
    case Part::Segment:
      return isPChar(c);
  }
  return false;
}

void appendEscapedByte(WStr& out, unsigned byte) {
  static const wchar_t kHex[] = L"0123456789ABCDEF";
  out += L'%';
  out += kHex[(byte >> 4) & 0xF];
  out += kHex[byte & 0xF];
}

// Escapes the character at text[i] (a surrogate pair on Windows) as its UTF-8
// bytes and moves i past it. An escaped byte is escaped as the raw byte it
// stands for, so a name that is not UTF-8 keeps its bytes in the URI ("%E9",
// not "%C3%A9"); any other lone surrogate becomes U+FFFD.
void appendEscapedCharacter(WStr& out, const WStr& text, size_t& i) {
  const size_t start = i;
  nextCharacter(text.data(), text.size(), i);
  std::string bytes;
  if (encodeUTF8(text.data() + start, i - start, EscapedBytes::Restore, bytes) != i - start) {
    bytes = "\xEF\xBF\xBD";
  }
  for (unsigned char byte : bytes) appendEscapedByte(out, byte);
}

bool isEscapeAt(const WStr& text, size_t i) {
  return i + 2 < text.size() && text[i] == L'%' && isHexDigit(text[i + 1]) &&
         isHexDigit(text[i + 2]);
}

[[noreturn]] void throwMalformed(const String& message, const String& input) {
  CProps params;
  params.set(String("uri"), input);
  throw CURIMalformedError(message, params);
}

// Keeps allowed characters and valid escapes, escapes everything else as
// UTF-8. With keepEscapes false a "%" is escaped too; with it true a "%" that
// does not start a valid escape is refused.
WStr escapePart(const WStr& text, Part part, bool keepEscapes, const String& input) {
  WStr out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    wchar_t c = text[i];
    if (c == L'%' && keepEscapes) {
      if (!isEscapeAt(text, i)) throwMalformed(String("Invalid percent-escape in URI."), input);
      out.append(text, i, 3);
      i += 3;
    } else if (static_cast<uint32>(c) < 0x80 && c != L'%' && isAllowed(part, c)) {
      out += c;
      ++i;
    } else {
      appendEscapedCharacter(out, text, i);
    }
  }
  return out;
}

WStr unescapeText(const WStr& text) {
  WStr out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    if (!isEscapeAt(text, i)) {
      out += text[i++];
      continue;
    }
    std::string bytes;
    while (isEscapeAt(text, i)) {
      bytes += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      i += 3;
    }
    // A byte outside well-formed UTF-8 becomes an escaped byte, which
    // escapePart() turns back into the same escape.
    decodeUTF8(bytes.data(), bytes.size(), out);
  }
  return out;
}

// Decodes escapes of unreserved characters and upper-cases the hex digits of
// the others; with lowerCase, letters outside escapes are lower-cased as well.
WStr normalizeEscapes(const WStr& text, bool lowerCase) {
  WStr out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    if (isEscapeAt(text, i)) {
      wchar_t decoded = wchar_t(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      if (isUnreserved(decoded)) {
        out += lowerCase ? toLowerAscii(decoded) : decoded;
      } else {
        out += L'%';
        out += toUpperAscii(text[i + 1]);
        out += toUpperAscii(text[i + 2]);
      }
      i += 3;
    } else {
      out += lowerCase ? toLowerAscii(text[i]) : text[i];
      ++i;
    }
  }
  return out;
}

bool isValidIPv4(const WStr& text) {
  int parts = 0;
  size_t i = 0;
  while (true) {
    size_t start = i;
    int value = 0;
    while (i < text.size() && isDigit(text[i]) && i - start < 3)
      value = value * 10 + (text[i++] - L'0');
    size_t digits = i - start;
    if (digits == 0 || value > 255 || (digits > 1 && text[start] == L'0')) return false;
    ++parts;
    if (i == text.size()) break;
    if (text[i] != L'.' || parts == 4) return false;
    ++i;
  }
  return parts == 4;
}

// Counts the 16-bit groups of one side of "::"; -1 when malformed. An IPv4
// tail (only where allowed) counts as two groups.
int countIPv6Groups(const WStr& text, bool ipv4Allowed) {
  if (text.empty()) return 0;
  int groups = 0;
  size_t i = 0;
  while (true) {
    size_t end = text.find(L':', i);
    WStr group = text.substr(i, end == WStr::npos ? WStr::npos : end - i);
    if (end == WStr::npos && ipv4Allowed && group.find(L'.') != WStr::npos) {
      if (!isValidIPv4(group)) return -1;
      return groups + 2;
    }
    if (group.empty() || group.size() > 4) return -1;
    for (wchar_t c : group) {
      if (!isHexDigit(c)) return -1;
    }
    ++groups;
    if (end == WStr::npos) return groups;
    i = end + 1;
  }
}

bool isValidIPv6(const WStr& text) {
  size_t gap = text.find(L"::");
  if (gap == WStr::npos) return countIPv6Groups(text, true) == 8;
  if (text.find(L"::", gap + 1) != WStr::npos) return false;
  int before = countIPv6Groups(text.substr(0, gap), false);
  int after = countIPv6Groups(text.substr(gap + 2), true);
  return before >= 0 && after >= 0 && before + after <= 7;
}

bool isValidIPLiteral(const WStr& inner) {
  if (!inner.empty() && (inner[0] == L'v' || inner[0] == L'V')) {
    size_t dot = inner.find(L'.');
    if (dot == WStr::npos || dot < 2 || dot + 1 == inner.size()) return false;
    for (size_t i = 1; i < dot; ++i) {
      if (!isHexDigit(inner[i])) return false;
    }
    for (size_t i = dot + 1; i < inner.size(); ++i) {
      wchar_t c = inner[i];
      if (!(isUnreserved(c) || isSubDelim(c) || c == L':')) return false;
    }
    return true;
  }
  return isValidIPv6(inner);
}

bool isValidScheme(const WStr& scheme) {
  if (scheme.empty() || !isAlpha(scheme[0])) return false;
  for (wchar_t c : scheme) {
    if (!(isAlpha(c) || isDigit(c) || c == L'+' || c == L'-' || c == L'.')) return false;
  }
  return true;
}

// Splits a path into its raw segments: none for "", the leading empty one of
// an absolute path left out ("/" gives one empty segment).
TArray<WStr> splitPath(const WStr& path) {
  TArray<WStr> segments;
  if (path.empty()) return segments;
  size_t i = path[0] == L'/' ? 1 : 0;
  while (true) {
    size_t end = path.find(L'/', i);
    segments.add(path.substr(i, end == WStr::npos ? WStr::npos : end - i));
    if (end == WStr::npos) break;
    i = end + 1;
  }
  return segments;
}

// Whether normalising text would leave it as it is: no escapes to rewrite and,
// with lowerCase, no upper-case letters.
bool isNormalText(const String& text, bool lowerCase) {
  const wchar_t* p = text.toWChar();
  const int n = text.getLength();
  for (int i = 0; i < n; ++i) {
    const wchar_t c = p[i];
    if (c == L'%') return false;
    if (lowerCase && c >= L'A' && c <= L'Z') return false;
  }
  return true;
}

// isNormalText(path, false), and no "." segment to drop.
bool isNormalPath(const String& path) {
  const wchar_t* p = path.toWChar();
  const int n = path.getLength();
  int start = 0;
  for (int i = 0; i < n; ++i) {
    const wchar_t c = p[i];
    if (c == L'%') return false;
    if (c == L'/') {
      if (i == start + 1 && p[start] == L'.') return false;
      start = i + 1;
    }
  }
  return !(n == start + 1 && p[start] == L'.');
}

// The path with one trailing empty segment dropped (not the root's).
WStr withoutTrailingSlash(const WStr& path) {
  if (path.size() > 1 && path.back() == L'/') return path.substr(0, path.size() - 1);
  return path;
}

bool isLocalHost(const String& host) {
  return host.isEmpty() || CPathHelper::compareNoCase(host, String("localhost")) == 0;
}

}  // namespace

CURI::CURI(const String& text) {
  if (!parsePlain(text, *this)) *this = parse(text);
}

bool CURI::parsePlain(const String& text, CURI& uri) {
  const wchar_t* s = text.toWChar();
  const size_t n = static_cast<size_t>(text.getLength());
  size_t colon = 0;
  while (colon < n && s[colon] != L':') {
    const wchar_t c = s[colon];
    if (!(isAlpha(c) || (colon > 0 && (isDigit(c) || c == L'+' || c == L'-' || c == L'.')))) {
      return false;
    }
    ++colon;
  }
  if (colon == n || colon < 2) return false;
  static const CAllowedSet kHost = allowedSet(Part::Host);
  static const CAllowedSet kPath = allowedSet(Part::Path);
  size_t pathStart = colon + 1;
  const bool authority = n - pathStart >= 2 && s[pathStart] == L'/' && s[pathStart + 1] == L'/';
  if (authority) {
    pathStart += 2;
    while (pathStart < n && s[pathStart] != L'/') {
      if (!kHost.has(s[pathStart])) return false;
      ++pathStart;
    }
  }
  for (size_t i = pathStart; i < n; ++i) {
    if (!kPath.has(s[i])) return false;
  }
  uri.m_scheme = String(s, colon);
  uri.m_hasAuthority = authority;
  if (authority && pathStart > colon + 3) uri.m_host = String(s + colon + 3, pathStart - colon - 3);
  uri.m_path = String(s + pathStart, n - pathStart);
  return true;
}

CURI CURI::parse(const String& text) {
  CURI uri;
  if (text.isEmpty()) return uri;
  if (parsePlain(text, uri)) return uri;
  WStr s = text.toStdWString();

  size_t colon = s.find(L':');
  size_t delimiter = s.find_first_of(L"/?#");
  if (colon == WStr::npos || (delimiter != WStr::npos && delimiter < colon)) {
    throwMalformed(String("URI has no scheme."), text);
  }
  WStr scheme = s.substr(0, colon);
  if (!isValidScheme(scheme)) throwMalformed(String("Invalid URI scheme."), text);
  if (scheme.size() == 1) {
    throwMalformed(String("A one-letter scheme is a drive letter, not a URI scheme."), text);
  }
  uri.m_scheme = String(scheme);

  WStr rest = s.substr(colon + 1);
  size_t hash = rest.find(L'#');
  if (hash != WStr::npos) {
    uri.m_hasFragment = true;
    uri.m_fragment = String(escapePart(rest.substr(hash + 1), Part::QueryOrFragment, true, text));
    rest.resize(hash);
  }
  size_t question = rest.find(L'?');
  if (question != WStr::npos) {
    uri.m_hasQuery = true;
    uri.m_query = String(escapePart(rest.substr(question + 1), Part::QueryOrFragment, true, text));
    rest.resize(question);
  }

  WStr path = rest;
  if (rest.size() >= 2 && rest[0] == L'/' && rest[1] == L'/') {
    uri.m_hasAuthority = true;
    size_t slash = rest.find(L'/', 2);
    WStr authority = rest.substr(2, slash == WStr::npos ? WStr::npos : slash - 2);
    path = slash == WStr::npos ? WStr() : rest.substr(slash);

    size_t at = authority.rfind(L'@');
    if (at != WStr::npos) {
      uri.m_hasUserInfo = true;
      uri.m_userInfo = String(escapePart(authority.substr(0, at), Part::UserInfo, true, text));
      authority.erase(0, at + 1);
    }
    WStr host;
    WStr port;
    bool hasPort = false;
    if (!authority.empty() && authority[0] == L'[') {
      size_t close = authority.find(L']');
      if (close == WStr::npos || !isValidIPLiteral(authority.substr(1, close - 1))) {
        throwMalformed(String("Invalid IP literal in URI."), text);
      }
      host = authority.substr(0, close + 1);
      if (close + 1 < authority.size()) {
        if (authority[close + 1] != L':') throwMalformed(String("Invalid URI authority."), text);
        hasPort = true;
        port = authority.substr(close + 2);
      }
      uri.m_host = String(host);
    } else {
      size_t portColon = authority.find(L':');
      if (portColon != WStr::npos) {
        hasPort = true;
        port = authority.substr(portColon + 1);
        authority.resize(portColon);
      }
      uri.m_host = String(escapePart(authority, Part::Host, true, text));
    }
    if (hasPort && !port.empty()) {
      int value = 0;
      for (wchar_t c : port) {
        if (!isDigit(c)) throwMalformed(String("Invalid port in URI."), text);
        value = value * 10 + (c - L'0');
        if (value > 65535) throwMalformed(String("Invalid port in URI."), text);
      }
      uri.m_port = value;
    }
  }
  uri.m_path = String(escapePart(path, Part::Path, true, text));
  return uri;
}

String CURI::getAuthority() const {
  if (!m_hasAuthority) return String();
  String out;
  if (m_hasUserInfo) out += m_userInfo + L"@";
  out += m_host;
  if (m_port >= 0) out += String(":") + String::fromInt64(m_port);
  return out;
}

String CURI::toString(bool escaped) const {
  if (isEmpty()) return String();
  // Built in one buffer: every request a client sends carries this text.
  wxString out;
  out.reserve(m_scheme.getLength() + m_userInfo.getLength() + m_host.getLength() +
              m_path.getLength() + m_query.getLength() + m_fragment.getLength() + 16);
  auto add = [&](const String& text) {
    if (escaped) {
      out += text.getWxString();
    } else {
      out += unescape(text).getWxString();
    }
  };
  out += m_scheme.getWxString();
  out += L':';
  if (m_hasAuthority) {
    out += L"//";
    if (m_hasUserInfo) {
      add(m_userInfo);
      out += L'@';
    }
    add(m_host);
    if (m_port >= 0) {
      out += L':';
      out += String::fromInt64(m_port).getWxString();
    }
  }
  add(m_path);
  if (m_hasQuery) {
    out += L'?';
    add(m_query);
  }
  if (m_hasFragment) {
    out += L'#';
    add(m_fragment);
  }
  return String(out);
}

bool CURI::isNormalized() const {
  return isEmpty() ||
         (isNormalText(m_scheme, true) && isNormalText(m_host, true) &&
          isNormalText(m_userInfo, false) && isNormalText(m_query, false) &&
          isNormalText(m_fragment, false) && isNormalPath(m_path) &&
          (m_hasAuthority || !(m_path.safeAt(0) == L'/' && m_path.safeAt(1) == L'/')));
}

CURI CURI::toNormalized() const {
  CURI uri(*this);
  // Most URIs arrive normalised already (every server request does): answer
  // those without rebuilding each part.
  if (isNormalized()) return uri;
  uri.m_scheme = String(normalizeEscapes(m_scheme.toStdWString(), true));
  uri.m_userInfo = String(normalizeEscapes(m_userInfo.toStdWString(), false));
  uri.m_host = String(normalizeEscapes(m_host.toStdWString(), true));
  uri.m_query = String(normalizeEscapes(m_query.toStdWString(), false));
  uri.m_fragment = String(normalizeEscapes(m_fragment.toStdWString(), false));

  // Drop "." segments; a final "." leaves its slash ("/a/." is "/a/"). ".."
  // stays where it is.
  WStr path = normalizeEscapes(m_path.toStdWString(), false);
  bool absolute = !path.empty() && path[0] == L'/';
  TArray<WStr> segments = splitPath(path);
  TArray<WStr> kept;
  for (size_t i = 0; i < segments.size(); ++i) {
    if (segments[i] != L".") {
      kept.add(segments[i]);
    } else if (i + 1 == segments.size()) {
      kept.add(WStr());
    }
  }
  WStr out = absolute ? L"/" : L"";
  for (size_t i = 0; i < kept.size(); ++i) {
    if (i > 0) out += L'/';
    out += kept[i];
  }
  // Keep the text unambiguous: without an authority a path may not start with
  // "//", and a rootless path must not turn into an absolute one.
  if (!uri.m_hasAuthority && absolute && out.size() >= 2 && out[1] == L'/') out = L"/." + out;
  if (!absolute && !out.empty() && out[0] == L'/') out = L"./" + out;
  uri.m_path = String(out);
  return uri;
}

String CURI::getDecodedUserInfo() const { return unescape(m_userInfo); }
String CURI::getDecodedHost() const { return unescape(m_host); }
String CURI::getDecodedPath() const { return unescape(m_path); }
String CURI::getDecodedQuery() const { return unescape(m_query); }
String CURI::getDecodedFragment() const { return unescape(m_fragment); }

TArray<String> CURI::getSegments() const {
  TArray<String> out;
  const wchar_t* path = m_path.toWChar();
  const int length = m_path.getLength();
  if (std::char_traits<wchar_t>::find(path, static_cast<size_t>(length), L'%') == nullptr) {
    // Nothing to decode: the segments are cut straight from the path.
    if (length == 0) return out;
    int start = path[0] == L'/' ? 1 : 0;
    out.reserve(static_cast<size_t>(1 + std::count(path + start, path + length, L'/')));
    for (;;) {
      int end = start;
      while (end < length && path[end] != L'/') ++end;
      out.add(String(path + start, static_cast<size_t>(end - start)));
      if (end == length) return out;
      start = end + 1;
    }
  }
  for (const WStr& segment : splitPath(m_path.toStdWString())) {
    out.add(String(unescapeText(segment)));
  }
  return out;
}

String CURI::getName() const {
  WStr path = withoutTrailingSlash(m_path.toStdWString());
  size_t slash = path.rfind(L'/');
  return String(unescapeText(slash == WStr::npos ? path : path.substr(slash + 1)));
}

bool CURI::hasParent() const {
  if (isEmpty()) return false;
  WStr path = withoutTrailingSlash(m_path.toStdWString());
  return path != L"/" && path.rfind(L'/') != WStr::npos;
}

CURI CURI::getParent() const {
  if (!hasParent()) return CURI();
  WStr path = withoutTrailingSlash(m_path.toStdWString());
  size_t slash = path.rfind(L'/');
  CURI uri(*this);
  uri.m_path = String(slash == 0 ? WStr(L"/") : path.substr(0, slash));
  uri.m_hasQuery = uri.m_hasFragment = false;
  uri.m_query = uri.m_fragment = String();
  return uri;
}

CURI CURI::append(const String& segment) const {
  if (isEmpty()) throw CInvalidArgError(String("CURI::append"), String("The URI is empty."));
  if (segment == L"." || segment == L"..") {
    throw CInvalidArgError(String("CURI::append"), String("'.' and '..' are not segments."));
  }
  WStr path = m_path.toStdWString();
  WStr escaped = escapeSegment(segment).toStdWString();
  if (path.empty()) {
    path = L"/" + escaped;
  } else if (path.back() == L'/') {
    path += escaped;
  } else {
    path += L"/" + escaped;
  }
  CURI uri(*this);
  uri.m_path = String(path);
  uri.m_hasQuery = uri.m_hasFragment = false;
  uri.m_query = uri.m_fragment = String();
  return uri;
}

CURI CURI::append(const TArray<String>& segments) const {
  if (isEmpty()) throw CInvalidArgError(String("CURI::append"), String("The URI is empty."));
  if (segments.empty()) return *this;
  WStr path = m_path.toStdWString();
  for (const String& segment : segments) {
    if (segment == L"." || segment == L"..") {
      throw CInvalidArgError(String("CURI::append"), String("'.' and '..' are not segments."));
    }
    if (path.empty() || path.back() != L'/') path += L'/';
    path += escapePart(segment.toStdWString(), Part::Segment, false, segment);
  }
  CURI uri(*this);
  uri.m_path = String(path);
  uri.m_hasQuery = uri.m_hasFragment = false;
  uri.m_query = uri.m_fragment = String();
  return uri;
}

String CURI::escapeSegment(const String& segment) {
  return String(escapePart(segment.toStdWString(), Part::Segment, false, segment));
}

String CURI::unescape(const String& text) {
  if (text.getWxString().find(L'%') == wxString::npos) return text;
  return String(unescapeText(text.toStdWString()));
}

namespace {

String escapeHost(const String& host) {
  return String(escapePart(host.toStdWString(), Part::Host, false, host));
}

CURI makeFileURI(const String& host, const String& path) {
  return CURI::parse(String("file://") + host + path);
}

}  // namespace

CURI CURI::fromWindowsPath(const CWindowsPath& path) {
  if (!path.isAbsolute()) throw CBadPathError(path.toString());
  const String& root = path.getRoot();
  String host;
  String text;
  bool unc = root.safeAt(0) == L'\\';
  if (unc) {
    // "\\server\share\"
    WStr r = root.toStdWString();
    size_t split = r.find(L'\\', 2);
    host = escapeHost(String(r.substr(2, split - 2)));
    text = String("/") + escapeSegment(String(r.substr(split + 1, r.size() - split - 2)));
  } else {
    text = String("/") + String(root.toStdWString().substr(0, 2));
  }
  for (const String& component : path.getComponents())
    text += String("/") + escapeSegment(component);
  if (path.isRoot() && !unc) text += L"/";
  return makeFileURI(host, text);
}

CURI CURI::fromUnixPath(const CUnixPath& path) {
  if (!path.isAbsolute()) throw CBadPathError(path.toString());
  String text;
  for (const String& component : path.getComponents())
    text += String("/") + escapeSegment(component);
  if (text.isEmpty()) text = String("/");
  return makeFileURI(String(), text);
}

CURI CURI::fromNativePath(const CNativePath& path) {
#if defined(_WIN32)
  return fromWindowsPath(path);
#else
  return fromUnixPath(path);
#endif
}

namespace {

// The checks shared by the file URI conversions.
void checkFileURI(const CURI& uri) {
  if (uri.isEmpty() || CPathHelper::compareNoCase(uri.getScheme(), String("file")) != 0) {
    throw CURIIncompatibleError(uri, String("The URI is not a file URI."));
  }
  if (uri.hasQuery() || uri.hasFragment() || uri.hasUserInfo() || uri.getPort() >= 0) {
    throw CURIIncompatibleError(uri, String("The file URI has parts a path cannot hold."));
  }
  if (uri.getPath().safeAt(0) != L'/') {
    throw CURIIncompatibleError(uri, String("The file URI has no absolute path."));
  }
}

// Appends the segments from index first on; a trailing empty segment is
// dropped. Any segment that is not a valid component (an empty one, one with a
// decoded separator ...) throws CBadPathError naming the decoded path.
template <class Path>
Path appendSegments(const CURI& uri, Path path, const TArray<String>& segments, size_t first) {
  size_t end = segments.size();
  if (end > first && segments[end - 1].isEmpty()) --end;
  for (size_t i = first; i < end; ++i) {
    if (!Path::isValidComponent(segments[i])) throw CBadPathError(uri.getDecodedPath());
    path = path.append(segments[i]);
  }
  return path;
}

}  // namespace

CWindowsPath CURI::toWindowsPath() const {
  checkFileURI(*this);
  TArray<String> segments = getSegments();
  if (isLocalHost(getDecodedHost())) {
    const String drive = segments.empty() ? String() : segments[0];
    if (drive.getLength() != 2 || !isAlpha(drive.safeAt(0)) || drive.safeAt(1) != L':') {
      throw CURIIncompatibleError(*this, String("The file URI names no drive."));
    }
    return appendSegments(*this, CWindowsPath(drive + L"\\"), segments, 1);
  }
  String server = getDecodedHost();
  if (segments.empty() || segments[0].isEmpty()) {
    throw CURIIncompatibleError(*this, String("The network file URI names no share."));
  }
  if (!CWindowsPath::isValidComponent(server) || !CWindowsPath::isValidComponent(segments[0]) ||
      server == L"." || server == L".." || segments[0] == L"." || segments[0] == L"..") {
    throw CBadPathError(String("\\\\") + server + getDecodedPath().cloneReplace(L"/", L"\\"));
  }
  return appendSegments(*this, CWindowsPath(String("\\\\") + server + L"\\" + segments[0]),
                        segments, 1);
}

CUnixPath CURI::toUnixPath() const {
  checkFileURI(*this);
  if (!isLocalHost(getDecodedHost())) {
    throw CURIIncompatibleError(*this, String("The file URI is not local."));
  }
  return appendSegments(*this, CUnixPath(String("/")), getSegments(), 0);
}

CNativePath CURI::toNativePath() const {
#if defined(_WIN32)
  return toWindowsPath();
#else
  return toUnixPath();
#endif
}

namespace {

using Key = std::tuple<const String&, bool, bool, const String&, const String&, int, const String&,
                       bool, const String&, bool, const String&>;

Key key(const CURI& u) {
  return Key(u.getScheme(), u.hasAuthority(), u.hasUserInfo(), u.getUserInfo(), u.getHost(),
             u.getPort(), u.getPath(), u.hasQuery(), u.getQuery(), u.hasFragment(),
             u.getFragment());
}

}  // namespace

bool CURI::operator==(const CURI& other) const { return key(*this) == key(other); }

bool CURI::operator<(const CURI& other) const { return key(*this) < key(other); }

CURIMalformedError::CURIMalformedError(const String& text, const CProps& params)
    : CError(text, String(), -1, params) {}
P<CError> CURIMalformedError::clone() const { return createObject<CURIMalformedError>(*this); }
void CURIMalformedError::throwClone() const { throw CURIMalformedError(*this); }

CURIIncompatibleError::CURIIncompatibleError(const CURI& uri, const String& text) : CError(text) {
  getParams().set(String("uri"), uri.toString(true));
}
P<CError> CURIIncompatibleError::clone() const {
  return createObject<CURIIncompatibleError>(*this);
}
void CURIIncompatibleError::throwClone() const { throw CURIIncompatibleError(*this); }

}  // namespace zel
