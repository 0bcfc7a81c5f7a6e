// Linux step of the local file system: descriptors opened with O_CLOEXEC,
// every interruptible call retried on EINTR, OFD byte-range locks, statx, and
// extended attributes in the "user." namespace for sub data streams.
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/fs.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

#include "zel/core/error.h"
#include "zel/core/sys_error.h"
#include "zel/fs/local_file_system_platform.h"
#include "zel/internal/retry_eintr.h"
#include "zel/path/uri.h"
#include "zel/stream/stream.h"

#ifndef RENAME_NOREPLACE
#define RENAME_NOREPLACE (1 << 0)
#endif

namespace zel::fs_platform {

std::string toNativePath(const String& path) {
  const wchar_t* text = path.toWChar();
  const int count = path.getLength();
  std::string ascii(static_cast<size_t>(count), '\0');
  int i = 0;
  for (; i < count && text[i] > 0 && text[i] < 0x80; ++i) ascii[i] = static_cast<char>(text[i]);
  if (i == count) return ascii;
  int length = 0;
  wxCharBuffer bytes = path.toFileSystemEncoding(&length);
  return std::string(bytes.data(), static_cast<size_t>(length));
}

namespace {

[[noreturn]] void fail(const char* func, const char* action, int code) {
  throwSysError(func, String("fs_platform::") + action, code);
}

int fd(Handle handle) { return static_cast<int>(handle); }

CTime fromStatx(const struct statx_timestamp& ts) {
  return CTime(static_cast<int64>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000);
}

struct timespec toTimespec(const CTime& time) {
  struct timespec ts;
  int64 us = time.getMicroseconds();
  int64 sec = us / 1000000;
  int64 rest = us % 1000000;
  if (rest < 0) {
    rest += 1000000;
    sec -= 1;
  }
  ts.tv_sec = static_cast<time_t>(sec);
  ts.tv_nsec = static_cast<long>(rest * 1000);
  return ts;
}

// ENOTSUP and friends from attribute calls become one clear error.
[[noreturn]] void throwXattrUnsupported(const char* func, const char* action, int code) {
  CProps params;
  params.set("func", func);
  params.set("action", String("fs_platform::") + action);
  throw CFileSystemError(
      CFileSystemError::ProblemUnsupported,
      CError("The file system does not support extended attributes (user namespace).",
             CError::errnoErrorDomain(), code, params));
}

bool isXattrUnsupported(int code) { return code == ENOTSUP || code == EOPNOTSUPP || code == ENOSYS; }

}  // namespace

Handle openFile(const String& path, Disposition disposition, bool readWrite, bool exclusive) {
  int flags = O_CLOEXEC | (readWrite ? O_RDWR : O_RDONLY);
  switch (disposition) {
    case Disposition::OpenExisting:
      break;
    case Disposition::OpenAlways:
      flags |= O_CREAT;
      break;
    case Disposition::CreateNew:
      flags |= O_CREAT | O_EXCL;
      break;
    case Disposition::CreateAlways:
      flags |= O_CREAT;
      // O_TRUNC on a read-only descriptor is unspecified; truncate explicitly.
      if (readWrite) flags |= O_TRUNC;
      break;
  }
  std::string native = toNativePath(path);
  int result = retryEINTR([&] { return ::openat(AT_FDCWD, native.c_str(), flags, 0666); });
  if (result < 0) fail("openat", "openFile", errno);
  // A folder opens read-only without complaint; a stream on it is useless.
  struct stat st;
  if (::fstat(result, &st) == 0 && S_ISDIR(st.st_mode)) {
    ::close(result);
    fail("openat", "openFile", EISDIR);
  }
  if (disposition == Disposition::CreateAlways && !readWrite && st.st_size > 0) {
    if (retryEINTR([&] { return ::ftruncate(result, 0); }) != 0) {
      int code = errno;
      ::close(result);
      fail("ftruncate", "openFile", code);
    }
  }
  if (exclusive) {
    if (retryEINTR([&] { return ::flock(result, (readWrite ? LOCK_EX : LOCK_SH) | LOCK_NB); }) != 0) {
      int code = errno;
      ::close(result);
      fail("flock", "openFile", code);
    }
  }
  return result;
}

void closeFile(Handle handle) {
  // Linux releases the descriptor even when close reports an error; retrying
  // could close a descriptor another thread has just been given.
  if (::close(fd(handle)) != 0 && errno != EINTR) fail("close", "closeFile", errno);
}

int readAt(Handle handle, int64 position, void* buffer, int bytes) {
  if (bytes <= 0) return 0;
  ssize_t got = retryEINTR([&] {
    return ::pread(fd(handle), buffer, static_cast<size_t>(bytes), static_cast<off_t>(position));
  });
  if (got < 0) fail("pread", "readAt", errno);
  return static_cast<int>(got);
}

void writeAt(Handle handle, int64 position, const void* buffer, int bytes) {
  const auto* data = static_cast<const char*>(buffer);
  int done = 0;
  while (done < bytes) {
    ssize_t put = retryEINTR([&] {
      return ::pwrite(fd(handle), data + done, static_cast<size_t>(bytes - done),
                      static_cast<off_t>(position + done));
    });
    if (put < 0) fail("pwrite", "writeAt", errno);
    if (put == 0) fail("pwrite", "writeAt", EIO);
    done += static_cast<int>(put);
  }
}

int64 getFileSize(Handle handle) {
  struct stat st;
  if (::fstat(fd(handle), &st) != 0) fail("fstat", "getFileSize", errno);
  return st.st_size;
}

void setFileSize(Handle handle, int64 size) {
  if (retryEINTR([&] { return ::ftruncate(fd(handle), static_cast<off_t>(size)); }) != 0) {
    fail("ftruncate", "setFileSize", errno);
  }
}

void flushFile(Handle handle) {
  if (retryEINTR([&] { return ::fdatasync(fd(handle)); }) != 0) {
    // Pipes and some special files cannot be synced; nothing is lost there.
    if (errno != EINVAL && errno != EROFS) fail("fdatasync", "flushFile", errno);
  }
}

bool lockRange(Handle handle, int64 start, int64 length, bool exclusive) {
  struct flock lock;
  std::memset(&lock, 0, sizeof(lock));
  lock.l_type = exclusive ? F_WRLCK : F_RDLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = static_cast<off_t>(start);
  lock.l_len = static_cast<off_t>(length);
  lock.l_pid = 0;
  if (retryEINTR([&] { return ::fcntl(fd(handle), F_OFD_SETLK, &lock); }) == 0) return true;
  if (errno == EAGAIN || errno == EACCES) return false;
  fail("fcntl", "lockRange", errno);
}

void unlockRange(Handle handle, int64 start, int64 length) {
  struct flock lock;
  std::memset(&lock, 0, sizeof(lock));
  lock.l_type = F_UNLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = static_cast<off_t>(start);
  lock.l_len = static_cast<off_t>(length);
  lock.l_pid = 0;
  if (retryEINTR([&] { return ::fcntl(fd(handle), F_OFD_SETLK, &lock); }) != 0) {
    fail("fcntl", "unlockRange", errno);
  }
}

bool getEntryType(const String& path, EntryType& type) {
  std::string native = toNativePath(path);
  struct stat st;
  if (::stat(native.c_str(), &st) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) return false;
    fail("stat", "getEntryType", errno);
  }
  type = S_ISDIR(st.st_mode) ? EntryType::Folder : S_ISREG(st.st_mode) ? EntryType::File
                                                                        : EntryType::Other;
  return true;
}

bool statEntry(const String& path, bool followLinks, EntryInfo& info) {
  std::string native = toNativePath(path);
  const unsigned mask = STATX_BASIC_STATS | STATX_BTIME;
  auto describe = [&](int flags, struct statx& sx) {
    if (::statx(AT_FDCWD, native.c_str(), AT_STATX_SYNC_AS_STAT | flags, mask, &sx) == 0) return true;
    if (errno == ENOENT || errno == ENOTDIR) return false;
    fail("statx", "statEntry", errno);
  };
  // The name itself first: for anything but a link (nearly every entry)
  // that is the whole answer, followed or not, in one call.
  struct statx sx;
  if (!describe(AT_SYMLINK_NOFOLLOW, sx)) return false;
  info = EntryInfo();
  auto typeOf = [](mode_t mode) {
    return S_ISDIR(mode) ? EntryType::Folder : S_ISREG(mode) ? EntryType::File : EntryType::Other;
  };
  if (S_ISLNK(sx.stx_mode)) {
    info.isSymLink = true;
    char target[PATH_MAX + 1];
    ssize_t len = ::readlinkat(AT_FDCWD, native.c_str(), target, PATH_MAX);
    if (len >= 0) info.symLinkTarget = String::fromFileSystemEncoding(std::string(target, len).c_str());
    struct statx followed;
    const bool targetExists = describe(0, followed);
    if (followLinks) {
      // A followed link that leads nowhere does not exist.
      if (!targetExists) return false;
      sx = followed;
    }
    // An unfollowed link reports the kind of its target.
    info.type = targetExists ? typeOf(followed.stx_mode) : EntryType::Other;
  } else {
    info.type = typeOf(sx.stx_mode);
  }
  mode_t mode = sx.stx_mode;
  info.size = info.type == EntryType::Folder ? 0 : static_cast<int64>(sx.stx_size);
  if (sx.stx_mask & STATX_BTIME) info.createdTime = fromStatx(sx.stx_btime);
  info.dataModifiedTime = fromStatx(sx.stx_mtime);
  info.metaModifiedTime = fromStatx(sx.stx_ctime);
  info.accessedTime = fromStatx(sx.stx_atime);
  info.id = static_cast<int64>(sx.stx_ino);
  info.volumeID = static_cast<int64>(makedev(sx.stx_dev_major, sx.stx_dev_minor));
  info.linkCount = sx.stx_nlink;
  info.readOnly = (mode & S_IWUSR) == 0;
  info.hidden = false;
  info.encrypted = (sx.stx_attributes_mask & STATX_ATTR_ENCRYPTED) &&
                   (sx.stx_attributes & STATX_ATTR_ENCRYPTED);
  info.compressed = (sx.stx_attributes_mask & STATX_ATTR_COMPRESSED) &&
                    (sx.stx_attributes & STATX_ATTR_COMPRESSED);
  info.sparse = info.type == EntryType::File &&
                static_cast<int64>(sx.stx_blocks) * 512 < static_cast<int64>(sx.stx_size);
  info.indexable = true;
  info.hasUnixInfo = true;
  info.unixMode = mode;
  info.unixUserID = sx.stx_uid;
  info.unixGroupID = sx.stx_gid;
  return true;
}

Folder openFolder(const String& path) {
  std::string native = toNativePath(path);
  int dfd = retryEINTR([&] {
    return ::openat(AT_FDCWD, native.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  });
  if (dfd < 0) fail("openat", "openFolder", errno);
  DIR* dir = ::fdopendir(dfd);
  if (dir == nullptr) {
    int code = errno;
    ::close(dfd);
    fail("fdopendir", "openFolder", code);
  }
  return dir;
}

bool readFolderEntry(Folder folder, String& name) {
  DIR* dir = static_cast<DIR*>(folder);
  for (;;) {
    errno = 0;
    struct dirent* entry = ::readdir(dir);
    if (entry == nullptr) {
      if (errno != 0) fail("readdir", "readFolderEntry", errno);
      return false;
    }
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
    name = String::fromFileSystemEncoding(entry->d_name);
    return true;
  }
}

void closeFolder(Folder folder) noexcept {
  if (folder != nullptr) ::closedir(static_cast<DIR*>(folder));
}

void createFolder(const String& path) {
  std::string native = toNativePath(path);
  if (::mkdirat(AT_FDCWD, native.c_str(), 0777) != 0) fail("mkdirat", "createFolder", errno);
}

void removeFile(const String& path) {
  std::string native = toNativePath(path);
  if (::unlinkat(AT_FDCWD, native.c_str(), 0) != 0) fail("unlinkat", "removeFile", errno);
}

void removeFolder(const String& path) {
  std::string native = toNativePath(path);
  if (::unlinkat(AT_FDCWD, native.c_str(), AT_REMOVEDIR) != 0) {
    int code = errno;
    // Linux may report EEXIST for a non-empty folder; it means the same.
    fail("unlinkat", "removeFolder", code == EEXIST ? ENOTEMPTY : code);
  }
}

void removeLink(const String& path) {
  std::string native = toNativePath(path);
  struct stat st;
  if (::lstat(native.c_str(), &st) != 0) fail("lstat", "removeLink", errno);
  if (!S_ISLNK(st.st_mode)) fail("lstat", "removeLink", EINVAL);
  if (::unlinkat(AT_FDCWD, native.c_str(), 0) != 0) fail("unlinkat", "removeLink", errno);
}

void renameEntry(const String& from, const String& to, bool overwrite) {
  std::string nativeFrom = toNativePath(from);
  std::string nativeTo = toNativePath(to);
  if (overwrite) {
    if (::renameat(AT_FDCWD, nativeFrom.c_str(), AT_FDCWD, nativeTo.c_str()) != 0) {
      fail("renameat", "renameEntry", errno);
    }
    return;
  }
  if (::renameat2(AT_FDCWD, nativeFrom.c_str(), AT_FDCWD, nativeTo.c_str(), RENAME_NOREPLACE) == 0) {
    return;
  }
  int code = errno;
  if (code != EINVAL && code != ENOSYS) fail("renameat2", "renameEntry", code);
  // No RENAME_NOREPLACE on this file system: a file can still move without a
  // window in which an existing target is replaced (link fails on EEXIST).
  struct stat st;
  if (::lstat(nativeFrom.c_str(), &st) != 0) fail("lstat", "renameEntry", errno);
  if (S_ISDIR(st.st_mode)) {
    if (::lstat(nativeTo.c_str(), &st) == 0) fail("renameat", "renameEntry", EEXIST);
    if (::renameat(AT_FDCWD, nativeFrom.c_str(), AT_FDCWD, nativeTo.c_str()) != 0) {
      fail("renameat", "renameEntry", errno);
    }
    return;
  }
  if (::linkat(AT_FDCWD, nativeFrom.c_str(), AT_FDCWD, nativeTo.c_str(), 0) != 0) {
    fail("linkat", "renameEntry", errno);
  }
  if (::unlinkat(AT_FDCWD, nativeFrom.c_str(), 0) != 0) fail("unlinkat", "renameEntry", errno);
}

void copyFile(const String& from, const String& to, bool overwrite) {
  std::string nativeFrom = toNativePath(from);
  std::string nativeTo = toNativePath(to);
  int in = retryEINTR([&] { return ::openat(AT_FDCWD, nativeFrom.c_str(), O_RDONLY | O_CLOEXEC); });
  if (in < 0) fail("openat", "copyFile", errno);
  struct stat st;
  if (::fstat(in, &st) != 0) {
    int code = errno;
    ::close(in);
    fail("fstat", "copyFile", code);
  }
  if (S_ISDIR(st.st_mode)) {
    ::close(in);
    fail("openat", "copyFile", EISDIR);
  }
  int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (overwrite ? O_TRUNC : O_EXCL);
  int out = retryEINTR([&] { return ::openat(AT_FDCWD, nativeTo.c_str(), flags, st.st_mode & 07777); });
  if (out < 0) {
    int code = errno;
    ::close(in);
    fail("openat", "copyFile", code);
  }
  int code = 0;
  const char* func = "copy_file_range";
  bool useFallback = false;
  for (;;) {
    ssize_t done = ::copy_file_range(in, nullptr, out, nullptr, 1 << 30, 0);
    if (done > 0) continue;
    if (done == 0) break;
    if (errno == EINTR) continue;
    if (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP) {
      useFallback = true;
    } else {
      code = errno;
    }
    break;
  }
  if (useFallback) {
    func = "sendfile";
    off_t offset = ::lseek(in, 0, SEEK_CUR);
    for (;;) {
      ssize_t done = ::sendfile(out, in, &offset, 1 << 30);
      if (done > 0) continue;
      if (done == 0) break;
      if (errno == EINTR) continue;
      code = errno;
      break;
    }
  }
  ::close(in);
  if (code == 0 && ::close(out) != 0 && errno != EINTR) code = errno, func = "close";
  else if (code != 0) ::close(out);
  if (code != 0) fail(func, "copyFile", code);
}

void createHardLink(const String& link, const String& target) {
  std::string nativeLink = toNativePath(link);
  std::string nativeTarget = toNativePath(target);
  if (::linkat(AT_FDCWD, nativeTarget.c_str(), AT_FDCWD, nativeLink.c_str(), 0) != 0) {
    fail("linkat", "createHardLink", errno);
  }
}

void createFolderHardLink(const String&, const String&) {
  fail("linkat", "createFolderHardLink", ENOTSUP);
}

void createSymLink(const String& link, const String& target, bool) {
  std::string nativeLink = toNativePath(link);
  std::string nativeTarget = toNativePath(target);
  if (::symlinkat(nativeTarget.c_str(), AT_FDCWD, nativeLink.c_str()) != 0) {
    fail("symlinkat", "createSymLink", errno);
  }
}

String readSymLink(const String& path) {
  std::string native = toNativePath(path);
  char target[PATH_MAX + 1];
  ssize_t len = ::readlinkat(AT_FDCWD, native.c_str(), target, PATH_MAX);
  if (len < 0) fail("readlinkat", "readSymLink", errno);
  return String::fromFileSystemEncoding(std::string(target, static_cast<size_t>(len)).c_str());
}

void applyMetaChanges(const String& path, bool followLinks, const MetaChanges& changes) {
  std::string native = toNativePath(path);
  int atFlags = followLinks ? 0 : AT_SYMLINK_NOFOLLOW;
  if (changes.setUnixMode || changes.setReadOnly) {
    struct stat st;
    int rc = followLinks ? ::stat(native.c_str(), &st) : ::lstat(native.c_str(), &st);
    if (rc != 0) fail("stat", "applyMetaChanges", errno);
    // Links carry no mode of their own on Linux.
    if (!S_ISLNK(st.st_mode)) {
      mode_t mode = st.st_mode & 07777;
      if (changes.setUnixMode) {
        mode = static_cast<mode_t>(changes.unixMode & 07777);
      } else if (changes.readOnly) {
        mode &= static_cast<mode_t>(~(S_IWUSR | S_IWGRP | S_IWOTH));
      } else {
        mode |= S_IWUSR;
      }
      if (::fchmodat(AT_FDCWD, native.c_str(), mode, 0) != 0) fail("fchmodat", "applyMetaChanges", errno);
    }
  }
  if (changes.setDataModifiedTime) {
    struct timespec times[2];
    times[0].tv_sec = 0;
    times[0].tv_nsec = UTIME_OMIT;
    times[1] = toTimespec(changes.dataModifiedTime);
    if (::utimensat(AT_FDCWD, native.c_str(), times, atFlags) != 0) {
      fail("utimensat", "applyMetaChanges", errno);
    }
  }
}

int64 getFreeSpace(const String& path) {
  std::string native = toNativePath(path);
  struct statvfs sv;
  if (retryEINTR([&] { return ::statvfs(native.c_str(), &sv); }) != 0) fail("statvfs", "getFreeSpace", errno);
  return static_cast<int64>(sv.f_bavail) * static_cast<int64>(sv.f_frsize);
}

int64 getSectorSize(const String& path) {
  std::string native = toNativePath(path);
  struct statvfs sv;
  if (retryEINTR([&] { return ::statvfs(native.c_str(), &sv); }) != 0) fail("statvfs", "getSectorSize", errno);
  return static_cast<int64>(sv.f_bsize);
}

String getVolumeRoot(const String& path) {
  // Walk up while the device stays the same: the last folder on it is the
  // mount point.
  std::string current = toNativePath(path);
  struct stat st;
  if (::stat(current.c_str(), &st) != 0) fail("stat", "getVolumeRoot", errno);
  dev_t device = st.st_dev;
  while (current.size() > 1) {
    size_t slash = current.find_last_of('/');
    std::string parent = slash == 0 ? std::string("/") : current.substr(0, slash);
    if (slash == std::string::npos) break;
    struct stat pst;
    if (::stat(parent.c_str(), &pst) != 0 || pst.st_dev != device) break;
    current = parent;
  }
  return String::fromFileSystemEncoding(current.c_str());
}

String getUserName(int64 uid) {
  struct passwd pw;
  struct passwd* result = nullptr;
  std::string buffer(16384, '\0');
  if (::getpwuid_r(static_cast<uid_t>(uid), &pw, buffer.data(), buffer.size(), &result) != 0 ||
      result == nullptr) {
    return String();
  }
  return String::fromFileSystemEncoding(pw.pw_name);
}

String getGroupName(int64 gid) {
  struct group gr;
  struct group* result = nullptr;
  std::string buffer(16384, '\0');
  if (::getgrgid_r(static_cast<gid_t>(gid), &gr, buffer.data(), buffer.size(), &result) != 0 ||
      result == nullptr) {
    return String();
  }
  return String::fromFileSystemEncoding(gr.gr_name);
}

String getCurrentUserName() {
  String name = getUserName(::geteuid());
  return name.isEmpty() ? String::fromInt64(::geteuid()) : name;
}

namespace {

// A sub data stream held in memory: the attribute's value is read on opening
// and written back by flush() and close() when it changed. Attributes are
// small (the file system limits them, often to one block), so this is cheap.
class CXattrStream : public CBase, public IIOStream {
 public:
  CXattrStream(const CURI& uri, std::string path, std::string attr, std::string value, bool writable,
               bool dirty)
      : m_uri(uri),
        m_path(std::move(path)),
        m_attr(std::move(attr)),
        m_value(std::move(value)),
        m_writable(writable),
        m_dirty(dirty) {}
  ~CXattrStream() override {
    try {
      close();
    } catch (...) {
      // A destructor cannot report; callers that care call close().
    }
  }

  int64 getLength() const override {
    checkOpen();
    return static_cast<int64>(m_value.size());
  }
  int64 getPosition() const override {
    checkOpen();
    return m_position;
  }
  CURI getURI() override { return m_uri; }
  void seek(int64 position) override {
    checkOpen();
    if (position < 0) throw CIOError(CIOError::SeekFailed, String(), params());
    m_position = position;
  }
  P<IStreamLock> lockRange(int64, int64, LockType) override {
    throw CIOError(CIOError::Unknown, "Sub data streams cannot lock ranges on this platform.", params());
  }
  void close() override {
    if (m_closed) return;
    flushValue();
    m_closed = true;
  }
  void read(void* buffer, int bytes) override {
    if (readLax(buffer, bytes) < bytes) throw CIOError(CIOError::UnexpectedEnd, String(), params());
  }
  int readLax(void* buffer, int bytes) override {
    checkOpen();
    if (bytes <= 0 || m_position >= static_cast<int64>(m_value.size())) return 0;
    size_t count = std::min(static_cast<size_t>(bytes), m_value.size() - static_cast<size_t>(m_position));
    std::memcpy(buffer, m_value.data() + m_position, count);
    m_position += static_cast<int64>(count);
    return static_cast<int>(count);
  }
  int readAvailable(void* buffer, int bytes) override { return readLax(buffer, bytes); }
  bool waitReadable(int) const override { return true; }
  bool isEndOfStream() const override { return m_position >= getLength(); }
  int isEndOfStream_NonBlocking() const override { return isEndOfStream() ? 1 : 0; }
  void write(const void* buffer, int bytes, IWriteBarrier*) override {
    checkOpen();
    if (bytes < 0) throw CInvalidArgError("CXattrStream::write", "bytes must be >= 0");
    if (!m_writable) throw CIOError(CIOError::WriteFailed, "The stream was opened for reading only.", params());
    if (bytes == 0) return;
    size_t end = static_cast<size_t>(m_position) + static_cast<size_t>(bytes);
    if (end > kMaxValue) throw CIOError(CIOError::WriteFailed, "Extended attribute values are limited to 64 KiB.", params());
    if (m_value.size() < end) m_value.resize(end, '\0');
    std::memcpy(m_value.data() + m_position, buffer, static_cast<size_t>(bytes));
    m_position = static_cast<int64>(end);
    m_dirty = true;
  }
  void writeKeepBuffer(const TConstBufferSlice<unsigned char>& data, IWriteBarrier* barrier) override {
    if (data.getLength() > kMaxValue) throw CIOError(CIOError::WriteFailed, "Extended attribute values are limited to 64 KiB.", params());
    write(data.getData(), static_cast<int>(data.getLength()), barrier);
  }
  P<IWriteBarrier> createWriteBarrier(IWriteBarrier* parent) override {
    return createObject<CImmediateWriteBarrier>(parent);
  }
  void flush() override {
    checkOpen();
    flushValue();
  }
  void setLength(int64 length) override {
    checkOpen();
    if (!m_writable) throw CIOError(CIOError::ResizeFailed, "The stream was opened for reading only.", params());
    if (length < 0 || static_cast<uint64>(length) > kMaxValue) {
      throw CIOError(CIOError::ResizeFailed, String(), params());
    }
    m_value.resize(static_cast<size_t>(length), '\0');
    if (m_position > length) m_position = length;
    m_dirty = true;
  }
  int getPositionAlign() override { return 1; }
  int getBufferAlign() override { return 1; }
  int getBestPerformancePositionAlign() override { return 1; }

 private:
  static constexpr size_t kMaxValue = 65536;  // XATTR_SIZE_MAX

  CProps params() const {
    CProps p;
    p.set(CIOError::paramURI(), m_uri.toString());
    p.set("subDataStream", String::fromFileSystemEncoding(m_attr.c_str()));
    return p;
  }
  void checkOpen() const {
    if (m_closed) throw CIOError(CIOError::StreamClosed, String(), params());
  }
  void flushValue() {
    if (!m_dirty) return;
    if (::setxattr(m_path.c_str(), m_attr.c_str(), m_value.data(), m_value.size(), 0) != 0) {
      int code = errno;
      if (isXattrUnsupported(code)) throwXattrUnsupported("setxattr", "openSubDataStream", code);
      fail("setxattr", "openSubDataStream", code);
    }
    m_dirty = false;
  }

  CURI m_uri;
  std::string m_path;
  std::string m_attr;
  std::string m_value;
  bool m_writable;
  bool m_dirty;
  bool m_closed = false;
  int64 m_position = 0;
};

}  // namespace

P<IIOStream> openSubDataStream(const CURI& uri, const String& path, const String& name,
                               Disposition disposition, bool readWrite, bool) {
  std::string native = toNativePath(path);
  std::string attr = "user." + toNativePath(name);
  // The file must exist: attributes hang off it.
  struct stat st;
  if (::stat(native.c_str(), &st) != 0) fail("stat", "openSubDataStream", errno);
  std::string value;
  bool exists = false;
  for (;;) {
    ssize_t size = ::getxattr(native.c_str(), attr.c_str(), nullptr, 0);
    if (size < 0) {
      int code = errno;
      if (code == ENODATA) break;
      if (isXattrUnsupported(code)) throwXattrUnsupported("getxattr", "openSubDataStream", code);
      fail("getxattr", "openSubDataStream", code);
    }
    value.resize(static_cast<size_t>(size));
    ssize_t got = ::getxattr(native.c_str(), attr.c_str(), value.data(), value.size());
    if (got < 0 && errno == ERANGE) continue;  // grew in between
    if (got < 0) {
      int code = errno;
      if (code == ENODATA) break;
      fail("getxattr", "openSubDataStream", code);
    }
    value.resize(static_cast<size_t>(got));
    exists = true;
    break;
  }
  bool dirty = false;
  switch (disposition) {
    case Disposition::OpenExisting:
      if (!exists) fail("getxattr", "openSubDataStream", ENOENT);
      break;
    case Disposition::CreateNew:
      if (exists) fail("getxattr", "openSubDataStream", EEXIST);
      dirty = true;
      break;
    case Disposition::OpenAlways:
      dirty = !exists;
      break;
    case Disposition::CreateAlways:
      dirty = !exists || !value.empty();
      value.clear();
      break;
  }
  auto stream = createObject<CXattrStream>(uri, native, attr, std::move(value), readWrite, dirty);
  // Create the attribute now, so that a missing one exists after opening,
  // as a file would, and an unsupported file system fails at once.
  if (dirty) stream->flush();
  return stream;
}

std::vector<unsigned char> readNativeMetaData(const String& path, bool followLinks) {
  std::string native = toNativePath(path);
  auto list = [&](char* buffer, size_t size) {
    return followLinks ? ::listxattr(native.c_str(), buffer, size) : ::llistxattr(native.c_str(), buffer, size);
  };
  auto get = [&](const char* name, void* buffer, size_t size) {
    return followLinks ? ::getxattr(native.c_str(), name, buffer, size)
                       : ::lgetxattr(native.c_str(), name, buffer, size);
  };
  std::string names;
  for (;;) {
    ssize_t size = list(nullptr, 0);
    if (size < 0) {
      if (isXattrUnsupported(errno)) return {};  // no attributes at all
      fail("listxattr", "readNativeMetaData", errno);
    }
    names.resize(static_cast<size_t>(size));
    ssize_t got = list(names.data(), names.size());
    if (got < 0 && errno == ERANGE) continue;
    if (got < 0) fail("listxattr", "readNativeMetaData", errno);
    names.resize(static_cast<size_t>(got));
    break;
  }
  std::vector<unsigned char> block;
  auto putLength = [&](size_t n) {
    for (int i = 0; i < 4; ++i) block.push_back(static_cast<unsigned char>((n >> (8 * i)) & 0xFF));
  };
  size_t pos = 0;
  while (pos < names.size()) {
    const char* name = names.c_str() + pos;
    size_t nameLength = std::strlen(name);
    pos += nameLength + 1;
    std::string value;
    ssize_t size = get(name, nullptr, 0);
    if (size < 0) {
      if (errno == ENODATA || errno == EACCES || errno == EPERM) continue;  // gone or not ours
      fail("getxattr", "readNativeMetaData", errno);
    }
    value.resize(static_cast<size_t>(size));
    ssize_t got = get(name, value.data(), value.size());
    if (got < 0) {
      if (errno == ENODATA || errno == EACCES || errno == EPERM) continue;
      fail("getxattr", "readNativeMetaData", errno);
    }
    value.resize(static_cast<size_t>(got));
    putLength(nameLength);
    block.insert(block.end(), name, name + nameLength);
    putLength(value.size());
    block.insert(block.end(), value.begin(), value.end());
  }
  return block;
}

}  // namespace zel::fs_platform
