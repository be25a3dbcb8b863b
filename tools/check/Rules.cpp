#include "tools/check/Rules.h"

namespace check {

std::optional<Rule> Rule::named(std::string_view name) {
  for (std::size_t i = 0; i < allRules.size(); ++i) {
    if (allRules[i].name == name) return Rule(i);
  }
  return std::nullopt;
}

std::vector<std::string> ruleNames() {
  std::vector<std::string> names;
  names.reserve(allRules.size());
  for (const RuleText& rule : allRules) names.emplace_back(rule.name);
  return names;
}

std::string_view nameOf(Severity severity) {
  switch (severity) {
    case Severity::Error:
      return "error";
    case Severity::Warning:
      return "warning";
    case Severity::Note:
      break;
  }
  return "note";
}

Severity severityOf(Weight weight, bool inDedicatedFile) {
  switch (weight) {
    case Weight::LineError:
      return inDedicatedFile ? Severity::Warning : Severity::Error;
    case Weight::Error:
      return Severity::Error;
    case Weight::Warning:
      return Severity::Warning;
    case Weight::Note:
      break;
  }
  return Severity::Note;
}

std::string_view describe(Weight weight) {
  if (weight == Weight::LineError) return "error, but a warning in a dedicated file";
  return nameOf(severityOf(weight, false));
}

bool canBeAllowed(Weight weight) {
  return weight == Weight::LineError || weight == Weight::Warning;
}

}  // namespace check
