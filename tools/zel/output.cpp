#include "output.h"

#include <wx/datetime.h>
#include <wx/strconv.h>

#include <algorithm>
#include <cmath>

#include "platform.h"

namespace zeltool {

COutput COutput::fromArgs(const CParsedArgs& args) {
  COutput out;
  out.quiet = args.has("quiet");
  out.verbose = args.has("verbose") && !out.quiet;
  out.json = args.has("json");
  out.rawBytes = args.has("bytes");
  return out;
}

std::string toDisplay(const zel::String& text) {
  std::wstring wide = text.toStdWString();
  for (wchar_t& c : wide) {
    if (c < 0x20 || (c >= 0x7F && c < 0xA0)) c = L'?';
  }
  return zel::String(wide).toCPSafe().data();
}

void printOut(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

void printNotice(const COutput& out, const std::string& text) {
  if (out.quiet) return;
  std::fprintf(stderr, "%s\n", text.c_str());
}

std::string formatSize(zel::int64 bytes, bool raw) {
  if (bytes < 0) return "-";
  if (raw || bytes < 1024) return std::to_string(bytes);
  static const char kUnits[] = "KMGTPE";
  double value = static_cast<double>(bytes) / 1024;
  int unit = 0;
  while (value >= 1024 && unit < 5) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  if (value < 10) {
    const double up = std::ceil(value * 10) / 10;
    if (up < 10) {
      std::snprintf(text, sizeof(text), "%.1f%c", up, kUnits[unit]);
      return text;
    }
    value = up;
  }
  double up = std::ceil(value);
  if (up >= 1024 && unit < 5) {
    ++unit;
    std::snprintf(text, sizeof(text), "1.0%c", kUnits[unit]);
    return text;
  }
  std::snprintf(text, sizeof(text), "%.0f%c", up, kUnits[unit]);
  return text;
}

std::string formatLocalTime(const zel::CTime& time) {
  if (!time.isValid()) return "-";
  const zel::int64 us = time.getMicroseconds();
  const zel::int64 seconds = us >= 0 ? us / 1000000 : -((-us + 999999) / 1000000);
  const wxDateTime local(static_cast<time_t>(seconds));
  if (!local.IsValid()) return "-";
  return zel::String(local.Format("%Y-%m-%d %H:%M")).toStdUTF8();
}

CTable::CTable(std::initializer_list<Column> columns) {
  for (const Column& column : columns) {
    m_headers.push_back(column.header);
    m_aligns.push_back(column.align);
  }
}

void CTable::addRow(std::vector<std::string> cells) {
  cells.resize(m_headers.size());
  m_rows.push_back(std::move(cells));
}

namespace {

// Columns are measured in characters, not bytes, so that names in UTF-8
// line up.
size_t displayWidth(const std::string& text) {
  size_t width = 0;
  for (unsigned char c : text) {
    if ((c & 0xC0) != 0x80) ++width;
  }
  return width;
}

}  // namespace

std::string CTable::format() const {
  std::vector<size_t> widths(m_headers.size());
  for (size_t column = 0; column < m_headers.size(); ++column) {
    widths[column] = displayWidth(m_headers[column]);
    for (const auto& row : m_rows)
      widths[column] = std::max(widths[column], displayWidth(row[column]));
  }
  auto line = [&](const std::vector<std::string>& cells) {
    std::string text;
    for (size_t column = 0; column < cells.size(); ++column) {
      const bool last = column + 1 == cells.size();
      const std::string padding(widths[column] - displayWidth(cells[column]), ' ');
      if (m_aligns[column] == Right) {
        text += padding + cells[column];
      } else {
        text += cells[column] + (last ? "" : padding);
      }
      if (!last) text += "  ";
    }
    return text + "\n";
  };
  std::string text = line(m_headers);
  for (const auto& row : m_rows) text += line(row);
  return text;
}

std::string CJsonWriter::quote(const zel::String& text) {
  std::wstring escaped = L"\"";
  for (wchar_t c : text.toStdWString()) {
    const wchar_t* named = c == L'"'    ? L"\\\""
                           : c == L'\\' ? L"\\\\"
                           : c == L'\n' ? L"\\n"
                           : c == L'\r' ? L"\\r"
                           : c == L'\t' ? L"\\t"
                                        : nullptr;
    if (named) {
      escaped += named;
    } else if (c < 0x20 || c == 0x7F) {
      wchar_t code[8];
      std::swprintf(code, 8, L"\\u%04x", static_cast<unsigned>(c));
      escaped += code;
    } else {
      escaped += c;
    }
  }
  escaped += L"\"";
  // Lone surrogates (possible in Windows names) cannot be UTF-8; they become
  // U+FFFD rather than break the document.
  int length = 0;
  const zel::String result(escaped);
  wxCharBuffer utf8 = result.toUTF8(&length);
  if (!utf8.data()) utf8 = result.toEncodingSafe(wxConvUTF8, &length);
  return std::string(utf8.data(), static_cast<size_t>(length));
}

void CJsonWriter::beforeValue() {
  if (m_afterKey) {
    m_afterKey = false;
    return;
  }
  if (m_hasItems.empty()) return;
  m_text += m_hasItems.back() ? ",\n" : "\n";
  m_text += std::string(m_hasItems.size() * 2, ' ');
  m_hasItems.back() = true;
}

void CJsonWriter::open(char bracket) {
  beforeValue();
  m_text += bracket;
  m_hasItems.push_back(false);
}

void CJsonWriter::close(char bracket) {
  const bool hadItems = m_hasItems.back();
  m_hasItems.pop_back();
  if (hadItems) m_text += "\n" + std::string(m_hasItems.size() * 2, ' ');
  m_text += bracket;
}

CJsonWriter& CJsonWriter::beginObject() {
  open('{');
  return *this;
}
CJsonWriter& CJsonWriter::endObject() {
  close('}');
  return *this;
}
CJsonWriter& CJsonWriter::beginArray() {
  open('[');
  return *this;
}
CJsonWriter& CJsonWriter::endArray() {
  close(']');
  return *this;
}

CJsonWriter& CJsonWriter::key(const char* name) {
  beforeValue();
  m_text += quote(name) + ": ";
  m_afterKey = true;
  return *this;
}

CJsonWriter& CJsonWriter::value(const zel::String& text) {
  beforeValue();
  m_text += quote(text);
  return *this;
}

CJsonWriter& CJsonWriter::value(const char* text) { return value(zel::String(text)); }

CJsonWriter& CJsonWriter::value(zel::int64 number) {
  beforeValue();
  m_text += std::to_string(number);
  return *this;
}

CJsonWriter& CJsonWriter::value(bool flag) {
  beforeValue();
  m_text += flag ? "true" : "false";
  return *this;
}

CJsonWriter& CJsonWriter::value(const zel::CTime& time) {
  return time.isValid() ? value(time.toISOString()) : null();
}

CJsonWriter& CJsonWriter::bytes(zel::int64 count) { return count >= 0 ? value(count) : null(); }

CJsonWriter& CJsonWriter::null() {
  beforeValue();
  m_text += "null";
  return *this;
}

std::string CJsonWriter::getText() const { return m_text + "\n"; }

namespace {

std::string formatDuration(double seconds) {
  const long long total = static_cast<long long>(seconds + 0.5);
  char text[32];
  if (total >= 3600) {
    std::snprintf(text, sizeof(text), "%lld:%02lld:%02lld", total / 3600, total / 60 % 60,
                  total % 60);
  } else {
    std::snprintf(text, sizeof(text), "%lld:%02lld", total / 60, total % 60);
  }
  return text;
}

}  // namespace

CProgress::CProgress(const COutput& out, zel::int64 total)
    : m_enabled(!out.quiet && isTerminal(stderr)), m_total(total), m_start(Clock::now()) {}

CProgress::~CProgress() {
  // Leaves the terminal on a fresh line when the transfer ended early.
  if (m_drawn) std::fputs("\n", stderr);
}

void CProgress::update(zel::int64 done) {
  m_done = done;
  if (!m_enabled) return;
  const Clock::time_point now = Clock::now();
  if (now - m_start < std::chrono::seconds(1)) return;
  if (m_drawn && now - m_lastDraw < std::chrono::milliseconds(250)) return;
  m_lastDraw = now;
  draw(done, false);
}

void CProgress::finish() {
  if (!m_drawn) return;
  draw(m_done, true);
  std::fputs("\n", stderr);
  m_drawn = false;
}

void CProgress::draw(zel::int64 done, bool final) {
  const double seconds = std::chrono::duration<double>(Clock::now() - m_start).count();
  const zel::int64 rate =
      seconds > 0 ? static_cast<zel::int64>(static_cast<double>(done) / seconds) : 0;
  std::string line = formatSize(done, false);
  if (m_total >= 0) {
    const int percent = m_total > 0 ? static_cast<int>(done * 100 / m_total) : 100;
    line += " / " + formatSize(m_total, false) + "  " + std::to_string(percent) + "%";
  }
  line += "  " + formatSize(rate, false) + "/s";
  if (final) {
    line += "  " + formatDuration(seconds);
  } else if (m_total >= 0 && rate > 0) {
    line += "  " + formatDuration(static_cast<double>(m_total - done) / static_cast<double>(rate)) +
            " left";
  }
  // Padding overwrites what a longer previous line left behind.
  line.resize(std::max<size_t>(line.size(), 60), ' ');
  std::fprintf(stderr, "\r%s", line.c_str());
  std::fflush(stderr);
  m_drawn = true;
}

}  // namespace zeltool
