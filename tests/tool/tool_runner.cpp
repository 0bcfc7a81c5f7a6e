// Both backends live here, chosen by the preprocessor, as in tests/support.
#include "tool_runner.h"

#include <wx/filename.h>

#include <algorithm>
#include <mutex>
#include <thread>

#include "child_process.h"
#include "temp_folder.h"
#include "zel/core/error.h"

#if defined(_WIN32)
#include "zel/internal/win_include.h"
#else
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

extern char** environ;
#endif

namespace zel::tool_test {

String toolPath() {
  const wxFileName self(test::currentExecutablePath().getWxString());
#if defined(_WIN32)
  return String(wxFileName(self.GetPath(), "zel.exe").GetFullPath());
#else
  return String(wxFileName(self.GetPath(), "zel").GetFullPath());
#endif
}

namespace {

std::string asText(std::string text) {
  for (size_t at = text.find("\r\n"); at != std::string::npos; at = text.find("\r\n", at)) {
    text.erase(at, 1);
  }
  return text;
}

}  // namespace

CRunResult runTool(const std::vector<String>& args, const CRunOptions& options) {
  CProgramRun run(toolPath(), args, options);
  CRunResult result;
  result.code = run.wait(120000);
  result.rawOut = run.readOutput();
  result.out = asText(result.rawOut);
  result.err = asText(run.readError());
  return result;
}

#if defined(_WIN32)

namespace {

std::wstring quoteArgument(const std::wstring& arg) {
  if (!arg.empty() && arg.find_first_of(L" \t\n\v\"") == std::wstring::npos) return arg;
  std::wstring result = L"\"";
  size_t backslashes = 0;
  for (wchar_t c : arg) {
    if (c == L'\\') {
      ++backslashes;
      continue;
    }
    result.append(c == L'"' ? backslashes * 2 + 1 : backslashes, L'\\');
    backslashes = 0;
    result += c;
  }
  result.append(backslashes * 2, L'\\');
  return result + L"\"";
}

HANDLE openInheritable(const String& path, bool write) {
  SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
  HANDLE handle =
      CreateFileW(path.toStdWString().c_str(), write ? GENERIC_WRITE : GENERIC_READ,
                  FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                  write ? CREATE_ALWAYS : OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) throwSysError("CreateFileW", "CProgramRun");
  return handle;
}

}  // namespace

struct CProgramRun::Impl {
  test::CTempFolder folder;
  HANDLE process = nullptr;
  HANDLE input = nullptr;
  DWORD pid = 0;
  bool ended = false;
  int exitCode = -1;
};

CProgramRun::CProgramRun(const String& program, const std::vector<String>& args,
                         const CRunOptions& options)
    : m_impl(new Impl) {
  std::wstring commandLine = quoteArgument(program.toStdWString());
  for (const String& arg : args) commandLine += L" " + quoteArgument(arg.toStdWString());
  HANDLE out = openInheritable(m_impl->folder.file("out.txt"), true);
  HANDLE err = openInheritable(m_impl->folder.file("err.txt"), true);
  HANDLE in = nullptr;
  if (options.stdinPipe) {
    SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
    CreatePipe(&in, &m_impl->input, &inherit, 0);
    SetHandleInformation(m_impl->input, HANDLE_FLAG_INHERIT, 0);
  } else {
    in = openInheritable(options.stdinFile.isEmpty() ? String("NUL") : options.stdinFile, false);
  }
  // The child inherits this process's environment: set the variables for
  // the start and put the old values back.
  std::vector<std::pair<std::wstring, std::wstring>> saved;
  for (const auto& [name, value] : options.env) {
    const std::wstring wideName = String::fromUTF8(name.c_str()).toStdWString();
    wchar_t old[32768];
    const DWORD length = GetEnvironmentVariableW(wideName.c_str(), old, 32768);
    saved.emplace_back(wideName, length ? std::wstring(old, length) : std::wstring());
    SetEnvironmentVariableW(wideName.c_str(),
                            String::fromUTF8(value.c_str()).toStdWString().c_str());
  }
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = in;
  startup.hStdOutput = out;
  startup.hStdError = err;
  PROCESS_INFORMATION info{};
  const std::wstring cwd = options.cwd.toStdWString();
  const BOOL started =
      CreateProcessW(program.toStdWString().c_str(), commandLine.data(), nullptr, nullptr, TRUE, 0,
                     nullptr, cwd.empty() ? nullptr : cwd.c_str(), &startup, &info);
  const DWORD error = GetLastError();
  for (auto it = saved.rbegin(); it != saved.rend(); ++it) {
    SetEnvironmentVariableW(it->first.c_str(), it->second.empty() ? nullptr : it->second.c_str());
  }
  CloseHandle(in);
  CloseHandle(out);
  CloseHandle(err);
  if (!started) throwSysError("CreateProcessW", "CProgramRun", error);
  CloseHandle(info.hThread);
  m_impl->process = info.hProcess;
  m_impl->pid = info.dwProcessId;
}

CProgramRun::~CProgramRun() {
  if (!m_impl->ended) {
    TerminateProcess(m_impl->process, 137);
    wait(-1);
  }
  closeInput();
  CloseHandle(m_impl->process);
}

int CProgramRun::wait(int timeoutMs) {
  if (m_impl->ended) return m_impl->exitCode;
  if (WaitForSingleObject(m_impl->process,
                          timeoutMs < 0 ? INFINITE : static_cast<DWORD>(timeoutMs)) !=
      WAIT_OBJECT_0) {
    return -1;
  }
  DWORD code = 0;
  GetExitCodeProcess(m_impl->process, &code);
  m_impl->ended = true;
  m_impl->exitCode = static_cast<int>(code);
  return m_impl->exitCode;
}

int64 CProgramRun::pid() const { return m_impl->pid; }

void CProgramRun::sendSignal(int) { throw CNotImplementedError("CProgramRun::sendSignal"); }

void CProgramRun::writeInput(const std::string& bytes) {
  DWORD written = 0;
  WriteFile(m_impl->input, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
}

void CProgramRun::closeInput() {
  if (m_impl->input) CloseHandle(m_impl->input);
  m_impl->input = nullptr;
}

std::string CProgramRun::readOutput() const {
  return test::readFileBytes(m_impl->folder.file("out.txt"));
}
std::string CProgramRun::readError() const {
  return test::readFileBytes(m_impl->folder.file("err.txt"));
}

#else

struct CProgramRun::Impl {
  test::CTempFolder folder;
  pid_t pid = -1;
  int input = -1;
  int terminal = -1;       // the pseudo-terminal's master
  int terminalSlave = -1;  // kept open until the child has ended
  std::thread terminalReader;
  mutable std::mutex mutex;
  std::string terminalText;
  bool stderrTerminal = false;
  bool ended = false;
  int exitCode = -1;

  void endTerminal() {
    if (terminalSlave >= 0) ::close(terminalSlave);
    terminalSlave = -1;
    if (terminalReader.joinable()) terminalReader.join();
    if (terminal >= 0) ::close(terminal);
    terminal = -1;
  }
};

CProgramRun::CProgramRun(const String& program, const std::vector<String>& args,
                         const CRunOptions& options)
    : m_impl(new Impl) {
  std::vector<std::string> native{program.toStdUTF8()};
  for (const String& arg : args) native.push_back(arg.toStdUTF8());
  std::vector<char*> argv;
  for (std::string& arg : native) argv.push_back(arg.data());
  argv.push_back(nullptr);

  // Later settings of a variable win over earlier ones and over this
  // process's environment.
  std::vector<std::string> environment;
  auto set = [&](const std::string& entry) {
    const std::string prefix = entry.substr(0, entry.find('=') + 1);
    environment.erase(std::remove_if(environment.begin(), environment.end(),
                                     [&](const std::string& e) { return e.rfind(prefix, 0) == 0; }),
                      environment.end());
    environment.push_back(entry);
  };
  for (char** entry = environ; *entry; ++entry) environment.push_back(*entry);
  for (const auto& [name, value] : options.env) set(name + "=" + value);
  std::vector<char*> envp;
  for (std::string& entry : environment) envp.push_back(entry.data());
  envp.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  int inputRead = -1;
  if (options.stdinPipe) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) throwSysError("pipe2", "CProgramRun");
    inputRead = fds[0];
    m_impl->input = fds[1];
    posix_spawn_file_actions_adddup2(&actions, inputRead, 0);
  } else {
    const std::string in =
        options.stdinFile.isEmpty() ? "/dev/null" : options.stdinFile.toStdUTF8();
    posix_spawn_file_actions_addopen(&actions, 0, in.c_str(), O_RDONLY, 0);
  }
  const std::string out = m_impl->folder.file("out.txt").toStdUTF8();
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  const std::string err = m_impl->folder.file("err.txt").toStdUTF8();
  std::string slaveName;
  if (options.stderrTerminal) {
    m_impl->stderrTerminal = true;
    m_impl->terminal = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (m_impl->terminal < 0 || ::grantpt(m_impl->terminal) != 0 ||
        ::unlockpt(m_impl->terminal) != 0) {
      throwSysError("posix_openpt", "CProgramRun");
    }
    slaveName = ::ptsname(m_impl->terminal);
    m_impl->terminalSlave = ::open(slaveName.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    posix_spawn_file_actions_adddup2(&actions, m_impl->terminalSlave, 2);
    m_impl->terminalReader = std::thread([impl = m_impl.get()] {
      char buffer[4096];
      for (;;) {
        const ssize_t got = ::read(impl->terminal, buffer, sizeof(buffer));
        if (got <= 0) return;  // EIO once no one holds the terminal open
        std::lock_guard<std::mutex> lock(impl->mutex);
        impl->terminalText.append(buffer, static_cast<size_t>(got));
      }
    });
  } else {
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  }
  const std::string cwd = options.cwd.toStdUTF8();
  if (!cwd.empty()) posix_spawn_file_actions_addchdir_np(&actions, cwd.c_str());

  // The child starts with every signal unblocked and at its default action,
  // whatever the test runner did.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none, defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) sigaddset(&defaults, signal);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  const int result = ::posix_spawn(&m_impl->pid, native[0].c_str(), &actions, &attributes,
                                   argv.data(), envp.data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (inputRead >= 0) ::close(inputRead);
  if (result != 0) {
    m_impl->endTerminal();
    throwSysError("posix_spawn", "CProgramRun", result);
  }
}

CProgramRun::~CProgramRun() {
  if (!m_impl->ended) {
    ::kill(m_impl->pid, SIGKILL);
    wait(-1);
  }
  closeInput();
  m_impl->endTerminal();
}

int CProgramRun::wait(int timeoutMs) {
  if (m_impl->ended) return m_impl->exitCode;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    int status = 0;
    const pid_t done = ::waitpid(m_impl->pid, &status, timeoutMs < 0 ? 0 : WNOHANG);
    if (done == m_impl->pid) {
      m_impl->ended = true;
      m_impl->exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      m_impl->endTerminal();
      return m_impl->exitCode;
    }
    if (done < 0 && errno != EINTR) return -1;
    if (timeoutMs >= 0 && std::chrono::steady_clock::now() >= deadline) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

int64 CProgramRun::pid() const { return m_impl->pid; }

void CProgramRun::sendSignal(int signal) {
  if (!m_impl->ended) ::kill(m_impl->pid, signal);
}

void CProgramRun::writeInput(const std::string& bytes) {
  // A program that has gone makes the write fail with EPIPE rather than
  // end this process.
  static const bool sigpipeIgnored = (::signal(SIGPIPE, SIG_IGN), true);
  (void)sigpipeIgnored;
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t written = ::write(m_impl->input, bytes.data() + done, bytes.size() - done);
    if (written < 0) {
      if (errno == EINTR) continue;
      return;  // the program has gone: what it read is what counts
    }
    done += static_cast<size_t>(written);
  }
}

void CProgramRun::closeInput() {
  if (m_impl->input >= 0) ::close(m_impl->input);
  m_impl->input = -1;
}

std::string CProgramRun::readOutput() const {
  return test::readFileBytes(m_impl->folder.file("out.txt"));
}

std::string CProgramRun::readError() const {
  if (m_impl->stderrTerminal) {
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    return m_impl->terminalText;
  }
  return test::readFileBytes(m_impl->folder.file("err.txt"));
}

#endif

}  // namespace zel::tool_test
