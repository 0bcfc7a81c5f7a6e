#include "zel/ipc/in_process_connection.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>

#include "zel/core/error.h"
#include "zel/internal/current_thread.h"
#include "zel/ipc/connection_stream.h"

namespace zel {

namespace {

// One direction of the connection: a byte queue and whether its writer or
// reader has gone.
struct Channel {
  std::deque<unsigned char> bytes;
  bool writerClosed = false;
  bool readerClosed = false;
};

// Shared by both ends; one lock for both directions keeps it simple.
struct SharedState : public CBase {
  explicit SharedState(size_t capacity) : capacity(capacity) {}

  const size_t capacity;  // unread bytes per direction before a writer waits
  std::mutex mutex;
  std::condition_variable changed;
  Channel channels[2];
};

class CInProcessInStream : public CConnectionInStream {
 public:
  CInProcessInStream(const P<SharedState>& state, int channel) : m_state(state), m_channel(channel) {}
  ~CInProcessInStream() override {
    if (!isClosed()) closeTransport();
  }

 protected:
  int receive(void* buffer, int bytes, bool wait) override {
    std::unique_lock lock(m_state->mutex);
    Channel& channel = m_state->channels[m_channel];
    if (wait) {
      m_state->changed.wait(lock, [&] {
        return !channel.bytes.empty() || channel.writerClosed || channel.readerClosed;
      });
    }
    if (channel.readerClosed) return 0;  // closed from another thread: ends the read
    const size_t count = std::min(channel.bytes.size(), static_cast<size_t>(bytes));
    std::copy_n(channel.bytes.begin(), count, static_cast<unsigned char*>(buffer));
    channel.bytes.erase(channel.bytes.begin(), channel.bytes.begin() + static_cast<ptrdiff_t>(count));
    // Room for a writer waiting on a full channel.
    if (count > 0) m_state->changed.notify_all();
    return static_cast<int>(count);
  }

  Readiness pollReadable(int timeoutMs) const override {
    std::unique_lock lock(m_state->mutex);
    const Channel& channel = m_state->channels[m_channel];
    auto ready = [&] {
      return !channel.bytes.empty() || channel.writerClosed || channel.readerClosed;
    };
    if (timeoutMs < 0) {
      m_state->changed.wait(lock, ready);
    } else {
      m_state->changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), ready);
    }
    if (channel.readerClosed) return Ended;
    if (!channel.bytes.empty()) return DataReady;
    return channel.writerClosed ? Ended : NotReady;
  }

  void closeTransport() override {
    std::lock_guard lock(m_state->mutex);
    m_state->channels[m_channel].readerClosed = true;
    m_state->channels[m_channel].bytes.clear();
    m_state->changed.notify_all();
  }

 private:
  P<SharedState> m_state;
  int m_channel;
};

class CInProcessOutStream : public CConnectionOutStream {
 public:
  CInProcessOutStream(const P<SharedState>& state, int channel)
      : m_state(state), m_channel(channel) {}
  ~CInProcessOutStream() override { close(); }

 protected:
  // Queues the bytes as room comes free; a close of either end (from any
  // thread) ends the wait and fails the write.
  void send(const void* buffer, int bytes) override {
    std::unique_lock lock(m_state->mutex);
    Channel& channel = m_state->channels[m_channel];
    const size_t capacity = m_state->capacity;
    const auto* data = static_cast<const unsigned char*>(buffer);
    size_t left = static_cast<size_t>(bytes);
    while (left > 0) {
      m_state->changed.wait(lock, [&] {
        return channel.readerClosed || channel.writerClosed || channel.bytes.size() < capacity;
      });
      if (channel.readerClosed || channel.writerClosed) {
        throw CIOError(CIOError::WriteFailed, "The connection is closed");
      }
      const size_t count = std::min(left, capacity - channel.bytes.size());
      channel.bytes.insert(channel.bytes.end(), data, data + count);
      data += count;
      left -= count;
      m_state->changed.notify_all();
    }
  }

  void closeTransport() override {
    std::lock_guard lock(m_state->mutex);
    m_state->channels[m_channel].writerClosed = true;
    m_state->changed.notify_all();
  }

 private:
  P<SharedState> m_state;
  int m_channel;
};

class CInProcessEnd : public CBase, public IConnection {
 public:
  CInProcessEnd(const P<SharedState>& state, int readChannel)
      : m_state(state),
        m_readChannel(readChannel),
        m_in(createObject<CInProcessInStream>(state, readChannel)),
        m_out(createObject<CInProcessOutStream>(state, 1 - readChannel)) {}
  ~CInProcessEnd() override { close(); }

  P<IInStream> getInStream() override { return m_in; }
  P<IOutStream> getOutStream() override { return m_out; }
  void close() override {
    m_in->close();
    m_out->close();
  }
  int64 getPeerProcessID() override { return getCurrentOSProcessID(); }

  int64 unreadBytes() const {
    std::lock_guard lock(m_state->mutex);
    return static_cast<int64>(m_state->channels[m_readChannel].bytes.size());
  }

 private:
  P<SharedState> m_state;
  int m_readChannel;
  P<CInProcessInStream> m_in;
  P<CInProcessOutStream> m_out;
};

}  // namespace

std::pair<P<IConnection>, P<IConnection>> CInProcessConnection::createPair(int capacity) {
  P<SharedState> state = createObject<SharedState>(static_cast<size_t>(capacity < 1 ? 1 : capacity));
  return {createObject<CInProcessEnd>(state, 0), createObject<CInProcessEnd>(state, 1)};
}

int64 CInProcessConnection::getUnreadBytes(IConnection* end) {
  const auto* own = dynamic_cast<const CInProcessEnd*>(end);
  return own ? own->unreadBytes() : 0;
}

}  // namespace zel
