// Running the tool's commands: arguments parsed and checked first, --help
// answered, the log set up, and every way a command can end turned into
// its message and exit code. The commands themselves are listed here.
#pragma once

#include <cstdio>
#include <exception>
#include <functional>
#include <string>

#include "cli.h"
#include "failure.h"
#include "platform.h"
#include "tool.h"

namespace zeltool {

// A command that stopped because it was interrupted (platform.h), after
// cleaning up. main then ends the process as the interruption would have.
class CInterrupted : public std::exception {
 public:
  const char* what() const noexcept override { return "interrupted"; }
};
inline constexpr int ExitInterrupted = 130;

// Runs body; what it throws becomes one line on standard error (for
// program) and the exit code.
template <class Body>
int guarded(const std::string& program, const COutput& out, Body&& body) {
  try {
    return body();
  } catch (const CUsageError& e) {
    std::fprintf(stderr, "%s: %s\n", program.c_str(), toDisplay(e.getText()).c_str());
    return ExitUsage;
  } catch (const CInterrupted&) {
    if (!out.quiet)
      std::fprintf(stderr, "%s: interrupted by %s\n", program.c_str(), getInterruptName());
    return ExitInterrupted;
  } catch (const CFailure& failure) {
    reportFailure(program, out, failure);
    return ExitFailure;
  } catch (const zel::CError& e) {
    reportError(program, out, e);
    return ExitFailure;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s: %s\n", program.c_str(), e.what());
    return ExitFailure;
  }
}

struct RunOptions {
  // The name in messages; empty: parent + " " + the command's name.
  std::string program;
  // The options of the group before the command (`zel fs --address`), for
  // the help text, and their parsed values (common options given there
  // count for the command too).
  std::vector<OptionDef> groupOptions;
  const CParsedArgs* groupArgs = nullptr;
  // Runs after the arguments are parsed and before the command (`zel fs`
  // sets up the server's connection here).
  std::function<void(CCommandContext&)> prepare;
};

// Parses args for command and runs it. parent is what precedes the
// command's name in its help ("zel", "zel fs"); logName names the log
// folder (tool.h), none when null.
int runCommand(const std::string& parent, const CommandDef& command, const Args& args,
               const char* logName, const RunOptions& options = RunOptions());

// The commands.
CommandDef infoCommand();
CommandDef serveCommand();
CommandDef demoCommand();
CommandDef fsCommand();
CommandDef fsListCommand();
CommandDef fsStatCommand();
CommandDef fsGetCommand();
CommandDef fsPutCommand();
CommandDef fsMkdirCommand();
CommandDef fsRemoveCommand();
CommandDef fsMoveCommand();
CommandDef fsSpaceCommand();

}  // namespace zeltool
