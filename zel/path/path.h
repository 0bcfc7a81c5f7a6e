// Path values for Windows, Unix and Mac conventions: TPathImpl over a traits
// class that knows the separators, the roots, the characters a component may
// not hold and how names compare.
//
// A path is a root and a list of components.
//   Windows  roots: "C:\" (a drive; "C:" alone is taken as "C:\"), "\\server\share\"
//            (UNC; server and share must be valid components), "\" (rooted on
//            the current drive: has a root but is not absolute), "" (relative).
//            Drive-relative text such as "C:foo" is refused. The separator is
//            "\", "/" is accepted as well. Names compare without case.
//   Unix     roots "/" and ""; separator "/"; names compare with case.
//   Mac      the POSIX view of macOS: like Unix, but names compare without case
//            (the default file systems of macOS are case-insensitive) and ":"
//            is refused in a component as well (the Finder shows "/" as ":",
//            and the old HFS separator is ":").
// Parsing collapses runs of separators, drops "." components and trailing
// separators, and keeps ".." (it is never resolved: "a\..\b" stays as it is,
// so a caller can still see and refuse it). A component holding an invalid
// character throws CBadPathError ("Invalid path: " + the whole text).
// Windows reserved device names (CON, NUL ...) and trailing dots or blanks
// are not checked: the file system reports those.
//
// Case folding for the case-insensitive traits is locale-independent: ASCII,
// Latin-1, Latin Extended-A, Greek and Cyrillic letters fold; other characters
// compare exactly.
//
// Paths are values; they are not synchronised.
#pragma once

#include "zel/core/containers.h"
#include "zel/core/error.h"
#include "zel/core/string.h"

namespace zel {

class ZEL_API CWindowsPathTraits {
 public:
  static constexpr wchar_t kSeparator = L'\\';
  static constexpr bool kCaseSensitive = false;
  static bool isSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }
  // Control characters 1 to 31, \ : * ? " < > | / and NUL.
  static bool isInvalidComponentChar(wchar_t c);
  // Reads the root at the start of text into root (canonical form, ending in
  // the separator unless empty) and returns the number of characters it took.
  // Throws CBadPathError for a malformed root.
  static size_t parseRoot(const String& text, String& root);
  // True for drive and UNC roots.
  static bool isAbsoluteRoot(const String& root);
  static int compareText(const String& a, const String& b);
};

class ZEL_API CUnixPathTraits {
 public:
  static constexpr wchar_t kSeparator = L'/';
  static constexpr bool kCaseSensitive = true;
  static bool isSeparator(wchar_t c) { return c == L'/'; }
  // "/" and NUL.
  static bool isInvalidComponentChar(wchar_t c) { return c == L'/' || c == 0; }
  static size_t parseRoot(const String& text, String& root);
  static bool isAbsoluteRoot(const String& root) { return !root.isEmpty(); }
  static int compareText(const String& a, const String& b);
};

class ZEL_API CMacPathTraits {
 public:
  static constexpr wchar_t kSeparator = L'/';
  static constexpr bool kCaseSensitive = false;
  static bool isSeparator(wchar_t c) { return c == L'/'; }
  // "/", ":" and NUL.
  static bool isInvalidComponentChar(wchar_t c) { return c == L'/' || c == L':' || c == 0; }
  static size_t parseRoot(const String& text, String& root);
  static bool isAbsoluteRoot(const String& root) { return !root.isEmpty(); }
  static int compareText(const String& a, const String& b);
};

// Helpers shared by the path templates; not for direct use.
class ZEL_API CPathHelper {
 public:
  // Exact (ordinal) or case-folded three-way comparison.
  static int compareExact(const String& a, const String& b);
  static int compareNoCase(const String& a, const String& b);
  // Folds one character as described above.
  static wchar_t foldCase(wchar_t c);
};

template <class Traits>
class TPathImpl {
 public:
  // The empty relative path.
  TPathImpl() = default;
  explicit TPathImpl(const String& text) { parseInto(text); }
  static TPathImpl parse(const String& text) { return TPathImpl(text); }

  // True when name is non-empty and holds no invalid character.
  static bool isValidComponent(const String& name) {
    if (name.isEmpty()) return false;
    for (wchar_t c : name.getWxString()) {
      if (Traits::isInvalidComponentChar(c)) return false;
    }
    return true;
  }

  // Root and components with the canonical separator.
  String toString() const {
    String out = m_root;
    for (size_t i = 0; i < m_components.size(); ++i) {
      if (i > 0) out += Traits::kSeparator;
      out += m_components[i];
    }
    return out;
  }

  bool isEmpty() const { return m_root.isEmpty() && m_components.empty(); }
  bool hasRoot() const { return !m_root.isEmpty(); }
  bool isAbsolute() const { return Traits::isAbsoluteRoot(m_root); }
  bool isRelative() const { return !isAbsolute(); }
  // A root without components.
  bool isRoot() const { return hasRoot() && m_components.empty(); }
  const String& getRoot() const { return m_root; }
  // The path made of the root alone.
  TPathImpl getRootPath() const {
    TPathImpl p;
    p.m_root = m_root;
    return p;
  }
  const TArray<String>& getComponents() const { return m_components; }
  int getComponentCount() const { return m_components.getCount(); }

  // The last component; empty when there is none.
  String getName() const { return m_components.empty() ? String() : m_components.back(); }
  // The text after the last "." of the name, without it; empty when the name
  // has no dot, only a leading one (".profile"), ends in one, or is "..".
  String getExtension() const {
    String name = getName();
    size_t dot = extensionDot(name);
    return dot == wxString::npos ? String() : String(name.getWxString().substr(dot + 1));
  }
  // The name without its extension and the dot before it ("a." gives "a").
  String getNameWithoutExtension() const {
    String name = getName();
    size_t dot = extensionDot(name);
    return dot == wxString::npos ? name : String(name.getWxString().substr(0, dot));
  }

  // True when there is a component to remove.
  bool hasParent() const { return !m_components.empty(); }
  // The path without its last component (the root stays); the empty path when
  // there is no parent.
  TPathImpl getParent() const {
    if (!hasParent()) return TPathImpl();
    TPathImpl p(*this);
    p.m_components.pop_back();
    return p;
  }

  // Appends a relative path (one component or several). Text with a root
  // throws CBadPathError, as does an invalid component.
  TPathImpl join(const String& relative) const { return join(TPathImpl(relative)); }
  TPathImpl join(const TPathImpl& relative) const {
    if (relative.hasRoot()) throw CBadPathError(relative.toString());
    TPathImpl p(*this);
    p.m_components.insert(p.m_components.end(), relative.m_components.begin(),
                          relative.m_components.end());
    return p;
  }
  // Appends exactly one component, taken literally (separators in it are
  // invalid characters, not separators): CBadPathError unless
  // isValidComponent(component). "." leaves the path as it is.
  TPathImpl append(const String& component) const {
    if (!isValidComponent(component)) throw CBadPathError(component);
    TPathImpl p(*this);
    if (component != L".") p.m_components.add(component);
    return p;
  }
  TPathImpl operator/(const String& relative) const { return join(relative); }
  TPathImpl operator/(const TPathImpl& relative) const { return join(relative); }

  // True when prefix's root and components begin this path (whole components,
  // with the traits' case rule).
  bool startsWith(const TPathImpl& prefix) const {
    if (Traits::compareText(m_root, prefix.m_root) != 0) return false;
    if (prefix.m_components.size() > m_components.size()) return false;
    for (size_t i = 0; i < prefix.m_components.size(); ++i) {
      if (Traits::compareText(m_components[i], prefix.m_components[i]) != 0) return false;
    }
    return true;
  }

  // Three-way comparison: roots first, then components one by one, with the
  // traits' case rule; a proper prefix sorts first.
  int compare(const TPathImpl& other) const {
    int c = Traits::compareText(m_root, other.m_root);
    if (c != 0) return c;
    size_t n = std::min(m_components.size(), other.m_components.size());
    for (size_t i = 0; i < n; ++i) {
      c = Traits::compareText(m_components[i], other.m_components[i]);
      if (c != 0) return c;
    }
    if (m_components.size() == other.m_components.size()) return 0;
    return m_components.size() < other.m_components.size() ? -1 : 1;
  }
  bool operator==(const TPathImpl& other) const { return compare(other) == 0; }
  bool operator!=(const TPathImpl& other) const { return compare(other) != 0; }
  bool operator<(const TPathImpl& other) const { return compare(other) < 0; }

 private:
  static size_t extensionDot(const String& name) {
    const wxString& text = name.getWxString();
    size_t dot = text.rfind(L'.');
    if (dot == 0 || text == L"..") return wxString::npos;
    return dot;
  }

  void parseInto(const String& text) {
    size_t pos = Traits::parseRoot(text, m_root);
    const wxString& s = text.getWxString();
    size_t length = s.length();
    while (pos < length) {
      while (pos < length && Traits::isSeparator(s[pos])) ++pos;
      size_t start = pos;
      while (pos < length && !Traits::isSeparator(s[pos])) ++pos;
      if (pos == start) break;
      String component(s.substr(start, pos - start));
      if (component == L".") continue;
      if (!isValidComponent(component)) throw CBadPathError(text);
      m_components.add(component);
    }
  }

  String m_root;
  TArray<String> m_components;
};

using CWindowsPath = TPathImpl<CWindowsPathTraits>;
using CUnixPath = TPathImpl<CUnixPathTraits>;
using CMacPath = TPathImpl<CMacPathTraits>;
#if defined(_WIN32)
using CNativePath = CWindowsPath;
#else
using CNativePath = CUnixPath;
#endif

}  // namespace zel
