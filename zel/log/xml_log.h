// CXMLLog: the process-wide structured log.
//
// Listeners (CLogCapture in tests, a program's own console output) see
// every entry, with the texts unchanged. The file is the application's
// choice: nothing is written until it calls setFileEnabled(true), usually
// after setLogFolder() has named a folder that belongs to it (the folder
// defaults to the current one). Then every entry becomes one <entry> element
// (time, level, thread, text and, for failures, the error description)
// appended to "log.xml" in the log folder. The file stays well-formed after
// each entry: the closing </log> tag is rewritten behind every new entry, so
// a crash never leaves a broken file. It is opened on the first entry after
// it was enabled. Texts are written as UTF-8. An escaped byte (U+DC80..U+DCFF:
// a byte of a file name that is not UTF-8, see zel/core/utf8.h) appears as
// the four characters "\xE9", and a character XML cannot carry (most control
// characters, other lone surrogates) as U+FFFD, so that the file never holds
// bytes that are not UTF-8. Logging never throws and keeps the caller's last
// system error.
//
// All members are thread-safe.
#pragma once

#include <vector>

#include "zel/core/global.h"
#include "zel/core/string.h"
#include "zel/path/time.h"
#include "zel/core/mutex.h"

namespace zel {

class CError;

enum class LogLevel { Debug, Info, Warning, Error };

ZEL_API const char* logLevelName(LogLevel level);

struct ZEL_API CLogEntry {
  CTime time;
  LogLevel level = LogLevel::Info;
  uint64 threadID = 0;
  String text;
  String errorDesc;  // empty when the entry carries no error
};

class ZEL_API ILogListener {
 public:
  virtual ~ILogListener() = default;
  // Called under the log's lock: must not log itself.
  virtual void onLogEntry(const CLogEntry& entry) = 0;
};

class ZEL_API CXMLLog : public CBase {
 public:
  static const P<CXMLLog>& getGlobal();
  static CSafeGlobalGuard& globalInstanceGuard();

  static const wchar_t* fileName() { return L"log.xml"; }

  // Later entries go to folder/log.xml; an empty folder means the current one.
  void setLogFolder(const String& folder);
  String getLogFilePath() const;
  // Whether entries are written to the file at all (they always reach the
  // listeners). Off until the application turns it on.
  void setFileEnabled(bool enabled);

  void write(LogLevel level, const String& text, const CError* error = nullptr);

  void addListener(ILogListener* listener);
  void removeListener(ILogListener* listener);

  // Closes the file; a later entry opens it again.
  void dispose();

  CXMLLog();
  ~CXMLLog() override;

 protected:
  static P<CXMLLog> createInstance();
  static void disposeGlobalInstance();

 private:
  void writeToFile(const CLogEntry& entry);

  mutable CMutex m_mutex;
  String m_folder;
  bool m_fileEnabled = false;
  class CFile;
  CFile* m_file = nullptr;
  std::vector<ILogListener*> m_listeners;
};

ZEL_API void logDebug(const String& text);
ZEL_API void logInfo(const String& text);
ZEL_API void logWarning(const String& text, const CError* error = nullptr);
ZEL_API void logError(const String& text, const CError* error = nullptr);

// Collects the entries logged while it exists (for tests).
class ZEL_API CLogCapture : public ILogListener {
 public:
  CLogCapture();
  ~CLogCapture() override;
  CLogCapture(const CLogCapture&) = delete;
  CLogCapture& operator=(const CLogCapture&) = delete;

  std::vector<CLogEntry> getEntries() const;
  // Whether an entry of the level has text containing part.
  bool contains(LogLevel level, const String& part) const;

  void onLogEntry(const CLogEntry& entry) override;

 private:
  mutable CMutex m_mutex;
  std::vector<CLogEntry> m_entries;
};

}  // namespace zel
