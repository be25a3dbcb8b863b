#include "tools/common/StatusName.h"

#include <fmt/format.h>

#include <array>
#include <utility>

namespace tools {
namespace {

constexpr std::array<std::pair<std::string_view, grpc::StatusCode>, 17> codes{{
    {"OK", grpc::StatusCode::OK},
    {"CANCELLED", grpc::StatusCode::CANCELLED},
    {"UNKNOWN", grpc::StatusCode::UNKNOWN},
    {"INVALID_ARGUMENT", grpc::StatusCode::INVALID_ARGUMENT},
    {"DEADLINE_EXCEEDED", grpc::StatusCode::DEADLINE_EXCEEDED},
    {"NOT_FOUND", grpc::StatusCode::NOT_FOUND},
    {"ALREADY_EXISTS", grpc::StatusCode::ALREADY_EXISTS},
    {"PERMISSION_DENIED", grpc::StatusCode::PERMISSION_DENIED},
    {"RESOURCE_EXHAUSTED", grpc::StatusCode::RESOURCE_EXHAUSTED},
    {"FAILED_PRECONDITION", grpc::StatusCode::FAILED_PRECONDITION},
    {"ABORTED", grpc::StatusCode::ABORTED},
    {"OUT_OF_RANGE", grpc::StatusCode::OUT_OF_RANGE},
    {"UNIMPLEMENTED", grpc::StatusCode::UNIMPLEMENTED},
    {"INTERNAL", grpc::StatusCode::INTERNAL},
    {"UNAVAILABLE", grpc::StatusCode::UNAVAILABLE},
    {"DATA_LOSS", grpc::StatusCode::DATA_LOSS},
    {"UNAUTHENTICATED", grpc::StatusCode::UNAUTHENTICATED},
}};

}  // namespace

std::optional<grpc::StatusCode> statusCalled(std::string_view name) {
  for (const auto& [word, code] : codes) {
    if (word == name) return code;
  }
  return std::nullopt;
}

std::optional<std::string_view> nameOf(grpc::StatusCode code) {
  for (const auto& [word, known] : codes) {
    if (known == code) return word;
  }
  return std::nullopt;
}

std::string statusText(grpc::StatusCode code) {
  const auto name = nameOf(code);
  return name ? std::string(*name) : fmt::format("status {}", static_cast<int>(code));
}

std::vector<std::string> statusNames() {
  std::vector<std::string> names;
  names.reserve(codes.size());
  for (const auto& row : codes) names.emplace_back(row.first);
  return names;
}

}  // namespace tools
