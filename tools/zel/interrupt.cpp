// The portable part of interruption (platform.h): the scopes, the flag and
// waiting for it. The backends take the signals or console events and call
// noteInterrupt().
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "platform.h"

namespace zeltool {

namespace {

std::mutex g_mutex;
std::condition_variable g_interrupted;
std::atomic<int> g_code{0};
int g_scopes = 0;  // guarded by g_mutex

}  // namespace

CInterruptScope::CInterruptScope() {
  std::lock_guard<std::mutex> lock(g_mutex);
  ++g_scopes;
}

CInterruptScope::~CInterruptScope() {
  std::lock_guard<std::mutex> lock(g_mutex);
  --g_scopes;
}

bool noteInterrupt(int code) {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (g_scopes == 0) return false;
  g_code.store(code);
  g_interrupted.notify_all();
  return true;
}

int getInterruptCode() { return g_code.load(); }

bool isInterrupted() { return g_code.load() != 0; }

bool waitForInterrupt(int timeoutMs) {
  std::unique_lock<std::mutex> lock(g_mutex);
  auto interrupted = [] { return g_code.load() != 0; };
  if (timeoutMs < 0) {
    g_interrupted.wait(lock, interrupted);
    return true;
  }
  return g_interrupted.wait_for(lock, std::chrono::milliseconds(timeoutMs), interrupted);
}

}  // namespace zeltool
