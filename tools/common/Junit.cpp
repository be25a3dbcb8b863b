#include "tools/common/Junit.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

#include "tools/common/Json.h"
#include "tools/common/Words.h"

namespace tools {
namespace {

// The same text with U+FFFD in place of bytes that are not UTF-8.
std::string validUtf8(std::string_view text) {
  return nlohmann::json::parse(jsonText(nlohmann::json(text))).get<std::string>();
}

std::string xmlText(std::string_view text) {
  std::string escaped;
  for (const char byte : printable(validUtf8(text))) {
    if (byte == '&') {
      escaped += "&amp;";
    } else if (byte == '<') {
      escaped += "&lt;";
    } else if (byte == '>') {
      escaped += "&gt;";
    } else if (byte == '"') {
      escaped += "&quot;";
    } else {
      escaped += byte;
    }
  }
  // U+FFFE and U+FFFF, which XML forbids although they are valid UTF-8.
  for (const std::string_view forbidden : {"\xef\xbf\xbe", "\xef\xbf\xbf"}) {
    for (auto at = escaped.find(forbidden); at != escaped.npos; at = escaped.find(forbidden, at)) {
      escaped.replace(at, forbidden.size(), "\xef\xbf\xbd");
    }
  }
  return escaped;
}

std::string xmlOf(const std::string& suite, const JunitCase& each) {
  std::string content;
  if (each.failure) {
    content += fmt::format("    <failure message=\"{}\"/>\n", xmlText(*each.failure));
  }
  if (each.skipped) {
    content += fmt::format("    <skipped message=\"{}\"/>\n", xmlText(*each.skipped));
  }
  if (!each.output.empty()) {
    content += fmt::format("    <system-out>{}</system-out>\n", xmlText(each.output));
  }
  std::string className = suite;
  std::replace(className.begin(), className.end(), ' ', '.');
  const auto start = fmt::format("  <testcase classname=\"{}\" name=\"{}\" time=\"{:.3f}\"",
                                 className, xmlText(each.name), each.seconds);
  return content.empty() ? start + "/>\n" : fmt::format("{}>\n{}  </testcase>\n", start, content);
}

}  // namespace

std::string junitOf(const std::string& suite, const std::vector<JunitCase>& cases) {
  const auto countOf = [&](auto member) {
    return std::count_if(cases.begin(), cases.end(),
                         [&](const JunitCase& each) { return (each.*member).has_value(); });
  };
  std::string xml = fmt::format(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuite name=\"{}\" tests=\"{}\" "
      "failures=\"{}\" skipped=\"{}\">\n",
      suite, cases.size(), countOf(&JunitCase::failure), countOf(&JunitCase::skipped));
  for (const JunitCase& each : cases) xml += xmlOf(suite, each);
  return xml + "</testsuite>\n";
}

}  // namespace tools
