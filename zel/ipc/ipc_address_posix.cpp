// Linux part of CIPCAddress: the user ID and the socket folder.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "zel/core/error.h"
#include "zel/core/sys_error.h"
#include "zel/ipc/ipc_address.h"
#include "zel/util/cached_env_vars.h"

namespace zel {

namespace {

std::string toNative(const String& path) {
  int length = 0;
  wxCharBuffer bytes = path.toFileSystemEncoding(&length);
  return std::string(bytes.data(), static_cast<size_t>(length));
}

String octal(unsigned value) {
  String text;
  do {
    text = String(std::string(1, static_cast<char>('0' + (value & 7)))) + text;
    value >>= 3;
  } while (value != 0);
  return L"0" + text;
}

[[noreturn]] void refuseFolder(const String& folder, const char* message, int code,
                               unsigned mode) {
  CProps params;
  params.set("folder", folder);
  params.set("mode", octal(mode & 07777));
  params.set("action", "CIPCAddress::getUnixSocketPath");
  throw CError(message, CError::errnoErrorDomain(), code, params);
}

[[noreturn]] void failFolder(const String& folder, const char* func, int code) {
  CProps params;
  params.set("func", func);
  params.set("action", "CIPCAddress::getUnixSocketPath");
  params.set("folder", folder);
  throwSysError(code, params);
}

void checkExisting(const String& folder, const struct stat& st, bool global) {
  const unsigned mode = st.st_mode;
  if (!S_ISDIR(mode)) {
    refuseFolder(folder, "The IPC socket folder is not a folder", ENOTDIR, mode);
  }
  if (global) {
    if ((mode & 07777) != 01777) {
      refuseFolder(folder, "The global IPC socket folder does not have mode 1777", EPERM, mode);
    }
    return;
  }
  if (st.st_uid != geteuid()) {
    refuseFolder(folder, "The IPC socket folder belongs to another user", EPERM, mode);
  }
  if ((mode & 07777) != 0700) {
    refuseFolder(folder, "The IPC socket folder does not have mode 0700", EPERM, mode);
  }
}

// XDG_RUNTIME_DIR as the process started, when it is an absolute path to a
// real folder of ours that nobody else may write to; empty otherwise.
String qualifiedRuntimeFolder() {
  String value = CCachedEnvVars::get()->getValue("XDG_RUNTIME_DIR");
  if (value.isEmpty() || value.safeAt(0) != L'/') return String();
  struct stat st;
  if (::lstat(toNative(value).c_str(), &st) != 0) return String();
  if (!S_ISDIR(st.st_mode) || st.st_uid != geteuid() || (st.st_mode & 022) != 0) return String();
  return value;
}

}  // namespace

String CIPCAddress::getProcessUserID() { return String::fromInt64(geteuid()); }

void checkUnixSocketFolder(const String& folder, bool global, bool create) {
  const std::string native = toNative(folder);
  // Two rounds: a folder created by someone else between our lstat and our
  // mkdir is checked like any existing one.
  for (int round = 0; round < 2; ++round) {
    struct stat st;
    if (::lstat(native.c_str(), &st) == 0) {
      checkExisting(folder, st, global);
      return;
    }
    if (errno != ENOENT) failFolder(folder, "lstat", errno);
    if (!create) return;
    if (::mkdir(native.c_str(), 0700) != 0) {
      if (errno == EEXIST) continue;
      failFolder(folder, "mkdir", errno);
    }
    // The umask may have cut the mode; set it exactly, on the folder we made
    // (O_NOFOLLOW: never on something put in its place).
    const int fd = ::open(native.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) failFolder(folder, "open", errno);
    const int result = ::fchmod(fd, global ? 01777 : 0700);
    const int error = errno;
    ::close(fd);
    if (result != 0) failFolder(folder, "fchmod", error);
  }
  struct stat st;
  if (::lstat(native.c_str(), &st) != 0) failFolder(folder, "lstat", errno);
  checkExisting(folder, st, global);
}

String CIPCAddress::getUnixSocketPath(bool createFolder) const {
  checkUnixNameParts("CIPCAddress::getUnixSocketPath");
  const String folder =
      chooseUnixSocketFolder(m_global, m_global ? String() : qualifiedRuntimeFolder(),
                             getProcessUserID());
  const String path = formatUnixSocketPath(folder);
  checkUnixSocketFolder(folder, m_global, createFolder);
  return path;
}

}  // namespace zel
