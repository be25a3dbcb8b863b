// Which keys users want in a configuration, and how they want the slots to be named. Any thread.
#pragma once

#include <optional>
#include <regex>
#include <string>
#include <vector>

namespace discover {

// Patterns as the shell matches file names, except that "*" and "?" match any byte.
struct Selection {
  std::vector<std::string> include;  // empty: everything
  std::vector<std::string> exclude;

  bool takes(const std::string& key) const;
};

// A substitution such as s/^out\.// with the regular expressions and the replacements of sed -E.
class Renaming {
 public:
  // Throws std::invalid_argument, which says what is wrong with the expression.
  explicit Renaming(const std::string& expression);

  // The new name, or nothing if the expression does not match.
  std::optional<std::string> operator()(const std::string& name) const;

 private:
  std::regex pattern_;
  std::string replacement_;
  std::regex_constants::match_flag_type flags_ = std::regex_constants::format_sed;
};

struct Naming {
  bool namesAll = false;              // not only the slots that a renaming matches
  std::vector<Renaming> renamings{};  // each applied to the result of those before it

  // What the slot of a key should be called; nothing for a generated name.
  std::optional<std::string> operator()(const std::string& key) const;
};

}  // namespace discover
