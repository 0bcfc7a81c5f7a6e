#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <wx/filename.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "paths.h"
#include "platform.h"
#include "zel/core/error.h"

namespace zeltool {

namespace {

std::atomic<bool> g_stopWatching{false};
std::thread g_watcher;

sigset_t interruptSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGHUP);
  return set;
}

[[noreturn]] void dieBySignal(int signal) {
  ::signal(signal, SIG_DFL);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signal);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  raise(signal);
  _exit(128 + signal);
}

// The watcher thread: the only one that takes the interrupting signals.
void watch() {
  const sigset_t set = interruptSignals();
  const timespec step{0, 100 * 1000 * 1000};
  while (!g_stopWatching.load()) {
    const int signal = sigtimedwait(&set, nullptr, &step);
    if (signal > 0 && !noteInterrupt(signal)) dieBySignal(signal);
  }
}

// Throws errno as it is now, before anything else can change it.
[[noreturn]] void failSys(const char* func, const char* action, int code = 0) {
  if (code == 0) code = errno;
  zel::throwSysError(func, action, code);
}

// Waits until fd is ready for events, in steps that notice an interruption;
// false when interrupted.
bool waitReady(int fd, short events, const char* action) {
  for (;;) {
    if (isInterrupted()) return false;
    pollfd entry{fd, events, 0};
    const int ready = ::poll(&entry, 1, 200);
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) failSys("poll", action);
  }
}

}  // namespace

CInterruptWatch::CInterruptWatch() {
  // Blocked before any other thread exists, so that every thread the library
  // starts inherits the mask and only the watcher takes these signals.
  const sigset_t set = interruptSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  g_watcher = std::thread(watch);
}

CInterruptWatch::~CInterruptWatch() {
  g_stopWatching.store(true);
  g_watcher.join();
}

const char* getInterruptName() {
  switch (getInterruptCode()) {
    case 0:
      return "";
    case SIGINT:
      return "SIGINT";
    case SIGTERM:
      return "SIGTERM";
    case SIGHUP:
      return "SIGHUP";
    default:
      return "a signal";
  }
}

void endAsInterrupted() { dieBySignal(isInterrupted() ? getInterruptCode() : SIGINT); }

bool isTerminal(std::FILE* stream) { return ::isatty(fileno(stream)) == 1; }

CLocalReader::CLocalReader(const zel::String& path) {
  if (isStandardStream(path)) {
    m_fd = 0;
  } else {
    // O_NONBLOCK: opening a FIFO does not wait for a writer; reads wait in
    // waitReady instead.
    m_fd = ::open(path.toFileSystemEncoding().data(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (m_fd < 0) failSys("open", "CLocalReader::CLocalReader");
    m_owned = true;
  }
  struct stat st;
  if (::fstat(m_fd, &st) != 0) {
    const int code = errno;
    if (m_owned) ::close(m_fd);
    failSys("fstat", "CLocalReader::CLocalReader", code);
  }
  if (S_ISDIR(st.st_mode)) {
    if (m_owned) ::close(m_fd);
    throw zel::CFileSystemError(zel::CFileSystemError::ProblemWrongType,
                                zel::CError("Is a folder"));
  }
  if (S_ISREG(st.st_mode)) m_size = st.st_size;
}

CLocalReader::~CLocalReader() {
  if (m_owned) ::close(m_fd);
}

int CLocalReader::read(void* buffer, int bytes) {
  for (;;) {
    if (!waitReady(m_fd, POLLIN, "CLocalReader::read")) return -1;
    const ssize_t got = ::read(m_fd, buffer, static_cast<size_t>(bytes));
    if (got >= 0) return static_cast<int>(got);
    if (errno != EINTR && errno != EAGAIN) failSys("read", "CLocalReader::read");
  }
}

CLocalWriter::CLocalWriter(const zel::String& path) : m_target(path) {
  if (isStandardStream(path)) {
    m_fd = 1;
    return;
  }
  const wxFileName target(path.getWxString());
  m_temporary = joinLocalPath(target.GetPath(), temporaryNameFor(target.GetFullName()));
  m_fd = ::open(m_temporary.toFileSystemEncoding().data(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC,
                0666);
  if (m_fd < 0) {
    const int code = errno;
    m_temporary = zel::String();
    failSys("open", "CLocalWriter::CLocalWriter", code);
  }
  m_owned = true;
}

CLocalWriter::~CLocalWriter() {
  if (m_owned && m_fd >= 0) ::close(m_fd);
  if (!m_temporary.isEmpty()) ::unlink(m_temporary.toFileSystemEncoding().data());
}

bool CLocalWriter::write(const void* data, int bytes) {
  const char* at = static_cast<const char*>(data);
  size_t left = static_cast<size_t>(bytes);
  while (left > 0) {
    if (!waitReady(m_fd, POLLOUT, "CLocalWriter::write")) return false;
    const ssize_t done = ::write(m_fd, at, left);
    if (done < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      failSys("write", "CLocalWriter::write");
    }
    at += done;
    left -= static_cast<size_t>(done);
  }
  return true;
}

void CLocalWriter::commit() {
  if (!m_owned) return;
  const int fd = m_fd;
  m_fd = -1;
  if (::close(fd) != 0) failSys("close", "CLocalWriter::commit");
  if (::rename(m_temporary.toFileSystemEncoding().data(), m_target.toFileSystemEncoding().data()) !=
      0) {
    failSys("rename", "CLocalWriter::commit");
  }
  m_temporary = zel::String();
}

VolumeSpace getVolumeSpace(const zel::String& folder) {
  struct statvfs st;
  if (::statvfs(folder.toFileSystemEncoding().data(), &st) != 0) {
    failSys("statvfs", "getVolumeSpace");
  }
  const auto unit = static_cast<zel::int64>(st.f_frsize);
  VolumeSpace space;
  space.total = static_cast<zel::int64>(st.f_blocks) * unit;
  space.free = static_cast<zel::int64>(st.f_bfree) * unit;
  space.available = static_cast<zel::int64>(st.f_bavail) * unit;
  return space;
}

bool isPrivilegedUser() { return ::geteuid() == 0; }

namespace {

zel::String passwdField(bool home) {
  char buffer[4096];
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(::geteuid(), &entry, buffer, sizeof(buffer), &found) != 0 || !found) {
    return zel::String();
  }
  return zel::String::fromFileSystemEncoding(home ? found->pw_dir : found->pw_name);
}

}  // namespace

zel::String getUserName() {
  const zel::String name = passwdField(false);
  return name.isEmpty() ? "uid " + zel::String::fromInt64(::geteuid()) : name;
}

zel::String getUserStateFolder() {
  const char* state = std::getenv("XDG_STATE_HOME");
  if (state && state[0] == '/') return zel::String::fromFileSystemEncoding(state);
  const char* home = std::getenv("HOME");
  const zel::String homeFolder =
      home && home[0] == '/' ? zel::String::fromFileSystemEncoding(home) : passwdField(true);
  if (homeFolder.isEmpty()) return zel::String();
  return homeFolder + "/.local/state";
}

}  // namespace zeltool
