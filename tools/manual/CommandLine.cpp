#include "tools/manual/CommandLine.h"

#include <fmt/ranges.h>

#include <algorithm>
#include <string_view>
#include <utility>

namespace manual {
namespace {

// The name of a value and its choices. CLI11 describes a check by what follows the type's name, and
// a list of choices as "RULE:{bad-line,long-line}".
std::pair<std::string, std::vector<std::string>> valueOf(const std::string& type) {
  const auto brace = type.find(":{");
  if (brace == type.npos) return {type, {}};
  const std::string words = type.substr(brace + 2, type.size() - brace - 3);
  return {type.substr(0, brace), CLI::detail::split(words, ',')};
}

std::vector<std::string> excludedBy(const CLI::App& app, const CLI::Option& option) {
  const auto excluded = option.get_excludes();
  std::vector<std::string> names;
  // In the order of their declaration: CLI11 keeps them sorted by address.
  for (const CLI::Option* other : app.get_options(nullptr)) {
    if (other->get_positional() || !excluded.contains(const_cast<CLI::Option*>(other))) continue;
    names.push_back(other->get_name());
  }
  return names;
}

Option optionOf(const CLI::App& app, const CLI::Option& option) {
  Option made;
  for (const std::string& name : option.get_snames()) made.names.push_back("-" + name);
  for (const std::string& name : option.get_lnames()) made.names.push_back("--" + name);
  if (option.get_items_expected_max() > 0) {
    std::tie(made.value, made.choices) = valueOf(option.get_type_name());
    made.takesFile = made.value == "FILE";
    made.defaultValue = option.get_default_str();
  }
  // A flag with choices accepts one of them after "=".
  if (option.get_items_expected_max() == 0) made.choices = valueOf(option.get_type_name()).second;
  if (made.isPositional()) made.value = option.get_name(true);
  made.description = option.get_description();
  made.excluded = excludedBy(app, option);
  made.hasOptionalValue = option.get_items_expected_min() == 0;
  made.takesSeveral = option.get_items_expected_max() >= CLI::detail::expected_max_vector_size;
  made.isRequired = option.get_required();
  made.standsAlone = &option == app.get_help_ptr() || &option == app.get_version_ptr();
  return made;
}

std::vector<std::string> pathOf(const CLI::App& app) {
  std::vector<std::string> path;
  if (app.get_parent() != nullptr) path = pathOf(*app.get_parent());
  path.push_back(app.get_name());
  return path;
}

}  // namespace

std::string Option::summary() const {
  const auto end = std::min(description.find(". "), description.size());
  const std::string sentence = description.substr(0, end);
  return sentence.ends_with('.') ? sentence.substr(0, sentence.size() - 1) : sentence;
}

std::string Command::fullName(const char* separator) const {
  return fmt::to_string(fmt::join(path, separator));
}

Command commandOf(const CLI::App& app) {
  Command made{pathOf(app), app.get_description(), app.get_footer(), {}, {}};
  for (const CLI::Option* option : app.get_options(nullptr)) {
    made.options.push_back(optionOf(app, *option));
  }
  std::stable_partition(made.options.begin(), made.options.end(),
                        [](const Option& option) { return option.isPositional(); });
  for (const CLI::App* subcommand : app.get_subcommands(nullptr)) {
    if (!subcommand->get_group().empty()) made.subcommands.push_back(commandOf(*subcommand));
  }
  return made;
}

}  // namespace manual
