// What the zel tool needs from the operating system beyond the library:
// interruption by Ctrl+C and termination requests, terminals, local files
// and standard streams read and written by handle, volume sizes and facts
// about the user. platform_posix.cpp and platform_win.cpp implement it.
#pragma once

#include <cstdio>

#include "zel/core/string.h"
#include "zel/core/types.h"

namespace zeltool {

// Interruption. Created first thing in main and kept for the whole run.
// Linux: SIGINT and SIGTERM are blocked in every thread and taken by a
// watcher thread. Windows: a console control handler (Ctrl+C, Ctrl+Break,
// closing the console). Outside any CInterruptScope an interruption ends the
// process at once, as it would without the watch; inside one it only sets a
// flag that the scope's owner checks, so it can clean up first.
class CInterruptWatch {
 public:
  CInterruptWatch();
  ~CInterruptWatch();
  CInterruptWatch(const CInterruptWatch&) = delete;
  CInterruptWatch& operator=(const CInterruptWatch&) = delete;
};

class CInterruptScope {
 public:
  CInterruptScope();
  ~CInterruptScope();
  CInterruptScope(const CInterruptScope&) = delete;
  CInterruptScope& operator=(const CInterruptScope&) = delete;
};

bool isInterrupted();
// "SIGINT", "SIGTERM", "Ctrl+C" ...; empty when there was no interruption.
const char* getInterruptName();
// For the backends: records an interruption (code: the signal, or the
// console event + 1; never 0). False when no CInterruptScope lives: the
// process is to end as it would without the watch.
bool noteInterrupt(int code);
// The code noted; 0 when there was no interruption.
int getInterruptCode();
// Waits up to timeoutMs (-1: no limit) for an interruption; true when one
// has come.
bool waitForInterrupt(int timeoutMs);
// Ends the process as the interruption would have ended it without a scope
// (Linux: by the signal itself, so that a shell sees it; Windows: exit code
// 130). Call after cleaning up.
[[noreturn]] void endAsInterrupted();

bool isTerminal(std::FILE* stream);

// A local source of bytes: a file or device by path, or standard input
// ("-"). Reading waits in short steps so that an interruption is noticed
// even while a pipe or terminal gives nothing.
class CLocalReader {
 public:
  // Throws the system's error (domain "errno" / "sys"), or a
  // CFileSystemError ProblemWrongType for a folder.
  explicit CLocalReader(const zel::String& path);
  ~CLocalReader();
  CLocalReader(const CLocalReader&) = delete;
  CLocalReader& operator=(const CLocalReader&) = delete;

  // The size of a regular file; -1 for pipes, terminals and devices.
  zel::int64 getSize() const { return m_size; }
  // Up to bytes; 0 at the end, -1 when interrupted.
  int read(void* buffer, int bytes);

 private:
  void* m_handle = nullptr;  // Windows HANDLE
  int m_fd = -1;
  bool m_owned = false;
  zel::int64 m_size = -1;
};

// A local target of bytes: standard output ("-"), or a file that is written
// under a temporary name beside it (".NAME.zel-XXXXXXXX.part") and renamed
// over the target by commit(), so that the target is never empty or partial.
// Destroyed without commit(), it removes the temporary file.
class CLocalWriter {
 public:
  // Throws the system's error when the temporary file cannot be created.
  explicit CLocalWriter(const zel::String& path);
  ~CLocalWriter();
  CLocalWriter(const CLocalWriter&) = delete;
  CLocalWriter& operator=(const CLocalWriter&) = delete;

  // Writes all bytes; false when interrupted.
  bool write(const void* data, int bytes);
  void commit();
  // The temporary file's path; empty for standard output.
  const zel::String& getTemporaryPath() const { return m_temporary; }

 private:
  zel::String m_target;
  zel::String m_temporary;
  void* m_handle = nullptr;  // Windows HANDLE
  int m_fd = -1;
  bool m_owned = false;
};

// Sizes of the volume holding a local folder, in bytes.
struct VolumeSpace {
  zel::int64 total = -1;
  zel::int64 free = -1;       // free for anyone (privileged users included)
  zel::int64 available = -1;  // free for this user
};
// Throws the system's error.
VolumeSpace getVolumeSpace(const zel::String& folder);

// Whether the process runs with the system's highest rights (Linux: root;
// Windows: an elevated administrator).
bool isPrivilegedUser();
// The user's name, for notices.
zel::String getUserName();
// The folder for the user's state files (logs): $XDG_STATE_HOME, else
// ~/.local/state on Linux; %LOCALAPPDATA% on Windows. Empty when unknown.
zel::String getUserStateFolder();

}  // namespace zeltool
