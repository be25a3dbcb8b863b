#include "tools/check/Formats.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include "tools/check/Annotations.h"
#include "tools/check/Report.h"
#include "tools/check/Sarif.h"
#include "tools/common/Json.h"

namespace check {
namespace {

// By Format.
constexpr std::array<const char*, 5> names = {"text", "json", "sarif", "github", "checkstyle"};

std::string indented(const nlohmann::json& document) {
  return tools::jsonText(document, 2) + "\n";
}

nlohmann::json jsonOf(const std::vector<Checked>& files, int exitCode) {
  nlohmann::json reports = nlohmann::json::array();
  for (const Checked& each : files) reports.push_back(jsonOf(each));
  return {{"version", 1}, {"exit_code", exitCode}, {"files", std::move(reports)}};
}

}  // namespace

std::vector<std::string> formatNames() {
  return {names.begin(), names.end()};
}

Format formatNamed(std::string_view name) {
  return static_cast<Format>(std::find(names.begin(), names.end(), name) - names.begin());
}

std::string documentOf(Format format, const std::vector<Checked>& files, int exitCode) {
  switch (format) {
    case Format::Text:
      break;
    case Format::Json:
      return indented(jsonOf(files, exitCode));
    case Format::Sarif:
      return indented(sarifOf(files, exitCode));
    case Format::Github:
      return githubCommands(files);
    case Format::Checkstyle:
      return checkstyleXml(files);
  }
  return {};
}

}  // namespace check
