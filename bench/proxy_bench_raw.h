// What proxy_bench and its server process share: the raw request format,
// page-aligned buffers, whole-buffer socket I/O, the library's socket set-up
// and core pinning.
//
// A raw request is 12 bytes, shaped like a small proxy request frame: the
// payload length (8), an operation and a reply size, each a native int32
// (both ends are the same build on the same machine). The server answers
// with exactly that many bytes. Linux only, like the rest of the benchmarks.
#pragma once

#include <errno.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "zel/ipc/unix_socket.h"

namespace zel::bench {

// The application ID of the benchmark's IPC addresses.
constexpr const char* kBenchAppID = "zel-bench";

constexpr int32_t kRawRequestBytes = 12;
// The reply comes from a buffer in memory: the cost of the socket alone.
constexpr int32_t kRawOpReply = 1;
// The reply is first read from the server's file with pread (sequentially,
// starting over at its end): what a perfect file server would cost.
constexpr int32_t kRawOpReplyFromFile = 2;
// The reply goes from the server's file to the socket with sendfile, without
// passing through the server's memory.
constexpr int32_t kRawOpSendFile = 3;

constexpr size_t kPageSize = 4096;

struct CRawRequest {
  int32_t payloadLength = kRawRequestBytes - 4;
  int32_t op = 0;
  int32_t replyBytes = 0;
};
static_assert(sizeof(CRawRequest) == kRawRequestBytes);

// A buffer whose start lies on a page boundary. Bulk copies between buffers
// that are not equally aligned can run an order of magnitude slower (4 KiB
// aliasing in glibc's memcpy), so every bulk buffer on both sides is one of
// these.
class CAlignedBuffer {
 public:
  explicit CAlignedBuffer(size_t bytes)
      : m_bytes(bytes), m_data(static_cast<char*>(std::aligned_alloc(kPageSize, roundUp(bytes)))) {
    if (!m_data) std::abort();
  }
  char* data() { return m_data.get(); }
  size_t size() const { return m_bytes; }

 private:
  struct CFree {
    void operator()(char* p) const { std::free(p); }
  };
  static size_t roundUp(size_t bytes) { return (bytes + kPageSize - 1) / kPageSize * kPageSize; }

  size_t m_bytes;
  std::unique_ptr<char, CFree> m_data;
};

// Reads exactly bytes bytes; false at the end of the stream or on an error.
inline bool readFully(int fd, void* buffer, size_t bytes) {
  char* p = static_cast<char*>(buffer);
  while (bytes > 0) {
    ssize_t got = ::read(fd, p, bytes);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    p += got;
    bytes -= static_cast<size_t>(got);
  }
  return true;
}

inline bool writeFully(int fd, const void* buffer, size_t bytes) {
  const char* p = static_cast<const char*>(buffer);
  while (bytes > 0) {
    ssize_t put = ::write(fd, p, bytes);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    p += put;
    bytes -= static_cast<size_t>(put);
  }
  return true;
}

// Sets up one end of a raw socket as the library sets up each end of its
// Unix socket connections: the send buffer it asks for.
inline void setUpLikeConnection(int fd) {
  const int size = CUnixSocketConnection::kSendBufferBytes;
  ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
}

// Waits until fd has data (or its end), as the library's connections wait
// for the next read after a bulk send: poll wakes for data only, where a
// blocking read also wakes each time the peer frees a buffer of ours.
inline void waitForData(int fd) {
  pollfd entry{fd, POLLIN, 0};
  while (::poll(&entry, 1, -1) < 0 && errno == EINTR) {
  }
}

// Binds the calling thread (for a single-threaded process: the process, and
// every child it starts afterwards) to one CPU.
inline bool pinToCpu(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  return ::sched_setaffinity(0, sizeof(set), &set) == 0;
}

}  // namespace zel::bench
