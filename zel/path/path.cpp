#include "zel/path/path.h"

namespace zel {

namespace {

bool isAsciiLetter(wchar_t c) { return (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z'); }

}  // namespace

int CPathHelper::compareExact(const String& a, const String& b) {
  const wxString& x = a.getWxString();
  const wxString& y = b.getWxString();
  size_t n = std::min(x.length(), y.length());
  for (size_t i = 0; i < n; ++i) {
    wchar_t cx = x[i];
    wchar_t cy = y[i];
    if (cx != cy) return cx < cy ? -1 : 1;
  }
  if (x.length() == y.length()) return 0;
  return x.length() < y.length() ? -1 : 1;
}

wchar_t CPathHelper::foldCase(wchar_t c) {
  unsigned u = static_cast<unsigned>(c);
  if (u < 0x80) return (u >= 'A' && u <= 'Z') ? wchar_t(u + 0x20) : c;
  // Latin-1: À..Þ except the multiplication sign.
  if (u >= 0xC0 && u <= 0xDE && u != 0xD7) return wchar_t(u + 0x20);
  // Latin Extended-A: pairs of upper and lower case, with the odd runs.
  if (u >= 0x100 && u <= 0x137) return wchar_t(u | 1u);
  if (u >= 0x139 && u <= 0x148) return (u & 1u) ? wchar_t(u + 1) : c;
  if (u >= 0x14A && u <= 0x177) return wchar_t(u | 1u);
  if (u == 0x178) return wchar_t(0xFF);
  if (u >= 0x179 && u <= 0x17E) return (u & 1u) ? wchar_t(u + 1) : c;
  // Greek capitals (0x3A2 is unassigned).
  if (u >= 0x391 && u <= 0x3AB && u != 0x3A2) return wchar_t(u + 0x20);
  // Cyrillic.
  if (u >= 0x400 && u <= 0x40F) return wchar_t(u + 0x50);
  if (u >= 0x410 && u <= 0x42F) return wchar_t(u + 0x20);
  return c;
}

int CPathHelper::compareNoCase(const String& a, const String& b) {
  const wxString& x = a.getWxString();
  const wxString& y = b.getWxString();
  size_t n = std::min(x.length(), y.length());
  for (size_t i = 0; i < n; ++i) {
    wchar_t cx = foldCase(x[i]);
    wchar_t cy = foldCase(y[i]);
    if (cx != cy) return cx < cy ? -1 : 1;
  }
  if (x.length() == y.length()) return 0;
  return x.length() < y.length() ? -1 : 1;
}

bool CWindowsPathTraits::isInvalidComponentChar(wchar_t c) {
  if (static_cast<unsigned>(c) < 32) return true;  // NUL and control characters 1 to 31
  switch (c) {
    case L'\\':
    case L':':
    case L'*':
    case L'?':
    case L'"':
    case L'<':
    case L'>':
    case L'|':
    case L'/':
      return true;
    default:
      return false;
  }
}

size_t CWindowsPathTraits::parseRoot(const String& text, String& root) {
  const wxString& s = text.getWxString();
  size_t length = s.length();
  root = String();
  if (length >= 2 && isSeparator(s[0]) && isSeparator(s[1])) {
    // UNC: \\server\share, each a valid component.
    size_t pos = 2;
    String parts[2];
    for (String& part : parts) {
      size_t start = pos;
      while (pos < length && !isSeparator(s[pos])) ++pos;
      part = String(s.substr(start, pos - start));
      if (part.isEmpty() || part == L"." || part == L"..") throw CBadPathError(text);
      for (wchar_t c : part.getWxString()) {
        if (isInvalidComponentChar(c)) throw CBadPathError(text);
      }
      if (&part == &parts[0]) {
        if (pos >= length) throw CBadPathError(text);  // a server without a share
        ++pos;
      }
    }
    root = String(L"\\\\") + parts[0] + L"\\" + parts[1] + L"\\";
    return pos;
  }
  if (length >= 2 && isAsciiLetter(s[0]) && s[1] == L':') {
    if (length > 2 && !isSeparator(s[2])) throw CBadPathError(text);  // "C:foo"
    root = String(s.substr(0, 2)) + L"\\";
    return 2;
  }
  if (length >= 1 && isSeparator(s[0])) {
    root = String(L"\\");
    return 1;
  }
  return 0;
}

bool CWindowsPathTraits::isAbsoluteRoot(const String& root) {
  // "C:\" or "\\server\share\"; the bare "\" depends on the current drive.
  return root.getLength() > 1;
}

int CWindowsPathTraits::compareText(const String& a, const String& b) {
  return CPathHelper::compareNoCase(a, b);
}

size_t CUnixPathTraits::parseRoot(const String& text, String& root) {
  bool rooted = text.safeAt(0) == L'/';
  root = rooted ? String(L"/") : String();
  return rooted ? 1 : 0;
}

int CUnixPathTraits::compareText(const String& a, const String& b) {
  return CPathHelper::compareExact(a, b);
}

size_t CMacPathTraits::parseRoot(const String& text, String& root) {
  return CUnixPathTraits::parseRoot(text, root);
}

int CMacPathTraits::compareText(const String& a, const String& b) {
  return CPathHelper::compareNoCase(a, b);
}

}  // namespace zel
