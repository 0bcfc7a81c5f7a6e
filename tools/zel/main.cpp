// zel: the library's command-line tool.
//
//   zel info                 library version, platform, wxWidgets version, the
//                            current 8-bit code page, and a self-check.
//   zel serve --share NAME=FOLDER ...
//                            serves folders to other processes until stopped
//                            (Ctrl+C, SIGTERM); a share named NAME is reached as
//                            zel://NAME/... or /NAME/... for short.
//   zel fs COMMAND ARGS      a client of such a server: ls, stat, get, put,
//                            mkdir, rm, mv, df.
//   zel demo                 starts a server process on a temporary folder and
//                            runs a client session against it, timing each step.
//
// Exit codes: 0 success, 1 the operation failed, 2 a usage error; an
// interrupted transfer ends as the interruption would have ended it.
#include <wx/strconv.h>

#include <cstdio>

#include "commands.h"
#include "failure.h"
#include "platform.h"
#include "tool.h"
#include "zel/core/version.h"
#include "zel/init/zel_init.h"

namespace zeltool {

namespace {

const std::vector<OptionDef>& topOptions() {
  static const std::vector<OptionDef> options = {
      {"help", 'h', nullptr, "show this help and exit"},
      {"version", 0, nullptr, "show the version and exit"},
  };
  return options;
}

std::string topHelp() {
  return groupHelp("zel", "[--version] [--help] COMMAND [ARGS]",
                   "The command-line tool of the zel library.", topOptions(), toolCommands(),
                   "Run 'zel COMMAND --help' for the options of a command.\n"
                   "Exit codes: 0 success, 1 the operation failed, 2 a usage error.\n");
}

// `zel help [COMMAND [SUBCOMMAND]]`
int runHelp(const Args& words) {
  if (words.empty()) {
    printOut(topHelp());
    return ExitSuccess;
  }
  const CommandDef* command = findCommand(toolCommands(), words[0]);
  if (!command) throw CUsageError("unknown command '" + words[0] + "'; see 'zel --help'");
  Args args(words.begin() + 1, words.end());
  args.push_back("--help");
  return command->runGroup ? command->runGroup(args) : runCommand("zel", *command, args, nullptr);
}

int runTool(const Args& args) {
  const COutput quiet;
  return guarded("zel", quiet, [&] {
    const CParsedArgs top = parseArgs(args, topOptions(), true);
    if (top.has("version")) {
      printOut(std::string("zel ") + ZEL_VERSION_STRING + "\n");
      return static_cast<int>(ExitSuccess);
    }
    if (top.has("help")) return runHelp(Args());
    if (top.getOperands().empty()) {
      std::fputs(topHelp().c_str(), stderr);
      return static_cast<int>(ExitUsage);
    }
    const zel::String& name = top.getOperands()[0];
    if (name == "help") return runHelp(top.getRest());
    const CommandDef* command = findCommand(toolCommands(), name);
    if (!command) throw CUsageError("unknown command '" + name + "'; see 'zel --help'");
    if (command->runGroup) return command->runGroup(top.getRest());
    return runCommand("zel", *command, top.getRest(), command->name);
  });
}

#ifndef _WIN32
// The locale's encoding (set up by CZelInit), else UTF-8 as most systems
// write names; bytes that are neither read as Latin-1.
zel::String decodeArgument(const char* arg) {
  const wxWCharBuffer wide = wxConvLibc.cMB2WC(arg);
  if (wide.data()) return zel::String(wide.data());
  return zel::String::fromUTF8(arg);
}
#endif

template <class Char>
int toolMain(int argc, Char** argv) {
  // First, before any thread exists (see CInterruptWatch).
  CInterruptWatch interrupts;
  int status;
  {
    zel::CZelInit init;
    Args args;
    for (int i = 1; i < argc; ++i) {
#ifdef _WIN32
      args.push_back(zel::String(argv[i]));
#else
      args.push_back(decodeArgument(argv[i]));
#endif
    }
    status = runTool(args);
  }
  zel::CZelInit::onApplicationExit();
  std::fflush(stdout);
  if (status == ExitInterrupted) endAsInterrupted();
  return status;
}

}  // namespace

}  // namespace zeltool

#ifdef _WIN32
// Linked with -municode: the arguments arrive as UTF-16, whatever the code page.
int wmain(int argc, wchar_t** argv) { return zeltool::toolMain(argc, argv); }
#else
int main(int argc, char** argv) { return zeltool::toolMain(argc, argv); }
#endif
