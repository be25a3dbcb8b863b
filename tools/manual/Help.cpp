#include "tools/manual/Help.h"

#include <fmt/ranges.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <vector>

#include "tools/common/ManualText.h"
#include "tools/common/Output.h"

namespace manual {
namespace {

std::string termOf(const Option& option) {
  std::string term = fmt::to_string(fmt::join(option.names, ", "));
  if (!option.takesValue()) {
    return option.choices.empty() ? term
                                  : fmt::format("{}[={}]", term, fmt::join(option.choices, "|"));
  }
  if (!option.isPositional()) term += ' ';
  term += option.hasOptionalValue ? fmt::format("[{}]", option.value) : option.value;
  return option.takesSeveral ? term + "..." : term;
}

std::string meaningOf(const Option& option) {
  std::string meaning = option.description;
  if (!option.defaultValue.empty()) {
    const char* const when = option.hasOptionalValue ? "Without a value" : "Default";
    meaning += fmt::format(" {}: {}.", when, option.defaultValue);
  }
  for (const std::string& other : option.excluded) {
    meaning += &other == &option.excluded.front() ? " Not with " : ", ";
    meaning += other;
  }
  return option.excluded.empty() ? meaning : meaning + ".";
}

std::string optionsOf(const Command& command) {
  constexpr std::size_t column = 28;
  std::string text;
  for (const Option& option : command.options) {
    text += tools::manualEntry(termOf(option), meaningOf(option), column);
  }
  return text;
}

std::string subcommandsOf(const Command& command) {
  constexpr std::size_t column = 14;
  std::string text;
  for (const Command& each : command.subcommands) {
    text += tools::manualEntry(each.name(), each.description + ".", column);
  }
  return text;
}

}  // namespace

std::string bodyOf(const Command& command) {
  std::vector<tools::ManualPart> parts{{"options", optionsOf(command)}};
  if (!command.subcommands.empty()) parts.push_back({"subcommands", subcommandsOf(command)});
  return tools::filled(command.text, parts);
}

std::string usageOf(const Command& command) {
  std::string usage = command.fullName(" ") + " [OPTIONS]";
  if (!command.subcommands.empty()) usage += " SUBCOMMAND";
  for (const Option& option : command.options) {
    if (!option.isPositional()) break;
    usage += option.isRequired ? " " + termOf(option) : fmt::format(" [{}]", termOf(option));
  }
  return usage;
}

std::string titleOf(const Command& command, const char* separator) {
  std::string description = command.description;
  description.front() = static_cast<char>(std::tolower(description.front()));
  return fmt::format("{} - {}", command.fullName(separator), description);
}

std::string helpOf(const Command& command) {
  return fmt::format("{}\n\nUsage: {}\n\n{}", titleOf(command, " "), usageOf(command),
                     bodyOf(command));
}

std::string HelpFormatter::make_help(const CLI::App* app, std::string, CLI::AppFormatMode) const {
  // Longer lines are hard to read. A terminal may break a line that fills its last column.
  constexpr std::size_t widest = 100;
  const std::size_t columns = std::min(tools::columnsOf(STDOUT_FILENO), widest);
  return tools::rewrapped(helpOf(commandOf(*app)), columns - 1);
}

}  // namespace manual
