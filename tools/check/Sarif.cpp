#include "tools/check/Sarif.h"

#include <fmt/format.h>

#include <iterator>
#include <string>
#include <string_view>
#include <utility>

#include "tools/check/Annotations.h"
#include "tools/check/Report.h"
#include "tools/check/Text.h"

namespace check {
namespace {

using Json = nlohmann::json;

Json messageWith(std::string_view text) {
  return {{"text", text}};
}

// ---- Places -----------------------------------------------------------------------------------

// The path as a URI. It is relative if the path is.
std::string uriOf(std::string_view path) {
  constexpr std::string_view literal = "-._~/";
  std::string uri = path.starts_with('/') ? "file://" : "";
  for (const char each : path) {
    const auto byte = static_cast<unsigned char>(each);
    const bool isLetterOrDigit = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
                                 (byte >= '0' && byte <= '9');
    if (isLetterOrDigit || literal.find(each) != literal.npos) {
      uri += each;
    } else {
      fmt::format_to(std::back_inserter(uri), "%{:02X}", byte);
    }
  }
  return uri;
}

Json artifactOf(std::string_view path) {
  return {{"uri", uriOf(path)}};
}

Json locationOf(std::string_view path) {
  return {{"physicalLocation", {{"artifactLocation", artifactOf(path)}}}};
}

Json regionOf(const Diagnostic& diagnostic, std::size_t column, std::size_t size) {
  const Columns columns = columnsOf(diagnostic, column, size);
  return {
      {"startLine", diagnostic.line}, {"startColumn", columns.begin}, {"endColumn", columns.end}};
}

Json locationOf(const Diagnostic& diagnostic) {
  Json location = locationOf(diagnostic.file);
  if (diagnostic.line > 0) {
    Json region = regionOf(diagnostic, diagnostic.column, diagnostic.size);
    location["physicalLocation"]["region"] = std::move(region);
  }
  return location;
}

Json locationOf(const Note& note) {
  Json location = locationOf(note.file);
  location["message"] = messageWith(note.text);
  if (note.line > 0) location["physicalLocation"]["region"] = {{"startLine", note.line}};
  return location;
}

// ---- Rules ------------------------------------------------------------------------------------

Json ruleOf(const RuleText& rule) {
  const std::string explanation = onOneLine(rule.explanation);
  return {{"id", rule.name},
          {"shortDescription", messageWith(onOneLine(rule.summary))},
          {"fullDescription", messageWith(explanation)},
          {"help", messageWith(explanation)},
          {"defaultConfiguration", {{"level", nameOf(severityOf(rule.weight, false))}}}};
}

Json toolOf() {
  Json rules = Json::array();
  for (const RuleText& rule : allRules) rules.push_back(ruleOf(rule));
  return {{"driver",
           {{"name", "gatewayctl check"},
            {"version", GATEWAY_VERSION},
            {"semanticVersion", GATEWAY_VERSION},
            {"rules", std::move(rules)}}}};
}

// ---- Results ----------------------------------------------------------------------------------

// Whether the edit means the same as text. JSON can't hold other bytes.
bool isText(const Diagnostic& diagnostic) {
  return isUtf8(diagnostic.source) && isUtf8(diagnostic.repair->after);
}

Json fixOf(const Diagnostic& diagnostic) {
  const Repair& repair = *diagnostic.repair;
  const Json replacement = {
      {"deletedRegion", regionOf(diagnostic, repair.column, repair.before.size())},
      {"insertedContent", messageWith(repair.after)}};
  return {{"description", messageWith(diagnostic.remedy)},
          {"artifactChanges",
           {{{"artifactLocation", artifactOf(diagnostic.file)},
             {"replacements", Json::array({replacement})}}}},
          {"properties", {{"safe", repair.isSafe}}}};
}

Json resultOf(const Diagnostic& diagnostic) {
  Json result = {{"ruleId", diagnostic.rule.text().name},
                 {"ruleIndex", diagnostic.rule.index()},
                 {"level", nameOf(diagnostic.severity)},
                 {"message", messageWith(messageOf(diagnostic))},
                 {"locations", Json::array({locationOf(diagnostic)})}};
  for (const Note& note : diagnostic.notes) result["relatedLocations"].push_back(locationOf(note));
  if (diagnostic.repair && isText(diagnostic)) result["fixes"].push_back(fixOf(diagnostic));
  return result;
}

// ---- The run ----------------------------------------------------------------------------------

Json notificationOf(const Checked& checked, std::string_view level, const std::string& text) {
  return {{"level", level},
          {"message", messageWith(text)},
          {"locations", Json::array({locationOf(checked.file)})}};
}

Json invocationOf(const std::vector<Checked>& files, int exitCode) {
  bool isComplete = true;
  Json notifications = Json::array();
  for (const Checked& each : files) {
    if (const std::string omitted = omittedText(each); !omitted.empty()) {
      notifications.push_back(notificationOf(each, "note", omitted));
    }
    if (each.verdict != Verdict::Unreadable) continue;
    isComplete = false;
    notifications.push_back(notificationOf(each, "error", each.reason));
  }
  return {{"executionSuccessful", isComplete},
          {"exitCode", exitCode},
          {"toolExecutionNotifications", std::move(notifications)}};
}

}  // namespace

Json sarifOf(const std::vector<Checked>& files, int exitCode) {
  Json results = Json::array();
  for (const Checked& file : files) {
    for (const Diagnostic& each : file.diagnostics) results.push_back(resultOf(each));
  }
  Json run = {{"tool", toolOf()},
              {"columnKind", "utf16CodeUnits"},
              {"invocations", Json::array({invocationOf(files, exitCode)})},
              {"results", std::move(results)}};
  return {{"$schema", "https://json.schemastore.org/sarif-2.1.0.json"},
          {"version", "2.1.0"},
          {"runs", Json::array({std::move(run)})}};
}

}  // namespace check
