// Unix domain stream sockets: CUnixSocketConnection and CUnixSocketServer.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <string>
#include <utility>

#include "zel/core/error.h"
#include "zel/core/sys_error.h"
#include "zel/internal/retry_eintr.h"
#include "zel/ipc/connection_stream.h"
#include "zel/ipc/ipc_address.h"
#include "zel/ipc/pipe_client_open.h"
#include "zel/ipc/unix_socket.h"
#include "zel/core/mutex.h"

namespace zel {

namespace {

std::string toNative(const String& path) {
  int length = 0;
  wxCharBuffer bytes = path.toFileSystemEncoding(&length);
  return std::string(bytes.data(), static_cast<size_t>(length));
}

// The socket address of a path; a path that does not fit is refused.
socklen_t fillAddress(const String& path, const std::string& native, sockaddr_un& address,
                      const char* function) {
  if (native.empty() || native.size() > static_cast<size_t>(kMaxUnixSocketPathBytes) ||
      native.find('\0') != std::string::npos) {
    CProps params;
    params.set("pipe", path);
    throw CInvalidArgError(function,
                           native.empty() ? "the socket path is empty"
                                          : "the socket path is longer than 107 bytes or "
                                            "contains NUL",
                           params);
  }
  std::memset(&address, 0, sizeof(address));
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, native.data(), native.size());
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + native.size() + 1);
}

CProps sysParams(const char* func, const char* action, const String& path) {
  CProps params;
  params.set("func", func);
  params.set("action", action);
  params.set("pipe", path);
  return params;
}

[[noreturn]] void failSys(int code, const char* func, const char* action, const String& path) {
  throwSysError(code, sysParams(func, action, path));
}

// Owns one descriptor.
class CFd {
 public:
  CFd() = default;
  explicit CFd(int fd) : m_fd(fd) {}
  ~CFd() { reset(); }
  CFd(const CFd&) = delete;
  CFd& operator=(const CFd&) = delete;

  int get() const { return m_fd; }
  int release() { return std::exchange(m_fd, -1); }
  void reset(int fd = -1) {
    if (m_fd >= 0) {
      CPreserveLastSysError preserve;
      ::close(m_fd);
    }
    m_fd = fd;
  }

 private:
  int m_fd = -1;
};

// Milliseconds left until deadline for poll(); -1 stays "no limit".
int pollTimeout(bool unlimited, std::chrono::steady_clock::time_point deadline) {
  if (unlimited) return -1;
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
  if (left <= 0) return 0;
  return left > INT_MAX ? INT_MAX : static_cast<int>(left);
}

std::chrono::steady_clock::time_point deadlineAfter(int timeoutMs) {
  return std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs < 0 ? 0 : timeoutMs);
}

bool isPeerGone(int code) { return code == EPIPE || code == ECONNRESET || code == ENOTCONN; }

// sendfile has no MSG_NOSIGNAL: SIGPIPE is blocked on this thread around it,
// and one it raised is taken back before the mask is restored, so a peer that
// went away is an EPIPE error here as with send.
class CSigPipeBlock {
 public:
  CSigPipeBlock() {
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, &m_previous);
    m_wasBlocked = sigismember(&m_previous, SIGPIPE) == 1;
  }
  ~CSigPipeBlock() {
    if (m_wasBlocked) return;
    CPreserveLastSysError preserve;
    pthread_sigmask(SIG_SETMASK, &m_previous, nullptr);
  }
  CSigPipeBlock(const CSigPipeBlock&) = delete;
  CSigPipeBlock& operator=(const CSigPipeBlock&) = delete;

  // After an EPIPE: takes the pending SIGPIPE, unless it was blocked before
  // (then it belongs to whoever blocked it).
  void discardRaised() {
    if (m_wasBlocked) return;
    CPreserveLastSysError preserve;
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    const timespec none = {0, 0};
    while (sigtimedwait(&pipe, nullptr, &none) < 0 && errno == EINTR) {
    }
  }

 private:
  sigset_t m_previous;
  bool m_wasBlocked = false;
};

}  // namespace

// One connected socket, shared by a connection and its two streams; the
// descriptor is closed when the last of them is gone.
//
// Bulk transfers (the reply to a proxy read of a megabyte) shape two
// choices, both about sleeping less: on a machine with several CPUs each
// sleep of one end is a wake-up of another CPU, which on a virtual machine
// can take longer than copying the data.
//   - The send buffer asks for CUnixSocketConnection::kSendBufferBytes (the
//     system caps what it grants at net.core.wmem_max): a reply of a
//     megabyte is queued whole, rather than the sender sleeping each time the
//     reader has to make room.
//   - A Unix socket has one wait queue for both directions: a reader blocked
//     in recv is woken whenever the other end frees a buffer of what this
//     end sent, finds nothing and sleeps again - a dozen times while a
//     megabyte is taken. So after a bulk send (kBulkSendBytes or more) the
//     next blocking receive first waits in poll for POLLIN, which wakes for
//     data or the end only; after small sends, the common request and
//     response, it costs nothing.
class CUnixSocket : public CBase {
 public:
  explicit CUnixSocket(int fd) : m_fd(fd) {
    // Best effort: the default size works too, only slower.
    const int size = CUnixSocketConnection::kSendBufferBytes;
    ::setsockopt(m_fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
  }
  ~CUnixSocket() override { ::close(m_fd); }

  int fd() const { return m_fd; }
  // ENOTCONN (the peer is gone already) and repeated calls are harmless.
  void shutdown(int how) { ::shutdown(m_fd, how); }

  // Records a send of bytes (see above).
  void noteSent(int64 bytes) {
    if (bytes >= CUnixSocketConnection::kBulkSendBytes) {
      m_bulkSent.store(true, std::memory_order_relaxed);
    }
  }
  // Whether a bulk send happened since the last call.
  bool takeBulkSent() {
    return m_bulkSent.load(std::memory_order_relaxed) &&
           m_bulkSent.exchange(false, std::memory_order_relaxed);
  }

 private:
  const int m_fd;
  // Written by the out-stream, taken by the in-stream: atomic, since the
  // two may be used on two threads.
  std::atomic<bool> m_bulkSent{false};
};

class CUnixSocketInStream : public CConnectionInStream {
 public:
  CUnixSocketInStream(const P<CUnixSocket>& socket, const String& path)
      : m_socket(socket), m_path(path) {}

 protected:
  int receive(void* buffer, int bytes, bool wait) override {
    if (wait && m_socket->takeBulkSent()) waitForData();
    for (;;) {
      const ssize_t got = ::recv(m_socket->fd(), buffer, static_cast<size_t>(bytes),
                                 wait ? 0 : MSG_DONTWAIT);
      if (got >= 0) return static_cast<int>(got);
      const int code = errno;
      if (code == EINTR) continue;
      if (!wait && (code == EAGAIN || code == EWOULDBLOCK)) return 0;
      // The peer closed with our data unread: the connection has ended.
      if (code == ECONNRESET) return 0;
      throwReadError(code, "recv");
    }
  }

  Readiness pollReadable(int timeoutMs) const override {
    const bool unlimited = timeoutMs < 0;
    const auto deadline = deadlineAfter(timeoutMs);
    for (;;) {
      pollfd entry{m_socket->fd(), POLLIN, 0};
      const int ready = ::poll(&entry, 1, pollTimeout(unlimited, deadline));
      if (ready < 0) {
        if (errno == EINTR) continue;
        throwReadError(errno, "poll");
      }
      if (ready == 0) return NotReady;
      // Data, the end or an error: a peek tells which, without consuming.
      char probe;
      const ssize_t got = ::recv(m_socket->fd(), &probe, 1, MSG_PEEK | MSG_DONTWAIT);
      if (got > 0) return DataReady;
      if (got == 0) return Ended;
      const int code = errno;
      if (code == ECONNRESET) return Ended;
      if (code != EINTR && code != EAGAIN && code != EWOULDBLOCK) throwReadError(code, "recv");
      if (pollTimeout(unlimited, deadline) == 0) return NotReady;
    }
  }

  void closeTransport() override { m_socket->shutdown(SHUT_RD); }

 private:
  // Waits until data, the end or an error is there (see CUnixSocket).
  void waitForData() const {
    pollfd entry{m_socket->fd(), POLLIN, 0};
    while (::poll(&entry, 1, -1) < 0) {
      if (errno != EINTR) throwReadError(errno, "poll");
    }
  }

  [[noreturn]] void throwReadError(int code, const char* func) const {
    CError cause(getSysErrorMessage(code), CError::sysErrorDomain(), code,
                 sysParams(func, "CUnixSocketConnection::read", m_path));
    CProps params;
    params.set("pipe", m_path);
    throw CIOError(CIOError::ReadFailed, String(), params, &cause);
  }

  P<CUnixSocket> m_socket;
  String m_path;
};

class CUnixSocketOutStream : public CConnectionOutStream {
 public:
  CUnixSocketOutStream(const P<CUnixSocket>& socket, const String& path)
      : m_socket(socket), m_path(path) {}

 protected:
  void send(const void* buffer, int bytes) override {
    m_socket->noteSent(bytes);
    const char* data = static_cast<const char*>(buffer);
    size_t left = static_cast<size_t>(bytes);
    while (left > 0) {
      const ssize_t put = ::send(m_socket->fd(), data, left, MSG_NOSIGNAL);
      if (put < 0) {
        const int code = errno;
        if (code == EINTR) continue;
        throwWriteError(code, "send");
      }
      data += put;
      left -= static_cast<size_t>(put);
    }
  }

  void sendGather(const void* first, int firstBytes, const void* second,
                  int secondBytes) override {
    m_socket->noteSent(static_cast<int64>(firstBytes) + secondBytes);
    iovec parts[2] = {{const_cast<void*>(first), static_cast<size_t>(firstBytes)},
                      {const_cast<void*>(second), static_cast<size_t>(secondBytes)}};
    iovec* next = parts;
    int count = 2;
    while (count > 0) {
      msghdr message = {};
      message.msg_iov = next;
      message.msg_iovlen = static_cast<size_t>(count);
      ssize_t put = ::sendmsg(m_socket->fd(), &message, MSG_NOSIGNAL);
      if (put < 0) {
        const int code = errno;
        if (code == EINTR) continue;
        throwWriteError(code, "sendmsg");
      }
      // Skip what went out; a part sent partly continues where it stopped.
      while (count > 0 && static_cast<size_t>(put) >= next->iov_len) {
        put -= static_cast<ssize_t>(next->iov_len);
        ++next;
        --count;
      }
      if (count > 0) {
        next->iov_base = static_cast<char*>(next->iov_base) + put;
        next->iov_len -= static_cast<size_t>(put);
      }
    }
  }

  bool canSendFromFile() const override { return true; }

  int64 sendFile(int64 fileHandle, int64 offset, int64 count) override {
    m_socket->noteSent(count);
    off_t position = static_cast<off_t>(offset);
    int64 sent = 0;
    CSigPipeBlock block;
    while (sent < count) {
      // sendfile moves at most about 2 GiB per call.
      const int64 chunk = std::min<int64>(count - sent, int64{1} << 30);
      const ssize_t put = ::sendfile(m_socket->fd(), static_cast<int>(fileHandle), &position,
                                     static_cast<size_t>(chunk));
      if (put < 0) {
        const int code = errno;
        if (code == EINTR) continue;
        if (code == EPIPE) block.discardRaised();
        throwWriteError(code, "sendfile");
      }
      if (put == 0) break;  // the file ended
      sent += put;
    }
    return sent;
  }

  void closeTransport() override { m_socket->shutdown(SHUT_WR); }

 private:
  [[noreturn]] void throwWriteError(int code, const char* func) const {
    CError cause(getSysErrorMessage(code), CError::sysErrorDomain(), code,
                 sysParams(func, "CUnixSocketConnection::write", m_path));
    CProps params;
    params.set("pipe", m_path);
    throw CIOError(CIOError::WriteFailed,
                   isPeerGone(code) ? String("The connection is closed") : String(), params,
                   &cause);
  }

  P<CUnixSocket> m_socket;
  String m_path;
};

namespace {

// The client's open steps over connect(). The socket is non-blocking while
// it connects, so that a server with a full backlog answers EAGAIN (busy)
// instead of blocking; the connected socket is made blocking again.
class CConnectSteps : public IPipeOpenSteps {
 public:
  CConnectSteps(const String& path, const char* action) : m_path(path), m_action(action) {
    m_length = fillAddress(path, toNative(path), m_address, action);
  }

  Outcome tryOpen(int64& sysError) override {
    CFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (fd.get() < 0) failSys(errno, "socket", m_action, m_path);
    int result = ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&m_address), m_length);
    // An interrupted connect of a Unix socket has completed or failed by the
    // time it returns; asking again tells which.
    while (result != 0 && errno == EINTR) {
      result = ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&m_address), m_length);
      if (result != 0 && errno == EISCONN) result = 0;
    }
    if (result != 0) {
      const int code = errno;
      if (code == ENOENT || code == ECONNREFUSED) return Outcome::NotFound;
      if (code == EAGAIN || code == EWOULDBLOCK) return Outcome::Busy;
      sysError = code;
      return Outcome::Failed;
    }
    const int flags = ::fcntl(fd.get(), F_GETFL);
    if (flags < 0 || ::fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK) != 0) {
      failSys(errno, "fcntl", m_action, m_path);
    }
    m_fd.reset(fd.release());
    return Outcome::Opened;
  }

  // A Unix socket offers nothing to wait on: the loop sleeps instead.
  bool waitForServer(int) override { return false; }

  void sleep(int ms) override {
    timespec remaining{ms / 1000, static_cast<long>(ms % 1000) * 1000000L};
    while (::nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
    }
  }

  CTime now() override { return CTime::now(); }
  String getOpenFunctionName() const override { return "connect"; }

  int takeFd() { return m_fd.release(); }

 private:
  String m_path;
  const char* m_action;
  sockaddr_un m_address;
  socklen_t m_length;
  CFd m_fd;
};

}  // namespace

P<CUnixSocketConnection> CUnixSocketConnection::connectIfServerAvailable(const String& path,
                                                                         int timeoutMs) {
  // The same action text as the constructor, as on Windows.
  CConnectSteps steps(path, "CUnixSocketConnection constructor");
  if (!doOpenPipe(steps, path, false, timeoutMs, timeoutMs, "CUnixSocketConnection constructor")) {
    return nullptr;
  }
  return createObject<CUnixSocketConnection>(createObject<CUnixSocket>(steps.takeFd()), path,
                                             false);
}

CUnixSocketConnection::CUnixSocketConnection(const String& path, int notFoundTimeoutMs,
                                             int busyTimeoutMs)
    : m_path(path) {
  CConnectSteps steps(path, "CUnixSocketConnection constructor");
  doOpenPipe(steps, path, true, notFoundTimeoutMs, busyTimeoutMs,
             "CUnixSocketConnection constructor");
  init(createObject<CUnixSocket>(steps.takeFd()));
}

CUnixSocketConnection::CUnixSocketConnection(const P<CUnixSocket>& socket, const String& path,
                                             bool serverEnd)
    : m_path(path), m_serverEnd(serverEnd) {
  init(socket);
}

void CUnixSocketConnection::init(const P<CUnixSocket>& socket) {
  m_socket = socket;
  m_in = createObject<CUnixSocketInStream>(socket, m_path);
  m_out = createObject<CUnixSocketOutStream>(socket, m_path);
}

CUnixSocketConnection::~CUnixSocketConnection() { close(); }

P<IInStream> CUnixSocketConnection::getInStream() { return m_in; }

P<IOutStream> CUnixSocketConnection::getOutStream() { return m_out; }

void CUnixSocketConnection::close() {
  // Only the socket is touched, never the streams' own state, so that this
  // is safe while another thread reads or writes.
  m_socket->shutdown(SHUT_RDWR);
}

int64 CUnixSocketConnection::getPeerProcessID() {
  ucred credentials{};
  socklen_t size = sizeof(credentials);
  if (::getsockopt(m_socket->fd(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
    CProps params;
    params.set("func", "getsockopt");
    params.set("action", "CUnixSocketConnection::getPeerProcessID");
    params.setInt64("handle", m_socket->fd());
    throwSysError(errno, params);
  }
  return credentials.pid;
}

void CUnixSocketConnection::checkPeerUser(int64 peerUserID, int64 ownUserID, bool global,
                                          const String& path) {
  if (global || peerUserID == ownUserID) return;
  CProps params;
  params.set("pipe", path);
  params.setInt64("peerUserID", peerUserID);
  params.set("action", "CUnixSocketServer::tryAcceptConnection");
  throw CError("Refused an IPC connection from another user", CError::errnoErrorDomain(), EACCES,
               params);
}

struct CUnixSocketServer::CState {
  std::string native;
  CFd listenFd;
  // Readable while an abort is waiting to be noticed by tryAcceptConnection.
  CFd wakeFd;
  bool haveFile = false;
  dev_t device = 0;
  ino_t inode = 0;

  CMutex mutex;
  bool pending = false;
  bool aborted = false;

  void drainWake() {
    uint64_t value;
    while (::read(wakeFd.get(), &value, sizeof(value)) > 0 || errno == EINTR) {
    }
  }
};

namespace {

// Whether a server listens on the socket file at address (connect succeeds,
// or its backlog is full). False for a stale file (ECONNREFUSED) or none.
bool probeLiveServer(const sockaddr_un& address, socklen_t length, const String& path) {
  const char* action = "CUnixSocketServer constructor";
  CFd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (probe.get() < 0) failSys(errno, "socket", action, path);
  if (retryEINTR([&] {
        return ::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), length);
      }) == 0) {
    return true;
  }
  const int code = errno;
  if (code == EAGAIN || code == EWOULDBLOCK || code == EISCONN) return true;
  if (code == ECONNREFUSED || code == ENOENT) return false;
  failSys(code, "connect", action, path);
}

}  // namespace

CUnixSocketServer::CUnixSocketServer(const String& path, bool global)
    : m_path(path), m_global(global), m_state(new CState) {
  const char* action = "CUnixSocketServer constructor";
  try {
    CState& state = *m_state;
    state.native = toNative(path);
    sockaddr_un address;
    const socklen_t length = fillAddress(path, state.native, address, action);

    // Probe, removal of a stale file, bind and listen under one lock, so that
    // a server starting at the same moment sees either nothing or our live
    // socket, never a half-made one it would take for stale. The lock is the
    // socket folder itself (flock works on a folder opened for reading), so
    // no lock files are left behind.
    const size_t slash = state.native.rfind('/');
    const std::string folder = slash == 0 ? std::string("/") : state.native.substr(0, slash);
    CFd lock(retryEINTR([&] {
      return ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
    }));
    if (lock.get() < 0) failSys(errno, "open", action, path);
    if (retryEINTR([&] { return ::flock(lock.get(), LOCK_EX); }) != 0) {
      failSys(errno, "flock", action, path);
    }

    state.listenFd.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (state.listenFd.get() < 0) failSys(errno, "socket", action, path);
    for (int attempt = 0;; ++attempt) {
      if (::bind(state.listenFd.get(), reinterpret_cast<const sockaddr*>(&address), length) == 0) {
        break;
      }
      const int code = errno;
      if (code != EADDRINUSE || attempt >= 2) failSys(code, "bind", action, path);
      struct stat st;
      if (::lstat(state.native.c_str(), &st) != 0) {
        if (errno == ENOENT) continue;
        failSys(errno, "lstat", action, path);
      }
      if (!S_ISSOCK(st.st_mode)) {
        CProps params = sysParams("bind", action, path);
        throw CError("A file that is not a socket is in the way of the IPC server",
                     CError::errnoErrorDomain(), EEXIST, params);
      }
      if (probeLiveServer(address, length, path)) {
        CProps params = sysParams("bind", action, path);
        throw CError("The IPC address is in use by a running server", CError::errnoErrorDomain(),
                     EADDRINUSE, params);
      }
      if (::unlink(state.native.c_str()) != 0 && errno != ENOENT) {
        failSys(errno, "unlink", action, path);
      }
    }
    struct stat st;
    if (::lstat(state.native.c_str(), &st) != 0) failSys(errno, "lstat", action, path);
    state.haveFile = true;
    state.device = st.st_dev;
    state.inode = st.st_ino;
    if (::chmod(state.native.c_str(), global ? 0666 : 0600) != 0) {
      failSys(errno, "chmod", action, path);
    }
    if (::listen(state.listenFd.get(), SOMAXCONN) != 0) failSys(errno, "listen", action, path);

    state.wakeFd.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (state.wakeFd.get() < 0) failSys(errno, "eventfd", action, path);
  } catch (...) {
    if (m_state->haveFile) ::unlink(m_state->native.c_str());
    delete m_state;
    throw;
  }
}

CUnixSocketServer::~CUnixSocketServer() {
  // Remove the file first and stop listening after: while we listen, no other
  // server takes our file for stale, so what we remove is ours.
  if (m_state->haveFile) {
    struct stat st;
    if (::lstat(m_state->native.c_str(), &st) == 0 && st.st_dev == m_state->device &&
        st.st_ino == m_state->inode) {
      ::unlink(m_state->native.c_str());
    }
  }
  delete m_state;
}

void CUnixSocketServer::beginAcceptConnection() {
  CMutexLock lock(m_state->mutex);
  m_state->drainWake();
  m_state->aborted = false;
  m_state->pending = true;
}

P<CUnixSocketConnection> CUnixSocketServer::tryAcceptConnection(int timeoutMs) {
  const char* action = "CUnixSocketServer::tryAcceptConnection";
  CState& state = *m_state;
  {
    CMutexLock lock(state.mutex);
    if (!state.pending) {
      if (state.aborted) return nullptr;
      CProps params;
      params.set("pipe", m_path);
      throw CBadStateError("tryAcceptConnection without beginAcceptConnection", params);
    }
  }
  const bool unlimited = timeoutMs < 0;
  const auto deadline = deadlineAfter(timeoutMs);
  for (;;) {
    pollfd entries[2] = {{state.listenFd.get(), POLLIN, 0}, {state.wakeFd.get(), POLLIN, 0}};
    const int ready = ::poll(entries, 2, pollTimeout(unlimited, deadline));
    if (ready < 0) {
      if (errno == EINTR) continue;
      failSys(errno, "poll", action, m_path);
    }
    if (ready == 0) return nullptr;
    if (entries[1].revents != 0) {
      CMutexLock lock(state.mutex);
      state.drainWake();
      if (state.aborted) return nullptr;
    }
    if ((entries[0].revents & POLLIN) != 0) {
      CFd client(::accept4(state.listenFd.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (client.get() < 0) {
        const int code = errno;
        // The client gave up before we took it, or a signal came: wait on.
        if (code != EINTR && code != EAGAIN && code != EWOULDBLOCK && code != ECONNABORTED &&
            code != EPROTO) {
          failSys(code, "accept4", action, m_path);
        }
      } else {
        ucred credentials{};
        socklen_t size = sizeof(credentials);
        if (::getsockopt(client.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
          failSys(errno, "getsockopt", action, m_path);
        }
        CUnixSocketConnection::checkPeerUser(credentials.uid, geteuid(), m_global, m_path);
        CMutexLock lock(state.mutex);
        if (state.aborted) return nullptr;
        state.pending = false;
        return createObject<CUnixSocketConnection>(createObject<CUnixSocket>(client.release()),
                                                   m_path, true);
      }
    }
    if (pollTimeout(unlimited, deadline) == 0) return nullptr;
  }
}

void CUnixSocketServer::abortAcceptConnection() {
  CMutexLock lock(m_state->mutex);
  m_state->aborted = true;
  m_state->pending = false;
  const uint64_t one = 1;
  if (retryEINTR([&] { return ::write(m_state->wakeFd.get(), &one, sizeof(one)); }) < 0 &&
      errno != EAGAIN) {
    failSys(errno, "write", "CUnixSocketServer::abortAcceptConnection", m_path);
  }
}

}  // namespace zel
