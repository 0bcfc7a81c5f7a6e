// The test support folder is built without the platform file selection of the
// library, so both backends live here, chosen by the preprocessor.
#include "child_process.h"

#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <set>

#include "zel/core/error.h"
#include "zel/core/sys_error.h"
#include "zel/init/zel_init.h"
#include "zel/log/xml_log.h"

#if defined(_WIN32)
#include "zel/internal/win_include.h"
#else
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

extern char** environ;
#endif

namespace zel::test {

namespace {

constexpr const char kChildOption[] = "--zel-child=";
// The parent's process ID, so that a child can tell whether it is orphaned.
constexpr const char kParentOption[] = "--zel-parent=";

// The child processes that exist, for killRunningChildProcesses().
std::mutex& runningMutex() {
  static std::mutex mutex;
  return mutex;
}
std::set<CChildProcess*>& running() {
  static std::set<CChildProcess*> children;
  return children;
}

void registerChild(CChildProcess* child) {
  std::lock_guard<std::mutex> lock(runningMutex());
  running().insert(child);
}

void unregisterChild(CChildProcess* child) {
  std::lock_guard<std::mutex> lock(runningMutex());
  running().erase(child);
}

std::map<std::string, TestChildFunction>& registry() {
  static std::map<std::string, TestChildFunction> functions;
  return functions;
}

[[noreturn]] void failStart(const String& path, const char* func, int64 code) {
  CProps params;
  params.set("func", func);
  params.set("action", "CChildProcess constructor");
  params.set("path", path);
  throwSysError(code, params);
}

#if defined(_WIN32)

// Every child is put in this job, which ends them all when its last handle
// closes: when this program ends, however it ends. Null if the system
// refuses (the children then only end with their CChildProcess).
HANDLE childJob() {
  static const HANDLE job = [] {
    HANDLE created = CreateJobObjectW(nullptr, nullptr);
    if (!created) return HANDLE(nullptr);
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    if (!SetInformationJobObject(created, JobObjectExtendedLimitInformation, &limits,
                                 sizeof(limits))) {
      CloseHandle(created);
      return HANDLE(nullptr);
    }
    return created;
  }();
  return job;
}

// One argument quoted so that CommandLineToArgvW (and the C runtime) give it
// back unchanged.
std::wstring quoteArgument(const std::wstring& arg) {
  if (!arg.empty() && arg.find_first_of(L" \t\n\v\"") == std::wstring::npos) return arg;
  std::wstring result = L"\"";
  size_t backslashes = 0;
  for (wchar_t c : arg) {
    if (c == L'\\') {
      ++backslashes;
      continue;
    }
    if (c == L'"') {
      result.append(backslashes * 2 + 1, L'\\');
    } else {
      result.append(backslashes, L'\\');
    }
    backslashes = 0;
    result += c;
  }
  result.append(backslashes * 2, L'\\');
  result += L'"';
  return result;
}

int64 currentProcessID() { return static_cast<int64>(GetCurrentProcessId()); }

// The parent's job ends a child with its parent.
void endWithParent(int64) {}

#else

int64 currentProcessID() { return static_cast<int64>(::getpid()); }

// A child ends with its parent (strictly: with the thread that started it).
void endWithParent(int64 parent) {
  if (parent == 0) return;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  // The parent may have ended before the signal was asked for.
  if (static_cast<int64>(::getppid()) != parent) ::_exit(5);
}

void sleepMs(int ms) {
  timespec remaining{ms / 1000, static_cast<long>(ms % 1000) * 1000000L};
  while (::nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
  }
}

#endif

}  // namespace

#if defined(_WIN32)

CChildProcess::CChildProcess(const String& path, const std::vector<String>& args) {
  std::wstring commandLine = quoteArgument(path.toStdWString());
  for (const String& arg : args) commandLine += L" " + quoteArgument(arg.toStdWString());
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION info{};
  // Suspended until it is in the job, so that nothing it starts escapes.
  if (!CreateProcessW(path.toStdWString().c_str(), commandLine.data(), nullptr, nullptr, FALSE,
                      CREATE_SUSPENDED, nullptr, nullptr, &startup, &info)) {
    failStart(path, "CreateProcessW", static_cast<int64>(GetLastError()));
  }
  if (childJob()) AssignProcessToJobObject(childJob(), info.hProcess);
  ResumeThread(info.hThread);
  CloseHandle(info.hThread);
  m_handle = info.hProcess;
  m_pid = info.dwProcessId;
  registerChild(this);
}

CChildProcess::~CChildProcess() {
  unregisterChild(this);
  if (!m_ended) {
    kill();
    wait(-1);
  }
  CloseHandle(static_cast<HANDLE>(m_handle));
}

int CChildProcess::wait(int timeoutMs) {
  if (m_ended) return m_exitCode;
  const DWORD result = WaitForSingleObject(static_cast<HANDLE>(m_handle),
                                           timeoutMs < 0 ? INFINITE : static_cast<DWORD>(timeoutMs));
  if (result != WAIT_OBJECT_0) return -1;
  DWORD code = 0;
  GetExitCodeProcess(static_cast<HANDLE>(m_handle), &code);
  m_ended = true;
  m_exitCode = static_cast<int>(code);
  return m_exitCode;
}

bool CChildProcess::kill() {
  if (m_ended) return false;
  TerminateProcess(static_cast<HANDLE>(m_handle), 137);
  return true;
}

String currentExecutablePath() {
  std::wstring buffer(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length =
        GetModuleFileNameW(nullptr, buffer.data(), static_cast<DWORD>(buffer.size()));
    if (length == 0) throwSysError("GetModuleFileNameW", "currentExecutablePath");
    if (length < buffer.size()) return String(buffer.c_str(), length);
    buffer.resize(buffer.size() * 2);
  }
}

#else

CChildProcess::CChildProcess(const String& path, const std::vector<String>& args) {
  std::vector<std::string> native;
  native.push_back(path.toStdUTF8());
  for (const String& arg : args) native.push_back(arg.toStdUTF8());
  std::vector<char*> argv;
  for (std::string& arg : native) argv.push_back(arg.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  const int result = ::posix_spawn(&pid, native[0].c_str(), nullptr, nullptr, argv.data(), environ);
  if (result != 0) failStart(path, "posix_spawn", result);
  m_pid = pid;
  registerChild(this);
}

CChildProcess::~CChildProcess() {
  unregisterChild(this);
  if (!m_ended) {
    kill();
    wait(-1);
  }
}

int CChildProcess::wait(int timeoutMs) {
  if (m_ended) return m_exitCode;
  int waitedMs = 0;
  int step = 1;
  for (;;) {
    int status = 0;
    const pid_t result = ::waitpid(static_cast<pid_t>(m_pid), &status, WNOHANG);
    if (result == static_cast<pid_t>(m_pid)) {
      m_ended = true;
      m_exitCode = WIFEXITED(status) ? WEXITSTATUS(status)
                                     : (WIFSIGNALED(status) ? 128 + WTERMSIG(status) : 255);
      return m_exitCode;
    }
    if (result < 0 && errno != EINTR) {
      // Not our child any more (reaped elsewhere): nothing to wait for.
      m_ended = true;
      m_exitCode = 255;
      return m_exitCode;
    }
    if (timeoutMs >= 0 && waitedMs >= timeoutMs) return -1;
    sleepMs(step);
    waitedMs += step;
    if (step < 10) step *= 2;
  }
}

bool CChildProcess::kill() {
  if (m_ended) return false;
  ::kill(static_cast<pid_t>(m_pid), SIGKILL);
  return true;
}

String currentExecutablePath() {
  std::string buffer(PATH_MAX, '\0');
  const ssize_t length = ::readlink("/proc/self/exe", buffer.data(), buffer.size());
  if (length <= 0) throwSysError("readlink", "currentExecutablePath");
  return String::fromFileSystemEncoding(std::string(buffer.data(), static_cast<size_t>(length)).c_str());
}

#endif

std::vector<int64> killRunningChildProcesses() {
  std::vector<int64> killed;
  std::lock_guard<std::mutex> lock(runningMutex());
  for (CChildProcess* child : running()) {
    if (child->kill()) killed.push_back(child->pid());
  }
  return killed;
}

std::unique_ptr<CChildProcess> startTestChild(const std::string& name,
                                              const std::vector<std::string>& args) {
  std::vector<String> all;
  all.push_back(String(kChildOption + name));
  all.push_back(String(kParentOption + std::to_string(currentProcessID())));
  for (const std::string& arg : args) all.push_back(String::fromUTF8(arg.c_str()));
  return std::make_unique<CChildProcess>(currentExecutablePath(), all);
}

CTestChildRegistrar::CTestChildRegistrar(const char* name, TestChildFunction function) {
  registry()[name] = function;
}

bool runTestChildIfRequested(int argc, char** argv, int& exitCode) {
  const size_t optionLength = std::strlen(kChildOption);
  const size_t parentLength = std::strlen(kParentOption);
  std::string name;
  std::vector<std::string> args;
  bool found = false;
  int64 parent = 0;
  for (int i = 1; i < argc; ++i) {
    if (!found && std::strncmp(argv[i], kChildOption, optionLength) == 0) {
      name = argv[i] + optionLength;
      found = true;
    } else if (found && parent == 0 && std::strncmp(argv[i], kParentOption, parentLength) == 0) {
      parent = std::atoll(argv[i] + parentLength);
    } else {
      args.emplace_back(argv[i]);
    }
  }
  if (!found) return false;
  endWithParent(parent);
  const auto entry = registry().find(name);
  if (entry == registry().end()) {
    exitCode = 3;
    return true;
  }
  {
    CZelInit init;
    CXMLLog::getGlobal()->setFileEnabled(false);
    try {
      exitCode = entry->second(args);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "test child %s failed: %s\n", name.c_str(), error.what());
      exitCode = 4;
    }
  }
  CZelInit::onApplicationExit();
  return true;
}

}  // namespace zel::test
