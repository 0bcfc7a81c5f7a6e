#include "zel/log/xml_log.h"

#include <algorithm>

#include <wx/ffile.h>
#include <wx/filename.h>

#include "zel/core/error.h"
#include "zel/core/utf8.h"
#include "zel/internal/current_thread.h"

namespace zel {

namespace {

const char kHeader[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<log>\n";
const char kFooter[] = "</log>\n";

// Escapes text for XML character data and attribute values, as UTF-8. An
// escaped byte (a byte of a file name that is not UTF-8) is written as the
// text "\xE9", so the entry still tells which name it was; characters XML 1.0
// cannot carry at all (most control characters, other lone surrogates,
// U+FFFE, U+FFFF) become U+FFFD. Either way the file stays readable.
std::string escapeXml(const String& text) {
  static const char kHex[] = "0123456789ABCDEF";
  const wchar_t* chars = text.toWChar();
  const size_t length = static_cast<size_t>(text.getLength());
  std::string escaped;
  escaped.reserve(length);
  size_t i = 0;
  while (i < length) {
    const uint32 c = nextCharacter(chars, length, i);
    switch (c) {
      case '&': escaped += "&amp;"; break;
      case '<': escaped += "&lt;"; break;
      case '>': escaped += "&gt;"; break;
      case '"': escaped += "&quot;"; break;
      case '\t': case '\n': escaped += static_cast<char>(c); break;
      case '\r': escaped += "&#13;"; break;
      default:
        if (isEscapedByte(c)) {
          const unsigned char byte = escapedByteValue(c);
          escaped += "\\x";
          escaped += kHex[byte >> 4];
          escaped += kHex[byte & 0xF];
        } else if (c < 0x20 || c == 0xFFFE || c == 0xFFFF || (c >= 0xD800 && c <= 0xDFFF) ||
                   c > 0x10FFFF) {
          appendUTF8(escaped, 0xFFFD);
        } else {
          appendUTF8(escaped, c);
        }
    }
  }
  return escaped;
}

}  // namespace

const char* logLevelName(LogLevel level) {
  switch (level) {
    case LogLevel::Debug: return "debug";
    case LogLevel::Info: return "info";
    case LogLevel::Warning: return "warning";
    case LogLevel::Error: return "error";
  }
  return "unknown";
}

// The open log file, positioned where the next entry goes (over the closing
// tag of the previous one).
class CXMLLog::CFile {
 public:
  bool open(const wxString& path) {
    bool existed = wxFileName::FileExists(path);
    if (!m_file.Open(path, existed ? "r+b" : "w+b")) return false;
    wxFileOffset length = m_file.Length();
    if (existed && length >= static_cast<wxFileOffset>(sizeof kFooter - 1)) {
      char tail[sizeof kFooter - 1];
      m_file.Seek(length - static_cast<wxFileOffset>(sizeof tail));
      if (m_file.Read(tail, sizeof tail) == sizeof tail &&
          std::equal(tail, tail + sizeof tail, kFooter)) {
        return m_file.Seek(length - static_cast<wxFileOffset>(sizeof tail));
      }
    }
    // A new or foreign file (an empty one, or one cut off by a crash) is
    // started over rather than appended to, so that it stays parseable.
    m_file.Close();
    return m_file.Open(path, "w+b") && m_file.Write(kHeader, sizeof kHeader - 1) ==
                                           sizeof kHeader - 1;
  }

  void append(const std::string& element) {
    wxFileOffset at = m_file.Tell();
    m_file.Write(element.data(), element.size());
    m_file.Write(kFooter, sizeof kFooter - 1);
    m_file.Flush();
    m_file.Seek(at + static_cast<wxFileOffset>(element.size()));
  }

 private:
  wxFFile m_file;
};

CXMLLog::CXMLLog() = default;

CXMLLog::~CXMLLog() { delete m_file; }

const P<CXMLLog>& CXMLLog::getGlobal() {
  static auto* slot =
      new TSafeGlobal<CXMLLog>(&globalInstanceGuard, &createInstance, &disposeGlobalInstance);
  return slot->get();
}

CSafeGlobalGuard& CXMLLog::globalInstanceGuard() {
  static CSafeGlobalGuard guard;
  return guard;
}

P<CXMLLog> CXMLLog::createInstance() { return createObject<CXMLLog>(); }

void CXMLLog::disposeGlobalInstance() { getGlobal()->dispose(); }

void CXMLLog::setLogFolder(const String& folder) {
  CMutexLock lock(m_mutex);
  m_folder = folder;
  delete m_file;
  m_file = nullptr;
}

String CXMLLog::getLogFilePath() const {
  CMutexLock lock(m_mutex);
  wxFileName name(m_folder.isEmpty() ? wxFileName::GetCwd() : m_folder.getWxString(),
                  fileName());
  return String(name.GetFullPath());
}

void CXMLLog::setFileEnabled(bool enabled) {
  CMutexLock lock(m_mutex);
  m_fileEnabled = enabled;
}

void CXMLLog::dispose() {
  CMutexLock lock(m_mutex);
  delete m_file;
  m_file = nullptr;
}

void CXMLLog::addListener(ILogListener* listener) {
  CMutexLock lock(m_mutex);
  m_listeners.push_back(listener);
}

void CXMLLog::removeListener(ILogListener* listener) {
  CMutexLock lock(m_mutex);
  m_listeners.erase(std::remove(m_listeners.begin(), m_listeners.end(), listener),
                    m_listeners.end());
}

void CXMLLog::write(LogLevel level, const String& text, const CError* error) {
  CPreserveLastSysError preserve;
  try {
    CLogEntry entry;
    entry.time = CTime::now();
    entry.level = level;
    entry.threadID = getCurrentOSThreadID();
    entry.text = text;
    if (error) entry.errorDesc = error->getDesc();
    CMutexLock lock(m_mutex);
    for (ILogListener* listener : m_listeners) listener->onLogEntry(entry);
    if (m_fileEnabled) writeToFile(entry);
  } catch (...) {
    // A log that cannot be written must not take its caller down.
  }
}

void CXMLLog::writeToFile(const CLogEntry& entry) {
  if (!m_file) {
    auto* file = new CFile();
    wxFileName name(m_folder.isEmpty() ? wxFileName::GetCwd() : m_folder.getWxString(),
                    fileName());
    if (!file->open(name.GetFullPath())) {
      delete file;
      return;
    }
    m_file = file;
  }
  std::string element = "<entry time=\"" + escapeXml(entry.time.toISOString()) + "\" level=\"" +
                        logLevelName(entry.level) + "\" thread=\"" +
                        std::to_string(entry.threadID) + "\"><text>" + escapeXml(entry.text) +
                        "</text>";
  if (!entry.errorDesc.isEmpty()) element += "<error>" + escapeXml(entry.errorDesc) + "</error>";
  element += "</entry>\n";
  m_file->append(element);
}

void logDebug(const String& text) { CXMLLog::getGlobal()->write(LogLevel::Debug, text); }
void logInfo(const String& text) { CXMLLog::getGlobal()->write(LogLevel::Info, text); }
void logWarning(const String& text, const CError* error) {
  CXMLLog::getGlobal()->write(LogLevel::Warning, text, error);
}
void logError(const String& text, const CError* error) {
  CXMLLog::getGlobal()->write(LogLevel::Error, text, error);
}

CLogCapture::CLogCapture() { CXMLLog::getGlobal()->addListener(this); }
CLogCapture::~CLogCapture() { CXMLLog::getGlobal()->removeListener(this); }

void CLogCapture::onLogEntry(const CLogEntry& entry) {
  CMutexLock lock(m_mutex);
  m_entries.push_back(entry);
}

std::vector<CLogEntry> CLogCapture::getEntries() const {
  CMutexLock lock(m_mutex);
  return m_entries;
}

bool CLogCapture::contains(LogLevel level, const String& part) const {
  CMutexLock lock(m_mutex);
  for (const CLogEntry& e : m_entries) {
    if (e.level == level && e.text.getWxString().Contains(part.getWxString())) return true;
  }
  return false;
}

}  // namespace zel
