// zel fs: a client of a running `zel serve`. The commands live in fs_*.cpp;
// this file parses the options before the command and connects.
#include "fs.h"

#include <optional>

#include "zel/fs/proxy/proxy_file_system.h"
#include "zel/ipc/pipe.h"

namespace zeltool {

namespace {

const char kProgram[] = "zel fs";

const std::vector<OptionDef>& fsOptions() {
  static const std::vector<OptionDef> options = {
      {"address", 'a', "NAME", "the server's address name (default: fs)"},
      {"global", 0, nullptr, "the address is global (a server started with --global)"},
  };
  return options;
}

std::string fsHelp() {
  return groupHelp(kProgram, "[options] COMMAND [ARGS]", "Use the folders a `zel serve` shares.",
                   fsOptions(), fsCommands(),
                   "Remote files are /SHARE/path (a path: any character is part of a name) or\n"
                   "zel://SHARE/path (a URI, escaped as URIs are); '/' lists the shares.\n"
                   "Local files may be relative; '-' is standard input or output.\n"
                   "Run 'zel fs COMMAND --help' for the options of a command.\n");
}

int runFs(const Args& args) {
  COutput out;
  return guarded(kProgram, out, [&]() -> int {
    std::vector<OptionDef> options = fsOptions();
    options.insert(options.end(), commonOptions().begin(), commonOptions().end());
    const CParsedArgs group = parseArgs(args, options, true);
    out = COutput::fromArgs(group);
    if (group.has("help")) {
      printOut(fsHelp());
      return ExitSuccess;
    }
    if (group.getOperands().empty()) throw CUsageError("missing command; see 'zel fs --help'");
    const zel::String& name = group.getOperands()[0];
    Args rest = group.getRest();
    const CommandDef* command = findCommand(fsCommands(), name);
    if (name == "help") {
      if (rest.empty()) {
        printOut(fsHelp());
        return ExitSuccess;
      }
      command = findCommand(fsCommands(), rest[0]);
      if (!command) throw CUsageError("unknown command '" + rest[0] + "'; see 'zel fs --help'");
      rest = {"--help"};
    }
    if (!command) throw CUsageError("unknown command '" + name + "'; see 'zel fs --help'");
    const zel::CIPCAddress address = makeAddress(group, group.has("global"));

    zel::P<zel::CProxyFileSystem> fs;
    const CConnectionLostCheck connectionLost([&] { return fs && !fs->isUsable(); });
    RunOptions run;
    run.program = kProgram;
    run.groupOptions = fsOptions();
    run.groupArgs = &group;
    run.prepare = [&](CCommandContext& context) {
      context.server = [&]() -> zel::IFileSystem& {
        if (!fs) {
          zel::P<zel::IConnection> connection = zel::connectToPipeServerIfAvailable(address, 2000);
          if (!connection) {
            throw CFailure(zel::String(), "no server at " + describeEndpoint(address) +
                                              " (start one with: zel serve --share NAME=FOLDER)");
          }
          fs = zel::createObject<zel::CProxyFileSystem>(connection.get());
        }
        return *fs;
      };
    };
    const int status = runCommand(kProgram, *command, rest, "fs", run);
    if (fs) {
      try {
        fs->close();
      } catch (const zel::CError&) {
        // The command's result stands; a connection that broke at the end
        // has nothing left to lose.
      }
    }
    return status;
  });
}

}  // namespace

const std::vector<CommandDef>& fsCommands() {
  static const std::vector<CommandDef> commands = {
      fsListCommand(),  fsStatCommand(),   fsGetCommand(),  fsPutCommand(),
      fsMkdirCommand(), fsRemoveCommand(), fsMoveCommand(), fsSpaceCommand(),
  };
  return commands;
}

CommandDef fsCommand() {
  CommandDef command{"fs",
                     "[options] COMMAND [ARGS]",
                     "use a running server: ls, stat, get, put, mkdir, rm, mv, df",
                     nullptr,
                     {},
                     0,
                     -1,
                     nullptr};
  command.runGroup = &runFs;
  return command;
}

CRemotePath remoteOperand(const CCommandContext& context, size_t index) {
  return parseRemotePath(context.args.getOperands().at(index));
}

std::vector<CRemotePath> remoteOperands(const CCommandContext& context) {
  std::vector<CRemotePath> paths;
  for (size_t i = 0; i < context.args.getOperands().size(); ++i) {
    paths.push_back(remoteOperand(context, i));
  }
  return paths;
}

int forEachPath(CCommandContext& context, const std::vector<CRemotePath>& paths,
                const std::function<void(const CRemotePath& path)>& action) {
  int status = ExitSuccess;
  for (const CRemotePath& path : paths) {
    try {
      action(path);
    } catch (const CFailure& failure) {
      reportFailure(context.program, context.out, failure);
      status = ExitFailure;
    }
  }
  return status;
}

const char* typeName(zel::IFileInfoBase& info) {
  if (info.getSymLinkType() != zel::IFileInfoBase::SymLinkNone) return "link";
  switch (info.getType()) {
    case zel::IFileInfoBase::TypeFile:
      return "file";
    case zel::IFileInfoBase::TypeFolder:
      return "folder";
    case zel::IFileInfoBase::TypeOther:
      return "other";
    default:
      return "unknown";
  }
}

std::string modeString(zel::IFileInfoBase& info) {
  const std::string type = typeName(info);
  std::string mode(1, type == "link" ? 'l' : type == "folder" ? 'd' : type == "file" ? '-' : '?');
  if (!info.hasUnixInfo()) return mode + (info.isReadOnly() ? "r--r--r--" : "rw-rw-rw-");
  const zel::int64 bits = info.getUnixMode();
  const char* letters = "rwxrwxrwx";
  for (int i = 0; i < 9; ++i) mode += (bits & (0400 >> i)) ? letters[i] : '-';
  if (bits & 04000) mode[3] = (bits & 0100) ? 's' : 'S';
  if (bits & 02000) mode[6] = (bits & 0010) ? 's' : 'S';
  if (bits & 01000) mode[9] = (bits & 0001) ? 't' : 'T';
  return mode;
}

}  // namespace zeltool
