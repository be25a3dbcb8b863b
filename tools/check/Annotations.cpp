#include "tools/check/Annotations.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <string_view>

#include "tools/check/Report.h"
#include "tools/check/Text.h"

namespace check {
namespace {

std::string unreadableText(const Checked& checked) {
  return fmt::format("can't be checked: {}", checked.reason);
}

// ---- GitHub -----------------------------------------------------------------------------------

std::string_view githubName(Severity severity) {
  switch (severity) {
    case Severity::Error:
    case Severity::Warning:
      return nameOf(severity);
    case Severity::Note:
      break;
  }
  return "notice";
}

// The text with control characters and invalid bytes as \xNN, and with line ends and the `special`
// characters percent-encoded.
std::string encoded(std::string_view text, std::string_view special) {
  std::string line;
  eachCharacter(text, [&](std::string_view character, bool isValid) {
    const auto byte = static_cast<unsigned char>(character.front());
    const bool isLineEnd = byte == '\n' || byte == '\r';
    if (isLineEnd || special.find(character.front()) != special.npos) {
      fmt::format_to(std::back_inserter(line), "%{:02X}", byte);
    } else {
      line += isValid && byte >= ' ' ? std::string(character) : visible(character);
    }
  });
  return line;
}

std::string ofMessage(std::string_view text) {
  return encoded(text, "%");
}

std::string ofProperty(std::string_view text) {
  return encoded(text, "%:,");
}

std::string githubCommand(const Diagnostic& diagnostic) {
  std::string place = "file=" + ofProperty(diagnostic.file);
  if (diagnostic.line > 0) {
    const Columns columns = columnsOf(diagnostic, diagnostic.column, diagnostic.size);
    place += fmt::format(",line={0},endLine={0},col={1},endColumn={2}", diagnostic.line,
                         columns.begin, columns.end);
  }
  return fmt::format("::{} {},title={}::{}\n", githubName(diagnostic.severity), place,
                     diagnostic.rule.text().name, ofMessage(messageOf(diagnostic)));
}

// ---- Checkstyle -------------------------------------------------------------------------------

std::string_view checkstyleName(Severity severity) {
  return severity == Severity::Note ? "info" : nameOf(severity);
}

// Whether XML 1.0 allows the character.
bool isXml(std::string_view character) {
  const bool isControl = static_cast<unsigned char>(character.front()) < ' ';
  const bool isSpace = character == "\t" || character == "\n" || character == "\r";
  return (!isControl || isSpace) && character != "\xEF\xBF\xBE" && character != "\xEF\xBF\xBF";
}

// The text as the value of an attribute.
std::string ofAttribute(std::string_view text) {
  constexpr std::string_view special = "&<>\"\t\n\r";
  std::string value;
  eachCharacter(text, [&](std::string_view character, bool isValid) {
    if (!isValid || !isXml(character)) {
      value += visible(character);
    } else if (special.find(character.front()) != special.npos) {
      fmt::format_to(std::back_inserter(value), "&#{};", static_cast<int>(character.front()));
    } else {
      value += character;
    }
  });
  return value;
}

std::string checkstyleError(const std::string& place, std::string_view severity,
                            std::string_view message, std::string_view source) {
  return fmt::format(
      "    <error {} severity=\"{}\" message=\"{}\" source=\"gatewayctl.check.{}\"/>\n", place,
      severity, ofAttribute(message), source);
}

std::string checkstyleError(const Diagnostic& diagnostic) {
  std::string place = fmt::format("line=\"{}\"", diagnostic.line);
  if (diagnostic.line > 0) {
    const Columns columns = columnsOf(diagnostic, diagnostic.column, diagnostic.size);
    place += fmt::format(" column=\"{}\"", columns.begin);
  }
  return checkstyleError(place, checkstyleName(diagnostic.severity), messageOf(diagnostic),
                         diagnostic.rule.text().name);
}

}  // namespace

Columns columnsOf(const Diagnostic& diagnostic, std::size_t column, std::size_t size) {
  const std::string_view source = diagnostic.source;
  const std::size_t begin = std::min(column - diagnostic.sourceColumn, source.size());
  Utf16Counter counter = diagnostic.before;
  counter.add(source.substr(0, begin));
  const std::size_t first = counter.count();
  counter.add(source.substr(begin, size));
  return {first + 1, counter.countToEnd() + 1};
}

std::string messageOf(const Diagnostic& diagnostic) {
  std::string text = fmt::format("{}; {}", diagnostic.text, diagnostic.remedy);
  for (const Note& note : diagnostic.notes) text += "\n" + textOf(note, diagnostic);
  return text;
}

std::string githubCommands(const std::vector<Checked>& files) {
  std::string commands;
  for (const Checked& checked : files) {
    for (const Diagnostic& each : checked.diagnostics) commands += githubCommand(each);
    const std::string place = ofProperty(checked.file);
    if (const std::string omitted = omittedText(checked); !omitted.empty()) {
      commands += fmt::format("::notice file={}::{}\n", place, ofMessage(omitted));
    }
    if (checked.verdict == Verdict::Unreadable) {
      commands += fmt::format("::error file={}::{}\n", place, ofMessage(unreadableText(checked)));
    }
  }
  return commands;
}

std::string checkstyleXml(const std::vector<Checked>& files) {
  std::map<std::string, std::string> errors;  // by the name of the file
  const std::string noPlace = "line=\"0\"";
  for (const Checked& checked : files) {
    std::string& ofFile = errors[checked.file];
    for (const Diagnostic& each : checked.diagnostics) errors[each.file] += checkstyleError(each);
    if (const std::string omitted = omittedText(checked); !omitted.empty()) {
      ofFile += checkstyleError(noPlace, "info", omitted, "omitted");
    }
    if (checked.verdict == Verdict::Unreadable) {
      ofFile += checkstyleError(noPlace, "error", unreadableText(checked), "unreadable");
    }
  }
  std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<checkstyle version=\"8.0\">\n";
  for (const auto& [name, lines] : errors) {
    xml += fmt::format("  <file name=\"{}\">\n{}  </file>\n", ofAttribute(name), lines);
  }
  return xml + "</checkstyle>\n";
}

}  // namespace check
