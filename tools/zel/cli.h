// The command line of the zel tool: commands with their options and operands,
// parsed and checked completely before a command does anything, and the help
// texts made from the same descriptions.
//
// Syntax, as GNU tools have it: "--name", "--name=value", "--name value",
// "-x", "-xyz" (flags), "-x value"; options may come before or after the
// operands; "--" ends the options; "-" alone is an operand (standard input
// or output). A command group (`zel fs`) takes its own options before the
// name of its subcommand, whose options may follow anywhere.
#pragma once

#include <exception>
#include <string>
#include <vector>

#include "zel/core/string.h"

namespace zeltool {

using Args = std::vector<zel::String>;

// A mistake in the command line: one line on standard error, exit code 2.
class CUsageError : public std::exception {
 public:
  explicit CUsageError(const zel::String& text) : m_text(text) {}
  const zel::String& getText() const { return m_text; }
  const char* what() const noexcept override { return "usage error"; }

 private:
  zel::String m_text;
};

struct OptionDef {
  const char* name;       // the long name, without "--"
  char shortName;         // 0: none
  const char* valueName;  // null for a flag
  const char* help;
};

class CParsedArgs {
 public:
  bool has(const char* name) const;
  // The last value given for the option; empty when it was not given.
  zel::String getValue(const char* name) const;
  // Every value given for the option, in order.
  Args getValues(const char* name) const;
  const Args& getOperands() const { return m_operands; }
  // What followed the first operand, untouched (stopAtFirstOperand only).
  const Args& getRest() const { return m_rest; }

 private:
  friend CParsedArgs parseArgs(const Args&, const std::vector<OptionDef>&, bool);
  std::vector<std::pair<std::string, zel::String>> m_options;
  Args m_operands;
  Args m_rest;
};

// Parses args against options. With stopAtFirstOperand, the first operand
// ends parsing: it is the only operand, and everything after it is left in
// getRest(). Throws CUsageError naming an unknown option, a missing value or
// a value given to a flag.
CParsedArgs parseArgs(const Args& args, const std::vector<OptionDef>& options,
                      bool stopAtFirstOperand = false);

class CCommandContext;

// One command: its words, options, operands and what runs it.
struct CommandDef {
  const char* name;
  const char* operands;  // the operands as the synopsis shows them ("REMOTE [LOCAL]")
  const char* summary;   // one line for lists of commands
  const char* details;   // more text for the command's help; may be null
  std::vector<OptionDef> options;
  int minOperands;
  int maxOperands;  // -1: any number
  int (*run)(CCommandContext& context);
  // A group of commands (`zel fs`) parses and dispatches its arguments
  // itself; run is then null.
  int (*runGroup)(const Args& args) = nullptr;
  // The library's warnings and errors go to standard error without
  // --verbose too (a server's operator wants them; a client's user has the
  // command's own one-line error and the log file).
  bool showsLibraryNotices = false;
};

// Options every command takes.
const std::vector<OptionDef>& commonOptions();
// The --json option of commands that print data.
const OptionDef& jsonOption();
// The -b/--bytes option of commands that print sizes.
const OptionDef& bytesOption();

// "usage: PROGRAM [options] OPERANDS", the summary, details and options.
std::string commandHelp(const char* program, const CommandDef& command,
                        const std::vector<OptionDef>& groupOptions = {});
// The help of a group of commands: its synopsis, its own options and one line
// per command.
std::string groupHelp(const char* program, const char* synopsis, const char* summary,
                      const std::vector<OptionDef>& groupOptions,
                      const std::vector<CommandDef>& commands, const char* footer);

// The command named name, or null.
const CommandDef* findCommand(const std::vector<CommandDef>& commands, const zel::String& name);

// Parses a command's arguments (its options, the common ones included) and
// checks the number of operands; throws CUsageError.
CParsedArgs parseCommandArgs(const CommandDef& command, const Args& args);

}  // namespace zeltool
