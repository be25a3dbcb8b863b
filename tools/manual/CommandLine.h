// What the command-line parser knows of gatewayctl, as help, man pages and completions need it.
//
// Any thread; plain values that keep no reference to the parser.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace manual {

// An option, or an argument without a name in front ("positional").
struct Option {
  std::vector<std::string> names;  // such as "-h" and "--help"; none for a positional
  std::string value;               // the name of its value, such as "N"; empty for a flag
  std::string description;         // sentences, the first of which is a summary
  std::string defaultValue;        // or empty
  // The only words that it accepts; empty if there is no such list. Those of a flag follow "=".
  std::vector<std::string> choices;
  std::vector<std::string> excluded;  // names of the options that can't be given with it
  bool takesFile = false;
  bool hasOptionalValue = false;
  bool takesSeveral = false;
  bool isRequired = false;
  bool standsAlone = false;  // such as --help: the program ignores everything else

  bool isPositional() const { return names.empty(); }
  bool takesValue() const { return !value.empty(); }
  std::string summary() const;  // its first sentence, without the full stop
};

struct Command {
  std::vector<std::string> path;  // such as "gatewayctl" and "sim"
  std::string description;        // in the imperative, without a full stop
  std::string text;               // its manual
  std::vector<Option> options;    // positionals first
  std::vector<Command> subcommands;

  const std::string& name() const { return path.back(); }
  std::string fullName(const char* separator) const;
};

// The parser of a sub-command, or of the whole program. Sub-commands without a group are hidden and
// left out.
Command commandOf(const CLI::App& app);

}  // namespace manual
