// Parsing the kasset command line.

#include "args.h"

#include <algorithm>

namespace kasset {

namespace {

const OptionSpec* FindOption(const std::vector<OptionSpec>& options, const std::string& name) {
  for (const OptionSpec& o : options)
    if (o.name == name) return &o;
  return nullptr;
}

} // namespace

std::optional<std::string> CommandLine::Get(const std::string& name) const {
  auto it = options.find(name);
  if (it == options.end() || it->second.empty()) return std::nullopt;
  return it->second.back();
}

std::vector<std::string> CommandLine::GetAll(const std::string& name) const {
  auto it = options.find(name);
  return it == options.end() ? std::vector<std::string>() : it->second;
}

const CommandSpec* FindCommand(const std::vector<CommandSpec>& commands, const std::string& name) {
  for (const CommandSpec& c : commands)
    if (c.name == name) return &c;
  return nullptr;
}

CommandLine ParseCommandLine(const std::vector<std::string>& argv, const std::vector<OptionSpec>& globalOptions,
                             const std::vector<CommandSpec>& commands, std::string& error) {
  CommandLine line;
  const CommandSpec* command = nullptr;
  bool optionsEnded = false;
  for (std::size_t i = 0; i < argv.size(); ++i) {
    const std::string& arg = argv[i];
    if (!optionsEnded && arg == "--") {
      optionsEnded = true;
      continue;
    }
    if (!optionsEnded && (arg == "-h" || arg == "--help")) {
      line.help = true;
      continue;
    }
    if (!optionsEnded && arg.size() > 2 && arg.starts_with("--")) {
      std::string name = arg.substr(2);
      std::optional<std::string> value;
      if (const auto eq = name.find('='); eq != std::string::npos) {
        value = name.substr(eq + 1);
        name.resize(eq);
      }
      const OptionSpec* spec = FindOption(globalOptions, name);
      if (!spec && command) spec = FindOption(command->options, name);
      if (!spec) {
        error = command ? "unknown option --" + name + " for '" + command->name + "'" : "unknown option --" + name;
        return line;
      }
      if (spec->valueName.empty()) {
        if (value) {
          error = "option --" + name + " takes no value";
          return line;
        }
        value = "";
      } else if (!value) {
        if (i + 1 >= argv.size()) {
          error = "option --" + name + " needs a value (" + spec->valueName + ")";
          return line;
        }
        value = argv[++i];
      }
      auto& values = line.options[name];
      if (!values.empty() && !spec->repeatable) {
        error = "option --" + name + " given more than once";
        return line;
      }
      values.push_back(*value);
      continue;
    }
    if (!optionsEnded && arg.size() > 1 && arg.front() == '-') {
      error = "unknown option " + arg;
      return line;
    }
    if (!command) {
      command = FindCommand(commands, arg);
      if (!command) {
        error = "unknown command '" + arg + "'";
        return line;
      }
      line.command = arg;
      continue;
    }
    line.args.push_back(arg);
  }
  if (command && !line.help) {
    if (line.args.size() < command->minArgs) {
      error = "'" + command->name + "' needs " + (command->arguments.empty() ? "arguments" : command->arguments);
    } else if (line.args.size() > command->maxArgs) {
      error = "too many arguments for '" + command->name + "'";
    }
  }
  return line;
}

std::string OptionsHelp(const std::vector<OptionSpec>& options) {
  std::vector<std::string> lefts;
  std::size_t width = 0;
  for (const OptionSpec& o : options) {
    lefts.push_back("--" + o.name + (o.valueName.empty() ? "" : " " + o.valueName));
    width = std::max(width, lefts.back().size());
  }
  std::string text;
  for (std::size_t i = 0; i < options.size(); ++i)
    text += "  " + lefts[i] + std::string(width - lefts[i].size() + 3, ' ') + options[i].help + "\n";
  return text;
}

std::string CommandHelp(const CommandSpec& command) {
  std::string text = "usage: kasset [GLOBAL OPTIONS] " + command.name;
  if (!command.options.empty()) text += " [OPTIONS]";
  if (!command.arguments.empty()) text += " " + command.arguments;
  text += "\n\n" + command.summary + "\n";
  if (!command.details.empty()) text += "\n" + command.details + "\n";
  if (!command.options.empty()) text += "\nOptions:\n" + OptionsHelp(command.options);
  return text;
}

} // namespace kasset
