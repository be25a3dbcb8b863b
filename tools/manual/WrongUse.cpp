#include "tools/manual/WrongUse.h"

#include <fmt/ranges.h>

#include <string_view>
#include <vector>

#include "tools/common/Suggestion.h"
#include "tools/manual/CommandLine.h"

namespace manual {
namespace {

std::string unexpected(const Command& command, const std::string& word) {
  std::vector<std::string> known;
  for (const Option& option : command.options) {
    known.insert(known.end(), option.names.begin(), option.names.end());
  }
  if (word.starts_with('-')) {
    return fmt::format("unknown option \"{}\"{}", word, tools::didYouMean(word, known));
  }
  if (command.subcommands.empty()) return fmt::format("\"{}\" is one argument too many", word);
  known.clear();
  for (const Command& each : command.subcommands) known.push_back(each.name());
  return fmt::format("unknown sub-command \"{}\"{}", word, tools::didYouMean(word, known));
}

std::string missing(const Command& command) {
  std::vector<std::string> names;
  for (const Option& option : command.options) {
    if (option.isRequired) names.push_back(option.value);
  }
  if (!names.empty()) return fmt::format("{} is missing", fmt::join(names, " "));
  for (const Command& each : command.subcommands) names.push_back(each.name());
  return fmt::format("a sub-command is missing: {}", fmt::join(names, ", "));
}

std::string wrongCount(const CLI::App& app, const std::string& name) {
  const CLI::Option& option = *app.get_option(name);
  if (option.count() > 1) return fmt::format("{} can be given only once", name);
  return fmt::format("{} needs a value: {}", name, option.get_type_name());
}

bool isA(const CLI::Error& error, std::string_view name) {
  return error.get_name() == name;
}

}  // namespace

std::string describeWrongUse(const CLI::App& app, const CLI::Error& error) {
  const Command command = commandOf(app);
  std::string text = error.what();
  const auto unread = app.remaining();
  if (!unread.empty()) return unexpected(command, unread.front());
  if (isA(error, "RequiredError")) return missing(command);
  if (isA(error, "ArgumentMismatch")) return wrongCount(app, text.substr(0, text.find(':')));
  if (isA(error, "ExcludesError")) {
    return CLI::detail::find_and_replace(text, " excludes ", " can't be combined with ");
  }
  return text;
}

}  // namespace manual
