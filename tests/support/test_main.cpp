// GoogleTest main of every zel test executable: the library is brought up
// as a program would, the log file is switched off (tests capture entries
// with CLogCapture instead), and the singletons are disposed at the end.
//
// A watchdog ends a test case that runs too long: after
// ZEL_TEST_CASE_TIMEOUT seconds (default 60; 0 switches it off) it prints
// "<Suite.Test> did not finish within N s" and the threads of the process,
// kills the test's child processes and ends the process with exit code 124,
// so that a hang fails at once and says where. The shutdown after the tests
// is watched the same way.
//
// With "--zel-child=<name>" the executable is a child process of a
// multi-process test instead: it runs the function registered with
// ZEL_TEST_CHILD(name) and exits with its result (see child_process.h).
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

#include "child_process.h"
#include "zel/init/zel_init.h"
#include "zel/log/xml_log.h"

#if defined(_WIN32)
#include "zel/internal/win_include.h"

#include <tlhelp32.h>
#else
#include <dirent.h>
#include <unistd.h>

#include <fstream>
#endif

namespace {

constexpr int kDefaultLimitSeconds = 60;
constexpr int kTimedOutExitCode = 124;

// The system's ID of the calling thread.
unsigned long currentThreadID() {
#if defined(_WIN32)
  return GetCurrentThreadId();
#else
  return static_cast<unsigned long>(::gettid());
#endif
}

// Which thread is which, for the thread list.
unsigned long g_mainThread = 0;
unsigned long g_watchdogThread = 0;

std::string threadRole(unsigned long id) {
  if (id == g_mainThread) return " (main)";
  if (id == g_watchdogThread) return " (this watchdog)";
  return "";
}

// Written without stdio: the hung thread may hold its lock.
void writeError(const std::string& text) {
#if defined(_WIN32)
  DWORD written = 0;
  WriteFile(GetStdHandle(STD_ERROR_HANDLE), text.data(), static_cast<DWORD>(text.size()), &written,
            nullptr);
#else
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t result = ::write(2, text.data() + done, text.size() - done);
    if (result <= 0) break;
    done += static_cast<size_t>(result);
  }
#endif
}

#if defined(_WIN32)

std::string threadName(DWORD id) {
  using GetThreadDescriptionFunc = HRESULT(WINAPI*)(HANDLE, PWSTR*);
  static const auto getDescription = reinterpret_cast<GetThreadDescriptionFunc>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"),
                                             "GetThreadDescription")));
  std::string name;
  HANDLE thread = OpenThread(THREAD_QUERY_LIMITED_INFORMATION, FALSE, id);
  if (!thread) return name;
  PWSTR description = nullptr;
  if (getDescription && SUCCEEDED(getDescription(thread, &description)) && description) {
    for (const wchar_t* c = description; *c; ++c) name += *c < 0x80 ? static_cast<char>(*c) : '?';
    LocalFree(description);
  }
  CloseHandle(thread);
  return name;
}

std::string describeThreads() {
  std::string text;
  HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  if (snapshot == INVALID_HANDLE_VALUE) return "  (no thread list)\n";
  THREADENTRY32 entry{};
  entry.dwSize = sizeof(entry);
  const DWORD self = GetCurrentProcessId();
  for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry)) {
    if (entry.th32OwnerProcessID != self) continue;
    text += "  thread " + std::to_string(entry.th32ThreadID) + " \"" +
            threadName(entry.th32ThreadID) + "\"" + threadRole(entry.th32ThreadID) + "\n";
  }
  CloseHandle(snapshot);
  return text;
}

[[noreturn]] void endProcess(int code) {
  // No DLL detach code runs: it might wait for the hung thread.
  TerminateProcess(GetCurrentProcess(), static_cast<UINT>(code));
  std::_Exit(code);
}

#else

std::string firstLine(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

std::string describeThreads() {
  std::string text;
  DIR* tasks = ::opendir("/proc/self/task");
  if (!tasks) return "  (no thread list)\n";
  while (dirent* entry = ::readdir(tasks)) {
    if (entry->d_name[0] == '.') continue;
    const std::string task = std::string("/proc/self/task/") + entry->d_name;
    const std::string stat = firstLine(task + "/stat");
    // The state follows the name in parentheses.
    const size_t close = stat.rfind(')');
    const std::string state = close != std::string::npos && close + 2 < stat.size()
                                  ? stat.substr(close + 2, 1)
                                  : "?";
    const std::string wchan = firstLine(task + "/wchan");
    text += "  thread " + std::string(entry->d_name) + " \"" + firstLine(task + "/comm") + "\"" +
            threadRole(std::strtoul(entry->d_name, nullptr, 10)) + ": state " + state +
            (wchan.empty() || wchan == "0" ? std::string() : ", waiting in " + wchan) + "\n";
  }
  ::closedir(tasks);
  return text;
}

[[noreturn]] void endProcess(int code) { ::_exit(code); }

#endif

// Watches one activity at a time (a test case, the shutdown) and ends the
// process when one outlasts the limit.
class CWatchdog : public testing::EmptyTestEventListener {
 public:
  explicit CWatchdog(int limitSeconds) : m_limit(limitSeconds) {
    if (m_limit > 0) m_thread = std::thread([this] { run(); });
  }
  ~CWatchdog() override {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_stop = true;
    }
    m_changed.notify_all();
    if (m_thread.joinable()) m_thread.join();
  }
  CWatchdog(const CWatchdog&) = delete;
  CWatchdog& operator=(const CWatchdog&) = delete;

  void watch(const std::string& activity) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_activity = activity;
      m_deadline = std::chrono::steady_clock::now() + std::chrono::seconds(m_limit);
    }
    m_changed.notify_all();
  }
  void unwatch() {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_activity.clear();
    }
    m_changed.notify_all();
  }

  void OnTestStart(const testing::TestInfo& info) override {
    watch(std::string(info.test_suite_name()) + "." + info.name());
  }
  void OnTestEnd(const testing::TestInfo&) override { unwatch(); }

 private:
  void run() {
    g_watchdogThread = currentThreadID();
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stop) {
      if (m_activity.empty()) {
        m_changed.wait(lock);
      } else if (std::chrono::steady_clock::now() < m_deadline) {
        m_changed.wait_until(lock, m_deadline);
      } else {
        expire(m_activity);
      }
    }
  }

  [[noreturn]] void expire(const std::string& activity) {
    writeError("\n" + activity + " did not finish within " + std::to_string(m_limit) + " s\n");
    writeError("Threads of this process:\n" + describeThreads());
    for (zel::int64 pid : zel::test::killRunningChildProcesses()) {
      writeError("Killed child process " + std::to_string(pid) + "\n");
    }
    endProcess(kTimedOutExitCode);
  }

  const int m_limit;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::string m_activity;
  std::chrono::steady_clock::time_point m_deadline;
  bool m_stop = false;
  std::thread m_thread;
};

int limitSeconds() {
  const char* text = std::getenv("ZEL_TEST_CASE_TIMEOUT");
  if (!text || !*text) return kDefaultLimitSeconds;
  return std::atoi(text);
}

}  // namespace

int main(int argc, char** argv) {
  int childResult = 0;
  if (zel::test::runTestChildIfRequested(argc, argv, childResult)) return childResult;

  testing::InitGoogleTest(&argc, argv);
  g_mainThread = currentThreadID();
  testing::TestEventListeners& listeners = testing::UnitTest::GetInstance()->listeners();
  auto* watchdog = new CWatchdog(limitSeconds());
  listeners.Append(watchdog);
  int result;
  {
    zel::CZelInit init;
    zel::CXMLLog::getGlobal()->setFileEnabled(false);
    result = RUN_ALL_TESTS();
    watchdog->watch("The shutdown after the tests");
  }
  zel::CZelInit::onApplicationExit();
  listeners.Release(watchdog);
  delete watchdog;
  return result;
}
