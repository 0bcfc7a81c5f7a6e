// Fuzzes CProxyFileSystemServer::handleMessage: the request payloads a client
// (or anything that reaches the pipe) may send.
//
// Input: one request payload (Int32 funcID and arguments), handed to
// handleMessage as it is. An input that starts with "ZMRQ" is instead a
// sequence of payloads, each preceded by its length as a 2-byte little-endian
// number (a short last one takes what is left), handled in turn by one
// server, so that handles opened by one request reach the next.
//
// The server shares a temporary folder of the local file system (created
// once, emptied after every input) as "file:///share" (a rebasing share), so
// seeds can name fixed URIs. Each input gets a fresh server and file system;
// the background worker is stopped before the folder is emptied.
//
// Checked: nothing crashes or leaks; every response is a whole response -
// type 1, or type 0 followed by exactly one loadable stored error - and never
// larger than the frame limit; a request answered with an error leaves no
// more handles open than before it, and the open handles never exceed the
// server's limit (set low, so that sequences reach it). Files are limited to
// 32 MiB (RLIMIT_FSIZE) so that a request cannot make the harness fill the
// disk with one setLength and copyFile; requests beyond it just fail.
// Allocations stay bounded by the input and the limits of the protocol: run
// with -malloc_limit_mb to check.
#include <fcntl.h>
#include <ftw.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "zel/core/error.h"
#include "zel/fs/local_file_system.h"
#include "zel/fs/proxy/proxy_file_system_server.h"
#include "zel/ipc/in_process_connection.h"
#include "zel/log/xml_log.h"
#include "zel/stream/buffer_stream.h"
#include "zel/stream/stored_error.h"

namespace {

using zel::CDataInStream;
using zel::CProxyFileSystemMessage;
using zel::CProxyFileSystemServer;
using zel::createObject;
using zel::P;

constexpr int kMaxFrame = 4 * 1024 * 1024;
constexpr int kMaxHandles = 8;

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "proxy_server_fuzzer: %s\n", what);
  std::abort();
}

void check(bool condition, const char* what) {
  if (!condition) fail(what);
}

std::string g_root;

// Requests may take the permissions away (setUnixMode); give them back
// first, top down, so that every folder can be entered and emptied.
int reopenEntry(const char* path, const struct stat*, int type, struct FTW*) {
  if (type == FTW_D || type == FTW_DNR) ::chmod(path, 0700);
  return 0;
}

int removeEntry(const char* path, const struct stat*, int, struct FTW* ftw) {
  if (ftw->level > 0) ::remove(path);
  return 0;
}

void emptyRoot() {
  ::chmod(g_root.c_str(), 0700);
  ::nftw(g_root.c_str(), reopenEntry, 16, FTW_PHYS);
  ::nftw(g_root.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

void setUp() {
  char pattern[] = "/tmp/zel-proxy-fuzz-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) fail("cannot create the shared folder");
  g_root = pattern;
  std::atexit([] {
    emptyRoot();
    ::rmdir(g_root.c_str());
  });
  ::signal(SIGXFSZ, SIG_IGN);
  struct rlimit limit = {32u << 20, 32u << 20};
  ::setrlimit(RLIMIT_FSIZE, &limit);
  zel::CXMLLog::getGlobal()->setFileEnabled(false);
}

// Whether the response is an error response (checked to be a whole one).
bool checkResponse(CProxyFileSystemMessage& response) {
  check(response.getPayloadLength() <= kMaxFrame, "response above the frame limit");
  const auto bytes = response.getPayloadBytes();
  P<zel::CBufferStream> payload =
      createObject<zel::CBufferStream>(bytes.getData(), bytes.getSize(), true);
  P<CDataInStream> in = createObject<CDataInStream>(payload.get());
  const int type = in->readInt32();
  if (type == CProxyFileSystemServer::ResponseResult) return false;
  check(type == CProxyFileSystemServer::ResponseError, "unknown response type");
  try {
    zel::loadError(*in);
  } catch (...) {
    fail("error response does not hold a loadable error");
  }
  check(in->getPosition() == in->getLength(), "bytes after the stored error");
  return true;
}

void handle(CProxyFileSystemServer& server, const uint8_t* data, size_t size) {
  P<zel::CBufferStream> source = createObject<zel::CBufferStream>(data, size, true);
  P<CProxyFileSystemMessage> request =
      CProxyFileSystemMessage::readPayload(*source, static_cast<int>(size));
  const int handlesBefore = server.getOpenHandleCount();
  P<CProxyFileSystemMessage> response = server.handleMessage(*request);
  const bool failed = checkResponse(*response);
  check(!failed || server.getOpenHandleCount() <= handlesBefore,
        "a failed request left a handle registered");
  check(server.getOpenHandleCount() <= kMaxHandles, "more handles open than the limit");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool ready = (setUp(), true);
  (void)ready;

  P<zel::CFileSystem> fileSystem = createObject<zel::CFileSystem>();
  auto ends = zel::CInProcessConnection::createPair();
  {
    P<CProxyFileSystemServer> server = createObject<CProxyFileSystemServer>(ends.first.get());
    server->setMaxFrameLength(kMaxFrame);
    server->setMaxOpenHandles(kMaxHandles);
    const zel::CURI root = zel::CURI::fromNativePath(zel::CNativePath(zel::String(g_root.c_str())));
    server->addShare(zel::CURISelector(zel::CURI("file:///share")), fileSystem.get(), root);

    if (size >= 4 && std::memcmp(data, "ZMRQ", 4) == 0) {
      size_t pos = 4;
      while (pos < size) {
        size_t length = data[pos];
        if (pos + 1 < size) length |= static_cast<size_t>(data[pos + 1]) << 8;
        pos += 2;
        if (pos > size) break;
        if (length > size - pos) length = size - pos;
        handle(*server, data + pos, length);
        pos += length;
      }
    } else {
      handle(*server, data, size);
    }
  }
  fileSystem->dispose();
  emptyRoot();
  return 0;
}
