// Child processes for multi-process tests.
//
// A test executable runs itself again as a child: the test registers a child
// function with ZEL_TEST_CHILD(name) { ... return exitCode; } and starts it
// with startTestChild("name", {args...}); the test main sees
// "--zel-child=name" on the command line and runs that function (with the
// library initialised, the log file off) instead of the tests. The arguments
// reach the function as its `args` (plain ASCII is safe on both platforms).
//
// CChildProcess: Linux posix_spawn, Windows CreateProcessW. The destructor
// kills a child that still runs and reaps it, so no test leaves one behind.
// Children outlive no test program either: killRunningChildProcesses() ends
// them (the test watchdog calls it), and should the program die anyhow, a
// child ends with it (Linux: the parent-death signal of a test child;
// Windows: a job object that kills its processes when its last handle, the
// program's, closes).
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "zel/core/string.h"
#include "zel/core/types.h"

namespace zel::test {

class CChildProcess {
 public:
  // Starts path with args (the child's argv[0] is path). Throws a CError
  // when the process cannot be started.
  CChildProcess(const String& path, const std::vector<String>& args);
  ~CChildProcess();
  CChildProcess(const CChildProcess&) = delete;
  CChildProcess& operator=(const CChildProcess&) = delete;

  int64 pid() const { return m_pid; }
  // Waits up to timeoutMs (-1: no limit) for the child to end; its exit code,
  // or -1 when it still runs. A child ended by a signal (Linux) gives 128 +
  // the signal number; kill() on Windows ends it with exit code 137 likewise.
  int wait(int timeoutMs);
  // Ends the child at once (SIGKILL / TerminateProcess); harmless when it has
  // ended already. False when it had been reaped already.
  bool kill();

 private:
  int64 m_pid = 0;
  void* m_handle = nullptr;  // Windows: the process handle
  // Read by killRunningChildProcesses() from any thread.
  std::atomic<bool> m_ended{false};
  int m_exitCode = -1;
};

// Kills every child process that is still running; returns their process
// IDs. Safe from any thread.
std::vector<int64> killRunningChildProcesses();

// The path of the running executable.
String currentExecutablePath();

// Starts this test executable as the child function name. On Linux the
// child ends when the thread that started it ends, so start children from
// the test's own thread.
std::unique_ptr<CChildProcess> startTestChild(const std::string& name,
                                              const std::vector<std::string>& args = {});

using TestChildFunction = int (*)(const std::vector<std::string>& args);

class CTestChildRegistrar {
 public:
  CTestChildRegistrar(const char* name, TestChildFunction function);
};

// For the test main: when argv holds "--zel-child=<name>", runs that child
// function with the other arguments and stores its result (3 for an unknown
// name) in exitCode; false when there is no such argument.
bool runTestChildIfRequested(int argc, char** argv, int& exitCode);

}  // namespace zel::test

#define ZEL_TEST_CHILD(name)                                                                 \
  static int zelTestChild_##name(const std::vector<std::string>& args);                     \
  static const ::zel::test::CTestChildRegistrar zelTestChildRegistrar_##name(#name,         \
                                                                            &zelTestChild_##name); \
  static int zelTestChild_##name([[maybe_unused]] const std::vector<std::string>& args)
