// What the checker tells people and programs. Any thread.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/check/Checker.h"

namespace check {

// One diagnostic in the style of compilers: a line with its place, the source line with a caret,
// and where it stands.
std::string textOf(const Diagnostic& diagnostic, bool coloured);

// All that is told about one file, the verdict last.
std::string textOf(const Checked& checked, bool coloured);

// The slots as a table.
std::string tableOf(const std::vector<tools::ConfiguredSlot>& slots);

// As `gatewayctl check --help` describes it.
nlohmann::json jsonOf(const Checked& checked);

// All rules, a line each, or one with its explanation.
std::string ruleList();
std::string explanationOf(const RuleText& rule);

}  // namespace check
