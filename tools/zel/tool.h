// Shared pieces of the zel command-line tool's commands.
//
// A command is a CommandDef (cli.h: name, operands, options, help) and a
// function that gets a CCommandContext with everything parsed and checked.
// It prints data with output.h, throws CFailure (failure.h) or CError for
// failures and CUsageError for mistakes in the arguments; main turns those
// into one line on standard error and the exit codes 1 and 2.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "cli.h"
#include "output.h"
#include "zel/fs/file_system.h"
#include "zel/ipc/ipc_address.h"
#include "zel/log/xml_log.h"

namespace zeltool {

// The application ID of the tool's IPC addresses.
inline const char* kAppID = "zel";
// The address `zel serve` and `zel fs` use unless told otherwise.
inline const char* kDefaultAddressName = "fs";

enum ExitCode { ExitSuccess = 0, ExitFailure = 1, ExitUsage = 2 };

// What a running command has: its name for messages ("zel fs"), its parsed
// arguments and output settings, and for the commands of `zel fs` the
// server's file system. A command checks all its operands before it asks
// for the server: server() connects on the first call.
struct CCommandContext {
  std::string program;
  CParsedArgs args;
  COutput out;
  std::function<zel::IFileSystem&()> server;
};

// The top-level commands, and the commands of `zel fs`.
const std::vector<CommandDef>& toolCommands();
const std::vector<CommandDef>& fsCommands();

// The tool's log for the life of a command: with --verbose every entry
// goes to standard error, with showNotices its warnings and errors do, with
// --quiet nothing; unless keepFile is false every entry goes to log.xml in
// logFolder(command).
class CToolLog : public zel::ILogListener {
 public:
  CToolLog(const std::string& program, const COutput& out, bool showNotices, bool keepFile,
           const char* command);
  ~CToolLog() override;
  CToolLog(const CToolLog&) = delete;
  CToolLog& operator=(const CToolLog&) = delete;
  void onLogEntry(const zel::CLogEntry& entry) override;

 private:
  std::string m_program;
  COutput m_out;
  bool m_showNotices;
};

// STATE/zel/COMMAND, STATE being the user's state folder (platform.h); empty
// when there is none.
zel::String logFolder(const char* command);

// The address named by --address (default kDefaultAddressName); throws
// CUsageError for a name that cannot be an address.
zel::CIPCAddress makeAddress(const CParsedArgs& args, bool global);

void printLine(const char* label, const zel::String& value);
// Where the server of address listens: the pipe or socket path.
zel::String describeEndpoint(const zel::CIPCAddress& address);

}  // namespace zeltool
