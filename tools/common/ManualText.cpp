#include "tools/common/ManualText.h"

#include <fmt/format.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include "tools/common/ExitCode.h"
#include "tools/common/Words.h"

namespace tools {
namespace {

std::string exitCodes() {
  constexpr std::size_t column = 7;
  std::string text;
  for (const auto& [code, meaning] : sharedExitCodes) {
    text += manualEntry(std::to_string(code), meaning, column);
  }
  return text;
}

constexpr std::size_t entryIndentation = 2;

std::size_t indentationOf(std::string_view line) {
  return std::min(line.find_first_not_of(' '), line.size());
}

ManualBlock::Kind kindOf(const std::vector<std::string>& lines) {
  using Kind = ManualBlock::Kind;
  constexpr std::string_view capitals = "ABCDEFGHIJKLMNOPQRSTUVWXYZ ";
  const std::string& first = lines.front();
  if (lines.size() == 1 && first.find_first_not_of(capitals) == first.npos) return Kind::Section;
  if (indentationOf(first) == 0) return Kind::Paragraph;
  return indentationOf(first) == entryIndentation ? Kind::Entries : Kind::Literal;
}

// Where an entry's term ends in its first line.
std::size_t termEnd(std::string_view line) {
  return std::min(line.find("  ", entryIndentation), line.size());
}

// The column at which the meanings of a block of entries start.
std::size_t meaningColumn(const ManualBlock& block) {
  for (const std::string& line : block.lines) {
    const std::size_t start = indentationOf(line);
    if (start > entryIndentation) return start;
    const std::size_t meaning = line.find_first_not_of(' ', termEnd(line));
    if (meaning != line.npos) return meaning;
  }
  return entryIndentation;
}

// In a narrow terminal, meanings are below their terms.
std::string rewrapped(const ManualBlock& block, std::size_t width) {
  constexpr std::size_t narrow = 6;
  constexpr std::size_t leastMeaning = 30;
  std::string text;
  switch (block.kind) {
    case ManualBlock::Kind::Paragraph:
      return wrapped(joined(block.lines), 0, width);
    case ManualBlock::Kind::Entries: {
      const std::size_t column = meaningColumn(block);
      const bool fits = column + leastMeaning <= width;
      for (const auto& [term, meaning] : entriesOf(block)) {
        text += manualEntry(term, meaning, fits ? column : narrow, width);
      }
      return text;
    }
    case ManualBlock::Kind::Section:
    case ManualBlock::Kind::Literal:
      break;
  }
  for (const std::string& line : block.lines) text += line + "\n";
  return text;
}

}  // namespace

std::vector<ManualBlock> blocksOf(std::string_view manual) {
  std::vector<ManualBlock> blocks;
  std::vector<std::string> lines;
  const auto endBlock = [&] {
    if (!lines.empty()) blocks.push_back({kindOf(lines), lines});
    lines.clear();
  };
  std::istringstream text{std::string(manual)};
  for (std::string line; std::getline(text, line);) {
    if (line.empty()) {
      endBlock();
    } else {
      lines.push_back(line);
    }
  }
  endBlock();
  return blocks;
}

std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) {
    text += (text.empty() ? "" : " ") + line.substr(indentationOf(line));
  }
  return text;
}

std::vector<ManualEntry> entriesOf(const ManualBlock& block) {
  std::vector<ManualEntry> entries;
  for (std::string line : block.lines) {
    if (indentationOf(line) == entryIndentation) {
      const std::size_t end = termEnd(line);
      entries.push_back({line.substr(entryIndentation, end - entryIndentation), {}});
      line.erase(0, end);
    }
    const std::string rest = line.substr(indentationOf(line));
    std::string& meaning = entries.back().meaning;
    meaning += (meaning.empty() || rest.empty() ? "" : " ") + rest;
  }
  return entries;
}

std::string rewrapped(std::string_view manual, std::size_t width) {
  std::string text;
  for (const ManualBlock& block : blocksOf(manual)) {
    text += (text.empty() ? "" : "\n") + rewrapped(block, width);
  }
  return text;
}

std::string manualOf(std::string_view text, std::vector<ManualPart> parts) {
  if (text.find("{exit codes}\n") != text.npos) parts.push_back({"exit codes", exitCodes()});
  return filled(text, parts);
}

std::string filled(std::string_view text, const std::vector<ManualPart>& parts) {
  std::string whole(text);
  for (const auto& [name, part] : parts) {
    const std::string line = fmt::format("{{{}}}\n", name);
    const auto at = whole.find(line);
    if (at == whole.npos) throw std::logic_error(fmt::format("the text has no part {{{}}}", name));
    whole.replace(at, line.size(), part);
  }
  return whole;
}

std::string manualEntry(std::string_view term, std::string_view meaning, std::size_t column,
                        std::size_t width) {
  std::string text = wrapped(meaning, column, width);
  const std::string start = fmt::format("  {}", term);
  if (start.size() + 2 > column) return start + "\n" + text;
  return text.replace(0, start.size(), start);
}

std::string wrapped(std::string_view text, std::size_t indent, std::size_t width) {
  std::string lines;
  std::size_t column = 0;
  for (const std::string_view word : wordsOf(text)) {
    const bool fits = column > 0 && column + 1 + word.size() <= width;
    if (column > 0) lines += fits ? " " : "\n";
    if (!fits) lines.append(indent, ' ');
    column = (fits ? column + 1 : indent) + word.size();
    lines += word;
  }
  return lines + "\n";
}

}  // namespace tools
