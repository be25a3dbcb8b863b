#include "tools/manual/Completion.h"

#include <fmt/ranges.h>

#include <map>
#include <vector>

#include "texts.h"
#include "tools/common/ManualText.h"
#include "tools/common/Words.h"

namespace manual {
namespace {

using Words = std::vector<std::string>;

std::string spaced(const Words& words) {
  return fmt::to_string(fmt::join(words, " "));
}

// The program's own options count as those of a sub-command without a name.
std::string nameOf(const Command& command) {
  return command.path.size() == 1 ? "" : command.name();
}

template <typename Function>
void forEachCommand(const Command& program, const Function& use) {
  use(program);
  for (const Command& command : program.subcommands) use(command);
}

Words namesOf(const Command& command) {
  Words names;
  for (const Option& option : command.options) {
    names.insert(names.end(), option.names.begin(), option.names.end());
  }
  return names;
}

Words namesOf(const std::vector<Command>& commands) {
  Words names;
  for (const Command& command : commands) names.push_back(command.name());
  return names;
}

// In single quotes, for all three shells.
std::string quoted(const std::string& text) {
  return fmt::format("'{}'", CLI::detail::find_and_replace(text, "'", "'\\''"));
}

// ---- bash -------------------------------------------------------------------------------------

// What a value can be, as assignments of the script.
std::string assignments(const Option& option) {
  return fmt::format("words={} files={}", quoted(spaced(option.choices)),
                     option.takesFile ? "yes" : "");
}

std::string bashCommands(const Command& program) {
  std::string text;
  forEachCommand(program, [&](const Command& command) {
    std::string values =
        fmt::format("words={} files=", quoted(spaced(namesOf(command.subcommands))));
    for (const Option& option : command.options) {
      if (option.isPositional()) values = assignments(option);
    }
    text += fmt::format("    {}) options={} {} ;;\n", quoted(nameOf(command)),
                        quoted(fmt::format(" {} ", spaced(namesOf(command)))), values);
  });
  return text;
}

// Patterns of options that have a text in common, each with that text.
std::string bashCases(const std::map<std::string, Words>& patternsByText) {
  std::string text;
  for (const auto& [common, patterns] : patternsByText) {
    text += fmt::format("    {}) {} ;;\n", fmt::join(patterns, " | "), common);
  }
  return text;
}

std::string bashExclusions(const Command& program) {
  std::map<std::string, Words> patterns;
  forEachCommand(program, [&](const Command& command) {
    for (const Option& option : command.options) {
      if (option.isPositional() || option.excluded.empty()) continue;
      const std::string excluded = fmt::format("excluded={}", quoted(spaced(option.excluded)));
      patterns[excluded].push_back(quoted(nameOf(command) + " " + option.names.back()));
    }
  });
  return bashCases(patterns);
}

std::string bashValues(const Command& program) {
  std::map<std::string, Words> patterns;
  forEachCommand(program, [&](const Command& command) {
    for (const Option& option : command.options) {
      if (option.isPositional() || !option.takesValue() || option.hasOptionalValue) continue;
      const std::string value = "options= " + assignments(option);
      for (const std::string& name : option.names) {
        patterns[value].push_back(quoted(nameOf(command) + " " + name));
      }
    }
  });
  return bashCases(patterns);
}

// ---- zsh --------------------------------------------------------------------------------------

// The end of a specification of _arguments: the name of the value, and what it can be.
std::string zshValue(const Option& option) {
  if (!option.takesValue()) return "";
  std::string action = " ";
  if (option.takesFile) action = "_files";
  if (!option.choices.empty()) action = fmt::format("({})", spaced(option.choices));
  return fmt::format(":{}{}:{}", option.hasOptionalValue ? ":" : "",
                     tools::escaped(option.value, ":"), action);
}

std::string zshOption(const Option& option) {
  if (option.isPositional())
    return " " + quoted((option.takesSeveral ? "*" : "") + zshValue(option));
  const std::string excluded = option.standsAlone ? "- *" : spaced(option.excluded);
  std::string text;
  for (const std::string& name : option.names) {
    text += " " + quoted(fmt::format("{}{}{}[{}]{}", excluded.empty() ? "" : "(" + excluded + ")",
                                     option.takesSeveral ? "*" : "", name,
                                     tools::escaped(option.summary(), "[]"), zshValue(option)));
  }
  return text;
}

std::string zshArguments(const Command& program) {
  std::string text;
  forEachCommand(program, [&](const Command& command) {
    text += fmt::format("    {})\n      _arguments", quoted(nameOf(command)));
    for (const Option& option : command.options) text += " \\\n       " + zshOption(option);
    text += "\n      ;;\n";
  });
  return text;
}

std::string zshCommands(const Command& program) {
  std::string text;
  for (const Command& command : program.subcommands) {
    text += fmt::format("    {}\n", quoted(command.name() + ":" + command.description));
  }
  return text;
}

// ---- fish -------------------------------------------------------------------------------------

std::string fishValue(const Option& option) {
  if (!option.takesValue() || option.hasOptionalValue) return "";
  if (option.takesFile) return option.isPositional() ? " -F" : " -rF";
  if (option.choices.empty()) return option.isPositional() ? "" : " -x";
  return fmt::format(" {} {}", option.isPositional() ? "-a" : "-xa",
                     quoted(spaced(option.choices)));
}

std::string fishOption(const Command& command, const Option& option) {
  if (option.isPositional() && fishValue(option).empty()) return "";
  Words condition{"__gatewayctl_in", command.path.size() == 1 ? "\"\"" : command.name()};
  condition.insert(condition.end(), option.excluded.begin(), option.excluded.end());
  std::string text = "complete -c gatewayctl -n " + quoted(spaced(condition));
  for (const std::string& name : option.names) {
    text += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
  }
  text += fishValue(option);
  if (!option.isPositional()) text += " -d " + quoted(option.summary());
  return text + "\n";
}

std::string fishCompletions(const Command& program) {
  std::string text;
  for (const Command& command : program.subcommands) {
    text += fmt::format("complete -c gatewayctl -n '__gatewayctl_in \"\"' -a {} -d {}\n",
                        command.name(), quoted(command.description));
  }
  forEachCommand(program, [&](const Command& command) {
    text += "\n";
    for (const Option& option : command.options) text += fishOption(command, option);
  });
  return text;
}

}  // namespace

std::string bashCompletion(const Command& program) {
  return tools::filled(completion_bash, {{"commands", bashCommands(program)},
                                         {"exclusions", bashExclusions(program)},
                                         {"values", bashValues(program)}});
}

std::string zshCompletion(const Command& program) {
  return tools::filled(completion_zsh,
                       {{"commands", zshCommands(program)}, {"arguments", zshArguments(program)}});
}

std::string fishCompletion(const Command& program) {
  return tools::filled(completion_fish, {{"completions", fishCompletions(program)}});
}

}  // namespace manual
