// The local file system against the system calls it wraps, in one run:
// existence and information queries against a bare stat(), and a 1 GiB
// sequential read through CFileStream against read() with the same buffer
// size. The big file is written once into a scratch folder and removed at
// exit; its reads mostly come from the page cache, which is what isolates the
// wrapper's own cost.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "zel/fs/local_file_system.h"

namespace {

constexpr int64_t kBigFileSize = int64_t{1} << 30;
constexpr int kBufferSize = 1 << 20;

// The scratch folder, a small file and the big one, made on first use.
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

  const std::string& smallFile() const { return m_small; }
  const std::string& bigFile() {
    if (!m_bigWritten) {
      int fd = ::open(m_big.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
      if (fd < 0) std::abort();
      std::vector<char> block(kBufferSize, 'z');
      for (int64_t done = 0; done < kBigFileSize; done += kBufferSize) {
        if (::write(fd, block.data(), block.size()) != static_cast<ssize_t>(block.size())) std::abort();
      }
      ::close(fd);
      m_bigWritten = true;
    }
    return m_big;
  }
  static zel::CURI toURI(const std::string& path) {
    return zel::CURI::fromNativePath(zel::CNativePath(zel::String::fromUTF8(path.c_str())));
  }

 private:
  CScratch() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zel-fs-bench-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    m_folder = pattern;
    m_small = m_folder + "/small.txt";
    m_big = m_folder + "/big.bin";
    int fd = ::open(m_small.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || ::write(fd, "small", 5) != 5) std::abort();
    ::close(fd);
  }

  std::string m_folder;
  std::string m_small;
  std::string m_big;
  bool m_bigWritten = false;
};

void BM_RawStat(benchmark::State& state) {
  const std::string& path = CScratch::get().smallFile();
  for (auto _ : state) {
    struct stat st;
    benchmark::DoNotOptimize(::stat(path.c_str(), &st));
  }
}
BENCHMARK(BM_RawStat);

void BM_FileExists(benchmark::State& state) {
  zel::CURI uri = CScratch::toURI(CScratch::get().smallFile());
  zel::P<zel::CFileSystem> fs = zel::createObject<zel::CFileSystem>();
  for (auto _ : state) benchmark::DoNotOptimize(fs->fileExists(uri));
}
BENCHMARK(BM_FileExists);

void BM_RawStatForInfo(benchmark::State& state) {
  const std::string& path = CScratch::get().smallFile();
  for (auto _ : state) {
    struct stat st;
    benchmark::DoNotOptimize(::lstat(path.c_str(), &st));
  }
}
BENCHMARK(BM_RawStatForInfo);

void BM_GetFileInfo(benchmark::State& state) {
  zel::CURI uri = CScratch::toURI(CScratch::get().smallFile());
  zel::P<zel::CFileSystem> fs = zel::createObject<zel::CFileSystem>();
  for (auto _ : state) {
    zel::P<zel::IFileInfoBase> info = fs->getFileInfo(uri, false);
    benchmark::DoNotOptimize(info->getSize());
  }
}
BENCHMARK(BM_GetFileInfo);

void BM_RawRead1GiB(benchmark::State& state) {
  const std::string& path = CScratch::get().bigFile();
  std::vector<char> buffer(kBufferSize);
  for (auto _ : state) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    int64_t total = 0;
    for (;;) {
      ssize_t got = ::read(fd, buffer.data(), buffer.size());
      if (got <= 0) break;
      total += got;
    }
    ::close(fd);
    if (total != kBigFileSize) state.SkipWithError("short read");
  }
  state.SetBytesProcessed(state.iterations() * kBigFileSize);
}
BENCHMARK(BM_RawRead1GiB)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_FileStreamRead1GiB(benchmark::State& state) {
  zel::CURI uri = CScratch::toURI(CScratch::get().bigFile());
  zel::P<zel::CFileSystem> fs = zel::createObject<zel::CFileSystem>();
  std::vector<char> buffer(kBufferSize);
  for (auto _ : state) {
    zel::P<zel::IIOStream> stream =
        fs->createStream(uri, zel::IIOStream::AccessRead, zel::TFlags<zel::IIOStream::Flags>());
    int64_t total = 0;
    for (;;) {
      int got = stream->readLax(buffer.data(), kBufferSize);
      if (got <= 0) break;
      total += got;
    }
    stream->close();
    if (total != kBigFileSize) state.SkipWithError("short read");
  }
  state.SetBytesProcessed(state.iterations() * kBigFileSize);
}
BENCHMARK(BM_FileStreamRead1GiB)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
