// String: the one text type of the library's interfaces.
//
// A String holds one wxString of wide characters (UTF-16 on Windows, UTF-32 on
// Linux; lengths and indices count wchar_t units) and converts to 8-bit
// encodings only at the edges. Conversions come in two forms:
//   - strict (toCP, toEncoding, toUTF8, ...): throw CUnencodableStringError if
//     any character cannot be represented;
//   - safe (toCPSafe, toEncodingSafe): never fail; each character that cannot
//     be represented becomes "?" (a surrogate pair counts as one character).
//
// Decoding never fails. Text: 8-bit text that the chosen converter rejects
// (bytes undefined in the code page, UTF-8 that is not well-formed) is taken
// as Latin-1 instead, byte for byte, so nothing is lost and toLatin1() gives
// the original bytes back. Names: fromUTF8Lossless() and, on Linux,
// fromFileSystemEncoding() keep every well-formed sequence and turn each
// other byte into an escaped byte (U+DC80..U+DCFF, see zel/core/utf8.h), so
// that a file name that is not UTF-8 still reads as the UTF-8 around it and
// toUTF8Lossless() / toFileSystemEncoding() give its exact bytes back.
// UTF-8 is judged by the library's codec (zel/core/utf8.h) wherever it is
// read or written, also through the converter wxConvUTF8.
// A null const char* or const wchar_t* is the empty text.
//
// String is a value class: copying copies the text. It is not synchronised;
// distinct Strings may be used on distinct threads freely.
#pragma once

#include <string>

#include <wx/buffer.h>
#include <wx/strconv.h>
#include <wx/string.h>

#include "zel/core/base.h"

namespace zel {

class ZEL_API String : public CBase {
 public:
  String() = default;
  String(const String& other) = default;
  String(String&& other) noexcept = default;
  String(const wxString& text);
  // 8-bit text in the current code page.
  String(const char* text);
  String(const char* text, size_t length);
  String(const char* text, const wxMBConv& conv);
  String(const char* text, const wxMBConv& conv, size_t length);
  String(const wchar_t* text);
  String(const wchar_t* text, size_t length);
  String(const std::string& text);
  String(const std::wstring& text);
  ~String() override;

  String& operator=(const String& other) = default;
  String& operator=(String&& other) noexcept = default;
  String& operator=(const wxString& text);
  String& operator=(const char* text);
  String& operator=(const wchar_t* text);
  String& operator=(const std::string& text);
  String& operator=(const std::wstring& text);

  String& operator+=(const String& text);
  String& operator+=(const wxString& text);
  String& operator+=(const char* text);
  String& operator+=(const wchar_t* text);
  String& operator+=(wchar_t c);
  String& operator+=(wxUniChar c);

  // Exact, case-sensitive comparison.
  bool operator==(const String& other) const;
  bool operator==(const wxString& other) const;
  bool operator==(const char* other) const;
  bool operator==(const wchar_t* other) const;
  bool operator!=(const String& other) const { return !(*this == other); }
  bool operator!=(const wxString& other) const { return !(*this == other); }
  bool operator!=(const char* other) const { return !(*this == other); }
  bool operator!=(const wchar_t* other) const { return !(*this == other); }
  // Ordinal ordering, for sorted containers.
  bool operator<(const String& other) const;

  int getLength() const;
  bool isEmpty() const;
  const wchar_t* toWChar() const;
  const wxString& getWxString() const { return m_str; }
  wxString& getWxString() { return m_str; }
  std::wstring toStdWString() const;

  // The character at index, or 0 when index < 0 or index >= getLength().
  wchar_t safeAt(int index) const;

  // Remove blanks, tabs, line breaks, vertical tabs and form feeds; the set
  // is fixed, whatever the locale.
  String& trim();
  String& trimLeft();
  String& trimRight();

  // Case folding is the C library's, per wchar_t unit.
  bool startsWithNoCase(const wchar_t* prefix) const;
  // A copy with every occurrence of from replaced by to; an empty from
  // replaces nothing.
  String cloneReplace(const String& from, const String& to) const;

  static String fromCP(const char* text);
  static String fromCP(const char* text, size_t length);
  // A file name as the file system's calls give it; see toFileSystemEncoding.
  static String fromFileSystemEncoding(const char* text);
  // UTF-8 text: when it is not well-formed, the whole text is taken as
  // Latin-1 (text files in an older encoding stay readable).
  static String fromUTF8(const char* text);
  static String fromUTF8(const char* text, size_t length);
  // Bytes that should be UTF-8 but may not be (file names, texts on the
  // data-stream wire): well-formed sequences decode, every other byte becomes
  // an escaped byte; toUTF8Lossless() gives the bytes back unchanged.
  static String fromUTF8Lossless(const char* bytes, size_t length);

  // Strict conversions; the int* argument, when not null, receives the length
  // of the converted text in bytes (without the terminator). The empty text
  // gives an empty, non-null buffer. The current code page is wxConvLibc: the
  // ANSI code page on Windows, the C library's locale encoding elsewhere.
  // toUTF16 and toUTF32 give little-endian units without a byte-order mark.
  // toUTF8 and toStdUTF8 give well-formed UTF-8 only: an escaped byte is
  // unencodable there, like any other lone surrogate (the safe conversion
  // with wxConvUTF8 puts "?" for it).
  wxCharBuffer toCP(int* length = nullptr) const;
  wxCharBuffer toEncoding(const wxMBConv& conv, int* length = nullptr) const;
  wxCharBuffer toUTF8(int* length = nullptr) const;
  wxCharBuffer toLatin1(int* length = nullptr) const;
  wxCharBuffer toUTF16(int* length = nullptr) const;
  wxCharBuffer toUTF32(int* length = nullptr) const;
  // UTF-8 with each escaped byte (U+DC80..U+DCFF) written as the one raw
  // byte it stands for: the inverse of fromUTF8Lossless() for any bytes. Other
  // lone surrogates (and on Linux values above U+10FFFF) are unencodable.
  wxCharBuffer toUTF8Lossless(int* length = nullptr) const;
  // A file name for the file system's calls. Linux names are bytes, taken as
  // UTF-8 whatever the locale: this is toUTF8Lossless(), and
  // fromFileSystemEncoding() is fromUTF8Lossless(), so every name read from
  // a folder, such as "caf\xE9.txt" (Latin-1 from an old disk), is the String
  // "caf" U+DCE9 ".txt" and names the same entry when it is given back.
  // Windows names are UTF-16 and reach the system as the String's own text
  // with no mapping; there these two are the ANSI code page (wxConvFileName),
  // for the few calls that take 8-bit names.
  wxCharBuffer toFileSystemEncoding(int* length = nullptr) const;
  std::string toStdUTF8() const;

  // Safe conversions: each character the converter cannot represent becomes
  // "?" (a run of n such characters gives n question marks); a text without
  // such characters costs one conversion. Unencodable characters are found by
  // bisection, never splitting a UTF-16 surrogate pair.
  wxCharBuffer toCPSafe(int* length = nullptr) const;
  wxCharBuffer toEncodingSafe(const wxMBConv& conv, int* length = nullptr) const;

  // Decimal text of a signed 64-bit value.
  static String fromInt64(int64 value);

 protected:
  // Converts text[begin, end) safely by bisection; appends to out (without a
  // terminator).
  void toEncodingSafeInternal(const wxMBConv& conv, size_t begin, size_t end,
                              std::string& out) const;

 private:
  wxString m_str;
};

ZEL_API String operator+(const String& a, const String& b);
ZEL_API String operator+(const String& a, const wchar_t* b);
ZEL_API String operator+(const wchar_t* a, const String& b);
ZEL_API String operator+(const String& a, const char* b);
ZEL_API String operator+(const char* a, const String& b);
ZEL_API String operator+(const String& a, wchar_t b);

// Positional placeholder formatting: "%s" takes a String, "%d" and "%x" take
// an integer (decimal, and lower-case hexadecimal of the two's-complement
// bits, so -1 is "ffffffffffffffff"); an optional "0" pads with zeros instead
// of blanks, then at most two digits give the width; "%%" is a literal "%".
// Padding goes on the left of the value's whole text, so "%05d" of -42 is
// "00-42". Values are supplied in order with operator<<, and the result is
// taken by converting to String.
//
// The format is scanned lazily, on the first value or when the result is
// taken, so that a problem in the literal text before the first placeholder
// is reported by the derived class's handler.
class ZEL_API CStringFormatBase {
 public:
  explicit CStringFormatBase(const String& format);
  virtual ~CStringFormatBase();

 protected:
  enum class Problem {
    SinglePercentAtEnd,
    InvalidSyntax,
    InvalidType,
  };
  // Copies literal text up to the next placeholder (or the end), parsing the
  // placeholder found. Returns false at the end of the format.
  bool scanToPlaceholder();
  // Reports a problem found while scanning; the strict form throws, the lax
  // one records it in the output and lets the scan go on. On entry m_pos
  // stands after the offending character.
  virtual void onProblem(Problem problem, size_t placeholderStart) = 0;
  void addString(const String& value);
  void addInt64(int64 value);
  // valueText is the value as given; an integer in decimal.
  virtual void onUnexpectedType(const String& valueText, bool expectedString) = 0;
  virtual void onNoPlaceholderLeft(const String& valueText) = 0;
  String takeResult();
  // Called by takeResult() while a placeholder is left unreplaced. The strict
  // form throws; the lax one copies the placeholder and moves on.
  virtual void onPlaceholdersLeft() = 0;
  // Copies the current placeholder verbatim and scans on to the next one.
  void skipPlaceholder();

  String m_format;
  String m_output;
  size_t m_pos = 0;
  size_t m_placeholderStart = 0;
  wchar_t m_type = 0;
  int m_width = -1;
  wchar_t m_padding = L' ';
  bool m_atPlaceholder = false;
  bool m_scanned = false;

 private:
  void ensureScanned();
  // Places text at the current placeholder, padded to its width.
  void placeValue(const String& text);
};

// Throws CError on every misuse: a single "%" at the end, a malformed
// placeholder or one of unknown type, a value of the wrong kind, a value too
// many, and taking the result while placeholders are left.
class ZEL_API CStringFormat : public CStringFormatBase {
 public:
  explicit CStringFormat(const String& format);
  CStringFormat& operator<<(const String& value);
  CStringFormat& operator<<(const char* value) { return *this << String(value); }
  CStringFormat& operator<<(const wchar_t* value) { return *this << String(value); }
  CStringFormat& operator<<(int64 value);
  CStringFormat& operator<<(int value) { return *this << int64(value); }
  operator String();

 protected:
  void onProblem(Problem problem, size_t placeholderStart) override;
  void onUnexpectedType(const String& valueText, bool expectedString) override;
  void onNoPlaceholderLeft(const String& valueText) override;
  void onPlaceholdersLeft() override;
};

// Never throws for content: marks problems in its output instead.
//   - A single "%" at the end becomes "?".
//   - A malformed placeholder, or one of unknown type, is copied verbatim and
//     takes no value; the scan goes on after it.
//   - A value of the wrong kind becomes "?(" + its text + ")" in place of the
//     placeholder.
//   - Values beyond the last placeholder are appended when the result is
//     taken, as "?(v1, v2)".
//   - Placeholders left unreplaced are copied verbatim with the rest of the
//     format ("%%" still becomes "%").
// Taking the result twice gives the same text.
class ZEL_API CStringFormatLax : public CStringFormatBase {
 public:
  explicit CStringFormatLax(const String& format);
  CStringFormatLax& operator<<(const String& value);
  CStringFormatLax& operator<<(const char* value) { return *this << String(value); }
  CStringFormatLax& operator<<(const wchar_t* value) { return *this << String(value); }
  CStringFormatLax& operator<<(int64 value);
  CStringFormatLax& operator<<(int value) { return *this << int64(value); }
  operator String();

 protected:
  void onProblem(Problem problem, size_t placeholderStart) override;
  void onUnexpectedType(const String& valueText, bool expectedString) override;
  void onNoPlaceholderLeft(const String& valueText) override;
  void onPlaceholdersLeft() override;

 private:
  String m_surplus;
};

}  // namespace zel
