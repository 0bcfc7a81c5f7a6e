#include "zel/fs/file_stream.h"

#include <mutex>

#include "zel/core/error.h"

namespace zel {

// Shared by the stream and its locks so that a lock released after close()
// finds the handle gone instead of a reused descriptor. The mutex orders a
// lock's release against close() on another thread.
class CFileStream::CHandle : public CBase {
 public:
  explicit CHandle(fs_platform::Handle handle) : m_handle(handle) {}
  ~CHandle() override {
    try {
      close();
    } catch (...) {
      // Closing in a destructor: the data already went to the OS with write().
    }
  }

  fs_platform::Handle get() const { return m_handle; }
  bool isOpen() const { return m_handle != fs_platform::kInvalidHandle; }

  void close() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_handle == fs_platform::kInvalidHandle) return;
    fs_platform::Handle handle = m_handle;
    m_handle = fs_platform::kInvalidHandle;
    fs_platform::closeFile(handle);
  }

  void unlock(int64 start, int64 length) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_handle == fs_platform::kInvalidHandle) return;  // closing released it
    fs_platform::unlockRange(m_handle, start, length);
  }

 private:
  std::mutex m_mutex;
  fs_platform::Handle m_handle;
};

namespace {

class CFileStreamLock : public CBase, public IStreamLock {
 public:
  CFileStreamLock(const P<CFileStream::CHandle>& handle, int64 start, int64 length)
      : m_handle(handle), m_start(start), m_length(length) {}
  ~CFileStreamLock() override {
    try {
      m_handle->unlock(m_start, m_length);
    } catch (...) {
      // Nothing sensible to do: the range is released with the handle at the
      // latest.
    }
  }

 private:
  P<CFileStream::CHandle> m_handle;
  int64 m_start;
  int64 m_length;
};

}  // namespace

CFileStream::CFileStream(fs_platform::Handle handle, const CURI& uri, bool writable)
    : m_handle(createObject<CHandle>(handle)), m_uri(uri), m_writable(writable) {}

CFileStream::~CFileStream() = default;

CProps CFileStream::errorParams(const char* action) const {
  CProps params;
  params.set("action", String("CFileStream::") + action);
  params.set(CIOError::paramURI(), m_uri.toString());
  return params;
}

void CFileStream::checkOpen(const char* action) const {
  if (!m_handle->isOpen()) throw CIOError(CIOError::StreamClosed, String(), errorParams(action));
}

// Runs an OS step, adding the stream's action and URI to a system error.
template <class F>
static auto withParams(const CProps& params, F&& step) -> decltype(step()) {
  try {
    return step();
  } catch (CError& e) {
    for (int i = 0; i < params.getCount(); ++i) e.getParams().set(params.getKey(i), params.getValue(i));
    throw;
  }
}

int64 CFileStream::getLength() const {
  checkOpen("getLength");
  return withParams(errorParams("getLength"), [&] { return fs_platform::getFileSize(m_handle->get()); });
}

int64 CFileStream::getNativeFileHandle() const {
  checkOpen("getNativeFileHandle");
  return static_cast<int64>(m_handle->get());
}

int64 CFileStream::getPosition() const {
  checkOpen("getPosition");
  return m_position;
}

CURI CFileStream::getURI() { return m_uri; }

void CFileStream::seek(int64 position) {
  checkOpen("seek");
  // Files may be positioned beyond their end (a later write extends them).
  if (position < 0) {
    CProps params = errorParams("seek");
    params.setInt64("position", position);
    throw CIOError(CIOError::SeekFailed, String(), params);
  }
  m_position = position;
}

P<IStreamLock> CFileStream::lockRange(int64 startPos, int64 bytes, LockType type) {
  checkOpen("lockRange");
  if (startPos < 0 || bytes <= 0) {
    throw CInvalidArgError("CFileStream::lockRange", "the range must start at >= 0 and hold bytes",
                           errorParams("lockRange"));
  }
  bool granted = withParams(errorParams("lockRange"), [&] {
    return fs_platform::lockRange(m_handle->get(), startPos, bytes, type == Exclusive);
  });
  if (!granted) {
    CProps params = errorParams("lockRange");
    params.setInt64("start", startPos);
    params.setInt64("bytes", bytes);
    throw CFileSystemError(
        CFileSystemError::ProblemAccessDenied,
        CIOError(CIOError::Unknown, "The range of the file is locked by another handle.", params));
  }
  return createObject<CFileStreamLock>(m_handle, startPos, bytes);
}

void CFileStream::close() {
  withParams(errorParams("close"), [&] { m_handle->close(); });
}

void CFileStream::read(void* buffer, int bytes) {
  int got = readLax(buffer, bytes);
  if (got < bytes) {
    CProps params = errorParams("read");
    params.setInt64("requested", bytes);
    params.setInt64("read", got);
    throw CIOError(CIOError::UnexpectedEnd, String(), params);
  }
}

int CFileStream::readLax(void* buffer, int bytes) {
  checkOpen("readLax");
  int total = 0;
  auto* out = static_cast<unsigned char*>(buffer);
  while (total < bytes) {
    int got = withParams(errorParams("read"), [&] {
      return fs_platform::readAt(m_handle->get(), m_position, out + total, bytes - total);
    });
    if (got <= 0) break;
    total += got;
    m_position += got;
  }
  return total;
}

int CFileStream::readAvailable(void* buffer, int bytes) {
  // A local file never makes a reader wait for data that is not there.
  return readLax(buffer, bytes);
}

bool CFileStream::waitReadable(int) const {
  checkOpen("waitReadable");
  return true;
}

bool CFileStream::isEndOfStream() const { return m_position >= getLength(); }

int CFileStream::isEndOfStream_NonBlocking() const { return isEndOfStream() ? 1 : 0; }

void CFileStream::write(const void* buffer, int bytes, IWriteBarrier*) {
  checkOpen("write");
  if (bytes < 0) throw CInvalidArgError("CFileStream::write", "bytes must be >= 0", errorParams("write"));
  if (!m_writable) {
    throw CIOError(CIOError::WriteFailed, "The file was opened for reading only.", errorParams("write"));
  }
  if (bytes == 0) return;
  withParams(errorParams("write"),
             [&] { fs_platform::writeAt(m_handle->get(), m_position, buffer, bytes); });
  m_position += bytes;
}

void CFileStream::writeKeepBuffer(const TConstBufferSlice<unsigned char>& data, IWriteBarrier* barrier) {
  // Written at once, so the buffer need not be kept.
  size_t done = 0;
  while (done < data.getLength()) {
    size_t chunk = data.getLength() - done;
    if (chunk > 0x40000000u) chunk = 0x40000000u;
    write(data.getData() + done, static_cast<int>(chunk), barrier);
    done += chunk;
  }
}

P<IWriteBarrier> CFileStream::createWriteBarrier(IWriteBarrier* parent) {
  checkOpen("createWriteBarrier");
  // Every write has reached the OS when it returns.
  return createObject<CImmediateWriteBarrier>(parent);
}

void CFileStream::flush() {
  checkOpen("flush");
  if (!m_writable) return;
  withParams(errorParams("flush"), [&] { fs_platform::flushFile(m_handle->get()); });
}

void CFileStream::setLength(int64 length) {
  checkOpen("setLength");
  if (length < 0) {
    throw CInvalidArgError("CFileStream::setLength", "length must be >= 0", errorParams("setLength"));
  }
  if (!m_writable) {
    throw CIOError(CIOError::ResizeFailed, "The file was opened for reading only.", errorParams("setLength"));
  }
  withParams(errorParams("setLength"), [&] { fs_platform::setFileSize(m_handle->get(), length); });
  if (m_position > length) m_position = length;
}

}  // namespace zel
