#include "tools/lsp/Descriptions.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <vector>

#include "rules.h"
#include "tools/check/Text.h"
#include "tools/check/Vocabulary.h"

namespace lsp {
namespace {

// A row of a table: names in backticks, and what they mean.
struct Row {
  std::vector<std::string_view> first;
  std::vector<std::string_view> second;
  std::string_view meaning;
};

// The texts in backticks.
std::vector<std::string_view> namesIn(std::string_view cell) {
  std::vector<std::string_view> names;
  for (std::size_t open = cell.find('`'); open != cell.npos; open = cell.find('`')) {
    const std::size_t close = cell.find('`', open + 1);
    names.push_back(cell.substr(open + 1, close - open - 1));
    cell.remove_prefix(close + 1);
  }
  return names;
}

// The next cell of "| a | b |", which is removed from the line.
std::string_view takeCell(std::string_view& line) {
  line.remove_prefix(1);
  const std::string_view cell = line.substr(0, line.find('|'));
  line.remove_prefix(cell.size());
  return check::trimmed(cell);
}

// The rows of the table below a heading. An empty first cell repeats the one above.
std::vector<Row> tableBelow(std::string_view heading) {
  std::string_view text = rules::configuration_md;
  text.remove_prefix(std::min(text.find(heading), text.size()));
  text = text.substr(0, text.find("\n## ", 1));
  text.remove_prefix(std::min(text.find("\n|---"), text.size()));
  text.remove_prefix(std::min(text.find("\n|", 1), text.size()));
  std::vector<Row> rows;
  while (text.starts_with("\n|")) {
    std::string_view line = text.substr(1, text.find('\n', 1) - 1);
    text.remove_prefix(1 + line.size());
    auto first = namesIn(takeCell(line));
    if (first.empty() && !rows.empty()) first = rows.back().first;
    auto second = namesIn(takeCell(line));
    rows.push_back({std::move(first), std::move(second), takeCell(line)});
  }
  return rows;
}

const std::vector<Row>& keyRows() {
  static const std::vector<Row> rows = tableBelow("\n## Sections and keys\n");
  return rows;
}

const std::vector<Row>& wordRows() {
  static const std::vector<Row> rows = tableBelow("\n## Entries\n");
  return rows;
}

bool contains(const std::vector<std::string_view>& names, std::string_view name) {
  return std::any_of(names.begin(), names.end(), [&](std::string_view each) {
    const bool isCondition =
        each.starts_with(check::conditionPrefix) && name.starts_with(check::conditionPrefix);
    return isCondition || check::sameName(each, name);
  });
}

}  // namespace

std::string describeSection(std::string_view section) {
  std::string text;
  for (const Row& row : keyRows()) {
    if (!contains(row.first, section)) continue;
    for (const std::string_view key : row.second) {
      text += fmt::format("{}`{}`: {}", text.empty() ? "" : "\n\n", key, row.meaning);
    }
  }
  return text;
}

std::string describeKey(std::string_view section, std::string_view key) {
  for (const Row& row : keyRows()) {
    if (contains(row.first, section) && contains(row.second, key)) return std::string(row.meaning);
  }
  return {};
}

std::string describeWord(std::string_view word) {
  for (const Row& row : wordRows()) {
    if (contains(row.first, std::string(word) + "=")) return std::string(row.meaning);
  }
  return {};
}

}  // namespace lsp
