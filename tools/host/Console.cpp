#include "tools/host/Console.h"

#include <fmt/format.h>

#include <array>
#include <iterator>
#include <numeric>
#include <stdexcept>
#include <string_view>

#include "tools/common/ManualText.h"
#include "tools/common/Suggestion.h"
#include "tools/common/Words.h"

namespace host {

struct Console::Command {
  std::string_view name;
  std::string_view arguments;
  std::string_view effect;
  void (Console::*carryOut)(const Arguments& arguments);

  static const std::array<Command, 5> all;
  static const Command& of(const std::string& name);
};

const std::array<Console::Command, 5> Console::Command::all{{
    {"slots", "", "Print all slots with their values, ages and keys.", &Console::slots},
    {"get", "NAME...", "Print the slots of these names, in all sets.", &Console::get},
    {"set", "NAME=VALUE...",
     "Change engine slots, all in one notification. \"set NAME VALUE\" does the same.",
     &Console::set},
    {"help", "", "Print these commands.", &Console::help},
    {"quit", "", "Stop the module and end the program.", &Console::quit},
}};

const Console::Command& Console::Command::of(const std::string& name) {
  std::vector<std::string> names;
  for (const Command& command : all) {
    if (command.name == name) return command;
    names.emplace_back(command.name);
  }
  const std::string meant = tools::didYouMean(name, names);
  throw std::invalid_argument(
      fmt::format("no command \"{}\"{}", name,
                  meant.empty() ? fmt::format(": there are {}", fmt::join(names, ", ")) : meant));
}

std::string Console::manual() {
  constexpr std::size_t column = 34;
  std::string text;
  for (const Command& command : Command::all) {
    const char* const blank = command.arguments.empty() ? "" : " ";
    text += tools::manualEntry(fmt::format("{}{}{}", command.name, blank, command.arguments),
                               command.effect, column);
  }
  return text;
}

bool Console::obey(const std::string& line) {
  try {
    Arguments words = tools::quotedWordsOf(line);
    if (words.empty()) return true;
    const Command& command = Command::of(words.front());
    words.erase(words.begin());
    (this->*command.carryOut)(words);
  } catch (const std::invalid_argument& error) {
    reporter_.complain(error.what());
  } catch (const NotRunning& error) {
    reporter_.complain(error.what());
  }
  return !quit_;
}

void Console::slots(const Arguments& arguments) {
  if (!arguments.empty()) throw std::invalid_argument("slots takes no arguments: see get");
  module_.sample();
  std::vector<std::size_t> indices(module_.board()->labels().size());
  std::iota(indices.begin(), indices.end(), std::size_t{0});
  reporter_.slots(*module_.board(), indices);
}

void Console::get(const Arguments& arguments) {
  if (arguments.empty()) throw std::invalid_argument("get takes names of slots");
  std::vector<std::string> names;
  for (const SlotLabel& label : module_.board()->labels()) names.push_back(label.name);
  std::vector<std::size_t> indices;
  for (const std::string& wanted : arguments) {
    const std::size_t before = indices.size();
    for (std::size_t i = 0; i < names.size(); ++i) {
      if (names[i] == wanted) indices.push_back(i);
    }
    if (indices.size() > before) continue;
    throw std::invalid_argument(
        fmt::format("no slot \"{}\"{}", wanted, tools::didYouMean(wanted, names)));
  }
  module_.sample();
  reporter_.slots(*module_.board(), indices);
}

void Console::set(const Arguments& arguments) {
  std::vector<Change> changes;
  for (auto word = arguments.begin(); word != arguments.end(); ++word) {
    const std::size_t equals = word->find('=');
    if (equals != word->npos) {
      changes.push_back({word->substr(0, equals), word->substr(equals + 1)});
    } else if (std::next(word) == arguments.end()) {
      throw std::invalid_argument(fmt::format("set takes NAME=VALUE: {} has no value", *word));
    } else {
      changes.push_back({*word, *std::next(word)});
      ++word;
    }
  }
  if (changes.empty()) throw std::invalid_argument("set takes NAME=VALUE");
  module_.set(changes);
}

void Console::help(const Arguments& arguments) {
  if (!arguments.empty()) throw std::invalid_argument("help takes no arguments");
  reporter_.help(manual());
}

void Console::quit(const Arguments& arguments) {
  if (!arguments.empty()) throw std::invalid_argument("quit takes no arguments");
  quit_ = true;
}

}  // namespace host
