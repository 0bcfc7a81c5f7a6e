// The cross-process file system against its limits and its peer, in one run
// and in two placements of the two processes:
//   same_core:  client and server bound to the same CPU (every exchange is a
//               context switch on that CPU);
//   cross_core: bound to two different CPUs (every exchange wakes the other
//               CPU; on small virtual machines that costs more than a switch).
//
// Figures, per placement, registered in the order in which
// scripts/bench_ratios.py pairs them (each with the nearest BM_Raw baseline
// and BM_Peer figure before it):
//   BM_RawRoundTrip12B     a 12-byte request and a 12-byte reply over a Unix
//                          socket between two processes: the latency limit;
//   BM_PeerSftpDf          OpenSSH's sftp against sftp-server (sftp -D): one
//                          `df`, a single round trip;
//   BM_ProxyFileExists     fileExists through the proxy;
//   BM_RawLoop1MiB         1 GiB as 1024 requests with 1 MiB replies over a
//                          Unix socket: the throughput limit;
//   BM_PreadLoop1MiB       the same, the server reading each reply from the
//                          cached file first (pread): the limit of a file
//                          server that copies through its own memory;
//   BM_SendfileLoop1MiB    the same with sendfile from the file to the
//                          socket: the limit without that copy;
//   BM_PeerSftpGet1GiBR1   `get` of the 1 GiB file to /dev/null, one request
//                          in flight (-R 1);
//   BM_PeerSftpGet1GiB     the same with sftp's default settings;
//   BM_ProxyRead1GiB       the 1 GiB file through a proxy stream, 1 MiB reads.
// Each proxy figure carries its targets in its label ("time <= 1.5x raw"),
// which bench_ratios.py checks.
//
// Processes: the other end of every raw and proxy figure is
// proxy_bench_server (beside this executable), started per measurement and
// ended by closing the connection. The raw figures use a socket pair set up
// and waited on as the library's Unix socket connections are (the send
// buffer they ask for, a poll for the next request after a bulk reply;
// see unix_socket.h), so that they are the limit of the proxy's own
// transport. sftp runs as
// a whole session per measurement; the time of a session with a single df
// (start-up, connection set-up, one round trip) is subtracted, so the df
// figure is the time of one more df and the get figures are the transfer.
//
// Placement: the benchmark thread binds itself to the first allowed CPU for
// the duration of each benchmark; every process it starts inherits that
// binding, and the servers rebind themselves to the server's CPU
// (proxy_bench_server takes it as an argument; sftp-server is started through
// `taskset -c`, sftp's -D accepting a command line).
//
// The 1 GiB file is written once per run into a scratch folder in the
// system's temporary folder and read once, so that every figure reads it from
// the page cache; the folder is removed at exit, and folders left by runs
// that were killed are removed at the next start. All bulk buffers are
// page-aligned (see CAlignedBuffer).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "proxy_bench_raw.h"
#include "zel/core/error.h"
#include "zel/fs/proxy/proxy_file_system.h"
#include "zel/ipc/ipc_address.h"
#include "zel/ipc/pipe.h"

extern char** environ;

namespace {

using zel::bench::CAlignedBuffer;
using zel::bench::CRawRequest;

constexpr int64_t kBigFileSize = int64_t{1} << 30;
constexpr int32_t kBlockSize = 1 << 20;
constexpr int kBlocks = static_cast<int>(kBigFileSize / kBlockSize);
// df commands per timed sftp session; a session with one df is subtracted.
constexpr int kDfCount = 5000;
constexpr const char* kSftp = "/usr/bin/sftp";
constexpr const char* kSftpServer = "/usr/lib/openssh/sftp-server";
constexpr const char* kTaskset = "/usr/bin/taskset";
constexpr const char* kScratchPrefix = "zel-proxy-bench-";

struct CPlacement {
  const char* name;
  bool sameCore;
};
constexpr CPlacement kPlacements[] = {{"same_core", true}, {"cross_core", false}};

// The first two CPUs this process may run on, taken before any binding.
class CCpus {
 public:
  static const CCpus& get() {
    static CCpus cpus;
    return cpus;
  }
  bool canPlace(const CPlacement& placement) const {
    return m_client >= 0 && (placement.sameCore || m_other >= 0);
  }
  int client() const { return m_client; }
  int server(const CPlacement& placement) const { return placement.sameCore ? m_client : m_other; }

 private:
  CCpus() {
    cpu_set_t set;
    if (::sched_getaffinity(0, sizeof(set), &set) != 0) return;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
      if (!CPU_ISSET(cpu, &set)) continue;
      if (m_client < 0) {
        m_client = cpu;
      } else {
        m_other = cpu;
        break;
      }
    }
  }
  int m_client = -1;
  int m_other = -1;
};

// Binds the benchmark thread to the client's CPU for one benchmark run and
// restores its former binding afterwards.
class CClientPinning {
 public:
  CClientPinning() {
    m_saved = ::sched_getaffinity(0, sizeof(m_mask), &m_mask) == 0;
    m_pinned = zel::bench::pinToCpu(CCpus::get().client());
  }
  ~CClientPinning() {
    if (m_saved) ::sched_setaffinity(0, sizeof(m_mask), &m_mask);
  }
  bool pinned() const { return m_pinned; }

 private:
  cpu_set_t m_mask;
  bool m_saved = false;
  bool m_pinned = false;
};

// Whether the benchmark can run at all; skips it with the reason if not.
bool checkPlacement(benchmark::State& state, const CPlacement& placement,
                    const CClientPinning& pinning) {
  if (!CCpus::get().canPlace(placement)) {
    state.SkipWithError("needs two CPUs");
    return false;
  }
  if (!pinning.pinned()) {
    state.SkipWithError("sched_setaffinity failed");
    return false;
  }
  return true;
}

// The scratch folder with a small file, the big file and the sftp batch
// files, made on first use and removed at exit.
class CScratch {
 public:
  static CScratch& get() {
    static CScratch scratch;
    return scratch;
  }
  ~CScratch() {
    std::error_code ignored;
    std::filesystem::remove_all(m_folder, ignored);
  }

  const std::string& folder() const { return m_folder; }
  const std::string& smallFile() const { return m_small; }
  const std::string& bigFile() {
    if (!m_bigWritten) writeBigFile();
    return m_big;
  }
  // A batch file for sftp with the given commands, made once per name.
  std::string batch(const std::string& name, const std::string& command, int count) {
    std::string path = m_folder + "/" + name + ".batch";
    if (!std::filesystem::exists(path)) {
      std::ofstream out(path);
      for (int i = 0; i < count; ++i) out << command << '\n';
      if (!out) std::abort();
    }
    return path;
  }

 private:
  CScratch() {
    removeStaleFolders();
    std::string pattern = (std::filesystem::temp_directory_path() /
                           (kScratchPrefix + std::to_string(::getpid()) + "-XXXXXX"))
                              .string();
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    m_folder = pattern;
    m_small = m_folder + "/small.txt";
    m_big = m_folder + "/big.bin";
    int fd = ::open(m_small.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || ::write(fd, "small", 5) != 5) std::abort();
    ::close(fd);
  }

  // Folders of runs whose process no longer exists (killed before their
  // cleanup ran); each may hold a 1 GiB file.
  static void removeStaleFolders() {
    std::error_code error;
    for (const auto& entry :
         std::filesystem::directory_iterator(std::filesystem::temp_directory_path(), error)) {
      std::string name = entry.path().filename().string();
      if (name.rfind(kScratchPrefix, 0) != 0) continue;
      long pid = std::strtol(name.c_str() + std::strlen(kScratchPrefix), nullptr, 10);
      if (pid <= 0 || (::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH)) {
        std::error_code ignored;
        std::filesystem::remove_all(entry.path(), ignored);
      }
    }
  }

  // Writes the file, then reads it once so that it is surely in the cache.
  void writeBigFile() {
    CAlignedBuffer block(kBlockSize);
    std::memset(block.data(), 'z', block.size());
    int fd = ::open(m_big.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) std::abort();
    for (int i = 0; i < kBlocks; ++i) {
      if (!zel::bench::writeFully(fd, block.data(), block.size())) std::abort();
    }
    for (int i = 0; i < kBlocks; ++i) {
      if (::pread(fd, block.data(), block.size(), int64_t{i} * kBlockSize) != kBlockSize) {
        std::abort();
      }
    }
    ::close(fd);
    m_bigWritten = true;
  }

  std::string m_folder;
  std::string m_small;
  std::string m_big;
  bool m_bigWritten = false;
};

// A child process started with posix_spawn; the destructor waits for it to
// end (which its owner causes, for example by closing its connection) and
// kills it when it does not end within 10 s.
class CChild {
 public:
  CChild() = default;
  CChild(const CChild&) = delete;
  CChild& operator=(const CChild&) = delete;
  ~CChild() { wait(); }

  bool start(const std::vector<std::string>& args, posix_spawn_file_actions_t* actions) {
    std::vector<char*> argv;
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    return ::posix_spawn(&m_pid, argv[0], actions, nullptr, argv.data(), environ) == 0;
  }
  // The exit status (as waitpid reports it), or -1.
  int wait() {
    if (m_pid <= 0) return m_status;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
      pid_t done = ::waitpid(m_pid, &m_status, WNOHANG);
      if (done == m_pid || (done < 0 && errno != EINTR)) break;
      if (std::chrono::steady_clock::now() > deadline) {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, &m_status, 0);
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    m_pid = -1;
    return m_status;
  }

 private:
  pid_t m_pid = -1;
  int m_status = -1;
};

std::string serverExecutable() {
  return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "proxy_bench_server")
      .string();
}

// A proxy_bench_server in raw mode on one end of a socket pair.
class CRawServer {
 public:
  CRawServer(int cpu, const std::string& file) {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return;
    m_fd = fds[0];
    zel::bench::setUpLikeConnection(m_fd);
    // The child's end becomes descriptor 3 of the server, without
    // close-on-exec; it is moved above 3 first, since dup2 onto itself would
    // keep the flag.
    int childEnd = ::fcntl(fds[1], F_DUPFD_CLOEXEC, 10);
    ::close(fds[1]);
    if (childEnd < 0) return;
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, childEnd, 3);
    m_started =
        m_child.start({serverExecutable(), std::to_string(cpu), "raw", "3", file}, &actions);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(childEnd);
  }
  ~CRawServer() {
    if (m_fd >= 0) ::close(m_fd);
  }
  bool started() const { return m_fd >= 0 && m_started; }

  bool exchange(int32_t op, void* reply, int32_t replyBytes) {
    CRawRequest request;
    request.op = op;
    request.replyBytes = replyBytes;
    return zel::bench::writeFully(m_fd, &request, sizeof(request)) &&
           zel::bench::readFully(m_fd, reply, static_cast<size_t>(replyBytes));
  }

 private:
  int m_fd = -1;
  bool m_started = false;
  CChild m_child;  // destroyed after the socket is closed: waits for the server to end
};

zel::CURI toURI(const std::string& path) {
  return zel::CURI::fromNativePath(zel::CNativePath(zel::String::fromUTF8(path.c_str())));
}

// A proxy_bench_server in proxy mode sharing the scratch folder, and a
// CProxyFileSystem connected to it. Each server gets an address of its own,
// so a server still ending cannot be confused with the next one; the lock
// file the socket server keeps beside its socket is removed once the server
// has ended.
class CProxyServer {
 public:
  explicit CProxyServer(int cpu) {
    static int servers = 0;
    std::string name = "proxy-" + std::to_string(::getpid()) + "-" + std::to_string(++servers);
    if (!m_child.start(
            {serverExecutable(), std::to_string(cpu), "proxy", name, CScratch::get().folder()},
            nullptr)) {
      return;
    }
    zel::CIPCAddress address(zel::bench::kBenchAppID, zel::String::fromUTF8(name.c_str()), false);
    zel::P<zel::IConnection> connection = zel::connectToPipeServer(address, 10000, 10000);
    m_fileSystem = zel::createObject<zel::CProxyFileSystem>(connection.get());
  }
  ~CProxyServer() {
    // Ends the server: serve() returns when the connection closes.
    try {
      if (m_fileSystem) m_fileSystem->close();
    } catch (const std::exception&) {
      // The server is killed by m_child.wait() in the worst case.
    }
    m_child.wait();
  }
  zel::CProxyFileSystem* fileSystem() const { return m_fileSystem.get(); }

 private:
  CChild m_child;
  zel::P<zel::CProxyFileSystem> m_fileSystem;
};

// Skips the benchmark with the error's text.
void skipWithError(benchmark::State& state, const std::exception& e) {
  state.SkipWithError((std::string("proxy: ") + e.what()).c_str());
}

void BM_RawRoundTrip12B(benchmark::State& state, CPlacement placement) {
  CClientPinning pinning;
  if (!checkPlacement(state, placement, pinning)) return;
  CRawServer server(CCpus::get().server(placement), CScratch::get().smallFile());
  if (!server.started()) return state.SkipWithError("cannot start proxy_bench_server");
  char reply[zel::bench::kRawRequestBytes];
  for (auto _ : state) {
    if (!server.exchange(zel::bench::kRawOpReply, reply, sizeof(reply))) {
      return state.SkipWithError("raw exchange failed");
    }
  }
}

void BM_ProxyFileExists(benchmark::State& state, CPlacement placement) {
  CClientPinning pinning;
  if (!checkPlacement(state, placement, pinning)) return;
  state.SetLabel("time <= 1.5x raw, time < 1x peer");
  try {
    CProxyServer server(CCpus::get().server(placement));
    if (!server.fileSystem()) return state.SkipWithError("cannot start proxy_bench_server");
    zel::CURI uri = toURI(CScratch::get().smallFile());
    if (!server.fileSystem()->fileExists(uri)) return state.SkipWithError("file not found");
    for (auto _ : state) benchmark::DoNotOptimize(server.fileSystem()->fileExists(uri));
  } catch (const std::exception& e) {
    skipWithError(state, e);
  }
}

void rawLoop(benchmark::State& state, CPlacement placement, int32_t op) {
  CClientPinning pinning;
  if (!checkPlacement(state, placement, pinning)) return;
  CRawServer server(CCpus::get().server(placement), CScratch::get().bigFile());
  if (!server.started()) return state.SkipWithError("cannot start proxy_bench_server");
  CAlignedBuffer buffer(kBlockSize);
  for (auto _ : state) {
    for (int i = 0; i < kBlocks; ++i) {
      if (!server.exchange(op, buffer.data(), kBlockSize)) {
        return state.SkipWithError("raw exchange failed");
      }
    }
  }
  state.SetBytesProcessed(state.iterations() * kBigFileSize);
}

void BM_RawLoop1MiB(benchmark::State& state, CPlacement placement) {
  rawLoop(state, placement, zel::bench::kRawOpReply);
}

void BM_SendfileLoop1MiB(benchmark::State& state, CPlacement placement) {
  rawLoop(state, placement, zel::bench::kRawOpSendFile);
}

void BM_PreadLoop1MiB(benchmark::State& state, CPlacement placement) {
  rawLoop(state, placement, zel::bench::kRawOpReplyFromFile);
}

void BM_ProxyRead1GiB(benchmark::State& state, CPlacement placement) {
  CClientPinning pinning;
  if (!checkPlacement(state, placement, pinning)) return;
  state.SetLabel("rate >= 0.7x raw, rate >= 1.5x peer");
  try {
    CProxyServer server(CCpus::get().server(placement));
    if (!server.fileSystem()) return state.SkipWithError("cannot start proxy_bench_server");
    zel::CURI uri = toURI(CScratch::get().bigFile());
    CAlignedBuffer buffer(kBlockSize);
    for (auto _ : state) {
      zel::P<zel::IIOStream> stream = server.fileSystem()->createStream(
          uri, zel::IIOStream::AccessRead, zel::TFlags<zel::IIOStream::Flags>());
      int64_t total = 0;
      for (;;) {
        int got = stream->readLax(buffer.data(), kBlockSize);
        if (got <= 0) break;
        total += got;
      }
      stream->close();
      if (total != kBigFileSize) return state.SkipWithError("short read");
    }
    state.SetBytesProcessed(state.iterations() * kBigFileSize);
  } catch (const std::exception& e) {
    skipWithError(state, e);
  }
}

// Runs one sftp session against a directly started sftp-server bound to
// serverCpu and returns its wall time in seconds, or a negative value when
// sftp failed. sftp inherits the client's binding.
double runSftp(int serverCpu, const std::string& batch, bool oneRequestInFlight) {
  std::vector<std::string> args = {
      kSftp, "-q", "-b",
      batch, "-D", std::string(kTaskset) + " -c " + std::to_string(serverCpu) + " " + kSftpServer};
  if (oneRequestInFlight) args.insert(args.begin() + 1, {"-R", "1"});
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  ::posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  auto start = std::chrono::steady_clock::now();
  CChild sftp;
  bool started = sftp.start(args, &actions);
  ::posix_spawn_file_actions_destroy(&actions);
  int status = started ? sftp.wait() : -1;
  auto end = std::chrono::steady_clock::now();
  if (status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return -1;
  return std::chrono::duration<double>(end - start).count();
}

bool checkSftp(benchmark::State& state) {
  for (const char* tool : {kSftp, kSftpServer, kTaskset}) {
    if (::access(tool, X_OK) != 0) {
      state.SkipWithError((std::string(tool) + " missing; run scripts/bootstrap").c_str());
      return false;
    }
  }
  return true;
}

// Manual time: the time of kDfCount + 1 df commands in one session minus a
// session with one, divided by kDfCount; each iteration reports the time of
// one df.
void BM_PeerSftpDf(benchmark::State& state, CPlacement placement) {
  CClientPinning pinning;
  if (!checkPlacement(state, placement, pinning) || !checkSftp(state)) return;
  CScratch& scratch = CScratch::get();
  std::string command = "df " + scratch.smallFile();
  std::string one = scratch.batch("df1", command, 1);
  std::string many = scratch.batch("dfN", command, kDfCount + 1);
  int serverCpu = CCpus::get().server(placement);
  for (auto _ : state) {
    double base = runSftp(serverCpu, one, false);
    double all = runSftp(serverCpu, many, false);
    if (base < 0 || all < 0) return state.SkipWithError("sftp failed");
    state.SetIterationTime((all - base) / kDfCount);
  }
}

// Manual time: the session minus a session with one df (its start-up).
void sftpGet(benchmark::State& state, CPlacement placement, bool oneRequestInFlight) {
  CClientPinning pinning;
  if (!checkPlacement(state, placement, pinning) || !checkSftp(state)) return;
  CScratch& scratch = CScratch::get();
  std::string one = scratch.batch("df1", "df " + scratch.smallFile(), 1);
  std::string get = scratch.batch("get", "get " + scratch.bigFile() + " /dev/null", 1);
  int serverCpu = CCpus::get().server(placement);
  for (auto _ : state) {
    double base = runSftp(serverCpu, one, false);
    double all = runSftp(serverCpu, get, oneRequestInFlight);
    if (base < 0 || all < 0) return state.SkipWithError("sftp failed");
    state.SetIterationTime(all - base);
  }
  state.SetBytesProcessed(state.iterations() * kBigFileSize);
}

void BM_PeerSftpGet1GiBR1(benchmark::State& state, CPlacement placement) {
  sftpGet(state, placement, true);
}

void BM_PeerSftpGet1GiB(benchmark::State& state, CPlacement placement) {
  sftpGet(state, placement, false);
}

// Registration in pairing order (see the top of the file), one placement
// after the other.
const bool registered = [] {
  for (const CPlacement& placement : kPlacements) {
    auto name = [&](const char* bench) { return std::string(bench) + "/" + placement.name; };
    benchmark::RegisterBenchmark(name("BM_RawRoundTrip12B").c_str(), BM_RawRoundTrip12B, placement)
        ->Unit(benchmark::kMicrosecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark(name("BM_PeerSftpDf").c_str(), BM_PeerSftpDf, placement)
        ->Unit(benchmark::kMicrosecond)
        ->UseManualTime()
        ->Iterations(1);
    benchmark::RegisterBenchmark(name("BM_ProxyFileExists").c_str(), BM_ProxyFileExists, placement)
        ->Unit(benchmark::kMicrosecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark(name("BM_RawLoop1MiB").c_str(), BM_RawLoop1MiB, placement)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(2);
    benchmark::RegisterBenchmark(name("BM_PreadLoop1MiB").c_str(), BM_PreadLoop1MiB, placement)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(2);
    benchmark::RegisterBenchmark(name("BM_SendfileLoop1MiB").c_str(), BM_SendfileLoop1MiB,
                                 placement)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(2);
    benchmark::RegisterBenchmark(name("BM_PeerSftpGet1GiBR1").c_str(), BM_PeerSftpGet1GiBR1,
                                 placement)
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime()
        ->Iterations(1);
    benchmark::RegisterBenchmark(name("BM_PeerSftpGet1GiB").c_str(), BM_PeerSftpGet1GiB, placement)
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime()
        ->Iterations(1);
    benchmark::RegisterBenchmark(name("BM_ProxyRead1GiB").c_str(), BM_ProxyRead1GiB, placement)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(2);
  }
  return true;
}();

}  // namespace
