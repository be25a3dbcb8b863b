// The rules of the checker. docs/configuration.md is their table: it gives each rule its name, its
// weight, a summary and an explanation, and the build embeds it. Messages, --list-rules, --explain,
// --allow and the manual page all use these texts. Any thread; the table never changes.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "rules.h"

namespace check {

enum class Severity { Error, Warning, Note };

// How bad a breach of a rule is. A LineError is an error in the main file and a warning in a
// dedicated file, where the module skips the line and starts.
enum class Weight { LineError, Error, Warning, Note };

struct RuleText {
  std::string_view name;  // as in --allow
  Weight weight = Weight::Error;
  std::string_view summary;      // what the rule finds: a noun phrase
  std::string_view explanation;  // what the module does, why, and what to write instead
};

namespace detail {

// How the manual begins the paragraph below "### NAME", for each weight.
inline constexpr std::array<std::string_view, 4> weightMarks = {
    "*Error, but a warning in a dedicated file: ", "*Error: ", "*Warning: ", "*Note: "};

inline constexpr std::string_view headingMark = "\n### ";

// As text.find(what, from), which g++ 12 can't evaluate at compile time with -fsanitize=undefined.
consteval std::size_t find(std::string_view text, std::string_view what, std::size_t from = 0) {
  for (; from < text.size(); ++from) {
    // The first comparison spares the compiler most of the steps, which clang++ bounds.
    if (text[from] == what.front() && text.substr(from).starts_with(what)) return from;
  }
  return text.npos;
}

consteval std::size_t countRules(std::string_view manual) {
  std::size_t count = 0;
  for (std::size_t at = find(manual, headingMark); at != manual.npos;
       at = find(manual, headingMark, at + 1)) {
    ++count;
  }
  return count;
}

// The rule at the beginning of `text`. If the manual leaves something out, the code does not
// compile.
consteval RuleText readRule(std::string_view text) {
  const std::size_t line = find(text, "\n");
  std::string_view paragraph = text.substr(line + 2);
  for (std::size_t weight = 0; weight < weightMarks.size(); ++weight) {
    if (!paragraph.starts_with(weightMarks[weight])) continue;
    paragraph.remove_prefix(weightMarks[weight].size());
    const std::size_t end = find(paragraph, ".*");
    return {.name = text.substr(0, line),
            .weight = static_cast<Weight>(weight),
            .summary = paragraph.substr(0, end),
            .explanation = paragraph.substr(end + 2)};
  }
  throw std::logic_error("a rule of the manual begins with none of the weights");
}

consteval auto readRules() {
  constexpr std::string_view manual = rules::configuration_md;
  std::array<RuleText, countRules(manual)> rules;
  std::size_t at = find(manual, headingMark);
  for (RuleText& rule : rules) {
    at += headingMark.size();
    const std::size_t next = find(manual, headingMark, at);
    rule = readRule(manual.substr(at, next - at));
    at = next;
  }
  return rules;
}

}  // namespace detail

// In the manual's order.
inline constexpr auto allRules = detail::readRules();

// One of the rules. Code names it as the manual does; the compiler refuses an unknown name.
class Rule {
 public:
  // Implicit, so that a finding can begin with the name of its rule.
  consteval Rule(const char* name) {  // NOLINT(google-explicit-constructor)
    while (allRules.at(index_).name != name) ++index_;
  }

  const RuleText& text() const { return allRules[index_]; }
  std::size_t index() const { return index_; }

  // Nothing if no rule has this name.
  static std::optional<Rule> named(std::string_view name);

  bool operator==(const Rule&) const = default;
  bool operator<(const Rule& other) const { return index_ < other.index_; }

 private:
  explicit Rule(std::size_t index) : index_(static_cast<std::uint8_t>(index)) {}
  std::uint8_t index_ = 0;
};

std::vector<std::string> ruleNames();

std::string_view nameOf(Severity severity);

Severity severityOf(Weight weight, bool inDedicatedFile);

// "error", "error, but a warning in a dedicated file" and so on.
std::string_view describe(Weight weight);

// Whether a breach can be a warning, which --allow switches off.
bool canBeAllowed(Weight weight);

}  // namespace check
