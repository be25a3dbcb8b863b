#include "tools/discover/Selection.h"

#include <fmt/format.h>
#include <fnmatch.h>

#include <algorithm>
#include <stdexcept>
#include <string_view>

namespace discover {
namespace {

// The parts of an expression between its delimiters, in which "\" before a delimiter is removed.
std::vector<std::string> partsOf(std::string_view text, char delimiter) {
  std::vector<std::string> parts{""};
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == delimiter) {
      parts.emplace_back();
      continue;
    }
    if (text[i] == '\\' && i + 1 < text.size() && text[++i] != delimiter) parts.back() += '\\';
    parts.back() += text[i];
  }
  return parts;
}

}  // namespace

bool Selection::takes(const std::string& key) const {
  const auto matches = [&](const std::string& pattern) {
    return fnmatch(pattern.c_str(), key.c_str(), 0) == 0;
  };
  return (include.empty() || std::any_of(include.begin(), include.end(), matches)) &&
         std::none_of(exclude.begin(), exclude.end(), matches);
}

Renaming::Renaming(const std::string& expression) {
  using namespace std::regex_constants;
  const bool isSubstitution = expression.size() > 1 && expression.front() == 's';
  const auto parts = isSubstitution ? partsOf(std::string_view(expression).substr(2), expression[1])
                                    : std::vector<std::string>();
  if (parts.size() != 3) {
    throw std::invalid_argument(
        fmt::format("\"{}\" is not of the form s/PATTERN/REPLACEMENT/", expression));
  }
  if (parts[2].find_first_not_of("gi") != std::string::npos) {
    throw std::invalid_argument(
        fmt::format("\"{}\" ends with \"{}\", but the flags are g and i", expression, parts[2]));
  }
  const auto hasFlag = [&](char flag) { return parts[2].find(flag) != std::string::npos; };
  if (!hasFlag('g')) flags_ |= format_first_only;
  replacement_ = parts[1];
  try {
    pattern_.assign(parts[0], hasFlag('i') ? extended | icase : extended);
  } catch (const std::regex_error& error) {
    throw std::invalid_argument(
        fmt::format("\"{}\" is not a regular expression: {}", parts[0], error.what()));
  }
}

std::optional<std::string> Renaming::operator()(const std::string& name) const {
  if (!std::regex_search(name, pattern_)) return std::nullopt;
  return std::regex_replace(name, pattern_, replacement_, flags_);
}

std::optional<std::string> Naming::operator()(const std::string& key) const {
  std::string name = key;
  bool isNamed = namesAll;
  for (const Renaming& rename : renamings) {
    const auto renamed = rename(name);
    if (!renamed) continue;
    name = *renamed;
    isNamed = true;
  }
  return isNamed ? std::optional(name) : std::nullopt;
}

}  // namespace discover
