#include "zel/fs/proxy/share_mapping.h"

#include <algorithm>
#include <cwchar>
#include <cwctype>

#include "zel/core/error.h"

namespace zel {

namespace {

// The text of uri without a trailing separator (but for a bare "/" path,
// which leaves the text ending in "//": "file://"), so that what follows
// the root in a longer text starts with one.
std::wstring withoutTrailingSlash(const String& text) {
  std::wstring result = text.toStdWString();
  if (!result.empty() && (result.back() == L'/' || result.back() == L'\\')) result.pop_back();
  return result;
}

bool endsOccurrence(wchar_t c) {
  return c == L'/' || c == L'\\' || std::iswspace(static_cast<wint_t>(c)) ||
         std::wcschr(L"\"'`)]}>,;:", c) != nullptr;
}

bool startsOccurrence(wchar_t c) {
  return std::iswspace(static_cast<wint_t>(c)) || std::wcschr(L"\"'`([{<=,;:", c) != nullptr;
}

}  // namespace

CShareMapping::CShareMapping(const CURI& serverRoot, const CURI& clientPrefix,
                             bool pathCaseSensitive)
    : m_serverRoot(serverRoot),
      m_clientPrefix(clientPrefix),
      m_pathCaseSensitive(pathCaseSensitive) {
  const std::wstring escaped = withoutTrailingSlash(clientPrefix.toString(true));
  const std::wstring readable = withoutTrailingSlash(clientPrefix.toString(false));
  auto add = [&](const std::wstring& from, const std::wstring& to) {
    if (from.empty()) return;
    for (const Pattern& pattern : m_patterns) {
      if (pattern.from == from) return;
    }
    m_patterns.add(Pattern{from, to});
  };
  add(withoutTrailingSlash(serverRoot.toString(true)), escaped);
  add(withoutTrailingSlash(serverRoot.toString(false)), readable);
  try {
    // A native path of "/" would match every absolute path: left out.
    const std::wstring native = withoutTrailingSlash(serverRoot.toNativePath().toString());
    if (native.size() > 1 && native.back() != L':') add(native, readable);
  } catch (const CError&) {
    // Not a local file URI: no native form.
  }
  std::stable_sort(m_patterns.begin(), m_patterns.end(),
                   [](const Pattern& a, const Pattern& b) { return a.from.size() > b.from.size(); });
}

CShareMapping::~CShareMapping() = default;

CURI CShareMapping::toClient(const CURI& serverURI) const {
  TArray<String> below;
  if (!CURISelector(m_serverRoot, m_pathCaseSensitive).matches(serverURI, &below)) return CURI();
  return below.isEmpty() ? m_clientPrefix : m_clientPrefix.append(below);
}

CURI CShareMapping::toServer(const CURI& clientURI) const {
  TArray<String> below;
  if (!CURISelector(m_clientPrefix, m_pathCaseSensitive).matches(clientURI, &below)) return CURI();
  return below.isEmpty() ? m_serverRoot : m_serverRoot.append(below);
}

CURI CShareMapping::prefixOf(const CURISelector& selector) {
  if (selector.isEmpty() || selector.getScheme().isEmpty() || selector.matchesAnyAuthority() ||
      selector.getPath().isEmpty()) {
    return CURI();
  }
  const String& path = selector.getPath();
  try {
    if (path.safeAt(0) == L'/') {
      return CURI::parse(selector.getScheme() + "://" + selector.getAuthority() + path);
    }
    if (!selector.getAuthority().isEmpty()) return CURI();
    return CURI::parse(selector.getScheme() + ":" + path);
  } catch (const CError&) {
    return CURI();
  }
}

namespace {

CURISelector mapArea(const CURISelector& area, const CURI& ownRoot, const CURI& otherRoot,
                     bool pathCaseSensitive) {
  if (area.isEmpty()) return CURISelector();
  if (area.matches(ownRoot)) return CURISelector(otherRoot, pathCaseSensitive);
  const CURI prefix = CShareMapping::prefixOf(area);
  TArray<String> below;
  if (prefix.isEmpty() || !CURISelector(ownRoot, pathCaseSensitive).matches(prefix, &below)) {
    return CURISelector();
  }
  return CURISelector(below.isEmpty() ? otherRoot : otherRoot.append(below),
                      area.isPathCaseSensitive());
}

}  // namespace

CURISelector CShareMapping::areaToClient(const CURISelector& serverArea) const {
  return mapArea(serverArea, m_serverRoot, m_clientPrefix, m_pathCaseSensitive);
}

CURISelector CShareMapping::areaToServer(const CURISelector& clientArea) const {
  return mapArea(clientArea, m_clientPrefix, m_serverRoot, m_pathCaseSensitive);
}

String CShareMapping::mapText(const String& text, bool* replaced) const {
  if (replaced) *replaced = false;
  const std::wstring source = text.toStdWString();
  std::wstring result;
  bool any = false;
  size_t i = 0;
  while (i < source.size()) {
    const Pattern* found = nullptr;
    // A native root inside a longer path ("/var" + "/tmp/x", "file://" +
    // "/tmp/x") is no occurrence of it.
    if (i == 0 || startsOccurrence(source[i - 1])) {
      for (const Pattern& pattern : m_patterns) {
        const size_t end = i + pattern.from.size();
        if (end > source.size() || source.compare(i, pattern.from.size(), pattern.from) != 0) {
          continue;
        }
        if (end < source.size() && !endsOccurrence(source[end])) continue;
        found = &pattern;
        break;
      }
    }
    if (found) {
      result += found->to;
      i += found->from.size();
      any = true;
    } else {
      result += source[i];
      ++i;
    }
  }
  if (!any) return text;
  if (replaced) *replaced = true;
  return String(result);
}

}  // namespace zel
