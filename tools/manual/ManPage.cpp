#include "tools/manual/ManPage.h"

#include <fmt/format.h>

#include <algorithm>
#include <regex>
#include <vector>

#include "tools/common/Words.h"
#include "tools/manual/Help.h"

namespace manual {
namespace {

using Lines = std::vector<std::string>;

// The lines between empty lines.
std::vector<Lines> blocksOf(std::string_view text) {
  std::vector<Lines> blocks(1);
  for (const std::string& line : CLI::detail::split(std::string(text), '\n')) {
    if (!line.empty()) {
      blocks.back().push_back(line);
    } else if (!blocks.back().empty()) {
      blocks.emplace_back();
    }
  }
  if (blocks.back().empty()) blocks.pop_back();
  return blocks;
}

std::size_t indentationOf(std::string_view line) {
  return std::min(line.find_first_not_of(' '), line.size());
}

bool isSection(const Lines& block) {
  constexpr std::string_view capitals = "ABCDEFGHIJKLMNOPQRSTUVWXYZ ";
  return block.size() == 1 && block.front().find_first_not_of(capitals) == std::string::npos;
}

// ---- Within a line ----------------------------------------------------------------------------

// Text in which scdoc sees no marks of its own.
std::string literal(std::string_view text) {
  return tools::escaped(text, "\\*_");
}

// What the first group of the pattern matches becomes bold, and everything else that it matches
// underlined.
std::string marked(const std::string& text, const std::regex& pattern) {
  std::string written;
  std::string rest = text;
  for (std::smatch match; std::regex_search(rest, match, pattern); rest = match.suffix().str()) {
    const char* const mark = match[1].matched ? "*" : "_";
    written += literal(match.prefix().str()) + mark + literal(match.str()) + mark;
  }
  return written + literal(rest);
}

// Options are bold, and so are the names of other pages.
std::string sentence(const std::string& text) {
  static const std::regex pattern(R"((--[a-z][a-z-]*|[a-z][a-z.-]*(?=\(\d\))))");
  const std::string written = marked(text, pattern);
  // At the start of a line these begin lists, tables and comments.
  const bool isMark = std::string_view("-[]|;#`").find(written.front()) != std::string_view::npos;
  return isMark ? "\\" + written : written;
}

// What one types is bold, and what stands for something else underlined.
std::string term(const std::string& text) {
  static const std::regex pattern(R"([A-Z][A-Z:=]*(?!\w)|(-{0,2}\w[\w.-]*))");
  return marked(text, pattern);
}

// ---- Blocks -----------------------------------------------------------------------------------

std::string joined(const Lines& lines) {
  std::string text;
  for (const std::string& line : lines) {
    text += (text.empty() ? "" : " ") + line.substr(indentationOf(line));
  }
  return text;
}

std::string entry(const Lines& lines) {
  constexpr std::size_t margin = 2;
  const std::string& first = lines.front();
  const auto end = std::min(first.find("  ", margin), first.size());
  Lines meaning = lines;
  meaning.front().erase(0, end);
  const std::string text = joined(meaning);
  return fmt::format("{}\n\t{}\n\n", term(first.substr(margin, end - margin)),
                     sentence(text.substr(indentationOf(text))));
}

std::string entries(const Lines& block) {
  std::string written;
  for (auto line = block.begin(); line != block.end();) {
    const auto next = std::find_if(line + 1, block.end(),
                                   [](const auto& each) { return indentationOf(each) == 2; });
    written += entry({line, next});
    line = next;
  }
  return written;
}

std::string output(const Lines& block) {
  const std::size_t margin = indentationOf(block.front());
  std::string written = "```\n";
  for (const std::string& line : block) {
    written += tools::escaped(line.substr(margin), "\\") + "\n";
  }
  return written + "```\n\n";
}

std::string scdocOf(const Lines& block) {
  if (isSection(block)) return fmt::format("# {}\n\n", block.front());
  switch (indentationOf(block.front())) {
    case 0:
      return sentence(joined(block)) + "\n\n";
    case 2:
      return entries(block);
    default:
      return output(block);
  }
}

}  // namespace

std::string scdocOf(std::string_view text) {
  std::string written;
  for (const Lines& block : blocksOf(text)) written += scdocOf(block);
  return written;
}

std::string manPageOf(const Command& command, std::string_view version) {
  const std::string name = command.fullName("-");
  return fmt::format(
      "{}(1) \"grpc-gateway {}\" \"User commands\"\n\n"
      "# NAME\n\n{}\n\n# SYNOPSIS\n\n{}\n\n# DESCRIPTION\n\n{}",
      name, version, titleOf(command, "-"), term(usageOf(command)), scdocOf(bodyOf(command)));
}

}  // namespace manual
