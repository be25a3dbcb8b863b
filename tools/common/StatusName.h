// gRPC's status codes by the names in its documentation. Any thread.
#pragma once

#include <grpcpp/support/status.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tools {

std::optional<grpc::StatusCode> statusCalled(std::string_view name);

// Nothing for an unknown code.
std::optional<std::string_view> nameOf(grpc::StatusCode code);

// "UNAVAILABLE", or "status 99" for an unknown code.
std::string statusText(grpc::StatusCode code);

// All of them, OK first.
std::vector<std::string> statusNames();

}  // namespace tools
