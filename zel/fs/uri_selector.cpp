#include "zel/fs/uri_selector.h"

#include <cstddef>
#include <iterator>

#include "zel/stream/data_stream.h"

namespace zel {

namespace {

constexpr uint32 kStoreVersion = 1;
constexpr uint32 kFlagSet = 1;
constexpr uint32 kFlagPathNoCase = 2;
constexpr uint32 kFlagAnyAuthority = 4;

const wchar_t* const kAnyAuthority = L"*";

[[noreturn]] void throwMalformedPart(const String& message, const String& part) {
  CProps params;
  params.set(String("uri"), part);
  throw CURIMalformedError(message, params);
}

// The decoded segments of an escaped path, as CURI::getSegments() gives them.
TArray<String> decodedSegments(const String& path) {
  TArray<String> out;
  const wxString& text = path.getWxString();
  if (text.empty()) return out;
  size_t i = text[0] == L'/' ? 1 : 0;
  while (true) {
    size_t end = text.find(L'/', i);
    out.add(
        CURI::unescape(String(text.substr(i, end == wxString::npos ? wxString::npos : end - i))));
    if (end == wxString::npos) break;
    i = end + 1;
  }
  return out;
}

}  // namespace

CURISelector::CURISelector(const CURI& prefix, bool pathCaseSensitive) {
  if (prefix.isEmpty()) return;
  CURI normalized = prefix.toNormalized();
  m_set = true;
  m_pathCaseSensitive = pathCaseSensitive;
  m_scheme = normalized.getScheme();
  setAuthority(normalized);
  setPath(normalized);
}

CURISelector::CURISelector(const String& scheme, const String& authority, const String& path,
                           bool pathCaseSensitive) {
  m_set = true;
  m_pathCaseSensitive = pathCaseSensitive;
  if (!scheme.isEmpty()) {
    CURI probe = CURI::parse(scheme + L":");
    if (probe.getScheme() != scheme) throwMalformedPart(String("Invalid URI scheme."), scheme);
    m_scheme = probe.toNormalized().getScheme();
  }
  if (authority == kAnyAuthority) {
    m_anyAuthority = true;
  } else {
    CURI probe = CURI::parse(String("xx://") + authority);
    if (!probe.getPath().isEmpty() || probe.hasQuery() || probe.hasFragment()) {
      throwMalformedPart(String("Invalid URI authority."), authority);
    }
    setAuthority(probe.toNormalized());
  }
  if (!path.isEmpty()) {
    // An absolute path goes behind an empty authority, so that "//" at its
    // start stays part of the path.
    String text = path.safeAt(0) == L'/' ? String("xx://") + path : String("xx:") + path;
    CURI probe = CURI::parse(text);
    if (probe.hasQuery() || probe.hasFragment()) {
      throwMalformedPart(String("Invalid URI path."), path);
    }
    setPath(probe.toNormalized());
    if (m_path.isEmpty()) throwMalformedPart(String("Invalid URI path."), path);
  }
}

void CURISelector::setAuthority(const CURI& uri) {
  // The bare host "*" is the wildcard in every form, so that the stored text
  // stays unambiguous.
  m_anyAuthority = uri.getHost() == kAnyAuthority && !uri.hasUserInfo() && uri.getPort() < 0;
  if (m_anyAuthority) return;
  m_hasUserInfo = uri.hasUserInfo();
  m_userInfo = uri.getUserInfo();
  m_host = uri.getHost();
  m_port = uri.getPort();
}

void CURISelector::setPath(const CURI& uri) {
  // The canonical text: "." segments and trailing empty segments dropped (the
  // latter would only stop "/a//" from covering "/a/x"); a rootless path
  // whose first segment is empty keeps a "./" so that it stays rootless.
  const wxString& text = uri.getPath().getWxString();
  bool absolute = !text.empty() && text[0] == L'/';
  TArray<wxString> segments;
  size_t i = absolute ? 1 : 0;
  while (!text.empty()) {
    size_t end = text.find(L'/', i);
    wxString segment = text.substr(i, end == wxString::npos ? wxString::npos : end - i);
    if (segment != L".") segments.add(segment);
    if (end == wxString::npos) break;
    i = end + 1;
  }
  while (!segments.empty() && segments.back().empty()) segments.pop_back();
  wxString path;
  if (absolute) {
    path = L"/";
  } else if (!segments.empty() && segments[0].empty()) {
    path = L"./";
  }
  for (size_t k = 0; k < segments.size(); ++k) {
    if (k > 0) path += L'/';
    path += segments[k];
  }
  m_path = String(path);
  m_prefix.clear();
  if (!m_path.isEmpty() && m_path != L"/") {
    for (const String& segment : decodedSegments(m_path)) {
      if (segment != L".") m_prefix.add(segment);
    }
  }
}

String CURISelector::getAuthority() const {
  if (m_anyAuthority) return String(kAnyAuthority);
  String out;
  if (m_hasUserInfo) out += m_userInfo + L"@";
  out += m_host;
  if (m_port >= 0) out += String(":") + String::fromInt64(m_port);
  return out;
}

bool CURISelector::matches(const CURI& uri) const { return matches(uri, nullptr); }

bool CURISelector::matches(const CURI& uri, TArray<String>* remainder) const {
  if (uri.isNormalized()) return matchesNormalized(uri, remainder);
  return matchesNormalized(uri.toNormalized(), remainder);
}

bool CURISelector::matchesNormalized(const CURI& normalized, TArray<String>* remainder) const {
  if (!m_set || normalized.isEmpty()) return false;
  if (!m_scheme.isEmpty() && normalized.getScheme() != m_scheme) return false;
  if (!m_anyAuthority) {
    if (normalized.getHost() != m_host || normalized.getPort() != m_port) return false;
    if (m_hasUserInfo && (!normalized.hasUserInfo() || normalized.getUserInfo() != m_userInfo)) {
      return false;
    }
  }
  bool matched = false;
  if (matchesPlainPath(normalized.getPath(), remainder, matched)) return matched;
  // "." can only be left where normalising needs it to keep the text
  // unambiguous; it names nothing.
  TArray<String> segments = normalized.getSegments();
  const auto isDots = [](const String& segment, int count) {
    return segment.getLength() == count && segment.safeAt(0) == L'.' &&
           segment.safeAt(count - 1) == L'.';
  };
  for (size_t i = 0; i < segments.size();) {
    if (isDots(segments[i], 2)) return false;
    if (isDots(segments[i], 1)) {
      segments.erase(segments.begin() + static_cast<std::ptrdiff_t>(i));
    } else {
      ++i;
    }
  }
  size_t first = 0;
  if (!m_path.isEmpty()) {
    bool absolute = m_path.safeAt(0) == L'/';
    if (absolute != (normalized.getPath().safeAt(0) == L'/')) return false;
    const TArray<String>& prefix = m_prefix;
    if (prefix.size() > segments.size()) return false;
    for (size_t i = 0; i < prefix.size(); ++i) {
      bool same = m_pathCaseSensitive ? prefix[i] == segments[i]
                                      : CPathHelper::compareNoCase(prefix[i], segments[i]) == 0;
      if (!same) return false;
    }
    first = prefix.size();
  }
  if (remainder) {
    size_t end = segments.size();
    if (end > first && segments[end - 1].isEmpty()) --end;
    remainder->assign(std::make_move_iterator(segments.begin() + static_cast<std::ptrdiff_t>(first)),
                      std::make_move_iterator(segments.begin() + static_cast<std::ptrdiff_t>(end)));
  }
  return true;
}

namespace {

bool hasEscape(const wchar_t* text, int length) {
  return std::char_traits<wchar_t>::find(text, static_cast<size_t>(length), L'%') != nullptr;
}

}  // namespace

bool CURISelector::matchesPlainPath(const String& path, TArray<String>* remainder,
                                    bool& matched) const {
  const wchar_t* p = path.toWChar();
  const int n = path.getLength();
  const wchar_t* own = m_path.toWChar();
  const int ownLength = m_path.getLength();
  if (!m_pathCaseSensitive || hasEscape(p, n) ||
      (ownLength > 0 && (own[0] != L'/' || hasEscape(own, ownLength)))) {
    return false;
  }
  // ".." never matches; "." is left to the general way.
  for (int start = (n > 0 && p[0] == L'/') ? 1 : 0; start <= n;) {
    int end = start;
    while (end < n && p[end] != L'/') ++end;
    if (end - start == 2 && p[start] == L'.' && p[start + 1] == L'.') {
      matched = false;
      return true;
    }
    if (end - start == 1 && p[start] == L'.') return false;
    start = end + 1;
  }
  // Without escapes the texts are their decoded segments: the path must be
  // the selector's or continue it with "/" ("/" itself: any absolute path).
  int first = n > 0 && p[0] == L'/' ? 1 : 0;
  if (ownLength > 0) {
    if (n == 0 || p[0] != L'/') {
      matched = false;
      return true;
    }
    if (ownLength > 1) {
      if (n < ownLength || std::char_traits<wchar_t>::compare(p, own, ownLength) != 0 ||
          (n > ownLength && p[ownLength] != L'/')) {
        matched = false;
        return true;
      }
      first = n > ownLength ? ownLength + 1 : n;
    }
  }
  if (remainder) {
    remainder->clear();
    // A trailing empty segment is dropped.
    for (int start = first; start < n;) {
      int end = start;
      while (end < n && p[end] != L'/') ++end;
      if (end < n || end > start) remainder->add(String(p + start, static_cast<size_t>(end - start)));
      start = end + 1;
    }
  }
  matched = true;
  return true;
}

String CURISelector::toString() const {
  if (!m_set) return String();
  String out = m_scheme.isEmpty() ? String("*") : m_scheme;
  out += String("://") + getAuthority() + m_path;
  if (!m_pathCaseSensitive) out += String(" (path without case)");
  return out;
}

void CURISelector::store(CDataOutStream& out) const {
  uint32 flags = 0;
  if (m_set) {
    flags |= kFlagSet;
    if (!m_pathCaseSensitive) flags |= kFlagPathNoCase;
    if (m_anyAuthority) flags |= kFlagAnyAuthority;
  }
  out.writeUInt32(kStoreVersion);
  out.writeUInt32(flags);
  out.writeString(m_scheme);
  out.writeString(m_set ? getAuthority() : String());
  out.writeString(m_path);
}

CURISelector CURISelector::load(CDataInStream& in) {
  uint32 version = in.readUInt32();
  if (version != kStoreVersion) {
    CProps params;
    params.setInt64(String("version"), version);
    throw CIOError(CIOError::UnsupportedVersion, String("Unsupported URI selector version."),
                   params);
  }
  uint32 flags = in.readUInt32();
  String scheme = in.readString();
  String authority = in.readString();
  String path = in.readString();
  auto invalid = [&]() {
    CProps params;
    params.set(String("scheme"), scheme);
    params.set(String("authority"), authority);
    params.set(String("path"), path);
    return CIOError(CIOError::InvalidData, String("Invalid stored URI selector."), params);
  };
  if ((flags & ~(kFlagSet | kFlagPathNoCase | kFlagAnyAuthority)) != 0) throw invalid();
  if ((flags & kFlagSet) == 0) {
    if (flags != 0 || !scheme.isEmpty() || !authority.isEmpty() || !path.isEmpty()) throw invalid();
    return CURISelector();
  }
  bool anyAuthority = (flags & kFlagAnyAuthority) != 0;
  if (anyAuthority != (authority == kAnyAuthority)) throw invalid();
  CURISelector selector;
  try {
    selector = CURISelector(scheme, authority, path, (flags & kFlagPathNoCase) == 0);
  } catch (const CURIMalformedError& e) {
    CIOError error = invalid();
    error.setCause(e);
    throw error;
  }
  // Only the canonical texts that store() writes are accepted, so that a
  // loaded selector stores to the same bytes.
  if (selector.m_scheme != scheme || selector.getAuthority() != authority ||
      selector.m_path != path) {
    throw invalid();
  }
  return selector;
}

bool CURISelector::operator==(const CURISelector& other) const {
  return m_set == other.m_set && m_pathCaseSensitive == other.m_pathCaseSensitive &&
         m_scheme == other.m_scheme && m_anyAuthority == other.m_anyAuthority &&
         m_hasUserInfo == other.m_hasUserInfo && m_userInfo == other.m_userInfo &&
         m_host == other.m_host && m_port == other.m_port && m_path == other.m_path;
}

}  // namespace zel
