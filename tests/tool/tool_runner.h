// Runs a program (the zel tool, or python3 to check its JSON) as its users
// do: arguments as the platform passes them, standard output and error
// caught in files, standard input from the null device, a file, or a pipe
// the test writes to; on Linux also signals and a pseudo-terminal as
// standard error.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "zel/core/string.h"
#include "zel/core/types.h"

namespace zel::tool_test {

struct CRunOptions {
  // Environment variables set for the child (Linux: in its environment;
  // Windows: in this process while the child starts, which inherits them).
  std::vector<std::pair<std::string, std::string>> env;
  String cwd;                   // empty: this process's current folder
  String stdinFile;             // read as standard input; empty: the null device
  bool stdinPipe = false;       // standard input is a pipe the test writes to
  bool stderrTerminal = false;  // Linux only: standard error is a pseudo-terminal
};

class CProgramRun {
 public:
  // Starts program with args (argv[0] is program). Throws CError.
  CProgramRun(const String& program, const std::vector<String>& args,
              const CRunOptions& options = CRunOptions());
  // Kills the program if it still runs, and reaps it.
  ~CProgramRun();
  CProgramRun(const CProgramRun&) = delete;
  CProgramRun& operator=(const CProgramRun&) = delete;

  // The exit code, 128 + the signal for a program ended by one (Linux), or
  // -1 when it still runs after timeoutMs (-1: no limit).
  int wait(int timeoutMs);
  int64 pid() const;
  // Linux only.
  void sendSignal(int signal);
  void writeInput(const std::string& bytes);
  void closeInput();
  // What the program wrote so far.
  std::string readOutput() const;
  std::string readError() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

struct CRunResult {
  int code = -1;
  // Text as a reader takes it: Windows line ends ("\r\n", which the C
  // runtime writes for "\n") become "\n".
  std::string out;
  std::string err;
  // Standard output byte for byte.
  std::string rawOut;
};

// The zel tool beside this test executable.
String toolPath();

// Runs the zel tool with args to its end (at most 120 s).
CRunResult runTool(const std::vector<String>& args, const CRunOptions& options = CRunOptions());

}  // namespace zel::tool_test
