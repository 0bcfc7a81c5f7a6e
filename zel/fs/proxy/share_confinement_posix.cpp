// Linux step of CShareConfinement: one fstatat for a name directly in the
// root, openat2 with RESOLVE_BENEATH relative to the kept root descriptor for
// every other path, a second look at what it stops at, and the real-path
// comparison for kernels without it.
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "zel/core/error.h"
#include "zel/core/sys_error.h"
#include "zel/fs/local_file_system_platform.h"
#include "zel/fs/proxy/share_confinement_platform.h"

namespace zel::confinement_platform {

namespace {

// Set once openat2 turned out to be missing, or by the test switch.
std::atomic<bool> g_portable{false};

// A rename elsewhere on the system makes RESOLVE_BENEATH answer EAGAIN; a few
// retries ride that out.
constexpr int kRenameRetries = 16;

[[noreturn]] void fail(const char* func, int code, const std::string& path) {
  CProps params;
  params.set("func", func);
  params.set("action", "CShareConfinement::check");
  params.set("path", String::fromUTF8Lossless(path.c_str(), path.size()));
  throw CError(getSysErrorMessage(code), CError::errnoErrorDomain(), code, params);
}

using fs_platform::toNativePath;
using Found = CShareConfinement::Found;

class CScopedFd {
 public:
  explicit CScopedFd(int fd) : m_fd(fd) {}
  ~CScopedFd() {
    if (m_fd >= 0) {
      CPreserveLastSysError preserve;
      ::close(m_fd);
    }
  }
  CScopedFd(const CScopedFd&) = delete;
  CScopedFd& operator=(const CScopedFd&) = delete;
  int get() const { return m_fd; }

 private:
  int m_fd;
};

bool isMissing(int code) { return code == ENOENT || code == ENOTDIR; }

Found foundOf(mode_t mode) {
  if (S_ISDIR(mode)) return CShareConfinement::FoundFolder;
  return S_ISREG(mode) ? CShareConfinement::FoundFile : CShareConfinement::FoundOther;
}

// What the open descriptor fd is, when asked.
void describe(int fd, Found* found) {
  struct stat st;
  if (found && ::fstat(fd, &st) == 0) *found = foundOf(st.st_mode);
}

// Tri-state answer of openat2: a resolution, or "not available here".
enum class Openat2Answer { Beneath, Missing, Escapes, Unavailable };

Openat2Answer resolveWithOpenat2(int rootFd, const std::string& relative, bool followFinal,
                                 Found* found) {
  struct open_how how = {};
  how.flags = O_PATH | O_CLOEXEC | (followFinal ? 0 : O_NOFOLLOW);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  for (int attempt = 0; attempt < kRenameRetries; ++attempt) {
    const long fd = ::syscall(SYS_openat2, rootFd, relative.c_str(), &how, sizeof how);
    if (fd >= 0) {
      CScopedFd opened(static_cast<int>(fd));
      describe(opened.get(), found);
      return Openat2Answer::Beneath;
    }
    const int code = errno;
    if (code == EINTR || code == EAGAIN) continue;
    if (isMissing(code)) return Openat2Answer::Missing;
    if (code == EXDEV || code == ELOOP) return Openat2Answer::Escapes;
    if (code == ENOSYS) return Openat2Answer::Unavailable;
    fail("openat2", code, relative);
  }
  fail("openat2", EAGAIN, relative);
}

enum class RealPath { Found, Missing, Loop };

// realpath of path.
RealPath realPath(const std::string& path, std::string& real) {
  char* resolved = ::realpath(path.c_str(), nullptr);
  if (resolved == nullptr) {
    const int code = errno;
    if (isMissing(code)) return RealPath::Missing;
    if (code == ELOOP) return RealPath::Loop;
    fail("realpath", code, path);
  }
  real = resolved;
  std::free(resolved);
  return RealPath::Found;
}

bool isBelow(const std::string& real, const std::string& root) {
  if (real == root) return true;
  if (root == "/") return true;
  return real.size() > root.size() && real.compare(0, root.size(), root) == 0 &&
         real[root.size()] == '/';
}

// The real path of the deepest existing ancestor of root/components[0..count)
// must lie under the root's real path.
Resolution resolvePortable(const std::string& root, const TArray<String>& components,
                           bool followFinal) {
  std::string rootReal;
  switch (realPath(root, rootReal)) {
    case RealPath::Found:
      break;
    case RealPath::Missing:
      return Resolution::Missing;
    case RealPath::Loop:
      fail("realpath", ELOOP, root);
  }
  int count = components.getCount();
  if (!followFinal && count > 0) --count;  // the entry itself is not resolved
  std::string path = root;
  for (int i = 0; i < count; ++i) path += "/" + toNativePath(components[i]);

  if (followFinal && count > 0) {
    // A dangling final link: realpath cannot say where it would lead.
    struct stat st;
    if (::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode) && ::stat(path.c_str(), &st) != 0 &&
        isMissing(errno)) {
      return Resolution::Escapes;
    }
  }
  bool missing = false;
  for (;;) {
    std::string real;
    const RealPath found = realPath(path, real);
    if (found == RealPath::Loop) return Resolution::Escapes;
    if (found == RealPath::Found) {
      if (!isBelow(real, rootReal)) return Resolution::Escapes;
      return missing ? Resolution::Missing : Resolution::Beneath;
    }
    missing = true;
    if (count == 0) return Resolution::Missing;
    --count;
    path = root;
    for (int i = 0; i < count; ++i) path += "/" + toNativePath(components[i]);
  }
}

// The real path of an open descriptor; false when /proc cannot tell.
bool descriptorPath(int fd, std::string& real) {
  char link[64];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  char buffer[PATH_MAX + 1];
  const ssize_t length = ::readlink(link, buffer, PATH_MAX);
  if (length <= 0 || length >= PATH_MAX) return false;
  real.assign(buffer, static_cast<size_t>(length));
  return true;
}

// The second look at a path RESOLVE_BENEATH stopped at: opened the plain way
// relative to the root, what was reached must lie beneath the root.
Resolution resolveStopped(int rootFd, const String& rootPath, const std::string& relative,
                          const TArray<String>& components, bool followFinal, Found* found) {
  int rawFd;
  do {
    rawFd = ::openat(rootFd, relative.c_str(),
                     O_PATH | O_CLOEXEC | (followFinal ? 0 : O_NOFOLLOW));
  } while (rawFd < 0 && errno == EINTR);
  if (rawFd < 0) {
    const int code = errno;
    // Something on the way is missing: where the path would lead is for the
    // ancestors to tell. Any other failure past the stop (a folder outside
    // that cannot be searched) counts as leaving, whatever lies there.
    if (!isMissing(code)) return Resolution::Escapes;
    try {
      return resolvePortable(toNativePath(rootPath), components, followFinal);
    } catch (const CError&) {
      return Resolution::Escapes;
    }
  }
  CScopedFd fd(rawFd);
  std::string real;
  std::string rootReal;
  if (!descriptorPath(fd.get(), real) || !descriptorPath(rootFd, rootReal)) {
    return resolvePortable(toNativePath(rootPath), components, followFinal);
  }
  if (!isBelow(real, rootReal)) return Resolution::Escapes;
  describe(fd.get(), found);
  return Resolution::Beneath;
}

int openRoot(const std::string& root) {
  int fd;
  do {
    fd = ::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    const int code = errno;
    if (isMissing(code)) return -1;
    fail("open", code, root);
  }
  return fd;
}

// Whether the root path still names the folder of rootFd.
bool rootIsCurrent(int rootFd, const std::string& root) {
  struct stat kept;
  struct stat now;
  if (::fstat(rootFd, &kept) != 0) return false;
  if (::stat(root.c_str(), &now) != 0) return false;
  return kept.st_dev == now.st_dev && kept.st_ino == now.st_ino;
}

// A single name directly in the root, judged by one lstat relative to the
// root: nothing on the way to an entry there can leave the root, so anything
// but a link that the operation follows lies beneath it. False when the name
// needs the general way ("." and "..", a followed link, a failure that the
// general way retries or reports).
bool resolveName(int rootFd, const String& name, bool followFinal, Found* found,
                 Resolution& result) {
  const std::string native = toNativePath(name);
  if (native == "." || native == "..") return false;
  struct stat st;
  if (::fstatat(rootFd, native.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno != ENOENT) return false;
    result = Resolution::Missing;
    return true;
  }
  if (followFinal && S_ISLNK(st.st_mode)) return false;
  if (found) *found = foundOf(st.st_mode);
  result = Resolution::Beneath;
  return true;
}

Resolution resolveFrom(int rootFd, const String& rootPath, const TArray<String>& components,
                       bool followFinal, Found* found, bool& unavailable) {
  Resolution result;
  if (components.getCount() == 1 &&
      resolveName(rootFd, components[0], followFinal, found, result)) {
    return result;
  }
  std::string relative;
  for (const String& component : components) {
    if (!relative.empty()) relative += '/';
    relative += toNativePath(component);
  }
  if (relative.empty()) relative = ".";
  switch (resolveWithOpenat2(rootFd, relative, followFinal, found)) {
    case Openat2Answer::Beneath:
      return Resolution::Beneath;
    case Openat2Answer::Missing:
      return Resolution::Missing;
    case Openat2Answer::Escapes:
      return resolveStopped(rootFd, rootPath, relative, components, followFinal, found);
    case Openat2Answer::Unavailable:
      break;
  }
  unavailable = true;
  return Resolution::Missing;
}

}  // namespace

Resolution resolve(const String& rootPath, std::atomic<int64>& rootHandle,
                   const TArray<String>& components, bool followFinal, Found* found) {
  Resolution result = Resolution::Missing;
  if (!g_portable.load(std::memory_order_relaxed)) {
    int64 kept = rootHandle.load(std::memory_order_acquire);
    if (kept < 0) {
      const int opened = openRoot(toNativePath(rootPath));
      if (opened < 0) {
        if (found) *found = CShareConfinement::FoundNothing;
        return Resolution::Missing;
      }
      // Another thread may have stored one meanwhile: the first one stays.
      if (rootHandle.compare_exchange_strong(kept, opened, std::memory_order_acq_rel)) {
        kept = opened;
      } else {
        ::close(opened);
      }
    }
    bool unavailable = false;
    result = resolveFrom(static_cast<int>(kept), rootPath, components, followFinal, found,
                         unavailable);
    if (!unavailable && result == Resolution::Missing) {
      const std::string root = toNativePath(rootPath);
      if (!rootIsCurrent(static_cast<int>(kept), root)) {
        // Another folder (or none) has taken the root's place: check what the
        // operation will reach, with a descriptor of this check alone.
        const int current = openRoot(root);
        if (current >= 0) {
          CScopedFd currentFd(current);
          result = resolveFrom(current, rootPath, components, followFinal, found, unavailable);
        }
      }
    }
    if (!unavailable) {
      if (found && result == Resolution::Missing) *found = CShareConfinement::FoundNothing;
      return result;
    }
    g_portable.store(true, std::memory_order_relaxed);
  }
  // Real paths say where a path leads, not what it is.
  if (found) *found = CShareConfinement::FoundUnknown;
  result = resolvePortable(toNativePath(rootPath), components, followFinal);
  if (found && result == Resolution::Missing) *found = CShareConfinement::FoundNothing;
  return result;
}

void releaseRoot(int64 rootHandle) {
  if (rootHandle >= 0) ::close(static_cast<int>(rootHandle));
}

void setPortableResolution(bool on) { g_portable.store(on, std::memory_order_relaxed); }

}  // namespace zel::confinement_platform
