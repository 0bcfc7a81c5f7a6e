#include "zel/core/string.h"

#include <cstring>
#include <string>
#include <typeinfo>

#include "zel/core/error.h"
#include "zel/core/utf8.h"

namespace zel {

namespace {

// On Windows wchar_t holds UTF-16 units and a character outside the BMP is a
// surrogate pair, which must be encoded (or replaced) as one character.
constexpr bool kWideIsUtf16 = sizeof(wchar_t) == 2;

bool isHighSurrogate(wchar_t c) {
  return kWideIsUtf16 && c >= 0xD800 && c <= 0xDBFF;
}

bool isLowSurrogate(wchar_t c) {
  return kWideIsUtf16 && c >= 0xDC00 && c <= 0xDFFF;
}

// White space as trim() understands it: fixed, independent of the locale.
bool isSpace(wchar_t c) {
  return c == L' ' || c == L'\t' || c == L'\n' || c == L'\v' || c == L'\f' || c == L'\r';
}

const wxMBConv& currentConv() { return wxConvLibc; }

const wxMBConv& utf16Conv() {
  static const wxMBConvUTF16LE conv;
  return conv;
}

const wxMBConv& utf32Conv() {
  static const wxMBConvUTF32LE conv;
  return conv;
}

// A buffer of size bytes followed by the converter's terminator (one to four
// zero bytes), so that the result reads as a C string in any encoding.
wxCharBuffer makeBuffer(const wxMBConv& conv, const char* data, size_t size) {
  size_t nulLen = conv.GetMBNulLen();
  if (nulLen == wxCONV_FAILED) nulLen = 1;
  // wxCharBuffer(n) holds n + 1 bytes.
  wxCharBuffer buffer(size + nulLen - 1);
  if (size) std::memcpy(buffer.data(), data, size);
  std::memset(buffer.data() + size, 0, nulLen);
  return buffer;
}

void setLength(int* length, size_t value) {
  if (length) *length = static_cast<int>(value);
}

// UTF-8 is the library's own codec (zel/core/utf8.h) rather than wxWidgets':
// one judgement of what is well-formed on every platform, and no lone
// surrogate written as three bytes on Linux. The converter is told by its
// type, not its address: where wxWidgets is linked statically (Windows), the
// caller's wxConvUTF8 is another object than the library's.
bool isUTF8(const wxMBConv& conv) { return typeid(conv) == typeid(wxMBConvStrictUTF8); }

// Encodes with the codec, escaped bytes restored or refused; a null buffer
// when some character cannot be encoded.
wxCharBuffer encodeWithCodec(const wchar_t* text, size_t count, EscapedBytes escapes,
                             size_t* outLength) {
  std::string bytes;
  if (encodeUTF8(text, count, escapes, bytes) != count) return wxCharBuffer();
  *outLength = bytes.size();
  return makeBuffer(wxConvUTF8, bytes.data(), bytes.size());
}

// Converts [text, text + count) as a whole; a null buffer when the converter
// cannot represent some character. Empty input never reaches the converters,
// whose handling of it varies between implementations.
wxCharBuffer convertWhole(const wxMBConv& conv, const wchar_t* text, size_t count,
                          size_t* outLength) {
  if (count == 0) {
    *outLength = 0;
    return makeBuffer(conv, "", 0);
  }
  if (isUTF8(conv)) return encodeWithCodec(text, count, EscapedBytes::Refuse, outLength);
  return conv.cWC2MB(text, count, outLength);
}

// Latin-1 maps every byte to the character of the same number.
wxString latin1(const char* text, size_t length) {
  if (length == wxNO_LEN) length = std::strlen(text);
  const auto* bytes = reinterpret_cast<const unsigned char*>(text);
  return wxString(std::wstring(bytes, bytes + length));
}

// Decodes, falling back to Latin-1 for the whole text when the converter
// rejects the input. length may be wxNO_LEN for a terminated text.
wxString decode(const char* text, size_t length, const wxMBConv& conv) {
  if (!text || length == 0) return wxString();
  if (isUTF8(conv)) {
    if (length == wxNO_LEN) length = std::strlen(text);
    std::wstring wide;
    if (!decodeUTF8(text, length, wide)) return latin1(text, length);
    return wxString(wide);
  }
  size_t outLength = 0;
  wxWCharBuffer wide = conv.cMB2WC(text, length, &outLength);
  if (!wide.data()) return latin1(text, length);
  return wxString(wide.data(), outLength);
}

// Appends the conversion of text[begin, end) with each character the
// converter rejects replaced by "?", found by bisection: a range without such
// characters costs one conversion.
void convertSafely(const wxMBConv& conv, const wchar_t* text, size_t begin, size_t end,
                   std::string& out) {
  if (begin >= end) return;
  const size_t count = end - begin;
  size_t converted = 0;
  wxCharBuffer buffer = convertWhole(conv, text + begin, count, &converted);
  if (buffer.data()) {
    out.append(buffer.data(), converted);
    return;
  }
  const bool oneCharacter =
      count == 1 || (count == 2 && isHighSurrogate(text[begin]) && isLowSurrogate(text[begin + 1]));
  if (oneCharacter) {
    wxCharBuffer mark = convertWhole(conv, L"?", 1, &converted);
    if (mark.data()) {
      out.append(mark.data(), converted);
    } else {
      out += '?';
    }
    return;
  }
  size_t middle = begin + count / 2;
  // Never cut a surrogate pair; count >= 3 here, so middle + 1 < end.
  if (isHighSurrogate(text[middle - 1]) && isLowSurrogate(text[middle])) ++middle;
  convertSafely(conv, text, begin, middle, out);
  convertSafely(conv, text, middle, end, out);
}

String hexText(int64 value) {
  uint64 bits = static_cast<uint64>(value);
  wchar_t digits[16];
  size_t count = 0;
  do {
    digits[count++] = L"0123456789abcdef"[bits & 0xF];
    bits >>= 4;
  } while (bits);
  std::wstring text;
  while (count) text += digits[--count];
  return String(text);
}

}  // namespace

// ---------------------------------------------------------------------------
// String

String::String(const wxString& text) : m_str(text) {}
String::String(const char* text) : m_str(decode(text, wxNO_LEN, currentConv())) {}
String::String(const char* text, size_t length) : m_str(decode(text, length, currentConv())) {}
String::String(const char* text, const wxMBConv& conv) : m_str(decode(text, wxNO_LEN, conv)) {}
String::String(const char* text, const wxMBConv& conv, size_t length)
    : m_str(decode(text, length, conv)) {}
String::String(const wchar_t* text) : m_str(text ? wxString(text) : wxString()) {}
String::String(const wchar_t* text, size_t length)
    : m_str(text ? wxString(text, length) : wxString()) {}
String::String(const std::string& text)
    : m_str(decode(text.data(), text.size(), currentConv())) {}
String::String(const std::wstring& text) : m_str(text.data(), text.size()) {}
String::~String() = default;

String& String::operator=(const wxString& text) {
  m_str = text;
  return *this;
}

String& String::operator=(const char* text) {
  m_str = decode(text, wxNO_LEN, currentConv());
  return *this;
}

String& String::operator=(const wchar_t* text) {
  m_str = text ? wxString(text) : wxString();
  return *this;
}

String& String::operator=(const std::string& text) {
  m_str = decode(text.data(), text.size(), currentConv());
  return *this;
}

String& String::operator=(const std::wstring& text) {
  m_str.assign(text.data(), text.size());
  return *this;
}

String& String::operator+=(const String& text) {
  m_str += text.m_str;
  return *this;
}

String& String::operator+=(const wxString& text) {
  m_str += text;
  return *this;
}

String& String::operator+=(const char* text) {
  m_str += decode(text, wxNO_LEN, currentConv());
  return *this;
}

String& String::operator+=(const wchar_t* text) {
  if (text) m_str += text;
  return *this;
}

String& String::operator+=(wchar_t c) {
  m_str += c;
  return *this;
}

String& String::operator+=(wxUniChar c) {
  m_str += c;
  return *this;
}

bool String::operator==(const String& other) const { return m_str == other.m_str; }
bool String::operator==(const wxString& other) const { return m_str == other; }
bool String::operator==(const char* other) const { return *this == String(other); }
bool String::operator==(const wchar_t* other) const { return *this == String(other); }

bool String::operator<(const String& other) const {
  // Ordinal: by wchar_t units, whatever the locale.
  return m_str.compare(other.m_str) < 0;
}

int String::getLength() const { return static_cast<int>(m_str.length()); }

bool String::isEmpty() const { return m_str.empty(); }

const wchar_t* String::toWChar() const { return m_str.wc_str(); }

std::wstring String::toStdWString() const { return m_str.ToStdWstring(); }

wchar_t String::safeAt(int index) const {
  if (index < 0 || static_cast<size_t>(index) >= m_str.length()) return 0;
  return m_str.wc_str()[index];
}

String& String::trim() { return trimRight().trimLeft(); }

String& String::trimLeft() {
  const wchar_t* text = m_str.wc_str();
  size_t start = 0;
  while (start < m_str.length() && isSpace(text[start])) ++start;
  m_str.erase(0, start);
  return *this;
}

String& String::trimRight() {
  const wchar_t* text = m_str.wc_str();
  size_t end = m_str.length();
  while (end > 0 && isSpace(text[end - 1])) --end;
  m_str.erase(end);
  return *this;
}

bool String::startsWithNoCase(const wchar_t* prefix) const {
  if (!prefix) return true;
  const size_t length = std::wcslen(prefix);
  if (length > m_str.length()) return false;
  return m_str.Left(length).CmpNoCase(wxString(prefix, length)) == 0;
}

String String::cloneReplace(const String& from, const String& to) const {
  String copy(*this);
  // wxString::Replace asserts on an empty pattern; there is nothing to find.
  if (!from.isEmpty()) copy.m_str.Replace(from.m_str, to.m_str, true);
  return copy;
}

String String::fromCP(const char* text) { return String(text, currentConv()); }

String String::fromCP(const char* text, size_t length) {
  return String(text, currentConv(), length);
}

String String::fromFileSystemEncoding(const char* text) {
#if defined(_WIN32)
  return String(text, *wxConvFileName);
#else
  return fromUTF8Lossless(text, text ? std::strlen(text) : 0);
#endif
}

String String::fromUTF8Lossless(const char* bytes, size_t length) {
  if (!bytes || length == 0) return String();
  std::wstring wide;
  decodeUTF8(bytes, length, wide);
  return String(wide);
}

String String::fromUTF8(const char* text) { return String(text, wxConvUTF8); }

String String::fromUTF8(const char* text, size_t length) {
  return String(text, wxConvUTF8, length);
}

wxCharBuffer String::toCP(int* length) const { return toEncoding(currentConv(), length); }

wxCharBuffer String::toEncoding(const wxMBConv& conv, int* length) const {
  size_t outLength = 0;
  wxCharBuffer buffer = convertWhole(conv, m_str.wc_str(), m_str.length(), &outLength);
  if (!buffer.data()) throw CUnencodableStringError();
  setLength(length, outLength);
  return buffer;
}

wxCharBuffer String::toUTF8(int* length) const { return toEncoding(wxConvUTF8, length); }

wxCharBuffer String::toLatin1(int* length) const { return toEncoding(wxConvISO8859_1, length); }

wxCharBuffer String::toUTF16(int* length) const { return toEncoding(utf16Conv(), length); }

wxCharBuffer String::toUTF32(int* length) const { return toEncoding(utf32Conv(), length); }

wxCharBuffer String::toUTF8Lossless(int* length) const {
  size_t outLength = 0;
  wxCharBuffer buffer =
      encodeWithCodec(m_str.wc_str(), m_str.length(), EscapedBytes::Restore, &outLength);
  if (!buffer.data()) throw CUnencodableStringError();
  setLength(length, outLength);
  return buffer;
}

wxCharBuffer String::toFileSystemEncoding(int* length) const {
#if defined(_WIN32)
  return toEncoding(*wxConvFileName, length);
#else
  return toUTF8Lossless(length);
#endif
}

std::string String::toStdUTF8() const {
  int length = 0;
  wxCharBuffer buffer = toUTF8(&length);
  return std::string(buffer.data(), static_cast<size_t>(length));
}

wxCharBuffer String::toCPSafe(int* length) const { return toEncodingSafe(currentConv(), length); }

wxCharBuffer String::toEncodingSafe(const wxMBConv& conv, int* length) const {
  size_t outLength = 0;
  wxCharBuffer whole = convertWhole(conv, m_str.wc_str(), m_str.length(), &outLength);
  if (whole.data()) {
    setLength(length, outLength);
    return whole;
  }
  std::string out;
  toEncodingSafeInternal(conv, 0, m_str.length(), out);
  setLength(length, out.size());
  return makeBuffer(conv, out.data(), out.size());
}

void String::toEncodingSafeInternal(const wxMBConv& conv, size_t begin, size_t end,
                                    std::string& out) const {
  convertSafely(conv, m_str.wc_str(), begin, end, out);
}

String String::fromInt64(int64 value) {
  // std::to_string formats without the C runtime's printf (whose "%lld"
  // support varies on Windows); the digits are ASCII, so widen them directly.
  const std::string digits = std::to_string(value);
  return String(std::wstring(digits.begin(), digits.end()));
}

String operator+(const String& a, const String& b) {
  String result(a);
  result += b;
  return result;
}

String operator+(const String& a, const wchar_t* b) {
  String result(a);
  result += b;
  return result;
}

String operator+(const wchar_t* a, const String& b) {
  String result(a);
  result += b;
  return result;
}

String operator+(const String& a, const char* b) {
  String result(a);
  result += b;
  return result;
}

String operator+(const char* a, const String& b) {
  String result(a);
  result += b;
  return result;
}

String operator+(const String& a, wchar_t b) {
  String result(a);
  result += b;
  return result;
}

// ---------------------------------------------------------------------------
// CStringFormatBase

CStringFormatBase::CStringFormatBase(const String& format) : m_format(format) {}

CStringFormatBase::~CStringFormatBase() = default;

void CStringFormatBase::ensureScanned() {
  if (m_scanned) return;
  m_scanned = true;
  scanToPlaceholder();
}

bool CStringFormatBase::scanToPlaceholder() {
  const wxString& format = m_format.getWxString();
  const wchar_t* f = format.wc_str();
  const size_t length = format.length();
  m_atPlaceholder = false;
  while (m_pos < length) {
    if (f[m_pos] != L'%') {
      // Copy the literal run in one go.
      size_t next = format.find(L'%', m_pos);
      if (next == wxString::npos) next = length;
      m_output.getWxString().append(format, m_pos, next - m_pos);
      m_pos = next;
      continue;
    }
    m_placeholderStart = m_pos++;
    if (m_pos == length) {
      onProblem(Problem::SinglePercentAtEnd, m_placeholderStart);
      return false;
    }
    if (f[m_pos] == L'%') {
      m_output += L'%';
      ++m_pos;
      continue;
    }
    m_padding = L' ';
    m_width = -1;
    if (f[m_pos] == L'0') {
      m_padding = L'0';
      ++m_pos;
    }
    int digits = 0;
    bool malformed = false;
    while (m_pos < length && f[m_pos] >= L'0' && f[m_pos] <= L'9') {
      const int digit = f[m_pos++] - L'0';
      if (++digits > 2) {
        malformed = true;
        break;
      }
      m_width = (m_width < 0 ? 0 : m_width * 10) + digit;
    }
    if (malformed || m_pos == length) {
      onProblem(Problem::InvalidSyntax, m_placeholderStart);
      continue;
    }
    m_type = f[m_pos++];
    if (m_type != L's' && m_type != L'd' && m_type != L'x') {
      onProblem(Problem::InvalidType, m_placeholderStart);
      continue;
    }
    m_atPlaceholder = true;
    return true;
  }
  return false;
}

void CStringFormatBase::placeValue(const String& text) {
  const int padding = m_width - text.getLength();
  if (padding > 0) m_output.getWxString().append(static_cast<size_t>(padding), m_padding);
  m_output += text;
}

void CStringFormatBase::addString(const String& value) {
  ensureScanned();
  if (!m_atPlaceholder) {
    onNoPlaceholderLeft(value);
    return;
  }
  if (m_type == L's') {
    placeValue(value);
  } else {
    onUnexpectedType(value, false);
  }
  scanToPlaceholder();
}

void CStringFormatBase::addInt64(int64 value) {
  ensureScanned();
  if (!m_atPlaceholder) {
    onNoPlaceholderLeft(String::fromInt64(value));
    return;
  }
  if (m_type == L'd') {
    placeValue(String::fromInt64(value));
  } else if (m_type == L'x') {
    placeValue(hexText(value));
  } else {
    onUnexpectedType(String::fromInt64(value), true);
  }
  scanToPlaceholder();
}

void CStringFormatBase::skipPlaceholder() {
  m_output.getWxString().append(m_format.getWxString(), m_placeholderStart,
                                m_pos - m_placeholderStart);
  scanToPlaceholder();
}

String CStringFormatBase::takeResult() {
  ensureScanned();
  while (m_atPlaceholder) onPlaceholdersLeft();
  return m_output;
}

// ---------------------------------------------------------------------------
// CStringFormat

CStringFormat::CStringFormat(const String& format) : CStringFormatBase(format) {}

CStringFormat& CStringFormat::operator<<(const String& value) {
  addString(value);
  return *this;
}

CStringFormat& CStringFormat::operator<<(int64 value) {
  addInt64(value);
  return *this;
}

CStringFormat::operator String() { return takeResult(); }

void CStringFormat::onProblem(Problem problem, size_t placeholderStart) {
  if (problem == Problem::SinglePercentAtEnd) {
    throw CError("The format string has a single '%' at the end.");
  }
  if (problem == Problem::InvalidSyntax) {
    throw CError("The format string has a placeholder using invalid syntax.");
  }
  throw CError("Invalid placeholder type.");
}

void CStringFormat::onUnexpectedType(const String& valueText, bool expectedString) {
  throw CError(expectedString ? "Expected value of type string" : "Expected value of type int");
}

void CStringFormat::onNoPlaceholderLeft(const String& valueText) {
  throw CError("All placeholders have already been replaced.");
}

void CStringFormat::onPlaceholdersLeft() {
  throw CError("Not all placeholders have been replaced.");
}

// ---------------------------------------------------------------------------
// CStringFormatLax

CStringFormatLax::CStringFormatLax(const String& format) : CStringFormatBase(format) {}

CStringFormatLax& CStringFormatLax::operator<<(const String& value) {
  addString(value);
  return *this;
}

CStringFormatLax& CStringFormatLax::operator<<(int64 value) {
  addInt64(value);
  return *this;
}

CStringFormatLax::operator String() {
  String result = takeResult();
  if (!m_surplus.isEmpty()) result += m_surplus + L")";
  return result;
}

void CStringFormatLax::onProblem(Problem problem, size_t placeholderStart) {
  if (problem == Problem::SinglePercentAtEnd) {
    m_output += L'?';
    return;
  }
  m_output.getWxString().append(m_format.getWxString(), placeholderStart,
                                m_pos - placeholderStart);
}

void CStringFormatLax::onUnexpectedType(const String& valueText, bool expectedString) {
  m_output += L"?(" + valueText + L")";
}

void CStringFormatLax::onNoPlaceholderLeft(const String& valueText) {
  m_surplus += m_surplus.isEmpty() ? L"?(" : L", ";
  m_surplus += valueText;
}

void CStringFormatLax::onPlaceholdersLeft() { skipPlaceholder(); }

}  // namespace zel
