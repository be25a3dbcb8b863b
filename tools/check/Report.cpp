#include "tools/check/Report.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <variant>

#include "tools/check/Text.h"
#include "tools/common/Json.h"
#include "tools/common/Words.h"

namespace check {
namespace {

using Json = nlohmann::json;

// ---- Text -------------------------------------------------------------------------------------

struct Colours {
  std::string_view bold, severity, caret, off;
};

Colours coloursOf(Severity severity, bool coloured) {
  if (!coloured) return {};
  constexpr std::array<std::string_view, 3> severities = {"\033[1;31m", "\033[1;35m", "\033[1;36m"};
  return {"\033[1m", severities[static_cast<std::size_t>(severity)], "\033[1;32m", "\033[0m"};
}

std::string placeOf(const Diagnostic& diagnostic) {
  if (diagnostic.line == 0) return visible(diagnostic.file);
  return fmt::format("{}:{}:{}", visible(diagnostic.file), diagnostic.line, diagnostic.column);
}

std::string whereabouts(const Diagnostic& diagnostic) {
  std::string text;
  if (!diagnostic.section.empty()) text = "in " + tools::printable("[" + diagnostic.section + "]");
  if (!diagnostic.readAt.empty()) {
    text += fmt::format("{}included from {}", text.empty() ? "" : ", ", visible(diagnostic.readAt));
  }
  return text.empty() ? "" : fmt::format("      = {}\n", text);
}

// ---- Table ------------------------------------------------------------------------------------

using Row = std::array<std::string, 7>;

struct DefaultText {
  std::string operator()(const std::string& text) const { return inQuotes(text); }
  template <class T>
  std::string operator()(const T& number) const {
    return fmt::format("{}", number);
  }
};

Row rowOf(const tools::ConfiguredSlot& slot) {
  const bool isEngine = slot.set == standin::SlotSet::Engine;
  return {std::string(standin::nameOf(slot.set)),
          std::to_string(slot.position),
          nameOf(slot.type),
          tools::printable(slot.name),
          slot.nameIsGenerated ? "yes" : "no",
          isEngine ? "-" : std::visit(DefaultText{}, slot.defaultValue),
          tools::printable(slot.key)};
}

// ---- JSON -------------------------------------------------------------------------------------

template <class T>
Json orNull(const T& value) {
  return value == T{} ? Json() : Json(value);
}

Json jsonOf(const std::optional<Repair>& repair) {
  if (!repair) return {};
  return {{"line", repair->line},
          {"column", repair->column},
          {"before", repair->before},
          {"after", repair->after},
          {"safe", repair->isSafe}};
}

Json jsonOf(const Diagnostic& diagnostic) {
  Json notes = Json::array();
  for (const Note& note : diagnostic.notes) {
    notes.push_back({{"rule", note.rule.text().name},
                     {"text", note.text},
                     {"file", note.file},
                     {"line", orNull(note.line)}});
  }
  return {{"rule", diagnostic.rule.text().name},
          {"severity", nameOf(diagnostic.severity)},
          {"file", diagnostic.file},
          {"line", orNull(diagnostic.line)},
          {"column", orNull(diagnostic.column)},
          {"length", diagnostic.size},
          {"text", diagnostic.text},
          {"remedy", diagnostic.remedy},
          {"edit", jsonOf(diagnostic.repair)},
          {"notes", std::move(notes)},
          {"section", orNull(diagnostic.section)},
          {"read_at", orNull(diagnostic.readAt)},
          {"source", diagnostic.line == 0 ? Json() : Json(diagnostic.source)}};
}

}  // namespace

std::string omittedText(const Checked& checked) {
  std::vector<std::string> rules;
  for (const Omitted& each : checked.omitted) {
    rules.push_back(fmt::format("{} more of {}", each.count, each.rule.text().name));
  }
  return rules.empty() ? "" : fmt::format("not shown: {}", fmt::join(rules, ", "));
}

std::string textOf(const Note& note, const Diagnostic& diagnostic) {
  const bool sameFile = note.file == diagnostic.file;
  const std::string place = note.line == 0 || (sameFile && note.line == diagnostic.line) ? ""
                            : sameFile ? fmt::format(" in line {}:", note.line)
                                       : fmt::format(" in {}:{}:", note.file, note.line);
  return fmt::format("so{} {} [{}]", place, note.text, note.rule.text().name);
}

std::string textOf(const Diagnostic& diagnostic, bool coloured) {
  const Colours colours = coloursOf(diagnostic.severity, coloured);
  std::string text =
      fmt::format("{}{}: {}{}: {}{}; {} [{}]\n", colours.bold, placeOf(diagnostic),
                  colours.severity, nameOf(diagnostic.severity), colours.off, diagnostic.text,
                  visible(diagnostic.remedy), diagnostic.rule.text().name);
  if (diagnostic.line > 0) {
    const Excerpt excerpt =
        excerptOf(diagnostic.source, diagnostic.column - diagnostic.sourceColumn, diagnostic.size);
    text += fmt::format("{:5} | {}\n      | {}{}{}\n", diagnostic.line, excerpt.text, colours.caret,
                        excerpt.marker, colours.off);
  }
  for (const Note& note : diagnostic.notes) {
    text += "      = " + textOf(note, diagnostic) + "\n";
  }
  return text + whereabouts(diagnostic);
}

std::string textOf(const Checked& checked, bool coloured) {
  std::string text;
  for (const Diagnostic& each : checked.diagnostics) text += textOf(each, coloured);
  if (const std::string omitted = omittedText(checked); !omitted.empty()) {
    text += fmt::format("{}: {}\n", checked.file, omitted);
  }
  if (checked.verdict == Verdict::Unreadable) return text;
  std::string counts;
  for (const Severity severity : {Severity::Error, Severity::Warning, Severity::Note}) {
    if (checked.count(severity) == 0) continue;
    counts += (counts.empty() ? ": " : ", ") + counted(checked.count(severity), nameOf(severity));
  }
  return text + fmt::format("{}: {}{}\n", checked.file, nameOf(checked.verdict), counts);
}

std::string tableOf(const std::vector<tools::ConfiguredSlot>& slots) {
  std::vector<Row> rows = {{"SET", "POSITION", "TYPE", "NAME", "GENERATED", "DEFAULT", "KEY"}};
  for (const auto& slot : slots) rows.push_back(rowOf(slot));
  std::array<std::size_t, 7> widths{};
  for (const Row& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], columnsOf(row[i]));
  }
  std::string table;
  for (const Row& row : rows) {
    for (std::size_t i = 0; i + 1 < row.size(); ++i) {
      table += row[i] + std::string(widths[i] - columnsOf(row[i]) + 2, ' ');
    }
    table += row.back() + "\n";
  }
  return table;
}

Json jsonOf(const tools::ConfiguredSlot& slot) {
  const bool isEngine = slot.set == standin::SlotSet::Engine;
  return {{"set", standin::nameOf(slot.set)},
          {"position", slot.position},
          {"type", nameOf(slot.type)},
          {"name", slot.name},
          {"generated", slot.nameIsGenerated},
          {"key", slot.key},
          {"default", isEngine ? Json() : tools::jsonOf(slot.defaultValue)}};
}

Json jsonOf(const Checked& checked) {
  Json diagnostics = Json::array();
  for (const Diagnostic& each : checked.diagnostics) diagnostics.push_back(jsonOf(each));
  std::size_t omitted = 0;
  Json omittedByRule = Json::object();
  for (const Omitted& each : checked.omitted) {
    omitted += each.count;
    omittedByRule[std::string(each.rule.text().name)] = each.count;
  }
  Json slots = Json::array();
  for (const auto& slot : checked.slots) slots.push_back(jsonOf(slot));
  Json log = Json::array();
  for (const ModuleLine& line : checked.log) {
    log.push_back({{"level", line.level}, {"text", line.text}});
  }
  return {{"file", checked.file},
          {"verdict", nameOf(checked.verdict)},
          {"reason", orNull(checked.reason)},
          {"errors", checked.count(Severity::Error)},
          {"warnings", checked.count(Severity::Warning)},
          {"notes", checked.count(Severity::Note)},
          {"omitted", omitted},
          {"omitted_by_rule", std::move(omittedByRule)},
          {"diagnostics", std::move(diagnostics)},
          {"slots", std::move(slots)},
          {"module_log", std::move(log)}};
}

std::string onOneLine(std::string_view paragraph) {
  std::string line(trimmed(paragraph));
  std::replace(line.begin(), line.end(), '\n', ' ');
  return line;
}

std::string ruleList() {
  std::size_t width = 0;
  for (const RuleText& rule : allRules) width = std::max(width, rule.name.size());
  std::string list;
  for (const RuleText& rule : allRules) {
    const std::string_view weight =
        describe(rule.weight).substr(0, describe(rule.weight).find(','));
    list += fmt::format("{:{}}  {:7}  {}\n", rule.name, width, weight, onOneLine(rule.summary));
  }
  return list;
}

std::string explanationOf(const RuleText& rule) {
  constexpr std::size_t width = 92;
  std::string text =
      fmt::format("{} ({}): {}\n\n", rule.name, describe(rule.weight), onOneLine(rule.summary));
  const std::string explanation = onOneLine(rule.explanation);
  std::size_t column = 0;
  for (const std::string_view word : tools::wordsOf(explanation)) {
    if (column > 0 && column + 1 + word.size() > width) {
      text += '\n';
      column = 0;
    }
    if (column > 0) text += ' ';
    text += word;
    column += word.size() + 1;
  }
  return text + "\n";
}

}  // namespace check
