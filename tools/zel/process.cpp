#include "process.h"

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "zel/core/error.h"

#ifdef _WIN32
#define WIN32_LEAN_AND_MEAN
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#else
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
extern char** environ;
#endif

namespace zeltool {

#ifdef _WIN32

namespace {

std::wstring quoteArgument(const std::wstring& arg) {
  if (!arg.empty() && arg.find_first_of(L" \t\"") == std::wstring::npos) return arg;
  std::wstring quoted = L"\"";
  int backslashes = 0;
  for (wchar_t c : arg) {
    if (c == L'\\') {
      ++backslashes;
      continue;
    }
    quoted.append(c == L'"' ? backslashes * 2 + 1 : backslashes, L'\\');
    backslashes = 0;
    quoted += c;
  }
  quoted.append(backslashes * 2, L'\\');
  return quoted + L"\"";
}

}  // namespace

struct CChildProcess::Impl {
  PROCESS_INFORMATION process{};
  HANDLE input = nullptr;
  int exitCode = -1;
};

CChildProcess::CChildProcess(const std::vector<zel::String>& args) : m_impl(new Impl) {
  wchar_t self[MAX_PATH];
  GetModuleFileNameW(nullptr, self, MAX_PATH);
  std::wstring commandLine = quoteArgument(self);
  for (const zel::String& arg : args) commandLine += L" " + quoteArgument(arg.toStdWString());
  SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
  HANDLE readEnd = nullptr;
  if (!CreatePipe(&readEnd, &m_impl->input, &inherit, 0)) {
    throw zel::CError("CreatePipe failed for the child process", "sys", GetLastError());
  }
  SetHandleInformation(m_impl->input, HANDLE_FLAG_INHERIT, 0);
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = readEnd;
  startup.hStdOutput = GetStdHandle(STD_OUTPUT_HANDLE);
  startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  const BOOL started = CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0,
                                      nullptr, nullptr, &startup, &m_impl->process);
  const DWORD error = GetLastError();
  CloseHandle(readEnd);
  if (!started) {
    CloseHandle(m_impl->input);
    throw zel::CError("CreateProcessW failed for the child process", "sys", error);
  }
}

CChildProcess::~CChildProcess() {
  if (wait(0) < 0) {
    kill();
    wait(5000);
  }
  closeInput();
  CloseHandle(m_impl->process.hProcess);
  CloseHandle(m_impl->process.hThread);
}

long long CChildProcess::getPID() const { return m_impl->process.dwProcessId; }

void CChildProcess::closeInput() {
  if (m_impl->input) CloseHandle(m_impl->input);
  m_impl->input = nullptr;
}

int CChildProcess::wait(int timeoutMs) {
  if (WaitForSingleObject(m_impl->process.hProcess, timeoutMs < 0 ? INFINITE : timeoutMs) !=
      WAIT_OBJECT_0) {
    return -1;
  }
  DWORD code = 0;
  GetExitCodeProcess(m_impl->process.hProcess, &code);
  return static_cast<int>(code);
}

void CChildProcess::kill() { TerminateProcess(m_impl->process.hProcess, 137); }

#else

struct CChildProcess::Impl {
  pid_t pid = -1;
  int input = -1;
  int exitCode = -1;
  bool reaped = false;
};

CChildProcess::CChildProcess(const std::vector<zel::String>& args) : m_impl(new Impl) {
  char self[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (length <= 0) throw zel::CError("Cannot find the tool's own executable", "errno", errno);
  self[length] = 0;
  std::vector<std::string> storage{self};
  for (const zel::String& arg : args) storage.push_back(arg.toUTF8().data());
  std::vector<char*> argv;
  for (std::string& arg : storage) argv.push_back(arg.data());
  argv.push_back(nullptr);
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) throw zel::CError("pipe2 failed", "errno", errno);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[0], 0);
  // This process blocks the interrupting signals (CInterruptWatch); the
  // child starts with none blocked and sets up its own watch.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  const int error = posix_spawn(&m_impl->pid, self, &actions, &attributes, argv.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  close(fds[0]);
  m_impl->input = fds[1];
  if (error != 0) {
    close(fds[1]);
    throw zel::CError("posix_spawn failed for the child process", "errno", error);
  }
}

CChildProcess::~CChildProcess() {
  if (wait(0) < 0) {
    kill();
    wait(-1);
  }
  closeInput();
}

long long CChildProcess::getPID() const { return m_impl->pid; }

void CChildProcess::closeInput() {
  if (m_impl->input >= 0) close(m_impl->input);
  m_impl->input = -1;
}

int CChildProcess::wait(int timeoutMs) {
  if (m_impl->reaped) return m_impl->exitCode;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    int status = 0;
    const pid_t done = waitpid(m_impl->pid, &status, timeoutMs < 0 ? 0 : WNOHANG);
    if (done == m_impl->pid) {
      m_impl->reaped = true;
      m_impl->exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      return m_impl->exitCode;
    }
    if (done < 0 && errno != EINTR) return -1;
    if (timeoutMs >= 0 && std::chrono::steady_clock::now() >= deadline) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

void CChildProcess::kill() {
  if (!m_impl->reaped) ::kill(m_impl->pid, SIGKILL);
}

#endif

}  // namespace zeltool
