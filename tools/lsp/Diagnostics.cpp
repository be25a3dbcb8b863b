#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <sstream>
#include <utility>

#include "tools/lsp/Features.h"

namespace lsp {
namespace {

using check::Checked;
using check::Diagnostic;
using check::Severity;

int severityOf(Severity severity) {
  switch (severity) {
    case Severity::Error:
      return 1;
    case Severity::Warning:
      return 2;
    case Severity::Note:
      break;
  }
  return 3;
}

// "so TEXT [RULE]", as the command line shows what follows from the same mistake.
std::string textOf(const check::Note& note) {
  return fmt::format("so {} [{}]", note.text, note.rule.text().name);
}

Json locationOf(const std::string& uri, const Json& range) {
  return {{"uri", uri}, {"range", range}};
}

// Where "FILE:LINE" is.
Json locationOf(const std::string& readAt, const Documents& documents) {
  const std::size_t colon = readAt.rfind(':');
  const std::string path = readAt.substr(0, colon);
  const std::size_t line = std::stoul(readAt.substr(colon + 1)) - 1;
  const Document* const document = documents.at(path);
  const Json start = jsonOf({line, 0});
  const Json end = jsonOf({line + 1, 0});
  return locationOf(document != nullptr ? document->uri() : uriOf(path),
                    {{"start", start}, {"end", end}});
}

// Turns the diagnostics of main files into those of the protocol.
class Translator {
 public:
  Translator(const Documents& documents, const Client& client)
      : documents_(documents), client_(client) {}

  Json operator()(const Diagnostic& diagnostic, const Document& document) const {
    const Json range = rangeOf(diagnostic, document);
    Json related = Json::array();
    std::string message = fmt::format("{}; {}", diagnostic.text, diagnostic.remedy);
    const auto add = [&](const std::string& text, const Json& location) {
      if (client_.showsRelatedInformation)
        related.push_back({{"location", location}, {"message", text}});
      else
        message += "\n" + text;
    };
    for (const auto& note : diagnostic.notes) add(textOf(note), locationOf(document.uri(), range));
    if (!diagnostic.readAt.empty()) {
      add("included from " + diagnostic.readAt, locationOf(diagnostic.readAt, documents_));
    }
    Json json = {{"range", range},
                 {"severity", severityOf(diagnostic.severity)},
                 {"code", diagnostic.rule.text().name},
                 {"source", "gatewayctl"},
                 {"message", message}};
    if (!related.empty()) json["relatedInformation"] = std::move(related);
    return json;
  }

 private:
  // That of the file as a whole is at its beginning.
  static Json rangeOf(const Diagnostic& diagnostic, const Document& document) {
    if (diagnostic.line == 0) return document.rangeOf(0, 0);
    const std::size_t begin = document.offsetAt(diagnostic.line, diagnostic.column);
    return document.rangeOf(begin, begin + diagnostic.size);
  }

  const Documents& documents_;
  const Client& client_;
};

// Without a place in a line.
Json remark(const std::string& text, Severity severity, const Document& document) {
  return {{"range", document.rangeOf(0, 0)},
          {"severity", severityOf(severity)},
          {"source", "gatewayctl"},
          {"message", text}};
}

// What the check has to say besides its diagnostics.
Json remarksOn(const Checked& checked, const Document& document) {
  Json remarks = Json::array();
  const auto add = [&](Severity severity, const std::string& text) {
    remarks.push_back(remark(text, severity, document));
  };
  const bool isRefused = checked.verdict == check::Verdict::Refused;
  if (checked.verdict == check::Verdict::Unreadable) {
    add(Severity::Error, "can't check this file: " + checked.reason);
  } else if (isRefused != (checked.count(Severity::Error) > 0)) {
    add(Severity::Error, fmt::format("the module {} this file, but the diagnostics say otherwise",
                                     isRefused ? "refuses" : "accepts"));
  }
  for (const auto& each : checked.omitted) {
    add(Severity::Note, fmt::format("not shown: {} more of {}", each.count, each.rule.text().name));
  }
  return remarks;
}

std::string textOf(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

}  // namespace

std::vector<Shown> diagnosticsOf(const Document& document, Checks& checks, const Client& client) {
  const Translator translate(checks.documents(), client);
  std::vector<Shown> shown;
  for (const Document* root : checks.rootsOf(document)) {
    for (const Diagnostic& each : checks.of(*root).diagnostics) {
      if (!Checks::names(each.file, document)) continue;
      Json json = translate(each, document);
      const bool isKnown = std::any_of(shown.begin(), shown.end(),
                                       [&](const Shown& other) { return other.json == json; });
      if (!isKnown) shown.push_back({each, std::move(json)});
    }
  }
  return shown;
}

std::map<std::string, Json> allDiagnostics(const Documents& documents, Checks& checks,
                                           const Client& client) {
  const Translator translate(documents, client);
  std::map<std::string, Json> all;
  std::map<std::string, std::unique_ptr<Document>> files;  // those that are not open
  for (const Document& document : documents.all()) all[document.uri()] = Json::array();
  for (const Document* root : checks.roots()) {
    const Checked& checked = checks.of(*root);
    all[root->uri()] = remarksOn(checked, *root);
    for (const Diagnostic& each : checked.diagnostics) {
      const bool isOwn = Checks::names(each.file, *root);
      const Document* document = isOwn ? root : documents.at(each.file);
      if (document == nullptr) {
        auto& file = files[each.file];
        if (!file) {
          file =
              std::make_unique<Document>(uriOf(each.file), textOf(each.file), documents.encoding);
        }
        document = file.get();
      }
      Json json = translate(each, *document);
      Json& list = all.try_emplace(document->uri(), Json::array()).first->second;
      if (std::find(list.begin(), list.end(), json) == list.end()) list.push_back(std::move(json));
    }
  }
  return all;
}

}  // namespace lsp
