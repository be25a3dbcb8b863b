#include "tools/common/ManualText.h"

#include <fmt/format.h>

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

}  // namespace

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

std::string manualEntry(std::string_view term, std::string_view meaning, std::size_t column) {
  std::string text = wrapped(meaning, column);
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
