// The checker's output for people and programs. Any thread.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/check/Checker.h"

namespace check {

// One diagnostic, as compilers print them: a line with its place and texts, the source line with a
// caret, and its section.
std::string textOf(const Diagnostic& diagnostic, bool coloured);

// "so TEXT [RULE]", with the place of the note if it is not the line of its diagnostic.
std::string textOf(const Note& note, const Diagnostic& diagnostic);

// "not shown: 400 more of unknown-type, 7 more of unknown-word"; empty if nothing is left out.
std::string omittedText(const Checked& checked);

// The whole report on one file: its diagnostics, then the verdict.
std::string textOf(const Checked& checked, bool coloured);

// The slots as a table.
std::string tableOf(const std::vector<tools::ConfiguredSlot>& slots);

// One slot, as in that table.
nlohmann::json jsonOf(const tools::ConfiguredSlot& slot);

// The JSON report on one file, as `gatewayctl check --help` describes it.
nlohmann::json jsonOf(const Checked& checked);

// A paragraph of the manual without its line breaks.
std::string onOneLine(std::string_view paragraph);

// All rules, a line each; and one rule with its explanation.
std::string ruleList();
std::string explanationOf(const RuleText& rule);

}  // namespace check
