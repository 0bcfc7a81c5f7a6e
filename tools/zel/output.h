// Output of the zel tool: data on standard output (tables for people, JSON
// for scripts), everything else (progress, notices, errors) on standard
// error.
#pragma once

#include <chrono>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <vector>

#include "cli.h"
#include "zel/core/string.h"
#include "zel/core/types.h"
#include "zel/path/time.h"

namespace zeltool {

// What the common options ask of a command's output.
struct COutput {
  bool quiet = false;
  bool verbose = false;
  bool json = false;
  bool rawBytes = false;

  static COutput fromArgs(const CParsedArgs& args);
};

// Text in the current code page for a terminal: characters it cannot encode
// become "?", and so do control characters (a file name holding a line
// break must not break a listing).
std::string toDisplay(const zel::String& text);

// Writes text to stdout, or (notices) to stderr unless quiet.
void printOut(const std::string& text);
void printNotice(const COutput& out, const std::string& text);

// Sizes as `ls -lh` and `df -h` show them: bytes below 1024, otherwise one
// decimal below 10 and none above, rounded up, with K, M, G, T, P or E
// (powers of 1024). With raw, the plain number of bytes.
std::string formatSize(zel::int64 bytes, bool raw);
// "YYYY-MM-DD HH:MM" in local time; "-" for the invalid time.
std::string formatLocalTime(const zel::CTime& time);

// A table with one header line and columns as wide as their widest cell.
// The last column is not padded.
class CTable {
 public:
  enum Align { Left, Right };
  struct Column {
    const char* header;
    Align align;
  };
  explicit CTable(std::initializer_list<Column> columns);
  void addRow(std::vector<std::string> cells);
  std::string format() const;

 private:
  std::vector<std::string> m_headers;
  std::vector<Align> m_aligns;
  std::vector<std::vector<std::string>> m_rows;
};

// Writes JSON (UTF-8, two-space indentation) as it is built. Keys and
// values alternate inside objects; the writer inserts commas and
// indentation.
class CJsonWriter {
 public:
  CJsonWriter& beginObject();
  CJsonWriter& endObject();
  CJsonWriter& beginArray();
  CJsonWriter& endArray();
  CJsonWriter& key(const char* name);
  CJsonWriter& value(const zel::String& text);
  CJsonWriter& value(const char* text);
  CJsonWriter& value(zel::int64 number);
  CJsonWriter& value(bool flag);
  // The ISO text of time; null for the invalid time.
  CJsonWriter& value(const zel::CTime& time);
  // A count of bytes; null for an unknown (negative) count.
  CJsonWriter& bytes(zel::int64 count);
  CJsonWriter& null();
  // key(name) followed by the value.
  template <class Value>
  CJsonWriter& field(const char* name, const Value& value) {
    return key(name).value(value);
  }
  CJsonWriter& bytesField(const char* name, zel::int64 count) { return key(name).bytes(count); }
  // The text written so far, with a final line break once complete.
  std::string getText() const;

  static std::string quote(const zel::String& text);

 private:
  void beforeValue();
  void open(char bracket);
  void close(char bracket);

  std::string m_text;
  std::vector<bool> m_hasItems;  // per open bracket
  bool m_afterKey = false;
};

// Progress of a transfer on standard error, when that is a terminal and the
// transfer has run for a second: bytes, percentage, rate and time left,
// redrawn at most four times a second on one line. Nothing otherwise.
class CProgress {
 public:
  // total: the bytes expected, -1 when unknown (a pipe).
  CProgress(const COutput& out, zel::int64 total);
  ~CProgress();
  void update(zel::int64 done);
  // Draws the final state and ends the line, when anything was drawn.
  void finish();

 private:
  using Clock = std::chrono::steady_clock;
  void draw(zel::int64 done, bool final);

  bool m_enabled;
  zel::int64 m_total;
  zel::int64 m_done = 0;
  Clock::time_point m_start;
  Clock::time_point m_lastDraw;
  bool m_drawn = false;
};

}  // namespace zeltool
