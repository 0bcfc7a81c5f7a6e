#include "zel/core/props.h"

#include <limits>

#include "zel/core/error.h"

namespace zel {

namespace {

void appendQuoted(wxString& out, const wxString& text) {
  out += L'"';
  const wchar_t* p = text.wc_str();
  for (size_t i = 0, n = text.length(); i < n; ++i) {
    if (p[i] == L'"' || p[i] == L'\\') out += L'\\';
    out += p[i];
  }
  out += L'"';
}

// A recursive-descent reader of the text form; accepts exactly what
// CProps::toString() writes, so that parse and print round-trip both ways.
class CPropsReader {
 public:
  explicit CPropsReader(const String& text)
      : m_text(text.toWChar()), m_length(static_cast<size_t>(text.getLength())) {}

  CProps read() {
    CProps props;
    if (m_length == 0) return props;
    for (;;) {
      const size_t keyStart = m_pos;
      String key = readQuoted();
      expect(L'=', "expected '=' after a key");
      String value = readQuoted();
      if (props.has(key)) fail(keyStart, "duplicate key");
      props.set(key, value);
      if (m_pos == m_length) return props;
      expect(L',', "expected ',' or the end of the text after a value");
    }
  }

 private:
  [[noreturn]] static void fail(size_t offset, const char* what) {
    CProps params;
    params.setInt64("offset", static_cast<int64>(offset));
    throw CParseError("Invalid property text at offset " +
                          String::fromInt64(static_cast<int64>(offset)) + ": " + what + ".",
                      params);
  }

  void expect(wchar_t c, const char* what) {
    if (m_pos == m_length || m_text[m_pos] != c) fail(m_pos, what);
    ++m_pos;
  }

  String readQuoted() {
    expect(L'"', "expected '\"'");
    const size_t start = m_pos - 1;
    wxString out;
    for (;;) {
      if (m_pos == m_length) fail(start, "missing closing quote");
      const wchar_t c = m_text[m_pos++];
      if (c == L'"') return String(out);
      if (c == L'\\') {
        if (m_pos == m_length || (m_text[m_pos] != L'"' && m_text[m_pos] != L'\\')) {
          fail(m_pos - 1, "invalid escape (only \\\" and \\\\ exist)");
        }
        out += m_text[m_pos++];
      } else {
        out += c;
      }
    }
  }

  const wchar_t* m_text;
  size_t m_length;
  size_t m_pos = 0;
};

// Strict decimal: an optional '-' and at least one digit, nothing else, in
// range.
bool parseInt64(const String& text, int64& result) {
  const wchar_t* p = text.toWChar();
  const size_t n = static_cast<size_t>(text.getLength());
  size_t i = 0;
  const bool negative = n > 0 && p[0] == L'-';
  if (negative) ++i;
  if (i == n) return false;
  // Accumulate the magnitude as unsigned so that the minimum value fits.
  const uint64 limit = negative ? uint64(std::numeric_limits<int64>::max()) + 1
                                : uint64(std::numeric_limits<int64>::max());
  uint64 value = 0;
  for (; i < n; ++i) {
    if (p[i] < L'0' || p[i] > L'9') return false;
    const uint64 digit = static_cast<uint64>(p[i] - L'0');
    if (value > (limit - digit) / 10) return false;
    value = value * 10 + digit;
  }
  result = negative ? static_cast<int64>(0 - value) : static_cast<int64>(value);
  return true;
}

}  // namespace

bool CProps::has(const String& key) const {
  for (const auto& entry : m_entries) {
    if (entry.first == key) return true;
  }
  return false;
}

String CProps::get(const String& key, const String& defaultValue) const {
  for (const auto& entry : m_entries) {
    if (entry.first == key) return entry.second;
  }
  return defaultValue;
}

int64 CProps::getInt64(const String& key, int64 defaultValue) const {
  for (const auto& entry : m_entries) {
    if (entry.first == key) {
      int64 value = 0;
      return parseInt64(entry.second, value) ? value : defaultValue;
    }
  }
  return defaultValue;
}

void CProps::set(const String& key, const String& value) {
  for (auto& entry : m_entries) {
    if (entry.first == key) {
      entry.second = value;
      return;
    }
  }
  m_entries.emplace_back(key, value);
}

void CProps::setInt64(const String& key, int64 value) { set(key, String::fromInt64(value)); }

bool CProps::remove(const String& key) {
  for (auto it = m_entries.begin(); it != m_entries.end(); ++it) {
    if (it->first == key) {
      m_entries.erase(it);
      return true;
    }
  }
  return false;
}

String CProps::toString() const {
  wxString out;
  for (const auto& entry : m_entries) {
    if (!out.empty()) out += L',';
    appendQuoted(out, entry.first.getWxString());
    out += L'=';
    appendQuoted(out, entry.second.getWxString());
  }
  return String(out);
}

CProps CProps::fromString(const String& text) { return CPropsReader(text).read(); }

}  // namespace zel
