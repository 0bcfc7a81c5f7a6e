// The server process of proxy_bench. The benchmark starts one per
// measurement and ends it by closing the connection; it also dies with its
// parent (PR_SET_PDEATHSIG), so an interrupted run leaves nothing behind.
//
//   proxy_bench_server CPU raw FD [FILE]
//     Answers raw requests (proxy_bench_raw.h) on the connected socket FD,
//     set up and waited on as the library's Unix socket connections are;
//     FILE is what kRawOpReplyFromFile and kRawOpSendFile read.
//   proxy_bench_server CPU proxy NAME FOLDER
//     Listens at the per-user IPC address (kBenchAppID, NAME), accepts one
//     connection and serves FOLDER of the local file system over it with a
//     CProxyFileSystemServer (an identity share: the client names files by
//     their own file URIs) until the client closes the connection.
//
// CPU: the core the process binds itself to before it serves anything, so
// that the client decides the placement of both ends.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "proxy_bench_raw.h"
#include "zel/core/error.h"
#include "zel/init/zel_init.h"
#include "zel/fs/local_file_system.h"
#include "zel/fs/proxy/proxy_file_system_server.h"
#include "zel/ipc/ipc_address.h"
#include "zel/ipc/pipe.h"
#include "zel/log/xml_log.h"
#include "zel/fs/uri_selector.h"

namespace {

using zel::bench::CAlignedBuffer;
using zel::bench::CRawRequest;

// Serves until the client closes its end. Returns the exit code.
int serveRaw(int fd, const char* filePath) {
  int file = -1;
  int64_t fileSize = 0;
  int64_t offset = 0;
  if (filePath) {
    file = ::open(filePath, O_RDONLY | O_CLOEXEC);
    struct stat st;
    if (file < 0 || ::fstat(file, &st) != 0) {
      std::perror("proxy_bench_server: open");
      return 1;
    }
    fileSize = st.st_size;
  }
  CAlignedBuffer reply(size_t{1} << 24);
  std::memset(reply.data(), 'r', reply.size());
  zel::bench::setUpLikeConnection(fd);
  CRawRequest request;
  size_t lastReply = 0;
  for (;;) {
    if (lastReply >= static_cast<size_t>(zel::CUnixSocketConnection::kBulkSendBytes)) {
      zel::bench::waitForData(fd);
    }
    if (!zel::bench::readFully(fd, &request, sizeof(request))) break;
    if (request.replyBytes < 0 || static_cast<size_t>(request.replyBytes) > reply.size()) {
      std::fprintf(stderr, "proxy_bench_server: bad reply size %d\n", request.replyBytes);
      return 1;
    }
    size_t bytes = static_cast<size_t>(request.replyBytes);
    lastReply = bytes;
    if (request.op == zel::bench::kRawOpReplyFromFile) {
      if (file < 0 || static_cast<int64_t>(bytes) > fileSize) return 1;
      if (offset + static_cast<int64_t>(bytes) > fileSize) offset = 0;
      for (size_t done = 0; done < bytes;) {
        ssize_t got =
            ::pread(file, reply.data() + done, bytes - done, offset + static_cast<int64_t>(done));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return 1;
        done += static_cast<size_t>(got);
      }
      offset += static_cast<int64_t>(bytes);
    } else if (request.op == zel::bench::kRawOpSendFile) {
      if (file < 0 || static_cast<int64_t>(bytes) > fileSize) return 1;
      if (offset + static_cast<int64_t>(bytes) > fileSize) offset = 0;
      off_t position = offset;  // sendfile advances it
      for (size_t left = bytes; left > 0;) {
        ssize_t sent = ::sendfile(fd, file, &position, left);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) return 1;
        left -= static_cast<size_t>(sent);
      }
      offset += static_cast<int64_t>(bytes);
      continue;
    } else if (request.op != zel::bench::kRawOpReply) {
      std::fprintf(stderr, "proxy_bench_server: unknown operation %d\n", request.op);
      return 1;
    }
    if (!zel::bench::writeFully(fd, reply.data(), bytes)) return 1;
  }
  return 0;
}

int serveProxy(const char* name, const char* folder) {
  int result = 1;
  {
    zel::CZelInit init;
    // The client's log is the run's log; two processes must not share log.xml.
    zel::CXMLLog::getGlobal()->setFileEnabled(false);
    try {
      zel::P<zel::CPipeServer> listener = zel::createObject<zel::CPipeServer>(
          zel::CIPCAddress(zel::bench::kBenchAppID, zel::String::fromUTF8(name), false));
      listener->beginAcceptConnection();
      zel::P<zel::IConnection> connection = listener->tryAcceptConnection(30000);
      if (connection) {
        zel::P<zel::CFileSystem> local = zel::createObject<zel::CFileSystem>();
        zel::P<zel::CProxyFileSystemServer> server =
            zel::createObject<zel::CProxyFileSystemServer>(connection.get());
        zel::CURI root = zel::CURI::fromNativePath(zel::CNativePath(zel::String::fromUTF8(folder)));
        server->addShare(zel::CURISelector(root), local.get());
        server->serve();
        result = 0;
      } else {
        std::fprintf(stderr, "proxy_bench_server: no client connected\n");
      }
    } catch (const zel::CError& e) {
      std::fprintf(stderr, "proxy_bench_server: %s\n", e.what());
    }
  }
  zel::CZelInit::onApplicationExit();
  return result;
}

int usage() {
  std::fprintf(stderr,
               "usage: proxy_bench_server CPU raw FD [FILE]\n"
               "       proxy_bench_server CPU proxy NAME FOLDER\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return usage();
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() == 1) return 1;  // the parent is already gone
  if (!zel::bench::pinToCpu(std::atoi(argv[1]))) {
    std::perror("proxy_bench_server: sched_setaffinity");
    return 1;
  }
  std::string mode = argv[2];
  if (mode == "raw" && (argc == 4 || argc == 5)) {
    return serveRaw(std::atoi(argv[3]), argc == 5 ? argv[4] : nullptr);
  }
  if (mode == "proxy" && argc == 5) return serveProxy(argv[3], argv[4]);
  return usage();
}
