#pragma once
// The command line of kasset: global options, one subcommand, its options and its arguments.

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kasset {

struct OptionSpec {
  std::string name; // without the leading "--"
  std::string valueName; // empty for a flag
  std::string help;
  bool repeatable = false;
};

struct CommandSpec {
  std::string name;
  std::string arguments; // for the usage line, e.g. "ID DIR"
  std::size_t minArgs = 0;
  std::size_t maxArgs = 0; // SIZE_MAX for any number
  std::string summary;   // one line for the command list
  std::string details;   // paragraphs for "kasset CMD --help"
  std::vector<OptionSpec> options;
};

struct CommandLine {
  std::string command; // empty when none was given
  std::vector<std::string> args;
  // Options by name; a flag has one empty value per occurrence.
  std::map<std::string, std::vector<std::string>> options;
  bool help = false;

  bool Has(const std::string& name) const { return options.count(name) != 0; }
  // The last value of an option.
  std::optional<std::string> Get(const std::string& name) const;
  std::vector<std::string> GetAll(const std::string& name) const;
};

// Parses argv (without the program name). Global options are accepted before and after the
// command; "--name=value" and "--name value" both work; "--" ends the options. On a usage error
// returns the message in error and leaves the result partly filled.
CommandLine ParseCommandLine(const std::vector<std::string>& argv, const std::vector<OptionSpec>& globalOptions,
                             const std::vector<CommandSpec>& commands, std::string& error);

const CommandSpec* FindCommand(const std::vector<CommandSpec>& commands, const std::string& name);

// The help text of a command (usage, details, options).
std::string CommandHelp(const CommandSpec& command);
// The lines of an option list, each "  --name VALUE   help".
std::string OptionsHelp(const std::vector<OptionSpec>& options);

} // namespace kasset
