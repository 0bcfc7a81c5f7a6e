#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>

#include "zel/core/error.h"
#include "zel/internal/current_thread.h"
#include "zel/thread/thread_platform.h"

namespace zel::thread_platform {

namespace {

// Shared by the handle and the running thread, so that either may go first.
struct CControl {
  void (*entry)(void*);
  void* arg;
  std::atomic<uint64> tid{0};
  std::atomic<bool> ended{false};
};

void* trampoline(void* param) {
  std::shared_ptr<CControl> control(*static_cast<std::shared_ptr<CControl>*>(param));
  delete static_cast<std::shared_ptr<CControl>*>(param);
  control->tid.store(getCurrentOSThreadID());
  control->tid.notify_all();
  control->entry(control->arg);
  control->ended.store(true);
  return nullptr;
}

[[noreturn]] void throwThreadSysError(int code, const char* func, const char* action) {
  CProps params;
  params.set("action", action);
  params.set("func", func);
  throwSysError(code, params);
}

}  // namespace

struct CNativeHandle {
  pthread_t thread;
  std::shared_ptr<CControl> control;
  bool joined = false;
};

CNativeHandle* startThread(void (*entry)(void*), void* arg, uint64& id, int& errnoValue,
                           int64& sysError) {
  auto control = std::make_shared<CControl>();
  control->entry = entry;
  control->arg = arg;
  auto* param = new std::shared_ptr<CControl>(control);
  pthread_t thread;
  int result = pthread_create(&thread, nullptr, &trampoline, param);
  if (result != 0) {
    delete param;
    errnoValue = result;
    sysError = result;
    return nullptr;
  }
  // The kernel thread ID exists only once the thread runs.
  control->tid.wait(0);
  id = control->tid.load();
  return new CNativeHandle{thread, std::move(control)};
}

void waitForThread(CNativeHandle* handle) {
  pthread_join(handle->thread, nullptr);
  handle->control->ended.store(true);
  handle->joined = true;
}

bool hasThreadEnded(CNativeHandle* handle) { return handle->control->ended.load(); }

void closeThreadHandle(CNativeHandle* handle) {
  // A thread not joined is detached so that its resources go when it ends.
  if (!handle->joined) pthread_detach(handle->thread);
  delete handle;
}

uint64 currentThreadID() { return getCurrentOSThreadID(); }

bool isThreadAlive(uint64 id) {
  if (syscall(SYS_tgkill, getpid(), static_cast<pid_t>(id), 0) == 0) return true;
  int error = errno;
  if (error == ESRCH) return false;
  throwThreadSysError(error, "tgkill", "CThread::isThreadAlive");
}

void killThread(uint64 id, int exitCode) {
  // Linux cannot end one thread of a process from outside without taking
  // the process down: refuse rather than pretend.
  throwThreadSysError(ENOTSUP, "tgkill", "CThread::killThread");
}

void setThreadName(uint64 id, const String& name) {
  // The kernel keeps 15 bytes; cut on a character boundary.
  std::string utf8 = name.toStdUTF8();
  size_t length = utf8.size() < 15 ? utf8.size() : 15;
  while (length > 0 && length < utf8.size() && (utf8[length] & 0xC0) == 0x80) --length;
  utf8.resize(length);
  std::string path = "/proc/self/task/" + std::to_string(id) + "/comm";
  int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) return;  // the thread is gone: nothing to name
  ssize_t written;
  do {
    written = write(fd, utf8.data(), utf8.size());
  } while (written < 0 && errno == EINTR);
  close(fd);
}

void sleepMs(unsigned ms) {
  timespec remaining{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000};
  while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
  }
}

}  // namespace zel::thread_platform
