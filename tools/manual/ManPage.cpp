#include "tools/manual/ManPage.h"

#include <fmt/format.h>

#include <regex>
#include <string_view>
#include <vector>

#include "tools/common/ManualText.h"
#include "tools/common/Words.h"
#include "tools/manual/Help.h"

namespace manual {
namespace {

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

std::string entries(const tools::ManualBlock& block) {
  std::string written;
  for (const auto& [name, meaning] : tools::entriesOf(block)) {
    written += fmt::format("{}\n\t{}\n\n", term(name), sentence(meaning));
  }
  return written;
}

std::string output(const std::vector<std::string>& lines) {
  const std::size_t margin = lines.front().find_first_not_of(' ');
  std::string written = "```\n";
  for (const std::string& line : lines) {
    written += tools::escaped(line.substr(margin), "\\") + "\n";
  }
  return written + "```\n\n";
}

std::string scdocOf(const tools::ManualBlock& block) {
  switch (block.kind) {
    case tools::ManualBlock::Kind::Section:
      return fmt::format("# {}\n\n", block.lines.front());
    case tools::ManualBlock::Kind::Paragraph:
      return sentence(tools::joined(block.lines)) + "\n\n";
    case tools::ManualBlock::Kind::Entries:
      return entries(block);
    case tools::ManualBlock::Kind::Literal:
      break;
  }
  return output(block.lines);
}

}  // namespace

std::string scdocOf(std::string_view text) {
  std::string written;
  for (const auto& block : tools::blocksOf(text)) written += scdocOf(block);
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
