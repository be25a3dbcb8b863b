#include "tools/record/Show.h"

#include <fmt/format.h>
#include <google/protobuf/stubs/logging.h>

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "tools/common/ExitCode.h"
#include "tools/common/Json.h"
#include "tools/common/Output.h"
#include "tools/common/StatusName.h"
#include "tools/record/Summary.h"
#include "tools/recording/Reader.h"

namespace record {
namespace {

using nlohmann::ordered_json;
using recording::Kind;
using recording::Record;

std::string hexOf(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes) text += fmt::format("{:02x}", static_cast<unsigned char>(byte));
  return text;
}

void addEnd(ordered_json& line, const Record& record) {
  const auto [code, text] = recording::endIn(record.content);
  const auto name = tools::nameOf(static_cast<grpc::StatusCode>(code));
  line["status"] = name ? ordered_json(*name) : ordered_json(code);
  line["text"] = text;
}

// `values`: what a message holds, or null.
ordered_json lineOf(const Record& record, const ordered_json& values) {
  ordered_json line{{"time", static_cast<double>(record.time) / 1e6},
                    {"event", nameOf(record.kind)}};
  if (record.kind == Kind::Closed) return line;
  line["stream"] = nameOf(record.stream);
  line["number"] = record.number;
  switch (record.kind) {
    case Kind::Started:
      line["target"] = record.content;
      break;
    case Kind::Message:
    case Kind::Reply:
      line["bytes"] = record.content.size();
      if (values.is_null()) {
        line["hex"] = hexOf(record.content);
      } else {
        line["values"] = values;
      }
      break;
    case Kind::Ended:
      addEnd(line, record);
      break;
    case Kind::Lost: {
      const auto lost = recording::lostIn(record.content);
      line["messages"] = lost.messages;
      line["bytes"] = lost.bytes;
      break;
    }
    case Kind::Opened:
    case Kind::Closed:
      break;
  }
  return line;
}

void showRecords(recording::Reader& reader, Summary& summary, bool json) {
  while (const auto record = reader.next()) {
    const auto values = summary.take(*record, json);
    if (json) tools::writeOut(tools::jsonText(lineOf(*record, values)) + "\n");
    if (tools::outputFailed()) throw std::runtime_error("can't write to standard output");
  }
}

}  // namespace

int show(const std::string& path, bool json) {
  // Keeps protobuf from logging texts that are not UTF-8: they are counted.
  google::protobuf::SetLogHandler(nullptr);
  std::string problem;
  bool isCut = false;
  try {
    recording::Reader reader(recording::fileSource(path));
    Summary summary(path, reader.startTime());
    try {
      showRecords(reader, summary, json);
    } catch (const recording::Damaged& error) {
      isCut = dynamic_cast<const recording::Cut*>(&error) != nullptr;
      problem = error.what();
    }
    tools::writeOut(json ? tools::jsonText(summary.json()) + "\n" : summary.text());
  } catch (const recording::Damaged& error) {
    problem = error.what();
  }
  if (problem.empty()) return tools::ExitCode::Done;
  problem = fmt::format("{}: {}", path, problem);
  if (!isCut) throw std::runtime_error(problem);
  tools::say("record", "warning: " + problem);
  return tools::ExitCode::Done;
}

}  // namespace record
