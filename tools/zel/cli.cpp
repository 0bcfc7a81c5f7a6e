#include "cli.h"

#include <algorithm>
#include <cstring>

namespace zeltool {

namespace {

const OptionDef* findLong(const std::vector<OptionDef>& options, const std::string& name) {
  for (const OptionDef& option : options) {
    if (name == option.name) return &option;
  }
  return nullptr;
}

const OptionDef* findShort(const std::vector<OptionDef>& options, char name) {
  for (const OptionDef& option : options) {
    if (option.shortName != 0 && option.shortName == name) return &option;
  }
  return nullptr;
}

zel::String quoted(const zel::String& text) { return "'" + text + "'"; }

std::string optionLabel(const OptionDef& option) {
  std::string label = option.shortName ? std::string("-") + option.shortName + ", " : "    ";
  label += std::string("--") + option.name;
  if (option.valueName) label += std::string(" ") + option.valueName;
  return label;
}

void appendOptions(std::string& text, const char* title, const std::vector<OptionDef>& options) {
  if (options.empty()) return;
  size_t width = 0;
  for (const OptionDef& option : options) width = std::max(width, optionLabel(option).size());
  text += std::string("\n") + title + ":\n";
  for (const OptionDef& option : options) {
    const std::string label = optionLabel(option);
    text += "  " + label + std::string(width - label.size() + 2, ' ') + option.help + "\n";
  }
}

}  // namespace

bool CParsedArgs::has(const char* name) const {
  return std::any_of(m_options.begin(), m_options.end(),
                     [&](const auto& option) { return option.first == name; });
}

zel::String CParsedArgs::getValue(const char* name) const {
  zel::String value;
  for (const auto& option : m_options) {
    if (option.first == name) value = option.second;
  }
  return value;
}

Args CParsedArgs::getValues(const char* name) const {
  Args values;
  for (const auto& option : m_options) {
    if (option.first == name) values.push_back(option.second);
  }
  return values;
}

CParsedArgs parseArgs(const Args& args, const std::vector<OptionDef>& options,
                      bool stopAtFirstOperand) {
  CParsedArgs parsed;
  bool optionsEnded = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const zel::String& arg = args[i];
    const std::wstring text = arg.toStdWString();
    if (optionsEnded || text.size() < 2 || text[0] != L'-') {
      if (stopAtFirstOperand) {
        parsed.m_operands.push_back(arg);
        parsed.m_rest.assign(args.begin() + static_cast<long>(i) + 1, args.end());
        return parsed;
      }
      parsed.m_operands.push_back(arg);
      continue;
    }
    if (text == L"--") {
      optionsEnded = true;
      continue;
    }
    if (text[1] == L'-') {
      const size_t equals = text.find(L'=');
      const std::string name =
          zel::String(
              text.substr(2, equals == std::wstring::npos ? std::wstring::npos : equals - 2))
              .toStdUTF8();
      const OptionDef* option = findLong(options, name);
      if (!option)
        throw CUsageError("unknown option " + quoted(zel::String(text.substr(0, equals))));
      if (!option->valueName) {
        if (equals != std::wstring::npos) {
          throw CUsageError("option " + quoted("--" + zel::String(name)) + " takes no value");
        }
        parsed.m_options.emplace_back(option->name, zel::String());
      } else if (equals != std::wstring::npos) {
        parsed.m_options.emplace_back(option->name, zel::String(text.substr(equals + 1)));
      } else {
        if (i + 1 >= args.size()) {
          throw CUsageError("option " + quoted(arg) + " needs a value (" + option->valueName + ")");
        }
        parsed.m_options.emplace_back(option->name, args[++i]);
      }
      continue;
    }
    // One or more short options: flags, of which the last may take a value
    // (the rest of the word or the next argument).
    for (size_t at = 1; at < text.size(); ++at) {
      const wchar_t letter = text[at];
      const OptionDef* option =
          letter < 128 ? findShort(options, static_cast<char>(letter)) : nullptr;
      if (!option)
        throw CUsageError("unknown option " + quoted("-" + zel::String(text.substr(at, 1))));
      if (!option->valueName) {
        parsed.m_options.emplace_back(option->name, zel::String());
        continue;
      }
      if (at + 1 < text.size()) {
        parsed.m_options.emplace_back(option->name, zel::String(text.substr(at + 1)));
      } else if (i + 1 < args.size()) {
        parsed.m_options.emplace_back(option->name, args[++i]);
      } else {
        throw CUsageError("option " + quoted("-" + zel::String(text.substr(at, 1))) +
                          " needs a value (" + option->valueName + ")");
      }
      break;
    }
  }
  return parsed;
}

const std::vector<OptionDef>& commonOptions() {
  static const std::vector<OptionDef> options = {
      {"help", 'h', nullptr, "show this help and exit"},
      {"quiet", 'q', nullptr, "no progress and no notices, only errors"},
      {"verbose", 'v', nullptr, "more detail: whole error descriptions, the library's notices"},
      {"no-log", 0, nullptr, "keep no log file (default: $XDG_STATE_HOME/zel/COMMAND/log.xml)"},
  };
  return options;
}

const OptionDef& jsonOption() {
  static const OptionDef option{"json", 0, nullptr, "print the result as JSON (sizes in bytes)"};
  return option;
}

const OptionDef& bytesOption() {
  static const OptionDef option{"bytes", 'b', nullptr, "sizes in bytes rather than 1.5K, 12M ..."};
  return option;
}

std::string commandHelp(const char* program, const CommandDef& command,
                        const std::vector<OptionDef>& groupOptions) {
  std::string text = std::string("usage: ") + program + " " + command.name + " [options]";
  if (command.operands && *command.operands) text += std::string(" ") + command.operands;
  text += std::string("\n\n") + command.summary + "\n";
  if (command.details) text += std::string("\n") + command.details;
  appendOptions(text, "options", command.options);
  appendOptions(text, "common options", commonOptions());
  appendOptions(text, (std::string(program) + " options (before the command)").c_str(),
                groupOptions);
  return text;
}

std::string groupHelp(const char* program, const char* synopsis, const char* summary,
                      const std::vector<OptionDef>& groupOptions,
                      const std::vector<CommandDef>& commands, const char* footer) {
  std::string text = std::string("usage: ") + program + " " + synopsis + "\n\n" + summary + "\n";
  appendOptions(text, "options", groupOptions);
  size_t width = 0;
  for (const CommandDef& command : commands) width = std::max(width, std::strlen(command.name));
  text += "\ncommands:\n";
  for (const CommandDef& command : commands) {
    text += std::string("  ") + command.name +
            std::string(width - std::strlen(command.name) + 2, ' ') + command.summary + "\n";
  }
  if (footer) text += std::string("\n") + footer;
  return text;
}

const CommandDef* findCommand(const std::vector<CommandDef>& commands, const zel::String& name) {
  for (const CommandDef& command : commands) {
    if (name == command.name) return &command;
  }
  return nullptr;
}

CParsedArgs parseCommandArgs(const CommandDef& command, const Args& args) {
  std::vector<OptionDef> options = command.options;
  options.insert(options.end(), commonOptions().begin(), commonOptions().end());
  CParsedArgs parsed = parseArgs(args, options);
  if (parsed.has("help")) return parsed;
  const int count = static_cast<int>(parsed.getOperands().size());
  if (count < command.minOperands) {
    throw CUsageError(std::string(command.name) + ": missing operand (" + command.operands + ")");
  }
  if (command.maxOperands >= 0 && count > command.maxOperands) {
    throw CUsageError(std::string(command.name) + ": unexpected operand " +
                      quoted(parsed.getOperands()[static_cast<size_t>(command.maxOperands)]));
  }
  return parsed;
}

}  // namespace zeltool
