// Child processes of the tool: `zel demo` runs its server as one.
#pragma once

#include <memory>
#include <vector>

#include "zel/core/string.h"

namespace zeltool {

// A child process whose standard input is a pipe held by the parent, so that
// closing it tells the child to finish (the same way on Linux and Windows).
class CChildProcess {
 public:
  // Starts the tool's own executable with args; throws zel::CError on failure.
  explicit CChildProcess(const std::vector<zel::String>& args);
  ~CChildProcess();
  CChildProcess(const CChildProcess&) = delete;
  CChildProcess& operator=(const CChildProcess&) = delete;

  long long getPID() const;
  // Closes the child's standard input.
  void closeInput();
  // The exit code, or -1 when the child is still running after timeoutMs.
  int wait(int timeoutMs);
  // Ends the child at once.
  void kill();

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace zeltool
