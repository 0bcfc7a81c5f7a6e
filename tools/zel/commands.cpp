#include "commands.h"

#include <optional>

namespace zeltool {

const std::vector<CommandDef>& toolCommands() {
  static const std::vector<CommandDef> commands = {
      infoCommand(),
      serveCommand(),
      fsCommand(),
      demoCommand(),
  };
  return commands;
}

int runCommand(const std::string& parent, const CommandDef& command, const Args& args,
               const char* logName, const RunOptions& options) {
  CCommandContext context;
  context.program = options.program.empty() ? parent + " " + command.name : options.program;
  return guarded(context.program, context.out, [&] {
    context.args = parseCommandArgs(command, args);
    if (context.args.has("help")) {
      printOut(commandHelp(parent.c_str(), command, options.groupOptions));
      return static_cast<int>(ExitSuccess);
    }
    context.out = COutput::fromArgs(context.args);
    bool keepLog = !context.args.has("no-log");
    if (const CParsedArgs* group = options.groupArgs) {
      const COutput groupOut = COutput::fromArgs(*group);
      context.out.quiet = context.out.quiet || groupOut.quiet;
      context.out.verbose = (context.out.verbose || groupOut.verbose) && !context.out.quiet;
      keepLog = keepLog && !group->has("no-log");
    }
    std::optional<CToolLog> log;
    if (logName) {
      log.emplace(context.program, context.out, command.showsLibraryNotices, keepLog, logName);
    }
    if (options.prepare) options.prepare(context);
    return command.run(context);
  });
}

}  // namespace zeltool
